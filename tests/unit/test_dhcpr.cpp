// The relay engine, driven in process: trapped-frame messages go straight
// to dhcpr_netlink_msg and everything the relay sends is captured at its
// seams, byte for byte.
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
#include <string>
#include <vector>

#include "dhcp/dhcp_options.h"
#include "dhcp/dhcp_packet.h"
#include "dhcp/dhcp_zebra.h"
#include "dhcp/dhcpr.h"
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

// First index where two byte strings differ, for failure messages.
std::string first_diff(const Bytes &a, const Bytes &b) {
    const std::size_t n = std::min(a.size(), b.size());
    for (std::size_t i = 0; i < n; ++i) {
        if (a[i] != b[i]) {
            return "byte " + std::to_string(i) + ": " + std::to_string(a[i]) + " vs " +
                   std::to_string(b[i]);
        }
    }
    return a.size() == b.size()
               ? "equal"
               : "sizes " + std::to_string(a.size()) + " vs " + std::to_string(b.size());
}

Bytes text_bytes(const std::string &s) {
    return Bytes(s.begin(), s.end());
}

// What the relay should send for `m`: the same bytes with hops, giaddr,
// flags and options as given.
Bytes forwarded(Msg m, std::uint8_t hops, const char *giaddr, std::uint16_t flags,
                const Bytes &options) {
    m.p.hops = hops;
    m.p.gateway_nip = nip(giaddr);
    m.p.flags = htons(flags);
    std::memset(m.p.options, 0, sizeof m.p.options);
    std::copy(options.begin(), options.end(), m.p.options);
    return m.payload();
}

Bytes option82_normal_port3_vlan10() {
    return cat({{82, 27, 1, 6}, text_bytes("001003"), {2, 17}, text_bytes(PORT3_MAC_TEXT)});
}

// ===========================================================================
// The trapped-frame channel.

TEST_F(Relay, WrongMessageTypeIsRefused) {
    Trap t;
    t.type = 2;
    EXPECT_EQ(request(discover(), t), -4);
    EXPECT_EQ(log, std::vector<std::string>{"dhcpr_netlink_msg: invalid msg type 2"});
    EXPECT_TRUE(to_server.empty());
}

TEST_F(Relay, TcpFrameIsRefusedWithItsProtocol) {
    Trap t;
    t.protocol = 6;
    EXPECT_EQ(request(discover(), t), -1);
    EXPECT_EQ(log, std::vector<std::string>{"dhcpr_netlink_msg: invalid protocol 6"});
    EXPECT_TRUE(to_server.empty());
}

TEST_F(Relay, UdpFrameToPort546IsRefusedWithItsPort) {
    Trap t;
    t.dport = 546;
    EXPECT_EQ(request(discover(), t), -1);
    EXPECT_EQ(log, std::vector<std::string>{"dhcpr_netlink_msg: invalid dport 546"});
    EXPECT_TRUE(to_server.empty());
}

struct Shape {
    bool tagged;
    std::uint32_t gap;
    int ip_option_words;
};

// Whether this platform build takes 802.1Q tags out of frames.
bool platform_strips_tags() {
    Bytes f(18, 0);
    f[12] = 0x81;
    return vemix_remove_tag(f.data()) == f.data() + 4;
}

// Tagged or not, with or without a gap and IPv4 options: the same payload.
void expect_same_payload(std::initializer_list<Shape> shapes) {
    const Bytes want = forwarded(discover(), 1, "192.168.10.1", 0, DISCOVER_END);
    for (const Shape &s : shapes) {
        to_server.clear();
        Trap t;
        t.tagged = s.tagged;
        t.gap = s.gap;
        t.ip_option_words = s.ip_option_words;
        EXPECT_EQ(request(discover(), t), 0);
        ASSERT_EQ(to_server.size(), 1u);
        EXPECT_EQ(to_server[0].bytes, want)
            << "tagged " << s.tagged << " gap " << s.gap << " ihl " << 5 + s.ip_option_words;
    }
}

TEST_F(Relay, UntaggedFramesOfEveryShapeYieldTheSamePayload) {
    expect_same_payload(
        {{false, 0, 0}, {false, 2, 0}, {false, 13, 0}, {false, 0, 1}, {false, 2, 10}});
}

TEST_F(Relay, TaggedFramesYieldTheUntaggedPayload) {
    if (!platform_strips_tags()) {
        GTEST_SKIP() << "this platform build does not take tags out of frames";
    }
    expect_same_payload({{true, 0, 0}, {true, 2, 0}, {true, 13, 1}, {true, 2, 10}});
}

TEST_F(Relay, PayloadsOutsideTheRecordAreDroppedWithALine) {
    struct Case {
        int len;
        std::string line;
    };
    const Case cases[] = {{239, "dhcpr_netlink_msg: invalid payload length 239"},
                          {0, "dhcpr_netlink_msg: invalid payload length 0"},
                          {629, "dhcpr_netlink_msg: invalid payload length 629"}};
    for (const Case &c : cases) {
        log.clear();
        Bytes payload = discover().payload();
        payload.resize(static_cast<std::size_t>(c.len), 0);
        EXPECT_EQ(deliver(Trap{}, payload), -1) << c.len;
        EXPECT_EQ(log, std::vector<std::string>{c.line});
    }
    // The smallest and the largest payloads that fit go on: 240 bytes carry
    // no option 53 and are not forwarded, 628 bytes are.
    log.clear();
    Msg small = discover(0x240);
    std::memset(small.p.options, 0, sizeof small.p.options);
    EXPECT_EQ(request(small.length(240)), 0);
    EXPECT_EQ(request(discover(0x628).length(628)), 0);
    ASSERT_EQ(to_server.size(), 1u);
    EXPECT_EQ(to_server[0].bytes.size(), 628u);
    EXPECT_EQ(dhcpr_item_count(), 1u);
    EXPECT_EQ(log, std::vector<std::string>(2, "gateway_nip change to 192.168.10.1"));
}

TEST_F(Relay, FramesTooShortForTheirHeadersAreDropped) {
    Bytes msg(sizeof(hal_trap_hdr) + 64, 0);
    hal_trap_hdr hdr{};
    hdr.port = 3;
    hdr.vlan = 10;
    std::memcpy(msg.data(), &hdr, sizeof hdr);
    std::uint8_t *frame = msg.data() + sizeof hdr;
    frame[12] = 0x08;
    frame[14] = 0x45;
    frame[14 + 9] = 17;
    // 0..41 bytes: no room for Ethernet + IPv4 + UDP.
    for (std::uint32_t len : {0u, 5u, 13u, 14u, 33u, 41u}) {
        EXPECT_EQ(dhcpr_netlink_msg(1, msg.data(), len), -1) << len;
    }
    frame[12] = 0x81;
    frame[13] = 0x00;
    EXPECT_EQ(dhcpr_netlink_msg(1, msg.data(), 17), -1);
    EXPECT_TRUE(to_server.empty());
    EXPECT_EQ(log.size(), 7u);
}

// ===========================================================================
// Requests.

