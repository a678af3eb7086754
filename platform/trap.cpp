#include "trap.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <vector>

#include "lib/log.h"
#include "lib/unique_fd.h"
#include "platform/uif.h"
#include "platform/util.h"

int hal_netlink_async = -1;

namespace {

constexpr std::size_t ETH_HDR = 14;
constexpr std::size_t MAC_PAIR = 12;  // destination and source MAC
constexpr std::size_t TAG_LEN = 4;
constexpr std::uint16_t TPID_8021Q = 0x8100;
// Socket buffer, when frames are read from the socket queue: room for a
// burst of a few thousand frames.
constexpr int TRAP_RCVBUF = 4 << 20;
// Frames read per recvmmsg call, and per hal_recv call at most, so that the
// loop's other tasks (the CLI, timers) get their turn in a flood.
constexpr std::size_t RECV_BATCH = 16;
constexpr int RECV_ROUNDS = 2;
static_assert(RECV_BATCH * RECV_ROUNDS == HAL_RECV_BATCH_MAX);
// Frames dropped when delivery changes, at most (a flood never holds us).
constexpr int DRAIN_MAX = 1 << 16;
// A frame from a netdev the tables do not know re-reads them, at most this
// often.
constexpr std::uint64_t REFRESH_MIN_MS = 1000;

// ---- the trap rule in classic BPF ----
//
// Outgoing frames are refused. The IPv4 header is at 14 (untagged, or the
// kernel holds the 802.1Q tag aside) or at 18 (the tag still in the frame);
// a frame with a tag aside and another in it, or a tag aside of another
// TPID, is refused. Then: version 4, protocol UDP or TCP, the first fragment,
// a header of at least 20 bytes, and source or destination port 67 or 68.

constexpr sock_filter stmt(std::uint16_t code, std::uint32_t k) {
    return sock_filter{code, 0, 0, k};
}
// A conditional jump at position `at`, to positions `yes` and `no`.
constexpr sock_filter jump(std::uint16_t code, std::uint32_t k, int at, int yes, int no) {
    return sock_filter{code, static_cast<std::uint8_t>(yes - at - 1),
                       static_cast<std::uint8_t>(no - at - 1), k};
}

constexpr std::uint16_t LD_W_ABS = BPF_LD | BPF_W | BPF_ABS;
constexpr std::uint16_t LD_H_ABS = BPF_LD | BPF_H | BPF_ABS;
constexpr std::uint16_t LD_B_IND = BPF_LD | BPF_B | BPF_IND;
constexpr std::uint16_t LD_H_IND = BPF_LD | BPF_H | BPF_IND;
constexpr std::uint16_t JEQ = BPF_JMP | BPF_JEQ | BPF_K;
constexpr std::uint16_t JGE = BPF_JMP | BPF_JGE | BPF_K;
constexpr std::uint16_t JSET = BPF_JMP | BPF_JSET | BPF_K;
constexpr std::uint32_t AD(std::uint32_t what) {
    return static_cast<std::uint32_t>(SKF_AD_OFF) + what;
}

// Positions the jumps aim at.
constexpr int NOAUX = 8;
constexpr int L3_AT_14 = 15;
constexpr int IPV4 = 16;
constexpr int IS_L4 = 22;
constexpr int ACCEPT = 36;
constexpr int DROP = 37;
// Bytes the accept takes: the whole frame.
constexpr std::uint32_t ACCEPT_LEN = 0x40000;
// Bridges refused in the kernel, at most (the program stays far below the
// kernel's 4096 instructions); with more, user space refuses them all.
constexpr std::size_t SKIP_MAX = 1000;

constexpr std::array<sock_filter, 38> DHCP_RULE = {{
    /* 0 */ stmt(LD_W_ABS, AD(SKF_AD_PKTTYPE)),
    /* 1 */ jump(JEQ, PACKET_OUTGOING, 1, DROP, 2),
    /* 2 */ stmt(LD_W_ABS, AD(SKF_AD_VLAN_TAG_PRESENT)),
    /* 3 */ jump(JEQ, 0, 3, NOAUX, 4),
    /* 4 */ stmt(LD_W_ABS, AD(SKF_AD_VLAN_TPID)),
    /* 5 */ jump(JEQ, TPID_8021Q, 5, 6, DROP),
    /* 6 */ stmt(LD_H_ABS, 12),
    /* 7 */ jump(JEQ, ETH_P_IP, 7, L3_AT_14, DROP),
    /* 8 */ stmt(LD_H_ABS, 12),
    /* 9 */ jump(JEQ, ETH_P_IP, 9, L3_AT_14, 10),
    /* 10 */ jump(JEQ, TPID_8021Q, 10, 11, DROP),
    /* 11 */ stmt(LD_H_ABS, 16),
    /* 12 */ jump(JEQ, ETH_P_IP, 12, 13, DROP),
    /* 13 */ stmt(BPF_LDX | BPF_W | BPF_IMM, 18),
    /* 14 */ stmt(BPF_JMP | BPF_JA, IPV4 - 14 - 1),
    /* 15 */ stmt(BPF_LDX | BPF_W | BPF_IMM, 14),
    /* 16 */ stmt(LD_B_IND, 0),
    /* 17 */ stmt(BPF_ALU | BPF_RSH | BPF_K, 4),
    /* 18 */ jump(JEQ, 4, 18, 19, DROP),
    /* 19 */ stmt(LD_B_IND, 9),
    /* 20 */ jump(JEQ, IPPROTO_UDP, 20, IS_L4, 21),
    /* 21 */ jump(JEQ, IPPROTO_TCP, 21, IS_L4, DROP),
    /* 22 */ stmt(LD_H_IND, 6),
    /* 23 */ jump(JSET, 0x1fff, 23, DROP, 24),
    /* 24 */ stmt(LD_B_IND, 0),
    /* 25 */ stmt(BPF_ALU | BPF_AND | BPF_K, 0x0f),
    /* 26 */ jump(JGE, 5, 26, 27, DROP),
    /* 27 */ stmt(BPF_ALU | BPF_LSH | BPF_K, 2),
    /* 28 */ stmt(BPF_ALU | BPF_ADD | BPF_X, 0),
    /* 29 */ stmt(BPF_MISC | BPF_TAX, 0),
    /* 30 */ stmt(LD_H_IND, 0),
    /* 31 */ jump(JEQ, 67, 31, ACCEPT, 32),
    /* 32 */ jump(JEQ, 68, 32, ACCEPT, 33),
    /* 33 */ stmt(LD_H_IND, 2),
    /* 34 */ jump(JEQ, 67, 34, ACCEPT, 35),
    /* 35 */ jump(JEQ, 68, 35, ACCEPT, DROP),
    /* 36 */ stmt(BPF_RET | BPF_K, ACCEPT_LEN),
    /* 37 */ stmt(BPF_RET | BPF_K, 0),
}};

static_assert(DHCP_RULE[NOAUX].k == 12 && DHCP_RULE[L3_AT_14].k == 14 &&
              DHCP_RULE[IPV4].code == LD_B_IND && DHCP_RULE[IS_L4].k == 6 &&
              DHCP_RULE[ACCEPT].k != 0 && DHCP_RULE[DROP].k == 0);

constexpr std::array<sock_filter, 1> NOTHING = {{stmt(BPF_RET | BPF_K, 0)}};

}  // namespace

