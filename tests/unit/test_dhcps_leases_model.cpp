// The indexed lease table against a plain list that follows the written
// rules walk by walk: random creations, declines, releases, deletions,
// truncations, file writes and clock moves, compared after every step.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "dhcp/dhcps_leases.h"
#include "dhcp/dhcps_pool.h"
#include "lib/log.h"
#include "platform/clock.h"

namespace {

namespace fs = std::filesystem;

constexpr std::int32_t kStart = 1700000000;

std::uint32_t be32(const std::uint8_t *p) {
    return (std::uint32_t{p[0]} << 24) | (std::uint32_t{p[1]} << 16) | (std::uint32_t{p[2]} << 8) |
           std::uint32_t{p[3]};
}

void put_be32(std::uint8_t *p, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        p[i] = static_cast<std::uint8_t>(v >> (24 - 8 * i));
    }
}

// The table as a list, walked the slow way.
struct Model {
    std::vector<dhcps_lease> recs;
    std::uint32_t max = 0;
    std::int32_t now = kStart;

    static std::int32_t expires(const dhcps_lease &r) {
        return static_cast<std::int32_t>(be32(r.expires));
    }
    static std::uint32_t addr(const dhcps_lease &r) {
        std::uint32_t v;
        std::memcpy(&v, r.nip, 4);
        return v;
    }
    static bool has_mac(const dhcps_lease &r) {
        return std::any_of(std::begin(r.mac), std::end(r.mac), [](std::uint8_t b) { return b; });
    }
    bool expired(const dhcps_lease &r) const { return expires(r) < now; }

    int active() const {
        return static_cast<int>(
            std::count_if(recs.begin(), recs.end(), [this](const auto &r) { return !expired(r); }));
    }

    void clear(const std::uint8_t *mac, std::uint32_t nip) {
        std::erase_if(recs, [&](const dhcps_lease &r) {
            return (mac != nullptr && std::memcmp(r.mac, mac, 6) == 0) ||
                   (nip != 0 && addr(r) == nip);
        });
    }

    void delete_an_expired() {
        auto it =
            std::find_if(recs.begin(), recs.end(), [this](const auto &r) { return expired(r); });
        if (it != recs.end()) {
            recs.erase(it);
        }
    }

    // Index of the new record, or -1.
    int add(const std::uint8_t *mac, std::uint32_t nip, std::uint32_t lease_time, std::int32_t exp,
            const char *host, int host_len, std::uint32_t state, int check_max) {
        clear(mac, nip);
        if (check_max == 1) {
            if (static_cast<std::uint32_t>(active()) >= max) {
                return -1;
            }
            if (recs.size() >= max) {
                delete_an_expired();
                return -1;
            }
        }
        const auto pos = static_cast<std::size_t>(std::find_if(recs.begin(), recs.end(), has_mac) -
                                                  recs.begin());
        dhcps_lease r{};
        put_be32(r.state, state);
        put_be32(r.expires, static_cast<std::uint32_t>(exp));
        put_be32(r.lease_time, lease_time);
        std::memcpy(r.nip, &nip, 4);
        if (mac != nullptr) {
            std::memcpy(r.mac, mac, 6);
        }
        if (host != nullptr && host_len >= 0) {
            std::strncpy(r.hostname, host, std::min(static_cast<std::size_t>(host_len) + 1, 20ul));
            for (std::size_t i = 0; i < 20 && r.hostname[i] != 0; ++i) {
                const auto c = static_cast<signed char>(r.hostname[i]);
                if (c < 32 || c == 127) {
                    r.hostname[i] = '^';
                }
            }
        }
        recs.insert(recs.begin() + static_cast<std::ptrdiff_t>(pos), r);
        return static_cast<int>(pos);
    }

    int find_mac(const std::uint8_t *mac) const {
        for (std::size_t i = 0; i < recs.size(); ++i) {
            if (std::memcmp(recs[i].mac, mac, 6) == 0) {
                return static_cast<int>(i);
            }
        }
        return -1;
    }

    int find_nip(std::uint32_t nip) const {
        for (std::size_t i = 0; i < recs.size(); ++i) {
            if (addr(recs[i]) == nip) {
                return static_cast<int>(i);
            }
        }
        return -1;
    }

    void truncate(std::uint32_t limit) {
        for (std::size_t i = 0; i < recs.size() && recs.size() > limit;) {
            if (expired(recs[i])) {
                recs.erase(recs.begin() + static_cast<std::ptrdiff_t>(i));
            } else {
                ++i;
            }
        }
        for (std::size_t i = 0; i < recs.size() && recs.size() > limit;) {
            if (be32(recs[i].state) != 0 || expired(recs[i])) {
                recs.erase(recs.begin() + static_cast<std::ptrdiff_t>(i));
            } else {
                ++i;
            }
        }
    }

