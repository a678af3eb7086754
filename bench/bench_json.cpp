// JSON requests per second, through the same path as the socket (parse,
// dispatch, handler, reply) without the connection:
// - BM_LeasePage/100: "dhcps_leases_get_page", pages of 100 walked over a
//   full table of 10,240 active leases;
// - BM_LeasePage/10240: the page of all of them (about 1.6 MB of reply);
// - BM_PoolChangeWithSave: "dhcps_pool_config" on one of 16 configured
//   pools, each request followed by its configuration save (temporary
//   file, fsync, rename) into a temporary directory; timed on the wall clock,
//   as the save waits for the disk.
// items_per_second is requests per second.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "dhcp/dhcp_json.h"
#include "dhcp/dhcps.h"
#include "dhcp/dhcps_leases.h"
#include "dhcp/dhcps_pool.h"
#include "dhcp/dhcps_vty.h"
#include "lib/command.h"
#include "lib/if.h"
#include "lib/log.h"
#include "lib/thread.h"
#include "platform/clock.h"
#include "platform/jserver.h"

namespace fs = std::filesystem;

namespace {

constexpr std::int32_t kNow = 1700000000;
constexpr int kLeases = 10240;

struct scratch {
    fs::path dir = fs::temp_directory_path() / ("bench-json-" + std::to_string(getpid()));
    std::string conf = (dir / "dhcpd.conf").string();
    scratch() { fs::create_directories(dir); }
    ~scratch() { fs::remove_all(dir); }
};

// The daemon's modules once per process: CLI engine, server, the requests.
const scratch &set_up() {
    static scratch s;
    static bool done = false;
    if (!done) {
        openzlog("bench", 21, 0, LOG_DAEMON);
        zlog_set_level(zlog_default, ZLOG_DEST_SYSLOG, ZLOG_DISABLED);
        zlog_set_level(zlog_default, ZLOG_DEST_STDOUT, ZLOG_DISABLED);
        kq_time_set(kNow);
        cmd_init(1);
        cmd_set_hostname("sw1");
        cmd_set_config_file(s.conf.c_str());
        if_init();
        dhcps_set_lease_file((s.dir / "dhcps.leases").c_str());
        dhcps_init(thread_master_create());
        dhcps_vty_init();
        dhcp_json_register();
        done = true;
    }
    return s;
}

std::size_t request(const std::string &text) {
    const char *reply = nullptr;
    return dhcp_json_handle_text(text.data(), text.size(), &reply);
}

void fill_leases() {
    dhcps_lease_list_free();
    dhcps_lease_list_init();
    dhcps_set_max_lease_num(kLeases);
    for (int i = 0; i < kLeases; ++i) {
        const auto u = static_cast<std::uint32_t>(i);
        const std::uint8_t mac[6] = {
            2, 0, 0, 0, static_cast<std::uint8_t>(u >> 8), static_cast<std::uint8_t>(u)};
        dhcps_add_lease(mac, htonl(0x0a000000u + u + 1), 3600, kNow + 3600 + i, "client-host-name",
                        16, 1, 0);
    }
}

void BM_LeasePage(benchmark::State &state) {
    set_up();
    fill_leases();
    const auto count = static_cast<int>(state.range(0));
    std::size_t bytes = 0;
    int index = 0;
    for (auto _ : state) {
        const std::string text = R"({"cmd":"dhcps_leases_get_page","data":[{"index":)" +
                                 std::to_string(index) + R"(,"count":)" + std::to_string(count) +
                                 "}]}";
        bytes += request(text);
        index = index + 2 * count > kLeases ? 0 : index + count;
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
    dhcps_lease_list_free();
    dhcps_lease_list_init();
}

void BM_PoolChangeWithSave(benchmark::State &state) {
    set_up();
    for (int p = 0; p < 16; ++p) {
        const std::string net = "10." + std::to_string(p) + ".0.";
        request(R"({"cmd":"dhcps_pool_add","config":[{"pool_name":"pool)" + std::to_string(p) +
                R"(","default_router":")" + net + R"(1","network":")" + net +
                R"(0/24","dns_server1":"8.8.8.8"}]})");
    }
    int lease = 60;
    for (auto _ : state) {
        const std::size_t n =
            request(R"({"cmd":"dhcps_pool_config","config":[{"pool_name":"pool7","lease_time":)" +
                    std::to_string(lease) + R"(,"begin_ip":"10.7.0.10","end_ip":"10.7.0.200"}]})");
        if (n != 0) {
            state.SkipWithError("the pool change failed");
            break;
        }
        lease = lease == 60 ? 120 : 60;
    }
    state.SetItemsProcessed(state.iterations());
    dhcps_pool_list_free();
}

}  // namespace

BENCHMARK(BM_LeasePage)->Arg(100)->Arg(kLeases)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PoolChangeWithSave)->Unit(benchmark::kMicrosecond)->UseRealTime();
