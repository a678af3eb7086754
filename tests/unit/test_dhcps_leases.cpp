// The lease table: order, limits, host names, the free-address search, the
// lease file (bytes, atomic replacement, damaged input) and the write timer.
//
// The free-address search probes with ARP only when every candidate holds a
// lease and the oldest one has expired. Those tests use an interface name the
// kernel doesn't know: as root the probe then fails to send and answers
// "free" (ProbeFindsAddressFree...); without the right to open a packet
// socket it answers "in use" (ProbeFindsOwner..., run in a child process that
// gives up root first). Every other search test has no expired lease or no
// interface, so no probe is sent.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "dhcp/dhcp_options.h"
#include "dhcp/dhcps_leases.h"
#include "dhcp/dhcps_pool.h"
#include "lib/if.h"
#include "lib/log.h"
#include "lib/prefix.h"
#include "lib/thread.h"
#include "platform/clock.h"

namespace {

namespace fs = std::filesystem;

constexpr std::int32_t kNow = 1700000000;
constexpr const char *kNoSuchIf = "lstest0";

std::uint32_t nip(const char *a) {
    in_addr v{};
    inet_pton(AF_INET, a, &v);
    return v.s_addr;
}

std::uint32_t hip(const char *a) {
    return ntohl(nip(a));
}

std::string dotted(std::uint32_t n) {
    char buf[INET_ADDRSTRLEN];
    in_addr a{};
    a.s_addr = n;
    return inet_ntop(AF_INET, &a, buf, sizeof buf);
}

std::array<std::uint8_t, 6> mac(std::uint8_t i) {
    return {2, 0, 0, 0, 0, i};
}

constexpr std::array<std::uint8_t, 6> kZeroMac{};

std::string hex(const void *data, std::size_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    const auto *p = static_cast<const std::uint8_t *>(data);
    for (std::size_t i = 0; i < n; ++i) {
        s += digits[p[i] >> 4];
        s += digits[p[i] & 15];
    }
    return s;
}

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

void write_file(const std::string &path, const std::string &bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// A file record built byte by byte, independent of the accessors.
std::string record(std::uint32_t state, std::int32_t expires, std::uint32_t lease_time,
                   const char *addr, std::array<std::uint8_t, 6> m, const std::string &host) {
    std::string r(44, '\0');
    auto be = [&r](std::size_t at, std::uint32_t v) {
        for (std::size_t i = 0; i < 4; ++i) {
            r[at + i] = static_cast<char>(v >> (24 - 8 * i));
        }
    };
    be(0, state);
    be(4, static_cast<std::uint32_t>(expires));
    be(8, lease_time);
    const std::uint32_t n = nip(addr);
    std::memcpy(&r[12], &n, 4);
    std::memcpy(&r[16], m.data(), 6);
    std::memcpy(&r[22], host.data(), std::min<std::size_t>(host.size(), 20));
    return r;
}

struct Leases : ::testing::Test {
    std::vector<std::pair<int, std::string>> lines;
    std::string dir;
    std::string file;

    Leases() {
        openzlog("dhcpd", 21, LOG_NDELAY | LOG_PID, LOG_DAEMON);
        zlog_set_level(zlog_default, ZLOG_DEST_SYSLOG, ZLOG_DISABLED);
        zlog_set_level(zlog_default, ZLOG_DEST_STDOUT, ZLOG_DISABLED);
        zlog_set_hook([this](int prio, std::string_view text) { lines.emplace_back(prio, text); });
        dhcps_global = dhcps_settings{};
        dhcps_lease_list_init();
        kq_time_set(kNow);
        std::string tmpl = ::testing::TempDir() + "/leases.XXXXXX";
        dir = mkdtemp(tmpl.data());
        file = dir + "/dhcps.leases";
        dhcps_set_lease_file(file.c_str());
        if_init();
    }
    ~Leases() override {
        if_terminate();
        dhcps_lease_list_free();
        dhcps_set_lease_file(nullptr);
        kq_time_clear();
        zlog_set_hook({});
        closezlog(zlog_default);
        std::error_code ec;
        fs::remove_all(dir, ec);
    }

    std::vector<std::string> texts() const {
        std::vector<std::string> t;
        for (const auto &l : lines) {
            t.push_back(l.second);
        }
        return t;
    }

    // The table in its order, each record named by its address.
    static std::vector<std::string> walk() {
        std::vector<std::string> w;
        dhcps_lease_foreach(
            [&w](const dhcps_lease &l) { w.push_back(dotted(dhcps_lease_nip(&l))); });
        return w;
    }

    static dhcps_lease *client(std::uint8_t i, const char *addr, std::int32_t expires = kNow + 3600,
                               std::uint32_t state = 1, const char *host = nullptr) {
        const auto m = mac(i);
        return dhcps_add_lease(m.data(), nip(addr), 3600, expires, host,
                               host ? static_cast<int>(std::strlen(host)) : 0, state, 1);
    }

    static dhcps_lease *conflict(const char *addr, std::int32_t expires = kNow + 60) {
        return dhcps_add_lease(nullptr, nip(addr), 60, expires, nullptr, 0, 0, 1);
    }

    static void decline(dhcps_lease *l) {
        dhcps_lease_set_mac(l, kZeroMac.data());
        dhcps_lease_set_expires(l, kNow + 30);
        dhcps_lease_set_state(l, 0);
    }
};

// ---- record layout --------------------------------------------------------

TEST_F(Leases, FieldsAreBigEndianByteByByte) {
    dhcps_lease l{};
    dhcps_lease_set_state(&l, 0x01020304);
    dhcps_lease_set_expires(&l, -2);
    EXPECT_EQ(hex(l.state, 4), "01020304");
    EXPECT_EQ(hex(l.expires, 4), "fffffffe");
    EXPECT_EQ(dhcps_lease_state(&l), 0x01020304u);
    EXPECT_EQ(dhcps_lease_expires(&l), -2);
    std::memcpy(l.lease_time, "\x00\x00\x0e\x10", 4);
    EXPECT_EQ(dhcps_lease_time(&l), 3600u);
    std::memcpy(l.nip, "\x0a\x00\x00\x07", 4);
    EXPECT_EQ(dhcps_lease_nip(&l), nip("10.0.0.7"));
}

TEST_F(Leases, RecordsAreReadAtAnyAlignment) {
    static_assert(alignof(dhcps_lease) == 1);
    alignas(8) std::uint8_t raw[45] = {};
    auto *l = reinterpret_cast<dhcps_lease *>(raw + 1);
    dhcps_lease_set_expires(l, kNow);
    EXPECT_EQ(hex(raw + 5, 4), "6553f100");
    EXPECT_EQ(dhcps_lease_expires(l), kNow);
}

TEST_F(Leases, SettersOnARecordOutsideTheTableOnlyWriteItsBytes) {
    client(1, "10.0.0.1");
    dhcps_lease transient{};
    const auto m = mac(1);
    dhcps_lease_set_mac(&transient, m.data());
    dhcps_lease_set_expires(&transient, kNow - 100);
    EXPECT_EQ(hex(transient.mac, 6), "020000000001");
    EXPECT_EQ(dhcps_lease_expires(&transient), kNow - 100);
    EXPECT_NE(dhcps_find_lease_by_mac(m.data()), &transient);
    EXPECT_EQ(dhcps_get_active_leases_num(), 1);
    dhcps_lease_free(&transient);  // not ours: nothing happens
    EXPECT_EQ(dhcps_get_leases_num(), 1);
}

TEST_F(Leases, AMissingRecordIsReportedAndChangesNothing) {
    client(1, "10.0.0.1");
    const auto m = mac(1);
    dhcps_lease_free(nullptr);
    EXPECT_EQ(dhcps_lease_expired(nullptr), 0);
    EXPECT_EQ(dhcps_lease_nip(nullptr), 0u);
    dhcps_lease_set_mac(nullptr, m.data());
    dhcps_lease_set_mac(dhcps_find_lease_by_mac(m.data()), nullptr);
    dhcps_lease_set_expires(nullptr, kNow);
    EXPECT_EQ(texts(), std::vector<std::string>(6, "The input pointer is NULL!"));
    EXPECT_EQ(dhcps_get_leases_num(), 1);
    EXPECT_NE(dhcps_find_lease_by_mac(m.data()), nullptr);
}

// ---- order ----------------------------------------------------------------

TEST_F(Leases, ThreeClientsWalkThirdSecondFirstAndAConflictBetweenWalksFirst) {
    ASSERT_NE(client(1, "10.0.0.1", kNow + 3600, 1, "host1"), nullptr);
    ASSERT_NE(client(2, "10.0.0.2", kNow + 3600, 1, "host2"), nullptr);
    ASSERT_NE(conflict("10.0.0.9"), nullptr);
    ASSERT_NE(client(3, "10.0.0.3", kNow + 3600, 1, "host3"), nullptr);
    EXPECT_EQ(walk(), (std::vector<std::string>{"10.0.0.9", "10.0.0.3", "10.0.0.2", "10.0.0.1"}));

    dhcps_write_leases(file.c_str());
    EXPECT_EQ(
        hex(read_file(file).data(), read_file(file).size()),
        "000000016553ff1000000e100a000003020000000003686f7374330000000000000000000000000000000000"
        "000000016553ff1000000e100a000002020000000002686f7374320000000000000000000000000000000000"
        "000000016553ff1000000e100a000001020000000001686f7374310000000000000000000000000000000000");
}

TEST_F(Leases, OrderAfterMixedCreationsDeclinesAndConflicts) {
    client(1, "10.0.0.1");
    dhcps_lease *c2 = client(2, "10.0.0.2");
    conflict("10.0.0.101");
    dhcps_lease *c3 = client(3, "10.0.0.3");
    EXPECT_EQ(walk(), (std::vector<std::string>{"10.0.0.101", "10.0.0.3", "10.0.0.2", "10.0.0.1"}));

    // A declined lease keeps its place; the next record goes in before the
    // first record that still has a MAC, i.e. after it.
    decline(c3);
    client(4, "10.0.0.4");
    EXPECT_EQ(walk(), (std::vector<std::string>{"10.0.0.101", "10.0.0.3", "10.0.0.4", "10.0.0.2",
                                                "10.0.0.1"}));
    conflict("10.0.0.102");
    EXPECT_EQ(walk(), (std::vector<std::string>{"10.0.0.101", "10.0.0.3", "10.0.0.102", "10.0.0.4",
                                                "10.0.0.2", "10.0.0.1"}));
    // Declining a record further down does not move the insertion point.
    decline(c2);
    client(5, "10.0.0.5");
    EXPECT_EQ(walk(), (std::vector<std::string>{"10.0.0.101", "10.0.0.3", "10.0.0.102", "10.0.0.5",
                                                "10.0.0.4", "10.0.0.2", "10.0.0.1"}));
    // Once every record ahead of it is MAC-less, the point moves past them.
    decline(dhcps_find_lease_by_nip(nip("10.0.0.5")));
    decline(dhcps_find_lease_by_nip(nip("10.0.0.4")));
    conflict("10.0.0.103");
    EXPECT_EQ(walk(), (std::vector<std::string>{"10.0.0.101", "10.0.0.3", "10.0.0.102", "10.0.0.5",
                                                "10.0.0.4", "10.0.0.2", "10.0.0.103", "10.0.0.1"}));
    // A MAC-less record first in order answers for the zero MAC.
    EXPECT_EQ(dhcps_lease_nip(dhcps_find_lease_by_mac(kZeroMac.data())), nip("10.0.0.101"));
    // Replacing a client's lease puts the new one at the insertion point.
    client(1, "10.0.0.11");
    EXPECT_EQ(walk(),
              (std::vector<std::string>{"10.0.0.101", "10.0.0.3", "10.0.0.102", "10.0.0.5",
                                        "10.0.0.4", "10.0.0.2", "10.0.0.103", "10.0.0.11"}));
}

// The consistency check agrees with every index after each kind of change:
// creations, declines in place, expiry moves, clearing, deletion for space.
TEST_F(Leases, IndexesAgreeWithAPlainWalkAfterEveryChange) {
    EXPECT_EQ(dhcps_leases_check(), "");
    client(1, "10.0.0.1");
    dhcps_lease *c2 = client(2, "10.0.0.2", kNow - 5);
    conflict("10.0.0.101");
    EXPECT_EQ(dhcps_leases_check(), "");
    decline(c2);
    EXPECT_EQ(dhcps_leases_check(), "");
    dhcps_lease_set_expires(dhcps_find_lease_by_nip(nip("10.0.0.1")), kNow - 1);
    client(3, "10.0.0.101");  // replaces the conflict reservation
    client(1, "10.0.0.2");    // replaces both records of MAC 1 and address .2
    EXPECT_EQ(dhcps_leases_check(), "");
    dhcps_delete_an_expired_leases();
    dhcps_clear_leases(mac(3).data(), 0);
    EXPECT_EQ(dhcps_leases_check(), "");
    EXPECT_EQ(walk(), (std::vector<std::string>{"10.0.0.2"}));
}

TEST_F(Leases, LookupsAnswerTheFirstRecordInTableOrder) {
    dhcps_lease *a = client(1, "10.0.0.1");
    dhcps_lease *b = client(2, "10.0.0.2");
    dhcps_lease *c = client(3, "10.0.0.3");
    // Give two records the same MAC behind the clearing of dhcps_add_lease.
    const auto m = mac(7);
    dhcps_lease_set_mac(a, m.data());
    dhcps_lease_set_mac(c, m.data());
    EXPECT_EQ(dhcps_find_lease_by_mac(m.data()), c);  // c is walked before a
    dhcps_lease_free(c);
    EXPECT_EQ(dhcps_find_lease_by_mac(m.data()), a);
    const auto m2 = mac(2);
    EXPECT_EQ(dhcps_find_lease_by_mac(m2.data()), b);
    EXPECT_EQ(dhcps_find_lease_by_nip(nip("10.0.0.2")), b);
    EXPECT_EQ(dhcps_find_lease_by_nip(nip("10.0.0.9")), nullptr);
    EXPECT_EQ(dhcps_find_lease_by_mac(nullptr), nullptr);
    const auto m9 = mac(9);
    EXPECT_EQ(dhcps_find_lease_by_mac(m9.data()), nullptr);
}

TEST_F(Leases, ClearingMatchesByMacOrAddress) {
    client(1, "10.0.0.1");
    client(2, "10.0.0.2");
    client(3, "10.0.0.3");
    conflict("10.0.0.4");
    const auto m1 = mac(1);
    dhcps_clear_leases(m1.data(), nip("10.0.0.3"));
    EXPECT_EQ(walk(), (std::vector<std::string>{"10.0.0.4", "10.0.0.2"}));
    dhcps_clear_leases(nullptr, 0);  // matches nothing
    EXPECT_EQ(dhcps_get_leases_num(), 2);
    dhcps_clear_leases(kZeroMac.data(), 0);  // every MAC-less record
    EXPECT_EQ(walk(), (std::vector<std::string>{"10.0.0.2"}));
}

TEST_F(Leases, AddingReplacesTheRecordsOfTheSameMacAndAddress) {
    client(1, "10.0.0.1");
    client(2, "10.0.0.2");
    const auto m1 = mac(1);
    dhcps_lease *l =
        dhcps_add_lease(m1.data(), nip("10.0.0.2"), 7200, kNow + 7200, nullptr, 0, 1, 1);
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(walk(), (std::vector<std::string>{"10.0.0.2"}));
    EXPECT_EQ(dhcps_lease_time(l), 7200u);
    EXPECT_EQ(dhcps_lease_state(l), 1u);
    EXPECT_EQ(hex(l->pad, 2), "0000");
}

// ---- expiry and limits ----------------------------------------------------

TEST_F(Leases, ALeaseExpiringNowIsActiveAndExpiredOneSecondLater) {
    dhcps_lease *l = client(1, "10.0.0.1", kNow);
    EXPECT_EQ(dhcps_lease_expired(l), 0);
    EXPECT_EQ(dhcps_get_active_leases_num(), 1);
    kq_time_set(kNow + 1);
    EXPECT_EQ(dhcps_lease_expired(l), 1);
    EXPECT_EQ(dhcps_get_active_leases_num(), 0);
    EXPECT_EQ(dhcps_get_leases_num(), 1);
    kq_time_set(kNow - 1);  // the clock may go back: still counted right
    EXPECT_EQ(dhcps_get_active_leases_num(), 1);
}

TEST_F(Leases, ExpiryChangesThroughTheSetterKeepTheCount) {
    dhcps_lease *a = client(1, "10.0.0.1");
    client(2, "10.0.0.2");
    EXPECT_EQ(dhcps_get_active_leases_num(), 2);
    dhcps_lease_set_expires(a, kNow - 1);  // a RELEASE to an earlier time
    EXPECT_EQ(dhcps_get_active_leases_num(), 1);
    dhcps_lease_set_expires(a, kNow);  // a RELEASE moves the expiry to now
    EXPECT_EQ(dhcps_get_active_leases_num(), 2);
}

TEST_F(Leases, WithMaxActiveLeasesANewOneIsRefused) {
    dhcps_global.max_lease_num = 3;
    ASSERT_NE(client(1, "10.0.0.1"), nullptr);
    ASSERT_NE(conflict("10.0.0.2"), nullptr);
    ASSERT_NE(client(3, "10.0.0.3", kNow, 0), nullptr);  // expiring now: still active
    lines.clear();
    EXPECT_EQ(client(4, "10.0.0.4"), nullptr);
    EXPECT_EQ(texts(), (std::vector<std::string>{"The lease num exceeds max: 3"}));
    EXPECT_EQ(dhcps_get_leases_num(), 3);
    // Without the check the table takes it.
    const auto m = mac(4);
    EXPECT_NE(dhcps_add_lease(m.data(), nip("10.0.0.4"), 1, kNow, nullptr, 0, 1, 0), nullptr);
}

TEST_F(Leases, AFullTableLosesOneExpiredRecordAndRefusesThenAcceptsTheNextAttempt) {
    dhcps_global.max_lease_num = 3;
    client(1, "10.0.0.1", kNow - 5);
    client(2, "10.0.0.2", kNow - 10);
    client(3, "10.0.0.3");
    lines.clear();
    // Two expired: the one first in table order (10.0.0.2) goes.
    EXPECT_EQ(client(4, "10.0.0.4"), nullptr);
    EXPECT_EQ(texts(), (std::vector<std::string>{"dhcps_delete_an_expired_leases fail!"}));
    EXPECT_EQ(walk(), (std::vector<std::string>{"10.0.0.3", "10.0.0.1"}));
    lines.clear();
    EXPECT_NE(client(4, "10.0.0.4"), nullptr);
    EXPECT_TRUE(lines.empty());
    EXPECT_EQ(walk(), (std::vector<std::string>{"10.0.0.4", "10.0.0.3", "10.0.0.1"}));
}

TEST_F(Leases, DeletingAnExpiredLeaseTakesTheFirstInTableOrderAndAlwaysReportsZero) {
    EXPECT_EQ(dhcps_delete_an_expired_leases(), 0);  // nothing to delete
    conflict("10.0.0.9", kNow - 1);
    client(1, "10.0.0.1", kNow - 100);
    client(2, "10.0.0.2");
    EXPECT_EQ(dhcps_delete_an_expired_leases(), 0);
    EXPECT_EQ(walk(), (std::vector<std::string>{"10.0.0.2", "10.0.0.1"}));
    EXPECT_EQ(dhcps_delete_an_expired_leases(), 0);
    EXPECT_EQ(walk(), (std::vector<std::string>{"10.0.0.2"}));
    EXPECT_EQ(dhcps_delete_an_expired_leases(), 0);
    EXPECT_EQ(walk(), (std::vector<std::string>{"10.0.0.2"}));
}

// ---- host names -----------------------------------------------------------

TEST_F(Leases, AHostNameTakesTheByteAfterItThatIsTheNextOptionCode) {
    // Option 12 "ab" followed by option 55 in the message.
    const char message[] = {'a', 'b', 55, 3, 1, 3, 6};
    const auto m = mac(1);
    dhcps_lease *l = dhcps_add_lease(m.data(), nip("10.0.0.1"), 10, kNow + 10, message, 2, 0, 1);
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(std::string(l->hostname, 20), std::string("ab7") + std::string(17, '\0'));
}

TEST_F(Leases, HostNameBytesOutsidePrintableAsciiBecomeCarets) {
    const char name[] = "caf\xC3\xA9\x01x\x7f";
    const auto m = mac(1);
    dhcps_lease *l = dhcps_add_lease(m.data(), nip("10.0.0.1"), 10, kNow + 10, name, 8, 0, 1);
    ASSERT_NE(l, nullptr);
    EXPECT_STREQ(l->hostname, "caf^^^x^");
}

TEST_F(Leases, AHostNameStopsAtItsNulAndAtTwentyBytes) {
    const auto m = mac(1);
    dhcps_lease *l = dhcps_add_lease(m.data(), nip("10.0.0.1"), 10, kNow, "abc\0\x01\x01", 6, 0, 1);
    EXPECT_EQ(std::string(l->hostname, 20), std::string("abc") + std::string(17, '\0'));
    const char longer[] = "abcdefghijklmnopqrstuvwxyz";
    l = dhcps_add_lease(m.data(), nip("10.0.0.1"), 10, kNow, longer, 26, 0, 1);
    EXPECT_EQ(std::string(l->hostname, 20), "abcdefghijklmnopqrst");
    EXPECT_EQ(hex(l->pad, 2), "0000");  // not terminated, nothing beyond
    l = dhcps_add_lease(m.data(), nip("10.0.0.1"), 10, kNow, longer, 19, 0, 1);
    EXPECT_EQ(std::string(l->hostname, 20), "abcdefghijklmnopqrst");
    l = dhcps_add_lease(m.data(), nip("10.0.0.1"), 10, kNow, longer, 0, 0, 1);
    EXPECT_EQ(std::string(l->hostname, 2), std::string("a\0", 2));
    l = dhcps_add_lease(m.data(), nip("10.0.0.1"), 10, kNow, longer, -1, 0, 1);
    EXPECT_EQ(l->hostname[0], '\0');
}

TEST_F(Leases, AddingFromAnotherRecordsBytesIsSafe) {
    dhcps_lease *old = client(1, "10.0.0.1", kNow + 5, 1, "name");
    // The clearing frees `old` before its MAC and name are copied.
    dhcps_lease *l =
        dhcps_add_lease(old->mac, nip("10.0.0.1"), 20, kNow + 20, old->hostname, 4, 1, 1);
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(dhcps_get_leases_num(), 1);
    EXPECT_EQ(hex(l->mac, 6), "020000000001");
    EXPECT_STREQ(l->hostname, "name");
}

// ---- free-address search --------------------------------------------------

struct FreeIp : Leases {
    dhcps_pool pool;
    interface *ifp = nullptr;

    FreeIp() {
        pool.begin_ip = hip("10.0.0.0");
        pool.end_ip = hip("10.0.0.255");
        pool.server_ip = nip("10.0.0.1");
        ifp = if_get_by_name(kNoSuchIf);
    }

    void option(std::uint8_t code, const char *addr) {
        const std::uint32_t v = nip(addr);
        dhcp_attach_option(pool.options, dhcp_option{0x31, code},
                           {reinterpret_cast<const std::uint8_t *>(&v), 4});
    }

    void address(const char *text) {
        prefix p{};
        ASSERT_EQ(str2prefix(text, &p), 1);
        connected_add(ifp, 0, &p, nullptr);
    }

    // Leases on every address from `first` to `last` (last octets).
    static void lease_range(int first, int last, std::int32_t expires) {
        for (int i = first; i <= last; ++i) {
            const std::string a = "10.0.0." + std::to_string(i);
            const auto m = mac(static_cast<std::uint8_t>(i));
            ASSERT_NE(dhcps_add_lease(m.data(), nip(a.c_str()), 1, expires, nullptr, 0, 1, 0),
                      nullptr);
        }
    }
};

TEST_F(FreeIp, TheLowestFreeAddressWinsAndIsLogged) {
    const auto m = mac(99);
    EXPECT_EQ(dhcps_free_ip(ifp, &pool, m.data()), nip("10.0.0.2"));
    EXPECT_EQ(texts(), (std::vector<std::string>{"get free IP address: 0xa000002"}));
    lease_range(2, 3, kNow - 1000);  // expired leases still hold their addresses
    EXPECT_EQ(dhcps_free_ip(ifp, &pool, m.data()), nip("10.0.0.4"));
    EXPECT_EQ(dhcps_get_leases_num(), 2);
}

TEST_F(FreeIp, SkipsServerRouterDnsNetbiosOwnAddressesAndStaticBindings) {
    option(DHCP_ROUTER, "10.0.0.2");
    option(DHCP_DNS_SERVER, "10.0.0.3");
    option(DHCP_DNS_SERVER, "10.0.0.4");
    option(DHCP_WINS_SERVER, "10.0.0.5");
    address("10.0.0.6/24");
    pool.static_leases.push_back({nip("10.0.0.8"), {2, 0, 0, 0, 0, 8}});
    pool.static_leases.push_back({nip("10.0.0.7"), {2, 0, 0, 0, 0, 7}});
    pool.static_leases.push_back({nip("192.168.0.9"), {2, 0, 0, 0, 0, 9}});  // other range
    const auto m = mac(99);
    EXPECT_EQ(dhcps_free_ip(ifp, &pool, m.data()), nip("10.0.0.9"));
    // Without the interface its own address is fair game.
    EXPECT_EQ(dhcps_free_ip(nullptr, &pool, m.data()), nip("10.0.0.6"));
}

TEST_F(FreeIp, NeverOffersDotZeroOrDotTwoFiftyFiveEvenInsideAWiderNetwork) {
    pool.begin_ip = hip("10.0.1.0");
    pool.end_ip = hip("10.0.1.255");
    const auto m = mac(99);
    EXPECT_EQ(dhcps_free_ip(nullptr, &pool, m.data()), nip("10.0.1.1"));
    for (int i = 1; i <= 254; ++i) {
        const std::string a = "10.0.1." + std::to_string(i);
        const auto mm = std::array<std::uint8_t, 6>{2, 0, 0, 0, 1, static_cast<std::uint8_t>(i)};
        dhcps_add_lease(mm.data(), nip(a.c_str()), 1, kNow + 100, nullptr, 0, 1, 0);
    }
    EXPECT_EQ(dhcps_free_ip(nullptr, &pool, m.data()), 0u);
    // Across a wider range the first candidate after .255 is .1 of the next /24.
    pool.end_ip = hip("10.0.2.255");
    EXPECT_EQ(dhcps_free_ip(nullptr, &pool, m.data()), nip("10.0.2.1"));
}

TEST_F(FreeIp, AFullRangeWithoutExpiredLeasesGivesNothingAndProbesNothing) {
    pool.begin_ip = hip("10.0.0.10");
    pool.end_ip = hip("10.0.0.20");
    lease_range(10, 20, kNow);  // expiring now: none expired
    lines.clear();
    const auto m = mac(99);
    EXPECT_EQ(dhcps_free_ip(ifp, &pool, m.data()), 0u);
    EXPECT_TRUE(lines.empty());
    EXPECT_EQ(dhcps_get_leases_num(), 11);
}

TEST_F(FreeIp, WithoutAnInterfaceAnExpiredRangeIsNotProbed) {
    pool.begin_ip = hip("10.0.0.10");
    pool.end_ip = hip("10.0.0.12");
    lease_range(10, 12, kNow - 100);
    lines.clear();
    const auto m = mac(99);
    EXPECT_EQ(dhcps_free_ip(nullptr, &pool, m.data()), 0u);
    EXPECT_TRUE(lines.empty());
}

TEST_F(FreeIp, ProbeFindsAddressFreeAndNothingIsOffered) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs a packet socket: the probe must get as far as sending";
    }
    pool.begin_ip = hip("10.0.0.10");
    pool.end_ip = hip("10.0.0.12");
    lease_range(10, 12, kNow - 100);
    lines.clear();
    const auto m = mac(99);
    // Sending on an unknown interface fails: the probe answers free, and
    // the search gives nothing (kept so).
    EXPECT_EQ(dhcps_free_ip(ifp, &pool, m.data()), 0u);
    EXPECT_TRUE(lines.empty());
    const dhcps_lease *l = dhcps_find_lease_by_nip(nip("10.0.0.10"));
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(hex(l->mac, 6), "02000000000a");
}

