#include "lib/vty.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <string_view>
#include <vector>

#include "lib/log.h"
#include "lib/thread.h"
#include "lib/unique_fd.h"
#include "lib/unix_socket.h"
#include "lib/vty_proto.h"

namespace {

// One vty_out() call never adds more than this; long output takes many calls.
constexpr std::size_t VTY_OUT_CALL_MAX = 1 << 20;
// A client that stops reading is dropped once this much output waits for it.
constexpr std::size_t VTY_PENDING_MAX = 16u << 20;
constexpr std::size_t VTY_COMPACT_AT = 1u << 20;
constexpr std::size_t VTY_READ_CHUNK = 16384;
constexpr std::size_t VTY_MAX_SESSIONS = 64;
constexpr long VTY_ACCEPT_RETRY_MS = 100;

void strip_nul(std::string &s, std::size_t from = 0) {
    s.erase(std::remove(s.begin() + static_cast<long>(from), s.end(), '\0'), s.end());
}

}  // namespace

struct vty_session {
    unique_fd fd;
    std::unique_ptr<vty> v;
    std::string frame;        // the request being received, kind byte first
    bool discarding = false;  // skipping the rest of a refused request
    std::string pending;      // reply bytes the socket has not taken yet
    std::size_t pending_off = 0;
    bool closing = false;  // close once pending is sent
    thread *t_read = nullptr;
    thread *t_write = nullptr;
};