// The trap rule with an ingress check before its accept: a frame that came
// in on one of `skip` (the vlanifN bridges, whose copy of a port's frame is
// not a trapped frame) is refused in the kernel. Each index is a test and a
// refusal of its own, so no jump grows with the list. A frame without a
// device (never so on the channel) ends with the accept value loaded first.
std::vector<sock_filter> trap_filter_skipping(std::span<const int> skip) {
    std::vector<sock_filter> prog(DHCP_RULE.begin(), DHCP_RULE.end());
    if (skip.empty() || skip.size() > SKIP_MAX) {
        return prog;
    }
    // The accept steps over the drop to the ingress check behind it.
    prog[ACCEPT] = stmt(BPF_JMP | BPF_JA, DROP - ACCEPT);
    prog.push_back(stmt(BPF_LD | BPF_W | BPF_IMM, ACCEPT_LEN));
    prog.push_back(stmt(LD_W_ABS, AD(SKF_AD_IFINDEX)));
    for (int index : skip) {
        prog.push_back(sock_filter{JEQ, 0, 1, static_cast<std::uint32_t>(index)});
        prog.push_back(stmt(BPF_RET | BPF_K, 0));
    }
    prog.push_back(stmt(BPF_RET | BPF_K, ACCEPT_LEN));
    return prog;
}

