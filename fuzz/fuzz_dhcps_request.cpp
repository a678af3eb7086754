// The server's request handling end to end: sequences of arbitrary messages
// through dhcps_handle_request on a configured server (pools on two
// interfaces and two relayed networks, static and port bindings, option-82
// admission, leases already held), replies captured at the sending seams.
//
// Every reply is a well-formed reply to its request (BOOTREPLY, the
// request's xid and chaddr, the cookie, option 53 first with an OFFER, ACK
// or NAK, every option inside the 308-byte building area, nothing after the
// end marker); an OFFER's or ACK's address lies in a pool's range or is one
// of its static or port bindings, a NAK carries none. After every message
// the lease table's indexes agree with a plain walk of it, it holds no more
// than max-lease-num records, and every leased address is one a pool hands
// out.
//
// Input: a settings byte (bit 0 option-82 handling, bit 1 replies to relays
// at port 67, bit 2 a table of 8 leases at most, bit 3 leases held from
// before, bits 4-5 the events and packet debug switches), then records
// {interface choice, seconds to advance the clock, length (2 bytes,
// big-endian), message...}; a message is cut at the input's end and copied
// into a zeroed record, as a received datagram is.
#include <arpa/inet.h>
#include <sched.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz/fuzz_common.h"
#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_options.h"
#include "dhcp/dhcp_packet.h"
#include "dhcp/dhcps.h"
#include "dhcp/dhcps_leases.h"
#include "dhcp/dhcps_pool.h"
#include "dhcp/dhcps_vty.h"
#include "lib/if.h"
#include "lib/log.h"
#include "lib/prefix.h"
#include "platform/clock.h"
#include "platform/hal.h"
#include "platform/uif.h"

