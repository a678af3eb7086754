// Interface and address tracking: pools attached and detached as interfaces
// and addresses come and go, the event traces, and the own-address check.
// Events enter as rtnetlink datagrams through the daemon's own client, as
// the kernel would send them.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sched.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_zebra.h"
#include "dhcp/dhcps.h"
#include "dhcp/dhcps_leases.h"
#include "dhcp/dhcps_pool.h"
#include "lib/if.h"
#include "lib/log.h"
#include "lib/thread.h"
#include "lib/zclient.h"

namespace {

constexpr unsigned kUp = IFF_UP | IFF_BROADCAST | IFF_MULTICAST;  // 0x1003

std::uint32_t nip(const char *a) {
    in_addr v{};
    EXPECT_EQ(inet_pton(AF_INET, a, &v), 1);
    return v.s_addr;
}

prefix pfx(const char *text) {
    prefix p{};
    EXPECT_EQ(str2prefix(text, &p), 1);
    return p;
}

// One rtnetlink datagram, built the way the kernel lays it out.
class Datagram {
  public:
    Datagram &link(std::uint16_t type, int index, const char *name, unsigned flags,
                   unsigned mtu = 1500) {
        nlmsghdr *nlh = begin(type);
        auto *ifi = static_cast<ifinfomsg *>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
        ifi->ifi_family = AF_UNSPEC;
        ifi->ifi_index = index;
        ifi->ifi_flags = flags;
        mnl_attr_put_strz(nlh, IFLA_IFNAME, name);
        mnl_attr_put_u32(nlh, IFLA_MTU, mtu);
        end(nlh);
        return *this;
    }
    // `peer` null: an address of its own (IFA_ADDRESS = IFA_LOCAL).
    Datagram &addr(std::uint16_t type, int index, const char *text, const char *peer = nullptr) {
        prefix p = pfx(text);
        nlmsghdr *nlh = begin(type);
        auto *ifa = static_cast<ifaddrmsg *>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifaddrmsg)));
        ifa->ifa_family = p.family;
        ifa->ifa_prefixlen = p.prefixlen;
        ifa->ifa_index = static_cast<unsigned>(index);
        std::size_t n = p.family == AF_INET ? 4 : 16;
        if (peer != nullptr) {
            prefix q = pfx(peer);
            mnl_attr_put(nlh, IFA_ADDRESS, n, q.u.val);
        } else {
            mnl_attr_put(nlh, IFA_ADDRESS, n, p.u.val);
        }
        if (p.family == AF_INET) {
            mnl_attr_put(nlh, IFA_LOCAL, n, p.u.val);
        }
        end(nlh);
        return *this;
    }
    std::span<const std::uint8_t> bytes() const { return {mem_.data(), used_}; }

  private:
    nlmsghdr *begin(std::uint16_t type) {
        nlmsghdr *nlh = mnl_nlmsg_put_header(mem_.data() + used_);
        nlh->nlmsg_type = type;
        return nlh;
    }
    void end(nlmsghdr *nlh) { used_ += MNL_ALIGN(nlh->nlmsg_len); }

    alignas(8) std::array<std::uint8_t, 8192> mem_{};
    std::size_t used_ = 0;
};

interface *relay_torn_down = nullptr;
void fake_relay_teardown(interface *ifp) {
    relay_torn_down = ifp;
    ifp->info = nullptr;
}

struct Tracking : ::testing::Test {
    thread_master *m = thread_master_create();
    std::vector<std::pair<int, std::string>> log;

    Tracking() {
        if_init();
        dhcps_pool_list_init();
        dhcps_lease_list_init();
        dhcps_settings_init();
        dhcp_debug = DHCP_DEBUG_EVENTS;
        relay_torn_down = nullptr;
        dhcp_zebra_relay_teardown = nullptr;
        dhcp_zebra_init(m);
        zlog_set_hook([this](int prio, std::string_view t) { log.emplace_back(prio, t); });
    }
    ~Tracking() override {
        zlog_set_hook({});
        dhcp_zebra_terminate();
        thread_master_free(m);
        dhcp_zebra_relay_teardown = nullptr;
        dhcp_debug = 0;
        dhcps_pool_list_free();
        dhcps_lease_list_free();
        if_terminate();
    }

    void feed(const Datagram &d) { zclient_netlink_input(dhcp_zclient(), d.bytes()); }
    // Hands our own interface message to the daemon's callbacks.
    int deliver_interface(std::uint16_t command, const char *name, int index, unsigned flags) {
        zapi_interface z;
        std::strncpy(z.name, name, INTERFACE_NAMSIZ);
        z.ifindex = index;
        z.flags = flags;
        z.mtu = 1500;
        auto s = stream_new(ZEBRA_MAX_PACKET_SIZ);
        zapi_interface_encode(s.get(), command, VRF_DEFAULT, z);
        return zclient_deliver(dhcp_zclient(), stream_data(s.get()));
    }
    int deliver_address(std::uint16_t command, int index, const char *text) {
        zapi_address z;
        z.ifindex = index;
        z.address = pfx(text);
        auto s = stream_new(ZEBRA_MAX_PACKET_SIZ);
        zapi_address_encode(s.get(), command, VRF_DEFAULT, z);
        return zclient_deliver(dhcp_zclient(), stream_data(s.get()));
    }

