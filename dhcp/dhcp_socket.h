// Sockets under the server and the relay: the UDP listening socket with the
// arriving address, the raw Ethernet/IPv4/UDP sender, and small helpers.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>

#include "dhcp/dhcp_packet.h"
#include "lib/unique_fd.h"

using dhcp_unique_fd = unique_fd;

// socket(2) with close-on-exec; logs the failure. Descriptor or negative.
int dhcp_socket(int domain, int type, int protocol);
// bind(2); logs the failure. 0 or the failing result.
int dhcp_bind(int fd, const sockaddr *addr, socklen_t len);
// read(2)/write(2) retried while interrupted.
ssize_t dhcp_safe_read(int fd, std::span<std::byte> buf);
ssize_t dhcp_safe_write(int fd, std::span<const std::byte> buf);
int dhcp_setsockopt_reuseaddr(int fd);
int dhcp_setsockopt_broadcast(int fd);
// SO_BINDTODEVICE; 0 or the failing result (logged).
int dhcp_bind_to_device(int fd, const char *name);

// A UDP socket on `address` (host order, 0 = any) and `port`, with
// SO_REUSEADDR, SO_BROADCAST and IP_PKTINFO, bound to interface `ifname`
// unless it is nullptr. The caller owns the descriptor; -1 on failure.
int dhcp_listen_socket(std::uint32_t address, std::uint16_t port, const char *ifname);

// Receives one datagram into `packet` (zeroed first; a datagram longer than
// the record is cut at 628 bytes) and sets `len` to the bytes stored and
// `local` to the local address it arrived on (network order). 0, or -1.
int dhcp_recvmsg(int fd, dhcp_packet *packet, int *len, std::uint32_t *local);

// Sends the message as one IPv4/UDP frame out of interface `ifindex` to the
// 6-byte `dst_mac`, up to its end marker (269 to 576 bytes for messages
// built here). Addresses in network order, ports in host order. Bytes sent,
// or -1.
int dhcp_send_raw_packet(const dhcp_packet &packet, std::uint32_t src_ip, std::uint16_t src_port,
                         std::uint32_t dst_ip, std::uint16_t dst_port, const std::uint8_t *dst_mac,
                         int ifindex);

// Sends the message up to its end marker through the kernel's UDP stack.
// Bytes written, or -1.
int dhcp_send_kernel_packet(const dhcp_packet &packet, std::uint32_t src_ip, std::uint16_t src_port,
                            std::uint32_t dst_ip, std::uint16_t dst_port);

// Reads one message. Its length; the negative read result on error; -2 when
// shorter than the fixed part or without the magic cookie.
int dhcp_read_packet(dhcp_packet &packet, int fd);

// The index, IPv4 address (network order) and 6-byte MAC of interface
// `name`, each only when its pointer is not nullptr. 0, or -1.
int dhcp_read_interface(const char *name, int *ifindex, std::uint32_t *ip, std::uint8_t *mac);

// The process's raw send socket, opened on first use; -1 when it can't be.
int dhcp_raw_send_socket();
