// The interface-manager client: rtnetlink messages turned into interface
// and address events, the message format and its readers, the bounded
// stream, and (in a private network namespace) the live socket with its
// dumps and its recovery from a receive-buffer overrun.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <functional>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "lib/if.h"
#include "lib/log.h"
#include "lib/stream.h"
#include "lib/thread.h"
#include "lib/zclient.h"

namespace {

// ---- crafting rtnetlink datagrams ---------------------------------------------

class Datagram {
  public:
    nlmsghdr *begin(std::uint16_t type, std::uint16_t flags = 0, std::uint32_t seq = 0) {
        cur_ = mnl_nlmsg_put_header(mem_.data() + used_);
        cur_->nlmsg_type = type;
        cur_->nlmsg_flags = flags;
        cur_->nlmsg_seq = seq;
        return cur_;
    }
    void end() { used_ += MNL_ALIGN(cur_->nlmsg_len); }
    nlmsghdr *cur() { return cur_; }
    std::span<const std::uint8_t> bytes() const { return {mem_.data(), used_}; }
    std::vector<std::uint8_t> copy() const { return {mem_.data(), mem_.data() + used_}; }

    void link(std::uint16_t type, int index, const char *name, unsigned flags, unsigned mtu = 1500,
              const std::vector<std::uint8_t> &mac = {}, std::uint8_t family = AF_UNSPEC) {
        nlmsghdr *nlh = begin(type);
        auto *ifi = static_cast<ifinfomsg *>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
        ifi->ifi_family = family;
        ifi->ifi_index = index;
        ifi->ifi_flags = flags;
        if (name != nullptr) {
            mnl_attr_put_strz(nlh, IFLA_IFNAME, name);
        }
        mnl_attr_put_u32(nlh, IFLA_MTU, mtu);
        if (!mac.empty()) {
            mnl_attr_put(nlh, IFLA_ADDRESS, mac.size(), mac.data());
        }
        end();
    }

    void addr(std::uint16_t type, std::uint8_t family, int index, std::uint8_t plen,
              const char *local, const char *address, std::uint8_t ifa_flags = 0) {
        nlmsghdr *nlh = begin(type);
        auto *ifa = static_cast<ifaddrmsg *>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifaddrmsg)));
        ifa->ifa_family = family;
        ifa->ifa_prefixlen = plen;
        ifa->ifa_index = static_cast<unsigned>(index);
        ifa->ifa_flags = ifa_flags;
        std::uint8_t buf[16];
        std::size_t n = family == AF_INET ? 4 : 16;
        if (address != nullptr) {
            EXPECT_EQ(inet_pton(family, address, buf), 1);
            mnl_attr_put(nlh, IFA_ADDRESS, n, buf);
        }
        if (local != nullptr) {
            EXPECT_EQ(inet_pton(family, local, buf), 1);
            mnl_attr_put(nlh, IFA_LOCAL, n, buf);
        }
        end();
    }

  private:
    alignas(8) std::array<std::uint8_t, 16384> mem_{};
    std::size_t used_ = 0;
    nlmsghdr *cur_ = nullptr;
};

// ---- what the callbacks saw ------------------------------------------------------

struct Event {
    int command = 0;
    std::string name;  // interface
    ifindex_t ifindex = 0;
    std::uint64_t flags = 0;
    std::string address;      // prefix text for address events
    std::string destination;  // prefix text when a peer is set
    std::uint8_t cflags = 0;
    bool found = false;  // the reader returned a record
};

std::vector<Event> events;
int connected_calls = 0;

std::string ptext(const prefix *p) {
    char buf[PREFIX_STRLEN] = "";
    if (p != nullptr) {
        prefix2str(p, buf, sizeof buf);
    }
    return buf;
}

int on_interface(int command, zclient *zc, std::uint16_t, vrf_id_t vrf_id) {
    interface *ifp = command == ZEBRA_INTERFACE_ADD
                         ? zebra_interface_add_read(zc->ibuf.get(), vrf_id)
                         : zebra_interface_state_read(zc->ibuf.get(), vrf_id);
    Event e;
    e.command = command;
    if (ifp != nullptr) {
        e.name = ifp->name;
        e.ifindex = ifp->ifindex;
        e.flags = ifp->flags;
        e.found = true;
    }
    if (command == ZEBRA_INTERFACE_DELETE && ifp != nullptr) {
        ifp->ifindex = IFINDEX_INTERNAL;
    }
    events.push_back(e);
    return 0;
}

int on_address(int command, zclient *zc, std::uint16_t, vrf_id_t vrf_id) {
    connected *c = zebra_interface_address_read(command, zc->ibuf.get(), vrf_id);
    Event e;
    e.command = command;
    if (c != nullptr) {
        e.found = true;
        e.name = c->ifp ? c->ifp->name : "";
        e.address = ptext(c->address.get());
        e.destination = c->destination ? ptext(c->destination.get()) : "";
        e.cflags = c->flags;
    }
    events.push_back(e);
    return 0;
}

void on_connected(zclient *zc) {
    ++connected_calls;
    zclient_send_requests(zc, VRF_DEFAULT);
}

void set_callbacks(zclient *zc) {
    zc->zebra_connected = on_connected;
    zc->interface_add = on_interface;
    zc->interface_delete = on_interface;
    zc->interface_up = on_interface;
    zc->interface_down = on_interface;
    zc->interface_address_add = on_address;
    zc->interface_address_delete = on_address;
}