    static dhcps_pool *pool(const char *name, const char *network) {
        dhcps_pool *p = dhcps_pool_create(name, std::strlen(name));
        EXPECT_NE(p, nullptr);
        auto net = std::make_unique<prefix_ipv4>();
        EXPECT_EQ(str2prefix_ipv4(network, net.get()), 1);
        apply_mask_ipv4(net.get());
        p->server_ip = p->next_server = net->prefix.s_addr;
        p->prefix = std::move(net);
        return p;
    }
    static void expect_attached(const dhcps_pool *p, const interface *ifp, const char *server) {
        EXPECT_EQ(p->interface, ifp) << p->name;
        EXPECT_EQ(p->ifindex, ifp ? ifp->ifindex : 0) << p->name;
        EXPECT_EQ(p->server_ip, nip(server)) << p->name;
        EXPECT_EQ(p->next_server, nip(server)) << p->name;
    }
    static void expect_detached(const dhcps_pool *p) {
        EXPECT_EQ(p->interface, nullptr) << p->name;
        EXPECT_EQ(p->ifindex, 0) << p->name;
        EXPECT_EQ(p->server_ip, p->prefix->prefix.s_addr) << p->name;
    }
    std::vector<std::string> lines(int prio) const {
        std::vector<std::string> out;
        for (auto &[p, t] : log) {
            if (p == prio) {
                out.push_back(t);
            }
        }
        return out;
    }
    interface *vlanif10_up() {
        feed(Datagram().link(RTM_NEWLINK, 7, "vlanif10", kUp));
        return if_lookup_by_name("vlanif10");
    }
};

using Lines = std::vector<std::string>;

// ---- set-up ---------------------------------------------------------------------

TEST_F(Tracking, InitSetsTheSevenCallbacksAndRouteType16) {
    zclient *zc = dhcp_zclient();
    ASSERT_NE(zc, nullptr);
    EXPECT_EQ(zc->redist_default, 16);
    EXPECT_EQ(zc->enable, 1);
    EXPECT_NE(zc->zebra_connected, nullptr);
    EXPECT_NE(zc->interface_add, nullptr);
    EXPECT_NE(zc->interface_delete, nullptr);
    EXPECT_NE(zc->interface_up, nullptr);
    EXPECT_NE(zc->interface_down, nullptr);
    EXPECT_NE(zc->interface_address_add, nullptr);
    EXPECT_NE(zc->interface_address_delete, nullptr);
    // The connection itself is an event on the master, nothing opened yet.
    EXPECT_EQ(thread_count(m), 1u);
    EXPECT_EQ(zclient_connected(zc), 0);
}

// ---- event traces ------------------------------------------------------------------

TEST_F(Tracking, EventTracesAreDebugLinesOfTheEventsBit) {
    feed(Datagram().link(RTM_NEWLINK, 7, "vlanif10", IFF_BROADCAST | IFF_MULTICAST));
    feed(Datagram().link(RTM_NEWLINK, 7, "vlanif10", kUp));
    feed(Datagram().addr(RTM_NEWADDR, 7, "192.168.1.1/24"));
    feed(Datagram().addr(RTM_DELADDR, 7, "192.168.1.1/24"));
    feed(Datagram().link(RTM_NEWLINK, 7, "vlanif10", IFF_BROADCAST | IFF_MULTICAST, 1400));
    feed(Datagram().link(RTM_DELLINK, 7, "vlanif10", IFF_BROADCAST | IFF_MULTICAST, 1400));
    EXPECT_EQ(lines(LOG_DEBUG),
              (Lines{
                  "interface add vlanif10 index 7 flags 1002 metric 0 mtu 1500",
                  "interface vlanif10 index 7 flags 0x1003 metric 0 mtu 1500 is up",
                  "interface vlanif10 address add 192.168.1.1/24",
                  "interface vlanif10 address delete 192.168.1.1/24",
                  "Interface[vlanif10] state change to down.",
                  "interface delete vlanif10 index 7 flags 1002 metric 0 mtu 1400",
              }));
    EXPECT_TRUE(lines(LOG_WARNING).empty());
    EXPECT_EQ(log.size(), 6u);
}