namespace {

// ---- the socket ----

// One slot of a batched read: the frame and what the kernel says about it.
struct rx_slot {
    std::array<std::uint8_t, HAL_TRAP_FRAME_MAX> frame;
    sockaddr_ll from;
    alignas(cmsghdr) std::uint8_t control[CMSG_SPACE(sizeof(tpacket_auxdata))];
    iovec iov;
};

// The receive ring the kernel writes frames into (TPACKET_V2), mapped once
// with the socket. Frame slots are taken in order; a slot is the reader's
// while its status has TP_STATUS_USER and goes back to the kernel when read.
// 2046 slots in 8.25 MiB: a burst of a couple of thousand frames waits there
// as it did in the socket buffer.
constexpr std::size_t RING_BLOCK = 1 << 17;
constexpr std::size_t RING_BLOCKS = 66;
// A slot holds the kernel's header and address (under 128 bytes before the
// frame) and the longest frame taken.
constexpr std::size_t RING_FRAME = HAL_TRAP_FRAME_MAX + 128;
static_assert(RING_FRAME % TPACKET_ALIGNMENT == 0);
constexpr std::size_t RING_PER_BLOCK = RING_BLOCK / RING_FRAME;
constexpr std::size_t RING_SLOTS = RING_PER_BLOCK * RING_BLOCKS;
static_assert(RING_SLOTS == 2046);

struct ring_map {
    std::uint8_t *base = nullptr;
    std::size_t len = 0;
    std::size_t head = 0;  // the next slot to read
    ring_map() = default;
    ring_map(const ring_map &) = delete;
    ring_map &operator=(const ring_map &) = delete;
    ~ring_map() { reset(); }
    void reset() {
        if (base != nullptr) {
            munmap(base, len);
        }
        base = nullptr;
        len = 0;
        head = 0;
    }
    tpacket2_hdr *slot(std::size_t i) const {
        return reinterpret_cast<tpacket2_hdr *>(base + (i / RING_PER_BLOCK) * RING_BLOCK +
                                                (i % RING_PER_BLOCK) * RING_FRAME);
    }
};

struct channel {
    unique_fd sock;
    ring_map ring;
    std::uint64_t last_refresh_ms = 0;
    bool refreshed = false;
    bool delivering = false;
    // The program attached while delivering, and the VLAN table it was built
    // from; a re-read table rebuilds it.
    std::vector<sock_filter> rule;
    std::uint64_t rule_generation = 0;
    hal_trap_counters counters{};
    std::array<rx_slot, RECV_BATCH> rx{};
    std::array<mmsghdr, RECV_BATCH> hdrs{};
    std::array<std::uint8_t, HAL_TRAP_MSG_MAX> msg{};
};

channel &chan() {
    static channel c;
    return c;
}

int attach(int fd, const sock_fprog &prog) {
    return setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &prog, sizeof prog);
}

