// The DHCP server's settings and its read task on UDP port 67.
#include "dhcp/dhcps.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>

#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_options.h"
#include "dhcp/dhcp_packet.h"
#include "dhcp/dhcp_socket.h"
#include "dhcp/dhcps_leases.h"
#include "dhcp/dhcps_pool.h"
#include "dhcp/dhcps_stats.h"
#include "lib/log.h"
#include "lib/thread.h"
#include "lib/if.h"
#include "platform/clock.h"
#include "platform/hal.h"
#include "platform/uif.h"

dhcps_settings dhcps_global;

namespace {
thread_master *server_master = nullptr;
// Beside the settings record rather than in it: an addition of this server,
// with its own setter.
std::uint32_t relay_reply_port = DHCP_CLIENT_PORT;
constexpr std::uint32_t kMaxLeaseMin = 2048;
constexpr std::uint32_t kMaxLeaseMax = DHCPS_MAX_LEASE_NUM_MAX;
constexpr std::uint32_t kMaxLeaseDefault = 4096;
}  // namespace

thread_master *dhcps_master() {
    return server_master;
}

void dhcps_settings_init() {
    dhcps_global = dhcps_settings{};
    relay_reply_port = DHCP_CLIENT_PORT;
}

void dhcps_init(thread_master *m) {
    server_master = m;
    dhcps_pool_list_init();
    dhcps_lease_list_init();
    dhcps_settings_init();
    dhcps_load_leases(DHCPS_LEASE_FILE);
}

namespace {

// One batch of requests: what waits on the socket, at most one batch,
// handled in arrival order with their raw replies sent together at the
// end. Returns how many were read.
int dhcps_recv_batch(int sock) {
    static std::array<dhcp_received, DHCP_RECV_BATCH> batch;
    const int n = dhcp_recvmmsg(sock, batch);
    if (n < 0) {
        zlog_debug("dhcp_recvmsg fail!");
        zlog_debug("dhcps_parse_packet fail!");
        return 0;
    }
    dhcp_raw_batch_begin();
    for (std::size_t i = 0; i < static_cast<std::size_t>(n); i++) {
        dhcp_received &r = batch[i];
        if (dhcps_handle_request(r.packet, r.len, r.local) != 0) {
            zlog_debug("dhcps_parse_packet fail!");
        }
    }
    dhcp_raw_batch_flush();
    return n;
}

// Under load the socket is read on a tick instead of a wake-up per
// datagram. A wake-up that found a few requests parks the read task and
// arms the tick; each tick reads one batch of what came meanwhile, and a
// tick that finds nothing, or a full batch, arms the read task again: a full
// batch means the wake-ups come full anyway, and a tick that read more would
// send its replies in bursts the link's queue may not hold. Replies leave at
// most a tick later, in arrival order. While the relay drains the same
// socket it is woken by every datagram anyway, so the server then stays on
// its read task.
constexpr long kPollTickMs = 1;
thread *poll_tick = nullptr;

int dhcps_poll_tick(thread *t);

bool may_park() {
    return dhcp_port67_users(dhcp_port67_role::drain) == 0;
}

void arm_reader() {
    poll_tick = nullptr;
    dhcps_global.recv_thread = funcname_thread_add_read_repeat(server_master, dhcps_recv, nullptr,
                                                               dhcps_global.sock, "dhcps_recv");
}

void arm_tick() {
    poll_tick = thread_add_timer_msec(server_master, dhcps_poll_tick, nullptr, kPollTickMs);
}

// A few requests, neither none nor a full batch: worth waiting a tick for more.
bool few(int n) {
    return n > 0 && n < static_cast<int>(DHCP_RECV_BATCH) && may_park();
}

int dhcps_poll_tick(thread *) {
    if (few(dhcps_recv_batch(dhcps_global.sock))) {
        arm_tick();
    } else {
        arm_reader();
    }
    return 0;
}

}  // namespace

int dhcps_recv(thread *t) {
    if (few(dhcps_recv_batch(THREAD_FD(t))) && t == dhcps_global.recv_thread) {
        thread_cancel(t);  // ends when this callback returns
        dhcps_global.recv_thread = nullptr;
        arm_tick();
    }
    return 0;
}