namespace {

constexpr std::int32_t NOW = 1700000000;

std::uint32_t nip(const char *a) {
    in_addr v{};
    inet_pton(AF_INET, a, &v);
    return v.s_addr;
}

const dhcp_packet *current = nullptr;  // the request being handled

bool pool_gives(const dhcps_pool &p, std::uint32_t addr) {
    const std::uint32_t h = ntohl(addr);
    if (h >= p.begin_ip && h <= p.end_ip) {
        return true;
    }
    for (const auto &s : p.static_leases) {
        if (s.ip == addr) {
            return true;
        }
    }
    for (const auto &b : p.port_binds) {
        if (b.ip == addr) {
            return true;
        }
    }
    return false;
}

bool some_pool_gives(std::uint32_t addr) {
    for (const auto &p : dhcps_pool_list()) {
        if (pool_gives(*p, addr)) {
            return true;
        }
    }
    return false;
}

// The options from the start of the area: option 53 first, all inside the
// building area, zeros after the end marker. The message type, or 0.
int check_options(const dhcp_packet &r) {
    const std::uint8_t *o = r.options;
    require(o[0] == DHCP_MESSAGE_TYPE && o[1] == 1);
    std::size_t i = 0;
    while (o[i] != DHCP_END) {
        if (o[i] == DHCP_PADDING) {
            ++i;
        } else {
            require(i + 1 < DHCP_OPTIONS_BUFSIZE);
            i += 2u + o[i + 1];
        }
        require(i < DHCP_OPTIONS_BUFSIZE);
    }
    for (std::size_t j = i + 1; j < DHCP_OPTIONS_AREA; ++j) {
        require(o[j] == 0);
    }
    return o[2];
}

void check_reply(const dhcp_packet &r) {
    require(current != nullptr);
    require(r.op == BOOTREPLY && r.htype == 1 && r.hlen == 6);
    require(r.cookie == htonl(DHCP_MAGIC));
    require(r.xid == current->xid);
    require(std::memcmp(r.chaddr, current->chaddr, sizeof r.chaddr) == 0);
    const int type = check_options(r);
    require(type == DHCPOFFER || type == DHCPACK || type == DHCPNAK);
    if (type == DHCPNAK) {
        require(r.yiaddr == 0);
    } else if (type == DHCPOFFER || r.yiaddr != 0) {
        require(some_pool_gives(r.yiaddr));
    }
}

int raw_sender(const dhcp_packet &reply, std::uint32_t, std::uint32_t, const std::uint8_t *mac,
               int) {
    require(mac != nullptr);
    check_reply(reply);
    return 0;
}

int udp_sender(const dhcp_packet &reply, std::uint32_t, std::uint32_t dst, std::uint16_t port) {
    require(port == DHCP_SERVER_PORT && dst == reply.gateway_nip && dst != 0);
    check_reply(reply);
    return 0;
}

// Port 3 of the switch for MACs ending in 0x60, nothing for the rest.
int mac_port(std::uint16_t, const std::uint8_t *mac, std::uint32_t *port) {
    *port = mac[5] == 0x60 ? (UIF_INDEX_BASE | 3u) : 0;
    return 0;
}

void addr_option(dhcps_pool *p, std::uint8_t code, std::uint32_t a) {
    dhcp_delete_option(p->options, code);
    dhcp_attach_option(p->options, dhcp_option{0x31, code},
                       std::span(reinterpret_cast<const std::uint8_t *>(&a), 4));
}

dhcps_pool *make_pool(const char *name, const char *router, const char *net, const char *begin,
                      const char *end) {
    dhcps_pool *p = dhcps_pool_get(name);
    addr_option(p, DHCP_ROUTER, nip(router));
    addr_option(p, DHCP_DNS_SERVER, nip("8.8.8.8"));
    prefix_ipv4 pfx{};
    str2prefix_ipv4(net, &pfx);
    require(dhcps_network(p, &pfx) == 0);
    p->begin_ip = ntohl(nip(begin));
    p->end_ip = ntohl(nip(end));
    return p;
}

bool set_up() {
    fuzz_quiet_log();
    // The address probe sends on the pool's interface: in a network
    // namespace of our own (as root) it finds no such interface and ends at
    // once, without a frame leaving the host; without privileges it cannot
    // open its socket and ends as quickly.
    (void)unshare(CLONE_NEWNET);
    uif_set_sysfs_root("/nonexistent-dhcps-fuzz");
    if_init();
    dhcps_pool_list_init();
    dhcps_lease_list_init();
    dhcps_settings_init();
    dhcps_set_sender(raw_sender);
    dhcps_set_udp_sender(udp_sender);
    hal_set_mac_port_lookup(mac_port);
    kq_time_set(NOW);

    fuzz_make_if("vlanif10", 5, "192.168.1.1/24");
    fuzz_make_if("vlanif20", 6, "10.0.20.1/24");
    dhcps_pool *p1 =
        make_pool("p1", "192.168.1.1", "192.168.1.0/24", "192.168.1.10", "192.168.1.20");
    require(dhcps_pool_add_static(nullptr, p1, "192.168.1.50", "02-00-00-00-00-50") == 0);
    require(dhcps_pool_add_static(nullptr, p1, "192.168.1.15", "02-00-00-00-00-15") == 0);
    p1->port_binds.push_back({nip("192.168.1.60"), static_cast<std::int32_t>(UIF_INDEX_BASE | 3)});
    p1->server_name = "boot-server";
    p1->boot_file = "pxelinux.0";
    dhcps_pool *p2 = make_pool("p2", "10.0.20.1", "10.0.20.0/24", "10.0.20.100", "10.0.20.102");
    p2->offer_time = 5;
    // Relayed networks: one small range, one behind circuit-id admission.
    dhcps_pool *p3 = make_pool("p3", "172.16.5.1", "172.16.5.0/24", "172.16.5.10", "172.16.5.12");
    p3->lease_time = 120;
    dhcps_pool *p4 = make_pool("p4", "10.0.30.1", "10.0.30.0/24", "10.0.30.10", "10.0.30.200");
    require(allow_add(&p4->allow_circuit_ids, "port1") == 0);
    require(allow_add(&p4->allow_circuit_ids, "vlan30-swp4") == 0);
    return true;
}

// Leases held from before: committed, expired, held for an offer, declined.
void seed_leases() {
    const std::uint8_t a[6] = {2, 0, 0, 0, 0, 1}, b[6] = {2, 0, 0, 0, 0, 2},
                       c[6] = {2, 0, 0, 0, 0, 3}, d[6] = {2, 0, 0, 0, 0, 4};
    dhcps_add_lease(a, nip("192.168.1.12"), 3600, NOW + 3600, "alpha", 5, 1, 0);
    dhcps_add_lease(b, nip("192.168.1.13"), 3600, NOW - 10, "beta", 4, 1, 0);
    dhcps_add_lease(c, nip("10.0.20.100"), 10, NOW + 10, nullptr, 0, 0, 0);
    dhcps_add_lease(nullptr, nip("172.16.5.11"), 60, NOW + 60, nullptr, 0, 0, 0);
    dhcps_add_lease(d, nip("172.16.5.10"), 120, NOW + 5, nullptr, 0, 1, 0);
}

void configure(std::uint8_t bits) {
    dhcps_lease_list_init();
    kq_time_set(NOW);
    dhcps_set_information(bits & 1);
    dhcps_set_relay_reply_port(bits & 2 ? DHCP_SERVER_PORT : DHCP_CLIENT_PORT);
    // Below the setter's range on purpose: the full-table paths are the
    // same at any size, and 8 is quickly reached.
    dhcps_global.max_lease_num = bits & 4 ? 8 : 4096;
    dhcp_debug = (bits >> 4) & 3;
    if (bits & 8) {
        seed_leases();
    }
}

void check_table() {
    require(dhcps_leases_check().empty());
    require(static_cast<std::uint32_t>(dhcps_get_leases_num()) <=
            std::max<std::uint32_t>(dhcps_global.max_lease_num, 5));
    dhcps_lease_foreach(
        [](const dhcps_lease &l) { require(some_pool_gives(dhcps_lease_nip(&l))); });
}

// Where a message arrives: the two interfaces, an address of none, none.
constexpr const char *LOCAL[4] = {"192.168.1.1", "10.0.20.1", "192.168.5.1", "0.0.0.0"};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const bool ready = set_up();
    (void)ready;
    if (size < 1) {
        return 0;
    }
    configure(data[0]);
    std::int32_t now = NOW;
    std::size_t pos = 1;
    while (pos + 4 <= size) {
        const std::uint32_t local = nip(LOCAL[data[pos] & 3]);
        now += data[pos + 1];
        std::size_t len = static_cast<std::size_t>(data[pos + 2]) << 8 | data[pos + 3];
        pos += 4;
        len = std::min({len, size - pos, sizeof(dhcp_packet)});
        dhcp_packet req{};
        std::memcpy(&req, data + pos, len);
        pos += len;

        kq_time_set(now);
        current = &req;
        const int rc = dhcps_handle_request(req, static_cast<int>(len), local);
        current = nullptr;
        require(rc == 0 || rc == -1);
        check_table();
    }
    dhcp_debug = 0;
    return 0;
}
