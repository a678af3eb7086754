// Messages of the interface manager through the daemon's client: rtnetlink
// datagrams as read from its socket, and interface-manager messages as
// handed to its callbacks, with the daemon's interface and address tracking
// behind them (pools attach and detach, relay bindings are torn down).
//
// After every message: each interface of the table is found by its name
// (and, with an index, by that index); each attached pool's interface is in
// the table and holds the address the pool serves from; each relay binding
// sits on an interface of the table.
//
// Input: records {kind (bit 0: rtnetlink datagram, else interface-manager
// message), length (2 bytes, big-endian), bytes...}; the bytes are cut at
// the input's end and copied to a buffer of their exact size.
#include <arpa/inet.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <vector>

#include "fuzz/fuzz_common.h"
#include "dhcp/dhcp_options.h"
#include "dhcp/dhcp_zebra.h"
#include "dhcp/dhcpr.h"
#include "dhcp/dhcps_pool.h"
#include "lib/if.h"
#include "lib/log.h"
#include "lib/prefix.h"
#include "lib/sockunion.h"
#include "lib/thread.h"
#include "lib/zclient.h"
#include "platform/uif.h"

namespace {

thread_master *master = nullptr;

void make_pool(const char *name, const char *router, const char *net) {
    dhcps_pool *p = dhcps_pool_get(name);
    in_addr r{};
    inet_pton(AF_INET, router, &r);
    dhcp_attach_option(p->options, dhcp_option{0x31, DHCP_ROUTER},
                       std::span(reinterpret_cast<const std::uint8_t *>(&r.s_addr), 4));
    prefix_ipv4 pfx{};
    str2prefix_ipv4(net, &pfx);
    require(dhcps_network(p, &pfx) == 0);
}

bool set_up() {
    fuzz_quiet_log();
    uif_set_sysfs_root("/nonexistent-zclient-fuzz");
    // The master is never run: the client's connection event never opens
    // a socket, every message comes from the input.
    master = thread_master_create();
    if_init();
    dhcps_pool_list_init();
    dhcpr_init(nullptr);
    make_pool("a", "192.168.1.1", "192.168.1.0/24");
    make_pool("b", "10.0.0.1", "10.0.0.0/8");
    return true;
}

// A relay binding on vlanif10 and vlanif20, as the operator leaves them.
void start() {
    dhcp_zebra_init(master);
    sockunion server{};
    str2sockunion("10.0.20.2", &server);
    dhcpr_if_relay_set(if_get_by_name("vlanif10"), &server);
    dhcpr_if_relay_set(if_get_by_name("vlanif20"), &server);
}

void stop() {
    for (const auto &p : dhcps_pool_list()) {
        dhcps_pool_clear_interface(p.get());
    }
    dhcpr_reset();
    dhcp_zebra_terminate();
    if_terminate();
    if_init();
}

bool serves_from(const interface *ifp, std::uint32_t server_ip) {
    for (const auto &c : ifp->connected) {
        const prefix *p = dhcps_attach_prefix(c.get());
        if (p != nullptr && p->family == AF_INET && p->u.prefix4.s_addr == server_ip) {
            return true;
        }
    }
    return false;
}

void check() {
    const std::vector<interface *> all = vrf_iflist(VRF_DEFAULT);
    for (interface *ifp : all) {
        require(if_lookup_by_name(ifp->name) == ifp);
        if (ifp->ifindex != IFINDEX_INTERNAL) {
            require(if_lookup_by_index(ifp->ifindex) != nullptr);
        }
    }
    for (const auto &p : dhcps_pool_list()) {
        if (p->interface != nullptr) {
            require(std::find(all.begin(), all.end(), p->interface) != all.end());
            require(serves_from(p->interface, p->server_ip));
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const bool ready = set_up();
    (void)ready;
    start();
    zclient *zc = dhcp_zclient();
    std::size_t pos = 0;
    while (pos + 3 <= size) {
        const bool netlink = (data[pos] & 1) != 0;
        std::size_t len = static_cast<std::size_t>(data[pos + 1]) << 8 | data[pos + 2];
        pos += 3;
        len = std::min(len, size - pos);
        const std::vector<std::uint8_t> msg(data + pos, data + pos + len);
        pos += len;
        if (netlink) {
            const int n = zclient_netlink_input(zc, msg);
            require(n >= 0);
        } else {
            zclient_deliver(zc, msg);
        }
        check();
    }
    stop();
    return 0;
}