int dhcps_set_enable(std::uint32_t v) {
    if (v == dhcps_global.enable) {
        return 0;
    }
    dhcps_global.enable = v;
    int rc = hal_dhcp_enable(static_cast<int>(v));
    if (v == 1) {
        // Shared with the relay, so that requests to us are read by us.
        int sock = dhcp_port67_open(dhcp_port67_role::handle);
        if (sock < 0) {
            zlog_err("dhcp-server failed to init socket");
            return -1;
        }
        dhcps_global.sock = sock;
        arm_reader();
        return sock;
    }
    if (dhcps_global.sock > 0) {
        thread_cancel(dhcps_global.recv_thread);
        thread_cancel(poll_tick);
        poll_tick = nullptr;
        dhcp_port67_close(dhcp_port67_role::handle);
        dhcps_global.recv_thread = nullptr;
        dhcps_global.sock = 0;
    }
    return rc;
}

std::uint32_t dhcps_get_enable() {
    return dhcps_global.enable;
}

void dhcps_set_write_time(std::uint32_t v) {
    dhcps_global.write_time = v;
}
std::uint32_t dhcps_get_write_time() {
    return dhcps_global.write_time;
}

int dhcps_set_max_lease_num(std::uint32_t v) {
    dhcps_global.max_lease_num = (v >= kMaxLeaseMin && v <= kMaxLeaseMax) ? v : kMaxLeaseDefault;
    dhcps_leases_truncate(dhcps_global.max_lease_num);
    return 0;
}

std::uint32_t dhcps_get_max_lease_num() {
    return dhcps_global.max_lease_num;
}

int dhcps_set_information(std::uint32_t v) {
    if (v != dhcps_global.information) {
        dhcps_global.information = v;
    }
    return 0;
}

std::uint32_t dhcps_get_information() {
    return dhcps_global.information;
}

int dhcps_set_relay_reply_port(std::uint32_t port) {
    if (port != DHCP_SERVER_PORT && port != DHCP_CLIENT_PORT) {
        return -1;
    }
    relay_reply_port = port;
    return 0;
}

std::uint32_t dhcps_get_relay_reply_port() {
    return relay_reply_port;
}

// ---------------------------------------------------------------------------
// Request handling.

