#include "zclient.h"

#include <libmnl/libmnl.h>
#include <linux/if_addr.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <deque>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "lib/log.h"
#include "lib/thread.h"

namespace {

struct mnl_socket_closer {
    void operator()(mnl_socket *s) const { mnl_socket_close(s); }
};
using mnl_socket_ptr = std::unique_ptr<mnl_socket, mnl_socket_closer>;

// A dump skb of the kernel can reach 32 KiB; a smaller buffer would cut it.
constexpr std::size_t NL_RECV_MIN = 32768;
// Datagrams read per wakeup before other tasks get their turn.
constexpr int NL_READS_PER_WAKEUP = 1024;
constexpr long ZCLIENT_RETRY_SECONDS = 5;

enum class dump_kind : std::uint8_t { link, addr4, addr6 };

using addr_key = std::tuple<ifindex_t, std::uint8_t, std::uint8_t, std::array<std::uint8_t, 16>>;

std::size_t addr_bytes(std::uint8_t family) {
    return family == AF_INET ? 4 : family == AF_INET6 ? 16 : 0;
}

addr_key make_key(ifindex_t ifindex, const prefix &p) {
    std::array<std::uint8_t, 16> a{};
    std::copy_n(p.u.val, addr_bytes(p.family), a.begin());
    return {ifindex, p.family, p.prefixlen, a};
}

// mnl_nlmsg_ok() takes a length of 2 GiB or more for a negative one and
// walks off the buffer; hostile input must not get that far.
bool nlmsg_fits(const nlmsghdr *nlh, int len) {
    return len >= static_cast<int>(sizeof(nlmsghdr)) && nlh->nlmsg_len >= sizeof(nlmsghdr) &&
           nlh->nlmsg_len <= static_cast<unsigned>(len);
}

std::unique_ptr<connected> &detached() {
    static std::unique_ptr<connected> entry;
    return entry;
}

}  // namespace

// The rtnetlink side of a client.
struct zclient_netlink {
    mnl_socket_ptr sock;
    std::uint32_t seq = 0;
    std::deque<dump_kind> pending;   // dumps still to ask for, one at a time
    std::uint32_t inflight_seq = 0;  // 0: no dump running
    bool resync = false;             // report what the dumps no longer show
    bool redo = false;               // a dump was interrupted by changes: again
    bool dump_failed = false;        // a dump of this round was refused
    std::set<ifindex_t> seen_links;
    std::set<addr_key> seen_addrs;
    std::vector<std::uint8_t> buf;
    thread *t_read = nullptr;
    thread *t_retry = nullptr;
};

zclient::zclient() = default;
zclient::~zclient() = default;