TEST_F(Tracking, WithoutTheEventsBitNothingIsLogged) {
    dhcp_debug = DHCP_DEBUG_PACKET | DHCP_DEBUG_INTERFACE | DHCP_DEBUG_TIMER;
    dhcps_pool *p = pool("p1", "192.168.1.0/24");
    interface *ifp = vlanif10_up();
    feed(Datagram().addr(RTM_NEWADDR, 7, "192.168.1.1/24"));
    expect_attached(p, ifp, "192.168.1.1");
    feed(Datagram().link(RTM_NEWLINK, 7, "vlanif10", 0));
    feed(Datagram().addr(RTM_DELADDR, 7, "192.168.1.1/24"));
    feed(Datagram().link(RTM_DELLINK, 7, "vlanif10", 0));
    expect_detached(p);
    EXPECT_TRUE(log.empty());
}

// ---- attach and detach -------------------------------------------------------------

TEST_F(Tracking, AddressAddAttachesThePoolOfItsNetworkAndDeleteDetachesIt) {
    dhcps_pool *p = pool("p1", "192.168.1.0/24");
    dhcps_pool *other = pool("p2", "192.168.2.0/24");
    interface *ifp = vlanif10_up();
    expect_detached(p);
    feed(Datagram().addr(RTM_NEWADDR, 7, "192.168.1.1/24"));
    expect_attached(p, ifp, "192.168.1.1");
    expect_detached(other);
    feed(Datagram().addr(RTM_DELADDR, 7, "192.168.1.1/24"));
    expect_detached(p);
}

TEST_F(Tracking, AddressOutsideEveryNetworkAttachesNothing) {
    dhcps_pool *p = pool("p1", "192.168.1.0/24");
    vlanif10_up();
    feed(Datagram().addr(RTM_NEWADDR, 7, "192.168.1.1/25"));  // another network: /25
    feed(Datagram().addr(RTM_NEWADDR, 7, "10.0.0.1/24"));
    expect_detached(p);
}

TEST_F(Tracking, TwoPoolsWithTheSameNetworkOnlyTheFirstIsEverTouched) {
    dhcps_pool *b = pool("b", "192.168.1.0/24");
    dhcps_pool *a = pool("a", "192.168.1.0/24");  // sorts first
    interface *ifp = vlanif10_up();
    feed(Datagram().addr(RTM_NEWADDR, 7, "192.168.1.1/24"));
    expect_attached(a, ifp, "192.168.1.1");
    expect_detached(b);
    // b attached by other means stays so when the address goes.
    prefix addr = pfx("192.168.1.1/24");
    dhcps_pool_set_interface(b, ifp, &addr);
    feed(Datagram().addr(RTM_DELADDR, 7, "192.168.1.1/24"));
    expect_detached(a);
    expect_attached(b, ifp, "192.168.1.1");
    // By interface: the first pool attached to it, and only that one.
    dhcps_pool_set_interface(a, ifp, &addr);
    dhcp_detach_pool_by_intf(ifp);
    expect_detached(a);
    expect_attached(b, ifp, "192.168.1.1");
}

TEST_F(Tracking, InterfaceWithTwoAddressesInTwoPoolsAttachesOnlyTheFirstPool) {
    dhcps_pool *p1 = pool("p1", "10.0.0.0/24");
    dhcps_pool *p2 = pool("p2", "192.168.1.0/24");
    // The table knows both addresses before the kernel reports the link.
    interface *ifp = if_get_by_name("vlanif10");
    prefix a1 = pfx("192.168.1.1/24"), a2 = pfx("10.0.0.1/24");
    connected_add(ifp, 0, &a1, nullptr);
    connected_add(ifp, 0, &a2, nullptr);
    feed(Datagram().link(RTM_NEWLINK, 7, "vlanif10", kUp));
    // Pools in list order first: p1 matches the second address.
    expect_attached(p1, ifp, "10.0.0.1");
    expect_detached(p2);
    // p2 comes with its own address event.
    EXPECT_EQ(deliver_address(ZEBRA_INTERFACE_ADDRESS_ADD, 7, "192.168.1.1/24"), 0);
    expect_attached(p2, ifp, "192.168.1.1");
    expect_attached(p1, ifp, "10.0.0.1");
}

TEST_F(Tracking, InterfaceAddAttachesThroughItsKnownAddresses) {
    dhcps_pool *p = pool("p1", "192.168.1.0/24");
    interface *ifp = if_get_by_name("vlanif10");
    prefix v6 = pfx("2001:db8::1/64"), v4 = pfx("192.168.1.1/24");
    connected_add(ifp, 0, &v6, nullptr);
    connected_add(ifp, 0, &v4, nullptr);
    feed(Datagram().link(RTM_NEWLINK, 7, "vlanif10", kUp));
    expect_attached(p, ifp, "192.168.1.1");
    EXPECT_EQ(p->ifindex, 7);
}