namespace {

dhcps_send_fn reply_sender = nullptr;
dhcps_udp_send_fn udp_reply_sender = nullptr;

const char *ip_text(std::uint32_t nip, char *buf) {
    in_addr a{nip};
    return inet_ntop(AF_INET, &a, buf, INET_ADDRSTRLEN);
}

std::uint32_t load_u32(const std::uint8_t *p) {
    std::uint32_t v = 0;
    std::memcpy(&v, p, 4);
    return v;
}

// What request handling decides on, read once from the message. An option
// counts as carried when it is there at all, whatever its length; an address
// shorter than four bytes reads its missing bytes as 0. Only the reads are
// bounded: a short option is decided on exactly as a whole one.
struct request_view {
    std::optional<std::uint32_t> server_id;  // option 54
    int type = 0;                            // option 53; 0 when absent or empty
    std::optional<std::uint32_t> requested;  // option 50
};

std::optional<std::uint32_t> address_option(const dhcp_packet &req, std::uint8_t code) {
    const auto value = dhcp_get_option_span(req, code);
    if (!value) {
        return std::nullopt;
    }
    return dhcp_option_nip(*value);
}

request_view read_request(const dhcp_packet &req) {
    request_view view;
    view.server_id = address_option(req, DHCP_SERVER_ID);
    const auto type = dhcp_get_option_span(req, DHCP_MESSAGE_TYPE);
    view.type = (type && !type->empty()) ? type->front() : 0;
    view.requested = address_option(req, DHCP_REQUESTED_IP);
    return view;
}

const char *message_name(int type) {
    static const char *const names[] = {"WRONG state[0]\n", "DHCPDISCOVER\n", "DHCPOFFER\n",
                                        "DHCPREQUEST\n",    "DHCPDECLINE\n",  "DHCPACK\n",
                                        "DHCPNAK\n",        "DHCPRELEASE\n",  "DHCPINFORM\n"};
    return (type >= 1 && type <= 8) ? names[type] : names[0];
}

bool packet_debug() {
    return dhcp_debug_on(DHCP_DEBUG_PACKET);
}

// The static or port binding of the client, 0 when it has none.
std::uint32_t binding_for(const dhcps_pool *pool, const dhcp_packet &req, std::uint16_t vid) {
    for (const auto &s : pool->static_leases) {
        if (std::memcmp(s.mac, req.chaddr, 6) == 0) {
            return s.ip;
        }
    }
    // The port lookup only matters when the pool binds ports; skip the
    // forwarding-database query otherwise, it is the costly part.
    if (pool->port_binds.empty()) {
        return 0;
    }
    std::uint32_t port = 0;
    if (hal_mac_get_port(vid, req.chaddr, &port) != 0 || port == 0) {
        return 0;
    }
    for (const auto &b : pool->port_binds) {
        if (static_cast<std::uint32_t>(b.ifindex) == port) {
            return b.ip;
        }
    }
    return 0;
}

struct client_lease {
    dhcps_lease transient{};  // stands for a static or port binding
    const dhcps_lease *lease = nullptr;
    bool is_transient = false;
};

void find_client_lease(client_lease &cl, const dhcps_pool *pool, const dhcp_packet &req,
                       std::uint32_t static_ip, std::uint32_t mask) {
    if (static_ip != 0) {
        if (packet_debug()) {
            zlog_debug("Found static lease: %x", static_ip);
        }
        std::memcpy(cl.transient.mac, req.chaddr, 6);
        std::memcpy(cl.transient.nip, &static_ip, 4);
        cl.lease = &cl.transient;
        cl.is_transient = true;
    } else {
        cl.lease = dhcps_find_lease_by_mac(req.chaddr);
    }
    // A lease of another network is none of this pool's business.
    if (cl.lease != nullptr && pool->prefix &&
        ((pool->prefix->prefix.s_addr ^ dhcps_lease_nip(cl.lease)) & mask) != 0) {
        cl.lease = nullptr;
    }
}

dhcps_outcome handle_request(interface *ifp, dhcps_pool *pool, const dhcp_packet &req,
                             const request_view &view, const client_lease &cl, std::uint32_t mask) {
    if (packet_debug()) {
        zlog_debug("Received REQUEST");
    }
    // Option 50 counts by being there: one that asks for 0.0.0.0 still asks.
    if (!view.requested && req.ciaddr == 0) {
        zlog_debug("no requested IP and no ciaddr, ignoring");
        return dhcps_outcome::no_requested_address;
    }
    const std::uint32_t requested = view.requested.value_or(req.ciaddr);
    if (cl.lease != nullptr && dhcps_lease_nip(cl.lease) == requested) {
        // Compared with the range's first address, not the network: kept so.
        if (req.hops == 0 && ((htonl(pool->begin_ip) ^ requested) & mask) != 0) {
            dhcps_clear_leases(req.chaddr, req.yiaddr);
            dhcps_send_nak(ifp, pool, &req);
            return dhcps_outcome::nak_sent;
        }
        dhcps_send_ack(ifp, pool, &req, dhcps_lease_nip(cl.lease));
        return dhcps_outcome::ack_sent;
    }
    if (view.server_id || view.requested) {
        dhcps_send_nak(ifp, pool, &req);
        return dhcps_outcome::nak_sent;
    }
    return dhcps_outcome::unknown_client;
}

dhcps_outcome handle_decline(const dhcps_pool *pool, const request_view &view,
                             const client_lease &cl) {
    if (packet_debug()) {
        zlog_debug("Received DECLINE");
    }
    if (!view.server_id || !view.requested || cl.lease == nullptr ||
        dhcps_lease_nip(cl.lease) != *view.requested || cl.is_transient) {
        return dhcps_outcome::decline_ignored;
    }
    auto *lease = const_cast<dhcps_lease *>(cl.lease);
    static constexpr std::uint8_t zero_mac[6] = {};
    dhcps_lease_set_mac(lease, zero_mac);
    dhcps_lease_set_expires(lease, kq_time_get() + static_cast<std::int32_t>(pool->decline_time));
    dhcps_lease_set_state(lease, 0);
    return dhcps_outcome::declined;
}

dhcps_outcome handle_release(const dhcp_packet &req, const request_view &view,
                             const client_lease &cl) {
    if (packet_debug()) {
        zlog_debug("Received RELEASE");
    }
    if (!view.server_id || cl.lease == nullptr || dhcps_lease_nip(cl.lease) != req.ciaddr ||
        cl.is_transient) {
        return dhcps_outcome::release_ignored;
    }
    dhcps_lease_set_expires(const_cast<dhcps_lease *>(cl.lease), kq_time_get());
    return dhcps_outcome::released;
}

// Why no pool took a request: an enabled pool of the network that would
// have taken it without its circuit id refused the id. Asked only on the way
// to a drop, and silently (the lookup has logged what it saw).
dhcps_outcome no_pool_reason(std::uint32_t key, const dhcp_option82 &circuit) {
    if (circuit.present == 0) {
        return dhcps_outcome::no_pool;
    }
    for (const auto &p : dhcps_pool_list()) {
        const option_set *mask = dhcp_find_option(p->options, DHCP_SUBNET_MASK);
        if (mask == nullptr || !p->prefix || p->enable == 0) {
            continue;
        }
        // As the lookup reads it: a mask option too short to hold one is 0.
        const std::uint32_t m = mask->length() >= 4 ? load_u32(mask->value().data()) : 0;
        if (((p->prefix->prefix.s_addr ^ key) & m) == 0) {
            return dhcps_outcome::circuit_id_not_allowed;
        }
    }
    return dhcps_outcome::no_pool;
}

// Header checks and pool choice (with option 82 when it is handled).
// Returns the pool, or nullptr after logging why the request is dropped
// (the reason in *why).
dhcps_pool *choose_pool(const dhcp_packet &req, std::uint32_t l3_if_addr, interface **ifp_out,
                        std::uint32_t *mask_out, dhcps_outcome *why) {
    if (req.hlen != 6) {
        if (packet_debug()) {
            zlog_debug("MAC length != 6, ignoring packet");
        }
        *why = dhcps_outcome::bad_hlen;
        return nullptr;
    }
    if (req.op != BOOTREQUEST) {
        if (packet_debug()) {
            zlog_debug("not a BOOTREQUEST, ignoring packet");
        }
        *why = dhcps_outcome::not_request;
        return nullptr;
    }
    interface *ifp = if_lookup_address(in_addr{l3_if_addr});
    if (ifp == nullptr) {
        zlog_debug("if_lookup_address of l3_if_addr fail!");
        *why = dhcps_outcome::no_interface;
        return nullptr;
    }
    dhcp_option82 circuit{};
    // With option-82 handling off the option is not even looked for.
    const std::uint8_t *o82 =
        dhcps_global.information != 0 ? dhcp_get_option(&req, DHCP_RELAY_AGENT_INFO) : nullptr;
    if (o82 != nullptr && dhcps_parse_option82(o82, o82[-1], &circuit) != 0) {
        zlog_debug("Option-82 is invalid!");
        *why = dhcps_outcome::option82_invalid;
        return nullptr;
    }
    std::uint32_t key = req.gateway_nip != 0 ? req.gateway_nip : l3_if_addr;
    dhcps_pool *pool = dhcps_lookup_by_network(key, &circuit);
    if (pool == nullptr) {
        *why = no_pool_reason(key, circuit);
        return nullptr;
    }
    if (zlog_wanted(LOG_DEBUG)) {
        char buf[INET_ADDRSTRLEN];
        zlog_debug("dhcps_pool %s, ipaddr=%s, ifindex=%d\n", pool->name,
                   ip_text(pool->server_ip, buf), pool->ifindex);
    }
    const option_set *mask = dhcp_find_option(pool->options, DHCP_SUBNET_MASK);
    if (mask == nullptr || mask->length() < 4) {
        zlog_debug("dhcp_find_option DHCP_SUBNET_MASK fail!");
        *why = dhcps_outcome::no_subnet_mask;
        return nullptr;
    }
    *ifp_out = ifp;
    *mask_out = load_u32(mask->value().data());
    return pool;
}

// A request for another server, or one without a known message type, is
// dropped after logging why: the reason, or none when it is taken.
std::optional<dhcps_outcome> refused(const request_view &view, std::uint32_t server_id) {
    if (view.server_id && server_id != 0 && *view.server_id != server_id) {
        zlog_debug("server ID doesn't match, ignoring");
        return dhcps_outcome::server_id_mismatch;
    }
    if (view.type == 0 || view.type > 8) {
        if (packet_debug()) {
            zlog_debug("no or bad message type option, ignoring packet");
        }
        return dhcps_outcome::bad_message_type;
    }
    return std::nullopt;
}

// What dhcps_handle_request returns for an outcome: -1 for the drops made
// before the message type is acted on, 0 for everything else.
int result_of(dhcps_outcome o) {
    switch (o) {
        case dhcps_outcome::bad_hlen:
        case dhcps_outcome::not_request:
        case dhcps_outcome::no_interface:
        case dhcps_outcome::option82_invalid:
        case dhcps_outcome::circuit_id_not_allowed:
        case dhcps_outcome::no_pool:
        case dhcps_outcome::no_subnet_mask:
        case dhcps_outcome::server_id_mismatch:
        case dhcps_outcome::bad_message_type:
        case dhcps_outcome::wrong_message_type:
            return -1;
        default:
            return 0;
    }
}

// One request to its outcome.
dhcps_outcome handle(dhcp_packet &req, int len, std::uint32_t l3_if_addr,
                     const request_view &view) {
    interface *ifp = nullptr;
    std::uint32_t mask = 0;
    dhcps_outcome why = dhcps_outcome::no_pool;
    dhcps_pool *pool = choose_pool(req, l3_if_addr, &ifp, &mask, &why);
    if (pool == nullptr) {
        return why;
    }
    const std::uint32_t server_id = dhcps_acquire_server_id(ifp, pool);
    if (const auto drop = refused(view, server_id)) {
        return *drop;
    }
    zlog_debug("%s", message_name(view.type));
    pool->last_request_len = static_cast<std::uint32_t>(len) + 28;

    client_lease cl;
    std::uint32_t static_ip = binding_for(pool, req, if_get_vid(ifp));
    find_client_lease(cl, pool, req, static_ip, mask);

    switch (view.type) {
        case DHCPDISCOVER:
            if (packet_debug()) {
                zlog_debug("Received DISCOVER");
            }
            return dhcps_send_offer(ifp, pool, &req, static_ip, cl.lease, view.requested);
        case DHCPREQUEST:
            return handle_request(ifp, pool, req, view, cl, mask);
        case DHCPDECLINE:
            return handle_decline(pool, view, cl);
        case DHCPRELEASE:
            return handle_release(req, view, cl);
        case DHCPINFORM:
            if (packet_debug()) {
                zlog_debug("Received INFORM");
            }
            dhcps_send_inform(ifp, pool, &req);
            return dhcps_outcome::inform_sent;
        default:  // OFFER, ACK and NAK are the server's own messages
            return dhcps_outcome::wrong_message_type;
    }
}

}  // namespace