namespace {

// ---- messages --------------------------------------------------------------

void begin_message(stream *s, std::uint16_t command, vrf_id_t vrf_id) {
    stream_reset(s);
    stream_putw(s, 0);  // length, fixed up last
    stream_putc(s, ZEBRA_HEADER_MARKER);
    stream_putc(s, ZSERV_VERSION);
    stream_putw(s, vrf_id);
    stream_putw(s, command);
}

std::size_t finish_message(stream *s) {
    std::size_t len = stream_get_endp(s);
    if (stream_failed(s) || len > 0xffff) {
        return 0;
    }
    stream_putw_at(s, 0, static_cast<std::uint16_t>(len));
    return len;
}

// The interface body of our message is the builders' record.
using interface_body = zapi_interface;

bool read_interface_body(stream *s, interface_body &b) {
    stream_get(b.name, s, INTERFACE_NAMSIZ);
    b.name[INTERFACE_NAMSIZ] = '\0';
    b.ifindex = static_cast<ifindex_t>(stream_getl(s));
    stream_getc(s);  // status
    b.flags = stream_getq(s);
    b.metric = static_cast<int>(stream_getl(s));
    b.mtu = stream_getl(s);
    std::uint32_t hw_len = stream_getl(s);
    if (stream_failed(s) || hw_len > ZEBRA_HW_ADDR_MAX) {
        return false;
    }
    b.hw_addr_len = hw_len;
    stream_get(b.hw_addr, s, b.hw_addr_len);
    return !stream_failed(s) && b.name[0] != '\0';
}

void apply_interface_body(interface *ifp, const interface_body &b) {
    ifp->flags = b.flags;
    ifp->metric = b.metric;
    ifp->mtu = b.mtu;
    // The table keeps Ethernet-sized addresses; a longer one is not kept cut.
    if (b.hw_addr_len <= sizeof ifp->hw_addr) {
        std::memcpy(ifp->hw_addr, b.hw_addr, b.hw_addr_len);
        ifp->hw_addr_len = static_cast<int>(b.hw_addr_len);
    } else {
        ifp->hw_addr_len = 0;
    }
}

zclient_callback callback_for(const zclient *zc, std::uint16_t command) {
    switch (command) {
        case ZEBRA_INTERFACE_ADD:
            return zc->interface_add;
        case ZEBRA_INTERFACE_DELETE:
            return zc->interface_delete;
        case ZEBRA_INTERFACE_UP:
            return zc->interface_up;
        case ZEBRA_INTERFACE_DOWN:
            return zc->interface_down;
        case ZEBRA_INTERFACE_ADDRESS_ADD:
            return zc->interface_address_add;
        case ZEBRA_INTERFACE_ADDRESS_DELETE:
            return zc->interface_address_delete;
        default:
            return nullptr;
    }
}

// Reads the header of the message in ibuf; false when it is not one of ours.
bool read_header(stream *s, std::size_t total, std::uint16_t *command, vrf_id_t *vrf_id) {
    std::uint16_t length = stream_getw(s);
    std::uint8_t marker = stream_getc(s);
    std::uint8_t version = stream_getc(s);
    *vrf_id = stream_getw(s);
    *command = stream_getw(s);
    return !stream_failed(s) && marker == ZEBRA_HEADER_MARKER && version == ZSERV_VERSION &&
           length == total && length >= ZEBRA_HEADER_SIZE;
}

// Hands the message just built in obuf to the daemon.
int emit(zclient *zc) {
    return zclient_deliver(zc, stream_data(zc->obuf.get()));
}

int emit_interface(zclient *zc, std::uint16_t command, const zapi_interface &ifc) {
    if (zapi_interface_encode(zc->obuf.get(), command, VRF_DEFAULT, ifc) == 0) {
        return -1;
    }
    return emit(zc);
}

int emit_address(zclient *zc, std::uint16_t command, const zapi_address &addr) {
    if (zapi_address_encode(zc->obuf.get(), command, VRF_DEFAULT, addr) == 0) {
        return -1;
    }
    return emit(zc);
}

// Updates a known interface without telling the daemon.
void apply_silently(zclient *zc, const zapi_interface &ifc) {
    stream *s = zc->ibuf.get();
    if (zapi_interface_encode(s, ZEBRA_INTERFACE_UP, VRF_DEFAULT, ifc) == 0) {
        return;
    }
    stream_forward_getp(s, ZEBRA_HEADER_SIZE);
    zebra_interface_state_read(s, VRF_DEFAULT);
}

zapi_interface zapi_from(const interface *ifp) {
    zapi_interface z;
    std::memcpy(z.name, ifp->name, sizeof z.name);
    z.ifindex = ifp->ifindex;
    z.flags = ifp->flags;
    z.metric = ifp->metric;
    z.mtu = ifp->mtu;
    if (ifp->hw_addr_len > 0 && static_cast<std::size_t>(ifp->hw_addr_len) <= sizeof ifp->hw_addr) {
        z.hw_addr_len = static_cast<std::size_t>(ifp->hw_addr_len);
        std::memcpy(z.hw_addr, ifp->hw_addr, z.hw_addr_len);
    }
    return z;
}

zapi_address zapi_from(const interface *ifp, const connected *c) {
    zapi_address z;
    z.ifindex = ifp->ifindex;
    z.flags = c->flags;
    z.address = *c->address;
    if (c->destination) {
        z.destination = *c->destination;
    }
    return z;
}

// ---- rtnetlink ---------------------------------------------------------------

int zclient_netlink_read(thread *t);
int zclient_connect(thread *t);
int zclient_retry(thread *t);

std::uint32_t next_seq(zclient_netlink &nl) {
    if (++nl.seq == 0) {
        nl.seq = 1;
    }
    return nl.seq;
}

void nl_close(zclient *zc) {
    zclient_netlink &nl = *zc->nl;
    thread_cancel(nl.t_read);
    nl.t_read = nullptr;
    nl.sock.reset();
    nl.inflight_seq = 0;
    nl.pending.clear();
}

bool nl_open(zclient *zc) {
    zclient_netlink &nl = *zc->nl;
    mnl_socket_ptr sock(mnl_socket_open2(NETLINK_ROUTE, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!sock) {
        zlog_warn("Can't open rtnetlink socket: %s", std::strerror(errno));
        return false;
    }
    int fd = mnl_socket_get_fd(sock.get());
    // Bursts (a dump, many addresses at once) must fit while we are busy.
    int size = zc->rcvbuf;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) < 0) {
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    }
    if (mnl_socket_bind(sock.get(), 0, MNL_SOCKET_AUTOPID) < 0) {
        zlog_warn("Can't bind rtnetlink socket: %s", std::strerror(errno));
        return false;
    }
    for (int group : {RTNLGRP_LINK, RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV6_IFADDR}) {
        if (mnl_socket_setsockopt(sock.get(), NETLINK_ADD_MEMBERSHIP, &group, sizeof group) < 0) {
            zlog_warn("Can't join rtnetlink group %d: %s", group, std::strerror(errno));
            return false;
        }
    }
    nl.sock = std::move(sock);
    nl.inflight_seq = 0;
    nl.pending.clear();
    nl.buf.assign(
        std::max<std::size_t>(static_cast<std::size_t>(MNL_SOCKET_BUFFER_SIZE), NL_RECV_MIN), 0);
    nl.t_read = thread_add_read(zc->master, zclient_netlink_read, zc, fd);
    return true;
}

