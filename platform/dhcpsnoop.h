// DHCP snooping state: whether snooping is on and which switch ports are
// untrusted. Set by peers over the management bus (platform/uclient.h); read
// by the relay, which never passes a server reply that came in on an
// untrusted port while snooping is on. At start snooping is off and every
// port is trusted; the state lives as long as the process.
#pragma once

#include <cstdint>

struct uif;

// Highest port number the state holds.
constexpr std::uint32_t DHCPSNOOP_PORT_MAX = 4095;

// 1 when snooping is on, else 0.
int dhcpsnoop_enable_get();
// 1 when the port is untrusted, 0 when trusted (the default, and always for
// a port numbered outside 1..4095), -1 for none.
int dhcpsnoop_if_untrust_get(const uif *port);
// Setters behind the bus messages (and tests).
void dhcpsnoop_enable_set(int on);
// 0, or -1 for a port number outside 1..4095.
int dhcpsnoop_if_untrust_set(std::uint32_t port_number, int untrusted);
// By port number: 1 untrusted, 0 trusted, -1 for a number outside 1..4095.
int dhcpsnoop_port_untrust_get(std::uint32_t port_number);