void dhcps_set_sender(dhcps_send_fn fn) {
    reply_sender = fn;
}

void dhcps_set_udp_sender(dhcps_udp_send_fn fn) {
    udp_reply_sender = fn;
}

int dhcps_parse_packet(int sock) {
    dhcp_packet req{};
    int len = 0;
    std::uint32_t l3_if_addr = 0;
    if (dhcp_recvmsg(sock, &req, &len, &l3_if_addr) != 0) {
        zlog_debug("dhcp_recvmsg fail!");
        return -1;
    }
    return dhcps_handle_request(req, len, l3_if_addr);
}

int dhcps_handle_request(dhcp_packet &req, int len, std::uint32_t l3_if_addr) {
    // Read first so that every request is counted by its type, also one
    // dropped before the type matters.
    const request_view view = read_request(req);
    const dhcps_outcome outcome = handle(req, len, l3_if_addr, view);
    dhcps_stats_count(view.type, outcome);
    return result_of(outcome);
}

// ---------------------------------------------------------------------------
// Replies.

namespace {

bool null_args(const void *a, const void *b, const void *c) {
    if (a == nullptr || b == nullptr || c == nullptr) {
        zlog_warn("The input pointer is NULL!");
        return true;
    }
    return false;
}

void add_lease_options(dhcp_packet *reply, std::uint32_t lease) {
    dhcp_add_simple_option(*reply, DHCP_LEASE_TIME, htonl(lease));
    dhcp_add_simple_option(*reply, DHCP_T1, htonl(lease / 2));
    dhcp_add_simple_option(*reply, DHCP_T2, htonl(lease * 7 / 8));  // wraps, as intended
}

// The client's host name (option 12) with the one byte after it that the
// lease copy takes, bounded to the message.
struct host_name {
    char text[21] = {};
    int len = 0;
    bool present = false;
};

host_name request_host_name(const dhcp_packet *req) {
    host_name h;
    const std::uint8_t *p = dhcp_get_option(req, DHCP_HOST_NAME);
    if (p == nullptr) {
        return h;
    }
    h.present = true;
    h.len = p[-1];
    auto *end = reinterpret_cast<const std::uint8_t *>(req) + sizeof(dhcp_packet);
    std::size_t take = std::min<std::size_t>(
        {static_cast<std::size_t>(h.len) + 1, 20, static_cast<std::size_t>(end - p)});
    std::memcpy(h.text, p, take);
    return h;
}

bool in_range(const dhcps_pool *pool, std::uint32_t nip) {
    std::uint32_t h = ntohl(nip);
    return h >= pool->begin_ip && h <= pool->end_ip;
}

std::uint32_t choose_offer_address(interface *ifp, dhcps_pool *pool, const dhcp_packet *req,
                                   const dhcps_lease *lease,
                                   std::optional<std::uint32_t> requested) {
    char a[INET_ADDRSTRLEN], b[INET_ADDRSTRLEN];
    if (lease != nullptr && in_range(pool, dhcps_lease_nip(lease))) {
        return dhcps_lease_nip(lease);
    }
    if (requested && in_range(pool, *requested)) {
        const std::uint32_t want = *requested;
        const dhcps_lease *holder = dhcps_find_lease_by_nip(want);
        if (holder == nullptr || dhcps_lease_expired(holder)) {
            if (packet_debug()) {
                zlog_debug("requested ip: %s", ip_text(want, a));
                zlog_debug("  start: %s %#x", ip_text(htonl(pool->begin_ip), b), pool->begin_ip);
                zlog_debug("  end: %s %#x", ip_text(htonl(pool->end_ip), b), pool->end_ip);
            }
            return want;
        }
    }
    std::uint32_t addr = dhcps_free_ip(ifp, pool, req->chaddr);
    if (packet_debug()) {
        zlog_debug("get free ip: %s", ip_text(addr, a));
    }
    return addr;
}

}  // namespace

