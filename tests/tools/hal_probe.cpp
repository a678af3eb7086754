// Asks the hardware-abstraction layer for the port of a MAC, as the server
// does per request: hal_probe VID MAC [COUNT [dump]].
// Prints "rc=<rc> port=<uif index in hex>", and with COUNT > 1 also
// "opened=<descriptors the COUNT calls opened and left open>".
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "platform/hal.h"
#include "platform/uif.h"

namespace {

long open_descriptors() {
    std::error_code ec;
    long n = 0;
    for (auto it = std::filesystem::directory_iterator("/proc/self/fd", ec);
         !ec && it != std::filesystem::directory_iterator(); it.increment(ec)) {
        ++n;
    }
    return n;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: hal_probe VID MAC [COUNT [dump]]\n");
        return 2;
    }
    auto vid = static_cast<std::uint16_t>(std::atoi(argv[1]));
    unsigned v[6] = {};
    if (std::sscanf(argv[2], "%x:%x:%x:%x:%x:%x", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5]) != 6) {
        std::fprintf(stderr, "hal_probe: bad MAC %s\n", argv[2]);
        return 2;
    }
    std::uint8_t mac[6];
    for (int i = 0; i < 6; ++i) {
        mac[i] = static_cast<std::uint8_t>(v[i]);
    }
    long count = argc > 3 ? std::atol(argv[3]) : 1;
    if (argc > 4 && std::strcmp(argv[4], "dump") == 0) {
        hal_fdb_force_dump(1);
    }
    uif_init();
    uvlan_init();
    std::uint32_t port = 0;
    int rc = 0;
    const long before = open_descriptors();
    for (long i = 0; i < count; ++i) {
        rc = hal_mac_get_port(vid, mac, &port);
    }
    const long opened = open_descriptors() - before;
    std::printf("rc=%d port=%#x\n", rc, static_cast<unsigned>(port));
    if (count > 1) {
        std::printf("opened=%ld\n", opened);
    }
    return 0;
}
