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
#include <filesystem>
#include <fstream>
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

namespace fs = std::filesystem;

namespace {

using Bytes = std::vector<std::uint8_t>;

std::uint32_t nip(const char *a) {
    in_addr v{};
    EXPECT_EQ(inet_pton(AF_INET, a, &v), 1) << a;
    return v.s_addr;
}

Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

constexpr std::uint8_t CLIENT_MAC[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
constexpr std::uint32_t CLIENT_PORT_NUM = 3;
constexpr std::uint32_t UPLINK_PORT_NUM = 9;
const std::string PORT3_MAC_TEXT = "02-1a-2b-3c-4d-03";

// ---- captured sends ----

struct ServerSend {
    int sock;
    Bytes bytes;
    sockaddr_in to;
};
struct ClientSend {
    dhcp_packet packet;
    std::uint32_t src, dst;
    std::uint16_t sport, dport;
    std::array<std::uint8_t, 6> mac;
    int ifindex;
    int size;
};
std::vector<ServerSend> to_server;
std::vector<ClientSend> to_client;
ssize_t server_send_result = -2;  // -2: the datagram's size

ssize_t capture_server(int sock, std::span<const std::uint8_t> d, const sockaddr_in &to) {
    to_server.push_back({sock, Bytes(d.begin(), d.end()), to});
    return server_send_result == -2 ? static_cast<ssize_t>(d.size()) : server_send_result;
}

int capture_client(const dhcp_packet &p, std::uint32_t src, std::uint16_t sport, std::uint32_t dst,
                   std::uint16_t dport, const std::uint8_t *mac, int ifindex, int size) {
    ClientSend s{p, src, dst, sport, dport, {}, ifindex, size};
    std::copy(mac, mac + 6, s.mac.begin());
    to_client.push_back(s);
    return size;
}

std::uint32_t fake_now = 1000;
std::uint32_t fake_clock() {
    return fake_now;
}

// ---- messages ----

// A DHCP message being built: fixed header, options appended in order, then
// END; the payload is its first `len` bytes (zero padding after END).
struct Msg {
    dhcp_packet p{};
    std::size_t at = 0;
    int len = 300;

    Msg(std::uint8_t op, std::uint8_t type, std::uint32_t xid) {
        p.op = op;
        p.htype = 1;
        p.hlen = 6;
        p.xid = htonl(xid);
        std::memcpy(p.chaddr, CLIENT_MAC, 6);
        p.cookie = htonl(DHCP_MAGIC);
        opt(DHCP_MESSAGE_TYPE, {type});
    }
    Msg &opt(std::uint8_t code, Bytes v) {
        p.options[at++] = code;
        p.options[at++] = static_cast<std::uint8_t>(v.size());
        for (auto b : v) {
            p.options[at++] = b;
        }
        p.options[at] = DHCP_END;
        return *this;
    }
    Msg &addr_opt(std::uint8_t code, const char *a) {
        std::uint32_t n = nip(a);
        auto *b = reinterpret_cast<std::uint8_t *>(&n);
        return opt(code, {b[0], b[1], b[2], b[3]});
    }
    Msg &hops(std::uint8_t h) {
        p.hops = h;
        return *this;
    }
    Msg &flags(std::uint16_t f) {
        p.flags = htons(f);
        return *this;
    }
    Msg &giaddr(const char *a) {
        p.gateway_nip = nip(a);
        return *this;
    }
    Msg &length(int l) {
        len = l;
        return *this;
    }
    Bytes payload() const {
        const auto *b = reinterpret_cast<const std::uint8_t *>(&p);
        return Bytes(b, b + len);
    }
};

Msg discover(std::uint32_t xid = 0x1234) {
    return Msg(BOOTREQUEST, DHCPDISCOVER, xid)
        .opt(DHCP_CLIENT_ID, {1, 0, 0x11, 0x22, 0x33, 0x44, 0x55});
}

Msg offer(std::uint32_t xid = 0x1234, std::uint8_t type = DHCPOFFER) {
    Msg m(BOOTREPLY, type, xid);
    m.p.yiaddr = nip("192.168.10.50");
    m.p.gateway_nip = nip("192.168.10.1");
    m.addr_opt(DHCP_SERVER_ID, "10.0.20.2");
    return m;
}

// ---- trapped-frame messages ----

struct Trap {
    std::uint32_t port = CLIENT_PORT_NUM;
    std::uint16_t vlan = 10;
    std::uint32_t gap = 0;
    bool tagged = false;
    int ip_option_words = 0;
    std::uint8_t protocol = 17;
    std::uint16_t sport = 68;
    std::uint16_t dport = 67;
    std::uint32_t type = HAL_MSG_TRAPPED_FRAME;
    const char *dst = "255.255.255.255";  // IPv4 destination
};

void put16(Bytes &b, std::uint16_t v) {
    b.push_back(static_cast<std::uint8_t>(v >> 8));
    b.push_back(static_cast<std::uint8_t>(v));
}

// The Ethernet/IPv4/UDP frame around a payload, as the chip traps it.
Bytes frame_of(const Trap &t, const Bytes &payload) {
    Bytes f(6, 0xff);
    f.insert(f.end(), CLIENT_MAC, CLIENT_MAC + 6);
    if (t.tagged) {
        put16(f, 0x8100);
        put16(f, t.vlan);
    }
    put16(f, 0x0800);
    const auto ihl = static_cast<std::uint8_t>(5 + t.ip_option_words);
    const auto udp_len = static_cast<std::uint16_t>(8 + payload.size());
    f.push_back(static_cast<std::uint8_t>(0x40 | ihl));
    f.push_back(0);
    put16(f, static_cast<std::uint16_t>(ihl * 4 + udp_len));
    put16(f, 0x1111);
    put16(f, 0);
    f.push_back(64);
    f.push_back(t.protocol);
    put16(f, 0);
    f.insert(f.end(), {0, 0, 0, 0});
    const std::uint32_t dst = nip(t.dst);
    const auto *d = reinterpret_cast<const std::uint8_t *>(&dst);
    f.insert(f.end(), d, d + 4);
    for (int i = 0; i < t.ip_option_words * 4; ++i) {
        f.push_back(1);  // NOP
    }
    put16(f, t.sport);
    put16(f, t.dport);
    put16(f, udp_len);
    put16(f, 0);
    f.insert(f.end(), payload.begin(), payload.end());
    return f;
}

// Header, gap, frame: the message hal_recv hands its callback.
int deliver(const Trap &t, const Bytes &payload) {
    const Bytes frame = frame_of(t, payload);
    hal_trap_hdr hdr{};
    hdr.port = t.port;
    hdr.vlan = t.vlan;
    hdr.gap = t.gap;
    Bytes msg(sizeof hdr + t.gap, 0xaa);
    std::memcpy(msg.data(), &hdr, sizeof hdr);
    msg.insert(msg.end(), frame.begin(), frame.end());
    return dhcpr_netlink_msg(t.type, msg.data(), static_cast<std::uint32_t>(frame.size()));
}

int request(const Msg &m, Trap t = {}) {
    return deliver(t, m.payload());
}

// A server's reply as it comes up the uplink: to `dst`, UDP port `dport`.
Trap from_server(const char *dst = "192.168.10.1", std::uint16_t dport = 68) {
    Trap t;
    t.port = UPLINK_PORT_NUM;
    t.vlan = 20;
    t.sport = 67;
    t.dport = dport;
    t.dst = dst;
    return t;
}

int reply(const Msg &m) {
    return deliver(from_server(), m.payload());
}

const Bytes DISCOVER_OPTS = {53, 1, 1, 61, 7, 1, 0, 0x11, 0x22, 0x33, 0x44, 0x55};
const Bytes DISCOVER_END = cat({DISCOVER_OPTS, {255}});

// ---- the switch ----

// A fake sysfs: swp1..swp3 in vlanif10, swp9 (the uplink) in vlanif20.
struct FakePorts {
    fs::path root = fs::path(::testing::TempDir()) / ("dhcpr-sysfs-" + std::to_string(getpid()));
    FakePorts() {
        fs::remove_all(root);
        netdev("vlanif10", 5, "02:1a:2b:3c:4d:00");
        netdev("vlanif20", 6, "02:1a:2b:3c:4d:01");
        for (int i : {1, 2, 3, 9}) {
            const std::string name = "swp" + std::to_string(i);
            netdev(name, 10 + i, "02:1a:2b:3c:4d:0" + std::to_string(i));
            fs::create_symlink(i == 9 ? "../vlanif20" : "../vlanif10", root / name / "master");
        }
        uif_set_sysfs_root(root.string());
        uif_init();
        uvlan_init();
    }
    ~FakePorts() {
        uif_set_sysfs_root("/sys/class/net");
        uif_refresh();
        fs::remove_all(root);
    }
    void netdev(const std::string &name, int idx, const std::string &mac) {
        fs::create_directories(root / name);
        std::ofstream(root / name / "ifindex") << idx << "\n";
        std::ofstream(root / name / "address") << mac << "\n";
    }
};

interface *make_if(const char *name, int index, const char *addr) {
    interface *ifp = if_get_by_name(name);
    ifp->ifindex = index;
    if (addr != nullptr) {
        prefix p{};
        EXPECT_EQ(str2prefix(addr, &p), 1);
        connected_add(ifp, 0, &p, nullptr);
    }
    return ifp;
}

sockunion su_of(const char *a) {
    sockunion su{};
    EXPECT_EQ(str2sockunion(a, &su), 0);
    return su;
}

struct Relay : ::testing::Test {
    FakePorts ports;
    thread_master *master = thread_master_create();
    std::vector<std::string> log;
    interface *v10 = nullptr;
    interface *v20 = nullptr;

    Relay() {
        if_init();
        dhcpr_init(master);
        dhcpr_set_senders(capture_server, capture_client);
        fake_now = 1000;
        dhcpr_set_clock(fake_clock);
        to_server.clear();
        to_client.clear();
        server_send_result = -2;
        v10 = make_if("vlanif10", 5, "192.168.10.1/24");
        v20 = make_if("vlanif20", 6, "10.0.20.1/24");
        const sockunion server = su_of("10.0.20.2");
        EXPECT_EQ(dhcpr_if_relay_set(v10, &server), 0);
        zlog_set_hook([this](int, std::string_view t) { log.emplace_back(t); });
    }
    ~Relay() override {
        zlog_set_hook({});
        dhcpr_reset();
        dhcpr_set_senders(nullptr, nullptr);
        dhcpr_set_clock(nullptr);
        dhcp_zebra_relay_teardown = nullptr;
        if_terminate();
        thread_master_free(master);
    }
    dhcpr_if &rec() { return *dhcpr_if_record(v10); }
    void opt82(std::uint32_t strategy = DHCPR_OPT82_REPLACE) {
        ASSERT_EQ(dhcpr_if_opt82_enable_set(v10, 1), 0);
        ASSERT_EQ(dhcpr_if_opt82_strategy_set(v10, strategy), 0);
    }
    bool logged(const std::string &line) const {
        return std::find(log.begin(), log.end(), line) != log.end();
    }
};

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
    dhcpsnoop_enable_set(1);
    dhcpsnoop_if_untrust_set(UPLINK_PORT_NUM, 1);
    if (dhcpsnoop_enable_get() != 1) {
        dhcpsnoop_if_untrust_set(UPLINK_PORT_NUM, 0);
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