std::uint32_t dhcps_acquire_server_id(interface *ifp, dhcps_pool *pool) {
    if (null_args(ifp, pool, pool)) {
        return 0;
    }
    for (const auto &c : ifp->connected) {
        const prefix *p = CONNECTED_PREFIX(c.get());
        if (p->family == AF_INET6) {
            continue;
        }
        if (zlog_wanted(LOG_DEBUG)) {
            char buf[INET_ADDRSTRLEN];
            zlog_debug("DHCP_SERVER_ID is %s", ip_text(p->u.prefix4.s_addr, buf));
        }
        return p->u.prefix4.s_addr;
    }
    return pool->server_ip;
}

void dhcps_init_reply(interface *ifp, dhcps_pool *pool, dhcp_packet *reply,
                      const dhcp_packet *request, std::uint8_t type) {
    if (null_args(ifp, pool, reply) || null_args(request, request, request)) {
        return;
    }
    dhcp_init_header(*reply, type);
    reply->xid = request->xid;
    std::memcpy(reply->chaddr, request->chaddr, sizeof reply->chaddr);
    reply->flags = request->flags;
    reply->gateway_nip = request->gateway_nip;
    reply->ciaddr = request->ciaddr;
    dhcp_add_simple_option(*reply, DHCP_SERVER_ID, dhcps_acquire_server_id(ifp, pool));
}