struct Client : ::testing::Test {
    thread_master *m = thread_master_create();
    zclient_ptr zc{zclient_new(m)};
    std::vector<std::pair<int, std::string>> log;

    Client() {
        if_init();
        events.clear();
        connected_calls = 0;
        set_callbacks(zc.get());
        zlog_set_hook([this](int prio, std::string_view t) { log.emplace_back(prio, t); });
    }
    ~Client() override {
        zlog_set_hook({});
        zc.reset();
        thread_master_free(m);
        if_terminate();
    }
    void feed(const Datagram &d) { zclient_netlink_input(zc.get(), d.bytes()); }
    void feed_link(std::uint16_t type, int index, const char *name, unsigned flags,
                   unsigned mtu = 1500) {
        Datagram d;
        d.link(type, index, name, flags, mtu);
        feed(d);
    }
    std::vector<int> commands() const {
        std::vector<int> out;
        for (auto &e : events) {
            out.push_back(e.command);
        }
        return out;
    }
};

const std::vector<std::uint8_t> kMac{0x02, 0x00, 0x00, 0x00, 0x00, 0x0a};

// ---- links -------------------------------------------------------------------------

TEST_F(Client, NewLinkOfUnknownIndexIsAnInterfaceAdd) {
    Datagram d;
    d.link(RTM_NEWLINK, 7, "vlanif10", IFF_UP | IFF_BROADCAST, 1400, kMac);
    EXPECT_EQ(zclient_netlink_input(zc.get(), d.bytes()), 1);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].command, ZEBRA_INTERFACE_ADD);
    interface *ifp = if_lookup_by_name("vlanif10");
    ASSERT_NE(ifp, nullptr);
    EXPECT_EQ(ifp->ifindex, 7);
    EXPECT_EQ(ifp->flags, static_cast<std::uint64_t>(IFF_UP | IFF_BROADCAST));
    EXPECT_EQ(ifp->mtu, 1400u);
    EXPECT_EQ(ifp->metric, 0);
    ASSERT_EQ(ifp->hw_addr_len, 6);
    EXPECT_EQ(std::vector<std::uint8_t>(ifp->hw_addr, ifp->hw_addr + 6), kMac);
}

TEST_F(Client, InterfacePreCreatedByNameIsMatchedByName) {
    interface *pre = if_get_by_name("vlanif10");
    ASSERT_EQ(pre->ifindex, IFINDEX_INTERNAL);
    feed_link(RTM_NEWLINK, 12, "vlanif10", 0);
    ASSERT_EQ(commands(), std::vector<int>{ZEBRA_INTERFACE_ADD});
    EXPECT_EQ(if_lookup_by_name("vlanif10"), pre);
    EXPECT_EQ(pre->ifindex, 12);
    EXPECT_EQ(if_lookup_by_index(12), pre);
}

TEST_F(Client, UpWhenIffUpRisesDownWhenItFallsNothingOtherwise) {
    feed_link(RTM_NEWLINK, 3, "eth0", 0);
    feed_link(RTM_NEWLINK, 3, "eth0", IFF_UP);
    feed_link(RTM_NEWLINK, 3, "eth0", IFF_UP | IFF_RUNNING);  // no edge of IFF_UP
    feed_link(RTM_NEWLINK, 3, "eth0", IFF_UP | IFF_RUNNING, 9000);
    EXPECT_EQ(if_lookup_by_name("eth0")->mtu, 9000u);  // quiet changes still reach the table
    feed_link(RTM_NEWLINK, 3, "eth0", 0);
    EXPECT_EQ(commands(),
              (std::vector<int>{ZEBRA_INTERFACE_ADD, ZEBRA_INTERFACE_UP, ZEBRA_INTERFACE_DOWN}));
    EXPECT_EQ(if_lookup_by_name("eth0")->flags, 0u);
    EXPECT_EQ(events[1].flags, static_cast<std::uint64_t>(IFF_UP));
}

TEST_F(Client, DelLinkOfKnownIndexIsDeleteUnknownIsIgnored) {
    feed_link(RTM_NEWLINK, 4, "vlanif20", 0);
    feed_link(RTM_DELLINK, 99, "ghost", 0);
    feed_link(RTM_DELLINK, 4, "vlanif20", 0);
    EXPECT_EQ(commands(), (std::vector<int>{ZEBRA_INTERFACE_ADD, ZEBRA_INTERFACE_DELETE}));
    EXPECT_EQ(events[1].name, "vlanif20");
    EXPECT_EQ(if_lookup_by_name("ghost"), nullptr);
}

TEST_F(Client, DelLinkWithdrawsAddressesStillListedFirst) {
    Datagram d;
    d.link(RTM_NEWLINK, 4, "vlanif20", IFF_UP);
    d.addr(RTM_NEWADDR, AF_INET, 4, 24, "192.168.2.1", "192.168.2.1");
    d.addr(RTM_NEWADDR, AF_INET6, 4, 64, nullptr, "fe80::2");
    d.addr(RTM_DELADDR, AF_INET6, 4, 64, nullptr, "fe80::2");
    feed(d);
    events.clear();
    feed_link(RTM_DELLINK, 4, "vlanif20", 0);
    ASSERT_EQ(commands(),
              (std::vector<int>{ZEBRA_INTERFACE_ADDRESS_DELETE, ZEBRA_INTERFACE_DELETE}));
    EXPECT_EQ(events[0].address, "192.168.2.1/24");
    EXPECT_TRUE(if_lookup_by_name("vlanif20")->connected.empty());
}

