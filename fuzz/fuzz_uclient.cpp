// Management-bus frames from a peer, read by the bus client in pieces of
// every size and handled by the platform, checked against a model of the
// format.
//
// The messages handed to the handler are exactly the whole frames of the
// stream, in order, up to and including the first one the format refuses
// (bad magic, payload over 64 KiB, a payload its type does not allow); the
// client ends the connection there and not before. Every PING is answered
// by a PONG with its payload, every SNOOP_GET by the snooping state the
// model holds at that point, and nothing else is sent.
//
// Input: a piece-size byte (pieces of 1 + 16 * byte bytes reach the socket
// one at a time), then the stream.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <vector>

#include "fuzz/fuzz_common.h"
#include "lib/log.h"
#include "platform/dhcpsnoop.h"
#include "platform/uclient.h"
#include "platform/uif.h"

namespace {

using bytes = std::vector<std::uint8_t>;

struct message {
    std::uint16_t type;
    bytes payload;
    bool operator==(const message &) const = default;
};

std::vector<message> seen;

int record(void *arg) {
    const auto *m = static_cast<uclient_msg *>(arg);
    seen.push_back({m->type, bytes(m->payload.begin(), m->payload.end())});
    return uclient_new_if(arg);
}

std::uint32_t be32(const std::uint8_t *p) {
    return std::uint32_t{p[0]} << 24 | std::uint32_t{p[1]} << 16 | std::uint32_t{p[2]} << 8 | p[3];
}

bytes frame(std::uint16_t type, const bytes &payload) {
    const auto n = static_cast<std::uint32_t>(payload.size());
    bytes out = {0x55,
                 0x42,
                 static_cast<std::uint8_t>(type >> 8),
                 static_cast<std::uint8_t>(type),
                 static_cast<std::uint8_t>(n >> 24),
                 static_cast<std::uint8_t>(n >> 16),
                 static_cast<std::uint8_t>(n >> 8),
                 static_cast<std::uint8_t>(n)};
    out.insert(out.end(), payload.begin(), payload.end());
    return out;
}

// What the daemon must do with the stream.
struct model {
    std::vector<message> handled;
    std::size_t consumed = 0;  // bytes of whole frames handled
    bool refused = false;      // the connection ends at the last handled message
    bytes answers;             // what the peer reads back
    bool snoop = false;
    std::set<std::uint32_t> untrusted;
    std::set<std::uint32_t> touched;

    // False when the message ends the connection.
    bool handle(std::uint16_t type, const bytes &p) {
        switch (type) {
            case UCLIENT_MSG_PING: {
                const bytes f = frame(UCLIENT_MSG_PONG, p);
                answers.insert(answers.end(), f.begin(), f.end());
                return true;
            }
            case UCLIENT_MSG_IF_NOTICE:
                return !p.empty() && p.size() <= 20 && std::find(p.begin(), p.end(), 0) == p.end();
            case UCLIENT_MSG_SNOOP_SET:
                if (p.size() != 1 || p[0] > 1) {
                    return false;
                }
                snoop = p[0] == 1;
                return true;
            case UCLIENT_MSG_SNOOP_TRUST:
                return trust(p);
            case UCLIENT_MSG_SNOOP_GET:
                return p.empty() && state();
            default:
                return true;
        }
    }

    bool trust(const bytes &p) {
        if (p.size() != 5 || p[4] > 1) {
            return false;
        }
        const std::uint32_t port = be32(p.data());
        if (port < 1 || port > DHCPSNOOP_PORT_MAX) {
            return false;
        }
        touched.insert(port);
        if (p[4] == 1) {
            untrusted.insert(port);
        } else {
            untrusted.erase(port);
        }
        return true;
    }

    bool state() {
        bytes s{static_cast<std::uint8_t>(snoop ? 1 : 0)};
        for (std::uint32_t port : untrusted) {
            s.push_back(static_cast<std::uint8_t>(port >> 8));
            s.push_back(static_cast<std::uint8_t>(port));
        }
        const bytes f = frame(UCLIENT_MSG_SNOOP_STATE, s);
        answers.insert(answers.end(), f.begin(), f.end());
        return true;
    }

    void run(const std::uint8_t *data, std::size_t size) {
        std::size_t pos = 0;
        while (size - pos >= UCLIENT_HEADER_LEN) {
            const std::uint8_t *h = data + pos;
            const std::uint32_t len = be32(h + 4);
            if ((h[0] << 8 | h[1]) != UCLIENT_MAGIC || len > UCLIENT_MAX_PAYLOAD) {
                refused = true;
                return;
            }
            if (size - pos - UCLIENT_HEADER_LEN < len) {
                return;
            }
            const auto type = static_cast<std::uint16_t>(h[2] << 8 | h[3]);
            const bytes p(h + UCLIENT_HEADER_LEN, h + UCLIENT_HEADER_LEN + len);
            handled.push_back({type, p});
            if (!handle(type, p)) {
                refused = true;
                return;
            }
            pos += UCLIENT_HEADER_LEN + len;
            consumed = pos;
        }
    }
};

std::set<std::uint32_t> last_touched;

void reset_snooping() {
    dhcpsnoop_enable_set(0);
    for (std::uint32_t port : last_touched) {
        dhcpsnoop_if_untrust_set(port, 0);
    }
    last_touched.clear();
}

void drain(int fd, bytes &out) {
    std::uint8_t buf[65536];
    for (ssize_t n; (n = ::read(fd, buf, sizeof buf)) > 0;) {
        out.insert(out.end(), buf, buf + n);
    }
}

int pending(int fd) {
    int n = 0;
    ::ioctl(fd, FIONREAD, &n);
    return n;
}

bool set_up() {
    fuzz_quiet_log();
    // An interface notice refreshes the port tables: from an empty tree.
    uif_set_sysfs_root("/nonexistent-uclient-fuzz");
    return true;
}

// Feeds the stream to the client piece by piece; false once it ended the
// connection.
bool feed(uclient &c, int daemon_end, int peer_end, const std::uint8_t *data, std::size_t size,
          std::size_t piece, bytes &answers) {
    for (std::size_t pos = 0; pos < size;) {
        const std::size_t n = std::min(piece, size - pos);
        require(::write(peer_end, data + pos, n) == static_cast<ssize_t>(n));
        pos += n;
        while (pending(daemon_end) > 0) {
            const int rc = uclient_handle_async(&c, daemon_end);
            drain(peer_end, answers);
            if (rc < 0) {
                return false;
            }
        }
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const bool ready = set_up();
    (void)ready;
    if (size < 1) {
        return 0;
    }
    reset_snooping();
    seen.clear();
    int sv[2];
    require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, sv) == 0);
    // Room for every answer: the peer reads only between pieces.
    const int big = 4 << 20;
    ::setsockopt(sv[0], SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
    ::setsockopt(sv[1], SOL_SOCKET, SO_RCVBUF, &big, sizeof big);

    uclient c;
    c.callback = record;
    const std::size_t piece = 1 + 16u * data[0];
    bytes answers;
    const bool open = feed(c, sv[0], sv[1], data + 1, size - 1, piece, answers);
    drain(sv[1], answers);
    // An open connection keeps the unfinished frame for the next read.
    const std::size_t kept = c.partial.count(sv[0]) != 0 ? c.partial[sv[0]].size() : 0;
    ::close(sv[0]);
    ::close(sv[1]);

    model m;
    m.run(data + 1, size - 1);
    last_touched = m.touched;
    require(seen == m.handled);
    require(open == !m.refused);
    require(answers == m.answers);
    require(kept == (open ? size - 1 - m.consumed : 0));
    return 0;
}