std::uint32_t dhcps_get_lease_time(dhcps_pool *pool) {
    if (pool == nullptr) {
        zlog_warn("The input pointer is NULL!");
        return 0xffffffffu;
    }
    std::uint32_t lease = pool->lease_time;
    if (const option_set *opt = dhcp_find_option(pool->options, DHCP_LEASE_TIME)) {
        // The configured text form: decimal digits, no terminator.
        std::uint32_t v = 0;
        for (std::uint8_t ch : opt->value()) {
            if (ch < '0' || ch > '9') {
                break;
            }
            v = v * 10 + static_cast<std::uint32_t>(ch - '0');
        }
        lease = v;
    }
    if (lease > pool->lease_time) {
        lease = pool->lease_time;
    }
    if (lease < pool->min_lease_time) {
        lease = pool->min_lease_time;
    }
    return lease;
}

void dhcps_add_pool_options(dhcps_pool *pool, dhcp_packet *reply) {
    if (null_args(pool, reply, reply)) {
        return;
    }
    for (const option_set *o = pool->options.get(); o != nullptr; o = o->next.get()) {
        if (o->code() != DHCP_LEASE_TIME) {
            dhcp_add_binary_option(*reply, o->data);
        }
    }
    reply->siaddr_nip = pool->next_server;
    if (!pool->server_name.empty()) {
        std::memcpy(reply->sname, pool->server_name.data(),
                    std::min<std::size_t>(pool->server_name.size(), 63));
    }
    if (!pool->boot_file.empty()) {
        std::memcpy(reply->file, pool->boot_file.data(),
                    std::min<std::size_t>(pool->boot_file.size(), 127));
    }
}

