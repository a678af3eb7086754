// The interface-manager client.
//
// On Linux the interface manager is the kernel: the client keeps one
// rtnetlink socket (libmnl) subscribed to link, IPv4-address and
// IPv6-address changes, registered as a read task on the daemon's master.
// Every rtnetlink message that changes what the daemon knows is turned into
// one interface-manager message (format below) and handed to the daemon's
// callback for that command; the callback reads the message from
// `zclient->ibuf` with zebra_interface_add_read(), zebra_interface_state_read()
// or zebra_interface_address_read(), which also keep the interface table
// (lib/if.h) up to date.
//
// Life of a client:
//   zclient_new(master)      record with no callbacks and no socket
//   set the callback slots
//   zclient_init(zc, type)   schedules the connection as an event on master;
//                            when it runs the socket is opened and
//                            `zebra_connected` is called
//   zclient_send_requests()  (from `zebra_connected`) dumps links, then IPv4
//                            addresses, then IPv6 addresses; they arrive as
//                            interface-add and address-add callbacks
//   ... live events ...
//   zclient_free(zc)         closes the socket and cancels its tasks
//
// Events, from rtnetlink:
//   RTM_NEWLINK, index not in the table     -> ZEBRA_INTERFACE_ADD (an
//                                              interface pre-created by name,
//                                              index 0, is matched by name)
//   RTM_NEWLINK, known, IFF_UP rises        -> ZEBRA_INTERFACE_UP
//   RTM_NEWLINK, known, IFF_UP falls        -> ZEBRA_INTERFACE_DOWN
//   RTM_NEWLINK, known, other change        -> table updated, no callback
//   RTM_NEWLINK, known index, new name      -> DELETE of the old name, then ADD
//   RTM_DELLINK, known index                -> ZEBRA_INTERFACE_ADDRESS_DELETE
//                                              for each address still listed,
//                                              then ZEBRA_INTERFACE_DELETE
//   RTM_NEWADDR (IPv4, IPv6)                -> ZEBRA_INTERFACE_ADDRESS_ADD
//                                              (not repeated for an address
//                                              already known unchanged)
//   RTM_DELADDR                             -> ZEBRA_INTERFACE_ADDRESS_DELETE
// Only link messages of family AF_UNSPEC count (bridge-port notifications of
// family AF_BRIDGE are ignored). Malformed messages are skipped.
//
// A receive-buffer overrun (ENOBUFS) loses events: the client logs a warning,
// reopens its socket and dumps everything again; interfaces and addresses
// that the new dump no longer shows are then reported deleted, so the daemon
// ends up exactly where the kernel is.
//
// Message format (all integers in network byte order):
//   header, ZEBRA_HEADER_SIZE bytes:
//     u16 length     whole message, header included
//     u8  marker     ZEBRA_HEADER_MARKER
//     u8  version    ZSERV_VERSION
//     u16 vrf_id
//     u16 command    ZEBRA_INTERFACE_*
//   interface body (ADD, DELETE, UP, DOWN):
//     char name[INTERFACE_NAMSIZ]   NUL-padded, not necessarily terminated
//     u32 ifindex
//     u8  status     reserved, 0
//     u64 flags      IFF_*
//     u32 metric
//     u32 mtu
//     u32 hw_addr_len  at most ZEBRA_HW_ADDR_MAX
//     u8  hw_addr[hw_addr_len]
//   address body (ADDRESS_ADD, ADDRESS_DELETE):
//     u32 ifindex
//     u8  flags      ZEBRA_IFA_SECONDARY, ZEBRA_IFA_PEER
//     u8  family     AF_INET or AF_INET6
//     u8  address[4 or 16]
//     u8  prefixlen
//     u8  destination[4 or 16]  the peer's address with ZEBRA_IFA_PEER,
//                               else all zero
#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "lib/if.h"
#include "lib/stream.h"

struct thread_master;
struct thread;

// Commands.
constexpr std::uint16_t ZEBRA_INTERFACE_ADD = 1;
constexpr std::uint16_t ZEBRA_INTERFACE_DELETE = 2;
constexpr std::uint16_t ZEBRA_INTERFACE_ADDRESS_ADD = 3;
constexpr std::uint16_t ZEBRA_INTERFACE_ADDRESS_DELETE = 4;
constexpr std::uint16_t ZEBRA_INTERFACE_UP = 5;
constexpr std::uint16_t ZEBRA_INTERFACE_DOWN = 6;

constexpr std::uint8_t ZEBRA_HEADER_MARKER = 255;
constexpr std::uint8_t ZSERV_VERSION = 2;
constexpr std::size_t ZEBRA_HEADER_SIZE = 8;
constexpr std::size_t ZEBRA_MAX_PACKET_SIZ = 4096;
constexpr std::size_t ZEBRA_HW_ADDR_MAX = 20;