void drain(int fd) {
    std::uint8_t byte = 0;
    for (int i = 0; i < DRAIN_MAX; ++i) {
        if (recv(fd, &byte, sizeof byte, MSG_DONTWAIT | MSG_TRUNC) < 0 && errno != EINTR) {
            return;
        }
    }
}

void set_option(int fd, int level, int name, int value) {
    setsockopt(fd, level, name, &value, sizeof value);
}

// Where the frame came in, re-reading the tables (rarely) for a stranger.
bool ingress_of(int ifindex, trap_ingress *in) {
    trap_source s = trap_source_of(ifindex, in);
    if (s != trap_source::unknown) {
        return s == trap_source::ingress;
    }
    channel &c = chan();
    std::uint64_t now = monotonic_ms();
    if (c.refreshed && now - c.last_refresh_ms < REFRESH_MIN_MS) {
        return false;
    }
    c.refreshed = true;
    c.last_refresh_ms = now;
    uif_refresh();
    return trap_source_of(ifindex, in) == trap_source::ingress;
}

trap_aux aux_of(msghdr &mh) {
    trap_aux aux;
    for (cmsghdr *cm = CMSG_FIRSTHDR(&mh); cm != nullptr; cm = CMSG_NXTHDR(&mh, cm)) {
        if (cm->cmsg_level != SOL_PACKET || cm->cmsg_type != PACKET_AUXDATA ||
            cm->cmsg_len < CMSG_LEN(sizeof(tpacket_auxdata))) {
            continue;
        }
        tpacket_auxdata ad;
        std::memcpy(&ad, CMSG_DATA(cm), sizeof ad);
        if ((ad.tp_status & TP_STATUS_VLAN_VALID) != 0) {
            aux.tagged = true;
            aux.tci = ad.tp_vlan_tci;
            if ((ad.tp_status & TP_STATUS_VLAN_TPID_VALID) != 0) {
                aux.tpid = ad.tp_vlan_tpid;
            }
        }
    }
    return aux;
}

// Attaches the trap rule built from the VLAN table as it stands.
int attach_rule(channel &c) {
    c.rule_generation = uvlan_generation();
    const std::vector<int> bridges = uvlan_bridge_ifindexes();
    c.rule = trap_filter_skipping(bridges);
    const sock_fprog prog{static_cast<unsigned short>(c.rule.size()), c.rule.data()};
    return attach(c.sock.get(), prog);
}

// Reads up to RECV_BATCH frames; the number read, 0 when nothing was
// waiting, -1 on a read error.
int read_batch(channel &c, int fd) {
    for (std::size_t i = 0; i < RECV_BATCH; ++i) {
        rx_slot &slot = c.rx[i];
        slot.iov = iovec{slot.frame.data(), slot.frame.size()};
        msghdr &mh = c.hdrs[i].msg_hdr;
        mh = msghdr{};
        mh.msg_name = &slot.from;
        mh.msg_namelen = sizeof slot.from;
        mh.msg_iov = &slot.iov;
        mh.msg_iovlen = 1;
        mh.msg_control = slot.control;
        mh.msg_controllen = sizeof slot.control;
        c.hdrs[i].msg_len = 0;
    }
    int n = recvmmsg(fd, c.hdrs.data(), RECV_BATCH, MSG_DONTWAIT | MSG_TRUNC, nullptr);
    if (n < 0) {
        return (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) ? 0 : -1;
    }
    return n;
}

// Builds the message of the frame in slot `i` when it is a trapped frame;
// the frame's length in the message, or 0 when it is not one.
std::size_t take(channel &c, std::size_t i) {
    rx_slot &slot = c.rx[i];
    msghdr &mh = c.hdrs[i].msg_hdr;
    const std::size_t n = c.hdrs[i].msg_len;
    if ((mh.msg_flags & MSG_TRUNC) != 0 || n > slot.frame.size() ||
        slot.from.sll_pkttype == PACKET_OUTGOING) {
        return 0;
    }
    trap_ingress in;
    if (!ingress_of(slot.from.sll_ifindex, &in)) {
        return 0;
    }
    return trap_build_msg(c.msg, {slot.frame.data(), n}, in, aux_of(mh));
}