// In a child without privileges the probe can't open its socket and answers
// "in use": the oldest expired address (the lower one of a tie) is reserved
// and handed back.
TEST_F(FreeIp, ProbeFindsOwnerTheOldestExpiredAddressIsReservedAndOffered) {
    pool.begin_ip = hip("10.0.0.10");
    pool.end_ip = hip("10.0.0.13");
    lease_range(10, 13, kNow + 100);
    // Expiry moved after creation (RELEASE-like), through the setter.
    dhcps_lease_set_expires(dhcps_find_lease_by_nip(nip("10.0.0.10")), kNow - 5);
    dhcps_lease_set_expires(dhcps_find_lease_by_nip(nip("10.0.0.12")), kNow - 10);
    dhcps_lease_set_expires(dhcps_find_lease_by_nip(nip("10.0.0.11")), kNow - 10);
    const auto m = mac(99);
    auto unprivileged_search = [&] {
        if (geteuid() == 0 &&
            (setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0)) {
            std::_Exit(2);
        }
        lines.clear();
        const std::uint32_t got = dhcps_free_ip(ifp, &pool, m.data());
        const dhcps_lease *l = dhcps_find_lease_by_nip(nip("10.0.0.11"));
        const std::vector<std::string> want{
            "can not create raw socket",
            "10.0.0.11 belongs to someone, reserving it for 60 seconds"};
        const bool ok = got == nip("10.0.0.11") && l != nullptr &&
                        hex(l->mac, 6) == "000000000000" && dhcps_lease_state(l) == 0 &&
                        dhcps_lease_time(l) == 60 && dhcps_lease_expires(l) == kNow + 60 &&
                        texts() == want;
        for (const auto &t : texts()) {
            std::fprintf(stderr, "%s\n", t.c_str());
        }
        std::_Exit(ok ? 0 : 1);
    };
    EXPECT_EXIT(unprivileged_search(), ::testing::ExitedWithCode(0), "");
}