void queue_full_dump(zclient_netlink &nl, bool sweep) {
    for (dump_kind k : {dump_kind::link, dump_kind::addr4, dump_kind::addr6}) {
        nl.pending.push_back(k);
    }
    if (sweep) {
        nl.resync = true;
        nl.dump_failed = false;
        nl.seen_links.clear();
        nl.seen_addrs.clear();
    }
}

void nl_next_dump(zclient *zc) {
    zclient_netlink &nl = *zc->nl;
    if (!nl.sock || nl.inflight_seq != 0 || nl.pending.empty()) {
        return;
    }
    dump_kind kind = nl.pending.front();
    alignas(nlmsghdr) std::array<std::uint8_t, 128> req{};
    nlmsghdr *nlh = mnl_nlmsg_put_header(req.data());
    nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    nlh->nlmsg_seq = next_seq(nl);
    if (kind == dump_kind::link) {
        nlh->nlmsg_type = RTM_GETLINK;
        auto *ifi = static_cast<ifinfomsg *>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
        ifi->ifi_family = AF_UNSPEC;
        // Counters are of no use here and triple the size of the dump.
        mnl_attr_put_u32(nlh, IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS);
    } else {
        nlh->nlmsg_type = RTM_GETADDR;
        auto *ifa = static_cast<ifaddrmsg *>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifaddrmsg)));
        ifa->ifa_family = kind == dump_kind::addr4 ? AF_INET : AF_INET6;
    }
    if (mnl_socket_sendto(nl.sock.get(), nlh, nlh->nlmsg_len) < 0) {
        zlog_warn("Can't ask the kernel for interfaces: %s", std::strerror(errno));
        if (nl.t_retry == nullptr) {
            nl.t_retry = thread_add_timer(zc->master, zclient_retry, zc, 1);
        }
        return;
    }
    nl.pending.pop_front();
    nl.inflight_seq = nlh->nlmsg_seq;
}

// Reports what a resynchronising dump no longer shows: addresses first, then
// the interfaces, in the order the kernel itself would have.
void nl_sweep(zclient *zc) {
    zclient_netlink &nl = *zc->nl;
    std::vector<std::string> names;
    for (interface *ifp : vrf_iflist(VRF_DEFAULT)) {
        names.emplace_back(ifp->name);
    }
    for (const std::string &name : names) {
        interface *ifp = if_lookup_by_name(name.c_str());
        if (ifp == nullptr || ifp->ifindex == IFINDEX_INTERNAL) {
            continue;
        }
        bool gone = nl.seen_links.count(ifp->ifindex) == 0;
        std::vector<zapi_address> lost;
        for (const auto &c : ifp->connected) {
            if (c && c->address &&
                (gone || nl.seen_addrs.count(make_key(ifp->ifindex, *c->address)) == 0)) {
                lost.push_back(zapi_from(ifp, c.get()));
            }
        }
        for (const zapi_address &a : lost) {
            emit_address(zc, ZEBRA_INTERFACE_ADDRESS_DELETE, a);
        }
        ifp = if_lookup_by_name(name.c_str());
        if (gone && ifp != nullptr && ifp->ifindex != IFINDEX_INTERNAL) {
            zapi_interface z = zapi_from(ifp);
            z.flags &= ~static_cast<std::uint64_t>(IFF_UP | IFF_RUNNING);
            emit_interface(zc, ZEBRA_INTERFACE_DELETE, z);
        }
    }
}

