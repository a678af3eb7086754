// Request handling and replies, driven in process: requests go straight to
// the handler and replies are captured at the sending seam.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_options.h"
#include "dhcp/dhcp_packet.h"
#include "dhcp/dhcp_socket.h"
#include "dhcp/dhcps.h"
#include "dhcp/dhcps_leases.h"
#include "dhcp/dhcps_pool.h"
#include "lib/if.h"
#include "lib/log.h"
#include "lib/thread.h"
#include "platform/clock.h"
#include "platform/hal.h"
#include "tests/unit/dhcps_test_msgs.h"

namespace {

using namespace dhcps_test;

std::string ip(std::uint32_t n) {
    char b[INET_ADDRSTRLEN];
    in_addr a{n};
    return inet_ntop(AF_INET, &a, b, sizeof b);
}

struct Sent {
    dhcp_packet reply;
    std::uint32_t src, dst;
    std::uint8_t mac[6];
    int ifindex;
};
std::vector<Sent> sent;

int capture(const dhcp_packet &reply, std::uint32_t src, std::uint32_t dst, const std::uint8_t *mac,
            int ifindex) {
    Sent s{reply, src, dst, {}, ifindex};
    std::memcpy(s.mac, mac, 6);
    sent.push_back(s);
    return 0;
}

// Replies routed to a relay's port 67.
struct Routed {
    dhcp_packet reply;
    std::uint32_t src, dst;
    std::uint16_t port;
};
std::vector<Routed> routed;

int capture_routed(const dhcp_packet &reply, std::uint32_t src, std::uint32_t dst,
                   std::uint16_t port) {
    routed.push_back({reply, src, dst, port});
    return 0;
}

// The options of a reply in order: (code, value bytes).
std::vector<std::pair<int, std::vector<std::uint8_t>>> options_of(const dhcp_packet &p) {
    std::vector<std::pair<int, std::vector<std::uint8_t>>> out;
    for (std::size_t i = 0; i < DHCP_OPTIONS_AREA && p.options[i] != DHCP_END;) {
        if (p.options[i] == 0) {
            ++i;
            continue;
        }
        std::size_t len = p.options[i + 1];
        out.emplace_back(p.options[i],
                         std::vector<std::uint8_t>(p.options + i + 2, p.options + i + 2 + len));
        i += 2 + len;
    }
    return out;
}

std::vector<int> codes_of(const dhcp_packet &p) {
    std::vector<int> c;
    for (auto &[code, v] : options_of(p)) {
        c.push_back(code);
    }
    return c;
}

std::uint32_t u32_option(const dhcp_packet &p, int code) {
    for (auto &[c, v] : options_of(p)) {
        if (c == code && v.size() == 4) {
            return static_cast<std::uint32_t>(v[0]) << 24 | static_cast<std::uint32_t>(v[1]) << 16 |
                   static_cast<std::uint32_t>(v[2]) << 8 | v[3];
        }
    }
    return 0xdeadbeef;
}

struct Server : ::testing::Test {
    interface *ifp = nullptr;
    dhcps_pool *pool = nullptr;
    std::vector<std::string> log;
    static constexpr std::int32_t now = 1000000;

