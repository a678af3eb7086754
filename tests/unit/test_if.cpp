// The interface table.
#include <gtest/gtest.h>
#include <net/if.h>

#include <string>
#include <utility>

#include "lib/if.h"

namespace {

struct IfTable : ::testing::Test {
    IfTable() { if_init(); }
    ~IfTable() override {
        if_add_hook(IF_NEW_HOOK, nullptr);
        if_add_hook(IF_DELETE_HOOK, nullptr);
        if_terminate();
    }
    static prefix pfx(const char *text) {
        prefix p{};
        EXPECT_EQ(str2prefix(text, &p), 1);
        return p;
    }
    static in_addr addr(const char *text) { return pfx(text).u.prefix4; }
    // vlanif10 with 10.0.0.1/8 and vlanif20 with 10.1.0.1/16.
    static std::pair<interface *, interface *> two_networks() {
        interface *a = if_get_by_name("vlanif10");
        interface *b = if_get_by_name("vlanif20");
        prefix pa = pfx("10.0.0.1/8"), pb = pfx("10.1.0.1/16");
        connected_add(a, 0, &pa, nullptr);
        connected_add(b, 0, &pb, nullptr);
        return {a, b};
    }
};

TEST_F(IfTable, CreatedByNameBeforeTheKernelKnowsIt) {
    interface *ifp = if_get_by_name("vlanif10");
    ASSERT_NE(ifp, nullptr);
    EXPECT_STREQ(ifp->name, "vlanif10");
    EXPECT_EQ(ifp->ifindex, IFINDEX_INTERNAL);
    EXPECT_EQ(if_lookup_by_name("vlanif10"), ifp);
    EXPECT_EQ(if_get_by_name("vlanif10"), ifp);  // found, not made twice
    EXPECT_EQ(if_lookup_by_index(0), nullptr);
    ifp->ifindex = 7;
    EXPECT_EQ(if_lookup_by_index(7), ifp);
}

TEST_F(IfTable, NamesLongerThanTheLimitAreRefused) {
    EXPECT_EQ(if_get_by_name("abcdefghijklmnopqrstu"), nullptr);  // 21 characters
    EXPECT_NE(if_get_by_name("abcdefghijklmnopqrst"), nullptr);   // 20
    EXPECT_EQ(if_create("", 0), nullptr);
}

TEST_F(IfTable, UpFlag) {
    interface *ifp = if_get_by_name("eth0");
    EXPECT_EQ(if_is_up(ifp), 0);
    ifp->flags |= IFF_UP;
    EXPECT_EQ(if_is_up(ifp), 1);
    EXPECT_EQ(if_is_up(nullptr), 0);
}

TEST_F(IfTable, LookupAddressPrefersExactThenLongestNetwork) {
    auto [a, b] = two_networks();
    EXPECT_EQ(if_lookup_address(addr("10.0.0.1")), a);  // exact
    EXPECT_EQ(if_lookup_address(addr("10.1.0.1")), b);  // exact
    EXPECT_EQ(if_lookup_address(addr("10.1.2.3")), b);  // /16 beats /8
    EXPECT_EQ(if_lookup_address(addr("10.9.9.9")), a);
    EXPECT_EQ(if_lookup_address(addr("192.0.2.1")), nullptr);
}

TEST_F(IfTable, ExactAddressLookupAndHandleCheck) {
    auto [a, b] = two_networks();
    EXPECT_EQ(if_lookup_exact_address(addr("10.0.0.1")), a);
    EXPECT_EQ(if_lookup_exact_address(addr("10.1.0.1")), b);
    EXPECT_EQ(if_lookup_exact_address(addr("10.1.2.3")), nullptr);  // only in a network
    EXPECT_TRUE(if_exists(a));
    EXPECT_TRUE(if_exists(b));
    if_delete(b);
    EXPECT_FALSE(if_exists(b));  // the handle is compared, never followed
    EXPECT_EQ(if_lookup_exact_address(addr("10.1.0.1")), nullptr);
    EXPECT_FALSE(if_exists(nullptr));
}

TEST_F(IfTable, PeerAddressMatchesOnItsDestination) {
    interface *ifp = if_get_by_name("vlanif30");
    prefix local = pfx("10.9.0.1/32"), peer = pfx("172.16.0.0/24");
    connected *c = connected_add(ifp, ZEBRA_IFA_PEER, &local, &peer);
    ASSERT_NE(c, nullptr);
    EXPECT_TRUE(CONNECTED_PEER(c));
    EXPECT_EQ(CONNECTED_PREFIX(c), c->destination.get());
    EXPECT_EQ(if_lookup_address(addr("172.16.0.9")), ifp);
}

TEST_F(IfTable, ConnectedAddAndDelete) {
    interface *ifp = if_get_by_name("vlanif10");
    prefix p = pfx("192.168.1.1/24");
    connected *c1 = connected_add(ifp, 0, &p, nullptr);
    EXPECT_EQ(connected_add(ifp, 0, &p, nullptr), c1);  // no duplicate
    EXPECT_EQ(ifp->connected.size(), 1u);
    EXPECT_EQ(c1->ifp, ifp);
    EXPECT_TRUE(connected_delete(ifp, &p));
    EXPECT_FALSE(connected_delete(ifp, &p));
    EXPECT_TRUE(ifp->connected.empty());
}

int created = 0;
int deleted = 0;
int on_new(interface *) {
    return ++created, 0;
}
int on_del(interface *) {
    return ++deleted, 0;
}

TEST_F(IfTable, HooksAndDeleteAndNameOrder) {
    created = deleted = 0;
    if_add_hook(IF_NEW_HOOK, on_new);
    if_add_hook(IF_DELETE_HOOK, on_del);
    if_get_by_name("vlanif20");
    if_get_by_name("eth0");
    if_get_by_name("vlanif10");
    EXPECT_EQ(created, 3);
    auto list = vrf_iflist(VRF_DEFAULT);
    ASSERT_EQ(list.size(), 3u);
    EXPECT_STREQ(list[0]->name, "eth0");
    EXPECT_STREQ(list[1]->name, "vlanif10");
    EXPECT_STREQ(list[2]->name, "vlanif20");
    if_delete(if_lookup_by_name("eth0"));
    EXPECT_EQ(deleted, 1);
    EXPECT_EQ(if_lookup_by_name("eth0"), nullptr);
    if_delete(nullptr);
    EXPECT_EQ(vrf_iflist(VRF_DEFAULT).size(), 2u);
}

}  // namespace
