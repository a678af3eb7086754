// Switch ports and VLANs on Linux.
//
// A VLAN's routed interface `vlanifN` is a Linux bridge (or a plain netdev)
// of that name; the switch ports are the netdevs enslaved to such bridges,
// numbered by the decimal number that ends their name (swp3 -> port 3).
// A port's `uif` index carries a non-zero top byte: UIF_INDEX_BASE | number,
// so it never collides with a kernel interface index. The lookups by index
// also take a bare port number (1 up to UIF_INDEX_BASE - 1), the form in
// which trapped frames name their ingress port (platform/trap.h); 0 names no
// port.
// The tables are read from sysfs at start-up and refreshed on demand (a name
// or index not found triggers one re-read), so ports added later are seen.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

struct interface;

constexpr std::uint32_t UIF_INDEX_BASE = 0x01000000;

struct uif {
    std::string name;
    std::uint32_t index = 0;   // UIF_INDEX_BASE | number
    std::uint32_t number = 0;  // the port number from the name
    int kernel_ifindex = 0;
    std::uint16_t vid = 0;  // VLAN of the bridge the port belongs to
    std::uint8_t mac[6] = {};
};

struct uvlan {
    std::uint16_t vid = 0;
    std::string name;  // "vlanifN"
    int kernel_ifindex = 0;
    bool bridge = false;  // a Linux bridge, whose ports are switch ports
};

void uif_init();
void uvlan_init();
// Re-reads ports and VLANs from the system.
void uif_refresh();
// Walks the ports in index order, from the table as it stands (no re-read).
void uif_foreach(const std::function<void(const uif &)> &fn);
// Changes (by one or more) whenever the VLAN table is read again, so that
// what is derived from it can be rebuilt.
std::uint64_t uvlan_generation();
// The kernel interface indexes of the vlanifN netdevs that are bridges.
std::vector<int> uvlan_bridge_ifindexes();

const uif *uif_lookup_by_name(const char *name);
const uif *uif_lookup_by_index(std::uint32_t index);
const uif *uif_lookup_by_number(std::uint32_t number);
// The port whose kernel netdev has this index (as netlink reports it).
const uif *uif_lookup_by_kernel_ifindex(int ifindex);
const uvlan *uvlan_lookup(std::uint16_t vid);
// For each received frame: the port, or the vlanifN netdev, whose kernel
// netdev has this index, from the tables as they stand (a miss never
// re-reads them).
const uif *uif_peek_by_kernel_ifindex(int ifindex);
const uvlan *uvlan_peek_by_kernel_ifindex(int ifindex);
// The port's MAC address; 0, or -1 when the port is unknown.
int uif_get_portmac(std::uint32_t index, std::uint8_t mac[6]);
// N for an interface named vlanifN (1..4094), 0 for any other interface.
std::uint16_t if_get_vid(const interface *ifp);
std::uint16_t vid_from_name(const char *name);
// Sysfs root, changeable by tests.
void uif_set_sysfs_root(const std::string &root);
