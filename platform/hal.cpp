#include "hal.h"

#include <libmnl/libmnl.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <utility>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "lib/log.h"
#include "platform/fdb_table.h"
#include "platform/trap.h"
#include "platform/uif.h"
#include "platform/util.h"

namespace {

int dhcp_trap_users = 0;

struct mnl_socket_closer {
    void operator()(mnl_socket *s) const { mnl_socket_close(s); }
};
using mnl_socket_ptr = std::unique_ptr<mnl_socket, mnl_socket_closer>;

// A reply that does not come within this long is given up (the caller is
// the event loop).
constexpr long FDB_TIMEOUT_USEC = 500000;
constexpr std::size_t FDB_RECV_MIN = 32768;
constexpr std::size_t ETH_ALEN_ = 6;

struct fdb_channel {
    mnl_socket_ptr sock;
    std::uint32_t seq = 0;
    bool get_unsupported = false;  // the kernel knows no single-entry fdb get
    bool forced_dump = false;      // tests: always the whole-database walk
    std::vector<std::uint8_t> buf;
};

// The forwarding databases mirrored in memory (platform/fdb_table.h): a
// socket in the neighbour multicast group, read without blocking before each
// lookup, so a lookup costs one read that finds nothing new. The table is
// filled by a dump at the first lookup and again after the kernel dropped
// events for us (ENOBUFS); until such a dump succeeds it is unsure and the
// lookups ask the kernel as before.
constexpr int MIRROR_RCVBUF = 4 << 20;
constexpr int MIRROR_MAX_READS = 256;            // per lookup; more left: unsure
constexpr std::uint64_t MIRROR_RETRY_MS = 1000;  // between failed dumps

struct fdb_mirror {
    mnl_socket_ptr sock;
    fdb_table table;
    bool synced = false;  // dumped, and no event lost since
    bool enabled = true;
    std::uint64_t last_try_ms = 0;
    bool tried = false;
    std::uint32_t seq = 0;
    std::vector<std::uint8_t> buf;
    hal_fdb_counts counts;
};

fdb_mirror &mirror() {
    static fdb_mirror m;
    return m;
}

fdb_channel &chan() {
    static fdb_channel c;
    return c;
}

// mnl_nlmsg_ok() takes a length of 2 GiB or more for a negative one.
bool nlmsg_fits(const nlmsghdr *nlh, int len) {
    return len >= static_cast<int>(sizeof(nlmsghdr)) && nlh->nlmsg_len >= sizeof(nlmsghdr) &&
           nlh->nlmsg_len <= static_cast<unsigned>(len);
}

bool fdb_open() {
    fdb_channel &c = chan();
    if (c.sock) {
        return true;
    }
    mnl_socket_ptr sock(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC));
    if (!sock) {
        zlog_warn("hal: can't open rtnetlink socket: %s", std::strerror(errno));
        return false;
    }
    if (mnl_socket_bind(sock.get(), 0, MNL_SOCKET_AUTOPID) < 0) {
        zlog_warn("hal: can't bind rtnetlink socket: %s", std::strerror(errno));
        return false;
    }
    timeval tv{};
    tv.tv_usec = FDB_TIMEOUT_USEC;
    setsockopt(mnl_socket_get_fd(sock.get()), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    c.sock = std::move(sock);
    c.buf.assign(
        std::max<std::size_t>(static_cast<std::size_t>(MNL_SOCKET_BUFFER_SIZE), FDB_RECV_MIN), 0);
    return true;
}

std::uint32_t next_seq() {
    fdb_channel &c = chan();
    if (++c.seq == 0) {
        c.seq = 1;
    }
    return c.seq;
}

struct neigh_attrs {
    const std::uint8_t *lladdr = nullptr;
    std::uint32_t master = 0;
};

int neigh_attr_cb(const nlattr *attr, void *data) {
    auto *a = static_cast<neigh_attrs *>(data);
    switch (mnl_attr_get_type(attr)) {
        case NDA_LLADDR:
            if (mnl_attr_get_payload_len(attr) == ETH_ALEN_) {
                a->lladdr = static_cast<const std::uint8_t *>(mnl_attr_get_payload(attr));
            }
            break;
        case NDA_MASTER:
            if (mnl_attr_validate(attr, MNL_TYPE_U32) == 0) {
                a->master = mnl_attr_get_u32(attr);
            }
            break;
        default:
            break;
    }
    return MNL_CB_OK;
}

enum class reply { pending, found, absent, unsupported, failed };

struct query {
    std::uint32_t seq = 0;
    int bridge = 0;
    const std::uint8_t *mac = nullptr;
    int port_ifindex = 0;
};

// One forwarding-database entry: does it answer the query?
bool entry_matches(const nlmsghdr *nlh, query &q) {
    if (mnl_nlmsg_get_payload_len(nlh) < sizeof(ndmsg)) {
        return false;
    }
    ndmsg ndm;
    std::memcpy(&ndm, mnl_nlmsg_get_payload(nlh), sizeof ndm);
    if (ndm.ndm_family != AF_BRIDGE) {
        return false;
    }
    neigh_attrs a;
    if (mnl_attr_parse(nlh, sizeof(ndmsg), neigh_attr_cb, &a) != MNL_CB_OK || a.lladdr == nullptr) {
        return false;
    }
    if (std::memcmp(a.lladdr, q.mac, ETH_ALEN_) != 0) {
        return false;
    }
    if (a.master != 0 && a.master != static_cast<std::uint32_t>(q.bridge)) {
        return false;
    }
    q.port_ifindex = ndm.ndm_ifindex;
    return true;
}

// Reads replies to q.seq until the question is answered.
reply collect(query &q, bool dump) {
    fdb_channel &c = chan();
    int fd = mnl_socket_get_fd(c.sock.get());
    reply r = reply::pending;
    for (;;) {
        ssize_t n = recv(fd, c.buf.data(), c.buf.size(), 0);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            zlog_warn("hal: no forwarding-database answer: %s", std::strerror(errno));
            return reply::failed;
        }
        int len = static_cast<int>(std::min<ssize_t>(n, INT_MAX));
        const auto *nlh = reinterpret_cast<const nlmsghdr *>(c.buf.data());
        for (; nlmsg_fits(nlh, len); nlh = mnl_nlmsg_next(nlh, &len)) {
            if (nlh->nlmsg_seq != q.seq) {
                continue;  // a late answer to a question given up on
            }
            if (nlh->nlmsg_type == NLMSG_ERROR) {
                if (mnl_nlmsg_get_payload_len(nlh) < sizeof(nlmsgerr)) {
                    return reply::failed;
                }
                nlmsgerr err;
                std::memcpy(&err, mnl_nlmsg_get_payload(nlh), sizeof err);
                if (err.error == 0) {
                    continue;
                }
                if (err.error == -ENOENT) {
                    return reply::absent;
                }
                if (!dump && (err.error == -EOPNOTSUPP || err.error == -EINVAL)) {
                    return reply::unsupported;
                }
                zlog_warn("hal: forwarding-database query refused: %s", std::strerror(-err.error));
                return reply::failed;
            }
            if (nlh->nlmsg_type == NLMSG_DONE) {
                return r == reply::found ? r : reply::absent;
            }
            if (nlh->nlmsg_type == RTM_NEWNEIGH && r != reply::found && entry_matches(nlh, q)) {
                r = reply::found;
                if (!dump) {
                    return r;
                }
            }
        }
        // A dump is read to its DONE even after a match: the socket stays clean.
    }
}

