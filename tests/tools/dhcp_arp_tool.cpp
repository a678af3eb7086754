// Probes one address with arpping and reports the outcome, for tests with an
// ARP responder in a peer namespace.
//
//   dhcp_arp_tool IFNAME TEST_IP FROM_IP FROM_MAC [SAFE_MAC|-] [hold]
//
// Runs with "debug dhcp events" on; prints each log line as
// "log PRIORITY TEXT", then "result R waits N", N being how many times the
// probe waited for a frame. With "hold" the probe's clock stands still and
// each wait lasts until a frame comes (at most a minute): only the frames,
// never the machine's speed, decide the outcome, and every frame read costs
// the probe's budget its minimum of one millisecond.
#include <arpa/inet.h>
#include <poll.h>

#include <cstdio>
#include <cstring>
#include <utility>

#include "dhcp/dhcp_arp.h"
#include "dhcp/dhcp_debug.h"
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

constexpr int kHoldMs = 60000;

}  // namespace

int main(int argc, char **argv) {
    in_addr test{};
    in_addr from{};
    std::uint8_t from_mac[6];
    std::uint8_t safe_mac[6];
    const bool have_safe = argc > 5 && std::strcmp(argv[5], "-") != 0;
    const bool hold = argc > 6 && std::strcmp(argv[6], "hold") == 0;
    if (argc < 5 || (argc > 6 && !hold) || inet_pton(AF_INET, argv[2], &test) != 1 ||
        inet_pton(AF_INET, argv[3], &from) != 1 || !parse_mac(argv[4], from_mac) ||
        (have_safe && !parse_mac(argv[5], safe_mac))) {
        std::fprintf(stderr, "usage: %s IFNAME TEST_IP FROM_IP FROM_MAC [SAFE_MAC|-] [hold]\n",
                     argv[0]);
        return 2;
    }
    dhcp_debug = DHCP_DEBUG_EVENTS;
    zlog_set_hook([](int prio, std::string_view text) {
        std::printf("log %d %.*s\n", prio, static_cast<int>(text.size()), text.data());
    });
    long waits = 0;
    dhcp_arp_io io;
    if (hold) {
        io.now_ms = [] { return std::uint64_t{0}; };
    }
    io.receive = [&waits, hold](int fd, std::span<std::byte> frame, unsigned timeout_ms) -> long {
        ++waits;
        pollfd pfd{fd, POLLIN, 0};
        if (::poll(&pfd, 1, hold ? kHoldMs : static_cast<int>(timeout_ms)) <= 0) {
            return -1;
        }
        return dhcp_safe_read(fd, frame);
    };
    dhcp_arp_set_io(std::move(io));
    const int result =
        arpping(test.s_addr, have_safe ? safe_mac : nullptr, from.s_addr, from_mac, argv[1]);
    std::printf("result %d waits %ld\n", result, waits);
    return 0;
}
