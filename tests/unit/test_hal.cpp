// The hardware-abstraction layer on Linux: DHCP trapping turned on and off
// by its two users, with frames through the trapped-frame channel, and the
// port of a learned MAC from the bridge's forwarding database (in a network
// namespace of our own, with its own sysfs for the port table).
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <thread>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "lib/unique_fd.h"
#include "platform/fdb_table.h"
#include "platform/hal.h"
#include "platform/trap.h"
#include "platform/uif.h"
#include "platform/util.h"

namespace {

TEST(HalMac, MissingArgumentsFail) {
    const std::uint8_t mac[6] = {2, 0, 0, 0, 0, 1};
    std::uint32_t port = 77;
    EXPECT_EQ(hal_mac_get_port(10, nullptr, &port), -1);
    EXPECT_EQ(port, 0u);
    EXPECT_EQ(hal_mac_get_port(10, mac, nullptr), -1);
}

// ---- the in-memory forwarding database, fed netlink messages ----

using bytes6 = std::array<std::uint8_t, 6>;
constexpr bytes6 kMacA = {0x02, 0, 0, 0, 0x0b, 0x01};
constexpr bytes6 kMacB = {0x02, 0, 0, 0, 0x0b, 0x02};

void put_attr(std::vector<std::uint8_t> &m, std::uint16_t type, const void *value,
              std::uint16_t len) {
    const std::uint16_t total = static_cast<std::uint16_t>(4 + len);
    const std::uint8_t hdr[4] = {
        static_cast<std::uint8_t>(total), static_cast<std::uint8_t>(total >> 8),
        static_cast<std::uint8_t>(type), static_cast<std::uint8_t>(type >> 8)};
    m.insert(m.end(), hdr, hdr + 4);
    const auto *v = static_cast<const std::uint8_t *>(value);
    m.insert(m.end(), v, v + len);
    m.resize((m.size() + 3) & ~std::size_t{3}, 0);
}

struct neigh {
    std::uint16_t type = RTM_NEWNEIGH;
    std::uint8_t family = AF_BRIDGE;
    std::uint8_t flags = 0;
    int ifindex = 0;
    bytes6 mac{};
    std::uint32_t master = 0;  // 0: no NDA_MASTER
    std::uint16_t vlan = 0;    // 0: no NDA_VLAN
};

// One netlink message as the kernel sends it.
std::vector<std::uint8_t> neigh_msg(const neigh &n) {
    std::vector<std::uint8_t> m(sizeof(nlmsghdr), 0);
    ndmsg ndm{};
    ndm.ndm_family = n.family;
    ndm.ndm_flags = n.flags;
    ndm.ndm_ifindex = n.ifindex;
    ndm.ndm_state = NUD_REACHABLE;
    const auto *p = reinterpret_cast<const std::uint8_t *>(&ndm);
    m.insert(m.end(), p, p + sizeof ndm);
    put_attr(m, NDA_LLADDR, n.mac.data(), 6);
    if (n.master != 0) {
        put_attr(m, NDA_MASTER, &n.master, 4);
    }
    if (n.vlan != 0) {
        put_attr(m, NDA_VLAN, &n.vlan, 2);
    }
    nlmsghdr h{};
    h.nlmsg_len = static_cast<std::uint32_t>(m.size());
    h.nlmsg_type = n.type;
    std::memcpy(m.data(), &h, sizeof h);
    return m;
}

std::vector<std::uint8_t> concat(std::initializer_list<std::vector<std::uint8_t>> parts) {
    std::vector<std::uint8_t> out;
    for (const auto &p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

TEST(FdbTable, LearnMoveDelete) {
    fdb_table t;
    EXPECT_EQ(t.feed(neigh_msg({.ifindex = 5, .mac = kMacA, .master = 3})), 1u);
    EXPECT_EQ(t.find(3, kMacA), 5);
    EXPECT_EQ(t.find(4, kMacA), 0);  // another bridge
    EXPECT_EQ(t.find(3, kMacB), 0);
    // The same entry again (a refresh) changes nothing; a new port moves it.
    EXPECT_EQ(t.feed(neigh_msg({.ifindex = 5, .mac = kMacA, .master = 3})), 0u);
    EXPECT_EQ(t.feed(neigh_msg({.ifindex = 6, .mac = kMacA, .master = 3})), 1u);
    EXPECT_EQ(t.find(3, kMacA), 6);
    EXPECT_EQ(t.feed(neigh_msg({.type = RTM_DELNEIGH, .ifindex = 6, .mac = kMacA, .master = 3})),
              1u);
    EXPECT_EQ(t.find(3, kMacA), 0);
    EXPECT_EQ(t.size(), 0u);
}

TEST(FdbTable, SeveralMessagesInOneDatagram) {
    fdb_table t;
    const auto d = concat({neigh_msg({.ifindex = 5, .mac = kMacA, .master = 3}),
                           neigh_msg({.ifindex = 7, .mac = kMacB, .master = 3}),
                           neigh_msg({.ifindex = 8, .mac = kMacA, .master = 9})});
    EXPECT_EQ(t.feed(d), 3u);
    EXPECT_EQ(t.find(3, kMacA), 5);
    EXPECT_EQ(t.find(3, kMacB), 7);
    EXPECT_EQ(t.find(9, kMacA), 8);
}

TEST(FdbTable, EntriesThatAreNotTheBridgesOwnAreIgnored) {
    const neigh kinds[] = {
        {.ifindex = 5, .mac = kMacA},                                  // no bridge named
        {.flags = NTF_SELF, .ifindex = 5, .mac = kMacA, .master = 3},  // a port's own list
        {.ifindex = 5, .mac = kMacA, .master = 3, .vlan = 10},         // a VLAN's entry
        {.family = AF_INET, .ifindex = 5, .mac = kMacA, .master = 3},  // not a bridge's
        {.ifindex = 0, .mac = kMacA, .master = 3},                     // no device
        {.type = RTM_NEWLINK, .ifindex = 5, .mac = kMacA, .master = 3},
    };
    for (const auto &k : kinds) {
        fdb_table t;
        EXPECT_EQ(t.feed(neigh_msg(k)), 0u);
        EXPECT_EQ(t.size(), 0u);
    }
}

TEST(FdbTable, MalformedMessagesAreIgnored) {
    const auto good = neigh_msg({.ifindex = 5, .mac = kMacA, .master = 3});
    std::vector<std::vector<std::uint8_t>> bad;
    for (std::size_t cut = 0; cut < good.size(); ++cut) {
        bad.emplace_back(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(cut));
    }
    auto longer = good;  // nlmsg_len past the datagram
    longer[0] = static_cast<std::uint8_t>(good.size() + 4);
    bad.push_back(longer);
    auto attr = good;  // the address's attribute length past the message
    attr[sizeof(nlmsghdr) + sizeof(ndmsg)] = 0xf0;
    bad.push_back(attr);
    auto tiny = good;  // nlmsg_len below the header's own size
    tiny[0] = 8;
    bad.push_back(tiny);
    for (const auto &b : bad) {
        fdb_table t;
        t.feed(b);
        EXPECT_EQ(t.find(3, kMacA), 0) << b.size();
    }
}

TEST(FdbTable, FullTableRefusesAndSaysSo) {
    fdb_table t;
    std::vector<std::uint8_t> d;
    for (std::size_t i = 0; i <= fdb_table::kMaxEntries; ++i) {
        bytes6 mac = {0x02,
                      0x01,
                      static_cast<std::uint8_t>(i >> 24),
                      static_cast<std::uint8_t>(i >> 16),
                      static_cast<std::uint8_t>(i >> 8),
                      static_cast<std::uint8_t>(i)};
        const auto m = neigh_msg({.ifindex = 5, .mac = mac, .master = 3});
        d.insert(d.end(), m.begin(), m.end());
    }
    EXPECT_EQ(t.feed(d), fdb_table::kMaxEntries);
    EXPECT_TRUE(t.overflowed());
    t.clear();
    EXPECT_FALSE(t.overflowed());
    EXPECT_EQ(t.size(), 0u);
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

// ---- trapping ----

using bytes = std::vector<std::uint8_t>;

// A DHCP request from h1's side, untagged or with one 802.1Q tag; `mark`
// makes each frame its own.
bytes dhcp_request(std::uint8_t mark, std::uint16_t tci = 0) {
    bytes f = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x02, 0x00, 0x00, 0x00, 0x0a, 0x01};
    if (tci != 0) {
        f.insert(f.end(),
                 {0x81, 0x00, static_cast<std::uint8_t>(tci >> 8), static_cast<std::uint8_t>(tci)});
    }
    const bytes ip_udp = {0x08, 0x00, 0x45, 0,   0,   48,  0,   1, 0,  0, 64, 17, 0,  0, 0,
                          0,    0,    0,    255, 255, 255, 255, 0, 68, 0, 67, 0,  28, 0, 0};
    const std::size_t ip = f.size() + 2;
    f.insert(f.end(), ip_udp.begin(), ip_udp.end());
    // A valid header checksum: the bridge checks it before flooding.
    const std::uint16_t sum = inet_cksum({f.data() + ip, 20});
    std::memcpy(f.data() + ip + 10, &sum, 2);
    f.insert(f.end(), {1, 1, 6, 0, 0xde, 0xad, 0xbe, mark});  // op .. xid
    f.resize(f.size() + 12, 0);
    return f;
}

struct trapped {
    std::uint32_t type;
    hal_trap_hdr hdr;
    bytes frame;
};
std::vector<trapped> caught;

int catch_frame(std::uint32_t type, std::uint8_t *msg, std::uint32_t frame_len) {
    trapped t{type, {}, {}};
    std::memcpy(&t.hdr, msg, sizeof t.hdr);
    const std::uint8_t *f = msg + sizeof t.hdr + t.hdr.gap;
    t.frame.assign(f, f + frame_len);
    caught.push_back(t);
    return 0;
}

unique_fd packet_socket(const char *dev) {
    unique_fd fd(socket(AF_PACKET, SOCK_RAW, htons(ETH_P_ALL)));
    sockaddr_ll sll{};
    sll.sll_family = AF_PACKET;
    sll.sll_protocol = htons(ETH_P_ALL);
    sll.sll_ifindex = static_cast<int>(if_nametoindex(dev));
    if (!fd || bind(fd.get(), reinterpret_cast<sockaddr *>(&sll), sizeof sll) != 0) {
        ADD_FAILURE() << "packet socket on " << dev << ": " << std::strerror(errno);
    }
    return fd;
}

// Waits up to `seconds` for `fd` to become readable.
bool readable(int fd, int seconds) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, seconds * 1000) == 1;
}

struct Trap : Switch {
    unique_fd h1, h2;
    void SetUp() override {
        Switch::SetUp();
        if (!IsSkipped()) {
            h1 = packet_socket("h1");
            h2 = packet_socket("h2");
        }
        caught.clear();
    }
    void TearDown() override {
        while (hal_dhcp_enabled() != 0) {
            hal_dhcp_enable(0);
        }
        Switch::TearDown();
    }
    // Sends `frame` into swp1 and waits until the bridge has flooded it to
    // h2: by then the channel has taken it or not.
    void send_through(const bytes &frame) {
        ASSERT_EQ(send(h1.get(), frame.data(), frame.size(), 0),
                  static_cast<ssize_t>(frame.size()));
        const bytes tail(frame.end() - 20, frame.end());
        std::uint8_t buf[2048];
        while (readable(h2.get(), 5)) {
            ssize_t n = recv(h2.get(), buf, sizeof buf, 0);
            if (n >= 20 && std::equal(tail.begin(), tail.end(), buf + n - 20)) {
                return;
            }
        }
        FAIL() << "the frame never crossed the switch";
    }
    // The next trapped message, waiting up to 5 seconds for one.
    static std::optional<trapped> next(int fd) {
        caught.clear();
        while (caught.empty() && readable(fd, 5)) {
            EXPECT_EQ(hal_recv(fd, catch_frame), 0);
        }
        if (caught.empty()) {
            return std::nullopt;
        }
        return caught.front();
    }
};

TEST_F(Trap, EachUserTurnsItOnAndOffAndTheDescriptorStays) {
    ASSERT_EQ(hal_dhcp_enable(1), 0);  // the server
    const int fd = hal_netlink_async;
    ASSERT_GE(fd, 0);
    EXPECT_EQ(hal_dhcp_enabled(), 1);
    ASSERT_EQ(hal_dhcp_enable(1), 0);  // the relay
    EXPECT_EQ(hal_netlink_async, fd);
    ASSERT_EQ(hal_dhcp_enable(0), 0);  // the server off: the relay's frames still come
    EXPECT_EQ(hal_dhcp_enabled(), 1);
    const bytes untagged = dhcp_request(1);
    send_through(untagged);
    auto t = next(fd);
    ASSERT_TRUE(t);
    EXPECT_EQ(t->type, HAL_MSG_TRAPPED_FRAME);
    EXPECT_EQ(t->hdr.port, 1u);
    EXPECT_EQ(t->hdr.vlan, 10);
    EXPECT_EQ(t->hdr.gap, HAL_TRAP_GAP);
    EXPECT_EQ(t->frame, untagged);
    // The kernel takes the tag out of the frame; the channel puts it back.
    const bytes tagged = dhcp_request(2, 0x2014);
    send_through(tagged);
    t = next(fd);
    ASSERT_TRUE(t);
    EXPECT_EQ(t->hdr.vlan, 20);
    EXPECT_EQ(t->frame, tagged);

    ASSERT_EQ(hal_dhcp_enable(0), 0);  // the relay off: nobody left
    EXPECT_EQ(hal_dhcp_enabled(), 0);
    EXPECT_EQ(hal_netlink_async, fd);
    send_through(dhcp_request(3));
    caught.clear();
    EXPECT_EQ(hal_recv(fd, catch_frame), 0);
    EXPECT_TRUE(caught.empty());
    EXPECT_EQ(hal_dhcp_enable(0), 0);  // an off too many changes nothing
    EXPECT_EQ(hal_dhcp_enabled(), 0);

    ASSERT_EQ(hal_dhcp_enable(1), 0);
    EXPECT_EQ(hal_netlink_async, fd);
    const bytes fresh = dhcp_request(4);
    send_through(fresh);
    t = next(fd);
    ASSERT_TRUE(t);
    EXPECT_EQ(t->frame, fresh);
}

TEST_F(Trap, FramesQueuedWhileOnlyTheServerTrappedAreDroppedWhenTheRelayComesOn) {
    ASSERT_EQ(hal_dhcp_enable(1), 0);  // the server, which never reads the channel
    const int fd = hal_netlink_async;
    send_through(dhcp_request(5));
    send_through(dhcp_request(6));
    ASSERT_EQ(hal_dhcp_enable(1), 0);  // the relay
    const bytes fresh = dhcp_request(7);
    send_through(fresh);
    auto t = next(fd);
    ASSERT_TRUE(t);
    EXPECT_EQ(t->frame, fresh);
}

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

TEST_F(Switch, SingleEntryQueriesGiveTheSameAnswers) {
    hal_fdb_use_table(0);
    const auto before = hal_fdb_stats();
    check_lookups("02:00:00:00:03:01", "02:00:00:00:03:02");
    EXPECT_GT(hal_fdb_stats().kernel_queries, before.kernel_queries);
    EXPECT_EQ(hal_fdb_stats().table_answers, before.table_answers);
    hal_fdb_use_table(1);
}

// The kernel's own view of `mac` in vlanif10: the port it is on, or "".
std::string kernel_port_of(const char *mac) {
    std::string cmd = std::string("bridge fdb show br vlanif10 | grep -i '^") + mac + " dev '";
    std::FILE *p = popen(cmd.c_str(), "r");
    if (p == nullptr) {
        return "";
    }
    char line[256] = {};
    std::string out = std::fgets(line, sizeof line, p) != nullptr ? line : "";
    pclose(p);
    const auto at = out.find(" dev ");
    return at == std::string::npos ? "" : out.substr(at + 5, out.find(' ', at + 5) - at - 5);
}

// Sends a frame with source `src` from the host side of a port, then waits
// (bounded) until the bridge has learned it where it came in.
void learn_from(const char *host, const char *port, const char *mac, std::uint8_t src_last) {
    auto fd = packet_socket(host);
    bytes f = dhcp_request(1);
    f[11] = src_last;
    f[10] = 0x0c;
    for (int i = 0; i < 500 && kernel_port_of(mac) != port; ++i) {
        send(fd.get(), f.data(), f.size(), 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_EQ(kernel_port_of(mac), port);
}

TEST_F(Switch, TableFollowsLearningMovesAndDeletions) {
    hal_fdb_use_table(1);
    port_of(10, "02:00:00:00:0c:00");  // the table is dumped here, at the latest
    const auto before = hal_fdb_stats();
    learn_from("h1", "swp1", "02:00:00:00:0c:07", 0x07);
    EXPECT_EQ(port_of(10, "02:00:00:00:0c:07"), UIF_INDEX_BASE | 1);
    learn_from("h2", "swp2", "02:00:00:00:0c:07", 0x07);  // the station moved
    EXPECT_EQ(port_of(10, "02:00:00:00:0c:07"), UIF_INDEX_BASE | 2);
    ASSERT_EQ(sh("bridge fdb del 02:00:00:00:0c:07 dev swp2 master"), 0);
    EXPECT_EQ(port_of(10, "02:00:00:00:0c:07"), 0u);
    // Static entries added and deleted by hand are followed the same way.
    ASSERT_EQ(sh("bridge fdb add 02:00:00:00:0c:08 dev swp1 master static"), 0);
    EXPECT_EQ(port_of(10, "02:00:00:00:0c:08"), UIF_INDEX_BASE | 1);
    ASSERT_EQ(sh("bridge fdb del 02:00:00:00:0c:08 dev swp1 master"), 0);
    EXPECT_EQ(port_of(10, "02:00:00:00:0c:08"), 0u);
    const auto after = hal_fdb_stats();
    EXPECT_EQ(after.kernel_queries, before.kernel_queries);  // no round trip
    EXPECT_EQ(after.dumps, before.dumps);
    EXPECT_EQ(after.table_answers, before.table_answers + 5);
}

TEST_F(Switch, EntriesPresentBeforeTheDumpAreFound) {
    ASSERT_EQ(sh("bridge fdb add 02:00:00:00:0d:01 dev swp2 master static"), 0);
    hal_fdb_use_table(0);  // dropped: the next lookup dumps again
    hal_fdb_use_table(1);
    const auto before = hal_fdb_stats();
    EXPECT_EQ(port_of(10, "02:00:00:00:0d:01"), UIF_INDEX_BASE | 2);
    EXPECT_EQ(hal_fdb_stats().dumps, before.dumps + 1);
    EXPECT_EQ(hal_fdb_stats().kernel_queries, before.kernel_queries);
}

}  // namespace