TEST_F(Tracking, AddressDeleteOnAnotherInterfaceDetachesThePool) {
    dhcps_pool *p = pool("p1", "192.168.1.0/24");
    interface *a = vlanif10_up();
    feed(Datagram().link(RTM_NEWLINK, 8, "vlanif20", kUp));
    feed(Datagram().addr(RTM_NEWADDR, 7, "192.168.1.1/24"));
    expect_attached(p, a, "192.168.1.1");
    // vlanif20 briefly holds an address of the same network.
    feed(Datagram().addr(RTM_NEWADDR, 8, "192.168.1.2/24"));
    expect_attached(p, if_lookup_by_name("vlanif20"), "192.168.1.2");
    dhcp_attach_pool(a, a->connected[0]->address.get());
    expect_attached(p, a, "192.168.1.1");
    feed(Datagram().addr(RTM_DELADDR, 8, "192.168.1.2/24"));
    expect_detached(p);
    EXPECT_EQ(a->connected.size(), 1u);
}

TEST_F(Tracking, PeerAddressMatchesOnItsDestination) {
    dhcps_pool *own = pool("a-own", "10.0.0.0/24");
    dhcps_pool *far = pool("b-far", "192.168.5.0/24");
    interface *ifp = vlanif10_up();
    feed(Datagram().addr(RTM_NEWADDR, 7, "10.0.0.1/24", "192.168.5.2"));
    ASSERT_EQ(ifp->connected.size(), 1u);
    EXPECT_TRUE(CONNECTED_PEER(ifp->connected[0].get()));
    EXPECT_EQ(lines(LOG_DEBUG).back(), "interface vlanif10 address add 10.0.0.1/24");
    expect_detached(own);
    expect_attached(far, ifp, "192.168.5.2");
    // The same on interface add, through the table.
    dhcps_pool_clear_interface(far);
    dhcp_attach_pool_by_intf(ifp);
    expect_attached(far, ifp, "192.168.5.2");
    expect_detached(own);
    feed(Datagram().addr(RTM_DELADDR, 7, "10.0.0.1/24", "192.168.5.2"));
    expect_detached(far);
}

// The network command and the address events take the same prefix from a
// point-to-point entry: the peer's, whose address becomes server_ip.
TEST_F(Tracking, EveryAttachPathGivesAPeerPoolThePeersAddress) {
    interface *ifp = vlanif10_up();
    feed(Datagram().addr(RTM_NEWADDR, 7, "10.0.0.1/24", "192.168.5.2"));
    // "network" on a pool made after the address was learned.
    dhcps_pool *p = dhcps_pool_get("p5");
    const std::uint32_t router = nip("192.168.5.1");
    dhcp_attach_option(p->options, dhcp_option{0x31, DHCP_ROUTER},
                       {reinterpret_cast<const std::uint8_t *>(&router), 4});
    prefix_ipv4 net{};
    ASSERT_EQ(str2prefix_ipv4("192.168.5.0/24", &net), 1);
    ASSERT_EQ(dhcps_network(p, &net), 0);
    expect_attached(p, ifp, "192.168.5.2");
    // The address event.
    feed(Datagram().addr(RTM_DELADDR, 7, "10.0.0.1/24", "192.168.5.2"));
    expect_detached(p);
    feed(Datagram().addr(RTM_NEWADDR, 7, "10.0.0.1/24", "192.168.5.2"));
    expect_attached(p, ifp, "192.168.5.2");
    // Interface add, through the table.
    dhcps_pool_clear_interface(p);
    dhcp_attach_pool_by_intf(ifp);
    expect_attached(p, ifp, "192.168.5.2");
}

TEST_F(Tracking, Ipv6AddressesAreLoggedButNeverAttach) {
    dhcps_pool *p = pool("p1", "0.0.0.0/0");  // would take any IPv4 network
    interface *ifp = vlanif10_up();
    feed(Datagram().addr(RTM_NEWADDR, 7, "2001:db8::1/64"));
    EXPECT_EQ(lines(LOG_DEBUG).back(), "interface vlanif10 address add 2001:db8::1/64");
    expect_detached(p);
    ASSERT_EQ(ifp->connected.size(), 1u);
    dhcp_attach_pool_by_intf(ifp);
    expect_detached(p);
    dhcp_attach_pool(ifp, ifp->connected[0]->address.get());
    expect_detached(p);
    EXPECT_EQ(dhcp_connected_check(ifp, 0), 0);
    feed(Datagram().addr(RTM_DELADDR, 7, "2001:db8::1/64"));
    EXPECT_EQ(lines(LOG_DEBUG).back(), "interface vlanif10 address delete 2001:db8::1/64");
    EXPECT_TRUE(ifp->connected.empty());
}