TEST_F(Client, RenameIsDeleteOfTheOldNameThenAddOfTheNew) {
    feed_link(RTM_NEWLINK, 5, "eth5", 0);
    feed_link(RTM_NEWLINK, 5, "vlanif5", 0);
    ASSERT_EQ(commands(),
              (std::vector<int>{ZEBRA_INTERFACE_ADD, ZEBRA_INTERFACE_DELETE, ZEBRA_INTERFACE_ADD}));
    EXPECT_EQ(events[1].name, "eth5");
    EXPECT_EQ(events[2].name, "vlanif5");
    EXPECT_EQ(if_lookup_by_index(5), if_lookup_by_name("vlanif5"));
    EXPECT_EQ(if_lookup_by_name("eth5")->ifindex, IFINDEX_INTERNAL);
}

TEST_F(Client, BridgePortNotificationsAreIgnored) {
    Datagram d;
    d.link(RTM_NEWLINK, 8, "swp1", IFF_UP, 1500, {}, AF_BRIDGE);
    feed(d);
    EXPECT_TRUE(events.empty());
    EXPECT_EQ(if_lookup_by_name("swp1"), nullptr);
}

TEST_F(Client, ManyMessagesInOneDatagramAreHandledInOrder) {
    Datagram d;
    d.link(RTM_NEWLINK, 1, "lo", IFF_UP | IFF_LOOPBACK);
    d.link(RTM_NEWLINK, 2, "vlanif10", 0);
    d.addr(RTM_NEWADDR, AF_INET, 2, 24, "192.168.1.1", "192.168.1.1");
    d.link(RTM_NEWLINK, 2, "vlanif10", IFF_UP);
    EXPECT_EQ(zclient_netlink_input(zc.get(), d.bytes()), 4);
    EXPECT_EQ(commands(), (std::vector<int>{ZEBRA_INTERFACE_ADD, ZEBRA_INTERFACE_ADD,
                                            ZEBRA_INTERFACE_ADDRESS_ADD, ZEBRA_INTERFACE_UP}));
}

TEST_F(Client, WithoutCallbacksTheTableIsStillKept) {
    zclient_ptr bare{zclient_new(m)};
    Datagram d;
    d.link(RTM_NEWLINK, 2, "vlanif10", IFF_UP);
    d.addr(RTM_NEWADDR, AF_INET, 2, 24, "192.168.1.1", "192.168.1.1");
    zclient_netlink_input(bare.get(), d.bytes());
    interface *ifp = if_lookup_by_name("vlanif10");
    ASSERT_NE(ifp, nullptr);
    EXPECT_EQ(ifp->connected.size(), 1u);
    Datagram del;
    del.addr(RTM_DELADDR, AF_INET, 2, 24, "192.168.1.1", "192.168.1.1");
    del.link(RTM_DELLINK, 2, "vlanif10", 0);
    zclient_netlink_input(bare.get(), del.bytes());
    EXPECT_TRUE(ifp->connected.empty());
    EXPECT_EQ(ifp->ifindex, IFINDEX_INTERNAL);
    EXPECT_TRUE(events.empty());
}

// ---- addresses -------------------------------------------------------------------

struct AddrCase {
    const char *what;
    std::uint8_t family;
    std::uint8_t plen;
    const char *local;    // IFA_LOCAL or null
    const char *address;  // IFA_ADDRESS or null
    std::uint8_t ifa_flags;
    const char *want_address;
    const char *want_destination;  // "" for none
    std::uint8_t want_flags;
};

const AddrCase kAddrCases[] = {
    {"plain IPv4", AF_INET, 24, "192.168.1.1", "192.168.1.1", 0, "192.168.1.1/24", "", 0},
    {"IPv4 without LOCAL", AF_INET, 16, nullptr, "10.1.2.3", 0, "10.1.2.3/16", "", 0},
    {"IPv4 LOCAL only", AF_INET, 8, "10.0.0.9", nullptr, 0, "10.0.0.9/8", "", 0},
    {"IPv4 peer", AF_INET, 32, "10.0.0.1", "10.0.0.2", 0, "10.0.0.1/32", "10.0.0.2/32",
     ZEBRA_IFA_PEER},
    {"IPv4 peer network", AF_INET, 30, "172.16.0.1", "172.16.0.2", 0, "172.16.0.1/30",
     "172.16.0.2/30", ZEBRA_IFA_PEER},
    {"IPv4 secondary", AF_INET, 24, "192.168.1.2", "192.168.1.2", IFA_F_SECONDARY, "192.168.1.2/24",
     "", ZEBRA_IFA_SECONDARY},
    {"IPv6 global", AF_INET6, 64, nullptr, "2001:db8::1", 0, "2001:db8::1/64", "", 0},
    {"IPv6 link-local", AF_INET6, 64, nullptr, "fe80::1", 0, "fe80::1/64", "", 0},
    {"IPv6 peer", AF_INET6, 128, "2001:db8::1", "2001:db8::2", 0, "2001:db8::1/128",
     "2001:db8::2/128", ZEBRA_IFA_PEER},
};