TEST_F(Relay, DiscoverIsForwardedToTheServerFromThePort68Socket) {
    EXPECT_EQ(request(discover()), 0);
    ASSERT_EQ(to_server.size(), 1u);
    const ServerSend &s = to_server[0];
    EXPECT_EQ(s.sock, dhcpr_state.server_sock.get());
    EXPECT_EQ(s.to.sin_family, AF_INET);
    EXPECT_EQ(s.to.sin_addr.s_addr, nip("10.0.20.2"));
    EXPECT_EQ(s.to.sin_port, htons(67));
    EXPECT_EQ(s.bytes, forwarded(discover(), 1, "192.168.10.1", 0, DISCOVER_END))
        << first_diff(s.bytes, forwarded(discover(), 1, "192.168.10.1", 0, DISCOVER_END));
    EXPECT_EQ(log, std::vector<std::string>{"gateway_nip change to 192.168.10.1"});
    const dhcpr_item *item = dhcpr_item_find(htonl(0x1234));
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(item->gateway_nip, nip("192.168.10.1"));
    EXPECT_EQ(item->client_ifp, v10);
    EXPECT_EQ(item->time, 1000u);
}

TEST_F(Relay, HopsEightIsForwardedAsNineAndNineIsDropped) {
    EXPECT_EQ(request(discover().hops(8)), 0);
    ASSERT_EQ(to_server.size(), 1u);
    EXPECT_EQ(to_server[0].bytes[3], 9);
    log.clear();
    EXPECT_EQ(request(discover(0x99).hops(9)), -1);
    EXPECT_EQ(request(discover(0x98).hops(255)), -1);
    EXPECT_EQ(to_server.size(), 1u);
    EXPECT_EQ(log, (std::vector<std::string>{"hops is 9, more than maximum hops 8",
                                             "hops is 255, more than maximum hops 8"}));
    EXPECT_EQ(dhcpr_item_find(htonl(0x99)), nullptr);
}

TEST_F(Relay, GiaddrOfANearerRelayIsKeptButTheRecordComesFromTheVlan) {
    EXPECT_EQ(request(discover().giaddr("172.16.5.1").hops(1)), 0);
    ASSERT_EQ(to_server.size(), 1u);
    EXPECT_EQ(to_server[0].bytes, forwarded(discover(), 2, "172.16.5.1", 0, DISCOVER_END));
    EXPECT_TRUE(log.empty());
    EXPECT_EQ(dhcpr_item_find(htonl(0x1234))->gateway_nip, nip("192.168.10.1"));
}

TEST_F(Relay, BroadcastFlagIsClearedTowardTheServerAndKeptInTheItem) {
    EXPECT_EQ(request(discover().flags(0x8000)), 0);
    ASSERT_EQ(to_server.size(), 1u);
    EXPECT_EQ(to_server[0].bytes, forwarded(discover(), 1, "192.168.10.1", 0, DISCOVER_END));
    EXPECT_EQ(dhcpr_item_find(htonl(0x1234))->flags, htons(0x8000));
    // Other flag bits without the broadcast bit pass as they are.
    EXPECT_EQ(request(discover(0x55).flags(0x0001)), 0);
    EXPECT_EQ(to_server[1].bytes[10], 0x00);
    EXPECT_EQ(to_server[1].bytes[11], 0x01);
}

TEST_F(Relay, OnlyClientMessageTypesAreForwarded) {
    struct Case {
        std::uint8_t op, type;
        bool forwarded;
    };
    const Case cases[] = {{1, DHCPDISCOVER, true},  {1, DHCPREQUEST, true},
                          {1, DHCPDECLINE, true},   {1, DHCPRELEASE, true},
                          {1, DHCPINFORM, true},    {1, DHCPOFFER, false},
                          {2, DHCPACK, false},      {1, DHCPNAK, false},
                          {3, DHCPDISCOVER, false}, {1, 9, false}};
    std::uint32_t xid = 100;
    for (const Case &c : cases) {
        to_server.clear();
        EXPECT_EQ(request(Msg(c.op, c.type, ++xid)), 0);
        EXPECT_EQ(to_server.size(), c.forwarded ? 1u : 0u) << int(c.op) << "/" << int(c.type);
        EXPECT_EQ(dhcpr_item_find(htonl(xid)) != nullptr, c.forwarded);
    }
    // No option 53 at all.
    Msg bare = discover(0x77);
    std::memset(bare.p.options, 0, sizeof bare.p.options);
    bare.p.options[0] = DHCP_END;
    to_server.clear();
    EXPECT_EQ(request(bare), 0);
    EXPECT_TRUE(to_server.empty());
}

TEST_F(Relay, VlanWithoutInterfaceOrRecordIsDropped) {
    Trap t;
    t.vlan = 99;
    EXPECT_EQ(request(discover(), t), -7);
    EXPECT_EQ(log, std::vector<std::string>{
                       "[dhcp_get_l3if_address][456]Interface vlanif99 is not found!"});
    log.clear();
    make_if("vlanif30", 7, "192.168.30.1/24");
    t.vlan = 30;
    EXPECT_EQ(request(discover(), t), -1);
    EXPECT_EQ(log, (std::vector<std::string>{"gateway_nip change to 192.168.30.1",
                                             "dhcpr_get_if_relay fail!"}));
    log.clear();
    rec().enable = 0;
    EXPECT_EQ(request(discover()), -1);
    EXPECT_EQ(log, (std::vector<std::string>{"gateway_nip change to 192.168.10.1",
                                             "This interface relay is not enabled!"}));
    EXPECT_TRUE(to_server.empty());
    EXPECT_EQ(dhcpr_item_count(), 0u);
}

TEST_F(Relay, ShortSendIsLogged) {
    server_send_result = -1;
    EXPECT_EQ(request(discover()), 0);
    EXPECT_TRUE(logged("sendto"));
    server_send_result = 10;
    log.clear();
    EXPECT_EQ(request(discover(0x2)), 0);
    EXPECT_EQ(log.back(), "sendto");
}

// ===========================================================================
// Option 82.

TEST_F(Relay, NormalModeAddsVlanPortAndPortMac) {
    opt82();
    EXPECT_EQ(request(discover()), 0);
    ASSERT_EQ(to_server.size(), 1u);
    const Bytes o82 = option82_normal_port3_vlan10();
    ASSERT_EQ(o82.size(), 29u);  // total length 27
    EXPECT_EQ(to_server[0].bytes,
              forwarded(discover(), 1, "192.168.10.1", 0, cat({DISCOVER_OPTS, o82, {255}})));
}

TEST_F(Relay, NormalModeTakesThePortModulo256) {
    opt82();
    Trap t;
    t.port = 256 + 3;
    t.vlan = 10;
    EXPECT_EQ(request(discover(), t), 0);
    ASSERT_EQ(to_server.size(), 1u);
    EXPECT_EQ(to_server[0].bytes,
              forwarded(discover(), 1, "192.168.10.1", 0,
                        cat({DISCOVER_OPTS, option82_normal_port3_vlan10(), {255}})));
}

TEST_F(Relay, StringModeCarriesTheConfiguredTexts) {
    opt82();
    dhcpr_if_circuit_id_set(v10, DHCPR_SUBMODE_STRING, "ABC");
    dhcpr_if_remote_id_set(v10, DHCPR_SUBMODE_STRING, "sw1-uplink");
    EXPECT_EQ(request(discover()), 0);
    ASSERT_EQ(to_server.size(), 1u);
    const Bytes o82 = cat({{82, 17, 1, 3}, text_bytes("ABC"), {2, 10}, text_bytes("sw1-uplink")});
    EXPECT_EQ(to_server[0].bytes,
              forwarded(discover(), 1, "192.168.10.1", 0, cat({DISCOVER_OPTS, o82, {255}})));
}