TEST_F(FreeIp, NullArgumentsAreReported) {
    const auto m = mac(1);
    EXPECT_EQ(dhcps_free_ip(ifp, nullptr, m.data()), 0xffffffffu);
    EXPECT_EQ(dhcps_reserve_check(nullptr, &pool, nip("10.0.0.9"), m.data()), -1);
    EXPECT_EQ(dhcps_reserve_check(ifp, nullptr, nip("10.0.0.9"), m.data()), -1);
    EXPECT_EQ(texts(), std::vector<std::string>(3, "The input pointer is NULL!"));
}

TEST_F(FreeIp, AnEmptyOrInvertedRangeGivesNothing) {
    pool.begin_ip = hip("10.0.0.20");
    pool.end_ip = hip("10.0.0.10");
    const auto m = mac(1);
    EXPECT_EQ(dhcps_free_ip(nullptr, &pool, m.data()), 0u);
    pool.begin_ip = 0xfffffffe;  // a range reaching the top still ends
    pool.end_ip = 0xffffffff;
    EXPECT_EQ(dhcps_free_ip(nullptr, &pool, m.data()), nip("255.255.255.254"));
}

// ---- the lease file: writing ----------------------------------------------

TEST_F(Leases, UncommittedLeasesNeverReachTheFileAndExpiredOnesLeaveTheTable) {
    client(1, "10.0.0.1", kNow + 10, 0);  // an offer
    conflict("10.0.0.2");                 // a reservation
    client(3, "10.0.0.3", kNow - 1, 0);   // an expired offer
    client(4, "10.0.0.4", kNow - 1, 1);   // an expired grant: kept and written
    dhcps_write_leases(file.c_str());
    EXPECT_EQ(read_file(file), record(1, kNow - 1, 3600, "10.0.0.4", mac(4), ""));
    EXPECT_EQ(walk(), (std::vector<std::string>{"10.0.0.2", "10.0.0.4", "10.0.0.1"}));
}