TEST_F(Client, AddressMessagesBecomeConnectedEntries) {
    for (const AddrCase &c : kAddrCases) {
        SCOPED_TRACE(c.what);
        if_terminate();
        events.clear();
        feed_link(RTM_NEWLINK, 2, "vlanif10", IFF_UP);
        Datagram d;
        d.addr(RTM_NEWADDR, c.family, 2, c.plen, c.local, c.address, c.ifa_flags);
        feed(d);
        ASSERT_EQ(events.size(), 2u);
        const Event &e = events[1];
        EXPECT_EQ(e.command, ZEBRA_INTERFACE_ADDRESS_ADD);
        EXPECT_TRUE(e.found);
        EXPECT_EQ(e.name, "vlanif10");
        EXPECT_EQ(e.address, c.want_address);
        EXPECT_EQ(e.destination, c.want_destination);
        EXPECT_EQ(e.cflags, c.want_flags);

        interface *ifp = if_lookup_by_name("vlanif10");
        ASSERT_EQ(ifp->connected.size(), 1u);
        const connected *conn = ifp->connected[0].get();
        EXPECT_EQ(conn->ifp, ifp);
        EXPECT_EQ(conn->address->family, c.family);
        EXPECT_EQ(ptext(CONNECTED_PREFIX(conn)),
                  *c.want_destination ? c.want_destination : c.want_address);

        Datagram del;
        del.addr(RTM_DELADDR, c.family, 2, c.plen, c.local, c.address, c.ifa_flags);
        feed(del);
        ASSERT_EQ(events.size(), 3u);
        EXPECT_EQ(events[2].command, ZEBRA_INTERFACE_ADDRESS_DELETE);
        EXPECT_TRUE(events[2].found);
        EXPECT_EQ(events[2].address, c.want_address);
        EXPECT_EQ(events[2].destination, c.want_destination);
        EXPECT_TRUE(ifp->connected.empty());
    }
}

TEST_F(Client, UnchangedAddressIsNotReportedTwiceChangedPeerIsReplaced) {
    feed_link(RTM_NEWLINK, 2, "vlanif10", IFF_UP);
    Datagram d;
    d.addr(RTM_NEWADDR, AF_INET, 2, 24, "192.168.1.1", "192.168.1.1");
    d.addr(RTM_NEWADDR, AF_INET, 2, 24, "192.168.1.1", "192.168.1.1");
    d.addr(RTM_NEWADDR, AF_INET6, 2, 64, nullptr, "fe80::1");
    d.addr(RTM_NEWADDR, AF_INET6, 2, 64, nullptr, "fe80::1");  // lifetime refresh
    feed(d);
    EXPECT_EQ(commands(), (std::vector<int>{ZEBRA_INTERFACE_ADD, ZEBRA_INTERFACE_ADDRESS_ADD,
                                            ZEBRA_INTERFACE_ADDRESS_ADD}));
    events.clear();
    Datagram peer;
    peer.addr(RTM_NEWADDR, AF_INET, 2, 24, "192.168.1.1", "192.168.1.9");
    feed(peer);
    ASSERT_EQ(commands(),
              (std::vector<int>{ZEBRA_INTERFACE_ADDRESS_DELETE, ZEBRA_INTERFACE_ADDRESS_ADD}));
    EXPECT_EQ(events[1].destination, "192.168.1.9/24");
    EXPECT_EQ(if_lookup_by_name("vlanif10")->connected.size(), 2u);
}

TEST_F(Client, AddressOfUnknownInterfaceReadsAsNothing) {
    Datagram d;
    d.addr(RTM_NEWADDR, AF_INET, 42, 24, "10.0.0.1", "10.0.0.1");
    d.addr(RTM_DELADDR, AF_INET, 42, 24, "10.0.0.1", "10.0.0.1");
    feed(d);
    ASSERT_EQ(events.size(), 2u);
    EXPECT_FALSE(events[0].found);
    EXPECT_FALSE(events[1].found);
}

TEST_F(Client, DeletedEntryStaysAliveForTheCallbackOnly) {
    feed_link(RTM_NEWLINK, 2, "vlanif10", IFF_UP);
    Datagram d;
    d.addr(RTM_NEWADDR, AF_INET, 2, 24, "192.168.1.1", "192.168.1.1");
    feed(d);
    static std::string seen_in_callback;
    static const interface *seen_ifp = nullptr;
    zc->interface_address_delete = [](int command, zclient *z, std::uint16_t, vrf_id_t vrf) {
        connected *c = zebra_interface_address_read(command, z->ibuf.get(), vrf);
        seen_ifp = c ? c->ifp : nullptr;
        seen_in_callback = c ? ptext(c->address.get()) : "";
        // Detached already: the interface no longer lists it.
        return c && c->ifp->connected.empty() ? 0 : -1;
    };
    Datagram del;
    del.addr(RTM_DELADDR, AF_INET, 2, 24, "192.168.1.1", "192.168.1.1");
    feed(del);
    EXPECT_EQ(seen_in_callback, "192.168.1.1/24");
    EXPECT_EQ(seen_ifp, if_lookup_by_name("vlanif10"));
}

// ---- malformed input -------------------------------------------------------------