bool send_request(const nlmsghdr *nlh) {
    if (mnl_socket_sendto(chan().sock.get(), nlh, nlh->nlmsg_len) < 0) {
        zlog_warn("hal: can't ask for the forwarding database: %s", std::strerror(errno));
        return false;
    }
    return true;
}

// The kernel's single-entry lookup (RTM_GETNEIGH without NLM_F_DUMP).
reply fdb_get(query &q) {
    mirror().counts.kernel_queries++;
    alignas(nlmsghdr) std::array<std::uint8_t, 128> req{};
    nlmsghdr *nlh = mnl_nlmsg_put_header(req.data());
    nlh->nlmsg_type = RTM_GETNEIGH;
    nlh->nlmsg_flags = NLM_F_REQUEST;
    nlh->nlmsg_seq = q.seq = next_seq();
    auto *ndm = static_cast<ndmsg *>(mnl_nlmsg_put_extra_header(nlh, sizeof(ndmsg)));
    ndm->ndm_family = AF_BRIDGE;
    mnl_attr_put(nlh, NDA_LLADDR, ETH_ALEN_, q.mac);
    mnl_attr_put_u32(nlh, NDA_MASTER, static_cast<std::uint32_t>(q.bridge));
    if (!send_request(nlh)) {
        return reply::failed;
    }
    return collect(q, false);
}