    Server() {
        if_init();
        dhcps_pool_list_init();
        dhcps_lease_list_init();
        dhcps_settings_init();
        kq_time_set(now);
        dhcp_debug = 0;
        sent.clear();
        routed.clear();
        dhcps_set_sender(capture);
        dhcps_set_udp_sender(capture_routed);
        zlog_set_hook([this](int, std::string_view t) { log.emplace_back(t); });
        ifp = if_get_by_name("vlanif10");
        ifp->ifindex = 5;
        prefix a{};
        str2prefix("192.168.1.1/24", &a);
        connected_add(ifp, 0, &a, nullptr);
        pool = make_pool("p", "192.168.1.1", "192.168.1.0/24", "192.168.1.10", "192.168.1.20");
    }
    ~Server() override {
        zlog_set_hook({});
        dhcps_set_sender(nullptr);
        dhcps_set_udp_sender(nullptr);
        dhcps_pool_list_free();
        dhcps_lease_list_free();
        if_terminate();
        kq_time_clear();
    }
    static void addr_option(dhcps_pool *p, std::uint8_t code, std::vector<const char *> addrs) {
        dhcp_delete_option(p->options, code);
        std::vector<std::uint8_t> v;
        for (auto *a : addrs) {
            std::uint32_t n = nip(a);
            auto *b = reinterpret_cast<std::uint8_t *>(&n);
            v.insert(v.end(), b, b + 4);
        }
        dhcp_attach_option(p->options, dhcp_option{0x31, code}, v);
    }
    static void lease_text(dhcps_pool *p, const char *text) {
        dhcp_delete_option(p->options, DHCP_LEASE_TIME);
        dhcp_attach_option(p->options, dhcp_option{0x13, DHCP_LEASE_TIME},
                           {reinterpret_cast<const std::uint8_t *>(text), std::strlen(text)});
    }
    dhcps_pool *make_pool(const char *name, const char *router, const char *net, const char *begin,
                          const char *end) {
        dhcps_pool *p = dhcps_pool_get(name);
        addr_option(p, DHCP_ROUTER, {router});
        addr_option(p, DHCP_DNS_SERVER, {"8.8.8.8"});
        prefix_ipv4 pfx{};
        str2prefix_ipv4(net, &pfx);
        EXPECT_EQ(dhcps_network(p, &pfx), 0);
        p->begin_ip = ntohl(nip(begin));
        p->end_ip = ntohl(nip(end));
        return p;
    }
    int handle(Request &r, const char *local = "192.168.1.1") {
        return dhcps_handle_request(r.p, 300, nip(local));
    }
    int handle(dhcp_packet &p, const char *local = "192.168.1.1") {
        return dhcps_handle_request(p, 300, nip(local));
    }
    bool logged(const std::string &t) {
        for (auto &l : log) {
            if (l == t) {
                return true;
            }
        }
        return false;
    }
    // DISCOVER then REQUEST: the client's bound address.
    std::uint32_t bind(std::uint8_t mac_last) {
        Request d(DHCPDISCOVER, mac_last);
        EXPECT_EQ(handle(d), 0);
        std::uint32_t offered = sent.back().reply.yiaddr;
        Request r(DHCPREQUEST, mac_last);
        r.addr_opt(DHCP_REQUESTED_IP, ip(offered).c_str()).addr_opt(DHCP_SERVER_ID, "192.168.1.1");
        EXPECT_EQ(handle(r), 0);
        EXPECT_EQ(options_of(sent.back().reply)[0].second, std::vector<std::uint8_t>{DHCPACK});
        return offered;
    }
};

TEST_F(Server, DiscoverGetsAnOfferWithOptionsInOrder) {
    Request d(DHCPDISCOVER, 1);
    ASSERT_EQ(handle(d), 0);
    ASSERT_EQ(sent.size(), 1u);
    const dhcp_packet &o = sent[0].reply;
    EXPECT_EQ(o.op, BOOTREPLY);
    EXPECT_EQ(o.htype, 1);
    EXPECT_EQ(o.hlen, 6);
    EXPECT_EQ(o.xid, htonl(0x1234));
    EXPECT_EQ(ip(o.yiaddr), "192.168.1.10");
    EXPECT_EQ(ip(o.siaddr_nip), "192.168.1.1");
    EXPECT_EQ(std::memcmp(o.chaddr, d.p.chaddr, 16), 0);
    EXPECT_EQ(codes_of(o), (std::vector<int>{53, 54, 51, 58, 59, 1, 3, 6, 28}));
    EXPECT_EQ(u32_option(o, 51), 864000u);
    EXPECT_EQ(u32_option(o, 58), 432000u);
    EXPECT_EQ(u32_option(o, 59), 756000u);
    EXPECT_EQ(ip(htonl(u32_option(o, 54))), "192.168.1.1");
    // No broadcast flag, no relay: to ciaddr (0) at the client's MAC.
    EXPECT_EQ(sent[0].dst, 0u);
    EXPECT_EQ(std::memcmp(sent[0].mac, d.p.chaddr, 6), 0);
    EXPECT_EQ(sent[0].ifindex, 5);
    EXPECT_EQ(ip(sent[0].src), "192.168.1.1");
    // The offer holds the address with an uncommitted lease for offer_time.
    const dhcps_lease *l = dhcps_find_lease_by_nip(nip("192.168.1.10"));
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(dhcps_lease_state(l), 0u);
    EXPECT_EQ(dhcps_lease_expires(l), now + 10);
    EXPECT_EQ(dhcps_lease_time(l), 10u);
}

TEST_F(Server, LeaseTextOptionIsGrantedAndClamped) {
    lease_text(pool, "3600");
    Request d(DHCPDISCOVER, 1);
    handle(d);
    EXPECT_EQ(u32_option(sent[0].reply, 51), 3600u);
    EXPECT_EQ(u32_option(sent[0].reply, 58), 1800u);
    EXPECT_EQ(u32_option(sent[0].reply, 59), 3150u);
    lease_text(pool, "0");
    EXPECT_EQ(dhcps_get_lease_time(pool), 0u);  // "lease infinite" grants nothing
    pool->min_lease_time = 60;
    EXPECT_EQ(dhcps_get_lease_time(pool), 60u);
    lease_text(pool, "99999999");
    EXPECT_EQ(dhcps_get_lease_time(pool), 864000u);
    lease_text(pool, "x1");
    EXPECT_EQ(dhcps_get_lease_time(pool), 60u);
    EXPECT_EQ(dhcps_get_lease_time(nullptr), 0xffffffffu);
}

TEST_F(Server, RebindingTimeWrapsIn32Bits) {
    pool->lease_time = 4000000000u;
    lease_text(pool, "4000000000");
    Request d(DHCPDISCOVER, 1);
    handle(d);
    EXPECT_EQ(u32_option(sent[0].reply, 59), static_cast<std::uint32_t>(4000000000u * 7u) / 8u);
}

TEST_F(Server, RequestForTheOfferIsAckedAndCommitted) {
    std::uint32_t a = bind(1);
    EXPECT_EQ(ip(a), "192.168.1.10");
    const dhcp_packet &ack = sent.back().reply;
    EXPECT_EQ(codes_of(ack), (std::vector<int>{53, 54, 51, 58, 59, 1, 3, 6, 28}));
    EXPECT_EQ(ack.yiaddr, a);
    const dhcps_lease *l = dhcps_find_lease_by_nip(a);
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(dhcps_lease_state(l), 1u);
    EXPECT_EQ(dhcps_lease_expires(l), now + 864000);
    EXPECT_EQ(dhcps_global.leases_dirty, 1u);
    EXPECT_EQ(ip(bind(2)), "192.168.1.11");
}

TEST_F(Server, BroadcastFlagIsHonouredEvenWithCiaddr) {
    std::uint32_t a = bind(1);
    Request r(DHCPREQUEST, 1);
    r.p.flags = htons(0x8000);
    r.p.ciaddr = a;
    handle(r);
    EXPECT_EQ(sent.back().dst, INADDR_BROADCAST);
    EXPECT_EQ(sent.back().mac[0], 0xff);
}

TEST_F(Server, RenewalByCiaddrIsUnicast) {
    std::uint32_t a = bind(1);
    Request r(DHCPREQUEST, 1);
    r.p.ciaddr = a;
    handle(r);
    EXPECT_EQ(options_of(sent.back().reply)[0].second, std::vector<std::uint8_t>{DHCPACK});
    EXPECT_EQ(sent.back().dst, a);
    EXPECT_EQ(sent.back().mac[5], 1);
}

TEST_F(Server, RequestWithOnlyCiaddrFromAStrangerGetsNoAnswer) {
    Request r(DHCPREQUEST, 9);
    r.p.ciaddr = nip("192.168.1.15");
    EXPECT_EQ(handle(r), 0);
    EXPECT_TRUE(sent.empty());
    Request r2(DHCPREQUEST, 9);
    r2.addr_opt(DHCP_REQUESTED_IP, "192.168.1.15");
    EXPECT_EQ(handle(r2), 0);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(codes_of(sent[0].reply), (std::vector<int>{53, 54}));
    EXPECT_EQ(options_of(sent[0].reply)[0].second, std::vector<std::uint8_t>{DHCPNAK});
    EXPECT_EQ(sent[0].dst, INADDR_BROADCAST);
}

TEST_F(Server, RequestWithNeitherOptionNorCiaddrIsIgnored) {
    Request r(DHCPREQUEST, 9);
    EXPECT_EQ(handle(r), 0);
    EXPECT_TRUE(sent.empty());
    EXPECT_TRUE(logged("no requested IP and no ciaddr, ignoring"));
}

TEST_F(Server, DirectRequestOutsideTheFirstAddressSubnetIsNakedAndForgotten) {
    // The range was set under an earlier network; the network then moved to
    // another /24, which leaves the range where it was.
    dhcps_pool_list_free();
    prefix a{};
    str2prefix("10.1.6.1/24", &a);
    connected_add(ifp, 0, &a, nullptr);
    make_pool("q", "10.1.6.1", "10.1.6.0/24", "10.1.5.1", "10.1.5.254");
    const std::uint8_t mac[6] = {0x02, 0, 0, 0, 0, 7};
    ASSERT_NE(dhcps_add_lease(mac, nip("10.1.6.9"), 100, now + 100, nullptr, 0, 1, 0), nullptr);
    Request r(DHCPREQUEST, 7);
    r.addr_opt(DHCP_REQUESTED_IP, "10.1.6.9");
    EXPECT_EQ(handle(r, "10.1.6.1"), 0);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(options_of(sent[0].reply)[0].second, std::vector<std::uint8_t>{DHCPNAK});
    EXPECT_EQ(dhcps_find_lease_by_mac(mac), nullptr);
    // Relayed (hops 1), the same request is acknowledged.
    ASSERT_NE(dhcps_add_lease(mac, nip("10.1.6.9"), 100, now + 100, nullptr, 0, 1, 0), nullptr);
    r.p.hops = 1;
    handle(r, "10.1.6.1");
    EXPECT_EQ(options_of(sent.back().reply)[0].second, std::vector<std::uint8_t>{DHCPACK});
}

TEST_F(Server, RelayedRequestChoosesThePoolByGatewayAndRepliesToIt) {
    dhcps_pool *remote = make_pool("r", "10.20.0.1", "10.20.0.0/24", "10.20.0.50", "10.20.0.60");
    Request d(DHCPDISCOVER, 3);
    d.p.gateway_nip = nip("10.20.0.1");
    d.p.hops = 1;
    ASSERT_EQ(handle(d), 0);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(ip(sent[0].reply.yiaddr), "10.20.0.50");
    EXPECT_EQ(sent[0].dst, nip("10.20.0.1"));
    EXPECT_EQ(sent[0].mac[0], 0xff);
    EXPECT_EQ(sent[0].reply.gateway_nip, nip("10.20.0.1"));
    EXPECT_EQ(remote->last_request_len, 328u);
    // The server identifier is the receiving interface's address.
    EXPECT_EQ(ip(htonl(u32_option(sent[0].reply, 54))), "192.168.1.1");
}

TEST_F(Server, NakIsBroadcastAlsoToARelayedRequest) {
    make_pool("r", "10.20.0.1", "10.20.0.0/24", "10.20.0.50", "10.20.0.60");
    Request r(DHCPREQUEST, 3);
    r.p.gateway_nip = nip("10.20.0.1");
    r.addr_opt(DHCP_REQUESTED_IP, "10.20.0.55");
    handle(r);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].dst, INADDR_BROADCAST);
}