void nl_dump_done(zclient *zc) {
    zclient_netlink &nl = *zc->nl;
    nl.inflight_seq = 0;
    if (nl.pending.empty()) {
        if (nl.redo) {
            nl.redo = false;
            queue_full_dump(nl, true);
        } else if (nl.resync) {
            nl.resync = false;
            if (!nl.dump_failed) {
                nl_sweep(zc);
            }
        }
    }
    nl_next_dump(zc);
}

void nl_resync(zclient *zc) {
    nl_close(zc);
    if (!nl_open(zc)) {
        if (zc->nl->t_retry == nullptr) {
            zc->nl->t_retry =
                thread_add_timer(zc->master, zclient_retry, zc, ZCLIENT_RETRY_SECONDS);
        }
        return;
    }
    queue_full_dump(*zc->nl, true);
    nl_next_dump(zc);
}

int zclient_retry(thread *t) {
    auto *zc = static_cast<zclient *>(THREAD_ARG(t));
    zc->nl->t_retry = nullptr;
    if (!zc->nl->sock) {
        nl_resync(zc);
    } else {
        nl_next_dump(zc);
    }
    return 0;
}

struct link_attrs {
    const char *name = nullptr;
    unsigned int mtu = 0;
    const std::uint8_t *hw_addr = nullptr;
    std::size_t hw_addr_len = 0;
};

int link_attr_cb(const nlattr *attr, void *data) {
    auto *a = static_cast<link_attrs *>(data);
    switch (mnl_attr_get_type(attr)) {
        case IFLA_IFNAME: {
            if (mnl_attr_validate(attr, MNL_TYPE_NUL_STRING) < 0) {
                return MNL_CB_ERROR;
            }
            const char *name = mnl_attr_get_str(attr);
            std::size_t len = strnlen(name, mnl_attr_get_payload_len(attr));
            if (len == 0 || len > INTERFACE_NAMSIZ) {
                return MNL_CB_ERROR;
            }
            a->name = name;
            break;
        }
        case IFLA_MTU:
            if (mnl_attr_validate(attr, MNL_TYPE_U32) < 0) {
                return MNL_CB_ERROR;
            }
            a->mtu = mnl_attr_get_u32(attr);
            break;
        case IFLA_ADDRESS: {
            std::size_t len = mnl_attr_get_payload_len(attr);
            if (len <= ZEBRA_HW_ADDR_MAX) {
                a->hw_addr = static_cast<const std::uint8_t *>(mnl_attr_get_payload(attr));
                a->hw_addr_len = len;
            }
            break;
        }
        default:
            break;
    }
    return MNL_CB_OK;
}

void nl_link(zclient *zc, const nlmsghdr *nlh) {
    if (mnl_nlmsg_get_payload_len(nlh) < sizeof(ifinfomsg)) {
        return;
    }
    ifinfomsg ifi;
    std::memcpy(&ifi, mnl_nlmsg_get_payload(nlh), sizeof ifi);
    // Bridge-port notifications (AF_BRIDGE) come on the same group.
    if (ifi.ifi_family != AF_UNSPEC || ifi.ifi_index <= 0) {
        return;
    }
    link_attrs a;
    if (mnl_attr_parse(nlh, sizeof(ifinfomsg), link_attr_cb, &a) != MNL_CB_OK) {
        return;
    }
    zapi_interface z;
    z.ifindex = ifi.ifi_index;
    z.flags = ifi.ifi_flags;
    z.mtu = a.mtu;
    if (a.hw_addr != nullptr) {
        z.hw_addr_len = a.hw_addr_len;
        std::memcpy(z.hw_addr, a.hw_addr, a.hw_addr_len);
    }
    interface *known = if_lookup_by_index(ifi.ifi_index);

    if (nlh->nlmsg_type == RTM_DELLINK) {
        if (known != nullptr) {
            // Addresses the kernel did not withdraw first go before their
            // interface, so none is left behind on a deleted one.
            std::vector<zapi_address> left;
            for (const auto &c : known->connected) {
                if (c && c->address) {
                    left.push_back(zapi_from(known, c.get()));
                }
            }
            for (const zapi_address &gone : left) {
                emit_address(zc, ZEBRA_INTERFACE_ADDRESS_DELETE, gone);
            }
            known = if_lookup_by_index(ifi.ifi_index);
            if (known != nullptr) {
                std::memcpy(z.name, known->name, sizeof z.name);
                emit_interface(zc, ZEBRA_INTERFACE_DELETE, z);
            }
        }
        return;
    }
    if (a.name == nullptr) {
        return;
    }
    std::memcpy(z.name, a.name, strnlen(a.name, INTERFACE_NAMSIZ));
    zclient_netlink &nl = *zc->nl;
    if (nl.resync) {
        nl.seen_links.insert(ifi.ifi_index);
    }
    if (known != nullptr && std::strcmp(known->name, z.name) != 0) {
        // Renamed: the old name goes away, the new one arrives.
        zapi_interface old = z;
        std::memcpy(old.name, known->name, sizeof old.name);
        emit_interface(zc, ZEBRA_INTERFACE_DELETE, old);
        known = nullptr;
    }
    if (known == nullptr) {
        emit_interface(zc, ZEBRA_INTERFACE_ADD, z);
        return;
    }
    bool was_up = (known->flags & IFF_UP) != 0;
    bool now_up = (z.flags & IFF_UP) != 0;
    if (now_up && !was_up) {
        emit_interface(zc, ZEBRA_INTERFACE_UP, z);
    } else if (!now_up && was_up) {
        emit_interface(zc, ZEBRA_INTERFACE_DOWN, z);
    } else {
        apply_silently(zc, z);
    }
}

