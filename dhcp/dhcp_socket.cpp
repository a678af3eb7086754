#include "dhcp/dhcp_socket.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <span>
#include <utility>

#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_options.h"
#include "lib/log.h"
#include "platform/util.h"

namespace {

bool packet_debug() {
    return dhcp_debug_on(DHCP_DEBUG_PACKET);
}

constexpr std::size_t kRecvBufSize = 1518;

// Index of the end marker as the senders use it: never past the last byte
// of the options area, so a message without an end marker still stays
// inside the record.
std::size_t sendable_end(const dhcp_packet &packet) {
    return std::min(static_cast<std::size_t>(dhcp_end_option(packet.options)),
                    DHCP_OPTIONS_AREA - 1);
}

// Deliberately not a socket per message as in the classic design: closing a
// packet socket waits for a kernel grace period (milliseconds), which would
// cap the server at a few hundred replies a second. One send-only socket
// (protocol 0: nothing is queued to it on receive) lives for the process and
// each frame names its link-layer destination in sendto(); the frames on the
// wire are the same.
dhcp_unique_fd raw_send_fd;

// Whether `fd` is still the send socket we opened, after a failed send.
bool raw_socket_intact(int fd, int send_errno) {
    if (send_errno == EBADF || send_errno == ENOTSOCK) {
        return false;
    }
    int domain = 0;
    int type = 0;
    int protocol = -1;
    socklen_t len = sizeof domain;
    if (getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &len) < 0) {
        return false;
    }
    len = sizeof type;
    if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &len) < 0) {
        return false;
    }
    len = sizeof protocol;
    if (getsockopt(fd, SOL_SOCKET, SO_PROTOCOL, &protocol, &len) < 0) {
        return false;
    }
    return domain == AF_PACKET && type == SOCK_DGRAM && protocol == 0;
}

// One frame on the raw send socket: bytes sent, or -1 (logged). A socket
// someone else closed is replaced once.
int send_raw_frame(const void *frame, std::size_t total, const sockaddr_ll &dest) {
    for (int attempt = 0;; attempt++) {
        const int fd = dhcp_raw_send_socket();
        if (fd < 0) {
            zlog_err("socket(%s)", "PACKET");
            return -1;
        }
        const ssize_t sent =
            ::sendto(fd, frame, total, 0, reinterpret_cast<const sockaddr *>(&dest), sizeof dest);
        if (sent >= 0) {
            return static_cast<int>(sent);
        }
        const int send_errno = errno;
        zlog_err("sendto");
        if (attempt > 0 || raw_socket_intact(fd, send_errno)) {
            return -1;
        }
        // Someone else closed our descriptor, and the number may now be
        // theirs: forget it without closing and send once more on a new one.
        (void)raw_send_fd.release();
    }
}

// Raw frames held between dhcp_raw_batch_begin() and dhcp_raw_batch_flush().
struct raw_slot {
    ip_udp_dhcp_packet frame;
    std::size_t len;
    sockaddr_ll dest;
};
struct raw_batch_state {
    bool open = false;
    std::size_t count = 0;
    std::array<raw_slot, DHCP_SEND_BATCH> slots;
};
raw_batch_state raw_batch;

// The shared port-67 socket and its references by role.
struct port67_state {
    dhcp_unique_fd fd;
    int handlers = 0;
    int drainers = 0;
    bool refusing = false;  // the drop-everything filter is attached
};
port67_state port67;

// While only draining roles hold the port, whatever arrives would be read and
// thrown away: the kernel drops it instead, and no drain task is woken. From
// the moment a handling role holds the port, every datagram is queued for it.
void port67_refuse_update() {
    const bool refuse = port67.fd && port67.handlers == 0 && port67.drainers > 0;
    if (!port67.fd || refuse == port67.refusing) {
        port67.refusing = port67.fd && port67.refusing;
        return;
    }
    int rc = 0;
    if (refuse) {
        static sock_filter nothing[] = {{BPF_RET | BPF_K, 0, 0, 0}};
        const sock_fprog prog{1, nothing};
        rc = setsockopt(port67.fd.get(), SOL_SOCKET, SO_ATTACH_FILTER, &prog, sizeof prog);
    } else {
        int unused = 0;
        rc = setsockopt(port67.fd.get(), SOL_SOCKET, SO_DETACH_FILTER, &unused, sizeof unused);
    }
    if (rc == 0) {
        port67.refusing = refuse;
    }
}

