// Sends DHCP messages as raw frames out of one interface, for captures in a
// peer namespace.
//
//   dhcp_send_tool IFNAME SRC_IP DST_IP DST_MAC KIND [COUNT [DEBUG]]
//
// KIND: empty (only the end marker: 269 bytes), full (end marker at 307:
// 576 bytes), reply (an OFFER with a few options), nomarker (no end marker
// anywhere). Prints "msg HEX" with the message up to its end marker, each
// log line as "log PRIORITY TEXT", then "sent N" for each send.
#include <arpa/inet.h>
#include <net/if.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_options.h"
#include "dhcp/dhcp_socket.h"
#include "lib/log.h"

namespace {

bool parse_mac(const char *text, std::uint8_t *mac) {
    unsigned v[6];
    if (std::sscanf(text, "%x:%x:%x:%x:%x:%x", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5]) != 6) {
        return false;
    }
    for (int i = 0; i < 6; i++) {
        mac[i] = static_cast<std::uint8_t>(v[i]);
    }
    return true;
}

bool build(const std::string &kind, dhcp_packet &p) {
    dhcp_init_header(p, DHCPOFFER);
    p.xid = htonl(0xdeadbeef);
    p.yiaddr = htonl(0x0a000064);
    std::memcpy(p.chaddr, "\x02\xaa\xbb\xcc\xdd\xee", 6);
    if (kind == "empty") {
        p.options[0] = DHCP_END;
    } else if (kind == "full") {
        std::uint8_t host[257] = {DHCP_HOST_NAME, 255};
        std::memset(host + 2, 'h', 255);
        dhcp_add_binary_option(p, host);
        std::uint8_t vendor[46] = {DHCP_VENDOR, 44};
        std::memset(vendor + 2, 'v', 44);
        dhcp_add_binary_option(p, vendor);
        // The adds stop at 306; the last standard byte takes the marker.
        p.options[306] = DHCP_PADDING;
        p.options[307] = DHCP_END;
    } else if (kind == "reply") {
        dhcp_add_simple_option(p, DHCP_SERVER_ID, htonl(0x0a000001));
        dhcp_add_simple_option(p, DHCP_LEASE_TIME, htonl(3600));
        dhcp_add_simple_option(p, DHCP_T1, htonl(1800));
        dhcp_add_simple_option(p, DHCP_T2, htonl(3150));
        dhcp_add_simple_option(p, DHCP_SUBNET_MASK, htonl(0xffffff00));
        dhcp_add_simple_option(p, DHCP_ROUTER, htonl(0x0a000001));
    } else if (kind == "nomarker") {
        std::memset(p.options, DHCP_PADDING, sizeof p.options);
    } else {
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 6) {
        std::fprintf(stderr, "usage: %s IFNAME SRC_IP DST_IP DST_MAC KIND [COUNT [DEBUG]]\n",
                     argv[0]);
        return 2;
    }
    const unsigned ifindex = if_nametoindex(argv[1]);
    in_addr src{};
    in_addr dst{};
    std::uint8_t mac[6];
    dhcp_packet packet;
    if (ifindex == 0 || inet_pton(AF_INET, argv[2], &src) != 1 ||
        inet_pton(AF_INET, argv[3], &dst) != 1 || !parse_mac(argv[4], mac) ||
        !build(argv[5], packet)) {
        std::fprintf(stderr, "bad arguments\n");
        return 2;
    }
    const long count = argc > 6 ? std::atol(argv[6]) : 1;
    dhcp_debug = argc > 7 ? static_cast<std::uint32_t>(std::atol(argv[7])) : 0;
    zlog_set_hook([](int prio, std::string_view text) {
        std::printf("log %d %.*s\n", prio, static_cast<int>(text.size()), text.data());
    });

    const int end =
        std::min(dhcp_end_option(packet.options), static_cast<int>(DHCP_OPTIONS_AREA) - 1);
    std::printf("msg ");
    const auto *bytes = reinterpret_cast<const std::uint8_t *>(&packet);
    for (std::size_t i = 0; i < DHCP_FIXED_SIZE + static_cast<std::size_t>(end) + 1; i++) {
        std::printf("%02x", bytes[i]);
    }
    std::printf("\n");
    int failures = 0;
    for (long i = 0; i < count; i++) {
        const int sent = dhcp_send_raw_packet(packet, src.s_addr, DHCP_SERVER_PORT, dst.s_addr,
                                              DHCP_CLIENT_PORT, mac, static_cast<int>(ifindex));
        if (count <= 10 || sent < 0) {
            std::printf("sent %d\n", sent);
        }
        failures += sent < 0 ? 1 : 0;
    }
    std::printf("done %ld failures %d\n", count, failures);
    return failures == 0 ? 0 : 1;
}