TEST_F(Server, RelayReplyPortTakesOnly67And68) {
    EXPECT_EQ(dhcps_get_relay_reply_port(), 68u);
    const struct {
        std::uint32_t port;
        int rc;
        std::uint32_t after;
    } cases[] = {{67, 0, 67},           {0, -1, 67}, {66, -1, 67},
                 {69, -1, 67},          {68, 0, 68}, {67 + 65536, -1, 68},
                 {0xffffffffu, -1, 68}, {67, 0, 67}, {67, 0, 67}};
    for (const auto &c : cases) {
        EXPECT_EQ(dhcps_set_relay_reply_port(c.port), c.rc) << c.port;
        EXPECT_EQ(dhcps_get_relay_reply_port(), c.after) << c.port;
    }
    EXPECT_TRUE(log.empty());
    dhcps_settings_init();
    EXPECT_EQ(dhcps_get_relay_reply_port(), 68u);
}

// With port 67 every reply to a relayed request is routed to giaddr port 67
// from the pool's server address; its bytes are those the default sends in a
// raw frame, but for the broadcast bit that a NAK gets.
TEST_F(Server, RelayedRepliesGoToTheRelayPort67AsTheDefaultBuildsThem) {
    struct Case {
        const char *name;
        std::uint8_t type;
        std::uint16_t flags;  // the request's
        bool with_lease;      // the client holds 10.20.0.55
        std::uint8_t reply_type;
        std::uint16_t reply_flags;  // on the wire at port 67
    };
    const Case cases[] = {
        {"discover", DHCPDISCOVER, 0, false, DHCPOFFER, 0},
        {"discover_broadcast", DHCPDISCOVER, 0x8000, false, DHCPOFFER, 0x8000},
        {"request", DHCPREQUEST, 0, true, DHCPACK, 0},
        {"request_broadcast", DHCPREQUEST, 0x8000, true, DHCPACK, 0x8000},
        {"request_nak", DHCPREQUEST, 0, false, DHCPNAK, 0x8000},
        {"inform", DHCPINFORM, 0, false, DHCPACK, 0},
    };
    make_pool("r", "10.20.0.1", "10.20.0.0/24", "10.20.0.50", "10.20.0.60");
    const std::uint8_t mac[6] = {0x02, 0, 0, 0, 0, 3};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<dhcp_packet> replies;
        for (const std::uint32_t port : {68u, 67u}) {
            dhcps_lease_list_free();
            dhcps_lease_list_init();
            if (c.with_lease) {
                dhcps_add_lease(mac, nip("10.20.0.55"), 100, now + 100, nullptr, 0, 1, 0);
            }
            sent.clear();
            routed.clear();
            ASSERT_EQ(dhcps_set_relay_reply_port(port), 0);
            Request r(c.type, 3);
            r.p.gateway_nip = nip("10.20.0.1");
            r.p.hops = 1;
            r.p.flags = htons(c.flags);
            if (c.type == DHCPREQUEST) {
                r.addr_opt(DHCP_REQUESTED_IP, "10.20.0.55");
            }
            ASSERT_EQ(handle(r), 0);
            if (port == 68) {
                ASSERT_EQ(sent.size(), 1u);
                ASSERT_TRUE(routed.empty());
                replies.push_back(sent[0].reply);
                continue;
            }
            ASSERT_TRUE(sent.empty());
            ASSERT_EQ(routed.size(), 1u);
            EXPECT_EQ(ip(routed[0].dst), "10.20.0.1");
            EXPECT_EQ(routed[0].port, 67);
            EXPECT_EQ(ip(routed[0].src), "10.20.0.0");  // the detached pool's server address
            EXPECT_EQ(options_of(routed[0].reply)[0].second,
                      std::vector<std::uint8_t>{c.reply_type});
            EXPECT_EQ(ntohs(routed[0].reply.flags), c.reply_flags);
            dhcp_packet expect = replies.back();
            expect.flags = htons(c.reply_flags);
            EXPECT_EQ(std::memcmp(&routed[0].reply, &expect, sizeof expect), 0);
        }
    }
}

