// The DHCP relay: state, records, transactions, forwarding and the
// trapped-frame channel.
#include "dhcp/dhcpr.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <unordered_map>
#include <vector>

#include "dhcp/dhcp_options.h"
#include "dhcp/dhcp_packet.h"
#include "dhcp/dhcp_socket.h"
#include "dhcp/dhcp_zebra.h"
#include "dhcp/dhcpr_stats.h"
#include "lib/if.h"
#include "lib/log.h"
#include "lib/prefix.h"
#include "lib/thread.h"
#include "platform/dhcpsnoop.h"
#include "platform/hal.h"
#include "platform/trap.h"
#include "platform/uif.h"
#include "platform/util.h"
#include "platform/vemix.h"

dhcpr_global_state dhcpr_state;

namespace {

#define NODE_DATA_TEXT "(node)->data != ((void *)0)"
#define ADDRNODE_DATA_TEXT "(addrnode)->data != ((void *)0)"
// A list entry without its record is a fault of ours: stop, naming the walk.
#define DHCPR_ASSERT_DATA(cond, text) \
    ((cond) ? (void)0 : _zlog_assert_failed(text, __FILE__, __LINE__, __func__))

constexpr std::size_t ETH_HLEN_UNTAGGED = 14;
constexpr std::size_t VLAN_TAG_LEN = 4;
constexpr std::size_t IPV4_MIN_HLEN = 20;
constexpr std::size_t UDP_HLEN = 8;
constexpr std::uint8_t IPPROTO_UDP_NUM = 17;
constexpr std::uint16_t ETH_P_8021Q_NUM = 0x8100;
constexpr std::uint32_t PORT_MASK = 0xff;  // ids and MACs take the port modulo 256
constexpr std::size_t TRAP_HDR_LEN = sizeof(hal_trap_hdr);

// The uif index of a switch port number; 0 (no port) for port 0 and for
// numbers that do not fit an index, so that no lookup is made for them.
std::uint32_t port_index(std::uint32_t number) {
    return (number == 0 || number >= UIF_INDEX_BASE) ? 0 : (UIF_INDEX_BASE | number);
}

thread_master *relay_master = nullptr;
thread *trap_tick = nullptr;  // the trapped frames' tick, while armed

// ---- seams ----

ssize_t send_udp(int sock, std::span<const std::uint8_t> datagram, const sockaddr_in &to) {
    return ::sendto(sock, datagram.data(), datagram.size(), 0,
                    reinterpret_cast<const sockaddr *>(&to), sizeof to);
}

// A reply goes to the client as long as it came from the server.
int send_raw(const dhcp_packet &packet, std::uint32_t src_ip, std::uint16_t src_port,
             std::uint32_t dst_ip, std::uint16_t dst_port, const std::uint8_t *dst_mac, int ifindex,
             int size) {
    return dhcp_send_raw_packet(packet, src_ip, src_port, dst_ip, dst_port, dst_mac, ifindex,
                                static_cast<std::size_t>(size));
}

std::uint32_t monotonic_sec() {
    return static_cast<std::uint32_t>(monotonic_ms() / 1000);
}

dhcpr_server_send_fn server_sender = send_udp;
dhcpr_client_send_fn client_sender = send_raw;
std::uint32_t (*relay_clock)() = monotonic_sec;

// ---- the transaction table ----

// Items live in slots of a deque (their addresses stay put) linked into one
// newest-first list and, per xid, into a newest-first chain whose head an
// index finds. Two departures from the plain list, both to keep the daemon
// bounded under floods of unanswered requests: at most DHCPR_ITEM_MAX items
// are kept (at the cap the oldest is dropped, with one log line per
// episode), and a lookup by xid does not walk the list. The answers are
// the list's: the newest item with the xid first.
class item_table {
  public:
    static constexpr std::uint32_t NIL = 0xffffffffu;

    dhcpr_item *add(const dhcpr_item &fields) {
        if (count_ >= DHCPR_ITEM_MAX) {
            evict_oldest();
        }
        const std::uint32_t s = take_slot();
        dhcpr_item &it = slots_[s];
        it = fields;
        it.prev = NIL;
        it.next = head_;
        it.prev_same = NIL;
        it.next_same = NIL;
        if (head_ != NIL) {
            slots_[head_].prev = s;
        } else {
            tail_ = s;
        }
        head_ = s;
        auto [pos, fresh] = newest_.try_emplace(it.xid, s);
        if (!fresh) {
            it.next_same = pos->second;
            slots_[pos->second].prev_same = s;
            pos->second = s;
        }
        ++count_;
        return &it;
    }

    dhcpr_item *find(std::uint32_t xid) {
        auto pos = newest_.find(xid);
        return pos == newest_.end() ? nullptr : &slots_[pos->second];
    }

    void erase_xid(std::uint32_t xid) {
        auto pos = newest_.find(xid);
        if (pos == newest_.end()) {
            return;
        }
        std::uint32_t s = pos->second;
        while (s != NIL) {
            const std::uint32_t older = slots_[s].next_same;
            unlink(s);
            s = older;
        }
    }

    template <class Pred>
    void erase_if(Pred pred) {
        for (std::uint32_t s = head_; s != NIL;) {
            const std::uint32_t next = slots_[s].next;
            if (pred(slots_[s])) {
                unlink(s);
            }
            s = next;
        }
    }

    dhcpr_item *first() { return head_ == NIL ? nullptr : &slots_[head_]; }
    dhcpr_item *next(const dhcpr_item *it) {
        return (it == nullptr || it->next == NIL) ? nullptr : &slots_[it->next];
    }
    std::size_t size() const { return count_; }