TEST_F(Client, MalformedMessagesAreSkippedWithoutEffect) {
    struct Case {
        const char *what;
        void (*make)(Datagram &);
    };
    const Case cases[] = {
        {"ifinfomsg cut short",
         [](Datagram &d) {
             nlmsghdr *nlh = d.begin(RTM_NEWLINK);
             mnl_nlmsg_put_extra_header(nlh, 8);
             d.end();
         }},
        {"ifaddrmsg cut short",
         [](Datagram &d) {
             nlmsghdr *nlh = d.begin(RTM_NEWADDR);
             mnl_nlmsg_put_extra_header(nlh, 4);
             d.end();
         }},
        {"name without terminator",
         [](Datagram &d) {
             nlmsghdr *nlh = d.begin(RTM_NEWLINK);
             auto *ifi =
                 static_cast<ifinfomsg *>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
             ifi->ifi_index = 9;
             mnl_attr_put(nlh, IFLA_IFNAME, 4, "eth9");
             d.end();
         }},
        {"name longer than the table allows",
         [](Datagram &d) { d.link(RTM_NEWLINK, 9, "abcdefghijklmnopqrstuvwxyz", 0); }},
        {"empty name", [](Datagram &d) { d.link(RTM_NEWLINK, 9, "", 0); }},
        {"no name", [](Datagram &d) { d.link(RTM_NEWLINK, 9, nullptr, 0); }},
        {"negative index", [](Datagram &d) { d.link(RTM_NEWLINK, -3, "eth9", 0); }},
        {"MTU of two bytes",
         [](Datagram &d) {
             nlmsghdr *nlh = d.begin(RTM_NEWLINK);
             auto *ifi =
                 static_cast<ifinfomsg *>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
             ifi->ifi_index = 9;
             mnl_attr_put_strz(nlh, IFLA_IFNAME, "eth9");
             mnl_attr_put_u16(nlh, IFLA_MTU, 1500);
             d.end();
         }},
        {"attribute running past the message",
         [](Datagram &d) {
             d.link(RTM_NEWLINK, 9, "eth9", 0);
             auto *attr = reinterpret_cast<nlattr *>(
                 static_cast<std::uint8_t *>(mnl_nlmsg_get_payload(d.cur())) + sizeof(ifinfomsg));
             attr->nla_len = 200;
         }},
        {"IPv4 address of 16 bytes",
         [](Datagram &d) {
             nlmsghdr *nlh = d.begin(RTM_NEWADDR);
             auto *ifa =
                 static_cast<ifaddrmsg *>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifaddrmsg)));
             ifa->ifa_family = AF_INET;
             ifa->ifa_prefixlen = 24;
             ifa->ifa_index = 2;
             std::uint8_t big[16] = {10, 0, 0, 1};
             mnl_attr_put(nlh, IFA_LOCAL, sizeof big, big);
             d.end();
         }},
        {"IPv4 prefix length 33",
         [](Datagram &d) { d.addr(RTM_NEWADDR, AF_INET, 2, 33, "10.0.0.1", "10.0.0.1"); }},
        {"address without any address attribute",
         [](Datagram &d) { d.addr(RTM_NEWADDR, AF_INET, 2, 24, nullptr, nullptr); }},
        {"address family 99",
         [](Datagram &d) {
             d.addr(RTM_NEWADDR, AF_INET, 2, 24, "10.0.0.1", "10.0.0.1");
             static_cast<ifaddrmsg *>(mnl_nlmsg_get_payload(d.cur()))->ifa_family = 99;
         }},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        if_terminate();
        feed_link(RTM_NEWLINK, 2, "vlanif10", IFF_UP);
        events.clear();
        Datagram d;
        c.make(d);
        feed(d);
        EXPECT_TRUE(events.empty());
        EXPECT_EQ(if_lookup_by_index(9), nullptr);
        EXPECT_TRUE(if_lookup_by_name("vlanif10")->connected.empty());
    }
}

TEST_F(Client, DatagramsCutAnywhereOrFullOfNoiseNeverCrash) {
    Datagram good;
    good.link(RTM_NEWLINK, 2, "vlanif10", IFF_UP, 1500, kMac);
    good.addr(RTM_NEWADDR, AF_INET, 2, 24, "192.168.1.1", "192.168.1.1");
    good.addr(RTM_NEWADDR, AF_INET6, 2, 64, "2001:db8::1", "2001:db8::2");
    std::vector<std::uint8_t> bytes = good.copy();
    for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
        zclient_netlink_input(zc.get(), std::span<const std::uint8_t>(bytes.data(), cut));
    }
    std::mt19937 rng(1234);
    for (int round = 0; round < 3000; ++round) {
        std::vector<std::uint8_t> noisy = bytes;
        int flips = 1 + static_cast<int>(rng() % 8);
        for (int i = 0; i < flips; ++i) {
            noisy[rng() % noisy.size()] = static_cast<std::uint8_t>(rng());
        }
        zclient_netlink_input(zc.get(), noisy);
    }
    for (int round = 0; round < 500; ++round) {
        std::vector<std::uint8_t> junk(rng() % 512);
        for (auto &b : junk) {
            b = static_cast<std::uint8_t>(rng());
        }
        zclient_netlink_input(zc.get(), junk);
    }
    SUCCEED();
}

TEST_F(Client, UnalignedDatagramIsReadAllTheSame) {
    Datagram d;
    d.link(RTM_NEWLINK, 2, "vlanif10", 0);
    std::vector<std::uint8_t> shifted(d.bytes().size() + 1);
    std::copy(d.bytes().begin(), d.bytes().end(), shifted.begin() + 1);
    EXPECT_EQ(zclient_netlink_input(zc.get(), std::span(shifted).subspan(1)), 1);
    EXPECT_EQ(commands(), std::vector<int>{ZEBRA_INTERFACE_ADD});
}

// ---- the message format and its readers ----------------------------------------

