#include "thread.h"

#include <event2/event.h>

#include <algorithm>
#include <memory>
#include <unordered_map>
#include <vector>

namespace {
struct event_deleter {
    void operator()(event *ev) const { event_free(ev); }
};
struct base_deleter {
    void operator()(event_base *b) const { event_base_free(b); }
};
}  // namespace

// A pending task: the public record plus the libevent event that triggers it.
struct task_slot {
    thread pub;
    std::unique_ptr<event, event_deleter> ev;
    long msec = 0;             // timers: the interval armed
    std::uint64_t serial = 0;  // order of creation on the master
    bool running = false;
    bool cancelled = false;
    bool repeat = false;  // a read task that stays armed (EV_PERSIST)
};

struct thread_master {
    std::unique_ptr<event_base, base_deleter> base;
    std::unordered_map<thread *, std::unique_ptr<task_slot>> tasks;
    std::uint64_t created = 0;
    int ran = 0;
    void (*after)() = nullptr;
};

namespace {

void finish(thread_master *m, thread *t) {
    m->tasks.erase(t);
}

void run_slot(task_slot *slot) {
    thread_master *m = slot->pub.master;
    slot->running = true;
    ++m->ran;
    slot->pub.func(&slot->pub);
    if (slot->repeat && !slot->cancelled) {
        slot->running = false;  // stays armed, registered as it was
    } else {
        finish(m, &slot->pub);
    }
    if (m->after != nullptr) {
        m->after();
    }
}

void dispatch(evutil_socket_t, short, void *p) {
    run_slot(static_cast<task_slot *>(p));
}

thread *add_task(thread_master *m, thread_kind kind, thread_func func, void *arg, int fd, int val,
                 const char *name, const timeval *tv, short what) {
    if (m == nullptr || func == nullptr) {
        return nullptr;
    }
    auto slot = std::make_unique<task_slot>();
    slot->pub = thread{kind, m, func, arg, fd, val, name};
    slot->repeat = (what & EV_PERSIST) != 0;
    evutil_socket_t efd = (kind == thread_kind::read || kind == thread_kind::write) ? fd : -1;
    slot->ev.reset(event_new(m->base.get(), efd, what, dispatch, slot.get()));
    if (!slot->ev) {
        return nullptr;
    }
    if (kind == thread_kind::event) {
        event_active(slot->ev.get(), EV_TIMEOUT, 0);
    } else if (event_add(slot->ev.get(), tv) != 0) {
        return nullptr;
    }
    if (tv != nullptr) {
        slot->msec = static_cast<long>(tv->tv_sec) * 1000 + static_cast<long>(tv->tv_usec) / 1000;
    }
    slot->serial = ++m->created;
    thread *t = &slot->pub;
    m->tasks.emplace(t, std::move(slot));
    return t;
}

timeval ms_to_tv(long msec) {
    if (msec < 0) {
        msec = 0;
    }
    timeval tv{};
    tv.tv_sec = msec / 1000;
    tv.tv_usec = static_cast<suseconds_t>((msec % 1000) * 1000);
    return tv;
}

}  // namespace

thread_master *thread_master_create() {
    auto m = std::make_unique<thread_master>();
    // One-shot read tasks are deleted and re-added on every packet; the
    // changelist folds that pair into nothing instead of two epoll_ctl calls.
    std::unique_ptr<event_config, decltype(&event_config_free)> cfg(event_config_new(),
                                                                    event_config_free);
    if (cfg) {
        event_config_set_flag(cfg.get(), EVENT_BASE_FLAG_EPOLL_USE_CHANGELIST);
        m->base.reset(event_base_new_with_config(cfg.get()));
    }
    if (!m->base) {
        m->base.reset(event_base_new());
    }
    if (!m->base) {
        return nullptr;
    }
    return m.release();
}

void thread_master_free(thread_master *m) {
    std::unique_ptr<thread_master> owned(m);
    if (owned) {
        owned->tasks.clear();  // events go before their base
    }
}

thread *funcname_thread_add_read(thread_master *m, thread_func func, void *arg, int fd,
                                 const char *funcname) {
    if (fd < 0) {
        return nullptr;
    }
    return add_task(m, thread_kind::read, func, arg, fd, 0, funcname, nullptr, EV_READ);
}

thread *funcname_thread_add_read_repeat(thread_master *m, thread_func func, void *arg, int fd,
                                        const char *funcname) {
    if (fd < 0) {
        return nullptr;
    }
    return add_task(m, thread_kind::read, func, arg, fd, 0, funcname, nullptr,
                    EV_READ | EV_PERSIST);
}

