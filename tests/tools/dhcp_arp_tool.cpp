// Probes one address with arpping and reports the outcome, for tests with an
// ARP responder in a peer namespace.
//
//   dhcp_arp_tool IFNAME TEST_IP FROM_IP FROM_MAC [SAFE_MAC|-]
//
// Runs with "debug dhcp events" on; prints each log line as
// "log PRIORITY TEXT", then "result R elapsed MS".
#include <arpa/inet.h>

#include <cstdio>
#include <cstring>

#include "dhcp/dhcp_arp.h"
#include "dhcp/dhcp_debug.h"
#include "lib/log.h"
#include "platform/util.h"

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

}  // namespace

int main(int argc, char **argv) {
    in_addr test{};
    in_addr from{};
    std::uint8_t from_mac[6];
    std::uint8_t safe_mac[6];
    const bool have_safe = argc > 5 && std::strcmp(argv[5], "-") != 0;
    if (argc < 5 || inet_pton(AF_INET, argv[2], &test) != 1 ||
        inet_pton(AF_INET, argv[3], &from) != 1 || !parse_mac(argv[4], from_mac) ||
        (have_safe && !parse_mac(argv[5], safe_mac))) {
        std::fprintf(stderr, "usage: %s IFNAME TEST_IP FROM_IP FROM_MAC [SAFE_MAC|-]\n", argv[0]);
        return 2;
    }
    dhcp_debug = DHCP_DEBUG_EVENTS;
    zlog_set_hook([](int prio, std::string_view text) {
        std::printf("log %d %.*s\n", prio, static_cast<int>(text.size()), text.data());
    });
    const std::uint64_t start = monotonic_ms();
    const int result =
        arpping(test.s_addr, have_safe ? safe_mac : nullptr, from.s_addr, from_mac, argv[1]);
    std::printf("result %d elapsed %llu\n", result,
                static_cast<unsigned long long>(monotonic_ms() - start));
    return 0;
}
