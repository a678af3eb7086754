// Sockets under the server and the relay: the UDP listening socket with the
// arriving address, the one port-67 socket both roles share, the raw
// Ethernet/IPv4/UDP sender, the routed UDP sender, and small helpers.
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

// ---- Port 67, shared by the server and the relay ----
//
// The process keeps one UDP socket on port 67 (any address, opened as
// dhcp_listen_socket opens it) while any role needs it, and every role gets
// that same descriptor. Two sockets of one process would not do: of the
// sockets bound to 0.0.0.0:67 with SO_REUSEADDR, Linux gives a unicast
// datagram to one only (the one bound last), while a broadcast goes to all.
// With the relay's drained socket opened after the server's, a client's
// unicast renewal to the server would be read by the relay and thrown away.
//
// A role says when it opens the port whether it handles what arrives there
// (`handle`: the server) or only keeps the port held and drained (`drain`:
// the relay). Each role arms its own read task on the shared descriptor:
//  - a handling role reads with dhcp_recvmsg(), as on a socket of its own;
//  - a draining role's task calls dhcp_port67_drain() instead of reading
//    and re-arms itself as usual. The drain reads (and so throws away) a
//    datagram only while no handling role holds the port; otherwise it leaves
//    the datagram to the handler's task, which the same readiness wakes.
//    It never blocks: with nothing waiting it returns at once.
//    While no handling role holds the port, the kernel drops what arrives
//    (a filter on the socket), so there is nothing to drain but what was
//    queued before the last handler left.
// A role gives the port back with dhcp_port67_close() (or by dropping its
// dhcp_port67_ref) after cancelling its read task, and never close()s the
// descriptor itself. The socket is closed with the last reference.
//
// The relay, turning on, takes `dhcp_port67_ref(dhcp_port67_role::drain)`
// (or dhcp_port67_open(dhcp_port67_role::drain)) where it would have opened
// dhcp_listen_socket(INADDR_ANY, 67, nullptr), and its port-67 read task
// calls dhcp_port67_drain(fd) where it would have called dhcp_recvmsg().
enum class dhcp_port67_role { handle, drain };

// Takes a reference to the shared socket of `role`, opening the socket with
// the first reference. The descriptor, or -1 (no reference taken; the cause
// is logged by dhcp_listen_socket).
int dhcp_port67_open(dhcp_port67_role role);
// Gives back one reference of `role`; without one it does nothing. The
// socket is closed when no reference is left.
void dhcp_port67_close(dhcp_port67_role role);
// The shared descriptor, -1 while no role holds it.
int dhcp_port67_fd();
// References held, by role.
int dhcp_port67_users(dhcp_port67_role role);
// A draining role's read on `fd` (the shared descriptor): while a handling
// role holds the port, nothing is read and 0 is returned; else one waiting
// datagram, if any, is read with dhcp_recvmsg() and discarded. 0, or -1
// when the read failed.
int dhcp_port67_drain(int fd);

// One reference to the shared port-67 socket, given back when dropped; in
// the place of a unique_fd that held a socket of one's own (get, valid,
// bool, reset). Holds nothing when default-made, moved from, reset, or when
// the open failed (then get() is -1).
class dhcp_port67_ref {
  public:
    dhcp_port67_ref() = default;
    explicit dhcp_port67_ref(dhcp_port67_role role) : fd_(dhcp_port67_open(role)), role_(role) {}
    dhcp_port67_ref(dhcp_port67_ref &&o) noexcept : fd_(std::exchange(o.fd_, -1)), role_(o.role_) {}
    dhcp_port67_ref &operator=(dhcp_port67_ref &&o) noexcept {
        if (this != &o) {
            reset();
            fd_ = std::exchange(o.fd_, -1);
            role_ = o.role_;
        }
        return *this;
    }
    dhcp_port67_ref(const dhcp_port67_ref &) = delete;
    dhcp_port67_ref &operator=(const dhcp_port67_ref &) = delete;
    ~dhcp_port67_ref() { reset(); }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    explicit operator bool() const { return valid(); }
    void reset() {
        if (fd_ >= 0) {
            fd_ = -1;
            dhcp_port67_close(role_);
        }
    }