TEST_F(Client, InterfaceMessageLayout) {
    zapi_interface z;
    std::strcpy(z.name, "vlanif10");
    z.ifindex = 0x01020304;
    z.flags = 0x1122334455667788ull;
    z.metric = 5;
    z.mtu = 1500;
    z.hw_addr_len = 6;
    std::copy(kMac.begin(), kMac.end(), z.hw_addr);
    auto s = stream_new(ZEBRA_MAX_PACKET_SIZ);
    std::size_t len = zapi_interface_encode(s.get(), ZEBRA_INTERFACE_UP, 0, z);
    ASSERT_EQ(len, 8u + 20 + 4 + 1 + 8 + 4 + 4 + 4 + 6);
    auto b = stream_data(s.get());
    EXPECT_EQ((std::vector<std::uint8_t>(b.begin(), b.begin() + 8)),
              (std::vector<std::uint8_t>{0, static_cast<std::uint8_t>(len), 255, 2, 0, 0, 0, 5}));
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(b.data() + 8)), "vlanif10");
    EXPECT_EQ(b[28], 1);  // index, big-endian
    EXPECT_EQ(b[31], 4);
    EXPECT_EQ(b[33], 0x11);  // flags
    EXPECT_EQ(b[40], 0x88);
    EXPECT_EQ(b.back(), 0x0a);
}

TEST_F(Client, AddressMessageLayout) {
    zapi_address z;
    z.ifindex = 2;
    z.flags = ZEBRA_IFA_PEER;
    ASSERT_EQ(str2prefix("10.0.0.1/30", &z.address), 1);
    ASSERT_EQ(str2prefix("10.0.0.2/30", &z.destination), 1);
    auto s = stream_new(ZEBRA_MAX_PACKET_SIZ);
    ASSERT_EQ(zapi_address_encode(s.get(), ZEBRA_INTERFACE_ADDRESS_ADD, 0, z),
              8u + 4 + 1 + 1 + 4 + 1 + 4);
    auto b = stream_data(s.get());
    EXPECT_EQ((std::vector<std::uint8_t>(b.begin() + 8, b.end())),
              (std::vector<std::uint8_t>{0, 0, 0, 2, ZEBRA_IFA_PEER, AF_INET, 10, 0, 0, 1, 30, 10,
                                         0, 0, 2}));
    z.address.family = 99;
    EXPECT_EQ(zapi_address_encode(s.get(), ZEBRA_INTERFACE_ADDRESS_ADD, 0, z), 0u);
}

TEST_F(Client, DeliverChecksTheHeader) {
    zapi_interface z;
    std::strcpy(z.name, "eth1");
    z.ifindex = 1;
    auto s = stream_new(ZEBRA_MAX_PACKET_SIZ);
    zapi_interface_encode(s.get(), ZEBRA_INTERFACE_ADD, 0, z);
    std::vector<std::uint8_t> msg(stream_data(s.get()).begin(), stream_data(s.get()).end());

    auto broken = msg;
    broken[2] = 0;  // marker
    EXPECT_EQ(zclient_deliver(zc.get(), broken), -1);
    broken = msg;
    broken[3] = 9;  // version
    EXPECT_EQ(zclient_deliver(zc.get(), broken), -1);
    broken = msg;
    broken[1] = static_cast<std::uint8_t>(broken[1] + 1);  // length
    EXPECT_EQ(zclient_deliver(zc.get(), broken), -1);
    EXPECT_EQ(zclient_deliver(zc.get(), std::span(msg).first(5)), -1);
    EXPECT_TRUE(events.empty());
    EXPECT_EQ(zclient_deliver(zc.get(), msg), 0);
    EXPECT_EQ(commands(), std::vector<int>{ZEBRA_INTERFACE_ADD});
    // A command nobody knows is passed over.
    msg[7] = 77;
    EXPECT_EQ(zclient_deliver(zc.get(), msg), 0);
    EXPECT_EQ(events.size(), 1u);
}

TEST_F(Client, StateReadNeverCreates) {
    zapi_interface z;
    std::strcpy(z.name, "vlanif99");
    z.ifindex = 99;
    z.flags = IFF_UP;
    auto s = stream_new(ZEBRA_MAX_PACKET_SIZ);
    zapi_interface_encode(s.get(), ZEBRA_INTERFACE_UP, 0, z);
    stream_forward_getp(s.get(), ZEBRA_HEADER_SIZE);
    EXPECT_EQ(zebra_interface_state_read(s.get(), 0), nullptr);
    EXPECT_EQ(if_lookup_by_name("vlanif99"), nullptr);

    zapi_interface_encode(s.get(), ZEBRA_INTERFACE_ADD, 0, z);
    stream_forward_getp(s.get(), ZEBRA_HEADER_SIZE);
    interface *ifp = zebra_interface_add_read(s.get(), 0);
    ASSERT_NE(ifp, nullptr);
    EXPECT_EQ(ifp->ifindex, 99);
}

