#include "dhcp_zebra.h"

#include <net/if.h>

#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcps_pool.h"
#include "lib/log.h"
#include "lib/zclient.h"

void (*dhcp_zebra_relay_teardown)(interface *ifp) = nullptr;

namespace {

constexpr int DHCP_ROUTE_TYPE = 16;  // our entry in the suite's route types

zclient_ptr dhcp_zc;

// A list node without its record is a fault of ours: stop, naming the walk.
#define DHCP_ASSERT_DATA(cond, text) \
    ((cond) ? (void)0 : _zlog_assert_failed(text, __FILE__, __LINE__, __func__))
#define NODE_DATA_TEXT "(node)->data != ((void *)0)"
#define ADDRNODE_DATA_TEXT "(addrnode)->data != ((void *)0)"

bool events_debug() {
    return dhcp_debug_on(DHCP_DEBUG_EVENTS);
}

// The network (masked) of an IPv4 prefix.
prefix network_of(const prefix *p) {
    prefix net = *p;
    apply_mask(&net);
    return net;
}

bool pool_has_network(const dhcps_pool *pool, const prefix &net) {
    return pool->prefix && prefix_same(as_prefix(pool->prefix.get()), &net) == 1;
}

// The first pool, in list order, whose network is `net`; only it is ever
// attached or detached for that network. `walker` names the caller in the
// assertion, as the walk is that caller's.
dhcps_pool *first_pool_of(const prefix &net, const char *walker) {
    for (const auto &pool : dhcps_pool_list()) {
        if (pool == nullptr) {
            _zlog_assert_failed(NODE_DATA_TEXT, __FILE__, __LINE__, walker);
        }
        if (pool_has_network(pool.get(), net)) {
            return pool.get();
        }
    }
    return nullptr;
}

void zebra_connected(zclient *zc) {
    zclient_send_requests(zc, VRF_DEFAULT);
}

int interface_add(int, zclient *zc, std::uint16_t, vrf_id_t vrf_id) {
    interface *ifp = zebra_interface_add_read(zc->ibuf.get(), vrf_id);
    if (ifp == nullptr) {
        return 0;
    }
    if (events_debug()) {
        zlog_debug("interface add %s index %d flags %llx metric %d mtu %d", ifp->name, ifp->ifindex,
                   static_cast<unsigned long long>(ifp->flags), ifp->metric,
                   static_cast<int>(ifp->mtu));
    }
    dhcp_attach_pool_by_intf(ifp);
    return 0;
}

int interface_delete(int, zclient *zc, std::uint16_t, vrf_id_t vrf_id) {
    interface *ifp = zebra_interface_state_read(zc->ibuf.get(), vrf_id);
    if (ifp == nullptr) {
        return 0;
    }
    if (if_is_up(ifp)) {
        zlog_warn("got delete of %s, but interface is still up", ifp->name);
    }
    if (events_debug()) {
        zlog_debug("interface delete %s index %d flags %llx metric %d mtu %d", ifp->name,
                   ifp->ifindex, static_cast<unsigned long long>(ifp->flags), ifp->metric,
                   static_cast<int>(ifp->mtu));
    }
    dhcp_interface_release(ifp);
    // The interface stays in the table (configuration may refer to it).
    ifp->ifindex = IFINDEX_INTERNAL;
    return 0;
}

int interface_up(int, zclient *zc, std::uint16_t, vrf_id_t vrf_id) {
    interface *ifp = zebra_interface_state_read(zc->ibuf.get(), vrf_id);
    if (ifp == nullptr) {
        zlog_warn("zebra_interface_state_read retrun ifp == NULL!");
        return -1;
    }
    if (events_debug()) {
        zlog_debug("interface %s index %d flags %#llx metric %d mtu %d is up", ifp->name,
                   ifp->ifindex, static_cast<unsigned long long>(ifp->flags), ifp->metric,
                   static_cast<int>(ifp->mtu));
    }
    return 0;
}

int interface_down(int, zclient *zc, std::uint16_t, vrf_id_t vrf_id) {
    interface *ifp = zebra_interface_state_read(zc->ibuf.get(), vrf_id);
    if (ifp == nullptr) {
        zlog_warn("zebra_interface_state_read retrun ifp == NULL!");
        return -1;
    }
    if (events_debug()) {
        zlog_debug("Interface[%s] state change to down.", ifp->name);
    }
    return 0;
}

const char *ifname(const connected *c) {
    return c->ifp ? c->ifp->name : "";
}

// An address came or went: trace it, then bind or unbind the pool of its
// network (IPv4 only).
int address_event(int command, zclient *zc, vrf_id_t vrf_id, const char *what,
                  void (*act)(interface *, const prefix *)) {
    connected *c = zebra_interface_address_read(command, zc->ibuf.get(), vrf_id);
    if (c == nullptr || !c->address) {
        return 0;
    }
    if (events_debug()) {
        char buf[PREFIX_STRLEN] = "";
        prefix2str(c->address.get(), buf, sizeof buf);
        zlog_debug("interface %s address %s %s", ifname(c), what, buf);
    }
    if (c->address->family == AF_INET) {
        act(c->ifp, dhcps_attach_prefix(c));
    }
    return 0;
}

int interface_address_add(int command, zclient *zc, std::uint16_t, vrf_id_t vrf_id) {
    return address_event(command, zc, vrf_id, "add", dhcp_attach_pool);
}

int interface_address_delete(int command, zclient *zc, std::uint16_t, vrf_id_t vrf_id) {
    return address_event(command, zc, vrf_id, "delete", dhcp_detach_pool);
}

}  // namespace

