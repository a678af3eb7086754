// The DHCP relay: its global state, the relay record of each routed VLAN
// interface that has a remote server, the transactions in flight, the
// forwarding engine with option 82, and the trapped-frame channel through
// which it sees every client request and server reply.
//
// Contract:
// - The relay makes every decision on trapped frames (dhcpr_netlink_msg).
//   Its two UDP sockets (ports 67 and 68) exist while it is on only to hold
//   the ports and keep the kernel's queues drained; requests are sent to the
//   remote servers from the port-68 socket.
// - The server reply port (68 by default) says where servers answer: with
//   67, a trapped BOOTREPLY to port 67 addressed to one of the switch's own
//   IPv4 addresses takes the reply path as well, and requests leave from the
//   port-67 socket, as RFC 2131 relays do. With 68 nothing changes.
// - An interface's `info` slot points at the relay's binding (dhcpr_if_info,
//   kind 1) while a remote server is configured on it. The relay owns its
//   bindings (so they never outlive it) and each binding owns its record.
//   Bindings leave with "no dhcp-relay remote-server" or when the interface
//   is deleted (dhcp_zebra_relay_teardown, set by dhcpr_init).
// - Results: 0 success, -1 general failure, -3 dropped by the option-82
//   strategy, -4 bad argument or wrong message type, -7 address not found.
// - Every length handed in from the wire is bounded here: payloads outside
//   240..628 bytes are dropped with a log line, an option 82 that does not
//   fit the building area is not added (the codec logs it), and configured
//   id strings go on the wire with at most 31 bytes.
#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "dhcp/dhcp_socket.h"
#include "lib/sockunion.h"
#include "lib/unique_fd.h"

struct dhcp_packet;
struct interface;
struct thread;
struct thread_master;

constexpr std::uint32_t DHCPR_IF_KIND_RELAY = 1;

// Option-82 strategy for a request that already carries option 82.
constexpr std::uint32_t DHCPR_OPT82_DROP = 0;
constexpr std::uint32_t DHCPR_OPT82_KEEP = 1;
constexpr std::uint32_t DHCPR_OPT82_REPLACE = 2;
// Sub-option contents.
constexpr std::uint32_t DHCPR_SUBMODE_STRING = 0;
constexpr std::uint32_t DHCPR_SUBMODE_NORMAL = 1;

// Where servers' replies are taken from and requests leave from.
constexpr std::uint16_t DHCPR_REPLY_PORT_DEFAULT = 68;
constexpr std::uint16_t DHCPR_REPLY_PORT_RFC = 67;

constexpr std::size_t DHCPR_ID_SIZE = 32;  // circuit-id / remote-id fields
constexpr std::uint8_t DHCPR_MAX_HOPS = 8;

// Transactions: at most this many are kept; the oldest goes first.
constexpr std::size_t DHCPR_ITEM_MAX = 65536;
// Expiry (defined, not armed at start-up): every 15 s, items 121 s old or
// older go.
constexpr long DHCPR_TIMER_SECONDS = 15;
constexpr std::uint32_t DHCPR_ITEM_MAX_AGE = 120;

// The relay record of one interface.
struct dhcpr_if {
    std::uint32_t enable;  // 1 = live; every user tests it for exactly 1
    interface *ifp;        // the client-side interface replies go out of
    sockunion server;      // AF_INET, port 67 (network order), the server
    std::uint32_t opt82_enable;
    std::uint32_t opt82_strategy;   // DHCPR_OPT82_*
    std::uint32_t circuit_id_mode;  // DHCPR_SUBMODE_*
    char circuit_id[DHCPR_ID_SIZE];
    std::uint32_t circuit_id_len;  // length of the text as given (not clipped)
    std::uint32_t remote_id_mode;
    char remote_id[DHCPR_ID_SIZE];
    std::uint32_t remote_id_len;
};

// The binding in an interface's `info` slot. Any kind but 1 belongs to
// another user of the slot, and the relay leaves it alone.
struct dhcpr_if_info {
    std::uint32_t kind;
    std::unique_ptr<dhcpr_if> relay;
};