    void clear() {
        std::deque<dhcpr_item>().swap(slots_);
        std::vector<std::uint32_t>().swap(free_);
        std::unordered_map<std::uint32_t, std::uint32_t>().swap(newest_);
        head_ = tail_ = NIL;
        count_ = 0;
        full_logged_ = false;
    }

  private:
    std::uint32_t take_slot() {
        if (!free_.empty()) {
            const std::uint32_t s = free_.back();
            free_.pop_back();
            return s;
        }
        slots_.emplace_back();
        return static_cast<std::uint32_t>(slots_.size() - 1);
    }

    void evict_oldest() {
        if (!full_logged_) {
            zlog_warn("dhcp-relay transaction list full (%zu items), dropping the oldest",
                      DHCPR_ITEM_MAX);
            full_logged_ = true;
        }
        unlink(tail_);
    }

    void unlink(std::uint32_t s) {
        dhcpr_item &it = slots_[s];
        (it.prev != NIL ? slots_[it.prev].next : head_) = it.next;
        (it.next != NIL ? slots_[it.next].prev : tail_) = it.prev;
        if (it.next_same != NIL) {
            slots_[it.next_same].prev_same = it.prev_same;
        }
        if (it.prev_same != NIL) {
            slots_[it.prev_same].next_same = it.next_same;
        } else if (it.next_same != NIL) {
            newest_[it.xid] = it.next_same;
        } else {
            newest_.erase(it.xid);
        }
        it = dhcpr_item{};
        free_.push_back(s);
        --count_;
        // A new episode of saturation is logged again once the list has
        // drained to half.
        if (count_ < DHCPR_ITEM_MAX / 2) {
            full_logged_ = false;
        }
    }

    std::deque<dhcpr_item> slots_;
    std::vector<std::uint32_t> free_;
    std::unordered_map<std::uint32_t, std::uint32_t> newest_;
    std::uint32_t head_ = NIL;
    std::uint32_t tail_ = NIL;
    std::size_t count_ = 0;
    bool full_logged_ = false;
};

item_table &items() {
    static item_table t;
    return t;
}

// The relay owns its bindings; an interface's slot only points at one. So
// they go with the process, whatever happens to the interface table.
std::vector<std::unique_ptr<dhcpr_if_info>> &bindings() {
    static std::vector<std::unique_ptr<dhcpr_if_info>> all;
    return all;
}

// ---- small helpers ----

ipv4_text_buf ntoa(std::uint32_t nip) {
    return ipv4_text(nip);
}

// Whether `ifp` is still in the interface table. Compares handles only, so
// it is safe for an interface that was deleted since it was remembered.
bool interface_alive(const interface *ifp) {
    return if_exists(ifp);
}

std::uint32_t clip_id_len(std::uint32_t len) {
    return std::min<std::uint32_t>(len, DHCPR_ID_SIZE - 1);
}

void record_defaults(dhcpr_if &r, interface *ifp, const sockunion &server) {
    r = dhcpr_if{};
    r.enable = 1;
    r.ifp = ifp;
    r.server.sin.sin_family = AF_INET;
    r.server.sin.sin_port = htons(DHCP_SERVER_PORT);
    r.server.sin.sin_addr = server.sin.sin_addr;
    r.opt82_enable = 0;
    r.opt82_strategy = DHCPR_OPT82_REPLACE;
    r.circuit_id_mode = DHCPR_SUBMODE_NORMAL;
    r.remote_id_mode = DHCPR_SUBMODE_NORMAL;
}

// Stores an id: normal mode clears it; string mode keeps at most 31
// characters and records the length of the whole text.
void set_id(std::uint32_t mode, const char *text, std::uint32_t &rec_mode,
            char (&field)[DHCPR_ID_SIZE], std::uint32_t &len) {
    rec_mode = mode;
    if (mode == DHCPR_SUBMODE_NORMAL || text == nullptr) {
        std::memset(field, 0, sizeof field);
        len = 0;
        return;
    }
    std::snprintf(field, sizeof field, "%s", text);
    len = static_cast<std::uint32_t>(std::strlen(text));
}

// ---- read tasks ----

void drain(int fd) {
    dhcp_packet packet{};
    int len = 0;
    std::uint32_t local = 0;
    if (dhcp_recvmsg(fd, &packet, &len, &local) != 0) {
        zlog_warn("dhcp_recvmsg fail!");
    }
}

void close_client_socket() {
    if (dhcpr_state.client_sock) {
        thread_cancel(dhcpr_state.client_read);
        dhcpr_state.client_read = nullptr;
        dhcpr_state.client_sock.reset();
    }
}

// The netlink task is stopped inside the server socket's branch: when that
// socket never opened, the task stays. Kept so.
void close_server_socket() {
    if (dhcpr_state.server_sock) {
        thread_cancel(dhcpr_state.server_read);
        dhcpr_state.server_read = nullptr;
        dhcpr_state.server_sock.reset();
        thread_cancel(dhcpr_state.netlink_read);
        dhcpr_state.netlink_read = nullptr;
        thread_cancel(trap_tick);
        trap_tick = nullptr;
        dhcpr_state.netlink_fd = 0;
    }
}

// Replies reach the relay through the trap: what arrives at the port-68
// socket would only be read and thrown away, so the kernel drops it there.
void refuse_datagrams(int fd) {
    const sock_fprog &none = trap_filter_none();
    (void)setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &none, sizeof none);
}