TEST_F(Leases, AnEmptyTableWritesAnEmptyFile) {
    write_file(file, "old contents");
    dhcps_write_leases(file.c_str());
    ASSERT_TRUE(fs::exists(file));
    EXPECT_EQ(fs::file_size(file), 0u);
}

TEST_F(Leases, RecordsWithoutAnAddressAreNotWritten) {
    const auto m = mac(1);
    dhcps_add_lease(m.data(), 0, 10, kNow + 10, nullptr, 0, 1, 1);
    dhcps_write_leases(file.c_str());
    EXPECT_EQ(fs::file_size(file), 0u);
}

TEST_F(Leases, TheFileIsReplacedWholeWithModeFromTheUmaskAndNoTemporaryLeft) {
    write_file(file, std::string(440, 'x'));
    client(1, "10.0.0.1");
    const mode_t old = umask(022);
    dhcps_write_leases(file.c_str());
    umask(old);
    EXPECT_EQ(read_file(file), record(1, kNow + 3600, 3600, "10.0.0.1", mac(1), ""));
    EXPECT_EQ(fs::status(file).permissions(), fs::perms(0644));
    std::vector<std::string> names;
    for (const auto &e : fs::directory_iterator(dir)) {
        names.push_back(e.path().filename().string());
    }
    EXPECT_EQ(names, std::vector<std::string>{"dhcps.leases"});
}