struct zclient;
struct zclient_netlink;  // the rtnetlink side, private to lib/zclient.cpp

// Callback for one message: `command` is ZEBRA_INTERFACE_*, `length` the
// length of the body (the message without its header) and `vrf_id` the VRF
// from the header. The body is in `zclient->ibuf`, read position at its
// start. The return value is the callback's own (0 handled, negative
// failure); the client only passes it back to whoever delivered the message.
using zclient_callback = int (*)(int command, zclient *zclient, std::uint16_t length,
                                 vrf_id_t vrf_id);

struct zclient {
    zclient();
    ~zclient();
    zclient(const zclient &) = delete;
    zclient &operator=(const zclient &) = delete;

    thread_master *master = nullptr;
    int enable = 0;                // set by zclient_init
    int redist_default = 0;        // route type of the daemon
    int fail = 0;                  // failed connection attempts in a row
    std::unique_ptr<stream> ibuf;  // the message being delivered
    std::unique_ptr<stream> obuf;  // scratch for building one
    // Socket receive buffer asked for when the socket opens (bytes).
    int rcvbuf = 4 << 20;

    void (*zebra_connected)(zclient *) = nullptr;
    zclient_callback interface_add = nullptr;
    zclient_callback interface_delete = nullptr;
    zclient_callback interface_up = nullptr;
    zclient_callback interface_down = nullptr;
    zclient_callback interface_address_add = nullptr;
    zclient_callback interface_address_delete = nullptr;

    thread *t_connect = nullptr;
    std::unique_ptr<zclient_netlink> nl;
};

zclient *zclient_new(thread_master *master);
void zclient_free(zclient *zc);
struct zclient_deleter {
    void operator()(zclient *zc) const { zclient_free(zc); }
};
using zclient_ptr = std::unique_ptr<zclient, zclient_deleter>;

// Records the route type and schedules the connection on the master.
void zclient_init(zclient *zc, int redist_default);
// Closes the socket and cancels every task of the client.
void zclient_stop(zclient *zc);
// Asks for every link, then every IPv4 and IPv6 address. 0, or -1 when the
// client is not connected.
int zclient_send_requests(zclient *zc, vrf_id_t vrf_id);
// 1 while the rtnetlink socket is open.
int zclient_connected(const zclient *zc);

// Handles one rtnetlink datagram as if it had been read from the socket
// (several messages may follow one another). Returns the number of messages
// that were well-formed enough to look at.
int zclient_netlink_input(zclient *zc, std::span<const std::uint8_t> datagram);
// Delivers one interface-manager message to the callback of its command.
// Returns the callback's result, 0 when no callback is set, -1 for a
// malformed message.
int zclient_deliver(zclient *zc, std::span<const std::uint8_t> message);

// Message builders, also used by tests. Each resets `s` and writes one
// complete message; they return its length, or 0 when it does not fit.
struct zapi_interface {
    char name[INTERFACE_NAMSIZ + 1] = {};
    ifindex_t ifindex = 0;
    std::uint64_t flags = 0;
    int metric = 0;
    unsigned int mtu = 0;
    std::uint8_t hw_addr[ZEBRA_HW_ADDR_MAX] = {};
    std::size_t hw_addr_len = 0;
};
struct zapi_address {
    ifindex_t ifindex = 0;
    std::uint8_t flags = 0;  // ZEBRA_IFA_*
    prefix address{};        // family AF_INET or AF_INET6
    prefix destination{};    // used with ZEBRA_IFA_PEER
};
std::size_t zapi_interface_encode(stream *s, std::uint16_t command, vrf_id_t vrf_id,
                                  const zapi_interface &ifc);
std::size_t zapi_address_encode(stream *s, std::uint16_t command, vrf_id_t vrf_id,
                                const zapi_address &addr);

// Readers for the callbacks; `s` is positioned at the body.
//
// Interface message: finds the interface by name, else creates it, and
// updates index, flags, metric, MTU and hardware address. nullptr for a
// malformed message.
interface *zebra_interface_add_read(stream *s, vrf_id_t vrf_id);
// Interface message for a known interface: finds it by name (by index when
// the name is unknown) and updates flags, metric, MTU and hardware address.
// Never creates: nullptr for an unknown interface or a malformed message.
interface *zebra_interface_state_read(stream *s, vrf_id_t vrf_id);
// Address message: adds the connected entry (ADDRESS_ADD; the existing entry
// when it is already there) or removes it (ADDRESS_DELETE). nullptr when the
// interface or, for a delete, the address is unknown, or the message is
// malformed. A removed entry is detached from its interface but stays alive,
// `ifp` still set, until the callback that asked for it returns (or, outside
// a callback, until the next address read or zclient_release_detached()).
connected *zebra_interface_address_read(int command, stream *s, vrf_id_t vrf_id);
void zclient_release_detached();