// Maps the receive ring on the fresh socket; without it, frames are read
// from the socket queue instead.
void map_ring(int fd, ring_map &ring) {
    const int version = TPACKET_V2;
    tpacket_req req{};
    req.tp_block_size = RING_BLOCK;
    req.tp_block_nr = RING_BLOCKS;
    req.tp_frame_size = RING_FRAME;
    req.tp_frame_nr = RING_SLOTS;
    if (setsockopt(fd, SOL_PACKET, PACKET_VERSION, &version, sizeof version) != 0 ||
        setsockopt(fd, SOL_PACKET, PACKET_RX_RING, &req, sizeof req) != 0) {
        return;
    }
    const std::size_t len = RING_BLOCK * RING_BLOCKS;
    void *base = mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (base == MAP_FAILED) {
        tpacket_req none{};
        setsockopt(fd, SOL_PACKET, PACKET_RX_RING, &none, sizeof none);
        return;
    }
    ring.base = static_cast<std::uint8_t *>(base);
    ring.len = len;
}

// The slot at the head when the kernel has filled it, else nullptr.
tpacket2_hdr *ring_ready(const ring_map &ring) {
    tpacket2_hdr *h = ring.slot(ring.head);
    return (__atomic_load_n(&h->tp_status, __ATOMIC_ACQUIRE) & TP_STATUS_USER) != 0 ? h : nullptr;
}

void ring_release(ring_map &ring, tpacket2_hdr *h) {
    __atomic_store_n(&h->tp_status, TP_STATUS_KERNEL, __ATOMIC_RELEASE);
    ring.head = (ring.head + 1) % RING_SLOTS;
}

// Builds the message of the frame in ring slot `h`; its length in the
// message, or 0 when it is not a trapped frame. Slot fields are the kernel's
// and are checked against the slot before use.
std::size_t take_ring(channel &c, const tpacket2_hdr &h) {
    const std::size_t ll_at = TPACKET_ALIGN(sizeof(tpacket2_hdr));
    if (h.tp_len != h.tp_snaplen || h.tp_snaplen > HAL_TRAP_FRAME_MAX || h.tp_mac > RING_FRAME ||
        RING_FRAME - h.tp_mac < h.tp_snaplen) {
        return 0;
    }
    sockaddr_ll from;
    std::memcpy(&from, reinterpret_cast<const std::uint8_t *>(&h) + ll_at, sizeof from);
    if (from.sll_pkttype == PACKET_OUTGOING) {
        return 0;
    }
    trap_ingress in;
    if (!ingress_of(from.sll_ifindex, &in)) {
        return 0;
    }
    trap_aux aux;
    if ((h.tp_status & TP_STATUS_VLAN_VALID) != 0) {
        aux.tagged = true;
        aux.tci = h.tp_vlan_tci;
        if ((h.tp_status & TP_STATUS_VLAN_TPID_VALID) != 0) {
            aux.tpid = h.tp_vlan_tpid;
        }
    }
    const auto *frame = reinterpret_cast<const std::uint8_t *>(&h) + h.tp_mac;
    return trap_build_msg(c.msg, {frame, h.tp_snaplen}, in, aux);
}

// Gives every filled slot back to the kernel (a bounded walk of the ring).
void ring_drain(ring_map &ring) {
    for (std::size_t i = 0; i < RING_SLOTS && ring.base != nullptr; ++i) {
        tpacket2_hdr *h = ring_ready(ring);
        if (h == nullptr) {
            return;
        }
        ring_release(ring, h);
    }
}