int relay_on() {
    dhcpr_state.client_sock = dhcp_port67_ref(dhcp_port67_role::drain);
    if (!dhcpr_state.client_sock) {
        zlog_err("dhcp-relay failed to init RecvClient socket");
        return -1;
    }
    const int client = dhcpr_state.client_sock.get();
    dhcpr_state.client_read = thread_add_read(relay_master, dhcpr_recv_client, nullptr, client);
    const int server = dhcp_listen_socket(INADDR_ANY, DHCP_CLIENT_PORT, nullptr);
    if (server < 0) {
        zlog_err("dhcp-relay failed to init RecvServer socket");
        return -1;
    }
    dhcpr_state.server_sock.reset(server);
    refuse_datagrams(server);
    dhcpr_state.server_read = thread_add_read(relay_master, dhcpr_recv_server, nullptr, server);
    dhcpr_state.netlink_fd = hal_netlink_async;
    // A channel the platform could not open gives no task (the scheduler
    // refuses a negative descriptor). The trapped frames' task stays armed
    // until the relay is turned off: it is the busy one.
    dhcpr_state.netlink_read =
        thread_add_read_repeat(relay_master, dhcpr_recv_netlink, nullptr, dhcpr_state.netlink_fd);
    return server;
}

// ---- option 82 ----

// The bytes of option 82 as the record says: code, total length, then the
// circuit-id and remote-id sub-options that are not empty.
std::vector<std::uint8_t> build_option82(const dhcpr_if &r, std::uint16_t vlan,
                                         std::uint32_t port) {
    char circuit[DHCPR_ID_SIZE] = {};
    std::size_t lc = 0;
    if (r.circuit_id_mode == DHCPR_SUBMODE_NORMAL) {
        const int n = std::snprintf(circuit, sizeof circuit, "%04d%02d", static_cast<int>(vlan),
                                    static_cast<int>(port & PORT_MASK));
        lc = static_cast<std::size_t>(std::clamp(n, 0, static_cast<int>(sizeof circuit) - 1));
    } else {
        std::memcpy(circuit, r.circuit_id, sizeof circuit);
        lc = clip_id_len(r.circuit_id_len);
    }
    char remote[DHCPR_ID_SIZE] = {};
    std::size_t lr = 0;
    if (r.remote_id_mode == DHCPR_SUBMODE_NORMAL) {
        std::uint8_t mac[6] = {};
        if (const std::uint32_t index = port_index(port & PORT_MASK); index != 0) {
            (void)uif_get_portmac(index, mac);
        }
        const int n = std::snprintf(remote, sizeof remote, "%02x-%02x-%02x-%02x-%02x-%02x", mac[0],
                                    mac[1], mac[2], mac[3], mac[4], mac[5]);
        lr = static_cast<std::size_t>(std::clamp(n, 0, static_cast<int>(sizeof remote) - 1));
    } else {
        std::memcpy(remote, r.remote_id, sizeof remote);
        lr = clip_id_len(r.remote_id_len);
    }
    const std::size_t total = (lc != 0 ? lc + 2 : 0) + (lr != 0 ? lr + 2 : 0);
    std::vector<std::uint8_t> opt{DHCP_RELAY_AGENT_INFO, static_cast<std::uint8_t>(total)};
    if (lc != 0) {
        opt.push_back(1);
        opt.push_back(static_cast<std::uint8_t>(lc));
        opt.insert(opt.end(), circuit, circuit + lc);
    }
    if (lr != 0) {
        opt.push_back(2);
        opt.push_back(static_cast<std::uint8_t>(lr));
        opt.insert(opt.end(), remote, remote + lr);
    }
    return opt;
}

// Step 5 of the request path. 0 to go on, -3 to drop.
int apply_option82(dhcp_packet &packet, int len, const dhcpr_if &r, std::uint16_t vlan,
                   std::uint32_t port) {
    if (dhcpr_if_opt82_enable_get(r.ifp) == 0) {
        return 0;
    }
    if (dhcp_get_option(&packet, DHCP_RELAY_AGENT_INFO) == nullptr) {
        dhcpr_option82_add(&packet, r.ifp, vlan, port);
        return 0;
    }
    switch (dhcpr_if_opt82_strategy_get(r.ifp)) {
        case DHCPR_OPT82_DROP:
            return -3;
        case DHCPR_OPT82_REPLACE:
            dhcpr_option82_remove(&packet, len);
            dhcpr_option82_add(&packet, r.ifp, vlan, port);
            return 0;
        default:
            return 0;
    }
}

// ---- reply path helpers ----

bool is_relayed_to_server(int type) {
    return type == DHCPDISCOVER || type == DHCPREQUEST || type == DHCPDECLINE ||
           type == DHCPRELEASE || type == DHCPINFORM;
}

bool is_delivered_to_client(int type) {
    return type == DHCPOFFER || type == DHCPACK || type == DHCPNAK;
}

// The mask of the client interface's address that equals `gateway_nip`;
// every entry is looked at and the last match wins. 0 without a match.
std::uint32_t gateway_mask(const interface *ifp, std::uint32_t gateway_nip) {
    std::uint32_t mask = 0;
    for (const auto &c : ifp->connected) {
        if (c == nullptr) {
            _zlog_assert_failed(ADDRNODE_DATA_TEXT, __FILE__, __LINE__, "dhcpr_pass_to_client");
        }
        const prefix *p = CONNECTED_PREFIX(c.get());
        if (p == nullptr || p->family == AF_INET6) {
            continue;
        }
        if (p->u.prefix4.s_addr == gateway_nip) {
            in_addr m{};
            masklen2ip(p->prefixlen, &m);
            mask = m.s_addr;
        }
    }
    return mask;
}

// The server identifier of a reply: 0 when the reply has none. An option
// shorter than four bytes gives the bytes it has.
bool server_identifier(dhcp_packet &packet, std::uint32_t &nip) {
    const std::uint8_t *v = dhcp_get_option(&packet, DHCP_SERVER_ID);
    if (v == nullptr) {
        return false;
    }
    nip = 0;
    std::memcpy(&nip, v, std::min<std::size_t>(v[-1], sizeof nip));
    return true;
}