TEST_F(Client, ReadersRefuseTruncatedBodies) {
    zapi_interface z;
    std::strcpy(z.name, "eth1");
    z.ifindex = 1;
    z.hw_addr_len = 6;
    auto s = stream_new(ZEBRA_MAX_PACKET_SIZ);
    std::size_t full = zapi_interface_encode(s.get(), ZEBRA_INTERFACE_ADD, 0, z);
    std::vector<std::uint8_t> msg(stream_data(s.get()).begin(), stream_data(s.get()).end());
    for (std::size_t n = ZEBRA_HEADER_SIZE; n < full; ++n) {
        stream_assign(s.get(), std::span(msg).first(n));
        stream_forward_getp(s.get(), ZEBRA_HEADER_SIZE);
        EXPECT_EQ(zebra_interface_add_read(s.get(), 0), nullptr) << n;
    }
    EXPECT_EQ(if_lookup_by_name("eth1"), nullptr);
    // A hardware address longer than the format allows.
    msg[full - 6 - 1] = 200;
    stream_assign(s.get(), msg);
    stream_forward_getp(s.get(), ZEBRA_HEADER_SIZE);
    EXPECT_EQ(zebra_interface_add_read(s.get(), 0), nullptr);

    feed_link(RTM_NEWLINK, 2, "vlanif10", 0);
    zapi_address a;
    a.ifindex = 2;
    str2prefix("10.0.0.1/24", &a.address);
    full = zapi_address_encode(s.get(), ZEBRA_INTERFACE_ADDRESS_ADD, 0, a);
    msg.assign(stream_data(s.get()).begin(), stream_data(s.get()).end());
    for (std::size_t n = ZEBRA_HEADER_SIZE; n < full; ++n) {
        stream_assign(s.get(), std::span(msg).first(n));
        stream_forward_getp(s.get(), ZEBRA_HEADER_SIZE);
        EXPECT_EQ(zebra_interface_address_read(ZEBRA_INTERFACE_ADDRESS_ADD, s.get(), 0), nullptr)
            << n;
    }
    EXPECT_TRUE(if_lookup_by_name("vlanif10")->connected.empty());
}

TEST_F(Client, IndexMovesToTheInterfaceThatNowHoldsIt) {
    feed_link(RTM_NEWLINK, 6, "eth6", 0);
    zapi_interface z;
    std::strcpy(z.name, "vlanif6");
    z.ifindex = 6;
    auto s = stream_new(ZEBRA_MAX_PACKET_SIZ);
    zapi_interface_encode(s.get(), ZEBRA_INTERFACE_ADD, 0, z);
    stream_forward_getp(s.get(), ZEBRA_HEADER_SIZE);
    interface *ifp = zebra_interface_add_read(s.get(), 0);
    EXPECT_EQ(if_lookup_by_index(6), ifp);
    EXPECT_EQ(if_lookup_by_name("eth6")->ifindex, IFINDEX_INTERNAL);
}

// ---- the stream ------------------------------------------------------------------

TEST(Stream, ReadsAndWritesStayInsideTheBuffer) {
    auto s = stream_new(6);
    EXPECT_EQ(stream_putl(s.get(), 0x01020304), 4u);
    EXPECT_EQ(stream_putl(s.get(), 1), 0u);  // no room
    EXPECT_TRUE(stream_failed(s.get()));
    stream_reset(s.get());
    EXPECT_FALSE(stream_failed(s.get()));
    stream_putw(s.get(), 0xabcd);
    stream_putc(s.get(), 7);
    EXPECT_EQ(stream_readable(s.get()), 3u);
    EXPECT_EQ(stream_getw(s.get()), 0xabcd);
    EXPECT_EQ(stream_getc(s.get()), 7);
    EXPECT_FALSE(stream_failed(s.get()));
    EXPECT_EQ(stream_getl(s.get()), 0u);  // nothing left
    EXPECT_TRUE(stream_failed(s.get()));
    std::uint8_t out[4] = {9, 9, 9, 9};
    stream_get(out, s.get(), sizeof out);
    EXPECT_EQ(out[0], 0);
    EXPECT_EQ(stream_putw_at(s.get(), 2, 1), 0u);  // beyond what was written
}

TEST(Stream, AssignTakesAMessageUpToTheCapacity) {
    auto s = stream_new(4);
    const std::uint8_t big[5] = {};
    EXPECT_FALSE(stream_assign(s.get(), big));
    const std::uint8_t four[4] = {0, 0, 0, 42};
    EXPECT_TRUE(stream_assign(s.get(), four));
    EXPECT_EQ(stream_getl(s.get()), 42u);
    EXPECT_EQ(stream_getq(s.get()), 0u);
    EXPECT_TRUE(stream_failed(s.get()));
    EXPECT_EQ(stream_getc(nullptr), 0);
}

// ---- live, in a network namespace of our own ------------------------------------------

int sh(const std::string &cmd) {
    return std::system((cmd + " >/dev/null 2>&1").c_str());
}

struct Live : Client {
    void SetUp() override {
        if (unshare(CLONE_NEWNET) != 0) {
            GTEST_SKIP() << "no private network namespace: " << std::strerror(errno);
        }
        if (sh("ip link set lo up") != 0) {
            GTEST_SKIP() << "no ip command";
        }
    }
    void run_until(const std::function<bool()> &done, int ms = 60000) {
        for (int waited = 0; waited < ms && !done(); waited += 10) {
            thread_run_once(m, 10);
        }
    }
    bool has_address(const char *ifname, const char *text) {
        interface *ifp = if_lookup_by_name(ifname);
        if (ifp == nullptr) {
            return false;
        }
        return std::any_of(ifp->connected.begin(), ifp->connected.end(),
                           [&](auto &c) { return ptext(c->address.get()) == text; });
    }
    std::size_t ipv4_count(const char *ifname) {
        interface *ifp = if_lookup_by_name(ifname);
        if (ifp == nullptr) {
            return 0;
        }
        return static_cast<std::size_t>(
            std::count_if(ifp->connected.begin(), ifp->connected.end(),
                          [](auto &c) { return c->address->family == AF_INET; }));
    }
};

