#include "dhcp/dhcp_arp.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstring>
#include <span>
#include <utility>

#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_socket.h"
#include "lib/log.h"
#include "platform/util.h"

namespace {

constexpr unsigned kProbeBudgetMs = 2000;
constexpr std::uint16_t kArpRequest = 1;
constexpr std::uint16_t kArpReply = 2;
// Everything up to and including the target IP address.
constexpr long kArpMinLength = 42;

dhcp_arp_io io;

std::uint64_t now_ms() {
    return io.now_ms ? io.now_ms() : monotonic_ms();
}

long receive(int fd, std::span<std::byte> frame, unsigned timeout_ms) {
    if (io.receive) {
        return io.receive(fd, frame, timeout_ms);
    }
    pollfd pfd{fd, POLLIN, 0};
    if (::poll(&pfd, 1, static_cast<int>(timeout_ms)) <= 0) {
        return -1;
    }
    return dhcp_safe_read(fd, frame);
}

}  // namespace

void dhcp_arp_set_io(dhcp_arp_io replacement) {
    io = std::move(replacement);
}

dhcp_arp_frame dhcp_arp_request(std::uint32_t test_nip, std::uint32_t from_ip,
                                const std::uint8_t *from_mac) {
    dhcp_arp_frame frame{};
    std::memset(frame.h_dest, 0xff, sizeof frame.h_dest);
    std::memcpy(frame.h_source, from_mac, 6);
    frame.h_proto = htons(ETH_P_ARP);
    frame.htype = htons(1);
    frame.ptype = htons(ETH_P_IP);
    frame.hlen = 6;
    frame.plen = 4;
    frame.operation = htons(kArpRequest);
    std::memcpy(frame.sender_mac, from_mac, 6);
    std::memcpy(frame.sender_ip, &from_ip, 4);
    std::memcpy(frame.target_ip, &test_nip, 4);
    return frame;
}

int arpping(std::uint32_t test_nip, const std::uint8_t *safe_mac, std::uint32_t from_ip,
            const std::uint8_t *from_mac, const char *interface) {
    int result = 1;
    // The old device-addressed packet socket: frames carry their own
    // Ethernet header and go out of the interface named in the address.
    dhcp_unique_fd fd(::socket(PF_PACKET, SOCK_PACKET | SOCK_CLOEXEC, htons(ETH_P_ARP)));
    if (!fd) {
        zlog_err("can not create raw socket");
        return 0;
    }

    if (dhcp_setsockopt_broadcast(fd.get()) == -1) {
        zlog_err("can't enable bcast on raw socket");
    } else {
        const dhcp_arp_frame request = dhcp_arp_request(test_nip, from_ip, from_mac);
        sockaddr addr{};
        std::memcpy(addr.sa_data, interface, strnlen(interface, sizeof addr.sa_data));
        if (::sendto(fd.get(), &request, sizeof request, 0, &addr, sizeof addr) >= 0) {
            bool answered = false;
            dhcp_arp_frame reply{};
            unsigned timeout_ms = kProbeBudgetMs;
            for (;;) {
                const std::uint64_t before = now_ms();
                const long n =
                    receive(fd.get(), std::as_writable_bytes(std::span(&reply, 1)), timeout_ms);
                if (n < 0) {
                    break;
                }
                if (n >= kArpMinLength && reply.operation == htons(kArpReply) &&
                    std::memcmp(reply.sender_ip, &test_nip, 4) == 0) {
                    answered = true;
                    break;
                }
                // Each wake-up costs a millisecond more than measured, so a
                // stream of unrelated ARP traffic can't hold the probe open.
                timeout_ms -= static_cast<unsigned>(now_ms() - before) + 1;
                if (timeout_ms > kProbeBudgetMs) {
                    break;
                }
            }
            if (answered &&
                !(safe_mac != nullptr && std::memcmp(reply.sender_mac, safe_mac, 6) == 0)) {
                result = 0;
            }
        }
    }
    fd.reset();

    if (dhcp_debug_on(DHCP_DEBUG_EVENTS)) {
        zlog_info("%srp reply received for this address", result != 0 ? "No a" : "A");
    }
    return result;
}