// Steps 3 to 9 of the reply path for the item found; the caller deletes the
// items of the xid afterwards whatever happens here. `alive`: whether the
// item's client interface is still in the table.
dhcpr_outcome deliver_reply(dhcp_packet &packet, int len, const dhcpr_item &item, int type,
                            bool alive) {
    const dhcpr_if *r = dhcpr_get_if_relay(item.gateway_nip);
    if (r == nullptr) {
        zlog_warn("dhcpr_get_if_relay fail!");
        return dhcpr_outcome::no_relay_record;
    }
    if (r->enable != 1) {
        zlog_warn("This interface relay is not enabled!");
        return dhcpr_outcome::relay_not_enabled;
    }
    if (!is_delivered_to_client(type)) {
        return dhcpr_outcome::wrong_reply_type;
    }
    if ((item.flags & htons(DHCP_BROADCAST_FLAG)) != 0) {
        packet.flags = htons(DHCP_BROADCAST_FLAG);
    }
    std::uint32_t server_id = 0;
    if (!server_identifier(packet, server_id)) {
        return dhcpr_outcome::no_server_id;
    }
    // An interface deleted since the request counts as none.
    if (item.client_ifp == nullptr || !alive) {
        zlog_warn("item->client_ifp is NULL!");
        return dhcpr_outcome::no_client_interface;
    }
    const std::uint32_t mask = gateway_mask(item.client_ifp, item.gateway_nip);
    static constexpr std::uint8_t broadcast_mac[6] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    std::uint32_t dst = packet.ciaddr;
    const std::uint8_t *mac = packet.chaddr;
    if (((item.gateway_nip ^ packet.gateway_nip) & mask) != 0) {
        dst = packet.gateway_nip;
        mac = broadcast_mac;
    }
    client_sender(packet, server_id, DHCP_SERVER_PORT, dst, DHCP_CLIENT_PORT, mac,
                  item.client_ifp->ifindex,
                  len + static_cast<int>(sizeof(dhcp_ip_header) + sizeof(dhcp_udp_header)));
    return dhcpr_outcome::delivered;
}

// ---- trapped frames ----

// What a trapped frame carries for the relay.
struct udp_view {
    const std::uint8_t *payload;  // the DHCP payload
    long len;                     // its length (checked by the caller)
    std::uint16_t dport;          // 67 or 68
    std::uint32_t dst_nip;        // IPv4 destination, network order
};

std::uint16_t load_be16(const std::uint8_t *p) {
    return static_cast<std::uint16_t>(p[0] << 8 | p[1]);
}

// Payload length as the channel computes it, signed so that a frame too
// short for its headers shows as a negative length.
long payload_length(std::size_t frame_len, std::size_t ip_hlen) {
    return static_cast<long>(frame_len) - static_cast<long>(ETH_HLEN_UNTAGGED + ip_hlen + UDP_HLEN);
}

int bad_payload(long len) {
    zlog_err("%s: invalid payload length %ld", "dhcpr_netlink_msg", len);
    return -1;
}

// The untagged frame and its length: a tag counts 4 bytes off the length
// and is taken out of the frame. nullptr when the frame is too short.
std::uint8_t *untagged_frame(std::uint8_t *frame, std::size_t &len) {
    if (len < ETH_HLEN_UNTAGGED) {
        return nullptr;
    }
    if (load_be16(frame + 12) == ETH_P_8021Q_NUM) {
        if (len < ETH_HLEN_UNTAGGED + VLAN_TAG_LEN) {
            return nullptr;
        }
        len -= VLAN_TAG_LEN;
    }
    return vemix_remove_tag(frame);
}

// Finds the UDP payload of a frame for port 67 or 68. The IP version,
// checksums, UDP length and source port are not looked at. 0, or -1 after
// logging why the frame is not one for the relay (the refusal in *why).
int decode_frame(std::uint8_t *frame, std::size_t frame_len, udp_view &out, dhcpr_refusal *why) {
    std::size_t len = frame_len;
    const std::uint8_t *eth = untagged_frame(frame, len);
    *why = dhcpr_refusal::bad_length;
    if (eth == nullptr || len < ETH_HLEN_UNTAGGED + IPV4_MIN_HLEN) {
        return bad_payload(payload_length(len, IPV4_MIN_HLEN));
    }
    const std::uint8_t *ip = eth + ETH_HLEN_UNTAGGED;
    if (ip[9] != IPPROTO_UDP_NUM) {
        zlog_err("%s: invalid protocol %d", "dhcpr_netlink_msg", ip[9]);
        *why = dhcpr_refusal::not_udp;
        return -1;
    }
    const std::size_t ip_hlen = static_cast<std::size_t>(ip[0] & 0x0f) * 4;
    out.len = payload_length(len, ip_hlen);
    if (out.len < 0) {
        return bad_payload(out.len);
    }
    out.dport = load_be16(ip + ip_hlen + 2);
    if (out.dport != DHCP_CLIENT_PORT && out.dport != DHCP_SERVER_PORT) {
        zlog_err("%s: invalid dport %d", "dhcpr_netlink_msg", out.dport);
        *why = dhcpr_refusal::wrong_port;
        return -1;
    }
    out.payload = ip + ip_hlen + UDP_HLEN;
    std::memcpy(&out.dst_nip, ip + 16, sizeof out.dst_nip);
    return 0;
}

// Whether `nip` is one of the switch's own IPv4 addresses.
bool own_address(std::uint32_t nip) {
    in_addr addr{};
    addr.s_addr = nip;
    return if_lookup_exact_address(addr) != nullptr;
}