struct addr_attrs {
    std::size_t want = 0;  // address length of the family
    const void *address = nullptr;
    const void *local = nullptr;
};

int addr_attr_cb(const nlattr *attr, void *data) {
    auto *a = static_cast<addr_attrs *>(data);
    std::uint16_t type = mnl_attr_get_type(attr);
    if (type != IFA_ADDRESS && type != IFA_LOCAL) {
        return MNL_CB_OK;
    }
    if (mnl_attr_get_payload_len(attr) != a->want) {
        return MNL_CB_ERROR;
    }
    (type == IFA_ADDRESS ? a->address : a->local) = mnl_attr_get_payload(attr);
    return MNL_CB_OK;
}

bool same_entry(const connected *c, const zapi_address &z) {
    if (c->flags != z.flags) {
        return false;
    }
    if ((z.flags & ZEBRA_IFA_PEER) == 0) {
        return true;
    }
    return c->destination && prefix_same(c->destination.get(), &z.destination);
}

void nl_addr(zclient *zc, const nlmsghdr *nlh) {
    if (mnl_nlmsg_get_payload_len(nlh) < sizeof(ifaddrmsg)) {
        return;
    }
    ifaddrmsg ifa;
    std::memcpy(&ifa, mnl_nlmsg_get_payload(nlh), sizeof ifa);
    std::size_t bytes = addr_bytes(ifa.ifa_family);
    if (bytes == 0 || ifa.ifa_prefixlen > bytes * 8 || ifa.ifa_index == 0 ||
        ifa.ifa_index > static_cast<unsigned>(INT_MAX)) {
        return;
    }
    addr_attrs a;
    a.want = bytes;
    if (mnl_attr_parse(nlh, sizeof(ifaddrmsg), addr_attr_cb, &a) != MNL_CB_OK) {
        return;
    }
    const void *own = a.local != nullptr ? a.local : a.address;
    if (own == nullptr) {
        return;
    }
    zapi_address z;
    z.ifindex = static_cast<ifindex_t>(ifa.ifa_index);
    z.address.family = ifa.ifa_family;
    z.address.prefixlen = ifa.ifa_prefixlen;
    std::memcpy(z.address.u.val, own, bytes);
    if (a.local != nullptr && a.address != nullptr && std::memcmp(a.local, a.address, bytes) != 0) {
        z.flags |= ZEBRA_IFA_PEER;
        z.destination.family = ifa.ifa_family;
        z.destination.prefixlen = ifa.ifa_prefixlen;
        std::memcpy(z.destination.u.val, a.address, bytes);
    }
    if (ifa.ifa_flags & IFA_F_SECONDARY) {
        z.flags |= ZEBRA_IFA_SECONDARY;
    }

    if (nlh->nlmsg_type == RTM_DELADDR) {
        emit_address(zc, ZEBRA_INTERFACE_ADDRESS_DELETE, z);
        return;
    }
    zclient_netlink &nl = *zc->nl;
    if (nl.resync) {
        nl.seen_addrs.insert(make_key(z.ifindex, z.address));
    }
    if (interface *ifp = if_lookup_by_index(z.ifindex)) {
        for (const auto &c : ifp->connected) {
            if (c && prefix_same(c->address.get(), &z.address)) {
                if (same_entry(c.get(), z)) {
                    return;  // a refresh (lifetimes, flags) of what we have
                }
                emit_address(zc, ZEBRA_INTERFACE_ADDRESS_DELETE, zapi_from(ifp, c.get()));
                break;
            }
        }
    }
    emit_address(zc, ZEBRA_INTERFACE_ADDRESS_ADD, z);
}

