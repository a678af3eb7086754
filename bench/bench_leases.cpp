// The lease table at 1,000, 5,000 and 10,240 leases: creating a lease (which
// first clears the client's old one), finding by MAC and by address, and the
// free-address search over a 16,000-address range.
//
// BM_FreeIp: the lowest 1,000 usable addresses of the range are leased in
// every case and the rest of the leases sit at its top, so each search walks
// the same 1,000 leased candidates before the first free one; only the table
// size changes. BM_FreeIpScan: the leases fill the range from the bottom, so
// the search walks all of them; its time per candidate is what to compare.
// At the end the 10,240 / 1,000 ratios (CPU time) are printed: near 1 means the cost of
// a candidate doesn't grow with the table.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "dhcp/dhcps_leases.h"
#include "dhcp/dhcps_pool.h"
#include "lib/if.h"
#include "lib/log.h"
#include "platform/clock.h"

namespace {

constexpr std::int32_t kNow = 1700000000;
constexpr std::uint32_t kRangeBegin = 0x0a000001;  // 10.0.0.1
constexpr std::uint32_t kRangeSize = 16000;
constexpr std::uint32_t kLowLeases = 1000;

std::array<std::uint8_t, 6> mac_of(std::uint32_t i) {
    return {2,
            0,
            static_cast<std::uint8_t>(i >> 24),
            static_cast<std::uint8_t>(i >> 16),
            static_cast<std::uint8_t>(i >> 8),
            static_cast<std::uint8_t>(i)};
}

// Usable addresses of the range in ascending order (no .0 or .255).
std::vector<std::uint32_t> usable_range() {
    std::vector<std::uint32_t> v;
    for (std::uint32_t a = kRangeBegin; a < kRangeBegin + kRangeSize; ++a) {
        if ((a & 0xff) != 0 && (a & 0xff) != 255) {
            v.push_back(a);
        }
    }
    return v;
}

void quiet_log() {
    static bool done = false;
    if (!done) {
        openzlog("bench", 21, 0, LOG_DAEMON);
        zlog_set_level(zlog_default, ZLOG_DEST_SYSLOG, ZLOG_DISABLED);
        zlog_set_level(zlog_default, ZLOG_DEST_STDOUT, ZLOG_DISABLED);
        kq_time_set(kNow);
        dhcps_global.max_lease_num = 10240;
        done = true;
    }
}

// The table with one lease on each of `hosts` (host order), lease i for MAC i.
void fill(const std::vector<std::uint32_t> &hosts) {
    quiet_log();
    dhcps_lease_list_init();
    for (std::uint32_t i = 0; i < hosts.size(); ++i) {
        const auto m = mac_of(i);
        dhcps_add_lease(m.data(), htonl(hosts[i]), 3600, kNow + 3600 + static_cast<std::int32_t>(i),
                        "client", 6, 1, 0);
    }
}

// Leases on the lowest addresses of the range.
std::vector<std::uint32_t> bottom(std::size_t n) {
    auto r = usable_range();
    r.resize(n);
    return r;
}

// The lowest kLowLeases addresses, then the rest at the top of the range.
std::vector<std::uint32_t> bottom_and_top(std::size_t n) {
    const auto r = usable_range();
    std::vector<std::uint32_t> v(r.begin(), r.begin() + kLowLeases);
    v.insert(v.end(), r.end() - static_cast<std::ptrdiff_t>(n - kLowLeases), r.end());
    return v;
}

dhcps_pool &range_pool() {
    static dhcps_pool pool;
    pool.begin_ip = kRangeBegin;
    pool.end_ip = kRangeBegin + kRangeSize - 1;
    pool.server_ip = htonl(0x0a00ffff);
    return pool;
}

interface *vlanif() {
    interface *ifp = if_get_by_name("vlanif10");
    if (ifp->connected.empty()) {
        prefix p{};
        str2prefix("10.0.255.254/16", &p);
        connected_add(ifp, 0, &p, nullptr);
    }
    return ifp;
}

std::vector<std::uint32_t> shuffled(std::size_t n) {
    std::vector<std::uint32_t> idx(n);
    for (std::uint32_t i = 0; i < n; ++i) {
        idx[i] = i;
    }
    std::shuffle(idx.begin(), idx.end(), std::mt19937(42));
    return idx;
}

void BM_AddLease(benchmark::State &state) {
    const auto n = static_cast<std::size_t>(state.range(0));
    const auto hosts = bottom(n);
    fill(hosts);
    const auto order = shuffled(n);
    std::size_t k = 0;
    for (auto _ : state) {
        // A client's ACK replaces its own lease: one clearing, one creation.
        const std::uint32_t i = order[k++ % n];
        const auto m = mac_of(i);
        benchmark::DoNotOptimize(
            dhcps_add_lease(m.data(), htonl(hosts[i]), 3600, kNow + 7200, "client", 6, 1, 1));
    }
    state.counters["leases"] = static_cast<double>(dhcps_get_leases_num());
}

void BM_FindByMac(benchmark::State &state) {
    const auto n = static_cast<std::size_t>(state.range(0));
    fill(bottom(n));
    const auto order = shuffled(n);
    std::vector<std::array<std::uint8_t, 6>> macs;
    for (std::uint32_t i : order) {
        macs.push_back(mac_of(i));
    }
    std::size_t k = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(dhcps_find_lease_by_mac(macs[k++ % n].data()));
    }
}