void dhcps_add_option82(dhcp_packet *reply, const dhcp_packet *request) {
    if (null_args(reply, request, request) || dhcps_global.information == 0) {
        return;
    }
    const std::uint8_t *v = dhcp_get_option(request, DHCP_RELAY_AGENT_INFO);
    if (v == nullptr) {
        return;
    }
    std::uint8_t opt[2 + 255];
    opt[0] = DHCP_RELAY_AGENT_INFO;
    opt[1] = v[-1];
    std::memcpy(opt + 2, v, v[-1]);
    dhcp_add_binary_option(*reply, std::span<const std::uint8_t>(opt, 2u + v[-1]));
}

dhcps_outcome dhcps_send_offer(interface *ifp, dhcps_pool *pool, const dhcp_packet *request,
                               std::uint32_t static_ip, const dhcps_lease *lease,
                               std::optional<std::uint32_t> requested) {
    dhcp_packet reply{};
    if (null_args(ifp, pool, request)) {
        return dhcps_outcome::no_pool;
    }
    dhcps_init_reply(ifp, pool, &reply, request, DHCPOFFER);
    reply.yiaddr = static_ip;
    if (static_ip == 0) {
        std::uint32_t addr = choose_offer_address(ifp, pool, request, lease, requested);
        host_name h = request_host_name(request);
        std::int32_t offer = static_cast<std::int32_t>(pool->offer_time);
        if (addr == 0 ||
            dhcps_add_lease(request->chaddr, addr, pool->offer_time, kq_time_get() + offer,
                            h.present ? h.text : nullptr, h.len, 0, 1) == nullptr) {
            zlog_debug("no free IP addresses. OFFER abandoned");
            return addr == 0 ? dhcps_outcome::no_free_address : dhcps_outcome::lease_table_full;
        }
        reply.yiaddr = addr;
    }
    add_lease_options(&reply, dhcps_get_lease_time(pool));
    dhcps_add_pool_options(pool, &reply);
    dhcps_add_option82(&reply, request);
    if (packet_debug()) {
        char buf[INET_ADDRSTRLEN];
        zlog_debug("Sending OFFER of %s", ip_text(reply.yiaddr, buf));
    }
    dhcps_send_packet_to_client(ifp, pool, &reply, 0);
    return dhcps_outcome::offer_sent;
}