int &port67_count(dhcp_port67_role role) {
    return role == dhcp_port67_role::handle ? port67.handlers : port67.drainers;
}

bool readable_now(int fd) {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, 0) == 1 && (p.revents & POLLIN) != 0;
}

// Whether a refused source address may be left to the kernel: the errors
// route lookup gives for a source that is not one of ours.
bool source_refused(int err) {
    return err == EINVAL || err == ENETUNREACH || err == EADDRNOTAVAIL;
}

ssize_t send_udp(int fd, std::span<const std::byte> bytes, std::uint32_t src_ip,
                 const sockaddr_in &dest) {
    iovec iov{const_cast<std::byte *>(bytes.data()), bytes.size()};
    msghdr msg{};
    msg.msg_name = const_cast<sockaddr_in *>(&dest);
    msg.msg_namelen = sizeof dest;
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    alignas(cmsghdr) std::uint8_t control[CMSG_SPACE(sizeof(in_pktinfo))] = {};
    if (src_ip != 0) {
        msg.msg_control = control;
        msg.msg_controllen = sizeof control;
        cmsghdr *cmsg = CMSG_FIRSTHDR(&msg);
        cmsg->cmsg_level = IPPROTO_IP;
        cmsg->cmsg_type = IP_PKTINFO;
        cmsg->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
        in_pktinfo info{};
        info.ipi_spec_dst.s_addr = src_ip;  // ifindex 0: the route decides the way out
        std::memcpy(CMSG_DATA(cmsg), &info, sizeof info);
    }
    ssize_t n;
    do {
        n = ::sendmsg(fd, &msg, 0);
    } while (n < 0 && errno == EINTR);
    return n;
}

}  // namespace

int dhcp_port67_open(dhcp_port67_role role) {
    if (!port67.fd) {
        const int fd = dhcp_listen_socket(INADDR_ANY, DHCP_SERVER_PORT, nullptr);
        if (fd < 0) {
            return -1;
        }
        // Room for a burst: under load the server reads this socket once a
        // tick, not at every datagram.
        constexpr int kRcvbuf = 4 << 20;
        if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &kRcvbuf, sizeof kRcvbuf) != 0) {
            (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kRcvbuf, sizeof kRcvbuf);
        }
        port67.fd.reset(fd);
    }
    port67_count(role)++;
    port67_refuse_update();
    return port67.fd.get();
}

void dhcp_port67_close(dhcp_port67_role role) {
    int &count = port67_count(role);
    if (count == 0) {
        return;
    }
    count--;
    if (port67.handlers == 0 && port67.drainers == 0) {
        port67.fd.reset();
    }
    port67_refuse_update();
}

int dhcp_port67_fd() {
    return port67.fd ? port67.fd.get() : -1;
}

int dhcp_port67_users(dhcp_port67_role role) {
    return port67_count(role);
}

int dhcp_port67_drain(int fd) {
    // The handler's read task is woken by the same readiness and reads it.
    if (port67.handlers > 0 || !readable_now(fd)) {
        return 0;
    }
    dhcp_packet packet{};
    int len = 0;
    std::uint32_t local = 0;
    return dhcp_recvmsg(fd, &packet, &len, &local);
}