TEST_F(Leases, AFailedWriteKeepsTheOldFile) {
    client(1, "10.0.0.1");
    dhcps_write_leases(file.c_str());
    const std::string before = read_file(file);
    for (std::uint8_t i = 2; i <= 20; ++i) {
        client(i, ("10.0.0." + std::to_string(i)).c_str());
    }
    // A file size limit below the new file makes the write fail half way.
    auto limited_write = [&] {
        std::signal(SIGXFSZ, SIG_IGN);
        const rlimit lim{200, 200};
        setrlimit(RLIMIT_FSIZE, &lim);
        dhcps_write_leases(file.c_str());
        std::_Exit(read_file(file) == before && !fs::exists(file + ".tmp") ? 0 : 1);
    };
    EXPECT_EXIT(limited_write(), ::testing::ExitedWithCode(0), "");
}

TEST_F(Leases, WritingWhereNothingCanBeCreatedIsSilent) {
    client(1, "10.0.0.1");
    lines.clear();
    dhcps_write_leases((dir + "/no/such/dir/leases").c_str());
    EXPECT_TRUE(lines.empty());
    EXPECT_EQ(dhcps_get_leases_num(), 1);
    dhcps_write_leases(nullptr);
    EXPECT_EQ(texts(), std::vector<std::string>{"The input pointer is NULL!"});
}