TEST_F(Relay, EmptyIdsLeaveOutTheirSubOptions) {
    opt82();
    dhcpr_if_circuit_id_set(v10, DHCPR_SUBMODE_STRING, "");
    EXPECT_EQ(request(discover()), 0);
    dhcpr_if_remote_id_set(v10, DHCPR_SUBMODE_STRING, "");
    EXPECT_EQ(request(discover(0x2)), 0);
    ASSERT_EQ(to_server.size(), 2u);
    const Bytes remote_only = cat({{82, 19, 2, 17}, text_bytes(PORT3_MAC_TEXT)});
    EXPECT_EQ(to_server[0].bytes, forwarded(discover(), 1, "192.168.10.1", 0,
                                            cat({DISCOVER_OPTS, remote_only, {255}})));
    EXPECT_EQ(to_server[1].bytes,
              forwarded(discover(0x2), 1, "192.168.10.1", 0, cat({DISCOVER_OPTS, {82, 0, 255}})));
}

TEST_F(Relay, LongStringsAreStoredAndSentClippedTo31) {
    opt82();
    const std::string forty(40, 'c');
    dhcpr_if_circuit_id_set(v10, DHCPR_SUBMODE_STRING, forty.c_str());
    EXPECT_EQ(rec().circuit_id_len, 40u);
    EXPECT_EQ(std::string(rec().circuit_id), std::string(31, 'c'));
    EXPECT_EQ(request(discover()), 0);
    ASSERT_EQ(to_server.size(), 1u);
    const Bytes o82 = cat({{82, 33 + 19, 1, 31},
                           text_bytes(std::string(31, 'c')),
                           {2, 17},
                           text_bytes(PORT3_MAC_TEXT)});
    EXPECT_EQ(to_server[0].bytes,
              forwarded(discover(), 1, "192.168.10.1", 0, cat({DISCOVER_OPTS, o82, {255}})));
}

Msg discover_with_client_82(std::uint32_t xid = 0x1234) {
    return discover(xid).opt(82, {1, 2, 'x', 'y'}).opt(DHCP_PARAM_REQ, {1, 3, 6});
}

TEST_F(Relay, StrategyDropRefusesARequestThatCarriesOption82) {
    opt82(DHCPR_OPT82_DROP);
    EXPECT_EQ(request(discover_with_client_82()), -3);
    EXPECT_TRUE(to_server.empty());
    EXPECT_EQ(dhcpr_item_count(), 0u);
    // Without option 82 the relay adds its own.
    EXPECT_EQ(request(discover()), 0);
    EXPECT_EQ(to_server.size(), 1u);
}

TEST_F(Relay, StrategyKeepSendsTheClientsOption82AsItCame) {
    opt82(DHCPR_OPT82_KEEP);
    const Msg m = discover_with_client_82();
    EXPECT_EQ(request(m), 0);
    ASSERT_EQ(to_server.size(), 1u);
    EXPECT_EQ(to_server[0].bytes,
              forwarded(m, 1, "192.168.10.1", 0,
                        cat({DISCOVER_OPTS, {82, 4, 1, 2, 'x', 'y', 55, 3, 1, 3, 6, 255}})));
}

TEST_F(Relay, StrategyReplaceLeavesExactlyTheRelaysOption82Last) {
    opt82(DHCPR_OPT82_REPLACE);
    const Msg m = discover_with_client_82();
    EXPECT_EQ(request(m), 0);
    ASSERT_EQ(to_server.size(), 1u);
    EXPECT_EQ(
        to_server[0].bytes,
        forwarded(m, 1, "192.168.10.1", 0,
                  cat({DISCOVER_OPTS, {55, 3, 1, 3, 6}, option82_normal_port3_vlan10(), {255}})));
}

TEST_F(Relay, Option82OffPassesWhateverTheRequestCarries) {
    dhcpr_if_opt82_strategy_set(v10, DHCPR_OPT82_DROP);
    const Msg m = discover_with_client_82();
    EXPECT_EQ(request(m), 0);
    ASSERT_EQ(to_server.size(), 1u);
    EXPECT_EQ(to_server[0].bytes,
              forwarded(m, 1, "192.168.10.1", 0,
                        cat({DISCOVER_OPTS, {82, 4, 1, 2, 'x', 'y'}, {55, 3, 1, 3, 6, 255}})));
}

TEST_F(Relay, TheDatagramKeepsThePayloadsLengthAfterOption82) {
    opt82();
    // END at byte 12 of the options: 240 + 13 = 253 bytes carry no room.
    const Msg m = discover().length(253);
    EXPECT_EQ(request(m), 0);
    ASSERT_EQ(to_server.size(), 1u);
    const Bytes full = forwarded(discover(), 1, "192.168.10.1", 0,
                                 cat({DISCOVER_OPTS, option82_normal_port3_vlan10(), {255}}));
    EXPECT_EQ(to_server[0].bytes, Bytes(full.begin(), full.begin() + 253));
}

// Found by fuzzing (seed relay_frame/regress-type-in-sname-option82-cut):
// the message type sits in sname, reached through option 52, and the
// relay's option 82 runs past the 250-byte datagram, so the bytes on the
// wire alone end inside it. The relay reads the type from its whole record
// and forwards the request cut to the payload's length: kept so.
TEST_F(Relay, TheTypeComesFromTheRecordWhenOption82IsCutOnTheWire) {
    opt82();
    Msg m(BOOTREQUEST, DHCPREQUEST, 0x1234);
    m.at = 0;
    m.opt(DHCP_OPTION_OVERLOAD, {2}).addr_opt(DHCP_SERVER_ID, "10.0.20.2");
    const std::uint8_t sname[] = {DHCP_MESSAGE_TYPE, 1, DHCPREQUEST, DHCP_END};
    std::memcpy(m.p.sname, sname, sizeof sname);
    m.length(250);  // END is the datagram's last byte
    EXPECT_EQ(request(m), 0);
    ASSERT_EQ(to_server.size(), 1u);
    const Bytes full =
        forwarded(m, 1, "192.168.10.1", 0,
                  cat({{52, 1, 2, 54, 4, 10, 0, 20, 2}, option82_normal_port3_vlan10(), {255}}));
    EXPECT_EQ(to_server[0].bytes, full);
    EXPECT_EQ(to_server[0].bytes.back(), 82);  // the wire ends on its code
    EXPECT_EQ(dhcpr_item_count(), 1u);
}

TEST_F(Relay, Option82ThatDoesNotFitIsNotAddedAndLogged) {
    opt82();
    Msg m = discover();
    // Fill the building area up to 290: 29 more bytes would pass 308.
    m.opt(DHCP_VENDOR, Bytes(255, 'v'));
    m.opt(DHCP_HOST_NAME, Bytes(static_cast<std::size_t>(290 - 12 - 257 - 2), 'h'));
    ASSERT_EQ(dhcp_end_option(m.p.options), 290);
    m.length(240 + 308);
    EXPECT_EQ(request(m), 0);
    ASSERT_EQ(to_server.size(), 1u);
    EXPECT_EQ(to_server[0].bytes,
              forwarded(m, 1, "192.168.10.1", 0, Bytes(m.p.options, m.p.options + 291)));
    EXPECT_TRUE(logged("option 0x52 did not fit into the packet"));
}