TEST_F(Tracking, UpAndDownLeaveAttachmentAlone) {
    dhcps_pool *p = pool("p1", "192.168.1.0/24");
    interface *ifp = vlanif10_up();
    feed(Datagram().addr(RTM_NEWADDR, 7, "192.168.1.1/24"));
    feed(Datagram().link(RTM_NEWLINK, 7, "vlanif10", 0));
    expect_attached(p, ifp, "192.168.1.1");
    EXPECT_EQ(if_is_up(ifp), 0);
    feed(Datagram().link(RTM_NEWLINK, 7, "vlanif10", kUp));
    expect_attached(p, ifp, "192.168.1.1");
}

// ---- interface delete ---------------------------------------------------------------

TEST_F(Tracking, DeleteDetachesClearsTheIndexAndKeepsTheInterface) {
    dhcps_pool *p = pool("p1", "192.168.1.0/24");
    interface *ifp = vlanif10_up();
    feed(Datagram().addr(RTM_NEWADDR, 7, "192.168.1.1/24"));
    log.clear();
    // The delete alone, the address still listed: the pool goes with its interface.
    EXPECT_EQ(deliver_interface(ZEBRA_INTERFACE_DELETE, "vlanif10", 7, 0), 0);
    expect_detached(p);
    EXPECT_EQ(if_lookup_by_name("vlanif10"), ifp);
    EXPECT_EQ(ifp->ifindex, IFINDEX_INTERNAL);
    EXPECT_EQ(lines(LOG_DEBUG),
              Lines{"interface delete vlanif10 index 7 flags 0 metric 0 mtu 1500"});
    EXPECT_TRUE(lines(LOG_WARNING).empty());
    // Made again: same record, new index, pool back through its address.
    feed(Datagram().link(RTM_NEWLINK, 21, "vlanif10", kUp));
    EXPECT_EQ(if_lookup_by_name("vlanif10"), ifp);
    expect_attached(p, ifp, "192.168.1.1");
    EXPECT_EQ(p->ifindex, 21);
}

TEST_F(Tracking, KernelDeleteWithdrawsLeftoverAddressesFirst) {
    dhcps_pool *p = pool("p1", "192.168.1.0/24");
    interface *ifp = vlanif10_up();
    feed(Datagram().addr(RTM_NEWADDR, 7, "192.168.1.1/24"));
    feed(Datagram().link(RTM_NEWLINK, 7, "vlanif10", 0));
    log.clear();
    feed(Datagram().link(RTM_DELLINK, 7, "vlanif10", 0));
    EXPECT_EQ(lines(LOG_DEBUG),
              (Lines{"interface vlanif10 address delete 192.168.1.1/24",
                     "interface delete vlanif10 index 7 flags 0 metric 0 mtu 1500"}));
    expect_detached(p);
    EXPECT_TRUE(ifp->connected.empty());
    EXPECT_EQ(ifp->ifindex, IFINDEX_INTERNAL);
    // Made again without an address: nothing to attach.
    feed(Datagram().link(RTM_NEWLINK, 21, "vlanif10", kUp));
    expect_detached(p);
}

TEST_F(Tracking, DeleteWhileUpWarnsAndGoesOn) {
    dhcps_pool *p = pool("p1", "192.168.1.0/24");
    interface *ifp = vlanif10_up();
    feed(Datagram().addr(RTM_NEWADDR, 7, "192.168.1.1/24"));
    log.clear();
    EXPECT_EQ(deliver_interface(ZEBRA_INTERFACE_DELETE, "vlanif10", 7, kUp), 0);
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(log[0],
              std::make_pair(LOG_WARNING,
                             std::string("got delete of vlanif10, but interface is still up")));
    EXPECT_EQ(log[1],
              std::make_pair(LOG_DEBUG, std::string("interface delete vlanif10 index 7 flags 1003 "
                                                    "metric 0 mtu 1500")));
    expect_detached(p);
    EXPECT_EQ(ifp->ifindex, IFINDEX_INTERNAL);

    // From the kernel too, and whether or not debugging is on.
    dhcp_debug = 0;
    feed(Datagram().link(RTM_NEWLINK, 7, "vlanif10", kUp));
    log.clear();
    feed(Datagram().link(RTM_DELLINK, 7, "vlanif10", kUp));
    EXPECT_EQ(log, (std::vector<std::pair<int, std::string>>{
                       {LOG_WARNING, "got delete of vlanif10, but interface is still up"}}));
    EXPECT_EQ(ifp->ifindex, IFINDEX_INTERNAL);
}