int dhcp_raw_send_socket() {
    if (!raw_send_fd) {
        raw_send_fd.reset(::socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    }
    return raw_send_fd.get();
}

int dhcp_socket(int domain, int type, int protocol) {
    const int fd = ::socket(domain, type | SOCK_CLOEXEC, protocol);
    if (fd < 0) {
        zlog_err("socket(%d,%d)", type, protocol);
    }
    return fd;
}

int dhcp_bind(int fd, const sockaddr *addr, socklen_t len) {
    const int ret = ::bind(fd, addr, len);
    if (ret < 0) {
        zlog_err("bind");
    }
    return ret;
}

ssize_t dhcp_safe_read(int fd, std::span<std::byte> buf) {
    ssize_t n;
    do {
        n = ::read(fd, buf.data(), buf.size());
    } while (n < 0 && errno == EINTR);
    return n;
}

ssize_t dhcp_safe_write(int fd, std::span<const std::byte> buf) {
    ssize_t n;
    do {
        n = ::write(fd, buf.data(), buf.size());
    } while (n < 0 && errno == EINTR);
    return n;
}

int dhcp_setsockopt_reuseaddr(int fd) {
    const int one = 1;
    return setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
}

int dhcp_setsockopt_broadcast(int fd) {
    const int one = 1;
    return setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &one, sizeof one);
}

int dhcp_bind_to_device(int fd, const char *name) {
    // An interface-request-sized buffer; the kernel takes the name from it.
    char device[32] = {};
    std::memcpy(device, name, strnlen(name, 20));
    const int ret = setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, device, sizeof device);
    if (ret < 0) {
        std::perror("setsockopt");
        zlog_err("can't bind to interface %s", name);
    }
    return ret;
}

int dhcp_listen_socket(std::uint32_t address, std::uint16_t port, const char *ifname) {
    zlog_info("Opening listen socket on *:%d %s", port, ifname != nullptr ? ifname : "");
    dhcp_unique_fd fd(dhcp_socket(PF_INET, SOCK_DGRAM, IPPROTO_UDP));
    if (!fd) {
        return -1;
    }
    (void)dhcp_setsockopt_reuseaddr(fd.get());
    if (dhcp_setsockopt_broadcast(fd.get()) < 0) {
        zlog_err("SO_BROADCAST");
        return -1;
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(address);
    // A failed bind is logged and the socket kept, as it always has been.
    (void)dhcp_bind(fd.get(), reinterpret_cast<const sockaddr *>(&addr), sizeof addr);
    if (ifname != nullptr && dhcp_bind_to_device(fd.get(), ifname) < 0) {
        zlog_err("bindtodevice");
        return -1;
    }
    const int one = 1;
    (void)setsockopt(fd.get(), IPPROTO_IP, IP_PKTINFO, &one, sizeof one);
    return fd.release();
}

namespace {

// One received datagram (`received` bytes in `buf`, which holds one byte
// more for the terminating zero) into the caller's record: the local
// address from its IP_PKTINFO, the debug lines, the copy.
void store_datagram(std::span<std::uint8_t> buf, std::size_t received, msghdr &msg,
                    dhcp_packet *packet, int *len, std::uint32_t *local) {
    for (cmsghdr *cmsg = CMSG_FIRSTHDR(&msg); cmsg != nullptr; cmsg = CMSG_NXTHDR(&msg, cmsg)) {
        if (cmsg->cmsg_level != IPPROTO_IP || cmsg->cmsg_type != IP_PKTINFO ||
            cmsg->cmsg_len < CMSG_LEN(sizeof(in_pktinfo))) {
            continue;
        }
        in_pktinfo info;
        std::memcpy(&info, CMSG_DATA(cmsg), sizeof info);
        *local = info.ipi_spec_dst.s_addr;
        if (packet_debug()) {
            char text[INET_ADDRSTRLEN] = {};
            inet_ntop(AF_INET, &info.ipi_spec_dst, text, sizeof text);
            zlog_info("dhcp recv ipaddr=%s, ifindex=%d\n", text, info.ipi_ifindex);
        }
    }
    if ((msg.msg_flags & MSG_TRUNC) != 0 && packet_debug()) {
        zlog_info("datagram truncated\n");
    }
    received = std::min(received, buf.size() - 1);
    buf[received] = 0;
    if (packet_debug()) {
        zlog_info("pkt_buf len=%d\n", static_cast<int>(received));
        for (std::size_t i = 0; i < received; i++) {
            std::printf("%02x", buf[i]);
        }
        std::printf("\n");
        std::fflush(stdout);
    }

    const std::size_t stored = std::min(received, sizeof(dhcp_packet));
    std::memset(packet, 0, sizeof *packet);
    std::memcpy(packet, buf.data(), stored);
    *len = static_cast<int>(stored);
}

// Sized for one in_pktinfo on this ABI (24 bytes only on 32-bit hosts).
constexpr std::size_t kControlSize = CMSG_SPACE(sizeof(in_pktinfo));

}  // namespace

int dhcp_recvmsg(int fd, dhcp_packet *packet, int *len, std::uint32_t *local) {
    if (packet == nullptr || len == nullptr || local == nullptr) {
        return -1;
    }
    *len = 0;
    *local = 0;

    // One byte beyond the largest datagram for the terminating zero.
    std::array<std::uint8_t, kRecvBufSize + 1> buf;
    alignas(cmsghdr) std::uint8_t control[kControlSize];
    iovec iov{buf.data(), kRecvBufSize};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;

    const ssize_t n = ::recvmsg(fd, &msg, 0);
    if (n == -1) {
        std::perror("recvmsg");
        return -1;
    }
    store_datagram(buf, static_cast<std::size_t>(n), msg, packet, len, local);
    return 0;
}

int dhcp_recvmmsg(int fd, std::span<dhcp_received> out) {
    struct slot {
        std::array<std::uint8_t, kRecvBufSize + 1> buf;
        alignas(cmsghdr) std::uint8_t control[kControlSize];
    };
    static std::array<slot, DHCP_RECV_BATCH> slots;
    std::array<iovec, DHCP_RECV_BATCH> iov{};
    std::array<mmsghdr, DHCP_RECV_BATCH> hdr{};
    const std::size_t want = std::min(out.size(), slots.size());
    for (std::size_t i = 0; i < want; i++) {
        iov[i] = {slots[i].buf.data(), kRecvBufSize};
        hdr[i].msg_hdr.msg_iov = &iov[i];
        hdr[i].msg_hdr.msg_iovlen = 1;
        hdr[i].msg_hdr.msg_control = slots[i].control;
        hdr[i].msg_hdr.msg_controllen = sizeof slots[i].control;
    }
    if (want == 0) {
        return 0;
    }
    const int n = ::recvmmsg(fd, hdr.data(), static_cast<unsigned>(want), MSG_DONTWAIT, nullptr);
    if (n < 0) {
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            return 0;  // taken by another reader of the same readiness
        }
        std::perror("recvmsg");
        return -1;
    }
    for (std::size_t i = 0; i < static_cast<std::size_t>(n); i++) {
        dhcp_received &r = out[i];
        r.len = 0;
        r.local = 0;
        store_datagram(slots[i].buf, hdr[i].msg_len, hdr[i].msg_hdr, &r.packet, &r.len, &r.local);
    }
    return n;
}