TEST_F(Server, DirectClientsIgnoreTheRelayReplyPort) {
    ASSERT_EQ(dhcps_set_relay_reply_port(67), 0);
    const std::uint32_t a = bind(1);
    Request renew(DHCPREQUEST, 1);
    renew.p.ciaddr = a;
    handle(renew);
    Request nak(DHCPREQUEST, 9);
    nak.addr_opt(DHCP_REQUESTED_IP, "192.168.1.15");
    handle(nak);
    EXPECT_TRUE(routed.empty());
    ASSERT_EQ(sent.size(), 4u);  // offer, ack, ack, nak: raw frames as ever
    EXPECT_EQ(sent[2].dst, a);
    EXPECT_EQ(sent[3].dst, INADDR_BROADCAST);
    EXPECT_EQ(sent[3].reply.flags, 0);
}

TEST_F(Server, Option82IsCheckedAndEchoedLast) {
    ASSERT_EQ(allow_add(&pool->allow_circuit_ids, "port1"), 0);
    Request d(DHCPDISCOVER, 4);
    d.opt(DHCP_RELAY_AGENT_INFO, {1, 5, 'p', 'o', 'r', 't', '1', 2, 1, 'x'});
    ASSERT_EQ(handle(d), 0);
    auto opts = options_of(sent.back().reply);
    EXPECT_EQ(opts.back().first, 82);
    EXPECT_EQ(opts.back().second,
              (std::vector<std::uint8_t>{1, 5, 'p', 'o', 'r', 't', '1', 2, 1, 'x'}));
    Request bad(DHCPDISCOVER, 5);
    bad.opt(DHCP_RELAY_AGENT_INFO, {1, 9, 'p'});
    EXPECT_EQ(handle(bad), -1);
    EXPECT_TRUE(logged("Option-82 is invalid!"));
    // With option-82 handling off the option is neither checked nor echoed.
    dhcps_set_information(0);
    sent.clear();
    EXPECT_EQ(handle(bad), 0);
    EXPECT_NE(codes_of(sent.back().reply).back(), 82);
    allow_delete(&pool->allow_circuit_ids, "port1");
}

TEST_F(Server, Option82IsNotEvenLookedForWhenHandlingIsOff) {
    dhcps_set_information(0);
    dhcp_debug = DHCP_DEBUG_EVENTS;
    Request d(DHCPDISCOVER, 4);
    handle(d);
    dhcp_debug = 0;
    EXPECT_FALSE(logged("Option 0x52 not found"));
    dhcps_set_information(1);
    log.clear();
    dhcp_debug = DHCP_DEBUG_EVENTS;
    handle(d);
    dhcp_debug = 0;
    EXPECT_TRUE(logged("Option 0x52 not found"));
}

TEST_F(Server, CircuitIdNotAllowedAnywhereGetsNothing) {
    Request d(DHCPDISCOVER, 4);
    d.opt(DHCP_RELAY_AGENT_INFO, {1, 2, 'z', 'z'});
    EXPECT_EQ(handle(d), -1);
    EXPECT_TRUE(sent.empty());
}

TEST_F(Server, DeclineWithoutServerIdChangesNothing) {
    std::uint32_t a = bind(1);
    Request dec(DHCPDECLINE, 1);
    dec.addr_opt(DHCP_REQUESTED_IP, ip(a).c_str());
    EXPECT_EQ(handle(dec), 0);
    const dhcps_lease *l = dhcps_find_lease_by_nip(a);
    EXPECT_EQ(dhcps_lease_state(l), 1u);
    EXPECT_EQ(l->mac[5], 1);
    dec.addr_opt(DHCP_SERVER_ID, "192.168.1.1");
    EXPECT_EQ(handle(dec), 0);
    EXPECT_EQ(dhcps_lease_state(l), 0u);
    EXPECT_EQ(l->mac[5], 0);
    EXPECT_EQ(dhcps_lease_expires(l), now + 30);
    EXPECT_EQ(sent.size(), 2u);  // no reply to a decline
}

TEST_F(Server, ReleaseMovesExpiryToNowAndKeepsTheLease) {
    std::uint32_t a = bind(1);
    Request rel(DHCPRELEASE, 1);
    rel.p.ciaddr = a;
    EXPECT_EQ(handle(rel), 0);
    EXPECT_EQ(dhcps_lease_expires(dhcps_find_lease_by_nip(a)), now + 864000);  // no 54: nothing
    rel.addr_opt(DHCP_SERVER_ID, "192.168.1.1");
    EXPECT_EQ(handle(rel), 0);
    const dhcps_lease *l = dhcps_find_lease_by_nip(a);
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(dhcps_lease_expires(l), now);
    EXPECT_EQ(dhcps_lease_state(l), 1u);
}