TEST_F(Tracking, DeleteDetachesOnlyThePoolOfThatInterface) {
    dhcps_pool *p1 = pool("p1", "192.168.1.0/24");
    dhcps_pool *p2 = pool("p2", "192.168.2.0/24");
    interface *a = vlanif10_up();
    feed(Datagram().link(RTM_NEWLINK, 8, "vlanif20", kUp));
    interface *b = if_lookup_by_name("vlanif20");
    feed(Datagram().addr(RTM_NEWADDR, 7, "192.168.1.1/24"));
    feed(Datagram().addr(RTM_NEWADDR, 8, "192.168.2.1/24"));
    EXPECT_EQ(deliver_interface(ZEBRA_INTERFACE_DELETE, "vlanif20", 8, 0), 0);
    expect_attached(p1, a, "192.168.1.1");
    expect_detached(p2);
    EXPECT_EQ(b->ifindex, IFINDEX_INTERNAL);
    EXPECT_EQ(b->connected.size(), 1u);  // detached through the interface, not the address
}

TEST_F(Tracking, DeleteHandsABoundInterfaceToTheRelayTeardown) {
    interface *ifp = vlanif10_up();
    feed(Datagram().link(RTM_DELLINK, 7, "vlanif10", 0));
    EXPECT_EQ(relay_torn_down, nullptr);  // no hook yet: nothing to do

    feed(Datagram().link(RTM_NEWLINK, 7, "vlanif10", 0));
    int binding = 1;
    ifp->info = &binding;
    feed(Datagram().link(RTM_DELLINK, 7, "vlanif10", 0));
    EXPECT_EQ(ifp->info, &binding);  // without the relay the slot is left alone

    dhcp_zebra_relay_teardown = fake_relay_teardown;
    feed(Datagram().link(RTM_NEWLINK, 7, "vlanif10", 0));
    feed(Datagram().link(RTM_DELLINK, 7, "vlanif10", 0));
    EXPECT_EQ(relay_torn_down, ifp);
    EXPECT_EQ(ifp->info, nullptr);

    relay_torn_down = nullptr;
    feed(Datagram().link(RTM_NEWLINK, 7, "vlanif10", 0));
    feed(Datagram().link(RTM_DELLINK, 7, "vlanif10", 0));
    EXPECT_EQ(relay_torn_down, nullptr);  // empty slot: not called
}

TEST_F(Tracking, DeleteDetachesEveryPoolAttachedToTheInterface) {
    dhcps_pool *p1 = pool("p1", "192.168.1.0/24");
    dhcps_pool *p2 = pool("p2", "192.168.2.0/24");
    interface *ifp = vlanif10_up();
    feed(Datagram().addr(RTM_NEWADDR, 7, "192.168.1.1/24"));
    feed(Datagram().addr(RTM_NEWADDR, 7, "192.168.2.1/24"));
    expect_attached(p1, ifp, "192.168.1.1");
    expect_attached(p2, ifp, "192.168.2.1");
    // The delete alone, both addresses still listed.
    EXPECT_EQ(deliver_interface(ZEBRA_INTERFACE_DELETE, "vlanif10", 7, 0), 0);
    expect_detached(p1);
    expect_detached(p2);
}

// ---- the operator's delete ("no interface IFNAME") ----------------------------------

TEST_F(Tracking, ForgetReleasesLikeTheManagersDeleteAndDropsTheRecord) {
    dhcps_pool *p1 = pool("p1", "192.168.1.0/24");
    dhcps_pool *p2 = pool("p2", "192.168.2.0/24");
    interface *ifp = vlanif10_up();
    feed(Datagram().link(RTM_NEWLINK, 8, "vlanif20", kUp));
    interface *other = if_lookup_by_name("vlanif20");
    feed(Datagram().addr(RTM_NEWADDR, 7, "192.168.1.1/24"));
    feed(Datagram().addr(RTM_NEWADDR, 8, "192.168.2.1/24"));
    int binding = 1;
    ifp->info = &binding;
    dhcp_zebra_relay_teardown = fake_relay_teardown;
    log.clear();
    dhcp_interface_forget(ifp);
    EXPECT_EQ(if_lookup_by_name("vlanif10"), nullptr);
    EXPECT_EQ(relay_torn_down, ifp);  // compared as an address only: the record is gone
    expect_detached(p1);
    expect_attached(p2, other, "192.168.2.1");
    EXPECT_TRUE(log.empty());
    dhcp_interface_forget(nullptr);
    dhcp_interface_release(nullptr);
}

// ---- unknown interfaces ---------------------------------------------------------------

TEST_F(Tracking, UpOrDownOfAnUnknownInterfaceWarnsAndFails) {
    EXPECT_EQ(deliver_interface(ZEBRA_INTERFACE_UP, "vlanif99", 99, kUp), -1);
    EXPECT_EQ(deliver_interface(ZEBRA_INTERFACE_DOWN, "vlanif99", 99, 0), -1);
    EXPECT_EQ(log, (std::vector<std::pair<int, std::string>>{
                       {LOG_WARNING, "zebra_interface_state_read retrun ifp == NULL!"},
                       {LOG_WARNING, "zebra_interface_state_read retrun ifp == NULL!"}}));
    EXPECT_EQ(if_lookup_by_name("vlanif99"), nullptr);
    dhcp_debug = 0;
    log.clear();
    EXPECT_EQ(deliver_interface(ZEBRA_INTERFACE_UP, "vlanif99", 99, kUp), -1);
    EXPECT_EQ(lines(LOG_WARNING), Lines{"zebra_interface_state_read retrun ifp == NULL!"});
}