void nl_message(zclient *zc, const nlmsghdr *nlh) {
    zclient_netlink &nl = *zc->nl;
    bool ours = nl.inflight_seq != 0 && nlh->nlmsg_seq == nl.inflight_seq;
    if (ours && (nlh->nlmsg_flags & NLM_F_DUMP_INTR)) {
        nl.redo = true;
    }
    switch (nlh->nlmsg_type) {
        case NLMSG_DONE:
            if (ours) {
                nl_dump_done(zc);
            }
            break;
        case NLMSG_ERROR: {
            if (mnl_nlmsg_get_payload_len(nlh) < sizeof(nlmsgerr)) {
                break;
            }
            nlmsgerr err;
            std::memcpy(&err, mnl_nlmsg_get_payload(nlh), sizeof err);
            if (ours && err.error != 0) {
                zlog_warn("Kernel refused the interface dump: %s", std::strerror(-err.error));
                nl.dump_failed = true;
                nl_dump_done(zc);
            }
            break;
        }
        case NLMSG_OVERRUN:
            if (nl.sock) {
                zlog_warn("rtnetlink overrun, dumping interfaces again");
                nl_resync(zc);
            }
            break;
        case RTM_NEWLINK:
        case RTM_DELLINK:
            nl_link(zc, nlh);
            break;
        case RTM_NEWADDR:
        case RTM_DELADDR:
            nl_addr(zc, nlh);
            break;
        default:
            break;
    }
}

int zclient_netlink_read(thread *t) {
    auto *zc = static_cast<zclient *>(THREAD_ARG(t));
    zclient_netlink &nl = *zc->nl;
    nl.t_read = nullptr;
    const int fd = THREAD_FD(t);
    for (int i = 0; i < NL_READS_PER_WAKEUP; ++i) {
        if (!nl.sock || mnl_socket_get_fd(nl.sock.get()) != fd) {
            return 0;  // closed or reopened meanwhile; the new socket is armed
        }
        sockaddr_nl from{};
        iovec iov{nl.buf.data(), nl.buf.size()};
        msghdr msg{};
        msg.msg_name = &from;
        msg.msg_namelen = sizeof from;
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        ssize_t n = recvmsg(fd, &msg, MSG_DONTWAIT);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                break;
            }
            if (errno == ENOBUFS) {
                zlog_warn("rtnetlink receive buffer overrun (%s), dumping interfaces again",
                          std::strerror(errno));
            } else {
                zlog_warn("rtnetlink receive failed (%s), dumping interfaces again",
                          std::strerror(errno));
            }
            nl_resync(zc);
            return 0;
        }
        if (msg.msg_flags & MSG_TRUNC) {
            zlog_warn("rtnetlink message truncated, dumping interfaces again");
            nl_resync(zc);
            return 0;
        }
        if (from.nl_pid != 0) {
            continue;  // only the kernel speaks on this socket
        }
        zclient_netlink_input(
            zc, std::span<const std::uint8_t>(nl.buf.data(), static_cast<std::size_t>(n)));
    }
    if (nl.sock && nl.t_read == nullptr) {
        nl.t_read =
            thread_add_read(zc->master, zclient_netlink_read, zc, mnl_socket_get_fd(nl.sock.get()));
    }
    return 0;
}

int zclient_connect(thread *t) {
    auto *zc = static_cast<zclient *>(THREAD_ARG(t));
    zc->t_connect = nullptr;
    if (!zc->enable) {
        return 0;
    }
    if (!zc->nl->sock && !nl_open(zc)) {
        ++zc->fail;
        zc->t_connect = thread_add_timer(zc->master, zclient_connect, zc, ZCLIENT_RETRY_SECONDS);
        return -1;
    }
    zc->fail = 0;
    if (zc->zebra_connected != nullptr) {
        zc->zebra_connected(zc);
    }
    return 0;
}

}  // namespace

// ---- public ------------------------------------------------------------------

