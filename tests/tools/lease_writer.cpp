// Writes the lease file over and over, for the crash test: each generation
// fills the table afresh and writes it, so every complete file is one
// generation's snapshot that the test can rebuild on its own.
//
//   lease_writer PATH FIRST_GENERATION GENERATIONS MAX_RECORDS [STOP_PPM]
//
// With STOP_PPM the last generation stops inside its write: it writes that
// share (parts per million) of its bytes to the temporary file and flushes
// them (1000000: all of them, flushed, just before the rename), prints
// "inside generation G: K of N bytes written" and waits to be killed.
//
// Generation g holds 1 + (g * 7919) % MAX_RECORDS leases, created in the
// order j = 0, 1, ... (so written newest first): MAC 02:g2:g1:g0:j1:j0,
// address 10.0.0.0 + j + 1, lease time g, expiry 1700000000 + j, state 1,
// host name "g<g>-<j>". The clock is pinned to 1700000000.
#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>

#include "dhcp/dhcps_leases.h"
#include "dhcp/dhcps_pool.h"
#include "lib/log.h"
#include "platform/clock.h"

namespace {

constexpr std::int32_t kNow = 1700000000;

void fill(std::uint32_t g, std::uint32_t max_records) {
    dhcps_lease_list_init();
    const std::uint32_t count =
        1 + static_cast<std::uint32_t>((std::uint64_t{g} * 7919) % max_records);
    for (std::uint32_t j = 0; j < count; ++j) {
        const std::uint8_t mac[6] = {2,
                                     static_cast<std::uint8_t>(g >> 16),
                                     static_cast<std::uint8_t>(g >> 8),
                                     static_cast<std::uint8_t>(g),
                                     static_cast<std::uint8_t>(j >> 8),
                                     static_cast<std::uint8_t>(j)};
        const std::string host = "g" + std::to_string(g) + "-" + std::to_string(j);
        dhcps_add_lease(mac, htonl(0x0a000000u + j + 1), g, kNow + static_cast<std::int32_t>(j),
                        host.c_str(), static_cast<int>(host.size()), 1, 0);
    }
}

// Writes the first `ppm` millionths of the records, says so and waits for
// the kill.
[[noreturn]] void stop_inside(std::uint32_t g, std::uint64_t ppm, int fd,
                              std::span<const std::byte> records) {
    const std::size_t part = static_cast<std::size_t>(records.size() * ppm / 1000000);
    if (!dhcps_lease_file_store(fd, records.first(part))) {
        std::fprintf(stderr, "lease_writer: partial write failed\n");
        std::exit(1);
    }
    std::printf("inside generation %u: %zu of %zu bytes written\n", g, part, records.size());
    std::fflush(stdout);
    for (;;) {
        ::pause();
    }
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 5 && argc != 6) {
        std::fprintf(stderr, "usage: %s PATH FIRST_GENERATION GENERATIONS MAX_RECORDS [STOP_PPM]\n",
                     argv[0]);
        return 2;
    }
    const char *path = argv[1];
    const auto first = static_cast<std::uint32_t>(std::strtoul(argv[2], nullptr, 10));
    const auto generations = static_cast<std::uint32_t>(std::strtoul(argv[3], nullptr, 10));
    const auto max_records = static_cast<std::uint32_t>(std::strtoul(argv[4], nullptr, 10));
    if (max_records == 0 || max_records > 10240) {
        std::fprintf(stderr, "MAX_RECORDS must be 1..10240\n");
        return 2;
    }
    openzlog("lease_writer", 21, 0, LOG_DAEMON);
    zlog_set_level(zlog_default, ZLOG_DEST_SYSLOG, ZLOG_DISABLED);
    kq_time_set(kNow);
    dhcps_global.max_lease_num = 10240;
    std::uint32_t g = first;
    if (argc == 6) {
        const std::uint64_t ppm =
            std::min<std::uint64_t>(std::strtoull(argv[5], nullptr, 10), 1000000);
        const std::uint32_t last = first + generations - 1;
        dhcps_set_lease_file_writer([&g, ppm, last](int fd, std::span<const std::byte> records) {
            if (g == last) {
                stop_inside(g, ppm, fd, records);
            }
            return dhcps_lease_file_store(fd, records);
        });
    }
    for (; g - first < generations; ++g) {
        fill(g, max_records);
        dhcps_write_leases(path);
    }
    dhcps_lease_list_free();
    return 0;
}