thread *funcname_thread_add_write(thread_master *m, thread_func func, void *arg, int fd,
                                  const char *funcname) {
    if (fd < 0) {
        return nullptr;
    }
    return add_task(m, thread_kind::write, func, arg, fd, 0, funcname, nullptr, EV_WRITE);
}

thread *funcname_thread_add_timer_msec(thread_master *m, thread_func func, void *arg, long msec,
                                       const char *funcname) {
    timeval tv = ms_to_tv(msec);
    return add_task(m, thread_kind::timer, func, arg, -1, 0, funcname, &tv, 0);
}

thread *funcname_thread_add_timer(thread_master *m, thread_func func, void *arg, long seconds,
                                  const char *funcname) {
    return funcname_thread_add_timer_msec(m, func, arg, seconds * 1000, funcname);
}

thread *funcname_thread_add_event(thread_master *m, thread_func func, void *arg, int val,
                                  const char *funcname) {
    return add_task(m, thread_kind::event, func, arg, -1, val, funcname, nullptr, 0);
}

void thread_cancel(thread *t) {
    if (t == nullptr) {
        return;
    }
    thread_master *m = t->master;
    auto it = m->tasks.find(t);
    if (it == m->tasks.end()) {
        return;
    }
    task_slot &slot = *it->second;
    if (slot.running) {
        // A kept read task cancelled by its own callback ends when the
        // callback returns; a one-shot task ends then anyway.
        if (slot.repeat && !slot.cancelled) {
            slot.cancelled = true;
            event_del(slot.ev.get());
        }
        return;
    }
    m->tasks.erase(it);
}

std::size_t thread_count(const thread_master *m) {
    return m ? m->tasks.size() : 0;
}

void thread_main(thread_master *m) {
    if (m != nullptr) {
        if (m->after != nullptr) {
            m->after();
        }
        event_base_dispatch(m->base.get());
    }
}

void thread_set_after_hook(thread_master *m, void (*hook)()) {
    if (m != nullptr) {
        m->after = hook;
    }
}

int thread_run_once(thread_master *m, int timeout_ms) {
    if (m == nullptr) {
        return 0;
    }
    m->ran = 0;
    if (timeout_ms < 0) {
        event_base_loop(m->base.get(), EVLOOP_ONCE);
    } else if (timeout_ms == 0) {
        event_base_loop(m->base.get(), EVLOOP_NONBLOCK);
    } else {
        // Bound the wait with a private timer so an idle master still returns;
        // it is freed here, so nothing of it outlives this call.
        timeval tv = ms_to_tv(timeout_ms);
        std::unique_ptr<event, event_deleter> bound(event_new(
            m->base.get(), -1, 0, [](evutil_socket_t, short, void *) {}, nullptr));
        if (bound) {
            event_add(bound.get(), &tv);
        }
        event_base_loop(m->base.get(), EVLOOP_ONCE);
    }
    return m->ran;
}

void thread_break(thread_master *m) {
    if (m != nullptr) {
        event_base_loopbreak(m->base.get());
    }
}

std::vector<long> thread_timer_intervals(const thread_master *m) {
    std::vector<long> out;
    if (m != nullptr) {
        for (const auto &[t, slot] : m->tasks) {
            if (t->kind == thread_kind::timer) {
                out.push_back(slot->msec);
            }
        }
    }
    std::sort(out.begin(), out.end());
    return out;
}

int thread_fire_timers(thread_master *m) {
    if (m == nullptr) {
        return 0;
    }
    struct due_timer {
        long msec;
        std::uint64_t serial;
        thread *t;
    };
    std::vector<due_timer> due;
    for (const auto &[t, slot] : m->tasks) {
        if (t->kind == thread_kind::timer) {
            due.push_back({slot->msec, slot->serial, t});
        }
    }
    // In the order their time would come: shortest first, then the older.
    std::sort(due.begin(), due.end(), [](const due_timer &a, const due_timer &b) {
        return a.msec != b.msec ? a.msec < b.msec : a.serial < b.serial;
    });
    m->ran = 0;
    for (const auto &[msec, serial, t] : due) {
        // A callback that ran before may have cancelled this one (and its
        // place may hold a task made since).
        auto it = m->tasks.find(t);
        if (it != m->tasks.end() && it->second->serial == serial) {
            event_del(it->second->ev.get());
            run_slot(it->second.get());
        }
    }
    return m->ran;
}

event_base *thread_master_event_base(thread_master *m) {
    return m ? m->base.get() : nullptr;
}