// ---- the lease file: loading ----------------------------------------------

TEST_F(Leases, LoadingReversesTheOrderAndCommitsEveryRecord) {
    write_file(file, record(0, kNow + 100, 100, "10.0.0.1", mac(1), "one") +
                         record(1, kNow + 200, 200, "10.0.0.2", mac(2), "two") +
                         record(7, kNow + 300, 300, "10.0.0.3", mac(3), "three"));
    dhcps_load_leases(file.c_str());
    EXPECT_EQ(walk(), (std::vector<std::string>{"10.0.0.3", "10.0.0.2", "10.0.0.1"}));
    EXPECT_TRUE(lines.empty());
    const dhcps_lease *l = dhcps_find_lease_by_nip(nip("10.0.0.1"));
    EXPECT_EQ(dhcps_lease_state(l), 1u);
    EXPECT_EQ(dhcps_lease_time(l), 100u);
    EXPECT_EQ(dhcps_lease_expires(l), kNow + 100);
    EXPECT_STREQ(l->hostname, "one");
    // Written again, the file comes out in the new order.
    dhcps_write_leases(file.c_str());
    EXPECT_EQ(read_file(file), record(1, kNow + 300, 300, "10.0.0.3", mac(3), "three") +
                                   record(1, kNow + 200, 200, "10.0.0.2", mac(2), "two") +
                                   record(1, kNow + 100, 100, "10.0.0.1", mac(1), "one"));
}

TEST_F(Leases, ALeaseThatEnded43200SecondsAgoIsLoadedAnd43201IsNot) {
    write_file(file, record(1, kNow - 43200, 60, "10.0.0.1", mac(1), "") +
                         record(1, kNow - 43201, 60, "10.0.0.2", mac(2), ""));
    dhcps_load_leases(file.c_str());
    EXPECT_EQ(walk(), std::vector<std::string>{"10.0.0.1"});
    EXPECT_TRUE(lines.empty());
}

TEST_F(Leases, LoadedHostNamesAreCleanedAndMayFillTheField) {
    std::string r = record(1, kNow, 1, "10.0.0.1", mac(1), "");
    std::memcpy(&r[22], "abcdefghij\x01\xC3klmnopqr", 20);
    r[42] = 'X';  // padding bytes of the file are not taken
    write_file(file, r);
    dhcps_load_leases(file.c_str());
    const dhcps_lease *l = dhcps_find_lease_by_nip(nip("10.0.0.1"));
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(std::string(l->hostname, 20), "abcdefghij^^klmnopqr");
    EXPECT_EQ(hex(l->pad, 2), "0000");
}