TEST_F(Live, DumpThenEventsKeepTheTable) {
    ASSERT_EQ(sh("ip link add d0 type bridge"), 0);
    ASSERT_EQ(sh("ip addr add 10.9.0.1/24 dev d0"), 0);
    if_get_by_name("d1");  // named before the kernel has it
    zclient_init(zc.get(), 16);
    EXPECT_EQ(zc->redist_default, 16);
    run_until([&] { return has_address("d0", "10.9.0.1/24"); });
    EXPECT_EQ(connected_calls, 1);
    EXPECT_EQ(zclient_connected(zc.get()), 1);
    interface *d0 = if_lookup_by_name("d0");
    ASSERT_NE(d0, nullptr);
    EXPECT_GT(d0->ifindex, 0);
    EXPECT_NE(if_lookup_by_name("lo"), nullptr);
    EXPECT_TRUE(has_address("lo", "127.0.0.1/8"));

    interface *pre = if_lookup_by_name("d1");
    ASSERT_EQ(sh("ip link add d1 type bridge"), 0);
    run_until([&] { return pre->ifindex != 0; });
    EXPECT_EQ(if_lookup_by_name("d1"), pre);

    events.clear();
    ASSERT_EQ(sh("ip link set d1 up"), 0);
    run_until([&] { return if_is_up(pre); });
    ASSERT_EQ(sh("ip addr add 10.9.1.1 peer 10.9.1.2/32 dev d1"), 0);
    run_until([&] { return has_address("d1", "10.9.1.1/32"); });
    ASSERT_EQ(sh("ip addr del 10.9.1.1 peer 10.9.1.2/32 dev d1"), 0);
    run_until([&] { return !has_address("d1", "10.9.1.1/32"); });
    ASSERT_EQ(sh("ip link del d1"), 0);
    run_until([&] { return pre->ifindex == 0; });

    std::vector<int> want{ZEBRA_INTERFACE_UP, ZEBRA_INTERFACE_ADDRESS_ADD,
                          ZEBRA_INTERFACE_ADDRESS_DELETE, ZEBRA_INTERFACE_DOWN,
                          ZEBRA_INTERFACE_DELETE};
    std::vector<int> got;
    for (const Event &e : events) {
        // IPv6 link-local addresses come and go with the link; look at IPv4.
        bool v6 = e.address.find(':') != std::string::npos;
        if (e.name == "d1" && !v6) {
            got.push_back(e.command);
        }
    }
    EXPECT_EQ(got, want);
    for (const Event &e : events) {
        if (e.command == ZEBRA_INTERFACE_ADDRESS_ADD && e.address == "10.9.1.1/32") {
            EXPECT_EQ(e.destination, "10.9.1.2/32");
            EXPECT_EQ(e.cflags, ZEBRA_IFA_PEER);
        }
    }
}

TEST_F(Live, OverrunIsLoggedAndResynchronised) {
    ASSERT_EQ(sh("ip link add d0 type bridge"), 0);
    ASSERT_EQ(sh("ip link set d0 up"), 0);
    zc->rcvbuf = 1;  // the kernel's minimum
    zclient_init(zc.get(), 16);
    run_until([&] { return if_lookup_by_name("d0") != nullptr; });
    run_until([] { return false; }, 200);  // the dumps are done

    // A burst far bigger than the buffer, while nobody reads.
    std::string batch = "/tmp/zclient-batch-" + std::to_string(getpid());
    {
        std::FILE *f = std::fopen(batch.c_str(), "w");
        ASSERT_NE(f, nullptr);
        for (int i = 1; i <= 250; ++i) {
            std::fprintf(f, "addr add 10.20.%d.1/24 dev d0\n", i);
        }
        std::fclose(f);
    }
    ASSERT_EQ(sh("ip -batch " + batch), 0);
    std::remove(batch.c_str());
    run_until([&] { return ipv4_count("d0") == 250; });
    EXPECT_EQ(ipv4_count("d0"), 250u);
    bool warned = std::any_of(log.begin(), log.end(), [](auto &l) {
        return l.first == LOG_WARNING && l.second.rfind("rtnetlink receive buffer overrun", 0) == 0;
    });
    EXPECT_TRUE(warned);

    // Deletions lost in an overrun are found by the sweep after the new dump.
    events.clear();
    log.clear();
    ASSERT_EQ(sh("ip addr flush dev d0 to 10.20.0.0/16"), 0);
    ASSERT_EQ(sh("ip link add d9 type bridge"), 0);
    run_until([&] { return ipv4_count("d0") == 0 && if_lookup_by_name("d9") != nullptr; });
    EXPECT_EQ(ipv4_count("d0"), 0u);
    std::size_t deletes =
        static_cast<std::size_t>(std::count_if(events.begin(), events.end(), [](const Event &e) {
            return e.command == ZEBRA_INTERFACE_ADDRESS_DELETE && e.found;
        }));
    EXPECT_EQ(deletes, 250u);
}

TEST_F(Live, SendRequestsNeedsTheSocket) {
    EXPECT_EQ(zclient_send_requests(zc.get(), VRF_DEFAULT), -1);
    EXPECT_EQ(zclient_connected(zc.get()), 0);
    zclient_init(zc.get(), 16);
    run_until([&] { return connected_calls == 1; });
    EXPECT_EQ(zclient_send_requests(zc.get(), 5), 0);  // no other VRF: nothing asked
    zclient_stop(zc.get());
    EXPECT_EQ(zclient_connected(zc.get()), 0);
    EXPECT_EQ(thread_count(m), 0u);
}

}  // namespace