    std::string write() {
        std::erase_if(recs, [this](const auto &r) { return be32(r.state) == 0 && expired(r); });
        std::string out;
        for (const auto &r : recs) {
            if (addr(r) != 0 && be32(r.state) != 0) {
                out.append(reinterpret_cast<const char *>(&r), sizeof r);
            }
        }
        return out;
    }

    std::uint32_t free_ip(std::uint32_t begin, std::uint32_t end) const {
        for (std::uint32_t a = begin; a <= end; ++a) {
            if ((a & 0xff) == 0 || (a & 0xff) == 255) {
                continue;
            }
            if (find_nip(htonl(a)) < 0) {
                return htonl(a);
            }
        }
        return 0;
    }
};

struct Params {
    int macs;
    int nips;
    std::uint32_t max;
    int ops;
    int check_every;
    unsigned seed;
};

void PrintTo(const Params &p, std::ostream *os) {
    *os << "macs " << p.macs << ", addresses " << p.nips << ", max " << p.max << ", seed "
        << p.seed;
}

class LeaseModel : public ::testing::TestWithParam<Params> {
  protected:
    std::string dir;
    LeaseModel() {
        openzlog("dhcpd", 21, LOG_NDELAY | LOG_PID, LOG_DAEMON);
        zlog_set_level(zlog_default, ZLOG_DEST_SYSLOG, ZLOG_DISABLED);
        zlog_set_level(zlog_default, ZLOG_DEST_STDOUT, ZLOG_DISABLED);
        dhcps_global = dhcps_settings{};
        dhcps_lease_list_init();
        std::string tmpl = ::testing::TempDir() + "/leasemodel.XXXXXX";
        dir = mkdtemp(tmpl.data());
        dhcps_set_lease_file((dir + "/leases").c_str());
    }
    ~LeaseModel() override {
        dhcps_lease_list_free();
        dhcps_set_lease_file(nullptr);
        kq_time_clear();
        closezlog(zlog_default);
        std::error_code ec;
        fs::remove_all(dir, ec);
    }

    static std::vector<dhcps_lease *> walk() {
        std::vector<dhcps_lease *> w;
        dhcps_lease_foreach(
            [&w](const dhcps_lease &l) { w.push_back(const_cast<dhcps_lease *>(&l)); });
        return w;
    }

    static int index_of(const std::vector<dhcps_lease *> &w, const dhcps_lease *l) {
        if (l == nullptr) {
            return -1;
        }
        auto it = std::find(w.begin(), w.end(), l);
        return it == w.end() ? -2 : static_cast<int>(it - w.begin());
    }