TEST_F(Relay, OptionReadersFallBackWithoutARecord) {
    interface *bare = make_if("vlanif40", 8, nullptr);
    EXPECT_EQ(dhcpr_if_opt82_enable_get(bare), 0u);
    EXPECT_EQ(dhcpr_if_opt82_strategy_get(bare), DHCPR_OPT82_KEEP);
    EXPECT_EQ(dhcpr_if_opt82_enable_get(nullptr), 0u);
    EXPECT_EQ(dhcpr_if_opt82_strategy_get(v10), DHCPR_OPT82_REPLACE);
    dhcp_packet p{};
    dhcpr_option82_add(&p, nullptr, 10, 3);
    dhcpr_option82_add(nullptr, v10, 10, 3);
    EXPECT_EQ(log, (std::vector<std::string>{"The input pointer is NULL!",
                                             "The input pointer is NULL!"}));
    // A binding of another kind gets nothing added.
    dhcpr_if_info foreign{7, nullptr};
    bare->info = &foreign;
    p.options[0] = DHCP_END;
    dhcpr_option82_add(&p, bare, 10, 3);
    EXPECT_EQ(p.options[0], DHCP_END);
    bare->info = nullptr;
}

TEST_F(Relay, Option82RemoveMovesTheRestDownWithinThePayload) {
    Msg m = discover().opt(82, {1, 1, 'z'}).opt(DHCP_PARAM_REQ, {1});
    m.p.options[40] = 0xee;  // beyond the payload below: never touched
    const int len = 240 + 25;
    dhcpr_option82_remove(&m.p, len);
    const Bytes want = cat({DISCOVER_OPTS, {55, 1, 1, 255}});
    EXPECT_EQ(Bytes(m.p.options, m.p.options + want.size()), want);
    // The last five bytes of the payload stay as they were.
    EXPECT_EQ(Bytes(m.p.options + 20, m.p.options + 25), (Bytes{255, 0, 0, 0, 0}));
    EXPECT_EQ(m.p.options[40], 0xee);
    dhcpr_option82_remove(nullptr, len);
    dhcpr_option82_remove(&m.p, len);  // none left: nothing happens
    EXPECT_EQ(Bytes(m.p.options, m.p.options + want.size()), want);
}

// ===========================================================================
// Replies.

TEST_F(Relay, OfferGoesToTheClientFromTheServerIdentifier) {
    ASSERT_EQ(request(discover()), 0);
    EXPECT_EQ(reply(offer()), 0);
    ASSERT_EQ(to_client.size(), 1u);
    const ClientSend &c = to_client[0];
    EXPECT_EQ(c.src, nip("10.0.20.2"));
    EXPECT_EQ(c.sport, 67);
    EXPECT_EQ(c.dst, 0u);  // ciaddr, not yiaddr
    EXPECT_EQ(c.dport, 68);
    EXPECT_EQ(c.mac, (std::array<std::uint8_t, 6>{0x00, 0x11, 0x22, 0x33, 0x44, 0x55}));
    EXPECT_EQ(c.ifindex, 5);
    EXPECT_EQ(c.size, 300 + 28);
    const Bytes sent(reinterpret_cast<const std::uint8_t *>(&c.packet),
                     reinterpret_cast<const std::uint8_t *>(&c.packet) + 300);
    EXPECT_EQ(sent, offer().payload());
    EXPECT_EQ(dhcpr_item_count(), 0u);
}

TEST_F(Relay, BroadcastFlagIsRestoredTowardTheClient) {
    ASSERT_EQ(request(discover().flags(0x8000)), 0);
    EXPECT_EQ(reply(offer()), 0);
    ASSERT_EQ(to_client.size(), 1u);
    EXPECT_EQ(to_client[0].packet.flags, htons(0x8000));
    Msg want = offer();
    want.p.flags = htons(0x8000);
    EXPECT_EQ(Bytes(reinterpret_cast<const std::uint8_t *>(&to_client[0].packet),
                    reinterpret_cast<const std::uint8_t *>(&to_client[0].packet) + 300),
              want.payload());
}

TEST_F(Relay, RenewingClientIsReachedAtItsAddress) {
    ASSERT_EQ(request(Msg(BOOTREQUEST, DHCPREQUEST, 0x42)), 0);
    Msg ack = offer(0x42, DHCPACK);
    ack.p.ciaddr = nip("192.168.10.50");
    EXPECT_EQ(reply(ack), 0);
    ASSERT_EQ(to_client.size(), 1u);
    EXPECT_EQ(to_client[0].dst, nip("192.168.10.50"));
    EXPECT_EQ(to_client[0].mac[5], 0x55);
}

TEST_F(Relay, NakIsDeliveredLikeAnOffer) {
    ASSERT_EQ(request(Msg(BOOTREQUEST, DHCPREQUEST, 0x43)), 0);
    EXPECT_EQ(reply(offer(0x43, DHCPNAK)), 0);
    EXPECT_EQ(to_client.size(), 1u);
}

TEST_F(Relay, OtherReplyTypesAreDroppedButConsumeTheirItem) {
    for (std::uint8_t type : {DHCPRELEASE, DHCPDISCOVER, DHCPINFORM}) {
        ASSERT_EQ(request(discover(0x50 + type)), 0);
        ASSERT_NE(dhcpr_item_find(htonl(0x50u + type)), nullptr);
        EXPECT_EQ(reply(offer(0x50 + type, type)), 0);
        EXPECT_EQ(dhcpr_item_find(htonl(0x50u + type)), nullptr) << int(type);
    }
    EXPECT_TRUE(to_client.empty());
}

TEST_F(Relay, ReplyWithoutServerIdentifierIsDroppedAndConsumed) {
    ASSERT_EQ(request(discover()), 0);
    Msg o(BOOTREPLY, DHCPOFFER, 0x1234);
    EXPECT_EQ(reply(o), 0);
    EXPECT_TRUE(to_client.empty());
    EXPECT_EQ(dhcpr_item_count(), 0u);
}

TEST_F(Relay, ReplyWithoutItemIsDroppedSilently) {
    EXPECT_EQ(reply(offer(0x999)), 0);
    EXPECT_TRUE(to_client.empty());
    EXPECT_TRUE(log.empty());
}

TEST_F(Relay, OffSubnetGiaddrIsAnsweredAtThatGiaddrWithTheBroadcastMac) {
    ASSERT_EQ(request(discover().giaddr("172.16.5.1").hops(1)), 0);
    Msg o = offer();
    o.p.gateway_nip = nip("172.16.5.1");
    EXPECT_EQ(reply(o), 0);
    ASSERT_EQ(to_client.size(), 1u);
    EXPECT_EQ(to_client[0].dst, nip("172.16.5.1"));
    EXPECT_EQ(to_client[0].mac, (std::array<std::uint8_t, 6>{0xff, 0xff, 0xff, 0xff, 0xff, 0xff}));
    EXPECT_EQ(to_client[0].ifindex, 5);
}

TEST_F(Relay, GiaddrInsideTheSubnetGoesToTheClientsMac) {
    ASSERT_EQ(request(discover()), 0);
    Msg o = offer();
    o.p.gateway_nip = nip("192.168.10.77");
    EXPECT_EQ(reply(o), 0);
    ASSERT_EQ(to_client.size(), 1u);
    EXPECT_EQ(to_client[0].dst, 0u);
    EXPECT_EQ(to_client[0].mac[0], 0x00);
}