TEST_F(Server, StaticBindingIsOfferedEvenOutsideTheRange) {
    dhcps_static_lease s{nip("192.168.1.200"), {0x02, 0, 0, 0, 0, 8}};
    pool->static_leases.push_back(s);
    Request d(DHCPDISCOVER, 8);
    handle(d);
    EXPECT_EQ(ip(sent[0].reply.yiaddr), "192.168.1.200");
    EXPECT_EQ(dhcps_get_leases_num(), 0);  // nothing held at offer time
    Request r(DHCPREQUEST, 8);
    r.addr_opt(DHCP_REQUESTED_IP, "192.168.1.200");
    handle(r);
    EXPECT_EQ(options_of(sent.back().reply)[0].second, std::vector<std::uint8_t>{DHCPACK});
    EXPECT_EQ(sent.back().reply.yiaddr, nip("192.168.1.200"));
}

// The switch port on which the client's MAC was learned picks its port
// binding; the question goes to the forwarding database in the client's VLAN.
TEST_F(Server, PortBindingFollowsTheSwitchPortOfTheMac) {
    pool->port_binds.push_back({nip("192.168.1.210"), static_cast<std::int32_t>(0x01000003)});
    std::vector<std::uint16_t> asked;
    hal_set_mac_port_lookup(
        [&asked](std::uint16_t vid, const std::uint8_t *m, std::uint32_t *port) {
            asked.push_back(vid);
            *port = m[5] == 9 ? 0x01000003u : 0;
            return 0;
        });
    Request d(DHCPDISCOVER, 9);
    handle(d);
    Request other(DHCPDISCOVER, 10);
    handle(other);
    hal_set_mac_port_lookup({});
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(ip(sent[0].reply.yiaddr), "192.168.1.210");
    EXPECT_EQ(ip(sent[1].reply.yiaddr), "192.168.1.10");
    EXPECT_EQ(asked, (std::vector<std::uint16_t>{10, 10}));
}

TEST_F(Server, OwnLeaseOutsideTheRangeIsNotOfferedAgain) {
    const std::uint8_t mac[6] = {0x02, 0, 0, 0, 0, 1};
    dhcps_add_lease(mac, nip("192.168.1.100"), 100, now + 100, nullptr, 0, 1, 0);
    Request d(DHCPDISCOVER, 1);
    d.addr_opt(DHCP_REQUESTED_IP, "192.168.1.15");
    handle(d);
    EXPECT_EQ(ip(sent[0].reply.yiaddr), "192.168.1.15");  // the requested one instead
}

TEST_F(Server, FullTableStillAcksAndMarksDirty) {
    dhcps_set_max_lease_num(2048);
    for (int i = 0; i < 2048; ++i) {
        std::uint8_t mac[6] = {
            0x04, 0, 0, 0, static_cast<std::uint8_t>(i >> 8), static_cast<std::uint8_t>(i)};
        ASSERT_NE(dhcps_add_lease(mac, htonl(0x0a000000u + static_cast<std::uint32_t>(i)), 100,
                                  now + 100, nullptr, 0, 1, 0),
                  nullptr);
    }
    dhcps_static_lease s{nip("192.168.1.201"), {0x02, 0, 0, 0, 0, 9}};
    pool->static_leases.push_back(s);
    dhcps_global.leases_dirty = 0;
    Request r(DHCPREQUEST, 9);
    r.addr_opt(DHCP_REQUESTED_IP, "192.168.1.201");
    handle(r);
    EXPECT_EQ(options_of(sent.back().reply)[0].second, std::vector<std::uint8_t>{DHCPACK});
    EXPECT_EQ(dhcps_global.leases_dirty, 1u);
    EXPECT_EQ(dhcps_find_lease_by_nip(nip("192.168.1.201")), nullptr);
}

TEST_F(Server, ExhaustedRangeAbandonsTheOffer) {
    pool->end_ip = pool->begin_ip + 1;
    bind(1);
    bind(2);
    sent.clear();
    Request d(DHCPDISCOVER, 3);
    EXPECT_EQ(handle(d), 0);
    EXPECT_TRUE(sent.empty());
    EXPECT_TRUE(logged("no free IP addresses. OFFER abandoned"));
}

TEST_F(Server, InformGetsPoolOptionsWithoutAddressOrLease) {
    Request i(DHCPINFORM, 6);
    i.p.ciaddr = nip("192.168.1.77");
    ASSERT_EQ(handle(i), 0);
    const dhcp_packet &a = sent[0].reply;
    EXPECT_EQ(codes_of(a), (std::vector<int>{53, 54, 1, 3, 6, 28}));
    EXPECT_EQ(options_of(a)[0].second, std::vector<std::uint8_t>{DHCPACK});
    EXPECT_EQ(a.yiaddr, 0u);
    EXPECT_EQ(sent[0].dst, nip("192.168.1.77"));
}

TEST_F(Server, MalformedRequestsAreDroppedWithoutReply) {
    Request notype(DHCPDISCOVER, 1);
    notype.p.options[0] = DHCP_END;
    EXPECT_EQ(handle(notype), -1);
    Request badtype(9, 1);
    EXPECT_EQ(handle(badtype), -1);
    Request hlen(DHCPDISCOVER, 1);
    hlen.p.hlen = 7;
    EXPECT_EQ(handle(hlen), -1);
    Request reply(DHCPDISCOVER, 1);
    reply.p.op = BOOTREPLY;
    EXPECT_EQ(handle(reply), -1);
    Request offer(DHCPOFFER, 1);
    EXPECT_EQ(handle(offer), -1);
    Request elsewhere(DHCPDISCOVER, 1);
    EXPECT_EQ(handle(elsewhere, "172.31.0.1"), -1);
    EXPECT_TRUE(logged("if_lookup_address of l3_if_addr fail!"));
    EXPECT_TRUE(sent.empty());
}

TEST_F(Server, ServerIdOfAnotherServerIsIgnored) {
    Request r(DHCPREQUEST, 1);
    r.addr_opt(DHCP_SERVER_ID, "192.168.1.99").addr_opt(DHCP_REQUESTED_IP, "192.168.1.10");
    EXPECT_EQ(handle(r), -1);
    EXPECT_TRUE(logged("server ID doesn't match, ignoring"));
    EXPECT_TRUE(sent.empty());
}

