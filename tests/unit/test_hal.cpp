// The hardware-abstraction layer on Linux: the DHCP trapping state, and the
// port of a learned MAC from the bridge's forwarding database (in a network
// namespace of our own, with its own sysfs for the port table).
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/hal.h"
#include "platform/uif.h"

namespace {

TEST(HalDhcp, EnableStateIsRecorded) {
    EXPECT_EQ(hal_dhcp_enable(1), 0);
    EXPECT_EQ(hal_dhcp_enabled(), 1);
    EXPECT_EQ(hal_dhcp_enable(0), 0);
    EXPECT_EQ(hal_dhcp_enabled(), 0);
    EXPECT_EQ(hal_dhcp_enable(7), 0);
    EXPECT_EQ(hal_dhcp_enabled(), 1);
    hal_dhcp_enable(0);
}

TEST(HalMac, MissingArgumentsFail) {
    const std::uint8_t mac[6] = {2, 0, 0, 0, 0, 1};
    std::uint32_t port = 77;
    EXPECT_EQ(hal_mac_get_port(10, nullptr, &port), -1);
    EXPECT_EQ(port, 0u);
    EXPECT_EQ(hal_mac_get_port(10, mac, nullptr), -1);
}

int sh(const std::string &cmd) {
    return std::system((cmd + " >/dev/null 2>&1").c_str());
}

// A switch of our own, made once for all tests (the lookup socket stays in
// the namespace it was opened in): bridges vlanif10 and vlanif20, ports swp1
// and swp2 (veths) in vlanif10. Each test uses MACs of its own.
struct Switch : ::testing::Test {
    static inline std::string sysfs;
    static inline std::string failure;

    static void SetUpTestSuite() {
        if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) {
            failure = std::string("no private namespaces: ") + std::strerror(errno);
            return;
        }
        char dir[] = "/tmp/hal-sysfs-XXXXXX";
        if (mkdtemp(dir) == nullptr ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            failure = "no private mounts";
            return;
        }
        sysfs = dir;
        // This namespace's netdevs only show in a sysfs mounted from inside it.
        if (mount("sysfs", sysfs.c_str(), "sysfs", 0, nullptr) != 0) {
            failure = std::string("no sysfs: ") + std::strerror(errno);
            return;
        }
        uif_set_sysfs_root(sysfs + "/class/net");
        if (sh("ip link set lo up && "
               "ip link add vlanif10 type bridge && ip link set vlanif10 up && "
               "ip link add vlanif20 type bridge && ip link set vlanif20 up && "
               "ip link add swp1 type veth peer name h1 && "
               "ip link add swp2 type veth peer name h2 && "
               "ip link set swp1 master vlanif10 up && ip link set swp2 master vlanif10 up && "
               "ip link set h1 up && ip link set h2 up") != 0) {
            failure = "ip failed";
            return;
        }
        uif_refresh();
    }
    static void TearDownTestSuite() {
        if (!sysfs.empty()) {
            uif_set_sysfs_root("/sys/class/net");
            umount(sysfs.c_str());
            rmdir(sysfs.c_str());
        }
    }
    void SetUp() override {
        if (!failure.empty()) {
            GTEST_SKIP() << failure;
        }
    }
    void TearDown() override { hal_fdb_force_dump(0); }

    static std::uint32_t port_of(std::uint16_t vid, const char *text, int *rc = nullptr) {
        unsigned v[6] = {};
        std::sscanf(text, "%x:%x:%x:%x:%x:%x", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5]);
        std::uint8_t mac[6];
        for (int i = 0; i < 6; ++i) {
            mac[i] = static_cast<std::uint8_t>(v[i]);
        }
        std::uint32_t port = 0xdead;
        int r = hal_mac_get_port(vid, mac, &port);
        if (rc != nullptr) {
            *rc = r;
        }
        return port;
    }
    // Two static entries, `a` on swp1 and `b` on swp2, then every kind of answer.
    void check_lookups(const char *a, const char *b) {
        ASSERT_EQ(sh(std::string("bridge fdb add ") + a + " dev swp1 master static && " +
                     "bridge fdb add " + b + " dev swp2 master static"),
                  0);
        int rc = -1;
        EXPECT_EQ(port_of(10, a, &rc), UIF_INDEX_BASE | 1);
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(port_of(10, b), UIF_INDEX_BASE | 2);
        EXPECT_EQ(port_of(10, "02:00:00:00:00:99", &rc), 0u);  // never learned
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(port_of(20, a), 0u);       // another VLAN's bridge
        EXPECT_EQ(port_of(30, a, &rc), 0u);  // no such VLAN
        EXPECT_EQ(rc, 0);
        // The bridge's own entries name no switch port.
        EXPECT_EQ(port_of(10, "33:33:00:00:00:01"), 0u);
    }
};

TEST_F(Switch, PortOfALearnedMac) {
    check_lookups("02:00:00:00:01:01", "02:00:00:00:01:02");
    // The entry moves to another port.
    ASSERT_EQ(sh("bridge fdb del 02:00:00:00:01:01 dev swp1 master && "
                 "bridge fdb add 02:00:00:00:01:01 dev swp2 master static"),
              0);
    EXPECT_EQ(port_of(10, "02:00:00:00:01:01"), UIF_INDEX_BASE | 2);
}

TEST_F(Switch, WholeDatabaseWalkGivesTheSameAnswers) {
    hal_fdb_force_dump(1);
    check_lookups("02:00:00:00:02:01", "02:00:00:00:02:02");
}

TEST_F(Switch, PortAddedAfterStartIsFound) {
    ASSERT_EQ(
        sh("ip link add swp7 type veth peer name h7 && ip link set swp7 master vlanif10 up && "
           "bridge fdb add 02:00:00:00:07:07 dev swp7 master static"),
        0);
    EXPECT_EQ(port_of(10, "02:00:00:00:07:07"), UIF_INDEX_BASE | 7);
}

}  // namespace