// The relay's global state. Descriptors are owned here while the relay is
// on and closed (invalid) while it is off.
struct dhcpr_global_state {
    std::uint32_t enable = 0;
    dhcp_port67_ref client_sock;  // port 67, "RecvClient": shared with the server
    unique_fd server_sock;        // port 68, "RecvServer"; requests leave from it
    int netlink_fd = 0;           // copy of hal_netlink_async while on
    thread *client_read = nullptr;
    thread *server_read = nullptr;
    thread *netlink_read = nullptr;
    std::uint16_t server_reply_port = DHCPR_REPLY_PORT_DEFAULT;  // 67 or 68
};
extern dhcpr_global_state dhcpr_state;

// One client request forwarded to a server and not yet answered.
struct dhcpr_item {
    std::uint32_t time;         // monotonic seconds when made
    std::uint32_t gateway_nip;  // the relay's address on the client's VLAN
    std::uint32_t xid;          // as it stands in the message
    std::uint16_t flags;        // as received, network order
    interface *client_ifp;
    // List links (slots of the item table): newest first, and per xid.
    std::uint32_t next;
    std::uint32_t prev;
    std::uint32_t next_same;
    std::uint32_t prev_same;
};

// ---- state, sockets and read tasks ----

// Zeroes the state (relay off), remembers `m` for the read tasks and sets
// the interface-deletion teardown. Called once at start-up.
void dhcpr_init(thread_master *m);
// Turns the relay on (1) or off (0); see dhcpr.cpp for the exact steps.
int dhcpr_enable_set(std::uint32_t on);
std::uint32_t dhcpr_enable_get();
// The server reply port: 0, or -4 (nothing changed) for a port other than
// 67 and 68. Takes effect with the next frame, whether the relay is on or
// off.
int dhcpr_reply_port_set(std::uint16_t port);
std::uint16_t dhcpr_reply_port_get();
// The socket relayed requests leave from: the port-68 one, or the port-67
// one when the server reply port is 67.
int dhcpr_request_socket();
// Read tasks: drain one datagram; read one trapped frame. Re-arm themselves.
int dhcpr_recv_client(thread *t);
int dhcpr_recv_server(thread *t);
int dhcpr_recv_netlink(thread *t);

// ---- bindings and records ----

// The binding in `ifp`'s slot (of any kind), or nullptr.
dhcpr_if_info *dhcpr_if_binding(const interface *ifp);
// The relay record of `ifp` when its binding is of kind 1, else nullptr.
dhcpr_if *dhcpr_if_record(const interface *ifp);
// Sets the remote server (an IPv4 address) of `ifp`, making the binding if
// needed; a different server resets the record to its defaults, the same one
// changes nothing. 0, or -1 for a missing argument or a slot held by
// another user.
int dhcpr_if_relay_set(interface *ifp, const sockunion *server);
// Frees the binding and its record and clears `ifp`'s slot. 0, or -1.
int dhcpr_if_relay_delete(interface *ifp, dhcpr_if_info *info);
// The teardown of an interface being deleted: a relay binding is freed,
// any other left in place.
void dhcpr_if_teardown(interface *ifp);

// Option-82 setters: 0 (also when the binding has no record), -1 when `ifp`
// has no relay binding.
int dhcpr_if_opt82_enable_set(interface *ifp, std::uint32_t on);
int dhcpr_if_opt82_strategy_set(interface *ifp, std::uint32_t strategy);
// Normal mode clears the text; string mode keeps at most 31 characters of
// `text` and records its whole length.
int dhcpr_if_circuit_id_set(interface *ifp, std::uint32_t mode, const char *text);
int dhcpr_if_remote_id_set(interface *ifp, std::uint32_t mode, const char *text);
// Readers: the record's value, or 0 (enable) / 1 (keep) without a record.
std::uint32_t dhcpr_if_opt82_enable_get(const interface *ifp);
std::uint32_t dhcpr_if_opt82_strategy_get(const interface *ifp);