int dhcp_send_raw_packet(const dhcp_packet &packet, std::uint32_t src_ip, std::uint16_t src_port,
                         std::uint32_t dst_ip, std::uint16_t dst_port, const std::uint8_t *dst_mac,
                         int ifindex, std::size_t size) {
    if (dhcp_raw_send_socket() < 0) {
        zlog_err("socket(%s)", "PACKET");
        return -1;
    }

    ip_udp_dhcp_packet frame{};
    frame.data = packet;
    sockaddr_ll dest{};
    dest.sll_family = AF_PACKET;
    dest.sll_protocol = htons(ETH_P_IP);
    dest.sll_ifindex = ifindex;
    dest.sll_halen = 6;
    std::memcpy(dest.sll_addr, dst_mac, 6);

    if (packet_debug()) {
        zlog_err("%s %d: %#x %d %#x %d %02x-%02x-%02x-%02x-%02x-%02x  %d", "dhcp_send_raw_packet",
                 137, src_ip, src_port, dst_ip, dst_port, dst_mac[0], dst_mac[1], dst_mac[2],
                 dst_mac[3], dst_mac[4], dst_mac[5], ifindex);
    }

    // IP + UDP + the message up to and including its end marker: the
    // standard 548-byte message less its unused option bytes.
    const std::size_t headers = sizeof(dhcp_ip_header) + sizeof(dhcp_udp_header);
    const std::size_t used =  // option bytes on the wire
        size == 0 ? sendable_end(packet) + 1
                  : std::clamp(size, headers + DHCP_FIXED_SIZE, headers + sizeof(dhcp_packet)) -
                        headers - DHCP_FIXED_SIZE;
    const std::size_t udp_len = sizeof(dhcp_udp_header) + DHCP_FIXED_SIZE + used;
    const std::size_t total = sizeof(dhcp_ip_header) + udp_len;

    // The still-zero IP fields turn the header into the RFC 768 pseudo header.
    frame.ip.protocol = IPPROTO_UDP;
    frame.ip.saddr = src_ip;
    frame.ip.daddr = dst_ip;
    frame.udp.source = htons(src_port);
    frame.udp.dest = htons(dst_port);
    frame.udp.len = htons(static_cast<std::uint16_t>(udp_len));
    frame.ip.tot_len = frame.udp.len;
    const auto *bytes = reinterpret_cast<const std::uint8_t *>(&frame);
    frame.udp.check = inet_cksum({bytes, total});
    if (frame.udp.check == 0) {
        frame.udp.check = 0xffff;  // RFC 768: zero would mean "no checksum"
    }

    frame.ip.tot_len = htons(static_cast<std::uint16_t>(total));
    frame.ip.version_ihl = (4 << 4) | 5;
    frame.ip.ttl = 64;
    frame.ip.check = inet_cksum({bytes, sizeof(dhcp_ip_header)});

    if (raw_batch.open) {
        if (raw_batch.count == raw_batch.slots.size()) {
            dhcp_raw_batch_flush();
            raw_batch.open = true;
        }
        raw_slot &slot = raw_batch.slots[raw_batch.count++];
        std::memcpy(&slot.frame, &frame, total);
        slot.len = total;
        slot.dest = dest;
        return static_cast<int>(total);
    }
    return send_raw_frame(&frame, total, dest);
}

