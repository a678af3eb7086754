// Local stream sockets for the daemon's servers (vty, JSON): listening at a
// filesystem path and accepting from it, both nonblocking and close-on-exec.
// `who` prefixes every log line ("<who>: ...").
#pragma once

#include "lib/unique_fd.h"

// Listens at `path` with mode 0770 and `backlog`, replacing a socket file an
// earlier run left there. An empty, missing or too long path logs
// "<who>: socket path '<path>' is empty or too long"; a failed socket, bind,
// chmod or listen logs "<who>: can't serve on <path>: <error>". Either gives
// an empty descriptor.
unique_fd unix_listen(const char *who, const char *path, int backlog);

// Accepts one connection from `listen_fd`. Gives an empty descriptor when
// there is none; `*starved` then says whether the process ran out of
// descriptors or memory (logged as "<who>: accept failed: <error>"), in
// which case the caller backs off instead of spinning on the ready socket.
unique_fd unix_accept(const char *who, int listen_fd, bool *starved);