namespace {

struct vty_server {
    thread_master *master = nullptr;
    unique_fd listen_fd;
    thread *t_accept = nullptr;
    std::string path;
    std::map<vty_session *, std::unique_ptr<vty_session>> sessions;
};

vty_server &server() {
    static vty_server s;
    return s;
}

int vty_read(thread *t);
int vty_flush(thread *t);

void session_close(vty_session *s) {
    thread_cancel(s->t_read);
    thread_cancel(s->t_write);
    server().sessions.erase(s);
}

void arm_read(vty_session *s) {
    s->t_read = thread_add_read(server().master, vty_read, s, s->fd.get());
}

// Sends what the socket takes now; false when the session must go.
bool send_pending(vty_session *s) {
    while (s->pending_off < s->pending.size()) {
        ssize_t n = ::send(s->fd.get(), s->pending.data() + s->pending_off,
                           s->pending.size() - s->pending_off, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            // Drop what was sent so a reader that lags forever cannot grow the buffer.
            if (s->pending_off >= VTY_COMPACT_AT) {
                s->pending.erase(0, s->pending_off);
                s->pending_off = 0;
            }
            return true;
        }
        if (n <= 0) {
            return false;
        }
        s->pending_off += static_cast<std::size_t>(n);
    }
    s->pending.clear();
    s->pending_off = 0;
    return true;
}

// After a send: closes the session, waits for the socket, or carries on.
// Returns false when the session is gone.
bool after_send(vty_session *s, bool ok) {
    bool empty = s->pending.empty();
    if (!ok || (empty && s->closing)) {
        session_close(s);
        return false;
    }
    if (!empty && s->t_write == nullptr) {
        s->t_write = thread_add_write(server().master, vty_flush, s, s->fd.get());
    }
    return true;
}

bool queue_reply(vty_session *s, std::string_view text, int code, const std::string &prompt) {
    if (s->pending.size() - s->pending_off + text.size() + prompt.size() + 3 > VTY_PENDING_MAX) {
        zlog_warn("vty: session output over %zu bytes, dropping the session", VTY_PENDING_MAX);
        session_close(s);
        return false;
    }
    std::string &out = s->pending;
    std::size_t start = out.size();
    out.append(text);
    strip_nul(out, start);
    out.push_back('\0');
    out.push_back(static_cast<char>(code & 0xff));
    std::size_t pstart = out.size();
    out.append(prompt);
    strip_nul(out, pstart);
    out.push_back('\0');
    bool ok = s->t_write != nullptr || send_pending(s);
    return after_send(s, ok);
}

std::string describe_text(const std::vector<cmd_description> &words, int status) {
    if (status == CMD_ERR_AMBIGUOUS) {
        return "% Ambiguous command.\n";
    }
    if (status != CMD_SUCCESS) {
        return "% There is no matched command.\n";
    }
    std::size_t width = 0;
    for (const cmd_description &d : words) {
        width = std::max(width, d.word.size());
    }
    std::string out;
    for (const cmd_description &d : words) {
        std::string line = "  " + d.word;
        if (!d.help.empty()) {
            line.append(width - d.word.size() + 2, ' ');
            line += d.help;
        }
        out += line + "\n";
    }
    return out;
}

std::string complete_text(const std::vector<std::string> &words) {
    std::string out;
    for (const std::string &w : words) {
        out += w + "\n";
    }
    return out;
}

// Runs one request; false when the session is gone.
bool handle_request(vty_session *s, char kind, const std::string &line) {
    vty *v = s->v.get();
    std::string text;
    int code = CMD_SUCCESS;
    if (kind == VTY_REQ_EXECUTE) {
        code = vty_command(v, line.c_str());
        text.swap(v->obuf);
    } else if (kind == VTY_REQ_DESCRIBE) {
        auto words = cmd_describe_command(line.c_str(), v, &code);
        text = describe_text(words, code);
    } else if (kind == VTY_REQ_COMPLETE) {
        auto words = cmd_complete_command(line.c_str(), v, &code);
        text = complete_text(words);
    } else if (kind == VTY_REQ_PROMPT) {
        code = CMD_SUCCESS;
    } else {
        text = "% Unknown request.\n";
        code = CMD_WARNING;
    }
    v->obuf.clear();
    if (v->status == VTY_CLOSE) {
        s->closing = true;
    }
    return queue_reply(s, text, code, cmd_prompt(v));
}

bool refuse_long(vty_session *s) {
    char text[96];
    std::snprintf(text, sizeof text, "%% Line too long, refused (more than %zu bytes).\n",
                  VTY_MAXLINE);
    return queue_reply(s, text, CMD_WARNING, cmd_prompt(s->v.get()));
}

bool finish_frame(vty_session *s) {
    std::string frame;
    frame.swap(s->frame);
    char kind = frame.empty() ? '\0' : frame[0];
    std::string line = frame.empty() ? std::string() : frame.substr(1);
    return handle_request(s, kind, line);
}

// Feeds received bytes through the framing; false when the session is gone.
bool feed(vty_session *s, std::string_view data) {
    while (!data.empty() && !s->closing) {
        std::size_t nul = data.find('\0');
        std::string_view chunk = data.substr(0, nul);
        data = nul == std::string_view::npos ? std::string_view() : data.substr(nul + 1);
        bool ended = nul != std::string_view::npos;
        if (s->discarding) {
            s->discarding = !ended;
            continue;
        }
        if (s->frame.size() + chunk.size() > VTY_MAXLINE + 1) {
            s->frame.clear();
            s->discarding = !ended;
            if (!refuse_long(s)) {
                return false;
            }
            continue;
        }
        s->frame.append(chunk);
        if (ended && !finish_frame(s)) {
            return false;
        }
    }
    return true;
}

int vty_read(thread *t) {
    auto *s = static_cast<vty_session *>(THREAD_ARG(t));
    s->t_read = nullptr;
    char buf[VTY_READ_CHUNK];
    ssize_t n = ::read(s->fd.get(), buf, sizeof buf);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
        arm_read(s);
        return 0;
    }
    if (n == 0 && !s->pending.empty()) {
        // The client shut down its sending side only: the replies it asked
        // for still go out, then the session closes.
        s->closing = true;
        after_send(s, true);
        return 0;
    }
    if (n <= 0) {
        session_close(s);
        return 0;
    }
    if (!feed(s, std::string_view(buf, static_cast<std::size_t>(n)))) {
        return 0;
    }
    if (!s->closing) {
        arm_read(s);
    }
    return 0;
}

int vty_flush(thread *t) {
    auto *s = static_cast<vty_session *>(THREAD_ARG(t));
    s->t_write = nullptr;
    after_send(s, send_pending(s));
    return 0;
}

int vty_accept(thread *t);
int vty_accept_retry(thread *t);

