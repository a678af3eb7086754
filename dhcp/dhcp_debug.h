// The daemon-wide debug flag word and the commands that set it, and the
// interface configuration node.
#pragma once

#include <cstdint>

extern std::uint32_t dhcp_debug;

// Log levels of the server's lines. Each line is written at the level its
// module's contract gives it; where that leaves the level open, the line is
// written at debug level (zlog_debug), below the default threshold (info) of
// syslog and standard output. All of these are written once or more for
// every request received: at info or above, a flood of requests, or one
// client looping on a refusal, would fill syslog on the switch's flash and
// bury the lines that matter. An operator who wants them lowers the
// threshold ("log syslog debugging"); the second group also needs the
// packet bit on ("debug dhcp packet").
//
// At debug level whenever they happen (dhcps, dhcps_pool, dhcps_leases):
//   "dhcp_recvmsg fail!", "dhcps_parse_packet fail!",
//   "if_lookup_address of l3_if_addr fail!", "Option-82 is invalid!",
//   "dhcps_pool %s, ipaddr=%s, ifindex=%d\n",
//   "dhcp_find_option DHCP_SUBNET_MASK fail!" (request and pool lookup),
//   "Pool %s is not enabled, jump over!", "Circuit ID is not found! jump over!",
//   "DHCP_SERVER_ID is %s", "server ID doesn't match, ignoring",
//   the message-type names "DHCPDISCOVER\n" ... "DHCPINFORM\n" and
//   "WRONG state[0]\n", "no requested IP and no ciaddr, ignoring",
//   "get free IP address: %#x", "The lease num exceeds max: %d\n",
//   "no free IP addresses. OFFER abandoned".
// At debug level with DHCP_DEBUG_PACKET on (dhcps):
//   "MAC length != 6, ignoring packet", "not a BOOTREQUEST, ignoring packet",
//   "no or bad message type option, ignoring packet", "Found static lease: %x",
//   "Received DISCOVER", "Received REQUEST", "Received DECLINE",
//   "Received RELEASE", "Received INFORM", "requested ip: %s",
//   "  start: %s %#x", "  end: %s %#x", "get free ip: %s",
//   "Sending OFFER of %s", "Sending ACK to %s", "Sending NAK",
//   "Broadcasting packet to client", "Unicasting packet to client ciaddr".
// The message layer's traces (option codec, receive, raw send, ARP probe)
// and the interface-event traces have fixed levels and keep them.

constexpr std::uint32_t DHCP_DEBUG_EVENTS = 0x1;
constexpr std::uint32_t DHCP_DEBUG_PACKET = 0x2;
constexpr std::uint32_t DHCP_DEBUG_INTERFACE = 0x4;
constexpr std::uint32_t DHCP_DEBUG_TIMER = 0x8;

inline bool dhcp_debug_on(std::uint32_t bit) {
    return (dhcp_debug & bit) != 0;
}

// Installs the interface node and its commands, then the debug commands.
void dhcp_debug_init();