// Older kernels: walk the bridge's whole database.
reply fdb_dump(query &q) {
    mirror().counts.kernel_queries++;
    alignas(nlmsghdr) std::array<std::uint8_t, 128> req{};
    nlmsghdr *nlh = mnl_nlmsg_put_header(req.data());
    nlh->nlmsg_type = RTM_GETNEIGH;
    nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    nlh->nlmsg_seq = q.seq = next_seq();
    auto *ifi = static_cast<ifinfomsg *>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
    ifi->ifi_family = AF_BRIDGE;
    mnl_attr_put_u32(nlh, IFLA_MASTER, static_cast<std::uint32_t>(q.bridge));
    if (!send_request(nlh)) {
        return reply::failed;
    }
    return collect(q, true);
}

// ---- the in-memory mirror ----

bool mirror_open() {
    fdb_mirror &m = mirror();
    mnl_socket_ptr sock(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC));
    if (!sock || mnl_socket_bind(sock.get(), RTMGRP_NEIGH, MNL_SOCKET_AUTOPID) < 0) {
        zlog_warn("hal: can't follow the forwarding database: %s", std::strerror(errno));
        return false;
    }
    const int fd = mnl_socket_get_fd(sock.get());
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &MIRROR_RCVBUF, sizeof MIRROR_RCVBUF) < 0) {
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &MIRROR_RCVBUF, sizeof MIRROR_RCVBUF);
    }
    timeval tv{};
    tv.tv_usec = FDB_TIMEOUT_USEC;
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    m.sock = std::move(sock);
    m.buf.assign(
        std::max<std::size_t>(static_cast<std::size_t>(MNL_SOCKET_BUFFER_SIZE), FDB_RECV_MIN), 0);
    m.synced = false;
    m.table.clear();
    return true;
}

void mirror_close() {
    fdb_mirror &m = mirror();
    m.sock.reset();
    m.synced = false;
    m.table.clear();
}

// Applies the events waiting; false when the table cannot be trusted now
// (more waiting than one lookup reads, or the socket failed).
bool mirror_drain() {
    fdb_mirror &m = mirror();
    const int fd = mnl_socket_get_fd(m.sock.get());
    for (int i = 0; i < MIRROR_MAX_READS; ++i) {
        const ssize_t n = recv(fd, m.buf.data(), m.buf.size(), MSG_DONTWAIT);
        if (n >= 0) {
            m.table.feed({m.buf.data(), static_cast<std::size_t>(n)});
            continue;
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            return true;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno == ENOBUFS) {  // events lost: dump again
            m.synced = false;
            m.table.clear();
            continue;
        }
        zlog_warn("hal: forwarding-database events failed: %s", std::strerror(errno));
        mirror_close();
        return false;
    }
    return false;
}

// The dump's own messages in one datagram: 1 at its end, -1 when it failed,
// 0 when more follows. The neighbour entries are fed by the caller.
int dump_progress(std::span<const std::uint8_t> data, std::uint32_t seq, bool &interrupted) {
    int len = static_cast<int>(std::min<std::size_t>(data.size(), INT_MAX));
    const auto *nlh = reinterpret_cast<const nlmsghdr *>(data.data());
    for (; nlmsg_fits(nlh, len); nlh = mnl_nlmsg_next(nlh, &len)) {
        if (nlh->nlmsg_seq != seq || nlh->nlmsg_pid == 0) {
            continue;  // an event
        }
        if ((nlh->nlmsg_flags & NLM_F_DUMP_INTR) != 0) {
            interrupted = true;
        }
        if (nlh->nlmsg_type == NLMSG_ERROR) {
            return -1;
        }
        if (nlh->nlmsg_type == NLMSG_DONE) {
            return 1;
        }
    }
    return 0;
}

// Fills the table from the kernel's whole neighbour dump of every bridge.
bool mirror_dump() {
    fdb_mirror &m = mirror();
    m.counts.dumps++;
    m.table.clear();
    alignas(nlmsghdr) std::array<std::uint8_t, 64> req{};
    nlmsghdr *nlh = mnl_nlmsg_put_header(req.data());
    nlh->nlmsg_type = RTM_GETNEIGH;
    nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    if (++m.seq == 0) {
        m.seq = 1;
    }
    nlh->nlmsg_seq = m.seq;
    auto *ndm = static_cast<ndmsg *>(mnl_nlmsg_put_extra_header(nlh, sizeof(ndmsg)));
    ndm->ndm_family = AF_BRIDGE;
    if (mnl_socket_sendto(m.sock.get(), nlh, nlh->nlmsg_len) < 0) {
        zlog_warn("hal: can't dump the forwarding database: %s", std::strerror(errno));
        mirror_close();
        return false;
    }
    const int fd = mnl_socket_get_fd(m.sock.get());
    bool interrupted = false;
    for (;;) {
        const ssize_t n = recv(fd, m.buf.data(), m.buf.size(), 0);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            // ENOBUFS included: the dump's answer may be cut; start over.
            zlog_warn("hal: forwarding-database dump failed: %s", std::strerror(errno));
            mirror_close();
            return false;
        }
        const std::span<const std::uint8_t> data(m.buf.data(), static_cast<std::size_t>(n));
        m.table.feed(data);
        const int done = dump_progress(data, m.seq, interrupted);
        if (done < 0) {
            mirror_close();
            return false;
        }
        if (done > 0) {
            m.synced = !interrupted;
            return m.synced;
        }
    }
}