void arm_accept(long delay_ms) {
    vty_server &srv = server();
    if (delay_ms > 0) {
        srv.t_accept = thread_add_timer_msec(srv.master, vty_accept_retry, nullptr, delay_ms);
    } else {
        srv.t_accept = thread_add_read(srv.master, vty_accept, nullptr, srv.listen_fd.get());
    }
}

int vty_accept_retry(thread *) {
    server().t_accept = nullptr;
    arm_accept(0);
    return 0;
}

void session_open(int fd) {
    auto s = std::make_unique<vty_session>();
    s->fd.reset(fd);
    s->v = vty_new(VTY_SHELL_SERV);
    s->v->fd = fd;
    s->v->node = ENABLE_NODE;
    s->v->session = s.get();
    vty_session *raw = s.get();
    server().sessions.emplace(raw, std::move(s));
    arm_read(raw);
}

int vty_accept(thread *) {
    vty_server &srv = server();
    srv.t_accept = nullptr;
    bool starved = false;
    unique_fd fd = unix_accept("vty", srv.listen_fd.get(), &starved);
    if (!fd) {
        // Out of descriptors: back off instead of spinning on the ready socket.
        arm_accept(starved ? VTY_ACCEPT_RETRY_MS : 0);
        return 0;
    }
    if (srv.sessions.size() >= VTY_MAX_SESSIONS) {
        zlog_warn("vty: too many sessions, refusing a connection");
        fd.reset();
    } else {
        session_open(fd.release());
    }
    arm_accept(0);
    return 0;
}

}  // namespace

int vty_out(vty *vty, const char *format, ...) {
    if (vty == nullptr || format == nullptr) {
        return 0;
    }
    char small[1024];
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    int n = std::vsnprintf(small, sizeof small, format, args);
    va_end(args);
    if (n < 0) {
        va_end(again);
        return 0;
    }
    std::size_t len = std::min(static_cast<std::size_t>(n), VTY_OUT_CALL_MAX);
    std::size_t start = vty->obuf.size();
    if (static_cast<std::size_t>(n) < sizeof small) {
        vty->obuf.append(small, len);
    } else {
        std::vector<char> big(len + 1);
        std::vsnprintf(big.data(), big.size(), format, again);
        vty->obuf.append(big.data(), len);
    }
    va_end(again);
    strip_nul(vty->obuf, start);
    return static_cast<int>(vty->obuf.size() - start);
}

std::unique_ptr<vty> vty_new(vty_type type) {
    auto v = std::make_unique<vty>();
    v->type = type;
    v->node = ENABLE_NODE;
    return v;
}

void vty_init(thread_master *master) {
    server().master = master;
}

int vty_serv_sock(const char *, unsigned short, const char *path) {
    vty_server &srv = server();
    if (srv.master == nullptr || path == nullptr) {
        zlog_err("vty: server not initialised or no socket path");
        return -1;
    }
    unique_fd fd = unix_listen("vty", path, static_cast<int>(VTY_MAX_SESSIONS));
    if (!fd) {
        return -1;
    }
    thread_cancel(srv.t_accept);
    srv.listen_fd.reset(fd.release());
    srv.path = path;
    arm_accept(0);
    return 0;
}

void vty_terminate() {
    vty_server &srv = server();
    while (!srv.sessions.empty()) {
        session_close(srv.sessions.begin()->first);
    }
    thread_cancel(srv.t_accept);
    srv.t_accept = nullptr;
    if (srv.listen_fd.get() >= 0) {
        srv.listen_fd.reset();
        ::unlink(srv.path.c_str());
    }
    srv.path.clear();
    srv.master = nullptr;
}

void vty_forget_index(const void *object) {
    if (object == nullptr) {
        return;
    }
    for (auto &[raw, s] : server().sessions) {
        vty *v = s->v.get();
        if (v != nullptr && (v->index == object || v->index_sub == object)) {
            v->node = CONFIG_NODE;
            v->index = nullptr;
            v->index_sub = nullptr;
        }
    }
}

std::size_t vty_session_count() {
    return server().sessions.size();
}
