// CLI connections (vty) and the vty server on a UNIX socket.
//
// A vty carries one session: its node, its current object (`index`, e.g. the
// interface or pool being configured) and its output. vty_out() appends to
// the session's output; a null vty prints nothing. Line ends: "\r\n" on a
// terminal vty, "\n" on every other kind (VTY_NEWLINE).
//
// The server speaks the shell protocol of vty_proto.h. Each session has its
// own node and object; a session that sends garbage, an over-long line or
// vanishes mid-command only affects itself.
#pragma once

#include <memory>
#include <string>

#include "command.h"

struct thread_master;

enum vty_type { VTY_TERM, VTY_FILE, VTY_SHELL, VTY_SHELL_SERV };
enum vty_status { VTY_NORMAL, VTY_CLOSE };

struct vty_session;  // server-side connection state, private to vty.cpp

struct vty {
    int fd = -1;
    vty_type type = VTY_SHELL_SERV;
    vty_status status = VTY_NORMAL;
    int node = ENABLE_NODE;
    void *index = nullptr;      // object of the current node
    void *index_sub = nullptr;  // spare slot for nested objects
    std::string obuf;           // output not yet sent
    vty_session *session = nullptr;
};

inline const char *vty_newline(const vty *v) {
    return (v != nullptr && v->type == VTY_TERM) ? "\r\n" : "\n";
}
// Used inside handlers, where the session is always called `vty`.
#define VTY_NEWLINE vty_newline(vty)

int vty_out(vty *vty, const char *format, ...) __attribute__((format(printf, 2, 3)));

// A session not tied to a socket (tests, configuration writing).
std::unique_ptr<vty> vty_new(vty_type type = VTY_SHELL_SERV);

void vty_init(thread_master *master);
// Serves sessions on the UNIX socket `path` (addr and port are unused).
// Returns 0, or -1 after logging why the socket could not be set up.
// At most 64 sessions at once; a session whose unsent output passes 16 MiB
// is dropped.
int vty_serv_sock(const char *addr, unsigned short port, const char *path);
// Closes the listening socket (removing its path) and every session; call it
// before the master is freed.
void vty_terminate();
// Number of open server sessions.
std::size_t vty_session_count();
// An object that sessions may be configuring is going away: every server
// session whose current object is `object` goes back to the configuration
// node with no object, so no later command reads it.
void vty_forget_index(const void *object);