void dhcp_raw_batch_begin() {
    raw_batch.open = true;
}

int dhcp_raw_batch_flush() {
    raw_batch.open = false;
    const std::size_t count = std::exchange(raw_batch.count, 0);
    std::array<iovec, DHCP_SEND_BATCH> iov{};
    std::array<mmsghdr, DHCP_SEND_BATCH> hdr{};
    for (std::size_t i = 0; i < count; i++) {
        raw_slot &slot = raw_batch.slots[i];
        iov[i] = {&slot.frame, slot.len};
        hdr[i].msg_hdr.msg_iov = &iov[i];
        hdr[i].msg_hdr.msg_iovlen = 1;
        hdr[i].msg_hdr.msg_name = &slot.dest;
        hdr[i].msg_hdr.msg_namelen = sizeof slot.dest;
    }
    int sent = 0;
    std::size_t next = 0;
    while (next < count) {
        const int fd = dhcp_raw_send_socket();
        const int n =
            fd < 0 ? -1 : ::sendmmsg(fd, hdr.data() + next, static_cast<unsigned>(count - next), 0);
        if (n > 0) {
            next += static_cast<std::size_t>(n);
            sent += n;
            continue;
        }
        // The frame at `next` failed: it is sent alone, as without a
        // batch, which logs the failure and replaces a socket closed under us.
        const raw_slot &slot = raw_batch.slots[next++];
        sent += send_raw_frame(&slot.frame, slot.len, slot.dest) >= 0 ? 1 : 0;
    }
    return sent;
}

int dhcp_send_kernel_packet(const dhcp_packet &packet, std::uint32_t src_ip, std::uint16_t src_port,
                            std::uint32_t dst_ip, std::uint16_t dst_port) {
    if (raw_batch.count > 0) {
        dhcp_raw_batch_flush();  // the replies go out in the order they were made
        raw_batch.open = true;
    }
    dhcp_unique_fd fd(::socket(PF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP));
    if (!fd) {
        zlog_err("socket(%s)", "UDP");
        return -1;
    }
    (void)dhcp_setsockopt_reuseaddr(fd.get());

    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(src_port);
    addr.sin_addr.s_addr = src_ip;
    if (::bind(fd.get(), reinterpret_cast<const sockaddr *>(&addr), sizeof addr) < 0) {
        zlog_err("bind(%s)", "UDP");
        return -1;
    }
    addr.sin_port = htons(dst_port);
    addr.sin_addr.s_addr = dst_ip;
    if (::connect(fd.get(), reinterpret_cast<const sockaddr *>(&addr), sizeof addr) < 0) {
        zlog_err("connect");
        return -1;
    }
    const std::size_t size = DHCP_FIXED_SIZE + sendable_end(packet) + 1;
    const ssize_t n = dhcp_safe_write(fd.get(), std::as_bytes(std::span(&packet, 1)).first(size));
    if (n < 0) {
        zlog_err("write");
        return -1;
    }
    return static_cast<int>(n);
}

