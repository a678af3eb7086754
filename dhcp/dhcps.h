// The DHCP server: start-up, settings and the request read task.
#pragma once

struct thread;
struct thread_master;

// Server start-up: pool list, lease table, settings defaults, then the lease
// file. Remembers the master for the server's read task and timers.
void dhcps_init(thread_master *m);
thread_master *dhcps_master();

// Read task on the port-67 socket; re-arms itself whatever happens.
int dhcps_recv(thread *t);

#include <cstdint>
#include <optional>

#include "dhcp/dhcps_stats.h"

struct dhcp_packet;
struct dhcps_pool;
struct dhcps_lease;
struct interface;

// Handles one request waiting on `sock`: 0 when handled or ignored on
// purpose, -1 when dropped.
int dhcps_parse_packet(int sock);
// Handles one received request (the part of dhcps_parse_packet after the
// read), so tests and fuzzers can feed messages without a socket.
int dhcps_handle_request(dhcp_packet &request, int len, std::uint32_t l3_if_addr);

// Replies.
std::uint32_t dhcps_acquire_server_id(interface *ifp, dhcps_pool *pool);
void dhcps_init_reply(interface *ifp, dhcps_pool *pool, dhcp_packet *reply,
                      const dhcp_packet *request, std::uint8_t type);
std::uint32_t dhcps_get_lease_time(dhcps_pool *pool);
void dhcps_add_pool_options(dhcps_pool *pool, dhcp_packet *reply);
void dhcps_add_option82(dhcp_packet *reply, const dhcp_packet *request);
// `requested`: the address option 50 asks for (read bounded), or none.
// offer_sent, or why no offer went out (no_free_address, lease_table_full).
dhcps_outcome dhcps_send_offer(interface *ifp, dhcps_pool *pool, const dhcp_packet *request,
                               std::uint32_t static_ip, const dhcps_lease *lease,
                               std::optional<std::uint32_t> requested);
void dhcps_send_ack(interface *ifp, dhcps_pool *pool, const dhcp_packet *request,
                    std::uint32_t address);
void dhcps_send_nak(interface *ifp, dhcps_pool *pool, const dhcp_packet *request);
void dhcps_send_inform(interface *ifp, dhcps_pool *pool, const dhcp_packet *request);
void dhcps_send_packet_to_client(interface *ifp, dhcps_pool *pool, dhcp_packet *reply,
                                 int force_broadcast);

// Where a reply to a relayed request goes: 68 (the default) sends it as every
// other reply, a raw frame to giaddr at the client port 68; 67 sends it as a
// UDP datagram routed to giaddr at the server port 67, as RFC 2131 servers
// do, with the broadcast bit set in a NAK. 0, or -1 (nothing changed) for
// any other port.
int dhcps_set_relay_reply_port(std::uint32_t port);
std::uint32_t dhcps_get_relay_reply_port();

// Where replies go: the raw sender by default; tests install their own.
using dhcps_send_fn = int (*)(const dhcp_packet &reply, std::uint32_t src_ip, std::uint32_t dst_ip,
                              const std::uint8_t *dst_mac, int ifindex);
void dhcps_set_sender(dhcps_send_fn fn);
// Where replies routed to a relay at port 67 go: the shared port-67 socket by
// default; tests install their own.
using dhcps_udp_send_fn = int (*)(const dhcp_packet &reply, std::uint32_t src_ip,
                                  std::uint32_t dst_ip, std::uint16_t dst_port);
void dhcps_set_udp_sender(dhcps_udp_send_fn fn);