TEST_F(Leases, AMissingFileIsNormal) {
    dhcps_load_leases((dir + "/absent").c_str());
    EXPECT_TRUE(lines.empty());
    EXPECT_EQ(dhcps_get_leases_num(), 0);
    dhcps_load_leases(nullptr);
    EXPECT_EQ(texts(), std::vector<std::string>{"The input pointer is NULL!"});
}

TEST_F(Leases, AShortLastRecordIsIgnoredAndReported) {
    write_file(file, record(1, kNow, 1, "10.0.0.1", mac(1), "") +
                         record(1, kNow, 1, "10.0.0.2", mac(2), "") +
                         record(1, kNow, 1, "10.0.0.3", mac(3), "").substr(0, 30));
    dhcps_load_leases(file.c_str());
    EXPECT_EQ(walk(), (std::vector<std::string>{"10.0.0.2", "10.0.0.1"}));
    EXPECT_EQ(texts(),
              std::vector<std::string>{"lease file " + file +
                                       ": 30 trailing bytes ignored (not a whole record)"});
}

TEST_F(Leases, RecordsWithoutAnAddressAreSkippedAndReported) {
    write_file(file, record(1, kNow, 1, "0.0.0.0", mac(1), "") +
                         record(1, kNow, 1, "10.0.0.2", mac(2), ""));
    dhcps_load_leases(file.c_str());
    EXPECT_EQ(walk(), std::vector<std::string>{"10.0.0.2"});
    EXPECT_EQ(texts(), std::vector<std::string>{"lease file " + file +
                                                ": 1 records without an address skipped"});
}

TEST_F(Leases, GarbageLoadsOnlyWholeRecordsWithCleanNames) {
    std::string junk;
    std::uint64_t s = 12345;
    for (int i = 0; i < 44 * 500 + 17; ++i) {
        s = s * 6364136223846793005ULL + 1442695040888963407ULL;
        junk += static_cast<char>(s >> 56);
    }
    // A few records that look fresh, so some garbage gets in.
    for (std::size_t i = 0; i < 500; i += 7) {
        const std::uint32_t e = static_cast<std::uint32_t>(kNow + static_cast<std::int32_t>(i));
        for (std::size_t b = 0; b < 4; ++b) {
            junk[i * 44 + 4 + b] = static_cast<char>(e >> (24 - 8 * b));
        }
    }
    write_file(file, junk);
    dhcps_load_leases(file.c_str());
    EXPECT_GT(dhcps_get_leases_num(), 0);
    EXPECT_LE(dhcps_get_leases_num(), 500);
    dhcps_lease_foreach([](const dhcps_lease &l) {
        EXPECT_EQ(dhcps_lease_state(&l), 1u);
        EXPECT_NE(dhcps_lease_nip(&l), 0u);
        for (char c : std::string(l.hostname, strnlen(l.hostname, 20))) {
            EXPECT_TRUE(c >= 32 && c != 127) << static_cast<int>(c);
        }
    });
    EXPECT_EQ(texts().back(),
              "lease file " + file + ": 17 trailing bytes ignored (not a whole record)");
}

TEST_F(Leases, AFileBeyondTheLargestTableStopsAtItsLimit) {
    std::string bytes;
    for (std::uint32_t i = 0; i < 10245; ++i) {
        std::array<std::uint8_t, 6> m{2,
                                      0,
                                      0,
                                      static_cast<std::uint8_t>(i >> 16),
                                      static_cast<std::uint8_t>(i >> 8),
                                      static_cast<std::uint8_t>(i)};
        in_addr a{};
        a.s_addr = htonl(hip("10.0.0.0") + i + 1);
        bytes += record(1, kNow, 1, dotted(a.s_addr).c_str(), m, "");
    }
    write_file(file, bytes + "tail");
    dhcps_load_leases(file.c_str());
    EXPECT_EQ(dhcps_get_leases_num(), 10240);
    EXPECT_EQ(texts(), (std::vector<std::string>{
                           "too many leases while loading " + file,
                           "lease file " + file + ": 224 bytes after 10240 records ignored"}));
    // The first 10240 records of the file, the last of them walked first.
    EXPECT_EQ(walk().front(), dotted(htonl(hip("10.0.0.0") + 10240)));
}

TEST_F(Leases, AHugeFileStopsAtTheLimit) {
    { std::ofstream f(file, std::ios::binary); }
    fs::resize_file(file, std::uintmax_t{1} << 30);  // sparse: 1 GiB of zero records
    dhcps_load_leases(file.c_str());
    EXPECT_EQ(dhcps_get_leases_num(), 0);  // all zero: ended in 1970
    EXPECT_EQ(texts(),
              (std::vector<std::string>{
                  "too many leases while loading " + file,
                  "lease file " + file + ": 1073291264 bytes after 10240 records ignored"}));
}

int fifo_writer = -1;

TEST_F(Leases, NothingBeyondTheLimitIsRead) {
    // A pipe holds the records and what follows them; what the loader leaves
    // in it is what it did not read.
    const std::string fifo = dir + "/fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(reader, 0);
    fifo_writer = open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(fifo_writer, 0);
    const std::size_t beyond = 4096;
    // All zero: ended in 1970. The limit is 10240 records; one more is read
    // to tell a full file from a longer one.
    const std::string records(10250 * sizeof(dhcps_lease), '\0');
    ASSERT_GE(fcntl(fifo_writer, F_SETPIPE_SZ, 1 << 20), static_cast<int>(records.size() + beyond));
    const std::string bytes = records + std::string(beyond, 'x');
    ASSERT_EQ(write(fifo_writer, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    // A loader that read on would wait for more forever; should it, the
    // writer goes after a minute and it sees the end instead (and fails
    // below).
    struct sigaction sa {};
    sa.sa_handler = [](int) { close(fifo_writer); };
    struct sigaction old {};
    ASSERT_EQ(sigaction(SIGALRM, &sa, &old), 0);
    alarm(60);
    dhcps_load_leases(fifo.c_str());
    alarm(0);
    sigaction(SIGALRM, &old, nullptr);
    EXPECT_EQ(dhcps_get_leases_num(), 0);
    EXPECT_EQ(texts(), std::vector<std::string>{"too many leases while loading " + fifo});
    int left = 0;
    ASSERT_EQ(ioctl(reader, FIONREAD, &left), 0);
    EXPECT_EQ(left, static_cast<int>(9 * sizeof(dhcps_lease) + beyond));
    close(fifo_writer);
    close(reader);
}

TEST_F(Leases, AFileThatCannotBeReadIsReported) {
    const std::string d = dir + "/adir";
    fs::create_directory(d);
    dhcps_load_leases(d.c_str());
    EXPECT_EQ(dhcps_get_leases_num(), 0);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].second.rfind("lease file " + d + ": read error after 0 records", 0), 0u);
}

