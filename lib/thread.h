// The event scheduler every callback of the daemon runs on.
//
// One `thread_master` per process (the daemon's `master`). A "thread" is a
// one-shot task: a read task fires once when its descriptor is readable and
// must be re-armed by its callback; a timer fires once; an event runs on the
// next loop turn. After its callback returns, a task is gone: callers must
// drop the handle they kept once the callback runs, or cancel it before.
// The one exception is a kept read task (thread_add_read_repeat), which
// fires until cancelled.
// The engine underneath is libevent; no callback ever runs in signal context.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

struct thread_master;
struct thread;

using thread_func = int (*)(struct thread *);

enum class thread_kind : std::uint8_t { read, write, timer, event };

struct thread {
    thread_kind kind;
    thread_master *master;
    thread_func func;
    void *arg;
    int fd;   // descriptor for read/write tasks
    int val;  // value for events
    const char *funcname;
};

#define THREAD_ARG(t) ((t)->arg)
#define THREAD_FD(t) ((t)->fd)
#define THREAD_VAL(t) ((t)->val)

thread_master *thread_master_create();
void thread_master_free(thread_master *m);

thread *funcname_thread_add_read(thread_master *m, thread_func func, void *arg, int fd,
                                 const char *funcname);
// A read task that stays armed: it fires each time `fd` is readable, until
// cancelled, with no registration made again in between (re-arming a
// one-shot task costs the hot sockets a system call per wake-up). Its handle
// stays valid until thread_cancel(); a callback may cancel its own task,
// which ends when the callback returns. The descriptor must stay open while
// the task is armed.
thread *funcname_thread_add_read_repeat(thread_master *m, thread_func func, void *arg, int fd,
                                        const char *funcname);
thread *funcname_thread_add_write(thread_master *m, thread_func func, void *arg, int fd,
                                  const char *funcname);
thread *funcname_thread_add_timer(thread_master *m, thread_func func, void *arg, long seconds,
                                  const char *funcname);
thread *funcname_thread_add_timer_msec(thread_master *m, thread_func func, void *arg, long msec,
                                       const char *funcname);
thread *funcname_thread_add_event(thread_master *m, thread_func func, void *arg, int val,
                                  const char *funcname);

#define thread_add_read(m, f, a, fd) funcname_thread_add_read(m, f, a, fd, #f)
#define thread_add_read_repeat(m, f, a, fd) funcname_thread_add_read_repeat(m, f, a, fd, #f)
#define thread_add_write(m, f, a, fd) funcname_thread_add_write(m, f, a, fd, #f)
#define thread_add_timer(m, f, a, s) funcname_thread_add_timer(m, f, a, s, #f)
#define thread_add_timer_msec(m, f, a, ms) funcname_thread_add_timer_msec(m, f, a, ms, #f)
#define thread_add_event(m, f, a, v) funcname_thread_add_event(m, f, a, v, #f)

// Cancels a pending task; a null handle is ignored. Cancelling the task whose
// callback is running now is a no-op (it is finished when the callback
// returns), except that a kept read task then ends instead of staying armed.
void thread_cancel(thread *t);

// Number of tasks pending on the master (all kinds).
std::size_t thread_count(const thread_master *m);

// Runs the loop until thread_break() is called or nothing is left to wait for.
void thread_main(thread_master *m);
// Runs one turn: waits up to timeout_ms (-1: until something happens, 0: poll)
// and runs what is ready. Returns the number of callbacks run.
int thread_run_once(thread_master *m, int timeout_ms);
// Makes thread_main() return after the current callback.
void thread_break(thread_master *m);
// Runs after every callback, and once as thread_main() starts (the daemon
// flushes its log there). nullptr removes it.
void thread_set_after_hook(thread_master *m, void (*hook)());

// Tests run timers by hand instead of waiting for them. The intervals (ms)
// the pending timers of `m` were armed with, ascending.
std::vector<long> thread_timer_intervals(const thread_master *m);
// Runs every timer pending on `m` now, as if its time had come; timers their
// callbacks arm wait for their own time (or the next call). Returns how many
// callbacks ran.
int thread_fire_timers(thread_master *m);

// Libevent base behind the master, for modules that need their own events.
struct event_base *thread_master_event_base(thread_master *m);