zclient *zclient_new(thread_master *master) {
    auto zc = std::make_unique<zclient>();
    zc->master = master;
    zc->ibuf = stream_new(ZEBRA_MAX_PACKET_SIZ);
    zc->obuf = stream_new(ZEBRA_MAX_PACKET_SIZ);
    zc->nl = std::make_unique<zclient_netlink>();
    return zc.release();
}

void zclient_free(zclient *zc) {
    if (zc == nullptr) {
        return;
    }
    zclient_stop(zc);
    std::unique_ptr<zclient> doomed(zc);
}

void zclient_init(zclient *zc, int redist_default) {
    if (zc == nullptr) {
        return;
    }
    zc->enable = 1;
    zc->redist_default = redist_default;
    if (zc->t_connect == nullptr) {
        zc->t_connect = thread_add_event(zc->master, zclient_connect, zc, 0);
    }
}

void zclient_stop(zclient *zc) {
    if (zc == nullptr) {
        return;
    }
    zc->enable = 0;
    thread_cancel(zc->t_connect);
    zc->t_connect = nullptr;
    thread_cancel(zc->nl->t_retry);
    zc->nl->t_retry = nullptr;
    nl_close(zc);
}

int zclient_connected(const zclient *zc) {
    return (zc != nullptr && zc->nl->sock) ? 1 : 0;
}

int zclient_send_requests(zclient *zc, vrf_id_t vrf_id) {
    if (zc == nullptr || !zc->nl->sock) {
        return -1;
    }
    if (vrf_id != VRF_DEFAULT) {
        return 0;  // the kernel's tables are the default VRF's
    }
    queue_full_dump(*zc->nl, false);
    nl_next_dump(zc);
    return 0;
}

int zclient_netlink_input(zclient *zc, std::span<const std::uint8_t> datagram) {
    if (zc == nullptr || datagram.empty()) {
        return 0;
    }
    // The walkers read headers in place, which needs netlink alignment.
    std::vector<std::uint8_t> copy;
    const std::uint8_t *data = datagram.data();
    if (reinterpret_cast<std::uintptr_t>(data) % alignof(nlmsghdr) != 0) {
        copy.assign(datagram.begin(), datagram.end());
        data = copy.data();
    }
    int len = static_cast<int>(std::min<std::size_t>(datagram.size(), INT_MAX));
    const auto *nlh = reinterpret_cast<const nlmsghdr *>(data);
    int count = 0;
    while (nlmsg_fits(nlh, len)) {
        ++count;
        nl_message(zc, nlh);
        nlh = mnl_nlmsg_next(nlh, &len);
    }
    return count;
}

int zclient_deliver(zclient *zc, std::span<const std::uint8_t> message) {
    if (zc == nullptr || !zc->ibuf) {
        return -1;
    }
    stream *s = zc->ibuf.get();
    if (!stream_assign(s, message)) {
        return -1;
    }
    std::uint16_t command = 0;
    vrf_id_t vrf_id = 0;
    if (!read_header(s, message.size(), &command, &vrf_id)) {
        return -1;
    }
    auto length = static_cast<std::uint16_t>(message.size() - ZEBRA_HEADER_SIZE);
    int ret = 0;
    if (zclient_callback cb = callback_for(zc, command)) {
        ret = cb(command, zc, length, vrf_id);
    } else {
        // Nobody listens: keep the table current all the same.
        switch (command) {
            case ZEBRA_INTERFACE_ADD:
                zebra_interface_add_read(s, vrf_id);
                break;
            case ZEBRA_INTERFACE_DELETE: {
                if (interface *ifp = zebra_interface_state_read(s, vrf_id)) {
                    ifp->ifindex = IFINDEX_INTERNAL;
                }
                break;
            }
            case ZEBRA_INTERFACE_UP:
            case ZEBRA_INTERFACE_DOWN:
                zebra_interface_state_read(s, vrf_id);
                break;
            case ZEBRA_INTERFACE_ADDRESS_ADD:
            case ZEBRA_INTERFACE_ADDRESS_DELETE:
                zebra_interface_address_read(command, s, vrf_id);
                break;
            default:
                break;
        }
    }
    zclient_release_detached();
    return ret;
}

