// The socket side of the JSON request server: the listening socket, one
// connection per request, the completeness scanner and the reply queue.
//
// Every descriptor is nonblocking and every connection holds at most one
// request (JSERVER_REQUEST_MAX bytes) and one reply, so no client can block
// the daemon or grow its memory. A connection lives through three phases:
// reading the request, sending the reply, closed. Its idle timer is armed
// again whenever the client sends or takes bytes; when it fires, the
// connection is closed whatever its phase.
#include "platform/jserver.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "lib/log.h"
#include "lib/thread.h"
#include "lib/unique_fd.h"
#include "lib/unix_socket.h"

namespace {

constexpr std::size_t JSERVER_READ_CHUNK = 16 * 1024;
constexpr long JSERVER_ACCEPT_RETRY_MS = 100;
// What is read and dropped before closing, so that bytes a client sent past
// its request do not turn the close into a reset that could cost it the end
// of its reply.
constexpr std::size_t JSERVER_DRAIN_MAX = 64 * 1024;

// Tells when the bytes received so far hold one complete JSON value. It
// tracks strings (with their escapes) and the bracket depth only; whether
// the value is well-formed is the parser's business.
class json_scan {
  public:
    enum class result { more, complete, too_deep };

    result feed(char c) {
        if (in_string_) {
            return string_byte(c);
        }
        if (in_token_) {
            // A bare top-level value (number, literal) ends at the first
            // byte that cannot belong to it.
            return token_byte(c) ? result::more : result::complete;
        }
        switch (c) {
            case ' ':
            case '\t':
            case '\r':
            case '\n':
                return result::more;
            case '"':
                in_string_ = true;
                return result::more;
            case '{':
            case '[':
                return ++depth_ > JSERVER_DEPTH_MAX ? result::too_deep : result::more;
            case '}':
            case ']':
                // A stray closing bracket at the top ends the text as well:
                // the parser refuses it.
                if (depth_ > 0) {
                    --depth_;
                }
                return depth_ == 0 ? result::complete : result::more;
            default:
                in_token_ = depth_ == 0;
                return result::more;
        }
    }

  private:
    static bool token_byte(char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
               c == '.' || c == '+' || c == '-';
    }

    result string_byte(char c) {
        if (escape_) {
            escape_ = false;
        } else if (c == '\\') {
            escape_ = true;
        } else if (c == '"') {
            in_string_ = false;
            if (depth_ == 0) {
                return result::complete;
            }
        }
        return result::more;
    }

    int depth_ = 0;
    bool in_string_ = false;
    bool escape_ = false;
    bool in_token_ = false;
};

enum class phase { reading, in_callback, sending };

struct jserver_conn {
    unique_fd fd;
    phase state = phase::reading;
    std::string request;
    json_scan scan;
    std::string reply;
    std::size_t sent = 0;
    bool replied = false;
    bool broken = false;  // the socket failed while the callback ran
    thread *t_read = nullptr;
    thread *t_write = nullptr;
    thread *t_idle = nullptr;
};

struct jserver_state {
    thread_master *master = nullptr;
    jserver_request_fn callback = nullptr;
    unique_fd listen_fd;
    std::string path;
    thread *t_accept = nullptr;
    std::map<int, std::unique_ptr<jserver_conn>> conns;
};

jserver_state &server() {
    static jserver_state s;
    return s;
}

int jserver_read(thread *t);
int jserver_write(thread *t);
int jserver_idle(thread *t);
int jserver_accept(thread *t);
int jserver_accept_retry(thread *t);

void drain(int fd) {
    std::array<char, 4096> sink{};
    for (std::size_t total = 0; total < JSERVER_DRAIN_MAX;) {
        const ssize_t n = ::recv(fd, sink.data(), sink.size(), MSG_DONTWAIT);
        if (n <= 0) {
            return;
        }
        total += static_cast<std::size_t>(n);
    }
}

void conn_close(jserver_conn *c) {
    thread_cancel(c->t_read);
    thread_cancel(c->t_write);
    thread_cancel(c->t_idle);
    drain(c->fd.get());
    server().conns.erase(c->fd.get());
}

void arm_idle(jserver_conn *c) {
    thread_cancel(c->t_idle);
    c->t_idle = thread_add_timer(server().master, jserver_idle, c, JSERVER_IDLE_SECONDS);
}

// Sends what the socket takes now; false when the socket failed.
bool send_some(jserver_conn *c) {
    bool progress = false;
    while (c->sent < c->reply.size()) {
        const ssize_t n = ::send(c->fd.get(), c->reply.data() + c->sent, c->reply.size() - c->sent,
                                 MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            break;
        }
        if (n <= 0) {
            return false;
        }
        c->sent += static_cast<std::size_t>(n);
        progress = true;
    }
    if (progress) {
        arm_idle(c);
    }
    return true;
}

// The reply is queued (or there is none): send, then close or wait for room.
void start_sending(jserver_conn *c) {
    c->state = phase::sending;
    thread_cancel(c->t_read);
    c->t_read = nullptr;
    if (c->broken || !send_some(c) || c->sent == c->reply.size()) {
        conn_close(c);
        return;
    }
    c->t_write = thread_add_write(server().master, jserver_write, c, c->fd.get());
}

void refuse(jserver_conn *c, std::string_view reply) {
    c->request.clear();
    c->reply.assign(reply);
    start_sending(c);
}

void dispatch(jserver_conn *c) {
    c->state = phase::in_callback;
    const int fd = c->fd.get();
    server().callback(fd, c->request.data(), c->request.size());
    // The connection is still ours: the callback only reaches it through
    // jserver_reply(), which never closes it.
    c->request.clear();
    c->request.shrink_to_fit();
    start_sending(c);
}

// Takes `bytes` into the request. Returns false when the request is over
// (dispatched or refused) and the rest of the bytes are not wanted.
bool take_bytes(jserver_conn *c, std::string_view bytes) {
    for (const char b : bytes) {
        if (c->request.size() >= JSERVER_REQUEST_MAX) {
            zlog_warn("jserver: request over %zu bytes, refused", JSERVER_REQUEST_MAX);
            refuse(c, JSERVER_ERR_TOO_LONG);
            return false;
        }
        c->request.push_back(b);
        switch (c->scan.feed(b)) {
            case json_scan::result::more:
                break;
            case json_scan::result::complete:
                dispatch(c);
                return false;
            case json_scan::result::too_deep:
                zlog_warn("jserver: request nested deeper than %d levels, refused",
                          JSERVER_DEPTH_MAX);
                refuse(c, JSERVER_ERR_TOO_DEEP);
                return false;
        }
    }
    return true;
}

int jserver_read(thread *t) {
    auto *c = static_cast<jserver_conn *>(THREAD_ARG(t));
    c->t_read = nullptr;
    std::array<char, JSERVER_READ_CHUNK> chunk{};
    const ssize_t n = ::recv(c->fd.get(), chunk.data(), chunk.size(), MSG_DONTWAIT);
    if (n < 0) {
        if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) {
            c->t_read = thread_add_read(server().master, jserver_read, c, c->fd.get());
        } else {
            conn_close(c);
        }
        return 0;
    }
    if (n == 0) {
        // The client shut down its write side: what came is the request.
        dispatch(c);
        return 0;
    }
    arm_idle(c);
    if (take_bytes(c, std::string_view(chunk.data(), static_cast<std::size_t>(n)))) {
        c->t_read = thread_add_read(server().master, jserver_read, c, c->fd.get());
    }
    return 0;
}