TEST_F(Server, MessageTypeNamesAndPacketTracesUnderDebug) {
    dhcp_debug = DHCP_DEBUG_PACKET;
    Request d(DHCPDISCOVER, 1);
    handle(d);
    EXPECT_TRUE(logged("DHCPDISCOVER"));
    EXPECT_TRUE(logged("Received DISCOVER"));
    EXPECT_TRUE(logged("get free ip: 192.168.1.10"));
    EXPECT_TRUE(logged("Sending OFFER of 192.168.1.10"));
    EXPECT_TRUE(logged("Unicasting packet to client ciaddr"));
    EXPECT_TRUE(logged("dhcps_pool p, ipaddr=192.168.1.1, ifindex=5"));
    dhcp_debug = 0;
}

TEST_F(Server, HostNameIsStoredWithTheByteAfterIt) {
    Request d(DHCPDISCOVER, 1);
    d.opt(DHCP_HOST_NAME, {'a', 'b'}).opt(55, {1, 3});
    handle(d);
    const dhcps_lease *l = dhcps_find_lease_by_nip(nip("192.168.1.10"));
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(std::string(l->hostname, strnlen(l->hostname, 20)), "ab7");
}

// ---- options 50 and 54 decide by being there ------------------------------

// One request and what the server does with it. The server identifier is
// 192.168.1.1; a bound client (MAC ending in 1) holds 192.168.1.10.
struct WireCase {
    const char *name;
    std::uint8_t type;
    std::vector<std::uint8_t> options;  // after option 53, as they lie
    const char *ciaddr;                 // nullptr: 0.0.0.0
    bool bound;
    int rc;
    std::uint8_t reply;      // type of the one reply; 0: nothing is sent
    const char *logged;      // a line that must be logged, or nullptr
    const char *not_logged;  // a line that must not be, or nullptr
};

void PrintTo(const WireCase &c, std::ostream *os) {
    *os << c.name;
}

class WireRules : public Server, public ::testing::WithParamInterface<WireCase> {};

constexpr const char *kIgnoring = "no requested IP and no ciaddr, ignoring";
constexpr const char *kOtherServer = "server ID doesn't match, ignoring";

