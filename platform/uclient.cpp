#include "uclient.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "lib/log.h"
#include "platform/dhcpsnoop.h"
#include "platform/uif.h"

namespace {

sockaddr_in loopback(std::uint32_t addr, std::uint16_t port) {
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(addr);
    sa.sin_port = htons(port);
    return sa;
}

int open_listener(std::uint16_t port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in sa = loopback(INADDR_LOOPBACK, port);
    if (bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0 || listen(fd, 8) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// A timer descriptor that becomes readable every retry period.
int open_retry_timer() {
    int fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    itimerspec its{};
    its.it_value.tv_sec = UCLIENT_RETRY_SECONDS;
    its.it_interval.tv_sec = UCLIENT_RETRY_SECONDS;
    timerfd_settime(fd, 0, &its, nullptr);
    return fd;
}

int try_connect(const uclient *c) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    sockaddr_in sa = loopback(c->addr, c->port);
    if (connect(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0) {
        close(fd);
        return -1;
    }
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    return fd;
}

void say_hello(int fd) {
    static constexpr std::uint8_t name[] = {'d', 'h', 'c', 'p', 'd'};
    uclient_send(fd, UCLIENT_MSG_HELLO, name);
}

// Puts `fresh` in the place of c->sock, keeping the descriptor number.
void replace_sock(uclient *c, int fresh) {
    if (c->sock < 0) {
        c->sock = fresh;
        return;
    }
    dup2(fresh, c->sock);
    fcntl(c->sock, F_SETFD, FD_CLOEXEC);
    close(fresh);
}

void go_disconnected(uclient *c) {
    c->connected = false;
    c->partial.erase(c->sock);
    int timer = open_retry_timer();
    if (timer >= 0) {
        replace_sock(c, timer);
    }
}

int retry_bus(uclient *c) {
    std::uint64_t ticks = 0;
    if (read(c->sock, &ticks, sizeof ticks) < 0 && errno != EAGAIN) {
        return 0;
    }
    int fd = try_connect(c);
    if (fd < 0) {
        return 0;  // the timer stays; try again next period
    }
    replace_sock(c, fd);
    c->connected = true;
    zlog_info("management bus connected");
    say_hello(c->sock);
    return 0;
}

// Hands every whole message in buf to the callback; -1 on a malformed one.
int dispatch(uclient *c, int fd, std::vector<std::uint8_t> &buf) {
    std::size_t pos = 0;
    while (buf.size() - pos >= UCLIENT_HEADER_LEN) {
        const std::uint8_t *h = buf.data() + pos;
        auto magic = static_cast<std::uint16_t>(h[0] << 8 | h[1]);
        auto type = static_cast<std::uint16_t>(h[2] << 8 | h[3]);
        std::uint32_t len =
            std::uint32_t{h[4]} << 24 | std::uint32_t{h[5]} << 16 | std::uint32_t{h[6]} << 8 | h[7];
        if (magic != UCLIENT_MAGIC || len > UCLIENT_MAX_PAYLOAD) {
            zlog_warn("management bus: malformed message on fd %d, closing", fd);
            return -1;
        }
        if (buf.size() - pos - UCLIENT_HEADER_LEN < len) {
            break;
        }
        uclient_msg msg{fd, type, {h + UCLIENT_HEADER_LEN, len}};
        if (c->callback != nullptr && c->callback(&msg) < 0) {
            return -1;
        }
        pos += UCLIENT_HEADER_LEN + len;
    }
    buf.erase(buf.begin(), buf.begin() + static_cast<std::ptrdiff_t>(pos));
    return 0;
}

int handle_if_notice(std::span<const std::uint8_t> name) {
    if (name.empty() || name.size() > 20 || std::find(name.begin(), name.end(), 0) != name.end()) {
        return -1;
    }
    uif_refresh();
    return 0;
}

int handle_snoop_set(std::span<const std::uint8_t> p) {
    if (p.size() != 1 || p[0] > 1) {
        return -1;
    }
    dhcpsnoop_enable_set(p[0]);
    return 0;
}

int handle_snoop_trust(std::span<const std::uint8_t> p) {
    if (p.size() != 5 || p[4] > 1) {
        return -1;
    }
    std::uint32_t port =
        std::uint32_t{p[0]} << 24 | std::uint32_t{p[1]} << 16 | std::uint32_t{p[2]} << 8 | p[3];
    return dhcpsnoop_if_untrust_set(port, p[4]);
}

int answer_snoop_get(int fd, std::span<const std::uint8_t> p) {
    if (!p.empty()) {
        return -1;
    }
    std::vector<std::uint8_t> state{static_cast<std::uint8_t>(dhcpsnoop_enable_get())};
    for (std::uint32_t port = 1; port <= DHCPSNOOP_PORT_MAX; ++port) {
        if (dhcpsnoop_port_untrust_get(port) == 1) {
            state.push_back(static_cast<std::uint8_t>(port >> 8));
            state.push_back(static_cast<std::uint8_t>(port));
        }
    }
    return uclient_send(fd, UCLIENT_MSG_SNOOP_STATE, state);
}

}  // namespace

uclient *uclient_connect(std::uint32_t addr, std::uint16_t port, std::uint16_t listen_port) {
    auto c = std::make_unique<uclient>();
    c->addr = addr;
    c->port = port;
    c->serv_sock = open_listener(listen_port);
    if (c->serv_sock < 0) {
        zlog_err("management bus: cannot listen on port %u: %s", listen_port, std::strerror(errno));
        return nullptr;
    }
    int fd = try_connect(c.get());
    if (fd >= 0) {
        c->sock = fd;
        c->connected = true;
        say_hello(fd);
    } else {
        c->sock = open_retry_timer();
        if (c->sock < 0) {
            close(c->serv_sock);
            return nullptr;
        }
    }
    return c.release();
}

void uclient_free(uclient *c) {
    std::unique_ptr<uclient> owned(c);
    if (owned) {
        if (owned->sock >= 0) {
            close(owned->sock);
        }
        if (owned->serv_sock >= 0) {
            close(owned->serv_sock);
        }
    }
}

int uclient_handle_async(uclient *c, int fd) {
    if (c == nullptr || fd < 0) {
        return -1;
    }
    if (fd == c->sock && !c->connected) {
        return retry_bus(c);
    }
    std::uint8_t chunk[4096];
    ssize_t n = read(fd, chunk, sizeof chunk);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
        return 0;
    }
    if (n <= 0) {
        if (fd == c->sock) {
            zlog_warn("management bus connection lost, retrying every %d s", UCLIENT_RETRY_SECONDS);
            go_disconnected(c);
            return 0;
        }
        c->partial.erase(fd);
        return -1;
    }
    auto &buf = c->partial[fd];
    buf.insert(buf.end(), chunk, chunk + n);
    if (dispatch(c, fd, buf) < 0) {
        c->partial.erase(fd);
        if (fd == c->sock) {
            go_disconnected(c);
            return 0;
        }
        return -1;
    }
    return 0;
}

int uclient_send(int fd, std::uint16_t type, std::span<const std::uint8_t> payload) {
    if (payload.size() > UCLIENT_MAX_PAYLOAD) {
        return -1;
    }
    std::vector<std::uint8_t> out(UCLIENT_HEADER_LEN + payload.size());
    auto len = static_cast<std::uint32_t>(payload.size());
    std::uint8_t hdr[UCLIENT_HEADER_LEN] = {
        static_cast<std::uint8_t>(UCLIENT_MAGIC >> 8), static_cast<std::uint8_t>(UCLIENT_MAGIC),
        static_cast<std::uint8_t>(type >> 8),          static_cast<std::uint8_t>(type),
        static_cast<std::uint8_t>(len >> 24),          static_cast<std::uint8_t>(len >> 16),
        static_cast<std::uint8_t>(len >> 8),           static_cast<std::uint8_t>(len)};
    std::memcpy(out.data(), hdr, sizeof hdr);
    if (!payload.empty()) {
        std::memcpy(out.data() + UCLIENT_HEADER_LEN, payload.data(), payload.size());
    }
    ssize_t n = send(fd, out.data(), out.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    return n == static_cast<ssize_t>(out.size()) ? 0 : -1;
}

int uclient_new_if(void *arg) {
    auto *msg = static_cast<uclient_msg *>(arg);
    if (msg == nullptr) {
        return -1;
    }
    switch (msg->type) {
        case UCLIENT_MSG_PING:
            return uclient_send(msg->fd, UCLIENT_MSG_PONG, msg->payload) == 0 ? 0 : -1;
        case UCLIENT_MSG_IF_NOTICE:
            return handle_if_notice(msg->payload);
        case UCLIENT_MSG_SNOOP_SET:
            return handle_snoop_set(msg->payload);
        case UCLIENT_MSG_SNOOP_TRUST:
            return handle_snoop_trust(msg->payload);
        case UCLIENT_MSG_SNOOP_GET:
            return answer_snoop_get(msg->fd, msg->payload);
        default:
            return 0;  // HELLO, PONG, SNOOP_STATE and newer peers' types need nothing
    }
}
