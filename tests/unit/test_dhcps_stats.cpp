// The server's counters: every outcome of a request moves exactly its
// counter, by the number of requests; clear, survival across configuration
// changes, pool gauges and the CLI display.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "dhcp/dhcp_options.h"
#include "dhcp/dhcp_packet.h"
#include "dhcp/dhcps.h"
#include "dhcp/dhcps_leases.h"
#include "dhcp/dhcps_pool.h"
#include "dhcp/dhcps_stats.h"
#include "lib/command.h"
#include "lib/if.h"
#include "lib/log.h"
#include "lib/vty.h"
#include "platform/clock.h"
#include "tests/unit/dhcps_test_msgs.h"

namespace {

using namespace dhcps_test;

int replies = 0;
int count_reply(const dhcp_packet &, std::uint32_t, std::uint32_t, const std::uint8_t *, int) {
    ++replies;
    return 0;
}

constexpr std::int32_t NOW = 1000000;

struct Stats : ::testing::Test {
    interface *ifp = nullptr;
    dhcps_pool *pool = nullptr;

    Stats() {
        if_init();
        dhcps_pool_list_init();
        dhcps_lease_list_init();
        dhcps_settings_init();
        dhcps_stats_clear();
        kq_time_set(NOW);
        replies = 0;
        dhcps_set_sender(count_reply);
        zlog_set_hook([](int, std::string_view) {});
        ifp = if_get_by_name("vlanif10");
        ifp->ifindex = 5;
        prefix a{};
        str2prefix("192.168.1.1/24", &a);
        connected_add(ifp, 0, &a, nullptr);
        pool = dhcps_pool_get("p");
        set_addr_option(DHCP_ROUTER, "192.168.1.1");
        prefix_ipv4 pfx{};
        str2prefix_ipv4("192.168.1.0/24", &pfx);
        EXPECT_EQ(dhcps_network(pool, &pfx), 0);
        pool->begin_ip = ntohl(nip("192.168.1.10"));
        pool->end_ip = ntohl(nip("192.168.1.20"));
    }
    ~Stats() override {
        zlog_set_hook({});
        dhcps_set_sender(nullptr);
        dhcps_pool_list_free();
        dhcps_lease_list_free();
        if_terminate();
        kq_time_clear();
        dhcps_stats_clear();
    }
    void set_addr_option(std::uint8_t code, const char *a) {
        dhcp_delete_option(pool->options, code);
        std::uint32_t n = nip(a);
        auto *b = reinterpret_cast<std::uint8_t *>(&n);
        dhcp_attach_option(pool->options, dhcp_option{0x31, code}, {b, 4});
    }
    int handle(Request &r, const char *local = "192.168.1.1") {
        return dhcps_handle_request(r.p, 300, nip(local));
    }
    void offer(std::uint8_t mac) {
        Request d(DHCPDISCOVER, mac);
        handle(d);
    }
    // A bound client: DISCOVER then REQUEST.
    void bind(std::uint8_t mac) {
        Request d(DHCPDISCOVER, mac);
        handle(d);
        Request r(DHCPREQUEST, mac);
        r.addr_opt(DHCP_REQUESTED_IP, ip_of(mac).c_str()).addr_opt(DHCP_SERVER_ID, "192.168.1.1");
        handle(r);
    }
    static std::string ip_of(std::uint8_t mac) {
        const dhcps_lease *l = nullptr;
        std::uint8_t m[6] = {0x02, 0, 0, 0, 0, mac};
        l = dhcps_find_lease_by_mac(m);
        in_addr a{l != nullptr ? dhcps_lease_nip(l) : 0};
        return inet_ntoa(a);
    }
};

// Everything countable, flattened: received, sent, dropped.
std::vector<std::uint64_t> flat() {
    const dhcps_counters &c = dhcps_stats();
    std::vector<std::uint64_t> v(c.received.begin(), c.received.end());
    v.insert(v.end(), c.sent.begin(), c.sent.end());
    v.insert(v.end(), c.dropped.begin(), c.dropped.end());
    return v;
}

std::size_t rx(dhcps_rx r) {
    return static_cast<std::size_t>(r);
}
std::size_t tx(dhcps_tx t) {
    return DHCPS_RX_COUNT + static_cast<std::size_t>(t);
}
std::size_t drop(dhcps_outcome o) {
    return DHCPS_RX_COUNT + DHCPS_TX_COUNT + dhcps_drop_index(o);
}

struct Case {
    const char *name;
    std::function<void(Stats &)> setup;     // before counting starts
    std::function<int(Stats &, int)> send;  // the i-th message; returns the handler's result
    int result;
    std::vector<std::size_t> moved;  // flat indexes that move by one per message
};

std::vector<Case> cases() {
    using S = Stats;
    auto none = [](S &) {};
    return {
        {"offer_sent",
         none,
         [](S &s, int i) {
             Request d(DHCPDISCOVER, static_cast<std::uint8_t>(1 + i));
             return s.handle(d);
         },
         0,
         {rx(dhcps_rx::discover), tx(dhcps_tx::offer)}},
        {"ack_sent",
         [](S &s) { s.offer(1), s.offer(2); },
         [](S &s, int i) {
             const auto mac = static_cast<std::uint8_t>(1 + i);
             Request r(DHCPREQUEST, mac);
             r.addr_opt(DHCP_REQUESTED_IP, Stats::ip_of(mac).c_str());
             return s.handle(r);
         },
         0,
         {rx(dhcps_rx::request), tx(dhcps_tx::ack)}},
        {"nak_sent",
         none,
         [](S &s, int) {
             Request r(DHCPREQUEST, 9);
             r.addr_opt(DHCP_REQUESTED_IP, "192.168.1.15");
             return s.handle(r);
         },
         0,
         {rx(dhcps_rx::request), tx(dhcps_tx::nak)}},
        {"inform_sent",
         none,
         [](S &s, int) {
             Request r(DHCPINFORM, 9);
             r.p.ciaddr = nip("192.168.1.77");
             return s.handle(r);
         },
         0,
         {rx(dhcps_rx::inform), tx(dhcps_tx::inform_reply)}},
        {"declined",
         [](S &s) { s.bind(1), s.bind(2); },
         [](S &s, int i) {
             const auto mac = static_cast<std::uint8_t>(1 + i);
             Request r(DHCPDECLINE, mac);
             r.addr_opt(DHCP_SERVER_ID, "192.168.1.1")
                 .addr_opt(DHCP_REQUESTED_IP, Stats::ip_of(mac).c_str());
             return s.handle(r);
         },
         0,
         {rx(dhcps_rx::decline)}},
        {"released",
         [](S &s) { s.bind(1), s.bind(2); },
         [](S &s, int i) {
             const auto mac = static_cast<std::uint8_t>(1 + i);
             Request r(DHCPRELEASE, mac);
             r.p.ciaddr = nip(Stats::ip_of(mac).c_str());
             r.addr_opt(DHCP_SERVER_ID, "192.168.1.1");
             return s.handle(r);
         },
         0,
         {rx(dhcps_rx::release)}},
        {"bad_hlen",
         none,
         [](S &s, int) {
             Request d(DHCPDISCOVER, 1);
             d.p.hlen = 7;
             return s.handle(d);
         },
         -1,
         {rx(dhcps_rx::discover), drop(dhcps_outcome::bad_hlen)}},
        {"not_request",
         none,
         [](S &s, int) {
             Request d(DHCPDISCOVER, 1);
             d.p.op = BOOTREPLY;
             return s.handle(d);
         },
         -1,
         {rx(dhcps_rx::discover), drop(dhcps_outcome::not_request)}},
        {"no_interface",
         none,
         [](S &s, int) {
             Request d(DHCPDISCOVER, 1);
             return s.handle(d, "172.31.0.1");
         },
         -1,
         {rx(dhcps_rx::discover), drop(dhcps_outcome::no_interface)}},
        {"option82_invalid",
         none,
         [](S &s, int) {
             Request d(DHCPDISCOVER, 1);
             d.opt(DHCP_RELAY_AGENT_INFO, {1, 9, 'p'});
             return s.handle(d);
         },
         -1,
         {rx(dhcps_rx::discover), drop(dhcps_outcome::option82_invalid)}},
        {"circuit_id_not_allowed",
         none,
         [](S &s, int) {
             Request d(DHCPDISCOVER, 1);
             d.opt(DHCP_RELAY_AGENT_INFO, {1, 2, 'z', 'z'});
             return s.handle(d);
         },
         -1,
         {rx(dhcps_rx::discover), drop(dhcps_outcome::circuit_id_not_allowed)}},
        {"no_pool",
         none,
         [](S &s, int) {
             Request d(DHCPDISCOVER, 1);
             d.p.gateway_nip = nip("172.16.0.1");
             return s.handle(d);
         },
         -1,
         {rx(dhcps_rx::discover), drop(dhcps_outcome::no_pool)}},
        {"no_pool_disabled",
         [](S &s) { s.pool->enable = 0; },
         [](S &s, int) {
             Request d(DHCPDISCOVER, 1);
             return s.handle(d);
         },
         -1,
         {rx(dhcps_rx::discover), drop(dhcps_outcome::no_pool)}},
        {"server_id_mismatch",
         none,
         [](S &s, int) {
             Request r(DHCPREQUEST, 1);
             r.addr_opt(DHCP_SERVER_ID, "192.168.1.99");
             return s.handle(r);
         },
         -1,
         {rx(dhcps_rx::request), drop(dhcps_outcome::server_id_mismatch)}},
        {"bad_message_type",
         none,
         [](S &s, int) {
             Request r(9, 1);
             return s.handle(r);
         },
         -1,
         {rx(dhcps_rx::other), drop(dhcps_outcome::bad_message_type)}},
        {"bad_message_type_absent",
         none,
         [](S &s, int) {
             Request r(DHCPDISCOVER, 1);
             r.p.options[0] = DHCP_END;
             return s.handle(r);
         },
         -1,
         {rx(dhcps_rx::other), drop(dhcps_outcome::bad_message_type)}},
        {"wrong_message_type",
         none,
         [](S &s, int) {
             Request r(DHCPACK, 1);
             return s.handle(r);
         },
         -1,
         {rx(dhcps_rx::other), drop(dhcps_outcome::wrong_message_type)}},
        {"no_requested_address",
         none,
         [](S &s, int) {
             Request r(DHCPREQUEST, 1);
             return s.handle(r);
         },
         0,
         {rx(dhcps_rx::request), drop(dhcps_outcome::no_requested_address)}},
        {"unknown_client",
         none,
         [](S &s, int) {
             Request r(DHCPREQUEST, 9);
             r.p.ciaddr = nip("192.168.1.15");
             return s.handle(r);
         },
         0,
         {rx(dhcps_rx::request), drop(dhcps_outcome::unknown_client)}},
        {"no_free_address",
         [](S &s) {
             s.pool->end_ip = s.pool->begin_ip;
             s.bind(1);
         },
         [](S &s, int i) {
             Request d(DHCPDISCOVER, static_cast<std::uint8_t>(5 + i));
             return s.handle(d);
         },
         0,
         {rx(dhcps_rx::discover), drop(dhcps_outcome::no_free_address)}},
        {"lease_table_full",
         [](S &) {
             dhcps_set_max_lease_num(2048);
             for (std::uint32_t i = 0; i < 2048; ++i) {
                 std::uint8_t mac[6] = {
                     4, 0, 0, 0, static_cast<std::uint8_t>(i >> 8), static_cast<std::uint8_t>(i)};
                 dhcps_add_lease(mac, htonl(0x0a000000u + i), 100, NOW + 100, nullptr, 0, 1, 0);
             }
         },
         [](S &s, int i) {
             Request d(DHCPDISCOVER, static_cast<std::uint8_t>(5 + i));
             return s.handle(d);
         },
         0,
         {rx(dhcps_rx::discover), drop(dhcps_outcome::lease_table_full)}},
        {"decline_ignored",
         none,
         [](S &s, int) {
             Request r(DHCPDECLINE, 1);
             r.addr_opt(DHCP_REQUESTED_IP, "192.168.1.10");
             return s.handle(r);
         },
         0,
         {rx(dhcps_rx::decline), drop(dhcps_outcome::decline_ignored)}},
        {"release_ignored",
         none,
         [](S &s, int) {
             Request r(DHCPRELEASE, 1);
             r.p.ciaddr = nip("192.168.1.10");
             return s.handle(r);
         },
         0,
         {rx(dhcps_rx::release), drop(dhcps_outcome::release_ignored)}},
    };
}

// Test names and failure messages show the case's name only.
[[maybe_unused]] void PrintTo(const Case &c, std::ostream *os) {
    *os << c.name;
}

struct Outcome : Stats, ::testing::WithParamInterface<Case> {};

TEST_P(Outcome, MovesExactlyItsCountersByTheMessagesSent) {
    const Case &c = GetParam();
    if (std::string(c.name) == "circuit_id_not_allowed") {
        ASSERT_EQ(allow_add(&pool->allow_circuit_ids, "port1"), 0);
    }
    c.setup(*this);
    dhcps_stats_clear();
    constexpr int N = 2;
    for (int i = 0; i < N; ++i) {
        EXPECT_EQ(c.send(*this, i), c.result);
    }
    std::vector<std::uint64_t> want(flat().size(), 0);
    for (std::size_t m : c.moved) {
        want[m] = N;
    }
    EXPECT_EQ(flat(), want);
    if (std::string(c.name) == "circuit_id_not_allowed") {
        allow_delete(&pool->allow_circuit_ids, "port1");
    }
}

INSTANTIATE_TEST_SUITE_P(Server, Outcome, ::testing::ValuesIn(cases()),
                         [](const auto &p) { return std::string(p.param.name); });

TEST_F(Stats, NoSubnetMaskIsItsOwnReason) {
    // A mask option too short to hold a mask.
    dhcp_delete_option(pool->options, DHCP_SUBNET_MASK);
    const std::uint8_t two[2] = {255, 255};
    dhcp_attach_option(pool->options, dhcp_option{0x31, DHCP_SUBNET_MASK}, {two, 2});
    for (int i = 0; i < 2; ++i) {
        Request d(DHCPDISCOVER, 1);
        EXPECT_EQ(handle(d), -1);
    }
    std::vector<std::uint64_t> want(flat().size(), 0);
    want[rx(dhcps_rx::discover)] = 2;
    want[drop(dhcps_outcome::no_subnet_mask)] = 2;
    EXPECT_EQ(flat(), want);
}

// Telling the reasons apart adds no log line: each drop logs what it logged.
TEST_F(Stats, ReasonsAddNoLogLines) {
    std::vector<std::string> log;
    zlog_set_hook([&](int, std::string_view t) { log.emplace_back(t); });
    ASSERT_EQ(allow_add(&pool->allow_circuit_ids, "port1"), 0);
    Request d(DHCPDISCOVER, 1);
    d.opt(DHCP_RELAY_AGENT_INFO, {1, 2, 'z', 'z'});
    EXPECT_EQ(handle(d), -1);
    EXPECT_EQ(log, std::vector<std::string>{"Circuit ID is not found! jump over!"});
    log.clear();
    pool->enable = 0;
    EXPECT_EQ(handle(d), -1);
    EXPECT_EQ(log, std::vector<std::string>{"Pool p is not enabled, jump over!"});
    EXPECT_EQ(dhcps_stats().dropped[dhcps_drop_index(dhcps_outcome::circuit_id_not_allowed)], 1u);
    EXPECT_EQ(dhcps_stats().dropped[dhcps_drop_index(dhcps_outcome::no_pool)], 1u);
    allow_delete(&pool->allow_circuit_ids, "port1");
    zlog_set_hook([](int, std::string_view) {});
}

TEST_F(Stats, ClearZeroesTheCountersAndLeavesLeasesAndGauges) {
    bind(1);
    Request bad(DHCPDISCOVER, 1);
    bad.p.hlen = 0;
    handle(bad);
    const dhcps_pool_usage before = dhcps_pool_usage_of(*pool);
    EXPECT_EQ(before.leased, 1u);
    dhcps_stats_clear();
    EXPECT_EQ(flat(), std::vector<std::uint64_t>(flat().size(), 0));
    EXPECT_EQ(dhcps_pool_usage_of(*pool).leased, 1u);
    EXPECT_NE(dhcps_find_lease_by_mac(std::array<std::uint8_t, 6>{2, 0, 0, 0, 0, 1}.data()),
              nullptr);
}

TEST_F(Stats, CountersSurviveConfigurationChanges) {
    bind(1);
    const std::vector<std::uint64_t> before = flat();
    dhcps_set_information(0);
    dhcps_set_max_lease_num(3000);
    dhcps_pool_get("other");
    dhcps_delete_a_pool(dhcps_lookup_by_name("other"));
    pool->lease_time = 3600;
    EXPECT_EQ(flat(), before);
}

TEST_F(Stats, PoolGaugesFollowLeases) {
    auto usage = [&] {
        const dhcps_pool_usage u = dhcps_pool_usage_of(*pool);
        return std::vector<std::uint64_t>{u.range, u.leased, u.offered, u.reserved, u.statics};
    };
    EXPECT_EQ(usage(), (std::vector<std::uint64_t>{11, 0, 0, 0, 0}));
    Request d(DHCPDISCOVER, 1);
    handle(d);
    EXPECT_EQ(usage(), (std::vector<std::uint64_t>{11, 0, 1, 0, 0}));  // given: offered
    bind(1);
    bind(2);
    EXPECT_EQ(usage(), (std::vector<std::uint64_t>{11, 2, 0, 0, 0}));  // given: leased
    Request rel(DHCPRELEASE, 1);
    rel.p.ciaddr = nip(ip_of(1).c_str());
    rel.addr_opt(DHCP_SERVER_ID, "192.168.1.1");
    handle(rel);
    kq_time_set(NOW + 1);
    EXPECT_EQ(usage(), (std::vector<std::uint64_t>{11, 1, 0, 0, 0}));  // released
    Request dec(DHCPDECLINE, 2);
    dec.addr_opt(DHCP_SERVER_ID, "192.168.1.1").addr_opt(DHCP_REQUESTED_IP, ip_of(2).c_str());
    const std::string declined = ip_of(2);
    handle(dec);
    EXPECT_EQ(usage(), (std::vector<std::uint64_t>{11, 0, 0, 1, 0}));  // reserved
    kq_time_set(NOW + 1 + 31);
    EXPECT_EQ(usage(), (std::vector<std::uint64_t>{11, 0, 0, 0, 0}));  // expired
    pool->static_leases.push_back({nip("192.168.1.200"), {2, 0, 0, 0, 0, 7}});
    EXPECT_EQ(usage(), (std::vector<std::uint64_t>{11, 0, 0, 0, 1}));
    (void)declined;
}

}  // namespace