// The mask comes from the last address equal to the item's gateway; an
// interface without one gives mask 0 and the client's MAC.
TEST_F(Relay, MaskWalkTakesTheLastMatchingAddress) {
    prefix p{};
    str2prefix("192.168.10.1/16", &p);
    connected_add(v10, 0, &p, nullptr);  // a second entry for the same address
    ASSERT_EQ(request(discover()), 0);
    Msg o = offer();
    o.p.gateway_nip = nip("192.168.99.1");  // outside /24, inside /16
    EXPECT_EQ(reply(o), 0);
    ASSERT_EQ(to_client.size(), 1u);
    EXPECT_EQ(to_client[0].dst, 0u);
}

TEST_F(Relay, ReplyForARemovedRecordIsDroppedAndConsumed) {
    ASSERT_EQ(request(discover()), 0);
    rec().enable = 0;
    EXPECT_EQ(reply(offer()), 0);
    EXPECT_EQ(log.back(), "This interface relay is not enabled!");
    EXPECT_EQ(dhcpr_item_count(), 0u);
    rec().enable = 1;
    ASSERT_EQ(request(discover()), 0);
    ASSERT_EQ(dhcpr_if_relay_delete(v10, dhcpr_if_binding(v10)), 0);
    EXPECT_EQ(reply(offer()), 0);
    EXPECT_EQ(log.back(), "dhcpr_get_if_relay fail!");
    EXPECT_EQ(dhcpr_item_count(), 0u);
    EXPECT_TRUE(to_client.empty());
}

TEST_F(Relay, ItemOfADeletedInterfaceCountsAsNone) {
    // The record that answers is found by address; the item's interface is
    // gone. Both interfaces exist at once, so the new one cannot take the
    // old one's place in memory.
    interface *v11 = make_if("vlanif11", 9, "192.168.11.1/24");
    interface *v12 = make_if("vlanif12", 10, "192.168.11.1/24");
    const sockunion server = su_of("10.0.20.2");
    ASSERT_EQ(dhcpr_if_relay_set(v11, &server), 0);
    ASSERT_EQ(dhcpr_if_relay_set(v12, &server), 0);
    Trap t;
    t.vlan = 11;
    ASSERT_EQ(request(discover(), t), 0);
    ASSERT_EQ(dhcpr_item_find(htonl(0x1234))->client_ifp, v11);
    dhcpr_if_teardown(v11);
    if_delete(v11);
    Msg o = offer();
    o.p.gateway_nip = nip("192.168.11.1");
    EXPECT_EQ(reply(o), 0);
    EXPECT_EQ(log.back(), "item->client_ifp is NULL!");
    EXPECT_TRUE(to_client.empty());
    EXPECT_EQ(dhcpr_item_count(), 0u);
}

TEST_F(Relay, UntrustedPortsRepliesAreDroppedWithSnoopingOn) {
    if (!untrust_uplink()) {
        GTEST_SKIP() << "this platform build carries no snooping state";
    }
    ASSERT_EQ(request(discover()), 0);
    EXPECT_EQ(reply(offer()), 0);
    EXPECT_TRUE(to_client.empty());
    EXPECT_NE(dhcpr_item_find(htonl(0x1234)), nullptr);  // kept
    EXPECT_TRUE(log.size() == 1u);                       // only the request's line
    // Trusted again: delivered.
    dhcpsnoop_if_untrust_set(UPLINK_PORT_NUM, 0);
    EXPECT_EQ(reply(offer()), 0);
    EXPECT_EQ(to_client.size(), 1u);
    dhcpsnoop_enable_set(0);
}

// ===========================================================================
// The server reply port.

Bytes sent_payload(const ClientSend &c, std::size_t len) {
    const auto *b = reinterpret_cast<const std::uint8_t *>(&c.packet);
    return Bytes(b, b + len);
}

TEST_F(Relay, ServerReplyPortIs68UnlessSetTo67) {
    EXPECT_EQ(dhcpr_reply_port_get(), 68);
    EXPECT_EQ(dhcpr_reply_port_set(67), 0);
    EXPECT_EQ(dhcpr_reply_port_get(), 67);
    for (std::uint16_t bad : std::initializer_list<std::uint16_t>{0, 66, 69, 546, 65535}) {
        EXPECT_EQ(dhcpr_reply_port_set(bad), -4) << bad;
        EXPECT_EQ(dhcpr_reply_port_get(), 67) << bad;
    }
    EXPECT_EQ(dhcpr_reply_port_set(68), 0);
    EXPECT_EQ(dhcpr_reply_port_get(), 68);
    EXPECT_EQ(dhcpr_reply_port_set(67), 0);
    dhcpr_init(master);
    EXPECT_EQ(dhcpr_reply_port_get(), 68);
}

// With 68, a server's reply to port 67 is a request, as ever: the uplink's
// VLAN has no relay record, so it goes nowhere and the item stays.
TEST_F(Relay, WithPort68AReplyToPort67IsTakenAsARequest) {
    ASSERT_GT(dhcpr_enable_set(1), 0);
    ASSERT_EQ(request(discover()), 0);
    ASSERT_EQ(to_server.size(), 1u);
    EXPECT_EQ(to_server[0].sock, dhcpr_state.server_sock.get());
    log.clear();
    EXPECT_EQ(deliver(from_server("192.168.10.1", 67), offer().payload()), -1);
    EXPECT_TRUE(to_client.empty());
    EXPECT_EQ(to_server.size(), 1u);
    EXPECT_NE(dhcpr_item_find(htonl(0x1234)), nullptr);
    EXPECT_EQ(log, std::vector<std::string>{"dhcpr_get_if_relay fail!"});
}

TEST_F(Relay, WithPort67RequestsLeaveFromThePort67Socket) {
    ASSERT_GT(dhcpr_enable_set(1), 0);
    ASSERT_EQ(dhcpr_reply_port_set(67), 0);
    EXPECT_EQ(dhcpr_request_socket(), dhcpr_state.client_sock.get());
    ASSERT_EQ(request(discover().flags(0x8000)), 0);
    ASSERT_EQ(to_server.size(), 1u);
    EXPECT_EQ(to_server[0].sock, dhcpr_state.client_sock.get());
    EXPECT_NE(to_server[0].sock, dhcpr_state.server_sock.get());
    EXPECT_EQ(to_server[0].to.sin_addr.s_addr, nip("10.0.20.2"));
    EXPECT_EQ(to_server[0].to.sin_port, htons(67));
    // The datagram itself is the same as with 68.
    EXPECT_EQ(to_server[0].bytes, forwarded(discover(), 1, "192.168.10.1", 0, DISCOVER_END));
    ASSERT_EQ(dhcpr_reply_port_set(68), 0);
    EXPECT_EQ(dhcpr_request_socket(), dhcpr_state.server_sock.get());
}