TEST_F(Tracking, OtherEventsOfUnknownInterfacesAreIgnoredSilently) {
    dhcps_pool *p = pool("p1", "192.168.1.0/24");
    EXPECT_EQ(deliver_interface(ZEBRA_INTERFACE_DELETE, "vlanif99", 99, kUp), 0);
    EXPECT_EQ(deliver_address(ZEBRA_INTERFACE_ADDRESS_ADD, 99, "192.168.1.1/24"), 0);
    EXPECT_EQ(deliver_address(ZEBRA_INTERFACE_ADDRESS_DELETE, 99, "192.168.1.1/24"), 0);
    vlanif10_up();
    log.clear();
    EXPECT_EQ(deliver_address(ZEBRA_INTERFACE_ADDRESS_DELETE, 7, "192.168.1.1/24"), 0);  // absent
    EXPECT_TRUE(log.empty());
    expect_detached(p);
    EXPECT_EQ(if_lookup_by_name("vlanif99"), nullptr);
}

// ---- the functions themselves ---------------------------------------------------------

TEST_F(Tracking, AttachWithoutPrefixOrPoolsDoesNothing) {
    dhcp_attach_pool(nullptr, nullptr);
    dhcp_detach_pool(nullptr, nullptr);
    dhcp_attach_pool_by_intf(nullptr);
    dhcp_detach_pool_by_intf(nullptr);
    prefix a = pfx("192.168.1.1/24");
    dhcp_attach_pool(if_get_by_name("vlanif10"), &a);  // no pools at all
    EXPECT_TRUE(log.empty());
}

TEST_F(Tracking, AttachUsesTheUnmaskedAddressDetachIgnoresTheInterface) {
    dhcps_pool *p = pool("p1", "192.168.1.0/24");
    interface *a = if_get_by_name("vlanif10");
    interface *b = if_get_by_name("vlanif20");
    a->ifindex = 3;
    prefix addr = pfx("192.168.1.77/24");
    dhcp_attach_pool(a, &addr);
    expect_attached(p, a, "192.168.1.77");
    prefix other = pfx("192.168.1.200/24");
    dhcp_detach_pool(b, &other);
    expect_detached(p);
    dhcp_detach_pool_by_intf(a);  // nothing attached: nothing changes
    expect_detached(p);
}

TEST_F(Tracking, ConnectedCheck) {
    interface *a = vlanif10_up();
    feed(Datagram().link(RTM_NEWLINK, 8, "vlanif20", kUp));
    interface *b = if_lookup_by_name("vlanif20");
    feed(Datagram().addr(RTM_NEWADDR, 7, "192.168.1.1/24"));
    feed(Datagram().addr(RTM_NEWADDR, 7, "192.168.1.2/24"));
    feed(Datagram().addr(RTM_NEWADDR, 8, "192.168.2.1/24"));
    feed(Datagram().addr(RTM_NEWADDR, 8, "10.0.0.1/24", "10.0.0.2"));
    log.clear();
    EXPECT_EQ(dhcp_connected_check(a, nip("192.168.1.1")), 1);
    EXPECT_EQ(dhcp_connected_check(a, nip("192.168.1.2")), 1);
    EXPECT_EQ(dhcp_connected_check(a, nip("192.168.1.3")), 0);
    EXPECT_EQ(dhcp_connected_check(a, nip("192.168.2.1")), 0);  // vlanif20's
    EXPECT_EQ(dhcp_connected_check(b, nip("192.168.2.1")), 1);
    EXPECT_EQ(dhcp_connected_check(b, nip("10.0.0.1")), 1);
    EXPECT_EQ(dhcp_connected_check(b, nip("10.0.0.2")), 0);  // the peer is not ours
    EXPECT_TRUE(log.empty());
    EXPECT_EQ(dhcp_connected_check(nullptr, nip("192.168.1.1")), 0);
    EXPECT_EQ(
        log,
        (std::vector<std::pair<int, std::string>>{{LOG_WARNING, "The input pointer is NULL!"}}));
}

// ---- list nodes without records ---------------------------------------------------------

using TrackingDeathTest = Tracking;

void push_null_pool() {
    const_cast<std::vector<std::unique_ptr<dhcps_pool>> &>(dhcps_pool_list()).push_back(nullptr);
}