// ---- lookups ----

// The relay's IPv4 address on VLAN `vlan` (first IPv4 address of
// "vlanif<vlan>"): 0 with *nip set (network order), -4 for a null result
// pointer, -7 when not found.
int dhcp_get_l3if_address(std::uint16_t vlan, std::uint32_t *nip);
// The relay record of the interface holding local address `nip`, or nullptr.
dhcpr_if *dhcpr_get_if_relay(std::uint32_t nip);

// ---- transactions ----

// Adds an item at the front (nullptr, nothing added, without client_ifp).
dhcpr_item *dhcpr_item_add(std::uint32_t xid, interface *client_ifp, std::uint32_t gateway_nip,
                           std::uint16_t flags);
// The newest item with `xid`, or nullptr.
dhcpr_item *dhcpr_item_find(std::uint32_t xid);
// Removes every item with `xid`.
void dhcpr_item_delete(std::uint32_t xid);
// Removes every item 121 seconds old or older.
void dhcpr_item_expire();
// Walk in list order (newest first).
dhcpr_item *dhcpr_item_first();
dhcpr_item *dhcpr_item_next(const dhcpr_item *item);
std::size_t dhcpr_item_count();
void dhcpr_item_clear();
// Timer task: expires items and re-arms itself every 15 seconds.
int dhcpr_timer(thread *t);

// ---- forwarding ----

// Message type of a packet: option 53, or -1 (op not 1 or 2, no option 53).
int dhcpr_message_type(const dhcp_packet &packet);
// Request path (destination port 67): 0 forwarded or silently not
// forwarded, -1, -3 or -7 when dropped.
int dhcpr_relay_request(dhcp_packet &packet, int len, std::uint32_t port, std::uint16_t vlan);
// Reply path (destination port 68): snooping trust, then the client.
// `vlan`: the VLAN the reply came in on (where it is counted when it has no
// transaction).
int dhcpr_relay_reply(dhcp_packet &packet, int len, std::uint32_t port, std::uint16_t vlan = 0);
// Records the transaction and sends the request to `server`. 0, or -1 when
// nothing was sent.
int dhcpr_pass_to_server(dhcp_packet &packet, int len, std::uint32_t gateway_nip, int sock,
                         interface *client_ifp, const sockunion *server);
void dhcpr_pass_to_client(dhcp_packet &packet, int len);
void dhcpr_option82_add(dhcp_packet *packet, interface *ifp, std::uint16_t vlan,
                        std::uint32_t port);
void dhcpr_option82_remove(dhcp_packet *packet, int len);

// ---- trapped-frame channel ----

// Callback of hal_recv: 0 handed on, the request path's result, -4 wrong
// message type, -1 not a DHCP frame (or a payload out of bounds).
int dhcpr_netlink_msg(std::uint32_t type, std::uint8_t *msg, std::uint32_t frame_len);

// ---- seams (tests and fuzzers) ----

// Where relayed requests go: sendto(2) by default.
using dhcpr_server_send_fn = ssize_t (*)(int sock, std::span<const std::uint8_t> datagram,
                                         const sockaddr_in &to);
// Where replies to clients go: the message layer's raw sender by default.
// `size` is the IPv4 datagram size (payload + 28).
using dhcpr_client_send_fn = int (*)(const dhcp_packet &packet, std::uint32_t src_ip,
                                     std::uint16_t src_port, std::uint32_t dst_ip,
                                     std::uint16_t dst_port, const std::uint8_t *dst_mac,
                                     int ifindex, int size);
// nullptr puts the default back.
void dhcpr_set_senders(dhcpr_server_send_fn to_server, dhcpr_client_send_fn to_client);
// Monotonic seconds for the items; nullptr puts the real clock back.
void dhcpr_set_clock(std::uint32_t (*now)());
// Tests: relay off, no items, every relay binding freed.
void dhcpr_reset();
