// The switch's hardware-abstraction layer on Linux.
//
// On Linux the "switching chip" is the kernel bridge: a VLAN is the bridge
// vlanifN, its ports are the netdevs enslaved to it (platform/uif.h), and
// MAC learning is the bridge's forwarding database, read over rtnetlink.
#pragma once

#include <cstdint>

// Turns DHCP trapping and the server's hardware side on or off. The kernel
// hands DHCP frames to our sockets by itself, so nothing is programmed: the
// state is only recorded. 0 on success.
int hal_dhcp_enable(int enable);
// The state last set by hal_dhcp_enable (1 on, 0 off).
int hal_dhcp_enabled();

// The switch port (uif index, UIF_INDEX_BASE | port number) on which `mac`
// (6 bytes) was learned in VLAN `vid`, from the forwarding database of bridge
// vlanif<vid>: 0 with *port set, *port = 0 when the MAC is not known there,
// was learned on no switch port, or the VLAN does not exist; -1 (and
// *port = 0) for missing arguments or when the kernel cannot be asked.
// One netlink round trip on a socket kept open between calls.
int hal_mac_get_port(std::uint16_t vid, const std::uint8_t *mac, std::uint32_t *port);
// Tests: 1 makes hal_mac_get_port walk the bridge's whole database, as it
// does on kernels without the single-entry lookup; 0 goes back to normal.
void hal_fdb_force_dump(int on);