    std::string file_bytes() const {
        std::ifstream in(dir + "/leases", std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
};

std::array<std::uint8_t, 6> mac_of(int i) {
    return {2, 0, 0, 0, static_cast<std::uint8_t>(i >> 8), static_cast<std::uint8_t>(i)};
}

std::uint32_t nip_of(int i) {
    return htonl(0x0a000000u + static_cast<std::uint32_t>(i));
}

TEST_P(LeaseModel, AgreesWithTheListStepByStep) {
    const Params p = GetParam();
    std::mt19937 rng(p.seed);
    auto pick = [&rng](int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng); };
    Model m;
    m.max = p.max;
    dhcps_global.max_lease_num = p.max;
    kq_time_set(m.now);
    const std::array<std::uint8_t, 6> zero{};
    const char names[] = "host\x01name\xC3\xA9-with-a-long-tail";

    for (int op = 0; op < p.ops; ++op) {
        const std::vector<dhcps_lease *> w = walk();
        const int kind = pick(100);
        if (kind < 35) {  // a client's lease
            auto mac = pick(20) == 0 ? zero : mac_of(1 + pick(p.macs));
            std::uint32_t nip = pick(30) == 0 ? 0 : nip_of(1 + pick(p.nips));
            if (!w.empty() && pick(3) == 0) {  // a client back with its own MAC and address
                const dhcps_lease *r =
                    w[static_cast<std::size_t>(pick(static_cast<int>(w.size())))];
                std::memcpy(mac.data(), r->mac, 6);
                std::memcpy(&nip, r->nip, 4);
            }
            const std::int32_t exp = m.now + pick(120) - 40;
            const std::uint32_t state = static_cast<std::uint32_t>(pick(2));
            const int check = pick(5) == 0 ? 0 : 1;
            const int hl = pick(30) - 2;
            const int want = m.add(mac.data(), nip, 77, exp, names, hl, state, check);
            dhcps_lease *got = dhcps_add_lease(mac.data(), nip, 77, exp, names, hl, state, check);
            ASSERT_EQ(got != nullptr, want >= 0) << "op " << op;
        } else if (kind < 45) {  // a conflict reservation
            const std::uint32_t nip = nip_of(1 + pick(p.nips));
            const int want = m.add(nullptr, nip, 60, m.now + 60, nullptr, 0, 0, 1);
            dhcps_lease *got = dhcps_add_lease(nullptr, nip, 60, m.now + 60, nullptr, 0, 0, 1);
            ASSERT_EQ(got != nullptr, want >= 0) << "op " << op;
        } else if (kind < 53 && !w.empty()) {  // DECLINE: MAC cleared in place
            const auto i = static_cast<std::size_t>(pick(static_cast<int>(w.size())));
            dhcps_lease_set_mac(w[i], zero.data());
            dhcps_lease_set_expires(w[i], m.now + 30);
            dhcps_lease_set_state(w[i], 0);
            std::memcpy(m.recs[i].mac, zero.data(), 6);
            put_be32(m.recs[i].expires, static_cast<std::uint32_t>(m.now + 30));
            put_be32(m.recs[i].state, 0);
        } else if (kind < 57 && !w.empty()) {  // a MAC another record may have
            const auto i = static_cast<std::size_t>(pick(static_cast<int>(w.size())));
            const auto mac = mac_of(1 + pick(p.macs));
            dhcps_lease_set_mac(w[i], mac.data());
            std::memcpy(m.recs[i].mac, mac.data(), 6);
        } else if (kind < 64 && !w.empty()) {  // RELEASE or any expiry change
            const auto i = static_cast<std::size_t>(pick(static_cast<int>(w.size())));
            const std::int32_t exp = m.now + pick(100) - 50;
            dhcps_lease_set_expires(w[i], exp);
            put_be32(m.recs[i].expires, static_cast<std::uint32_t>(exp));
        } else if (kind < 68 && !w.empty()) {
            const auto i = static_cast<std::size_t>(pick(static_cast<int>(w.size())));
            dhcps_lease_free(w[i]);
            m.recs.erase(m.recs.begin() + static_cast<std::ptrdiff_t>(i));
        } else if (kind < 72) {
            const auto mac = mac_of(1 + pick(p.macs));
            const bool by_mac = pick(2) == 0;
            const std::uint32_t nip = pick(2) == 0 ? 0 : nip_of(1 + pick(p.nips));
            dhcps_clear_leases(by_mac ? mac.data() : nullptr, nip);
            m.clear(by_mac ? mac.data() : nullptr, nip);
        } else if (kind < 76) {
            ASSERT_EQ(dhcps_delete_an_expired_leases(), 0);
            m.delete_an_expired();
        } else if (kind < 78) {
            const auto limit = static_cast<std::uint32_t>(pick(static_cast<int>(p.max) + 2));
            const std::size_t before = m.recs.size();
            dhcps_leases_truncate(limit);
            m.truncate(limit);
            if (m.recs.size() != before) {
                ASSERT_EQ(file_bytes(), m.write()) << "op " << op;
            }
        } else if (kind < 80) {
            dhcps_write_leases((dir + "/leases").c_str());
            ASSERT_EQ(file_bytes(), m.write()) << "op " << op;
        } else if (kind < 83) {
            dhcps_pool pool;
            pool.begin_ip = ntohl(nip_of(1));
            pool.end_ip = ntohl(nip_of(p.nips));
            ASSERT_EQ(dhcps_free_ip(nullptr, &pool, nullptr),
                      m.free_ip(pool.begin_ip, pool.end_ip));
        } else {
            m.now += pick(25) - 4;  // mostly forward, sometimes back
            kq_time_set(m.now);
        }

        if (op % p.check_every != 0 && op != p.ops - 1) {
            continue;
        }
        const std::vector<dhcps_lease *> after = walk();
        ASSERT_EQ(after.size(), m.recs.size()) << "op " << op;
        for (std::size_t i = 0; i < after.size(); ++i) {
            ASSERT_EQ(std::memcmp(after[i], &m.recs[i], sizeof(dhcps_lease)), 0)
                << "op " << op << " record " << i;
        }
        ASSERT_EQ(dhcps_get_leases_num(), static_cast<int>(m.recs.size()));
        ASSERT_EQ(dhcps_get_active_leases_num(), m.active()) << "op " << op;
        ASSERT_EQ(index_of(after, dhcps_find_lease_by_mac(zero.data())), m.find_mac(zero.data()));
        ASSERT_EQ(index_of(after, dhcps_find_lease_by_nip(0)), m.find_nip(0));
        for (int k = 0; k < 6; ++k) {
            const auto mac = mac_of(1 + pick(p.macs));
            ASSERT_EQ(index_of(after, dhcps_find_lease_by_mac(mac.data())), m.find_mac(mac.data()))
                << "op " << op;
            const std::uint32_t nip = nip_of(1 + pick(p.nips));
            ASSERT_EQ(index_of(after, dhcps_find_lease_by_nip(nip)), m.find_nip(nip))
                << "op " << op;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Small, LeaseModel,
                         ::testing::Values(Params{8, 12, 10, 20000, 1, 1},
                                           Params{12, 20, 16, 20000, 1, 2},
                                           Params{30, 40, 64, 20000, 1, 3}));
INSTANTIATE_TEST_SUITE_P(Large, LeaseModel,
                         ::testing::Values(Params{3000, 4000, 2048, 60000, 250, 4},
                                           Params{600, 700, 10240, 40000, 250, 5}));

}  // namespace
