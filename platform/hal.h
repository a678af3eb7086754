// The switch's hardware-abstraction layer on Linux.
//
// On Linux the "switching chip" is the kernel bridge: a VLAN is the bridge
// vlanifN, its ports are the netdevs enslaved to it (platform/uif.h), and
// MAC learning is the bridge's forwarding database, read over rtnetlink.
#pragma once

#include <cstdint>
#include <functional>

// Turns DHCP trapping on or off for one of its users. The server and the
// relay each call it when they are turned on (non-zero) and off (0), and
// only then; trapping stays on while at least one of them has it on, so
// turning the server off never stops the relay's frames, nor the other way
// round. At most two users are counted (the server and the relay); an off
// call with no user left is harmless.
//
// The first on call opens the trapped-frame channel (platform/trap.h): from
// then on hal_netlink_async names it for the life of the process. While
// trapping is on the channel delivers the trapped frames; while it is off
// it delivers nothing, and it stays open. Every on call first drops the
// frames already queued, which may have waited there while nobody read the
// channel (the server has trapping on but never reads it); at that moment
// a relay already reading may lose the few frames not yet read, which their
// clients send again.
//
// 0 on success; -1 when the channel cannot be opened or filtered (logged;
// the user is counted all the same, so its off call still balances).
int hal_dhcp_enable(int enable);
// 1 while trapping is on (at least one user), else 0.
int hal_dhcp_enabled();

// The switch port (uif index, UIF_INDEX_BASE | port number) on which `mac`
// (6 bytes) was learned in VLAN `vid`, from the forwarding database of bridge
// vlanif<vid>: 0 with *port set, *port = 0 when the MAC is not known there,
// was learned on no switch port, or the VLAN does not exist; -1 (and
// *port = 0) for missing arguments or when the kernel cannot be asked.
//
// Answered from an in-memory copy of the bridges' databases kept from the
// kernel's neighbour events (read, without blocking, at each call; a dump of
// every bridge at the first call and whenever events were lost). While that
// copy is unsure (not dumped yet, or its dump failed: retried at most once a
// second) the kernel is asked: one netlink round trip on a socket kept open
// between calls.
int hal_mac_get_port(std::uint16_t vid, const std::uint8_t *mac, std::uint32_t *port);
// Tests: 1 makes hal_mac_get_port walk the bridge's whole database, as it
// does on kernels without the single-entry lookup, bypassing the in-memory
// copy; 0 goes back to normal.
void hal_fdb_force_dump(int on);
// Tests and fuzzers: answers hal_mac_get_port's questions in place of the
// kernel (the arguments are checked first, as ever); an empty function goes
// back to the kernel.
using hal_mac_port_lookup =
    std::function<int(std::uint16_t vid, const std::uint8_t *mac, std::uint32_t *port)>;
void hal_set_mac_port_lookup(hal_mac_port_lookup lookup);
// Tests: 0 drops the in-memory copy and has every call ask the kernel; 1
// (the default) goes back to the copy, dumped again at the next call.
void hal_fdb_use_table(int on);
// How hal_mac_get_port's answers were found, since the start.
struct hal_fdb_counts {
    std::uint64_t table_answers = 0;   // from the in-memory copy
    std::uint64_t kernel_queries = 0;  // netlink round trips (single entry or walk)
    std::uint64_t dumps = 0;           // dumps of every bridge into the copy
};
hal_fdb_counts hal_fdb_stats();
