#include "dhcp/dhcp_packet.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_options.h"
#include "lib/log.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

TEST(PacketLayout, WireOffsets) {
    EXPECT_EQ(sizeof(dhcp_packet), 628u);
    EXPECT_EQ(offsetof(dhcp_packet, op), 0u);
    EXPECT_EQ(offsetof(dhcp_packet, htype), 1u);
    EXPECT_EQ(offsetof(dhcp_packet, hlen), 2u);
    EXPECT_EQ(offsetof(dhcp_packet, hops), 3u);
    EXPECT_EQ(offsetof(dhcp_packet, xid), 4u);
    EXPECT_EQ(offsetof(dhcp_packet, secs), 8u);
    EXPECT_EQ(offsetof(dhcp_packet, flags), 10u);
    EXPECT_EQ(offsetof(dhcp_packet, ciaddr), 12u);
    EXPECT_EQ(offsetof(dhcp_packet, yiaddr), 16u);
    EXPECT_EQ(offsetof(dhcp_packet, siaddr_nip), 20u);
    EXPECT_EQ(offsetof(dhcp_packet, gateway_nip), 24u);
    EXPECT_EQ(offsetof(dhcp_packet, chaddr), 28u);
    EXPECT_EQ(offsetof(dhcp_packet, sname), 44u);
    EXPECT_EQ(offsetof(dhcp_packet, file), 108u);
    EXPECT_EQ(offsetof(dhcp_packet, cookie), 236u);
    EXPECT_EQ(offsetof(dhcp_packet, options), 240u);
    EXPECT_EQ(sizeof(dhcp_packet{}.options), 388u);
    EXPECT_EQ(sizeof(ip_udp_dhcp_packet), 656u);
}

TEST(PacketLayout, FieldsAreNetworkOrderAsWritten) {
    dhcp_packet p{};
    p.xid = htonl(0x01020304);
    p.flags = htons(DHCP_BROADCAST_FLAG);
    p.yiaddr = htonl(0xc0a80164);
    const auto *b = reinterpret_cast<const std::uint8_t *>(&p);
    EXPECT_EQ(Bytes(b + 4, b + 8), (Bytes{1, 2, 3, 4}));
    EXPECT_EQ(Bytes(b + 10, b + 12), (Bytes{0x80, 0x00}));
    EXPECT_EQ(Bytes(b + 16, b + 20), (Bytes{192, 168, 1, 100}));
}

struct HeaderCase {
    std::uint8_t type;
    std::uint8_t op;
};

class InitHeader : public ::testing::TestWithParam<HeaderCase> {};

TEST_P(InitHeader, OpAndFixedFields) {
    const HeaderCase &c = GetParam();
    dhcp_packet p;
    std::memset(&p, 0xa5, sizeof p);
    dhcp_init_header(p, c.type);

    Bytes expected(628, 0);
    expected[0] = c.op;
    expected[1] = 1;
    expected[2] = 6;
    expected[236] = 0x63;
    expected[237] = 0x82;
    expected[238] = 0x53;
    expected[239] = 0x63;
    expected[240] = 53;
    expected[241] = 1;
    expected[242] = c.type;
    expected[243] = 255;
    const auto *b = reinterpret_cast<const std::uint8_t *>(&p);
    EXPECT_EQ(Bytes(b, b + sizeof p), expected);
}

INSTANTIATE_TEST_SUITE_P(
    AllTypes, InitHeader,
    ::testing::Values(HeaderCase{DHCPDISCOVER, BOOTREQUEST}, HeaderCase{DHCPOFFER, BOOTREPLY},
                      HeaderCase{DHCPREQUEST, BOOTREQUEST}, HeaderCase{DHCPDECLINE, BOOTREQUEST},
                      HeaderCase{DHCPACK, BOOTREPLY}, HeaderCase{DHCPNAK, BOOTREPLY},
                      HeaderCase{DHCPRELEASE, BOOTREQUEST}, HeaderCase{DHCPINFORM, BOOTREQUEST}));

TEST(InitHeaderLog, AddsMessageTypeThroughTheCodec) {
    std::vector<std::pair<int, std::string>> logs;
    zlog_set_hook([&](int prio, std::string_view text) { logs.emplace_back(prio, text); });
    dhcp_debug = 0;
    dhcp_packet p;
    dhcp_init_header(p, DHCPACK);
    EXPECT_TRUE(logs.empty());
    dhcp_debug = DHCP_DEBUG_EVENTS;
    dhcp_init_header(p, DHCPACK);
    dhcp_debug = 0;
    zlog_set_hook({});
    EXPECT_EQ(logs, (std::vector<std::pair<int, std::string>>{{LOG_INFO, "Adding option: 5.."}}));
    EXPECT_EQ(dhcp_end_option(p.options), 3);
    ASSERT_NE(dhcp_get_option(&p, DHCP_MESSAGE_TYPE), nullptr);
    EXPECT_EQ(*dhcp_get_option(&p, DHCP_MESSAGE_TYPE), DHCPACK);
}

TEST(InitHeaderLog, ReplyLengthsFromEndMarker) {
    // The datagram a reply makes: fixed part, options up to the end marker.
    dhcp_packet p;
    dhcp_init_header(p, DHCPOFFER);
    dhcp_add_simple_option(p, DHCP_SERVER_ID, htonl(0x0a000001));
    dhcp_add_simple_option(p, DHCP_LEASE_TIME, htonl(864000));
    dhcp_add_simple_option(p, DHCP_T1, htonl(432000));
    dhcp_add_simple_option(p, DHCP_T2, htonl(756000));
    EXPECT_EQ(dhcp_end_option(p.options), 3 + 6 + 6 + 6 + 6);
    const std::uint8_t *lease = dhcp_get_option(&p, DHCP_LEASE_TIME);
    ASSERT_NE(lease, nullptr);
    EXPECT_EQ(Bytes(lease, lease + 4), (Bytes{0x00, 0x0d, 0x2f, 0x00}));
}

}  // namespace