TEST_F(TrackingDeathTest, PoolNodeWithoutRecordStopsTheDaemon) {
    prefix a = pfx("192.168.1.1/24");
    interface *ifp = if_get_by_name("vlanif10");
    EXPECT_DEATH((push_null_pool(), dhcp_attach_pool(ifp, &a)),
                 "Assertion `\\(node\\)->data != \\(\\(void \\*\\)0\\)' failed in file "
                 "dhcp/dhcp_zebra, line [0-9]+, function dhcp_attach_pool");
    EXPECT_DEATH((push_null_pool(), dhcp_detach_pool(ifp, &a)), "function dhcp_detach_pool");
    EXPECT_DEATH((push_null_pool(), dhcp_detach_pool_by_intf(ifp)),
                 "function dhcp_detach_pool_by_intf");
    EXPECT_DEATH((push_null_pool(), dhcp_attach_pool_by_intf(ifp)),
                 "\\(node\\)->data.*function dhcp_attach_pool_by_intf");
}

TEST_F(TrackingDeathTest, AddressNodeWithoutRecordStopsTheDaemon) {
    pool("p1", "192.168.1.0/24");
    interface *ifp = if_get_by_name("vlanif10");
    ifp->connected.push_back(nullptr);
    EXPECT_DEATH(dhcp_connected_check(ifp, 0),
                 "Assertion `\\(addrnode\\)->data != \\(\\(void \\*\\)0\\)' failed in file "
                 "dhcp/dhcp_zebra, line [0-9]+, function dhcp_connected_check");
    EXPECT_DEATH(dhcp_attach_pool_by_intf(ifp), "\\(addrnode\\)->data.*dhcp_attach_pool_by_intf");
    ifp->connected.clear();
}

// ---- live: the kernel's own dump attaches the pools ----------------------------------------

int sh(const std::string &cmd) {
    return std::system((cmd + " >/dev/null 2>&1").c_str());
}

TEST_F(Tracking, LiveDumpAndEventsAttachAndDetach) {
    if (unshare(CLONE_NEWNET) != 0 || sh("ip link set lo up") != 0) {
        GTEST_SKIP() << "no private network namespace";
    }
    dhcps_pool *p = pool("p1", "192.168.1.0/24");
    ASSERT_EQ(sh("ip link add vlanif10 type bridge && ip addr add 192.168.1.1/24 dev vlanif10"), 0);
    auto run_until = [&](auto done) {
        for (int i = 0; i < 6000 && !done(); ++i) {
            thread_run_once(m, 10);
        }
    };
    run_until([&] { return p->interface != nullptr; });
    interface *ifp = if_lookup_by_name("vlanif10");
    ASSERT_NE(ifp, nullptr);
    expect_attached(p, ifp, "192.168.1.1");
    EXPECT_EQ(zclient_connected(dhcp_zclient()), 1);
    ASSERT_EQ(sh("ip addr del 192.168.1.1/24 dev vlanif10"), 0);
    run_until([&] { return p->interface == nullptr; });
    expect_detached(p);
    ASSERT_EQ(sh("ip addr add 192.168.1.254/24 dev vlanif10"), 0);
    run_until([&] { return p->interface != nullptr; });
    expect_attached(p, ifp, "192.168.1.254");
    ASSERT_EQ(sh("ip link del vlanif10"), 0);
    run_until([&] { return ifp->ifindex == 0; });
    expect_detached(p);
    EXPECT_EQ(if_lookup_by_name("vlanif10"), ifp);
}

TEST_F(Tracking, LiveForgetLearnsTheInterfaceAgainFromTheKernel) {
    if (unshare(CLONE_NEWNET) != 0 || sh("ip link set lo up") != 0) {
        GTEST_SKIP() << "no private network namespace";
    }
    dhcps_pool *p = pool("p1", "192.168.1.0/24");
    ASSERT_EQ(sh("ip link add vlanif10 type bridge && ip addr add 192.168.1.1/24 dev vlanif10"), 0);
    auto run_until = [&](auto done) {
        for (int i = 0; i < 500 && !done(); ++i) {
            thread_run_once(m, 10);
        }
    };
    run_until([&] { return p->interface != nullptr; });
    ASSERT_NE(p->interface, nullptr);
    dhcp_interface_forget(if_lookup_by_name("vlanif10"));
    expect_detached(p);
    EXPECT_EQ(if_lookup_by_name("vlanif10"), nullptr);
    // Asked again, the kernel reports the interface and its address anew.
    run_until([&] { return p->interface != nullptr; });
    interface *again = if_lookup_by_name("vlanif10");
    ASSERT_NE(again, nullptr);
    EXPECT_NE(again->ifindex, IFINDEX_INTERNAL);
    expect_attached(p, again, "192.168.1.1");
}

}  // namespace
