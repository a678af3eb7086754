// Signals handled inside the event loop.
//
// signal_init() registers each entry with the scheduler: the kernel-level
// handler only marks the signal, and the entry's handler runs later as an
// ordinary loop callback, so it may log, allocate and exit freely.
// SIGPIPE is ignored process-wide (a vanished peer shows up as EPIPE).
#pragma once

#include <csignal>

struct thread_master;

struct zsignal_t {
    int signal;
    void (*handler)();
    volatile sig_atomic_t caught;
};

void signal_init(thread_master *m, int sigc, zsignal_t signals[]);