void dhcp_zebra_init(thread_master *master) {
    dhcp_zc.reset(zclient_new(master));
    zclient *zc = dhcp_zc.get();
    zc->zebra_connected = zebra_connected;
    zc->interface_add = interface_add;
    zc->interface_delete = interface_delete;
    zc->interface_up = interface_up;
    zc->interface_down = interface_down;
    zc->interface_address_add = interface_address_add;
    zc->interface_address_delete = interface_address_delete;
    zclient_init(zc, DHCP_ROUTE_TYPE);
}

void dhcp_zebra_terminate() {
    dhcp_zc.reset();
}

zclient *dhcp_zclient() {
    return dhcp_zc.get();
}

void dhcp_attach_pool(interface *ifp, const prefix *prefix) {
    if (prefix == nullptr || prefix->family != AF_INET) {
        return;
    }
    if (dhcps_pool *pool = first_pool_of(network_of(prefix), __func__)) {
        dhcps_pool_set_interface(pool, ifp, prefix);
    }
}

void dhcp_attach_pool_by_intf(interface *ifp) {
    if (ifp == nullptr) {
        return;
    }
    for (const auto &pool : dhcps_pool_list()) {
        DHCP_ASSERT_DATA(pool != nullptr, NODE_DATA_TEXT);
        for (const auto &c : ifp->connected) {
            DHCP_ASSERT_DATA(c != nullptr, ADDRNODE_DATA_TEXT);
            if (!c->address || c->address->family != AF_INET) {
                continue;
            }
            const prefix *p = dhcps_attach_prefix(c.get());
            if (pool_has_network(pool.get(), network_of(p))) {
                dhcps_pool_set_interface(pool.get(), ifp, p);
                return;
            }
        }
    }
}

void dhcp_detach_pool(interface *, const prefix *prefix) {
    if (prefix == nullptr || prefix->family != AF_INET) {
        return;
    }
    if (dhcps_pool *pool = first_pool_of(network_of(prefix), __func__)) {
        dhcps_pool_clear_interface(pool);
    }
}

void dhcp_detach_pool_by_intf(interface *ifp) {
    if (ifp == nullptr) {
        return;
    }
    for (const auto &pool : dhcps_pool_list()) {
        DHCP_ASSERT_DATA(pool != nullptr, NODE_DATA_TEXT);
        if (pool->interface == ifp) {
            dhcps_pool_clear_interface(pool.get());
            return;
        }
    }
}

void dhcp_interface_release(interface *ifp) {
    if (ifp == nullptr) {
        return;
    }
    // Normally one pool at most; an interface holding addresses of two
    // pools' networks carries both, and neither may keep pointing at it.
    for (const auto &pool : dhcps_pool_list()) {
        DHCP_ASSERT_DATA(pool != nullptr, NODE_DATA_TEXT);
        if (pool->interface == ifp) {
            dhcps_pool_clear_interface(pool.get());
        }
    }
    if (ifp->info != nullptr && dhcp_zebra_relay_teardown != nullptr) {
        dhcp_zebra_relay_teardown(ifp);
    }
}

void dhcp_interface_forget(interface *ifp) {
    if (ifp == nullptr) {
        return;
    }
    const bool reported = ifp->ifindex != IFINDEX_INTERNAL;
    dhcp_interface_release(ifp);
    if_delete(ifp);
    if (reported) {
        zclient_send_requests(dhcp_zclient(), VRF_DEFAULT);
    }
}

int dhcp_connected_check(const interface *ifp, std::uint32_t address) {
    if (ifp == nullptr) {
        zlog_warn("The input pointer is NULL!");
        return 0;
    }
    for (const auto &c : ifp->connected) {
        DHCP_ASSERT_DATA(c != nullptr, ADDRNODE_DATA_TEXT);
        if (c->address && c->address->family == AF_INET &&
            c->address->u.prefix4.s_addr == address) {
            return 1;
        }
    }
    return 0;
}