// A BOOTREPLY to port 67 addressed to any of the switch's own addresses is
// delivered exactly as the same reply to port 68 would be.
TEST_F(Relay, WithPort67ABootreplyToTheSwitchTakesTheReplyPath) {
    ASSERT_EQ(dhcpr_reply_port_set(67), 0);
    std::uint32_t xid = 0x700;
    for (const char *dst : {"192.168.10.1", "10.0.20.1"}) {
        for (std::uint16_t dport : std::initializer_list<std::uint16_t>{67, 68}) {
            ++xid;
            to_client.clear();
            ASSERT_EQ(request(discover(xid).flags(0x8000)), 0);
            log.clear();
            EXPECT_EQ(deliver(from_server(dst, dport), offer(xid).payload()), 0) << dst;
            ASSERT_EQ(to_client.size(), 1u) << dst << " " << dport;
            const ClientSend &c = to_client[0];
            EXPECT_EQ(c.src, nip("10.0.20.2"));
            EXPECT_EQ(c.sport, 67);
            EXPECT_EQ(c.dst, 0u);
            EXPECT_EQ(c.dport, 68);
            EXPECT_EQ(c.mac, (std::array<std::uint8_t, 6>{0x00, 0x11, 0x22, 0x33, 0x44, 0x55}));
            EXPECT_EQ(c.ifindex, 5);
            EXPECT_EQ(c.size, 300 + 28);
            Msg want = offer(xid);
            want.p.flags = htons(0x8000);
            EXPECT_EQ(sent_payload(c, 300), want.payload());
            EXPECT_EQ(dhcpr_item_find(htonl(xid)), nullptr);
            EXPECT_TRUE(log.empty());
        }
    }
}

// Anything else to port 67 stays a request: a BOOTREPLY to an address that
// is not the switch's, or a BOOTREQUEST to the switch.
TEST_F(Relay, WithPort67OtherFramesToPort67StayRequests) {
    ASSERT_EQ(dhcpr_reply_port_set(67), 0);
    ASSERT_EQ(request(discover()), 0);
    struct Case {
        const char *dst;
        std::uint8_t op;
    };
    const Case cases[] = {
        {"255.255.255.255", BOOTREPLY}, {"10.0.20.2", BOOTREPLY},
        {"192.168.10.255", BOOTREPLY},  {"0.0.0.0", BOOTREPLY},
        {"192.168.10.1", BOOTREQUEST},
    };
    for (const Case &c : cases) {
        Msg o = offer();
        o.p.op = c.op;
        log.clear();
        // Taken as a request on the uplink's VLAN, which has no record.
        EXPECT_EQ(deliver(from_server(c.dst, 67), o.payload()), -1) << c.dst;
        EXPECT_EQ(log, std::vector<std::string>{"dhcpr_get_if_relay fail!"}) << c.dst;
        EXPECT_TRUE(to_client.empty()) << c.dst;
        EXPECT_NE(dhcpr_item_find(htonl(0x1234)), nullptr) << c.dst;
    }
}

// Snooping trust applies to replies taken at port 67 as well.
TEST_F(Relay, WithPort67AnUntrustedPortsReplyIsDropped) {
    if (!untrust_uplink()) {
        GTEST_SKIP() << "this platform build carries no snooping state";
    }
    ASSERT_EQ(dhcpr_reply_port_set(67), 0);
    ASSERT_EQ(request(discover()), 0);
    EXPECT_EQ(deliver(from_server("192.168.10.1", 67), offer().payload()), 0);
    EXPECT_TRUE(to_client.empty());
    EXPECT_NE(dhcpr_item_find(htonl(0x1234)), nullptr);
    dhcpsnoop_if_untrust_set(UPLINK_PORT_NUM, 0);
    dhcpsnoop_enable_set(0);
}

// ===========================================================================
// Transactions.

TEST_F(Relay, SameXidTwiceFindsTheNewerAndDeletesBoth) {
    dhcpr_item *a = dhcpr_item_add(7, v10, 1, 0);
    dhcpr_item *b = dhcpr_item_add(7, v10, 2, 0);
    dhcpr_item_add(8, v10, 3, 0);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(dhcpr_item_find(7), b);
    EXPECT_EQ(dhcpr_item_find(7)->gateway_nip, 2u);
    // List order: newest first.
    std::vector<std::uint32_t> order;
    for (dhcpr_item *i = dhcpr_item_first(); i != nullptr; i = dhcpr_item_next(i)) {
        order.push_back(i->gateway_nip);
    }
    EXPECT_EQ(order, (std::vector<std::uint32_t>{3, 2, 1}));
    dhcpr_item_delete(7);
    EXPECT_EQ(dhcpr_item_find(7), nullptr);
    EXPECT_EQ(dhcpr_item_count(), 1u);
    EXPECT_EQ(dhcpr_item_add(9, nullptr, 1, 0), nullptr);
    EXPECT_EQ(dhcpr_item_count(), 1u);
}

TEST_F(Relay, ExpiryKeeps120SecondsAndRemoves121) {
    fake_now = 5000;
    dhcpr_item_add(1, v10, 0, 0);
    fake_now = 5001;
    dhcpr_item_add(2, v10, 0, 0);
    fake_now = 5120;
    dhcpr_item_expire();
    EXPECT_EQ(dhcpr_item_count(), 2u);
    fake_now = 5121;
    dhcpr_item_expire();
    EXPECT_EQ(dhcpr_item_find(1), nullptr);
    EXPECT_NE(dhcpr_item_find(2), nullptr);
}

TEST_F(Relay, UnansweredRequestsStayWithoutTheTimer) {
    for (std::uint32_t x = 0; x < 50; ++x) {
        ASSERT_EQ(request(discover(x)), 0);
    }
    fake_now += 100000;
    EXPECT_EQ(dhcpr_item_count(), 50u);
    EXPECT_EQ(thread_count(master), 0u);  // nothing armed
}

TEST_F(Relay, TimerExpiresAndRearmsItself) {
    fake_now = 100;
    dhcpr_item_add(1, v10, 0, 0);
    fake_now = 300;
    thread fake{thread_kind::timer, master, dhcpr_timer, nullptr, -1, 0, "dhcpr_timer"};
    dhcpr_timer(&fake);
    EXPECT_EQ(dhcpr_item_count(), 0u);
    EXPECT_EQ(thread_count(master), 1u);
}

TEST_F(Relay, ListIsCappedAndDropsTheOldestWithOneLine) {
    for (std::uint32_t x = 0; x < DHCPR_ITEM_MAX; ++x) {
        dhcpr_item_add(x, v10, x, 0);
    }
    EXPECT_EQ(dhcpr_item_count(), DHCPR_ITEM_MAX);
    EXPECT_TRUE(log.empty());
    dhcpr_item_add(0x10000, v10, 0, 0);
    dhcpr_item_add(0x10001, v10, 0, 0);
    EXPECT_EQ(dhcpr_item_count(), DHCPR_ITEM_MAX);
    EXPECT_EQ(dhcpr_item_find(0), nullptr);
    EXPECT_EQ(dhcpr_item_find(1), nullptr);
    EXPECT_NE(dhcpr_item_find(2), nullptr);
    EXPECT_NE(dhcpr_item_find(0x10001), nullptr);
    EXPECT_EQ(log, std::vector<std::string>{
                       "dhcp-relay transaction list full (65536 items), dropping the oldest"});
}

TEST_F(Relay, CappedListOfOneXidKeepsTheNewest) {
    for (std::uint32_t n = 0; n < DHCPR_ITEM_MAX + 10; ++n) {
        dhcpr_item_add(5, v10, n, 0);
    }
    EXPECT_EQ(dhcpr_item_count(), DHCPR_ITEM_MAX);
    EXPECT_EQ(dhcpr_item_find(5)->gateway_nip, DHCPR_ITEM_MAX + 9);
    dhcpr_item_delete(5);
    EXPECT_EQ(dhcpr_item_count(), 0u);
    EXPECT_EQ(dhcpr_item_first(), nullptr);
}

// ===========================================================================
// Records and lookups.

