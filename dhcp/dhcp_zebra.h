// Interface and address tracking: pools follow the addresses of the
// switch's layer-3 interfaces.
//
// The daemon's interface-manager client reports interfaces and their
// addresses; a pool whose network holds an interface's IPv4 address is
// attached to that interface (its address becomes the pool's server
// address) and detached when the address or the interface goes. IPv6
// addresses are tracked in the interface table but never attach a pool.
// Event traces are debug lines under "debug dhcp events".
#pragma once

#include <cstdint>

#include "lib/if.h"
#include "lib/prefix.h"

struct thread_master;
struct zclient;

// Creates the interface-manager client on `master`, sets its callbacks and
// starts it (route type 16). Called once at start-up.
void dhcp_zebra_init(thread_master *master);
// Stops and frees the client (tests).
void dhcp_zebra_terminate();
// The daemon's client, nullptr before dhcp_zebra_init.
zclient *dhcp_zclient();

// Attaches the first pool (list order) whose network is the network of
// `prefix` to `ifp`, with `prefix`'s address as the pool's server address.
void dhcp_attach_pool(interface *ifp, const prefix *prefix);
// Attaches the first pool that matches any IPv4 address of `ifp` (pools in
// list order, addresses in order); at most one pool per call.
void dhcp_attach_pool_by_intf(interface *ifp);
// Detaches the first pool whose network is the network of `prefix`,
// whichever interface it is attached to.
void dhcp_detach_pool(interface *ifp, const prefix *prefix);
// Detaches the first pool attached to `ifp`.
void dhcp_detach_pool_by_intf(interface *ifp);
// 1 when `address` (IPv4, network order) is the address of one of `ifp`'s
// connected entries, else 0 (also for a null interface, with a warning).
int dhcp_connected_check(const interface *ifp, std::uint32_t address);

// An interface is going away: the interface manager deleted it, or the
// operator did ("no interface IFNAME"). Every pool attached to it is
// detached, then, when its `info` slot is set, the relay's teardown is
// called. Afterwards no record of the daemon refers to `ifp`. Both delete
// paths go through here.
void dhcp_interface_release(interface *ifp);
// "no interface IFNAME": releases `ifp` and removes it from the interface
// table (the record is freed). When the interface manager still reports the
// interface (it has an index), the interface table is asked for again, so
// the interface is learned afresh, with its addresses and without the
// operator's settings, and its pools attach again through the usual events.
void dhcp_interface_forget(interface *ifp);

// The relay's teardown of an interface that is being deleted. Called for an
// interface whose `info` slot is set, after its pools were detached and
// before its index is cleared (interface manager) or the record is freed
// (operator). The relay sets it when it comes up; it must free the binding
// and its relay record, and clear `info`, only when the binding is a relay
// binding (kind 1), leaving any other binding in place, and must keep no
// pointer to the interface. Null: nothing is done with `info`.
extern void (*dhcp_zebra_relay_teardown)(interface *ifp);