void dhcps_send_ack(interface *ifp, dhcps_pool *pool, const dhcp_packet *request,
                    std::uint32_t address) {
    dhcp_packet reply{};
    if (null_args(ifp, pool, request)) {
        return;
    }
    dhcps_init_reply(ifp, pool, &reply, request, DHCPACK);
    reply.yiaddr = address;
    std::uint32_t lease = dhcps_get_lease_time(pool);
    add_lease_options(&reply, lease);
    dhcps_add_pool_options(pool, &reply);
    dhcps_add_option82(&reply, request);
    if (packet_debug()) {
        char buf[INET_ADDRSTRLEN];
        zlog_debug("Sending ACK to %s", ip_text(reply.yiaddr, buf));
    }
    dhcps_send_packet_to_client(ifp, pool, &reply, 0);
    // Recorded after sending: with a full table the ACK has gone out anyway.
    host_name h = request_host_name(request);
    dhcps_add_lease(request->chaddr, address, lease,
                    kq_time_get() + static_cast<std::int32_t>(lease), h.present ? h.text : nullptr,
                    h.len, 1, 1);
    dhcps_global.leases_dirty = 1;
}

void dhcps_send_nak(interface *ifp, dhcps_pool *pool, const dhcp_packet *request) {
    dhcp_packet reply{};
    if (null_args(ifp, pool, request)) {
        return;
    }
    dhcps_init_reply(ifp, pool, &reply, request, DHCPNAK);
    if (packet_debug()) {
        zlog_debug("Sending NAK");
    }
    dhcps_send_packet_to_client(ifp, pool, &reply, 1);
}

void dhcps_send_inform(interface *ifp, dhcps_pool *pool, const dhcp_packet *request) {
    dhcp_packet reply{};
    if (null_args(ifp, pool, request)) {
        return;
    }
    dhcps_init_reply(ifp, pool, &reply, request, DHCPACK);
    dhcps_add_pool_options(pool, &reply);
    dhcps_add_option82(&reply, request);
    dhcps_send_packet_to_client(ifp, pool, &reply, 0);
}

namespace {

// A reply to a relayed request as RFC 2131 servers send it: a UDP datagram
// from port 67 routed to giaddr port 67, every message type alike. A NAK
// gets the broadcast bit so that the relay broadcasts it to the client.
void send_to_relay_port(const dhcps_pool *pool, dhcp_packet *reply, int force_broadcast) {
    if (force_broadcast != 0) {
        reply->flags |= htons(DHCP_BROADCAST_FLAG);
    }
    if (udp_reply_sender != nullptr) {
        udp_reply_sender(*reply, pool->server_ip, reply->gateway_nip, DHCP_SERVER_PORT);
        return;
    }
    const int fd = dhcp_port67_fd();
    if (fd < 0) {
        zlog_err("socket(%s)", "UDP");
        return;
    }
    dhcp_send_udp_packet(fd, *reply, pool->server_ip, reply->gateway_nip, DHCP_SERVER_PORT);
}

}  // namespace

void dhcps_send_packet_to_client(interface *ifp, dhcps_pool *pool, dhcp_packet *reply,
                                 int force_broadcast) {
    if (null_args(ifp, pool, reply)) {
        return;
    }
    if (reply->gateway_nip != 0 && relay_reply_port == DHCP_SERVER_PORT) {
        send_to_relay_port(pool, reply, force_broadcast);
        return;
    }
    static constexpr std::uint8_t bcast_mac[6] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    const std::uint8_t *mac = bcast_mac;
    std::uint32_t dst = 0;
    if (force_broadcast != 0 || (ntohs(reply->flags) & DHCP_BROADCAST_FLAG) != 0) {
        if (packet_debug()) {
            zlog_debug("Broadcasting packet to client");
        }
        dst = INADDR_BROADCAST;
    } else if (reply->gateway_nip != 0) {
        dst = reply->gateway_nip;
    } else {
        if (packet_debug()) {
            zlog_debug("Unicasting packet to client ciaddr");
        }
        dst = reply->ciaddr;
        mac = reply->chaddr;
    }
    if (reply_sender != nullptr) {
        reply_sender(*reply, pool->server_ip, dst, mac, ifp->ifindex);
        return;
    }
    dhcp_send_raw_packet(*reply, pool->server_ip, DHCP_SERVER_PORT, dst, DHCP_CLIENT_PORT, mac,
                         ifp->ifindex);
}
