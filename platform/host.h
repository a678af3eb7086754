// Process-level platform facilities: the host record, the pid file and the
// hardware-abstraction layer's start-up.
#pragma once

#include <cstdint>
#include <sys/types.h>

// The platform's host facility; the values are the platform's own and are
// kept for its tools (host_features(), host_flags()).
void host_init(std::uint32_t features, int flags);
std::uint32_t host_features();
int host_flags();

// Writes the pid to `path` and keeps it locked while the process lives, so a
// second instance can tell. Returns the pid, or -1 (logged).
pid_t pid_output(const char *path);
// The pid of a live process holding the lock on the pid file `path`; 0 when
// the file is missing or nobody holds it. Only reads: creates nothing.
pid_t pid_file_holder(const char *path);

// Hardware abstraction: registers this daemon as client `client_id`.
void hal_init(int client_id);
int hal_client_id();
