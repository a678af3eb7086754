// The BOOTP/DHCP message record as it lies on the wire, and the IPv4/UDP
// datagram the raw sender builds around it.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr std::uint8_t BOOTREQUEST = 1;
constexpr std::uint8_t BOOTREPLY = 2;

constexpr std::uint32_t DHCP_MAGIC =
    0x63825363;  // host order; the record holds it in network order
constexpr std::uint16_t DHCP_BROADCAST_FLAG = 0x8000;
constexpr std::uint16_t DHCP_SERVER_PORT = 67;
constexpr std::uint16_t DHCP_CLIENT_PORT = 68;

// Message types carried in option 53.
constexpr std::uint8_t DHCPDISCOVER = 1;
constexpr std::uint8_t DHCPOFFER = 2;
constexpr std::uint8_t DHCPREQUEST = 3;
constexpr std::uint8_t DHCPDECLINE = 4;
constexpr std::uint8_t DHCPACK = 5;
constexpr std::uint8_t DHCPNAK = 6;
constexpr std::uint8_t DHCPRELEASE = 7;
constexpr std::uint8_t DHCPINFORM = 8;

// Building stops at the RFC 2131 standard options area; reading goes on into
// the slack, which holds over-long messages from peers.
constexpr std::size_t DHCP_OPTIONS_BUFSIZE = 308;
constexpr std::size_t DHCP_OPTIONS_AREA = 388;
constexpr std::size_t DHCP_FIXED_SIZE = 240;  // everything before the options
constexpr std::size_t DHCP_SNAME_SIZE = 64;
constexpr std::size_t DHCP_FILE_SIZE = 128;

// Multi-byte fields in network byte order.
struct dhcp_packet {
    std::uint8_t op;
    std::uint8_t htype;
    std::uint8_t hlen;
    std::uint8_t hops;
    std::uint32_t xid;
    std::uint16_t secs;
    std::uint16_t flags;
    std::uint32_t ciaddr;
    std::uint32_t yiaddr;
    std::uint32_t siaddr_nip;
    std::uint32_t gateway_nip;
    std::uint8_t chaddr[16];
    std::uint8_t sname[DHCP_SNAME_SIZE];
    std::uint8_t file[DHCP_FILE_SIZE];
    std::uint32_t cookie;
    std::uint8_t options[DHCP_OPTIONS_AREA];
};

static_assert(sizeof(dhcp_packet) == 628);
static_assert(offsetof(dhcp_packet, xid) == 4);
static_assert(offsetof(dhcp_packet, ciaddr) == 12);
static_assert(offsetof(dhcp_packet, gateway_nip) == 24);
static_assert(offsetof(dhcp_packet, chaddr) == 28);
static_assert(offsetof(dhcp_packet, sname) == 44);
static_assert(offsetof(dhcp_packet, file) == 108);
static_assert(offsetof(dhcp_packet, cookie) == 236);
static_assert(offsetof(dhcp_packet, options) == DHCP_FIXED_SIZE);

// IPv4 header without options; fields in network byte order.
struct dhcp_ip_header {
    std::uint8_t version_ihl;
    std::uint8_t tos;
    std::uint16_t tot_len;
    std::uint16_t id;
    std::uint16_t frag_off;
    std::uint8_t ttl;
    std::uint8_t protocol;
    std::uint16_t check;
    std::uint32_t saddr;
    std::uint32_t daddr;
};
static_assert(sizeof(dhcp_ip_header) == 20);

struct dhcp_udp_header {
    std::uint16_t source;
    std::uint16_t dest;
    std::uint16_t len;
    std::uint16_t check;
};
static_assert(sizeof(dhcp_udp_header) == 8);

struct ip_udp_dhcp_packet {
    dhcp_ip_header ip;
    dhcp_udp_header udp;
    dhcp_packet data;
};
static_assert(sizeof(ip_udp_dhcp_packet) == 20 + 8 + 628);
static_assert(offsetof(ip_udp_dhcp_packet, udp) == 20);
static_assert(offsetof(ip_udp_dhcp_packet, data) == 28);

// Largest datagram built from the standard options area: 20 + 8 + 548.
constexpr std::size_t DHCP_MAX_DATAGRAM = 576;

// Zeroes the record, sets op (BOOTREPLY for OFFER, ACK and NAK, else
// BOOTREQUEST), htype 1, hlen 6, the cookie and an empty options area, then
// adds option 53 = `type`.
void dhcp_init_header(dhcp_packet &packet, std::uint8_t type);