TEST_P(WireRules, OutcomeOfOneRequest) {
    const WireCase &c = GetParam();
    if (c.bound) {
        ASSERT_EQ(ip(bind(1)), "192.168.1.10");
    }
    sent.clear();
    log.clear();
    Request r(c.type, 1);
    r.raw(c.options);
    if (c.ciaddr != nullptr) {
        r.p.ciaddr = nip(c.ciaddr);
    }
    EXPECT_EQ(handle(r), c.rc);
    if (c.reply == 0) {
        EXPECT_TRUE(sent.empty());
    } else {
        ASSERT_EQ(sent.size(), 1u);
        EXPECT_EQ(options_of(sent[0].reply)[0].second, std::vector<std::uint8_t>{c.reply});
    }
    if (c.reply == DHCPNAK) {
        // A NAK is the header, 53 and 54 and nothing else, broadcast.
        EXPECT_EQ(codes_of(sent[0].reply), (std::vector<int>{53, 54}));
        EXPECT_EQ(sent[0].reply.yiaddr, 0u);
        EXPECT_EQ(sent[0].dst, INADDR_BROADCAST);
    }
    if (c.logged != nullptr) {
        EXPECT_TRUE(logged(c.logged)) << c.logged;
    }
    if (c.not_logged != nullptr) {
        EXPECT_FALSE(logged(c.not_logged)) << c.not_logged;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Table, WireRules,
    ::testing::Values(
        // Option 50 carried with 0.0.0.0 is a request for 0.0.0.0: no lease
        // holds it, so the carried option brings a NAK.
        WireCase{"requested_zero",
                 DHCPREQUEST,
                 {50, 4, 0, 0, 0, 0},
                 nullptr,
                 false,
                 0,
                 DHCPNAK,
                 nullptr,
                 kIgnoring},
        WireCase{"requested_zero_with_server_id",
                 DHCPREQUEST,
                 {50, 4, 0, 0, 0, 0, 54, 4, 192, 168, 1, 1},
                 nullptr,
                 false,
                 0,
                 DHCPNAK,
                 nullptr,
                 kIgnoring},
        WireCase{"requested_zero_by_a_bound_client",
                 DHCPREQUEST,
                 {50, 4, 0, 0, 0, 0},
                 nullptr,
                 true,
                 0,
                 DHCPNAK,
                 nullptr,
                 kIgnoring},
        WireCase{"requested_zero_beside_the_lease_ciaddr",
                 DHCPREQUEST,
                 {50, 4, 0, 0, 0, 0},
                 "192.168.1.10",
                 true,
                 0,
                 DHCPNAK,
                 nullptr,
                 nullptr},
        // Shorter than four bytes, option 50 is still carried; its missing
        // bytes read as 0.
        WireCase{"requested_empty",
                 DHCPREQUEST,
                 {50, 0},
                 nullptr,
                 false,
                 0,
                 DHCPNAK,
                 nullptr,
                 kIgnoring},
        WireCase{"requested_two_bytes",
                 DHCPREQUEST,
                 {50, 2, 192, 168},
                 nullptr,
                 false,
                 0,
                 DHCPNAK,
                 nullptr,
                 kIgnoring},
        WireCase{"requested_three_bytes_of_the_lease",
                 DHCPREQUEST,
                 {50, 3, 192, 168, 1},
                 nullptr,
                 true,
                 0,
                 DHCPNAK,
                 nullptr,
                 kIgnoring},
        // A short option 54 is carried too, and names another server.
        WireCase{"server_id_empty",
                 DHCPREQUEST,
                 {54, 0, 50, 4, 192, 168, 1, 10},
                 nullptr,
                 true,
                 -1,
                 0,
                 kOtherServer,
                 nullptr},
        WireCase{"server_id_three_bytes",
                 DHCPREQUEST,
                 {54, 3, 192, 168, 1},
                 "192.168.1.15",
                 false,
                 -1,
                 0,
                 kOtherServer,
                 nullptr},
        WireCase{"server_id_two_bytes_on_discover",
                 DHCPDISCOVER,
                 {54, 2, 192, 168},
                 nullptr,
                 false,
                 -1,
                 0,
                 kOtherServer,
                 nullptr},
        WireCase{"server_id_three_bytes_on_release",
                 DHCPRELEASE,
                 {54, 3, 192, 168, 1},
                 "192.168.1.10",
                 true,
                 -1,
                 0,
                 kOtherServer,
                 nullptr},
        // Whole options, unchanged: the rules the short ones now share.
        WireCase{
            "neither_option_nor_ciaddr", DHCPREQUEST, {}, nullptr, false, 0, 0, kIgnoring, nullptr},
        WireCase{"ciaddr_and_server_id_of_a_stranger",
                 DHCPREQUEST,
                 {54, 4, 192, 168, 1, 1},
                 "192.168.1.15",
                 false,
                 0,
                 DHCPNAK,
                 nullptr,
                 nullptr},
        WireCase{"ciaddr_alone_of_a_stranger",
                 DHCPREQUEST,
                 {},
                 "192.168.1.15",
                 false,
                 0,
                 0,
                 nullptr,
                 kIgnoring},
        WireCase{"requested_lease_is_acked",
                 DHCPREQUEST,
                 {50, 4, 192, 168, 1, 10},
                 nullptr,
                 true,
                 0,
                 DHCPACK,
                 nullptr,
                 nullptr},
        WireCase{"server_id_of_another_server",
                 DHCPREQUEST,
                 {54, 4, 192, 168, 1, 99},
                 nullptr,
                 true,
                 -1,
                 0,
                 kOtherServer,
                 nullptr}),
    [](const auto &param_info) { return std::string(param_info.param.name); });

// Empty options on the last two bytes of the options area: their value is
// read as nothing, never from beyond the record (on the heap at its exact
// size, so such a read is caught).
TEST_F(Server, EmptyOptionOnTheAreaEndIsCarriedAndReadBounded) {
    for (std::uint8_t type : {DHCPDISCOVER, DHCPREQUEST}) {
        SCOPED_TRACE(static_cast<int>(type));
        sent.clear();
        auto p = std::make_unique<dhcp_packet>(Request(type, 1).p);
        std::memset(p->options + 3, 0, DHCP_OPTIONS_AREA - 3);  // pads after option 53
        p->options[386] = DHCP_REQUESTED_IP;
        p->options[387] = 0;
        EXPECT_EQ(handle(*p), 0);
        ASSERT_EQ(sent.size(), 1u);
        const dhcp_packet &reply = sent[0].reply;
        if (type == DHCPDISCOVER) {
            // 0.0.0.0 lies outside the range: the lowest free address.
            EXPECT_EQ(ip(reply.yiaddr), "192.168.1.10");
        } else {
            EXPECT_EQ(options_of(reply)[0].second, std::vector<std::uint8_t>{DHCPNAK});
        }
    }
}

// ---- option 52 -----------------------------------------------------------

// An overload option of length 0 still has a value: the byte after its
// length, here the end marker (0xff), which sends the search on into file
// and sname. The message type lies in file.
TEST_F(Server, EmptyOverloadTakesTheByteAfterItsLength) {
    struct Case {
        const char *name;
        std::vector<std::uint8_t> main, file, sname;
    };
    const Case cases[] = {
        {"type_in_file", {52, 0, 255}, {53, 1, DHCPDISCOVER, 255}, {}},
        {"type_in_sname", {52, 0, 255}, {0, 255}, {53, 1, DHCPDISCOVER, 255}},
        // The byte after the length is the next option's code, 2: sname.
        {"next_code_is_the_value", {52, 0, 2, 1, 0, 255}, {}, {53, 1, DHCPDISCOVER, 255}},
        // An empty overload in file: sname follows.
        {"empty_overload_in_file", {52, 1, 1, 255}, {52, 0, 255}, {53, 1, DHCPDISCOVER, 255}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        sent.clear();
        Request d(DHCPDISCOVER, 1);
        d.p.options[0] = DHCP_END;
        d.at = 0;
        d.raw(c.main);
        std::copy(c.file.begin(), c.file.end(), d.p.file);
        std::copy(c.sname.begin(), c.sname.end(), d.p.sname);
        EXPECT_EQ(handle(d), 0);
        ASSERT_EQ(sent.size(), 1u);
        EXPECT_EQ(options_of(sent[0].reply)[0].second, std::vector<std::uint8_t>{DHCPOFFER});
        EXPECT_EQ(ip(sent[0].reply.yiaddr), "192.168.1.10");
    }
}

// ---- server and relay on port 67 at once ----

int sh(const std::string &cmd) {
    return std::system((cmd + " >/dev/null 2>&1").c_str());
}

// Once per process: a network namespace of its own with 10.9.0.1/24 on a
// veth. Empty when done, else why not.
const std::string &private_net() {
    static const std::string failure = []() -> std::string {
        if (geteuid() != 0) {
            return "port 67 and namespaces need privilege";
        }
        if (unshare(CLONE_NEWNET) != 0) {
            return std::string("no private network namespace: ") + std::strerror(errno);
        }
        if (sh("ip link set lo up && ip link add p0 type veth peer name p1 && "
               "ip link set p1 up && ip link set p0 up && ip addr add 10.9.0.1/24 dev p0") != 0) {
            return "ip failed";
        }
        return {};
    }();
    return failure;
}

// The relay's port-67 task as the relay runs it: drain, re-arm.
thread_master *relay_master = nullptr;
thread *relay_read = nullptr;  // the pending task, replaced at each run
int relay_drains = 0;
int relay_drain_task(thread *t) {
    relay_drains++;
    dhcp_port67_drain(THREAD_FD(t));
    relay_read = thread_add_read(relay_master, relay_drain_task, nullptr, THREAD_FD(t));
    return 0;
}

// The server afresh on `m` (pools, leases, settings), serving 10.9.0.0/24 on
// vlanif9, and a client socket aimed at its port 67 in the private network.
struct Lan9 {
    dhcp_unique_fd client{::socket(AF_INET, SOCK_DGRAM, 0)};
    sockaddr_in server{};

    Lan9(Server &fixture, thread_master *m) {
        dhcps_init(m);
        dhcps_lease_list_free();
        dhcps_lease_list_init();
        interface *lan = if_get_by_name("vlanif9");
        lan->ifindex = 9;
        prefix a{};
        str2prefix("10.9.0.1/24", &a);
        connected_add(lan, 0, &a, nullptr);
        fixture.make_pool("n9", "10.9.0.1", "10.9.0.0/24", "10.9.0.50", "10.9.0.60");
        server.sin_family = AF_INET;
        server.sin_port = htons(67);
        server.sin_addr.s_addr = nip("10.9.0.1");
    }

    // Client i (MAC 02:00:00:00:09:i) holds 10.9.0.(50 + i) and renews it
    // by unicast; sent to a local address, the request waits on port 67
    // before sendto returns.
    void renew(std::uint8_t i) const {
        const std::uint8_t mac[6] = {0x02, 0, 0, 0, 9, i};
        const std::uint32_t addr = htonl(ntohl(nip("10.9.0.50")) + i);
        ASSERT_NE(dhcps_add_lease(mac, addr, 100, Server::now + 100, nullptr, 0, 1, 0), nullptr);
        Request r(DHCPREQUEST, i);
        r.p.chaddr[4] = 9;
        r.p.ciaddr = addr;
        ASSERT_EQ(::sendto(client.get(), &r.p, sizeof r.p, 0,
                           reinterpret_cast<const sockaddr *>(&server), sizeof server),
                  static_cast<ssize_t>(sizeof r.p));
    }
};

// A client renewing by unicast while the relay holds port 67 too, whichever
// role came first: the server reads every request and acknowledges it.
TEST_F(Server, UnicastRenewalsReachTheServerWhileTheRelayDrainsPort67) {
    if (!private_net().empty()) {
        GTEST_SKIP() << private_net();
    }
    thread_master *m = thread_master_create();
    relay_master = m;
    Lan9 lan(*this, m);
    ASSERT_TRUE(lan.client);

    for (const bool relay_first : {true, false}) {
        SCOPED_TRACE(relay_first ? "relay first" : "server first");
        dhcp_port67_ref relay;
        auto relay_on = [&] {
            relay = dhcp_port67_ref(dhcp_port67_role::drain);
            ASSERT_TRUE(relay);
            relay_read = thread_add_read(m, relay_drain_task, nullptr, relay.get());
        };
        if (relay_first) {
            relay_on();
        }
        ASSERT_GT(dhcps_set_enable(1), 0);
        if (!relay_first) {
            relay_on();
        }
        EXPECT_EQ(relay.get(), dhcps_global.sock);

        sent.clear();
        relay_drains = 0;
        for (std::uint8_t i = 0; i < 4; i++) {
            ASSERT_NO_FATAL_FAILURE(lan.renew(i));
        }
        // The bound on turns only ends a wait that failed.
        for (int turn = 0; turn < 50 && sent.size() < 4; turn++) {
            thread_run_once(m, 200);
        }
        ASSERT_EQ(sent.size(), 4u);
        for (std::uint8_t i = 0; i < 4; i++) {
            EXPECT_EQ(options_of(sent[i].reply)[0].second, std::vector<std::uint8_t>{DHCPACK});
            EXPECT_EQ(ip(sent[i].dst), "10.9.0." + std::to_string(50 + i));
            EXPECT_EQ(sent[i].ifindex, 9);
        }
        EXPECT_GT(relay_drains, 0);  // woken too, and took nothing

        dhcps_set_enable(0);
        EXPECT_EQ(relay.get(), dhcp_port67_fd());  // still the relay's to drain
        thread_cancel(relay_read);
        relay_read = nullptr;
        relay.reset();
        EXPECT_EQ(dhcp_port67_fd(), -1);
    }
    thread_master_free(m);
    relay_master = nullptr;
}

// Under load the server reads port 67 on a 1 ms tick: a wake-up that found
// requests parks the read task, each tick reads what came meanwhile, and a
// tick that finds nothing arms the read task again. Every request is
// answered, in arrival order.
TEST_F(Server, UnderLoadPort67IsReadOnATick) {
    if (!private_net().empty()) {
        GTEST_SKIP() << private_net();
    }
    thread_master *m = thread_master_create();
    Lan9 lan(*this, m);
    ASSERT_TRUE(lan.client);
    auto renew = [&](std::uint8_t i) { ASSERT_NO_FATAL_FAILURE(lan.renew(i)); };
    auto acked = [&](std::size_t n) {
        std::vector<std::string> out;
        for (std::size_t i = 0; i < n && i < sent.size(); i++) {
            out.push_back(ip(sent[i].dst));
        }
        return out;
    };
    ASSERT_GT(dhcps_set_enable(1), 0);
    sent.clear();
    renew(0);
    for (int turn = 0; turn < 50 && sent.empty(); turn++) {  // ends only a failed wait
        thread_run_once(m, 200);
    }
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(dhcps_global.recv_thread, nullptr);  // parked
    EXPECT_EQ(thread_timer_intervals(m), std::vector<long>{1});
    renew(1);
    renew(2);
    renew(3);
    EXPECT_EQ(thread_fire_timers(m), 1);  // the tick reads all three
    EXPECT_EQ(acked(4),
              (std::vector<std::string>{"10.9.0.50", "10.9.0.51", "10.9.0.52", "10.9.0.53"}));
    EXPECT_EQ(thread_timer_intervals(m), std::vector<long>{1});  // found some: ticks on
    EXPECT_EQ(thread_fire_timers(m), 1);                         // finds nothing
    EXPECT_TRUE(thread_timer_intervals(m).empty());
    ASSERT_NE(dhcps_global.recv_thread, nullptr);  // armed again
    renew(4);
    for (int turn = 0; turn < 50 && sent.size() < 5; turn++) {
        thread_run_once(m, 200);
    }
    EXPECT_EQ(acked(5).back(), "10.9.0.54");
    dhcps_set_enable(0);
    EXPECT_EQ(thread_count(m), 0u);
    thread_master_free(m);
}

}  // namespace