TEST_F(Relay, SameServerKeepsTheSettingsAndAnotherResetsThem) {
    opt82(DHCPR_OPT82_DROP);
    dhcpr_if_circuit_id_set(v10, DHCPR_SUBMODE_STRING, "ABC");
    sockunion same = su_of("10.0.20.2");
    EXPECT_EQ(dhcpr_if_relay_set(v10, &same), 0);
    EXPECT_EQ(rec().opt82_enable, 1u);
    EXPECT_EQ(rec().opt82_strategy, DHCPR_OPT82_DROP);
    sockunion other = su_of("10.0.20.3");
    EXPECT_EQ(dhcpr_if_relay_set(v10, &other), 0);
    const dhcpr_if &r = rec();
    EXPECT_EQ(r.enable, 1u);
    EXPECT_EQ(r.ifp, v10);
    EXPECT_EQ(r.server.sin.sin_family, AF_INET);
    EXPECT_EQ(r.server.sin.sin_port, htons(67));
    EXPECT_EQ(r.server.sin.sin_addr.s_addr, nip("10.0.20.3"));
    EXPECT_EQ(r.opt82_enable, 0u);
    EXPECT_EQ(r.opt82_strategy, DHCPR_OPT82_REPLACE);
    EXPECT_EQ(r.circuit_id_mode, DHCPR_SUBMODE_NORMAL);
    EXPECT_EQ(r.remote_id_mode, DHCPR_SUBMODE_NORMAL);
    EXPECT_EQ(r.circuit_id[0], '\0');
    EXPECT_EQ(r.circuit_id_len, 0u);
}

TEST_F(Relay, NormalModeClearsTheText) {
    dhcpr_if_remote_id_set(v10, DHCPR_SUBMODE_STRING, "abc");
    EXPECT_EQ(rec().remote_id_len, 3u);
    dhcpr_if_remote_id_set(v10, DHCPR_SUBMODE_NORMAL, nullptr);
    EXPECT_EQ(rec().remote_id_mode, DHCPR_SUBMODE_NORMAL);
    EXPECT_EQ(Bytes(rec().remote_id, rec().remote_id + DHCPR_ID_SIZE), Bytes(DHCPR_ID_SIZE, 0));
    EXPECT_EQ(rec().remote_id_len, 0u);
}

TEST_F(Relay, NullArgumentsAreRefusedWithTheLine) {
    sockunion s = su_of("1.2.3.4");
    EXPECT_EQ(dhcpr_if_relay_set(nullptr, &s), -1);
    EXPECT_EQ(dhcpr_if_relay_set(v10, nullptr), -1);
    EXPECT_EQ(dhcpr_if_relay_delete(v10, nullptr), -1);
    EXPECT_EQ(dhcpr_if_relay_delete(nullptr, dhcpr_if_binding(v10)), -1);
    EXPECT_EQ(log, std::vector<std::string>(4, "The input pointer is NULL!"));
    EXPECT_NE(dhcpr_if_record(v10), nullptr);
}

TEST_F(Relay, SettersNeedARelayBinding) {
    interface *bare = make_if("vlanif40", 8, nullptr);
    EXPECT_EQ(dhcpr_if_opt82_enable_set(bare, 1), -1);
    EXPECT_EQ(dhcpr_if_opt82_strategy_set(bare, 1), -1);
    EXPECT_EQ(dhcpr_if_circuit_id_set(bare, 0, "x"), -1);
    EXPECT_EQ(dhcpr_if_remote_id_set(bare, 0, "x"), -1);
    // A binding without a record: success, nothing set.
    dhcpr_if_binding(v10)->relay.reset();
    EXPECT_EQ(dhcpr_if_opt82_enable_set(v10, 1), 0);
    EXPECT_EQ(dhcpr_if_circuit_id_set(v10, 0, "x"), 0);
    EXPECT_EQ(dhcpr_if_record(v10), nullptr);
}

TEST_F(Relay, ForeignBindingIsLeftAlone) {
    interface *ifp = make_if("vlanif40", 8, "192.168.40.1/24");
    dhcpr_if_info foreign{2, std::make_unique<dhcpr_if>()};
    ifp->info = &foreign;
    sockunion s = su_of("1.2.3.4");
    EXPECT_EQ(dhcpr_if_relay_set(ifp, &s), -1);
    dhcpr_if_teardown(ifp);
    EXPECT_EQ(ifp->info, &foreign);
    EXPECT_EQ(dhcpr_if_record(ifp), nullptr);
    ifp->info = nullptr;
}

TEST_F(Relay, L3AddressOfAVlan) {
    std::uint32_t a = 1;
    EXPECT_EQ(dhcp_get_l3if_address(10, &a), 0);
    EXPECT_EQ(a, nip("192.168.10.1"));
    EXPECT_EQ(dhcp_get_l3if_address(10, nullptr), -4);
    interface *v6 = make_if("vlanif60", 11, "2001:db8::1/64");
    (void)v6;
    a = 1;
    EXPECT_EQ(dhcp_get_l3if_address(60, &a), -7);
    EXPECT_EQ(a, 0u);
    EXPECT_TRUE(log.empty());
    make_if("vlanif61", 12, nullptr);
    EXPECT_EQ(dhcp_get_l3if_address(61, &a), -7);
    EXPECT_EQ(dhcp_get_l3if_address(62, &a), -7);
    EXPECT_EQ(log, std::vector<std::string>{
                       "[dhcp_get_l3if_address][456]Interface vlanif62 is not found!"});
}

TEST_F(Relay, RecordOfALocalAddress) {
    EXPECT_EQ(dhcpr_get_if_relay(nip("192.168.10.1")), dhcpr_if_record(v10));
    EXPECT_EQ(dhcpr_get_if_relay(nip("10.0.20.1")), nullptr);  // no binding there
    EXPECT_TRUE(log.empty());
    EXPECT_EQ(dhcpr_get_if_relay(nip("203.0.113.1")), nullptr);
    EXPECT_EQ(log, std::vector<std::string>{"if_lookup_address of l3_if_addr fail!"});
}

TEST_F(Relay, TeardownIsTheInterfaceDeletionHook) {
    EXPECT_EQ(dhcp_zebra_relay_teardown, &dhcpr_if_teardown);
    dhcp_zebra_relay_teardown(v10);
    EXPECT_EQ(v10->info, nullptr);
    dhcp_zebra_relay_teardown(v10);  // nothing left: nothing happens
}

// ===========================================================================
// On and off.

TEST_F(Relay, TurningOnTwiceIsANoOpAndOffClosesEverything) {
    const int fd = dhcpr_enable_set(1);
    EXPECT_GT(fd, 0);
    EXPECT_EQ(dhcpr_enable_get(), 1u);
    EXPECT_TRUE(dhcpr_state.client_sock.valid());
    EXPECT_EQ(dhcpr_state.server_sock.get(), fd);
    EXPECT_NE(dhcpr_state.client_read, nullptr);
    EXPECT_NE(dhcpr_state.server_read, nullptr);
    EXPECT_EQ(dhcpr_state.netlink_fd, hal_netlink_async);
    EXPECT_EQ(dhcpr_state.netlink_read != nullptr, hal_netlink_async >= 0);
    EXPECT_TRUE(logged("Opening listen socket on *:67 "));
    EXPECT_TRUE(logged("Opening listen socket on *:68 "));
    EXPECT_EQ(dhcpr_enable_set(1), 0);
    EXPECT_EQ(dhcpr_enable_set(0), 0);
    EXPECT_EQ(dhcpr_enable_get(), 0u);
    EXPECT_FALSE(dhcpr_state.client_sock.valid());
    EXPECT_FALSE(dhcpr_state.server_sock.valid());
    EXPECT_EQ(dhcpr_state.netlink_read, nullptr);
    EXPECT_EQ(dhcpr_state.netlink_fd, 0);
    EXPECT_EQ(thread_count(master), 0u);
    EXPECT_EQ(dhcpr_enable_set(0), 0);
    // Records stay while the relay is off.
    EXPECT_NE(dhcpr_if_record(v10), nullptr);
}