std::size_t zapi_interface_encode(stream *s, std::uint16_t command, vrf_id_t vrf_id,
                                  const zapi_interface &ifc) {
    if (s == nullptr) {
        return 0;
    }
    begin_message(s, command, vrf_id);
    char name[INTERFACE_NAMSIZ] = {};
    std::memcpy(name, ifc.name, strnlen(ifc.name, INTERFACE_NAMSIZ));
    stream_put(s, name, sizeof name);
    stream_putl(s, static_cast<std::uint32_t>(ifc.ifindex));
    stream_putc(s, 0);
    stream_putq(s, ifc.flags);
    stream_putl(s, static_cast<std::uint32_t>(ifc.metric));
    stream_putl(s, ifc.mtu);
    std::size_t hw_len = std::min(ifc.hw_addr_len, ZEBRA_HW_ADDR_MAX);
    stream_putl(s, static_cast<std::uint32_t>(hw_len));
    stream_put(s, ifc.hw_addr, hw_len);
    return finish_message(s);
}

std::size_t zapi_address_encode(stream *s, std::uint16_t command, vrf_id_t vrf_id,
                                const zapi_address &addr) {
    std::size_t bytes = addr_bytes(addr.address.family);
    if (s == nullptr || bytes == 0) {
        return 0;
    }
    begin_message(s, command, vrf_id);
    stream_putl(s, static_cast<std::uint32_t>(addr.ifindex));
    stream_putc(s, addr.flags);
    stream_putc(s, addr.address.family);
    stream_put(s, addr.address.u.val, bytes);
    stream_putc(s, addr.address.prefixlen);
    std::uint8_t dest[16] = {};
    if ((addr.flags & ZEBRA_IFA_PEER) && addr.destination.family == addr.address.family) {
        std::memcpy(dest, addr.destination.u.val, bytes);
    }
    stream_put(s, dest, bytes);
    return finish_message(s);
}

interface *zebra_interface_add_read(stream *s, vrf_id_t) {
    interface_body b;
    if (s == nullptr || !read_interface_body(s, b)) {
        return nullptr;
    }
    interface *ifp = if_lookup_by_name(b.name);
    if (ifp == nullptr) {
        ifp = if_create(b.name, std::strlen(b.name));
        if (ifp == nullptr) {
            return nullptr;
        }
    }
    // An index belongs to one interface: a stale holder (deleted and
    // recreated under another name) lets go of it.
    if (b.ifindex != IFINDEX_INTERNAL) {
        interface *other = if_lookup_by_index(b.ifindex);
        if (other != nullptr && other != ifp) {
            other->ifindex = IFINDEX_INTERNAL;
        }
    }
    ifp->ifindex = b.ifindex;
    apply_interface_body(ifp, b);
    return ifp;
}

interface *zebra_interface_state_read(stream *s, vrf_id_t) {
    interface_body b;
    if (s == nullptr || !read_interface_body(s, b)) {
        return nullptr;
    }
    interface *ifp = if_lookup_by_name(b.name);
    if (ifp == nullptr) {
        return nullptr;
    }
    apply_interface_body(ifp, b);
    return ifp;
}

connected *zebra_interface_address_read(int command, stream *s, vrf_id_t) {
    zclient_release_detached();
    if (s == nullptr) {
        return nullptr;
    }
    auto ifindex = static_cast<ifindex_t>(stream_getl(s));
    std::uint8_t flags = stream_getc(s);
    prefix p{};
    p.family = stream_getc(s);
    std::size_t bytes = addr_bytes(p.family);
    if (bytes == 0) {
        return nullptr;
    }
    stream_get(p.u.val, s, bytes);
    p.prefixlen = stream_getc(s);
    prefix d{};
    d.family = p.family;
    d.prefixlen = p.prefixlen;
    stream_get(d.u.val, s, bytes);
    if (stream_failed(s) || p.prefixlen > bytes * 8) {
        return nullptr;
    }
    interface *ifp = if_lookup_by_index(ifindex);
    if (ifp == nullptr) {
        return nullptr;
    }
    if (command == ZEBRA_INTERFACE_ADDRESS_ADD) {
        bool has_dest =
            std::any_of(d.u.val, d.u.val + bytes, [](std::uint8_t b) { return b != 0; });
        return connected_add(ifp, flags, &p, has_dest ? &d : nullptr);
    }
    if (command != ZEBRA_INTERFACE_ADDRESS_DELETE) {
        return nullptr;
    }
    auto &list = ifp->connected;
    auto it = std::find_if(list.begin(), list.end(), [&](const std::unique_ptr<connected> &c) {
        return c && prefix_same(c->address.get(), &p);
    });
    if (it == list.end()) {
        return nullptr;
    }
    detached() = std::move(*it);
    list.erase(it);
    return detached().get();
}

void zclient_release_detached() {
    detached().reset();
}
