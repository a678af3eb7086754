// The interface table: the switch's layer-3 interfaces as the interface
// manager reports them (or as the operator pre-creates them by name), with
// their connected addresses and one per-daemon `info` slot.
//
// Interfaces live until if_delete(); handles stay valid until then. An
// interface created by name has index 0 until the kernel reports it.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "lib/command.h"
#include "lib/prefix.h"

using ifindex_t = int;
using vrf_id_t = std::uint16_t;

constexpr std::size_t INTERFACE_NAMSIZ = 20;
constexpr ifindex_t IFINDEX_INTERNAL = 0;
constexpr vrf_id_t VRF_DEFAULT = 0;

// Connected-address flags.
constexpr std::uint8_t ZEBRA_IFA_SECONDARY = 0x1;
constexpr std::uint8_t ZEBRA_IFA_PEER = 0x2;

struct interface;

struct connected {
    interface *ifp = nullptr;
    std::uint8_t flags = 0;  // ZEBRA_IFA_*
    std::unique_ptr<prefix> address;
    std::unique_ptr<prefix> destination;  // peer or broadcast, may be null
};

inline bool CONNECTED_PEER(const connected *c) {
    return (c->flags & ZEBRA_IFA_PEER) != 0;
}
// The prefix a connected entry stands for: its peer's for a point-to-point
// address, else its own.
inline const prefix *CONNECTED_PREFIX(const connected *c) {
    return (CONNECTED_PEER(c) && c->destination) ? c->destination.get() : c->address.get();
}

struct interface {
    char name[INTERFACE_NAMSIZ + 1] = {};
    ifindex_t ifindex = IFINDEX_INTERNAL;
    std::uint64_t flags = 0;  // IFF_*
    int metric = 0;
    unsigned int mtu = 0;
    std::uint8_t hw_addr[6] = {};
    int hw_addr_len = 0;
    std::vector<std::unique_ptr<::connected>> connected;
    void *info = nullptr;  // per-daemon slot
};

enum if_hook_type { IF_NEW_HOOK = 0, IF_DELETE_HOOK = 1 };

void if_init();
void if_terminate();  // drops every interface (tests)
void if_add_hook(int type, int (*func)(interface *));

interface *if_create(const char *name, std::size_t namelen);
interface *if_get_by_name(const char *name);  // find or create
interface *if_lookup_by_name(const char *name);
interface *if_lookup_by_index(ifindex_t ifindex);
// The interface owning an IPv4 address (network order): an exact connected
// address first, else the longest connected network holding it.
interface *if_lookup_address(in_addr addr);
// The interface with exactly this IPv4 address (network order), or nullptr.
interface *if_lookup_exact_address(in_addr addr);
// Whether this handle is in the table. Compares handles only, so it is safe
// for an interface deleted since it was remembered.
bool if_exists(const interface *ifp);
void if_delete(interface *ifp);
int if_is_up(const interface *ifp);

// Interfaces of a VRF in name order (only the default VRF exists).
std::vector<interface *> vrf_iflist(vrf_id_t vrf_id);
void vrf_init();

// Adds an address (flags ZEBRA_IFA_*; dest may be null); returns the entry,
// or the existing one when the same address is already there.
connected *connected_add(interface *ifp, std::uint8_t flags, const prefix *address,
                         const prefix *destination);
// Removes the entry with this address; returns true when one was removed.
bool connected_delete(interface *ifp, const prefix *address);

// The library's "interface IFNAME" command: finds or creates the interface
// and enters the interface node with it as the current object.
extern cmd_element interface_cmd;

// Process memory statistics ("show memory").
void memory_init();