// Descriptors run out after the first socket: enable stays 1 with the
// client socket open, and the next "on" does nothing.
struct FdLimit {
    rlimit saved{};
    explicit FdLimit(int free_fds) {
        // Open the channel (if the platform has one) before the limit.
        dhcpr_enable_set(1);
        dhcpr_enable_set(0);
        getrlimit(RLIMIT_NOFILE, &saved);
        const int lowest = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        ::close(lowest);
        rlimit lim = saved;
        lim.rlim_cur = static_cast<rlim_t>(lowest + free_fds);
        setrlimit(RLIMIT_NOFILE, &lim);
    }
    ~FdLimit() { setrlimit(RLIMIT_NOFILE, &saved); }
};

TEST_F(Relay, FailedServerSocketLeavesTheRelayHalfOn) {
    {
        FdLimit limit(1);
        log.clear();
        EXPECT_EQ(dhcpr_enable_set(1), -1);
    }
    EXPECT_TRUE(logged("dhcp-relay failed to init RecvServer socket"));
    EXPECT_EQ(dhcpr_enable_get(), 1u);
    EXPECT_TRUE(dhcpr_state.client_sock.valid());
    EXPECT_NE(dhcpr_state.client_read, nullptr);
    EXPECT_FALSE(dhcpr_state.server_sock.valid());
    EXPECT_EQ(dhcpr_state.netlink_read, nullptr);
    EXPECT_EQ(dhcpr_enable_set(1), 0);  // enable already reads 1
    EXPECT_FALSE(dhcpr_state.server_sock.valid());
    EXPECT_EQ(dhcpr_enable_set(0), 0);
    EXPECT_FALSE(dhcpr_state.client_sock.valid());
    EXPECT_EQ(thread_count(master), 0u);
}

TEST_F(Relay, FailedClientSocketOpensNothing) {
    {
        FdLimit limit(0);
        log.clear();
        EXPECT_EQ(dhcpr_enable_set(1), -1);
    }
    EXPECT_TRUE(logged("dhcp-relay failed to init RecvClient socket"));
    EXPECT_FALSE(logged("dhcp-relay failed to init RecvServer socket"));
    EXPECT_EQ(dhcpr_enable_get(), 1u);
    EXPECT_FALSE(dhcpr_state.client_sock.valid());
    EXPECT_EQ(thread_count(master), 0u);
}

TEST_F(Relay, DrainingTasksReadAndRearm) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, sv), 0);
    ASSERT_EQ(::write(sv[1], "x", 1), 1);
    ASSERT_EQ(::write(sv[1], "y", 1), 1);
    thread_add_read(master, dhcpr_recv_client, nullptr, sv[0]);
    EXPECT_EQ(thread_run_once(master, 1000), 1);
    ASSERT_NE(dhcpr_state.client_read, nullptr);
    EXPECT_EQ(dhcpr_state.client_read->fd, sv[0]);
    thread_cancel(dhcpr_state.client_read);
    thread_add_read(master, dhcpr_recv_server, nullptr, sv[0]);
    EXPECT_EQ(thread_run_once(master, 1000), 1);
    ASSERT_NE(dhcpr_state.server_read, nullptr);
    char c;
    EXPECT_EQ(::recv(sv[0], &c, 1, 0), -1);  // both datagrams were drained
    thread_cancel(dhcpr_state.server_read);
    EXPECT_TRUE(log.empty());
    ::close(sv[0]);
    ::close(sv[1]);

    // A descriptor that is not a socket: the read fails and is logged.
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    ASSERT_EQ(::write(p[1], "x", 1), 1);
    thread_add_read(master, dhcpr_recv_client, nullptr, p[0]);
    EXPECT_EQ(thread_run_once(master, 1000), 1);
    EXPECT_EQ(log, std::vector<std::string>{"dhcp_recvmsg fail!"});
    thread_cancel(dhcpr_state.client_read);
    ::close(p[0]);
    ::close(p[1]);
}

TEST_F(Relay, NetlinkTaskLogsAFailedReceiveAndStaysArmed) {
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    ASSERT_EQ(::write(p[1], "x", 1), 1);
    dhcpr_state.netlink_read = thread_add_read_repeat(master, dhcpr_recv_netlink, nullptr, p[0]);
    thread *armed = dhcpr_state.netlink_read;
    EXPECT_EQ(thread_run_once(master, 1000), 1);
    EXPECT_EQ(log, std::vector<std::string>{"hal_recv dhcpr_netlink_msg fail!"});
    // The byte is still there (a pipe is no trap channel): the same task
    // fires again on the next turn.
    EXPECT_EQ(thread_run_once(master, 1000), 1);
    EXPECT_EQ(log.size(), 2u);
    EXPECT_EQ(dhcpr_state.netlink_read, armed);
    EXPECT_EQ(thread_count(master), 1u);
    thread_cancel(dhcpr_state.netlink_read);
    EXPECT_EQ(thread_count(master), 0u);
    ::close(p[0]);
    ::close(p[1]);
}

// Nothing sent to the relay's port-68 socket is ever queued there.
TEST_F(Relay, ThePort68SocketQueuesNothing) {
    const int fd = dhcpr_enable_set(1);
    ASSERT_GT(fd, 0);
    const int peer = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(peer, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(68);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const std::uint8_t datagram[300] = {2};
    ASSERT_EQ(
        ::sendto(peer, datagram, sizeof datagram, 0, reinterpret_cast<sockaddr *>(&to), sizeof to),
        static_cast<ssize_t>(sizeof datagram));
    std::uint8_t buf[512];
    EXPECT_EQ(::recv(fd, buf, sizeof buf, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);
    ::close(peer);
}

// ===========================================================================
// Interface deletion from the interface manager.

TEST_F(Relay, InterfaceManagerDeletionReleasesTheBinding) {
    dhcp_zebra_init(master);
    ASSERT_EQ(dhcp_zebra_relay_teardown, &dhcpr_if_teardown);
    alignas(8) std::array<std::uint8_t, 512> mem{};
    nlmsghdr *nlh = mnl_nlmsg_put_header(mem.data());
    nlh->nlmsg_type = RTM_DELLINK;
    auto *ifi = static_cast<ifinfomsg *>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
    ifi->ifi_index = 5;
    mnl_attr_put_strz(nlh, IFLA_IFNAME, "vlanif10");
    mnl_attr_put_u32(nlh, IFLA_MTU, 1500);
    zclient_netlink_input(dhcp_zclient(), {mem.data(), nlh->nlmsg_len});
    EXPECT_EQ(if_lookup_by_name("vlanif10"), v10);  // stays in the table
    EXPECT_EQ(v10->info, nullptr);
    EXPECT_EQ(v10->ifindex, 0);
    dhcp_zebra_terminate();
}

}  // namespace
