// Ports and VLANs read from a sysfs tree.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "lib/if.h"
#include "platform/uif.h"

namespace fs = std::filesystem;

namespace {

struct Sysfs : ::testing::Test {
    // Test cases run as parallel processes: one tree each.
    fs::path root = fs::path(::testing::TempDir()) / ("uif-sysfs-" + std::to_string(getpid()));
    Sysfs() {
        fs::remove_all(root);
        fs::create_directories(root);
        uif_set_sysfs_root(root.string());
        netdev("vlanif10", 5, "02:00:00:00:10:00");
        netdev("vlanif20", 6, "02:00:00:00:20:00");
        netdev("vlanif0", 9, "02:00:00:00:00:09");  // not a valid VLAN
        port("swp1", 11, "02:00:00:00:00:01", "vlanif10");
        port("swp3", 13, "02:00:00:00:00:03", "vlanif20");
        port("eth0", 2, "02:00:00:00:00:ee", "");
        port("dummy", 3, "02:00:00:00:00:dd", "vlanif10");  // no number in its name
    }
    ~Sysfs() override {
        uif_set_sysfs_root("/sys/class/net");
        fs::remove_all(root);
    }
    void netdev(const std::string &name, int idx, const std::string &mac) {
        fs::create_directories(root / name);
        std::ofstream(root / name / "ifindex") << idx << "\n";
        std::ofstream(root / name / "address") << mac << "\n";
    }
    void port(const std::string &name, int idx, const std::string &mac, const std::string &br) {
        netdev(name, idx, mac);
        if (!br.empty()) {
            fs::create_symlink("../" + br, root / name / "master");
        }
    }
};

TEST_F(Sysfs, PortsAreNumberedByTheirNameAndKnowTheirVlan) {
    uif_init();
    uvlan_init();
    const uif *p = uif_lookup_by_name("swp3");
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->number, 3u);
    EXPECT_EQ(p->index, 0x01000003u);
    EXPECT_EQ(p->vid, 20);
    EXPECT_EQ(p->kernel_ifindex, 13);
    EXPECT_EQ(uif_lookup_by_index(0x01000001u)->name, "swp1");
    EXPECT_EQ(uif_lookup_by_number(1)->name, "swp1");
    EXPECT_EQ(uif_lookup_by_name("eth0"), nullptr);   // not in a VLAN bridge
    EXPECT_EQ(uif_lookup_by_name("dummy"), nullptr);  // no port number
    std::uint8_t mac[6];
    ASSERT_EQ(uif_get_portmac(0x01000003u, mac), 0);
    EXPECT_EQ(mac[5], 0x03);
    EXPECT_EQ(uif_get_portmac(0x01000009u, mac), -1);
    ASSERT_NE(uvlan_lookup(10), nullptr);
    EXPECT_EQ(uvlan_lookup(10)->kernel_ifindex, 5);
    EXPECT_EQ(uvlan_lookup(0), nullptr);
}

TEST_F(Sysfs, PortsAddedLaterAreFoundOnLookup) {
    uif_init();
    EXPECT_EQ(uif_lookup_by_name("swp4"), nullptr);
    port("swp4", 14, "02:00:00:00:00:04", "vlanif20");
    const uif *p = uif_lookup_by_name("swp4");
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->vid, 20);
}

struct VidCase {
    const char *name;
    std::uint16_t vid;
};
class Vid : public ::testing::TestWithParam<VidCase> {};
TEST_P(Vid, FromInterfaceName) {
    if_init();
    interface *ifp = if_get_by_name(GetParam().name);
    EXPECT_EQ(if_get_vid(ifp), GetParam().vid) << GetParam().name;
    if_terminate();
}
INSTANTIATE_TEST_SUITE_P(Table, Vid,
                         ::testing::Values(VidCase{"vlanif10", 10}, VidCase{"vlanif1", 1},
                                           VidCase{"vlanif4094", 4094}, VidCase{"vlanif4095", 0},
                                           VidCase{"vlanif0", 0}, VidCase{"vlanif", 0},
                                           VidCase{"vlanif1x", 0}, VidCase{"eth0", 0},
                                           VidCase{"swp1", 0}));

TEST(VidNull, NoInterfaceNoVlan) {
    EXPECT_EQ(if_get_vid(nullptr), 0);
}

}  // namespace

#include "platform/clock.h"
#include "platform/vemix.h"

namespace {

struct MacCase {
    const char *text;
    int rc;
    std::uint8_t mac[6];
};
class Str2Mac : public ::testing::TestWithParam<MacCase> {};
TEST_P(Str2Mac, ParsesOrRefuses) {
    std::uint8_t mac[6] = {9, 9, 9, 9, 9, 9};
    EXPECT_EQ(vemix_str2mac(GetParam().text, mac), GetParam().rc) << GetParam().text;
    static constexpr std::uint8_t untouched[6] = {9, 9, 9, 9, 9, 9};
    const std::uint8_t *want = GetParam().rc == 0 ? GetParam().mac : untouched;
    EXPECT_EQ(std::memcmp(mac, want, 6), 0);
}
INSTANTIATE_TEST_SUITE_P(
    Table, Str2Mac,
    ::testing::Values(MacCase{"00-11-22-aa-BB-cc", 0, {0x00, 0x11, 0x22, 0xaa, 0xbb, 0xcc}},
                      MacCase{"ff-ff-ff-ff-ff-ff", 0, {0xff, 0xff, 0xff, 0xff, 0xff, 0xff}},
                      MacCase{"00:11:22:33:44:55", -1, {}}, MacCase{"00-11-22-33-44", -1, {}},
                      MacCase{"00-11-22-33-44-5g", -1, {}}, MacCase{"00-11-22-33-44-555", -1, {}},
                      MacCase{"", -1, {}}));

TEST(Clock, PinnedAndReal) {
    kq_time_set(1000);
    EXPECT_EQ(kq_time_get(), 1000);
    kq_time_clear();
    EXPECT_GT(kq_time_get(), 1700000000);
}

}  // namespace