  private:
    int fd_ = -1;
    dhcp_port67_role role_ = dhcp_port67_role::drain;
};

// Receives one datagram into `packet` (zeroed first; a datagram longer than
// the record is cut at 628 bytes) and sets `len` to the bytes stored and
// `local` to the local address it arrived on (network order). 0, or -1.
int dhcp_recvmsg(int fd, dhcp_packet *packet, int *len, std::uint32_t *local);

// Datagrams one dhcp_recvmmsg() call reads at most.
inline constexpr std::size_t DHCP_RECV_BATCH = 32;
// One datagram as dhcp_recvmsg() stores it.
struct dhcp_received {
    dhcp_packet packet;
    int len;
    std::uint32_t local;
};
// Receives the datagrams waiting on `fd`, at most out.size() (and at most
// DHCP_RECV_BATCH) in one recvmmsg(2) without blocking, each stored as
// dhcp_recvmsg() stores one. How many (0 when none waits), or -1.
int dhcp_recvmmsg(int fd, std::span<dhcp_received> out);

// Sends the message as one IPv4/UDP frame out of interface `ifindex` to the
// 6-byte `dst_mac`. `size` is the IPv4 datagram's size (headers and
// message); 0 sends the message up to its end marker (269 to 576 bytes for
// messages built here). A given size is kept within the fixed part and the
// record (268 to 656 bytes): a relayed reply goes out as long as it came.
// Addresses in network order, ports in host order. Bytes sent, or -1.
int dhcp_send_raw_packet(const dhcp_packet &packet, std::uint32_t src_ip, std::uint16_t src_port,
                         std::uint32_t dst_ip, std::uint16_t dst_port, const std::uint8_t *dst_mac,
                         int ifindex, std::size_t size = 0);

// Frames dhcp_send_raw_packet() holds at most before sending them.
inline constexpr std::size_t DHCP_SEND_BATCH = 32;
// From dhcp_raw_batch_begin() to dhcp_raw_batch_flush(), dhcp_send_raw_packet()
// keeps its frames (and returns their size) instead of sending each; the
// flush sends them with sendmmsg(2), in the order they were made, and so
// does every DHCP_SEND_BATCH-th frame and every send through the kernel's
// UDP stack (dhcp_send_udp_packet, dhcp_send_kernel_packet) in between,
// which stays after the frames made before it. A frame the kernel refuses
// is sent once more alone, as without a batch, and its failure logged as
// then. The flush returns the frames sent.
void dhcp_raw_batch_begin();
int dhcp_raw_batch_flush();

// Sends the message up to its end marker through the kernel's UDP stack.
// Bytes written, or -1.
int dhcp_send_kernel_packet(const dhcp_packet &packet, std::uint32_t src_ip, std::uint16_t src_port,
                            std::uint32_t dst_ip, std::uint16_t dst_port);

// Sends the message up to its end marker as one UDP datagram on `fd` (bound
// to the source port: the shared port-67 socket for the server's replies)
// to `dst_ip`:`dst_port`, routed by the kernel. The source address is
// `src_ip` (network order) given as IP_PKTINFO's ipi_spec_dst when it is
// not 0. When the kernel refuses that source (it is not an address of this
// host, as the network address a detached pool takes for its server
// address), the datagram is sent once more without it and the kernel
// takes the address of the route's outgoing interface. Bytes sent, or -1.
int dhcp_send_udp_packet(int fd, const dhcp_packet &packet, std::uint32_t src_ip,
                         std::uint32_t dst_ip, std::uint16_t dst_port);

// Reads one message. Its length; the negative read result on error; -2 when
// shorter than the fixed part or without the magic cookie.
int dhcp_read_packet(dhcp_packet &packet, int fd);

// The index, IPv4 address (network order) and 6-byte MAC of interface
// `name`, each only when its pointer is not nullptr. 0, or -1.
int dhcp_read_interface(const char *name, int *ifindex, std::uint32_t *ip, std::uint8_t *mac);

// The process's raw send socket, opened on first use; -1 when it can't be.
int dhcp_raw_send_socket();