// A server's reply: every frame to port 68; with the server reply port at
// 67 also a BOOTREPLY to port 67 addressed to the switch itself.
bool is_server_reply(const udp_view &u, const dhcp_packet &packet) {
    if (u.dport == DHCP_CLIENT_PORT) {
        return true;
    }
    return dhcpr_state.server_reply_port == DHCPR_REPLY_PORT_RFC && packet.op == BOOTREPLY &&
           own_address(u.dst_nip);
}

}  // namespace

// ===========================================================================
// State, sockets and read tasks.

void dhcpr_init(thread_master *m) {
    relay_master = m;
    dhcpr_state.enable = 0;
    dhcpr_state.client_sock.reset();
    dhcpr_state.server_sock.reset();
    dhcpr_state.netlink_fd = 0;
    dhcpr_state.client_read = nullptr;
    dhcpr_state.server_read = nullptr;
    dhcpr_state.netlink_read = nullptr;
    trap_tick = nullptr;
    dhcpr_state.server_reply_port = DHCPR_REPLY_PORT_DEFAULT;
    dhcp_zebra_relay_teardown = dhcpr_if_teardown;
}

// Turning on opens both sockets and arms the three read tasks; a failed open
// leaves enable at 1 with what did open, so the next "on" is a no-op. Kept
// so. On returns the port-68 descriptor; off returns hal_dhcp_enable's
// result.
int dhcpr_enable_set(std::uint32_t on) {
    if (on == dhcpr_state.enable) {
        return 0;
    }
    dhcpr_state.enable = on;
    const int rc = hal_dhcp_enable(static_cast<int>(on));
    if (on != 0) {
        return relay_on();
    }
    close_client_socket();
    close_server_socket();
    return rc;
}

std::uint32_t dhcpr_enable_get() {
    return dhcpr_state.enable;
}

int dhcpr_reply_port_set(std::uint16_t port) {
    if (port != DHCPR_REPLY_PORT_DEFAULT && port != DHCPR_REPLY_PORT_RFC) {
        return -4;
    }
    dhcpr_state.server_reply_port = port;
    return 0;
}

std::uint16_t dhcpr_reply_port_get() {
    return dhcpr_state.server_reply_port;
}

int dhcpr_request_socket() {
    return dhcpr_state.server_reply_port == DHCPR_REPLY_PORT_RFC ? dhcpr_state.client_sock.get()
                                                                 : dhcpr_state.server_sock.get();
}

int dhcpr_recv_client(thread *t) {
    const int fd = THREAD_FD(t);
    if (dhcp_port67_drain(fd) != 0) {
        zlog_warn("dhcp_recvmsg fail!");
    }
    dhcpr_state.client_read = thread_add_read(relay_master, dhcpr_recv_client, nullptr, fd);
    return 0;
}

int dhcpr_recv_server(thread *t) {
    const int fd = THREAD_FD(t);
    drain(fd);
    dhcpr_state.server_read = thread_add_read(relay_master, dhcpr_recv_server, nullptr, fd);
    return 0;
}

namespace {

// Under load the trapped frames are read on a tick instead of a wake-up per
// frame or two. A wake-up that found a few frames parks the read task and
// arms the tick; each tick reads once what came meanwhile, and a tick that
// finds nothing, or a full read, arms the read task again: full reads mean
// the wake-ups come full anyway, and a tick that read more would forward in
// bursts the links' queues may not hold. Frames are relayed at most a tick
// later, in the order they came.
constexpr long kTrapTickMs = 1;

// Frames read from the channel by one hal_recv call.
std::uint64_t read_trapped(int fd) {
    const std::uint64_t before = hal_trap_counters_get().read;
    if (hal_recv(fd, dhcpr_netlink_msg) != 0) {
        zlog_warn("hal_recv dhcpr_netlink_msg fail!");
    }
    return hal_trap_counters_get().read - before;
}

// A few frames, neither none nor a full read: worth waiting a tick for more.
bool few_frames(std::uint64_t n) {
    return n > 0 && n < static_cast<std::uint64_t>(HAL_RECV_BATCH_MAX);
}

int dhcpr_trap_tick(thread *) {
    trap_tick = nullptr;
    if (few_frames(read_trapped(dhcpr_state.netlink_fd))) {
        trap_tick = thread_add_timer_msec(relay_master, dhcpr_trap_tick, nullptr, kTrapTickMs);
    } else {
        dhcpr_state.netlink_read = thread_add_read_repeat(relay_master, dhcpr_recv_netlink, nullptr,
                                                          dhcpr_state.netlink_fd);
    }
    return 0;
}

}  // namespace

int dhcpr_recv_netlink(thread *t) {
    if (few_frames(read_trapped(THREAD_FD(t))) && t == dhcpr_state.netlink_read) {
        thread_cancel(t);  // ends when this callback returns
        dhcpr_state.netlink_read = nullptr;
        trap_tick = thread_add_timer_msec(relay_master, dhcpr_trap_tick, nullptr, kTrapTickMs);
    }
    return 0;
}

// ===========================================================================
// Bindings and records.

dhcpr_if_info *dhcpr_if_binding(const interface *ifp) {
    return ifp == nullptr ? nullptr : static_cast<dhcpr_if_info *>(ifp->info);
}

dhcpr_if *dhcpr_if_record(const interface *ifp) {
    dhcpr_if_info *info = dhcpr_if_binding(ifp);
    return (info != nullptr && info->kind == DHCPR_IF_KIND_RELAY) ? info->relay.get() : nullptr;
}