// A re-read VLAN table rebuilds the rule before the next frame is taken, so
// that every frame handed on after the one that had the table re-read
// follows the new rule.
void refilter_if_stale(channel &c) {
    if (c.delivering && c.rule_generation != uvlan_generation()) {
        attach_rule(c);  // a failure keeps the rule in place, still a good one
    }
}

// hal_recv on the ring: up to HAL_RECV_BATCH_MAX frames.
void recv_ring(channel &c, hal_recv_cb cb) {
    for (int i = 0; i < HAL_RECV_BATCH_MAX; ++i) {
        refilter_if_stale(c);
        tpacket2_hdr *h = ring_ready(c.ring);
        if (h == nullptr) {
            return;
        }
        ++c.counters.read;
        const std::size_t frame_len = take_ring(c, *h);
        ring_release(c.ring, h);  // the message is a copy
        if (frame_len == 0) {
            ++c.counters.dropped;
            continue;
        }
        cb(HAL_MSG_TRAPPED_FRAME, c.msg.data(), static_cast<std::uint32_t>(frame_len));
    }
}

void put_u16(std::uint8_t *p, std::uint16_t v) {
    p[0] = static_cast<std::uint8_t>(v >> 8);
    p[1] = static_cast<std::uint8_t>(v);
}

std::uint16_t get_u16(const std::uint8_t *p) {
    return static_cast<std::uint16_t>(p[0] << 8 | p[1]);
}

}  // namespace

// The kernel copies the programs and never writes through sock_fprog's
// non-const pointer.
const sock_fprog &trap_filter_dhcp() {
    static const sock_fprog prog{static_cast<unsigned short>(DHCP_RULE.size()),
                                 const_cast<sock_filter *>(DHCP_RULE.data())};
    return prog;
}

const sock_fprog &trap_filter_none() {
    static const sock_fprog prog{static_cast<unsigned short>(NOTHING.size()),
                                 const_cast<sock_filter *>(NOTHING.data())};
    return prog;
}

int trap_channel_open() {
    channel &c = chan();
    if (c.sock) {
        return 0;
    }
    // Protocol 0: nothing arrives before the filter is in place and the
    // socket is bound.
    unique_fd fd(socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd) {
        zlog_err("hal: can't open the trap channel: %s", std::strerror(errno));
        return -1;
    }
    if (attach(fd.get(), trap_filter_none()) != 0) {
        zlog_err("hal: can't filter the trap channel: %s", std::strerror(errno));
        return -1;
    }
    map_ring(fd.get(), c.ring);
    set_option(fd.get(), SOL_PACKET, PACKET_AUXDATA, 1);
    set_option(fd.get(), SOL_PACKET, PACKET_IGNORE_OUTGOING, 1);  // kernels from 4.20
    if (setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUFFORCE, &TRAP_RCVBUF, sizeof TRAP_RCVBUF) != 0) {
        set_option(fd.get(), SOL_SOCKET, SO_RCVBUF, TRAP_RCVBUF);
    }
    sockaddr_ll sll{};
    sll.sll_family = AF_PACKET;
    sll.sll_protocol = htons(ETH_P_ALL);
    if (bind(fd.get(), reinterpret_cast<sockaddr *>(&sll), sizeof sll) != 0) {
        zlog_err("hal: can't bind the trap channel: %s", std::strerror(errno));
        c.ring.reset();
        return -1;
    }
    c.sock = std::move(fd);
    hal_netlink_async = c.sock.get();
    return 0;
}

int trap_channel_deliver(bool on) {
    channel &c = chan();
    if (!c.sock) {
        return on ? -1 : 0;
    }
    int fd = c.sock.get();
    if (on) {
        drain(fd);
        ring_drain(c.ring);
    }
    c.delivering = on;
    if ((on ? attach_rule(c) : attach(fd, trap_filter_none())) != 0) {
        zlog_err("hal: can't filter the trap channel: %s", std::strerror(errno));
        return -1;
    }
    if (!on) {
        drain(fd);
        ring_drain(c.ring);
    }
    return 0;
}