int jserver_write(thread *t) {
    auto *c = static_cast<jserver_conn *>(THREAD_ARG(t));
    c->t_write = nullptr;
    if (!send_some(c) || c->sent == c->reply.size()) {
        conn_close(c);
        return 0;
    }
    c->t_write = thread_add_write(server().master, jserver_write, c, c->fd.get());
    return 0;
}

int jserver_idle(thread *t) {
    auto *c = static_cast<jserver_conn *>(THREAD_ARG(t));
    c->t_idle = nullptr;
    zlog_info("jserver: connection idle for %d s, closed", JSERVER_IDLE_SECONDS);
    conn_close(c);
    return 0;
}

void arm_accept(long delay_ms) {
    jserver_state &srv = server();
    if (delay_ms > 0) {
        srv.t_accept = thread_add_timer_msec(srv.master, jserver_accept_retry, nullptr, delay_ms);
    } else {
        srv.t_accept = thread_add_read(srv.master, jserver_accept, nullptr, srv.listen_fd.get());
    }
}

int jserver_accept_retry(thread *) {
    server().t_accept = nullptr;
    arm_accept(0);
    return 0;
}

void conn_open(unique_fd fd) {
    auto c = std::make_unique<jserver_conn>();
    c->fd = std::move(fd);
    jserver_conn *raw = c.get();
    server().conns.emplace(raw->fd.get(), std::move(c));
    raw->t_read = thread_add_read(server().master, jserver_read, raw, raw->fd.get());
    arm_idle(raw);
}

int jserver_accept(thread *) {
    jserver_state &srv = server();
    srv.t_accept = nullptr;
    bool starved = false;
    unique_fd fd = unix_accept("jserver", srv.listen_fd.get(), &starved);
    if (!fd) {
        // Out of descriptors: back off instead of spinning on the ready socket.
        arm_accept(starved ? JSERVER_ACCEPT_RETRY_MS : 0);
        return 0;
    }
    if (srv.conns.size() >= static_cast<std::size_t>(JSERVER_CONN_MAX)) {
        zlog_warn("jserver: %d connections open, refusing a connection", JSERVER_CONN_MAX);
    } else {
        conn_open(std::move(fd));
    }
    arm_accept(0);
    return 0;
}

}  // namespace

int jserver_init(thread_master *master, const char *path, jserver_request_fn callback) {
    if (master == nullptr || callback == nullptr) {
        zlog_err("jserver: no event loop or no request callback");
        return -1;
    }
    jserver_close();
    unique_fd fd = unix_listen("jserver", path, SOMAXCONN);
    if (!fd) {
        return -1;
    }
    jserver_state &srv = server();
    srv.master = master;
    srv.callback = callback;
    srv.listen_fd = std::move(fd);
    srv.path = path;
    arm_accept(0);
    return 0;
}

void jserver_close() {
    jserver_state &srv = server();
    while (!srv.conns.empty()) {
        conn_close(srv.conns.begin()->second.get());
    }
    thread_cancel(srv.t_accept);
    srv.t_accept = nullptr;
    if (srv.listen_fd) {
        srv.listen_fd.reset();
        ::unlink(srv.path.c_str());
    }
    srv.path.clear();
    srv.master = nullptr;
    srv.callback = nullptr;
}

int jserver_reply(int fd, const char *data, std::size_t len) {
    const auto it = server().conns.find(fd);
    if (it == server().conns.end() || it->second->state != phase::in_callback ||
        it->second->replied || (data == nullptr && len > 0)) {
        return -1;
    }
    jserver_conn *c = it->second.get();
    c->replied = true;
    c->reply.assign(data == nullptr ? "" : data, len);
    // Written at once as far as the socket takes it; the rest waits for the
    // client to read (sent, or the connection closed, once the callback returns).
    if (!send_some(c)) {
        c->broken = true;
    }
    return 0;
}

std::size_t jserver_conn_count() {
    return server().conns.size();
}