// Changing the server resets the option-82 settings to their defaults;
// setting the same server again changes nothing. Kept so.
int dhcpr_if_relay_set(interface *ifp, const sockunion *server) {
    if (ifp == nullptr || server == nullptr) {
        zlog_err("The input pointer is NULL!");
        return -1;
    }
    dhcpr_if_info *info = dhcpr_if_binding(ifp);
    // Only an IPv4 server fits the record; another user's slot stays theirs.
    if (server->sa.sa_family != AF_INET || (info != nullptr && info->kind != DHCPR_IF_KIND_RELAY)) {
        return -1;
    }
    if (info == nullptr) {
        auto fresh = std::make_unique<dhcpr_if_info>();
        fresh->kind = DHCPR_IF_KIND_RELAY;
        fresh->relay = std::make_unique<dhcpr_if>();
        info = fresh.get();
        bindings().push_back(std::move(fresh));
        ifp->info = info;
    } else if (info->relay == nullptr) {
        info->relay = std::make_unique<dhcpr_if>();
    } else if (info->relay->server.sin.sin_addr.s_addr == server->sin.sin_addr.s_addr) {
        return 0;
    }
    record_defaults(*info->relay, ifp, *server);
    return 0;
}

int dhcpr_if_relay_delete(interface *ifp, dhcpr_if_info *info) {
    if (ifp == nullptr || info == nullptr) {
        zlog_err("The input pointer is NULL!");
        return -1;
    }
    if (ifp->info == info) {
        ifp->info = nullptr;
    }
    auto &all = bindings();
    std::erase_if(all, [info](const auto &b) { return b.get() == info; });
    return 0;
}

void dhcpr_if_teardown(interface *ifp) {
    dhcpr_if_info *info = dhcpr_if_binding(ifp);
    if (info != nullptr && info->kind == DHCPR_IF_KIND_RELAY) {
        dhcpr_if_relay_delete(ifp, info);
    }
}

int dhcpr_if_opt82_enable_set(interface *ifp, std::uint32_t on) {
    dhcpr_if_info *info = dhcpr_if_binding(ifp);
    if (info == nullptr || info->kind != DHCPR_IF_KIND_RELAY) {
        return -1;
    }
    if (info->relay != nullptr) {
        info->relay->opt82_enable = on;
    }
    return 0;
}

int dhcpr_if_opt82_strategy_set(interface *ifp, std::uint32_t strategy) {
    dhcpr_if_info *info = dhcpr_if_binding(ifp);
    if (info == nullptr || info->kind != DHCPR_IF_KIND_RELAY) {
        return -1;
    }
    if (info->relay != nullptr) {
        info->relay->opt82_strategy = strategy;
    }
    return 0;
}

int dhcpr_if_circuit_id_set(interface *ifp, std::uint32_t mode, const char *text) {
    dhcpr_if_info *info = dhcpr_if_binding(ifp);
    if (info == nullptr || info->kind != DHCPR_IF_KIND_RELAY) {
        return -1;
    }
    if (dhcpr_if *r = info->relay.get(); r != nullptr) {
        set_id(mode, text, r->circuit_id_mode, r->circuit_id, r->circuit_id_len);
    }
    return 0;
}

int dhcpr_if_remote_id_set(interface *ifp, std::uint32_t mode, const char *text) {
    dhcpr_if_info *info = dhcpr_if_binding(ifp);
    if (info == nullptr || info->kind != DHCPR_IF_KIND_RELAY) {
        return -1;
    }
    if (dhcpr_if *r = info->relay.get(); r != nullptr) {
        set_id(mode, text, r->remote_id_mode, r->remote_id, r->remote_id_len);
    }
    return 0;
}

std::uint32_t dhcpr_if_opt82_enable_get(const interface *ifp) {
    const dhcpr_if *r = dhcpr_if_record(ifp);
    return r != nullptr ? r->opt82_enable : 0;
}

std::uint32_t dhcpr_if_opt82_strategy_get(const interface *ifp) {
    const dhcpr_if *r = dhcpr_if_record(ifp);
    return r != nullptr ? r->opt82_strategy : DHCPR_OPT82_KEEP;
}

// ===========================================================================
// Lookups.

int dhcp_get_l3if_address(std::uint16_t vlan, std::uint32_t *nip) {
    if (nip == nullptr) {
        return -4;
    }
    *nip = 0;
    char name[20];
    std::snprintf(name, sizeof name, "vlanif%d", static_cast<int>(vlan));
    const interface *ifp = if_lookup_by_name(name);
    if (ifp == nullptr) {
        zlog_warn("[%s][%d]Interface %s is not found!\n", "dhcp_get_l3if_address", 456, name);
        return -7;
    }
    for (const auto &c : ifp->connected) {
        DHCPR_ASSERT_DATA(c != nullptr, ADDRNODE_DATA_TEXT);
        if (c->address && c->address->family == AF_INET) {
            std::memcpy(nip, &c->address->u.prefix4, sizeof *nip);
            return 0;
        }
    }
    return -7;
}

// The binding's kind is not tested here; callers test the record's enable.
dhcpr_if *dhcpr_get_if_relay(std::uint32_t nip) {
    in_addr addr{};
    addr.s_addr = nip;
    const interface *owner = if_lookup_address(addr);
    if (owner == nullptr) {
        zlog_warn("if_lookup_address of l3_if_addr fail!");
        return nullptr;
    }
    // The owner's own binding: the address lookup found it in the table.
    const dhcpr_if_info *info = dhcpr_if_binding(owner);
    return (info != nullptr && info->relay != nullptr) ? info->relay.get() : nullptr;
}

// ===========================================================================
// Transactions.

dhcpr_item *dhcpr_item_add(std::uint32_t xid, interface *client_ifp, std::uint32_t gateway_nip,
                           std::uint16_t flags) {
    if (client_ifp == nullptr) {
        return nullptr;
    }
    dhcpr_item fields{};
    fields.time = relay_clock();
    fields.gateway_nip = gateway_nip;
    fields.xid = xid;
    fields.flags = flags;
    fields.client_ifp = client_ifp;
    return items().add(fields);
}