trap_source trap_source_of(int ifindex, trap_ingress *in) {
    if (const uif *p = uif_peek_by_kernel_ifindex(ifindex)) {
        in->port = p->number;
        in->vid = p->vid;
        return trap_source::ingress;
    }
    if (const uvlan *v = uvlan_peek_by_kernel_ifindex(ifindex)) {
        if (v->bridge) {
            return trap_source::other;
        }
        in->port = 0;
        in->vid = v->vid;
        return trap_source::ingress;
    }
    return trap_source::unknown;
}

std::size_t trap_build_msg(std::span<std::uint8_t> out, std::span<const std::uint8_t> frame,
                           const trap_ingress &in, const trap_aux &aux) {
    if (frame.size() < ETH_HDR) {
        return 0;
    }
    const bool tag_in_frame = get_u16(&frame[MAC_PAIR]) == TPID_8021Q;
    if (aux.tagged && (tag_in_frame || (aux.tpid != 0 && aux.tpid != TPID_8021Q))) {
        return 0;
    }
    if (tag_in_frame && frame.size() < ETH_HDR + TAG_LEN) {
        return 0;
    }
    const std::size_t frame_len = frame.size() + (aux.tagged ? TAG_LEN : 0);
    const std::size_t start = sizeof(hal_trap_hdr) + HAL_TRAP_GAP;
    if (out.size() < start || out.size() - start < frame_len) {
        return 0;
    }
    std::uint16_t tci = 0;
    if (aux.tagged) {
        tci = aux.tci;
    } else if (tag_in_frame) {
        tci = get_u16(&frame[MAC_PAIR + 2]);
    }
    const auto vid = static_cast<std::uint16_t>(tci & 0x0fff);

    hal_trap_hdr hdr{};
    hdr.port = in.port;
    hdr.vlan = vid != 0 ? vid : in.vid;
    hdr.gap = HAL_TRAP_GAP;
    std::memcpy(out.data(), &hdr, sizeof hdr);
    std::memset(out.data() + sizeof hdr, 0, HAL_TRAP_GAP);

    std::uint8_t *f = out.data() + start;
    if (!aux.tagged) {
        std::memcpy(f, frame.data(), frame.size());
        return frame_len;
    }
    std::memcpy(f, frame.data(), MAC_PAIR);
    put_u16(f + MAC_PAIR, TPID_8021Q);
    put_u16(f + MAC_PAIR + 2, aux.tci);
    std::memcpy(f + MAC_PAIR + TAG_LEN, frame.data() + MAC_PAIR, frame.size() - MAC_PAIR);
    return frame_len;
}

int hal_recv(int fd, hal_recv_cb cb) {
    if (fd < 0 || cb == nullptr) {
        return -1;
    }
    channel &c = chan();
    const bool channel_fd = c.sock && fd == c.sock.get();
    if (channel_fd && c.ring.base != nullptr) {
        recv_ring(c, cb);
        return 0;
    }
    for (int round = 0; round < RECV_ROUNDS; ++round) {
        const int n = read_batch(c, fd);
        if (n < 0) {
            return -1;
        }
        for (std::size_t i = 0; i < static_cast<std::size_t>(n); ++i) {
            if (channel_fd) {
                refilter_if_stale(c);
            }
            ++c.counters.read;
            const std::size_t frame_len = take(c, i);
            if (frame_len == 0) {
                ++c.counters.dropped;
                continue;
            }
            cb(HAL_MSG_TRAPPED_FRAME, c.msg.data(), static_cast<std::uint32_t>(frame_len));
        }
        if (static_cast<std::size_t>(n) < RECV_BATCH) {
            break;
        }
    }
    return 0;
}

hal_trap_counters hal_trap_counters_get() {
    return chan().counters;
}
