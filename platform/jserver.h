// The JSON request server of the switch's web front end.
//
// A local client connects to the UNIX stream socket given to jserver_init()
// (mode 0770: root and the daemon's group only), writes one request and may
// shut down its write side; the server answers with the reply bytes (possibly
// none) and closes. A request is one JSON object whose member "cmd" names the
// request; its other members ("config", "data") are the request's own.
//
// A request is complete when the client shuts down its write side or when the
// bytes received so far form one complete JSON value. Bounds: a request over
// JSERVER_REQUEST_MAX bytes, or nested deeper than JSERVER_DEPTH_MAX levels,
// is answered with a short JSON error ({"error":"..."}) without reaching the
// callback; at most JSERVER_CONN_MAX connections are served at once (a further
// one is closed at once); a connection idle for JSERVER_IDLE_SECONDS is closed.
//
// The callback given to jserver_init() is called once per complete request,
// inside one event-loop callback, with the connection's descriptor and the
// request text (not NUL-terminated; `len` bytes). It parses the text, calls
// jserver_cmd_handle() and hands the reply to jserver_reply(). The server
// closes the connection once the reply is sent (at once when there is none).
//
// Replies go through jserver_reply() rather than a plain write(): a full lease
// page is larger than a socket buffer, and a client that does not read must
// never block the daemon. What cannot be written at once is kept and sent as
// the client reads; a client that reads nothing for JSERVER_IDLE_SECONDS is
// closed.
//
// jserver_cmd_handle() picks the handler registered under the request's "cmd"
// and runs it. A null tree (the text did not parse), a tree that is not an
// object, a missing or non-text "cmd" and an unknown name get a short JSON
// error reply written into the buffer by the dispatcher itself; no handler
// runs and nothing changes.
#pragma once

#include <cstddef>

struct cJSON;
struct thread_master;

constexpr std::size_t JSERVER_REQUEST_MAX = 64 * 1024;
constexpr int JSERVER_DEPTH_MAX = 64;
constexpr int JSERVER_CONN_MAX = 16;
constexpr int JSERVER_IDLE_SECONDS = 10;

// Error replies of the dispatcher and the server.
inline constexpr char JSERVER_ERR_PARSE[] = "{\"error\":\"malformed request\"}";
inline constexpr char JSERVER_ERR_NO_CMD[] = "{\"error\":\"missing cmd\"}";
inline constexpr char JSERVER_ERR_UNKNOWN[] = "{\"error\":\"unknown request\"}";
inline constexpr char JSERVER_ERR_TOO_LONG[] = "{\"error\":\"request too long\"}";
inline constexpr char JSERVER_ERR_TOO_DEEP[] = "{\"error\":\"request nested too deeply\"}";

// Connection callback: returns 0.
using jserver_request_fn = int (*)(int fd, const char *text, std::size_t len);
// Request handler: writes its reply into `response` and returns its length
// (0 for none). The response buffer is the caller's; its size is the one the
// handlers' module states.
using jserver_handler_fn = int (*)(cJSON *root, char *response);

// Creates the listening socket at `path` (an old socket file there is
// replaced) and registers it with the event loop. 0, or -1 (logged).
int jserver_init(thread_master *master, const char *path, jserver_request_fn callback);
// Closes the listening socket and every open connection (tests, shutdown).
void jserver_close();

// Registers `name` (copied) with its handler; a name registered again takes
// the new handler. 0, or -1 for a null or empty name or null handler.
int jserver_cmd_add(const char *name, jserver_handler_fn handler);
// Forgets every registered request (tests).
void jserver_cmd_reset();

// Sends `len` bytes of `data` as the reply on connection `fd` (the descriptor
// the callback got); the bytes are copied. 0, or -1 when `fd` is not a
// connection of this server waiting for its reply.
int jserver_reply(int fd, const char *data, std::size_t len);
// Number of connections open now (tests).
std::size_t jserver_conn_count();

// Dispatches `root` (may be null): *len gets the reply's length, whose bytes
// are in `response` (at most `size` bytes; an error reply always fits in 64).
// Returns 0 when a handler ran, -1 when the dispatcher answered an error.
int jserver_cmd_handle(cJSON *root, char *response, std::size_t size, int *len);