dhcpr_item *dhcpr_item_find(std::uint32_t xid) {
    return items().find(xid);
}

void dhcpr_item_delete(std::uint32_t xid) {
    items().erase_xid(xid);
}

void dhcpr_item_expire() {
    const std::uint32_t now = relay_clock();
    items().erase_if([now](const dhcpr_item &it) { return now - it.time > DHCPR_ITEM_MAX_AGE; });
}

dhcpr_item *dhcpr_item_first() {
    return items().first();
}

dhcpr_item *dhcpr_item_next(const dhcpr_item *item) {
    return items().next(item);
}

std::size_t dhcpr_item_count() {
    return items().size();
}

void dhcpr_item_clear() {
    items().clear();
}

// Nothing arms this timer: unanswered items stay until a reply with their
// xid comes. Kept so.
int dhcpr_timer(thread *) {
    dhcpr_item_expire();
    thread_add_timer(relay_master, dhcpr_timer, nullptr, DHCPR_TIMER_SECONDS);
    return 0;
}

// ===========================================================================
// Forwarding.

int dhcpr_message_type(const dhcp_packet &packet) {
    if (packet.op != BOOTREQUEST && packet.op != BOOTREPLY) {
        return -1;
    }
    const std::uint8_t *v = dhcp_get_option(&packet, DHCP_MESSAGE_TYPE);
    // An empty option 53 has no value to read.
    if (v == nullptr || v[-1] == 0) {
        return -1;
    }
    return v[0];
}

namespace {

// Pass to server, to its outcome.
dhcpr_outcome pass_to_server(dhcp_packet &packet, int len, std::uint32_t gateway_nip, int sock,
                             interface *client_ifp, const sockunion *server) {
    if (server == nullptr || len < 0 || static_cast<std::size_t>(len) > sizeof packet) {
        return dhcpr_outcome::no_relay_record;
    }
    if (!is_relayed_to_server(dhcpr_message_type(packet))) {
        return dhcpr_outcome::wrong_request_type;
    }
    if (dhcpr_item_add(packet.xid, client_ifp, gateway_nip, packet.flags) == nullptr) {
        return dhcpr_outcome::no_client_interface;
    }
    // The item keeps the flags as the client sent them.
    if ((packet.flags & htons(DHCP_BROADCAST_FLAG)) != 0) {
        packet.flags = 0;
    }
    // Requests leave from the port-68 socket unless the server reply port
    // is 67. Kept so.
    const auto *bytes = reinterpret_cast<const std::uint8_t *>(&packet);
    errno = 0;
    const ssize_t sent = server_sender(sock, {bytes, static_cast<std::size_t>(len)}, server->sin);
    if (sent != len) {
        zlog_err("sendto");
        return dhcpr_outcome::send_failed;
    }
    return dhcpr_outcome::forwarded;
}

// The request path, to its outcome.
dhcpr_outcome relay_request(dhcp_packet &packet, int len, std::uint32_t port, std::uint16_t vlan) {
    if (packet.hops > DHCPR_MAX_HOPS) {
        zlog_err("hops is %d, more than maximum hops %d", packet.hops, DHCPR_MAX_HOPS);
        return dhcpr_outcome::hops_exceeded;
    }
    ++packet.hops;
    std::uint32_t gateway = 0;
    if (dhcp_get_l3if_address(vlan, &gateway) != 0) {
        return dhcpr_outcome::no_relay_address;
    }
    if (packet.gateway_nip == 0) {
        packet.gateway_nip = gateway;
        zlog_info("gateway_nip change to %s\n", ntoa(gateway).buf);
    }
    // Chosen by the ingress VLAN's address, not by giaddr.
    const dhcpr_if *r = dhcpr_get_if_relay(gateway);
    if (r == nullptr) {
        zlog_warn("dhcpr_get_if_relay fail!");
        return dhcpr_outcome::no_relay_record;
    }
    if (r->enable != 1) {
        zlog_warn("This interface relay is not enabled!");
        return dhcpr_outcome::relay_not_enabled;
    }
    if (apply_option82(packet, len, *r, vlan, port) != 0) {
        return dhcpr_outcome::option82_present;
    }
    // The datagram is exactly as long as the payload that came: an option 82
    // that runs past it is cut off on the wire. Kept so.
    return pass_to_server(packet, len, gateway, dhcpr_request_socket(), r->ifp, &r->server);
}

int request_result(dhcpr_outcome o) {
    switch (o) {
        case dhcpr_outcome::hops_exceeded:
        case dhcpr_outcome::no_relay_record:
        case dhcpr_outcome::relay_not_enabled:
            return -1;
        case dhcpr_outcome::no_relay_address:
            return -7;
        case dhcpr_outcome::option82_present:
            return -3;
        default:
            return 0;
    }
}

// The reply path after the trust check, to its outcome; *vlan becomes the
// VLAN of the transaction's client interface when there is one.
dhcpr_outcome pass_to_client(dhcp_packet &packet, int len, int type, std::uint16_t *vlan) {
    const dhcpr_item *item = dhcpr_item_find(packet.xid);
    if (item == nullptr) {
        return dhcpr_outcome::no_transaction;
    }
    const dhcpr_item copy = *item;
    const bool alive = copy.client_ifp != nullptr && interface_alive(copy.client_ifp);
    if (alive) {
        *vlan = if_get_vid(copy.client_ifp);
    }
    const dhcpr_outcome outcome = deliver_reply(packet, len, copy, type, alive);
    dhcpr_item_delete(copy.xid);
    return outcome;
}

}  // namespace