void BM_FindByNip(benchmark::State &state) {
    const auto n = static_cast<std::size_t>(state.range(0));
    const auto hosts = bottom(n);
    fill(hosts);
    std::vector<std::uint32_t> nips;
    for (std::uint32_t i : shuffled(n)) {
        nips.push_back(htonl(hosts[i]));
    }
    std::size_t k = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(dhcps_find_lease_by_nip(nips[k++ % n]));
    }
}

void BM_ActiveCount(benchmark::State &state) {
    fill(bottom(static_cast<std::size_t>(state.range(0))));
    for (auto _ : state) {
        benchmark::DoNotOptimize(dhcps_get_active_leases_num());
    }
}

void BM_FreeIp(benchmark::State &state) {
    fill(bottom_and_top(static_cast<std::size_t>(state.range(0))));
    dhcps_pool &pool = range_pool();
    interface *ifp = vlanif();
    const auto m = mac_of(0xffffff);
    for (auto _ : state) {
        benchmark::DoNotOptimize(dhcps_free_ip(ifp, &pool, m.data()));
    }
    state.counters["candidates"] = kLowLeases + 1;
}

void BM_FreeIpScan(benchmark::State &state) {
    const auto n = static_cast<std::size_t>(state.range(0));
    fill(bottom(n));
    dhcps_pool &pool = range_pool();
    interface *ifp = vlanif();
    const auto m = mac_of(0xffffff);
    for (auto _ : state) {
        benchmark::DoNotOptimize(dhcps_free_ip(ifp, &pool, m.data()));
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(n + 1));
}

BENCHMARK(BM_AddLease)->Arg(1000)->Arg(5000)->Arg(10240);
BENCHMARK(BM_FindByMac)->Arg(1000)->Arg(5000)->Arg(10240);
BENCHMARK(BM_FindByNip)->Arg(1000)->Arg(5000)->Arg(10240);
BENCHMARK(BM_ActiveCount)->Arg(1000)->Arg(5000)->Arg(10240);
BENCHMARK(BM_FreeIp)->Arg(1000)->Arg(5000)->Arg(10240)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_FreeIpScan)->Arg(1000)->Arg(5000)->Arg(10240)->Unit(benchmark::kMicrosecond);

// Keeps each run's time per iteration and per item for the ratios.
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    using ConsoleReporter::ConsoleReporter;
    std::map<std::string, double> per_iteration;
    std::map<std::string, double> per_item;

    void ReportRuns(const std::vector<Run> &reports) override {
        // With repetitions the median stands for the run.
        for (const Run &r : reports) {
            const bool median = r.run_type == Run::RT_Aggregate && r.aggregate_name == "median";
            if (r.error_occurred || (r.run_type != Run::RT_Iteration && !median)) {
                continue;
            }
            const std::string name = r.run_name.str();
            per_iteration[name] = r.GetAdjustedCPUTime();
            if (auto it = r.counters.find("items_per_second"); it != r.counters.end()) {
                per_item[name] = 1e9 / it->second.value;
            }
        }
        ConsoleReporter::ReportRuns(reports);
    }
};

void print_ratio(const std::map<std::string, double> &m, const std::string &name,
                 const char *what) {
    auto big = m.find(name + "/10240");
    auto small = m.find(name + "/1000");
    if (big != m.end() && small != m.end() && small->second > 0) {
        std::printf("%-14s %-28s 10240/1000 = %.2f\n", name.c_str(), what,
                    big->second / small->second);
    }
}

}  // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    RatioReporter reporter(isatty(STDOUT_FILENO) ? benchmark::ConsoleReporter::OO_Defaults
                                                 : benchmark::ConsoleReporter::OO_Tabular);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("\n");
    print_ratio(reporter.per_iteration, "BM_FreeIp", "time per search");
    print_ratio(reporter.per_item, "BM_FreeIpScan", "time per candidate");
    print_ratio(reporter.per_iteration, "BM_AddLease", "time per creation");
    print_ratio(reporter.per_iteration, "BM_FindByMac", "time per lookup");
    print_ratio(reporter.per_iteration, "BM_FindByNip", "time per lookup");
    print_ratio(reporter.per_iteration, "BM_ActiveCount", "time per count");
    benchmark::Shutdown();
    return 0;
}
