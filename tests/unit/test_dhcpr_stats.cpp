// The relay's counters, driven in process as in test_dhcpr: every outcome of
// a trapped request or reply moves exactly its counters by the number of
// messages, on the right interface; clear, survival across configuration.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "dhcp/dhcp_options.h"
#include "dhcp/dhcp_packet.h"
#include "dhcp/dhcp_zebra.h"
#include "dhcp/dhcpr.h"
#include "dhcp/dhcpr_stats.h"
#include "lib/if.h"
#include "lib/log.h"
#include "lib/thread.h"
#include "lib/zclient.h"
#include "platform/dhcpsnoop.h"
#include "platform/trap.h"
#include "platform/uif.h"
#include "platform/vemix.h"
#include "tests/unit/dhcpr_harness.h"

namespace {

using namespace dhcpr_harness;

// ===========================================================================
// Counters.

// Everything countable on one VLAN, flattened, then the channel's refusals.
std::vector<std::uint64_t> flat(std::uint16_t vlan) {
    const dhcpr_if_counters c = dhcpr_stats_of(vlan);
    std::vector<std::uint64_t> v(c.requests.begin(), c.requests.end());
    v.push_back(c.forwarded);
    v.insert(v.end(), c.replies.begin(), c.replies.end());
    v.push_back(c.delivered);
    v.insert(v.end(), c.dropped.begin(), c.dropped.end());
    v.insert(v.end(), dhcpr_stats_refusals().begin(), dhcpr_stats_refusals().end());
    return v;
}

constexpr std::size_t FWD = DHCPR_REQ_COUNT;
constexpr std::size_t REP0 = FWD + 1;
constexpr std::size_t DELIVERED = REP0 + DHCPR_REP_COUNT;
constexpr std::size_t DROP0 = DELIVERED + 1;
constexpr std::size_t REF0 = DROP0 + DHCPR_DROP_COUNT;

std::size_t req(dhcpr_req r) {
    return static_cast<std::size_t>(r);
}
std::size_t rep(dhcpr_rep r) {
    return REP0 + static_cast<std::size_t>(r);
}
std::size_t drop(dhcpr_outcome o) {
    return DROP0 + static_cast<std::size_t>(o) - DHCPR_FIRST_DROP;
}
std::size_t refused(dhcpr_refusal r) {
    return REF0 + static_cast<std::size_t>(r);
}

struct Case {
    const char *name;
    std::function<void(Relay &)> setup;
    std::function<int(Relay &, int)> send;
    int result;
    std::uint16_t vlan;              // where the counters move
    std::vector<std::size_t> moved;  // flat indexes moving by one per message
};

std::vector<Case> cases() {
    using R = Relay;
    auto none = [](R &) {};
    auto discovers = [](R &) {
        for (std::uint32_t x : {0x10u, 0x11u}) {
            request(discover(x));
        }
    };
    return {
        {"forwarded",
         none,
         [](R &, int) { return request(discover()); },
         0,
         10,
         {req(dhcpr_req::discover), FWD}},
        {"delivered",
         discovers,
         [](R &, int i) { return reply(offer(0x10u + static_cast<std::uint32_t>(i))); },
         0,
         10,
         {rep(dhcpr_rep::offer), DELIVERED}},
        {"hops_exceeded",
         none,
         [](R &, int) { return request(discover().hops(9)); },
         -1,
         10,
         {req(dhcpr_req::discover), drop(dhcpr_outcome::hops_exceeded)}},
        {"no_relay_address",
         none,
         [](R &, int) {
             Trap t;
             t.vlan = 30;
             return request(discover(), t);
         },
         -7,
         30,
         {req(dhcpr_req::discover), drop(dhcpr_outcome::no_relay_address)}},
        {"no_relay_record",
         none,
         [](R &, int) {
             Trap t;
             t.vlan = 20;
             return request(discover(), t);
         },
         -1,
         20,
         {req(dhcpr_req::discover), drop(dhcpr_outcome::no_relay_record)}},
        {"relay_not_enabled",
         [](R &r) { r.rec().enable = 0; },
         [](R &, int) { return request(discover()); },
         -1,
         10,
         {req(dhcpr_req::discover), drop(dhcpr_outcome::relay_not_enabled)}},
        {"option82_present",
         [](R &r) { r.opt82(DHCPR_OPT82_DROP); },
         [](R &, int) {
             return request(discover().opt(DHCP_RELAY_AGENT_INFO, {1, 1, 'x'}));
         },
         -3,
         10,
         {req(dhcpr_req::discover), drop(dhcpr_outcome::option82_present)}},
        {"wrong_request_type",
         none,
         [](R &, int) { return request(Msg(BOOTREQUEST, DHCPACK, 0x77)); },
         0,
         10,
         {req(dhcpr_req::other), drop(dhcpr_outcome::wrong_request_type)}},
        {"send_failed",
         [](R &) { server_send_result = 10; },
         [](R &, int) { return request(discover()); },
         0,
         10,
         {req(dhcpr_req::discover), drop(dhcpr_outcome::send_failed)}},
        {"no_transaction",
         none,
         [](R &, int) { return reply(offer(0x99)); },
         0,
         20,
         {rep(dhcpr_rep::offer), drop(dhcpr_outcome::no_transaction)}},
        {"reply_relay_not_enabled",
         [=](R &r) {
             discovers(r);
             r.rec().enable = 0;
         },
         [](R &, int i) { return reply(offer(0x10u + static_cast<std::uint32_t>(i))); },
         0,
         10,
         {rep(dhcpr_rep::offer), drop(dhcpr_outcome::relay_not_enabled)}},
        {"wrong_reply_type",
         discovers,
         [](R &, int i) {
             return reply(offer(0x10u + static_cast<std::uint32_t>(i), DHCPRELEASE));
         },
         0,
         10,
         {rep(dhcpr_rep::other), drop(dhcpr_outcome::wrong_reply_type)}},
        {"no_server_id",
         discovers,
         [](R &, int i) {
             Msg m(BOOTREPLY, DHCPOFFER, 0x10u + static_cast<std::uint32_t>(i));
             return reply(m);
         },
         0,
         10,
         {rep(dhcpr_rep::offer), drop(dhcpr_outcome::no_server_id)}},
        {"refused_wrong_type",
         none,
         [](R &, int) {
             Trap t;
             t.type = 2;
             return request(discover(), t);
         },
         -4,
         10,
         {refused(dhcpr_refusal::wrong_type)}},
        {"refused_not_udp",
         none,
         [](R &, int) {
             Trap t;
             t.protocol = 6;
             return request(discover(), t);
         },
         -1,
         10,
         {refused(dhcpr_refusal::not_udp)}},
        {"refused_wrong_port",
         none,
         [](R &, int) {
             Trap t;
             t.dport = 546;
             return request(discover(), t);
         },
         -1,
         10,
         {refused(dhcpr_refusal::wrong_port)}},
        {"refused_bad_length",
         none,
         [](R &, int) { return request(discover().length(100)); },
         -1,
         10,
         {refused(dhcpr_refusal::bad_length)}},
    };
}

// Test names and failure messages show the case's name only.
[[maybe_unused]] void PrintTo(const Case &c, std::ostream *os) {
    *os << c.name;
}

struct Outcome : Relay, ::testing::WithParamInterface<Case> {};

TEST_P(Outcome, MovesExactlyItsCountersByTheMessagesSent) {
    const Case &c = GetParam();
    c.setup(*this);
    dhcpr_stats_clear();
    constexpr int N = 2;
    for (int i = 0; i < N; ++i) {
        EXPECT_EQ(c.send(*this, i), c.result);
    }
    std::vector<std::uint64_t> want(flat(c.vlan).size(), 0);
    for (std::size_t m : c.moved) {
        want[m] = N;
    }
    EXPECT_EQ(flat(c.vlan), want);
    // Nothing anywhere else.
    for (std::uint16_t other : {std::uint16_t{10}, std::uint16_t{20}, std::uint16_t{30}}) {
        if (other != c.vlan) {
            const std::vector<std::uint64_t> v = flat(other);
            EXPECT_EQ(std::vector<std::uint64_t>(v.begin(), v.begin() + REF0),
                      std::vector<std::uint64_t>(REF0, 0))
                << "vlan " << other;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Relay, Outcome, ::testing::ValuesIn(cases()),
                         [](const auto &p) { return std::string(p.param.name); });

TEST_F(Relay, UntrustedPortCountsWhereTheReplyCameIn) {
    if (!untrust_uplink()) {
        GTEST_SKIP() << "this platform build carries no snooping state";
    }
    ASSERT_EQ(request(discover()), 0);
    dhcpr_stats_clear();
    EXPECT_EQ(reply(offer()), 0);
    EXPECT_EQ(reply(offer()), 0);
    std::vector<std::uint64_t> want(flat(20).size(), 0);
    want[rep(dhcpr_rep::offer)] = 2;
    want[drop(dhcpr_outcome::untrusted_port)] = 2;
    EXPECT_EQ(flat(20), want);
    EXPECT_EQ(flat(10), std::vector<std::uint64_t>(want.size(), 0));
    dhcpsnoop_if_untrust_set(UPLINK_PORT_NUM, 0);
    dhcpsnoop_enable_set(0);
}

TEST_F(Relay, GoneClientInterfaceCountsWhereTheReplyCameIn) {
    interface *v11 = make_if("vlanif11", 7, "192.168.11.1/24");
    const sockunion server = su_of("10.0.20.2");
    ASSERT_EQ(dhcpr_if_relay_set(v11, &server), 0);
    Trap t;
    t.vlan = 11;
    ASSERT_EQ(request(discover(), t), 0);
    dhcpr_if_teardown(v11);
    if_delete(v11);
    dhcpr_stats_clear();
    Msg o = offer();
    o.p.gateway_nip = nip("192.168.11.1");
    EXPECT_EQ(reply(o), 0);
    std::vector<std::uint64_t> want(flat(20).size(), 0);
    want[rep(dhcpr_rep::offer)] = 1;
    want[drop(dhcpr_outcome::no_relay_record)] = 1;
    EXPECT_EQ(flat(20), want);
}

TEST_F(Relay, DeletedClientInterfaceOfALiveRecordIsNoClientInterface) {
    interface *v12 = make_if("vlanif12", 8, nullptr);
    ASSERT_NE(dhcpr_item_add(htonl(0x4242), v12, nip("192.168.10.1"), 0), nullptr);
    if_delete(v12);
    dhcpr_stats_clear();
    EXPECT_EQ(reply(offer(0x4242)), 0);
    EXPECT_EQ(log.back(), "item->client_ifp is NULL!");
    std::vector<std::uint64_t> want(flat(20).size(), 0);
    want[rep(dhcpr_rep::offer)] = 1;
    want[drop(dhcpr_outcome::no_client_interface)] = 1;
    EXPECT_EQ(flat(20), want);
}

TEST_F(Relay, ClearOneInterfaceLeavesTheOthersAndTheChannel) {
    ASSERT_EQ(request(discover()), 0);
    Trap t;
    t.vlan = 20;
    request(discover(), t);
    t.protocol = 6;
    request(discover(), t);
    const std::vector<std::uint64_t> on20 = flat(20);
    dhcpr_stats_clear_vlan(10);
    EXPECT_EQ(flat(20), on20);
    std::vector<std::uint64_t> want(on20.size(), 0);
    want[refused(dhcpr_refusal::not_udp)] = 1;
    EXPECT_EQ(flat(10), want);
    dhcpr_stats_clear();
    EXPECT_EQ(flat(20), std::vector<std::uint64_t>(on20.size(), 0));
}

TEST_F(Relay, CountersSurviveConfigurationChanges) {
    ASSERT_EQ(request(discover()), 0);
    const std::vector<std::uint64_t> before = flat(10);
    opt82(DHCPR_OPT82_KEEP);
    ASSERT_EQ(dhcpr_if_relay_delete(v10, dhcpr_if_binding(v10)), 0);
    const sockunion other = su_of("10.0.20.3");
    ASSERT_EQ(dhcpr_if_relay_set(v10, &other), 0);
    dhcpr_enable_set(0);
    EXPECT_EQ(flat(10), before);
    EXPECT_TRUE(dhcpr_stats_shown(v10));
}

}  // namespace