int dhcpr_relay_request(dhcp_packet &packet, int len, std::uint32_t port, std::uint16_t vlan) {
    const int type = dhcpr_message_type(packet);
    const dhcpr_outcome outcome = relay_request(packet, len, port, vlan);
    dhcpr_stats_count(vlan, false, type, outcome);
    return request_result(outcome);
}

int dhcpr_pass_to_server(dhcp_packet &packet, int len, std::uint32_t gateway_nip, int sock,
                         interface *client_ifp, const sockunion *server) {
    const dhcpr_outcome o = pass_to_server(packet, len, gateway_nip, sock, client_ifp, server);
    return (o == dhcpr_outcome::forwarded || o == dhcpr_outcome::send_failed) ? 0 : -1;
}

int dhcpr_relay_reply(dhcp_packet &packet, int len, std::uint32_t port, std::uint16_t vlan) {
    const int type = dhcpr_message_type(packet);
    dhcpr_outcome outcome = dhcpr_outcome::untrusted_port;
    const bool untrusted = dhcpsnoop_enable_get() != 0 && [&] {
        const std::uint32_t index = port_index(port);
        const uif *ingress = index != 0 ? uif_lookup_by_index(index) : nullptr;
        return dhcpsnoop_if_untrust_get(ingress) == 1;
    }();
    if (!untrusted) {
        outcome = pass_to_client(packet, len, type, &vlan);
    }
    dhcpr_stats_count(vlan, true, type, outcome);
    return 0;
}

// The source address is the server identifier, never the relay's own; a
// reply whose ciaddr is 0 goes to 0.0.0.0 at the client's MAC. Kept so.
void dhcpr_pass_to_client(dhcp_packet &packet, int len) {
    std::uint16_t vlan = 0;
    pass_to_client(packet, len, dhcpr_message_type(packet), &vlan);
}

void dhcpr_option82_add(dhcp_packet *packet, interface *ifp, std::uint16_t vlan,
                        std::uint32_t port) {
    if (packet == nullptr || ifp == nullptr) {
        zlog_warn("The input pointer is NULL!");
        return;
    }
    const dhcpr_if *r = dhcpr_if_record(ifp);
    if (r == nullptr) {
        return;
    }
    // The codec refuses (and logs) an option that does not fit.
    dhcp_add_binary_option(*packet, build_option82(*r, vlan, port));
}

// Every byte after the option, up to the end of the payload, moves down over
// it; the last bytes are left as they were. Kept so.
void dhcpr_option82_remove(dhcp_packet *packet, int len) {
    if (packet == nullptr) {
        return;
    }
    std::uint8_t *value = dhcp_get_option(packet, DHCP_RELAY_AGENT_INFO);
    if (value == nullptr) {
        return;
    }
    auto *base = reinterpret_cast<std::uint8_t *>(packet);
    const auto start = static_cast<std::size_t>(value - 2 - base);
    const std::size_t end = start + 2 + value[-1];
    const std::size_t limit = std::min(static_cast<std::size_t>(std::max(len, 0)), sizeof *packet);
    if (end < limit) {
        std::memmove(base + start, base + end, limit - end);
    }
}

// ===========================================================================
// Trapped frames.

int dhcpr_netlink_msg(std::uint32_t type, std::uint8_t *msg, std::uint32_t frame_len) {
    if (type != HAL_MSG_TRAPPED_FRAME) {
        zlog_err("%s: invalid msg type %d", "dhcpr_netlink_msg", static_cast<int>(type));
        dhcpr_stats_refused(dhcpr_refusal::wrong_type);
        return -4;
    }
    if (msg == nullptr) {
        dhcpr_stats_refused(dhcpr_refusal::bad_length);
        return -1;
    }
    hal_trap_hdr hdr;
    std::memcpy(&hdr, msg, sizeof hdr);
    udp_view u{};
    dhcpr_refusal why = dhcpr_refusal::count;
    if (decode_frame(msg + TRAP_HDR_LEN + hdr.gap, frame_len, u, &why) != 0) {
        dhcpr_stats_refused(why);
        return -1;
    }
    // Shorter than the fixed header or longer than the record: dropped.
    if (u.len < static_cast<long>(DHCP_FIXED_SIZE) ||
        u.len > static_cast<long>(sizeof(dhcp_packet))) {
        dhcpr_stats_refused(dhcpr_refusal::bad_length);
        return bad_payload(u.len);
    }
    dhcp_packet packet{};
    std::memcpy(&packet, u.payload, static_cast<std::size_t>(u.len));
    const int len = static_cast<int>(u.len);
    if (is_server_reply(u, packet)) {
        dhcpr_relay_reply(packet, len, hdr.port, hdr.vlan);
        return 0;
    }
    return dhcpr_relay_request(packet, len, hdr.port, hdr.vlan);
}

// ===========================================================================
// Seams.

void dhcpr_set_senders(dhcpr_server_send_fn to_server, dhcpr_client_send_fn to_client) {
    server_sender = to_server != nullptr ? to_server : send_udp;
    client_sender = to_client != nullptr ? to_client : send_raw;
}

void dhcpr_set_clock(std::uint32_t (*now)()) {
    relay_clock = now != nullptr ? now : monotonic_sec;
}

void dhcpr_reset() {
    dhcpr_enable_set(0);
    // A relay whose open failed half-way is off only once enable reads 0.
    dhcpr_state.enable = 0;
    dhcpr_state.client_sock.reset();
    dhcpr_state.server_sock.reset();
    dhcpr_state.server_reply_port = DHCPR_REPLY_PORT_DEFAULT;
    dhcpr_item_clear();
    for (interface *ifp : vrf_iflist(VRF_DEFAULT)) {
        dhcpr_if_teardown(ifp);
    }
    bindings().clear();
}