// The port ifindex `mac` was learned on in `bridge` (0: not known) from the
// mirror; nothing when the mirror is unsure and the kernel must be asked.
std::optional<int> mirror_lookup(int bridge, const std::uint8_t *mac) {
    fdb_mirror &m = mirror();
    if (!m.enabled || chan().forced_dump) {
        return std::nullopt;
    }
    if (!m.sock || !m.synced) {
        const std::uint64_t now = monotonic_ms();
        if (m.tried && now - m.last_try_ms < MIRROR_RETRY_MS) {
            return std::nullopt;
        }
        m.tried = true;
        m.last_try_ms = now;
        if (!m.sock && !mirror_open()) {
            return std::nullopt;
        }
    }
    if (!mirror_drain()) {
        return std::nullopt;
    }
    if (!m.synced && !mirror_dump()) {
        return std::nullopt;
    }
    if (m.table.overflowed()) {
        return std::nullopt;
    }
    m.counts.table_answers++;
    return m.table.find(bridge, std::span<const std::uint8_t, 6>(mac, 6));
}

}  // namespace

int hal_dhcp_enable(int enable) {
    if (enable == 0) {
        if (dhcp_trap_users == 0) {
            return 0;
        }
        if (--dhcp_trap_users > 0) {
            return 0;
        }
        return trap_channel_deliver(false);
    }
    if (dhcp_trap_users < 2) {  // the server and the relay; a stray call adds nobody
        ++dhcp_trap_users;
    }
    if (trap_channel_open() != 0) {
        return -1;
    }
    return trap_channel_deliver(true);
}

int hal_dhcp_enabled() {
    return dhcp_trap_users > 0 ? 1 : 0;
}

void hal_fdb_force_dump(int on) {
    chan().get_unsupported = on != 0;
    chan().forced_dump = on != 0;
}

void hal_fdb_use_table(int on) {
    fdb_mirror &m = mirror();
    m.enabled = on != 0;
    if (!m.enabled) {
        mirror_close();
        m.tried = false;
    }
}

hal_fdb_counts hal_fdb_stats() {
    return mirror().counts;
}

namespace {
hal_mac_port_lookup mac_port_lookup;
}  // namespace

void hal_set_mac_port_lookup(hal_mac_port_lookup lookup) {
    mac_port_lookup = std::move(lookup);
}

int hal_mac_get_port(std::uint16_t vid, const std::uint8_t *mac, std::uint32_t *port) {
    if (port != nullptr) {
        *port = 0;
    }
    if (mac == nullptr || port == nullptr) {
        return -1;
    }
    if (mac_port_lookup) {
        return mac_port_lookup(vid, mac, port);
    }
    char name[IF_NAMESIZE];
    std::snprintf(name, sizeof name, "vlanif%u", static_cast<unsigned>(vid));
    unsigned bridge = if_nametoindex(name);
    if (bridge == 0 || bridge > static_cast<unsigned>(INT_MAX)) {
        return 0;
    }
    if (const auto learned = mirror_lookup(static_cast<int>(bridge), mac)) {
        if (*learned == 0 || *learned == static_cast<int>(bridge)) {
            return 0;  // unknown, or the bridge's own address
        }
        if (const uif *p = uif_lookup_by_kernel_ifindex(*learned)) {
            *port = p->index;
        }
        return 0;
    }
    if (!fdb_open()) {
        return -1;
    }
    query q;
    q.bridge = static_cast<int>(bridge);
    q.mac = mac;
    reply r = reply::unsupported;
    if (!chan().get_unsupported) {
        r = fdb_get(q);
        if (r == reply::unsupported) {
            chan().get_unsupported = true;
        }
    }
    if (r == reply::unsupported) {
        r = fdb_dump(q);
    }
    if (r == reply::failed) {
        chan().sock.reset();  // start clean next time
        return -1;
    }
    if (r != reply::found || q.port_ifindex == q.bridge) {
        return 0;  // unknown, or the bridge's own address
    }
    if (const uif *p = uif_lookup_by_kernel_ifindex(q.port_ifindex)) {
        *port = p->index;
    }
    return 0;
}