int dhcp_send_udp_packet(int fd, const dhcp_packet &packet, std::uint32_t src_ip,
                         std::uint32_t dst_ip, std::uint16_t dst_port) {
    if (raw_batch.count > 0) {
        dhcp_raw_batch_flush();  // the replies go out in the order they were made
        raw_batch.open = true;
    }
    sockaddr_in dest{};
    dest.sin_family = AF_INET;
    dest.sin_port = htons(dst_port);
    dest.sin_addr.s_addr = dst_ip;
    const std::size_t size = DHCP_FIXED_SIZE + sendable_end(packet) + 1;
    const auto bytes = std::as_bytes(std::span(&packet, 1)).first(size);
    ssize_t n = send_udp(fd, bytes, src_ip, dest);
    // An address that is not ours is not forged as the source: the kernel's
    // choice is the address of the interface that faces the destination, an
    // address the receiver can route back to.
    if (n < 0 && src_ip != 0 && source_refused(errno)) {
        n = send_udp(fd, bytes, 0, dest);
    }
    if (n < 0) {
        zlog_err("sendto");
        return -1;
    }
    return static_cast<int>(n);
}

int dhcp_read_packet(dhcp_packet &packet, int fd) {
    std::memset(&packet, 0, sizeof packet);
    const ssize_t n = dhcp_safe_read(fd, std::as_writable_bytes(std::span(&packet, 1)));
    if (n < 0) {
        zlog_err("Packet read error, ignoring");
        return static_cast<int>(n);
    }
    if (static_cast<std::size_t>(n) < DHCP_FIXED_SIZE || packet.cookie != htonl(DHCP_MAGIC)) {
        zlog_err("Packet with bad magic, ignoring");
        return -2;
    }
    if (packet_debug()) {
        zlog_err("Received a packet");
    }
    return static_cast<int>(n);
}

int dhcp_read_interface(const char *name, int *ifindex, std::uint32_t *ip, std::uint8_t *mac) {
    dhcp_unique_fd fd(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW));
    if (!fd) {
        return -1;
    }
    ifreq ifr{};
    std::memcpy(ifr.ifr_name, name, strnlen(name, sizeof ifr.ifr_name - 1));
    ifr.ifr_addr.sa_family = AF_INET;

    if (ip != nullptr) {
        if (ioctl(fd.get(), SIOCGIFADDR, &ifr) != 0) {
            zlog_err("is interface %s up and configured?", name);
            return -1;
        }
        sockaddr_in sin;
        std::memcpy(&sin, &ifr.ifr_addr, sizeof sin);
        *ip = sin.sin_addr.s_addr;
        char dotted[INET_ADDRSTRLEN] = {};
        inet_ntop(AF_INET, &sin.sin_addr, dotted, sizeof dotted);
        zlog_info("IP %s\n", dotted);
        if (std::strlen(dotted) >= 21) {
            return -1;
        }
    }
    if (ifindex != nullptr) {
        if (ioctl(fd.get(), SIOCGIFINDEX, &ifr) != 0) {
            return -1;
        }
        zlog_info("Adapter index %d", ifr.ifr_ifindex);
        *ifindex = ifr.ifr_ifindex;
    }
    if (mac != nullptr) {
        if (ioctl(fd.get(), SIOCGIFHWADDR, &ifr) != 0) {
            return -1;
        }
        std::memcpy(mac, ifr.ifr_hwaddr.sa_data, 6);
        zlog_info("MAC %02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4],
                  mac[5]);
    }
    return 0;
}