TEST_F(Leases, LoadingTakesMoreThanTheCurrentMaximum) {
    dhcps_global.max_lease_num = 2048;
    std::string bytes;
    for (std::uint32_t i = 0; i < 3000; ++i) {
        std::array<std::uint8_t, 6> m{
            2, 0, 0, 0, static_cast<std::uint8_t>(i >> 8), static_cast<std::uint8_t>(i)};
        bytes += record(1, kNow, 1, dotted(htonl(hip("10.1.0.0") + i + 1)).c_str(), m, "");
    }
    write_file(file, bytes);
    dhcps_load_leases(file.c_str());
    EXPECT_EQ(dhcps_get_leases_num(), 3000);
    EXPECT_TRUE(lines.empty());
}

// ---- truncation -----------------------------------------------------------

TEST_F(Leases, TruncationDropsExpiredThenNewestCommittedAndKeepsHeldOffers) {
    client(1, "10.0.0.1");                // committed
    client(2, "10.0.0.2", kNow - 1);      // committed, expired
    conflict("10.0.0.3");                 // reservation
    client(4, "10.0.0.4");                // committed
    client(5, "10.0.0.5", kNow + 10, 0);  // offer
    client(6, "10.0.0.6");                // committed
    ASSERT_EQ(walk(), (std::vector<std::string>{"10.0.0.3", "10.0.0.6", "10.0.0.5", "10.0.0.4",
                                                "10.0.0.2", "10.0.0.1"}));
    dhcps_leases_truncate(4);
    EXPECT_EQ(walk(), (std::vector<std::string>{"10.0.0.3", "10.0.0.5", "10.0.0.4", "10.0.0.1"}));
    EXPECT_EQ(read_file(file), record(1, kNow + 3600, 3600, "10.0.0.4", mac(4), "") +
                                   record(1, kNow + 3600, 3600, "10.0.0.1", mac(1), ""));
    dhcps_leases_truncate(1);  // held offers and reservations stay even so
    EXPECT_EQ(walk(), (std::vector<std::string>{"10.0.0.3", "10.0.0.5"}));
    EXPECT_EQ(fs::file_size(file), 0u);
}

TEST_F(Leases, TruncationThatDeletesNothingWritesNothing) {
    client(1, "10.0.0.1");
    dhcps_leases_truncate(1);
    EXPECT_FALSE(fs::exists(file));
    dhcps_leases_truncate(0);
    EXPECT_TRUE(fs::exists(file));
    EXPECT_EQ(dhcps_get_leases_num(), 0);
}

TEST_F(Leases, TruncationDeletesOnlyAsManyExpiredRecordsAsNeeded) {
    client(1, "10.0.0.1", kNow - 1);
    client(2, "10.0.0.2", kNow - 1);
    client(3, "10.0.0.3", kNow - 1);
    dhcps_leases_truncate(2);
    EXPECT_EQ(walk(), (std::vector<std::string>{"10.0.0.2", "10.0.0.1"}));
}

// ---- the write timer ------------------------------------------------------

// The scheduler's timers are fired by hand: the periods are read from the
// armed timers, never measured.
TEST_F(Leases, TheFirstRunComesOnePeriodAfterStartWhateverIsConfiguredMeanwhile) {
    thread_master *m = thread_master_create();
    ASSERT_EQ(dhcps_global.write_time, 300u);  // the default
    dhcps_write_timer_start(m);
    EXPECT_EQ(thread_timer_intervals(m), std::vector<long>{300000});
    dhcps_global.write_time = 30;  // counts from the next period
    client(1, "10.0.0.1");
    dhcps_global.leases_dirty = 1;
    EXPECT_EQ(thread_timer_intervals(m), std::vector<long>{300000});
    EXPECT_FALSE(fs::exists(file));  // nothing before the first run

    EXPECT_EQ(thread_fire_timers(m), 1);
    EXPECT_EQ(read_file(file), record(1, kNow + 3600, 3600, "10.0.0.1", mac(1), ""));
    EXPECT_EQ(dhcps_global.leases_dirty, 0u);
    EXPECT_EQ(thread_timer_intervals(m), std::vector<long>{30000});  // the new period

    fs::remove(file);
    EXPECT_EQ(thread_fire_timers(m), 1);  // fires clean: nothing written
    EXPECT_FALSE(fs::exists(file));
    EXPECT_EQ(thread_timer_intervals(m), std::vector<long>{30000});

    dhcps_global.write_time = 45;
    client(2, "10.0.0.2");
    dhcps_global.leases_dirty = 1;
    EXPECT_EQ(thread_fire_timers(m), 1);
    EXPECT_EQ(read_file(file), record(1, kNow + 3600, 3600, "10.0.0.2", mac(2), "") +
                                   record(1, kNow + 3600, 3600, "10.0.0.1", mac(1), ""));
    EXPECT_EQ(thread_timer_intervals(m), std::vector<long>{45000});
    dhcps_write_timer_stop();
    EXPECT_EQ(thread_count(m), 0u);
    thread_master_free(m);
}

TEST_F(Leases, TheTimerRunsOnTheRealLoop) {
    thread_master *m = thread_master_create();
    dhcps_global.write_time = 1;
    client(1, "10.0.0.1");
    dhcps_global.leases_dirty = 1;
    dhcps_write_timer_start(m);
    while (dhcps_global.leases_dirty != 0) {  // bounded by the test's time limit
        thread_run_once(m, 3000);
    }
    EXPECT_EQ(read_file(file), record(1, kNow + 3600, 3600, "10.0.0.1", mac(1), ""));
    EXPECT_EQ(thread_timer_intervals(m), std::vector<long>{1000});  // armed again
    dhcps_write_timer_stop();
    thread_master_free(m);
}

}  // namespace
