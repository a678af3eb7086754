// The trapped-frame channel's pieces: the kernel filter's verdicts (run by
// the kernel itself, on a datagram socket), the message built from a
// received frame, the ingress choice from the port and VLAN tables, and the
// tag removal the relay applies to the message.
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/trap.h"
#include "platform/uif.h"
#include "platform/vemix.h"

namespace fs = std::filesystem;

namespace {

using bytes = std::vector<std::uint8_t>;

void put16(bytes &b, unsigned v) {
    b.push_back(static_cast<std::uint8_t>(v >> 8));
    b.push_back(static_cast<std::uint8_t>(v));
}

// An Ethernet frame: broadcast to, 02:..:01 from, `tags` 4-byte tags (TPID,
// TCI pairs), then `type` and `l3`.
bytes ether(std::vector<std::pair<unsigned, unsigned>> tags, unsigned type, const bytes &l3) {
    bytes f = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
    for (auto [tpid, tci] : tags) {
        put16(f, tpid);
        put16(f, tci);
    }
    put16(f, type);
    f.insert(f.end(), l3.begin(), l3.end());
    return f;
}

struct ip_fields {
    unsigned version = 4;
    unsigned ihl = 5;
    unsigned proto = 17;
    unsigned frag = 0;  // flags and fragment offset
};

// An IPv4 packet with the given header fields, then source and destination
// port and 20 bytes of payload.
bytes ipv4(ip_fields s, unsigned sport, unsigned dport) {
    bytes p = {static_cast<std::uint8_t>(s.version << 4 | s.ihl), 0};
    put16(p, 0);  // total length: not looked at
    put16(p, 0x1234);
    put16(p, s.frag);
    p.push_back(64);
    p.push_back(static_cast<std::uint8_t>(s.proto));
    put16(p, 0);
    p.insert(p.end(), {0, 0, 0, 0, 255, 255, 255, 255});
    for (unsigned i = 5; i < s.ihl; ++i) {
        p.insert(p.end(), {1, 1, 1, 0});  // NOP options, one word each
    }
    put16(p, sport);
    put16(p, dport);
    p.resize(p.size() + 20, 0xab);
    return p;
}

bytes udp(unsigned sport, unsigned dport) {
    return ipv4({}, sport, dport);
}

// ---- the filter, judged by the kernel ----

struct FilterCase {
    const char *what;
    bytes frame;
    bool trapped;
};

// Runs `prog` as the receive filter of a datagram socket and tells whether
// `frame` got through.
bool passes(const sock_fprog &prog, const bytes &frame) {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_DGRAM, 0, sv) != 0) {
        ADD_FAILURE() << "socketpair";
        return false;
    }
    bool through = false;
    if (setsockopt(sv[0], SOL_SOCKET, SO_ATTACH_FILTER, &prog, sizeof prog) != 0) {
        ADD_FAILURE() << "filter refused: " << std::strerror(errno);
    } else if (send(sv[1], frame.data(), frame.size(), 0) != static_cast<ssize_t>(frame.size())) {
        ADD_FAILURE() << "send";
    } else {
        std::uint8_t buf[2048];
        ssize_t n = recv(sv[0], buf, sizeof buf, MSG_DONTWAIT);
        through = n == static_cast<ssize_t>(frame.size()) &&
                  std::memcmp(buf, frame.data(), frame.size()) == 0;
    }
    close(sv[0]);
    close(sv[1]);
    return through;
}

class TrapFilter : public ::testing::TestWithParam<FilterCase> {};

TEST_P(TrapFilter, MatchesAsTheTrapRuleDoes) {
    const FilterCase &c = GetParam();
    EXPECT_EQ(passes(trap_filter_dhcp(), c.frame), c.trapped) << c.what;
    EXPECT_FALSE(passes(trap_filter_none(), c.frame)) << c.what;
}

// With bridges to refuse, the rule gives the same verdicts for a frame that
// came in on none of them (a datagram socket's frames have no device; the
// system tests show the refusal by interface).
TEST_P(TrapFilter, RuleWithBridgesToRefuseKeepsTheVerdicts) {
    const FilterCase &c = GetParam();
    const int bridges[] = {5, 6, 9};
    std::vector<sock_filter> rule = trap_filter_skipping(bridges);
    const sock_fprog prog{static_cast<unsigned short>(rule.size()), rule.data()};
    EXPECT_EQ(passes(prog, c.frame), c.trapped) << c.what;
}

TEST(TrapFilterSkipping, EachBridgeAddsATestAndARefusal) {
    const sock_fprog &plain = trap_filter_dhcp();
    EXPECT_EQ(trap_filter_skipping({}).size(), plain.len);
    EXPECT_TRUE(std::equal(plain.filter, plain.filter + plain.len, trap_filter_skipping({}).begin(),
                           [](const sock_filter &a, const sock_filter &b) {
                               return a.code == b.code && a.jt == b.jt && a.jf == b.jf &&
                                      a.k == b.k;
                           }));
    const int one[] = {5};
    const int three[] = {5, 6, 9};
    const std::size_t base = trap_filter_skipping(one).size();
    EXPECT_EQ(trap_filter_skipping(three).size(), base + 4);
    const std::vector<sock_filter> rule = trap_filter_skipping(three);
    for (std::size_t i = 0; i < 3; ++i) {
        const sock_filter &test = rule[rule.size() - 7 + 2 * i];
        const sock_filter &refuse = rule[rule.size() - 6 + 2 * i];
        EXPECT_EQ(test.code, BPF_JMP | BPF_JEQ | BPF_K);
        EXPECT_EQ(test.k, static_cast<std::uint32_t>(three[i]));
        EXPECT_EQ(refuse.code, BPF_RET | BPF_K);
        EXPECT_EQ(refuse.k, 0u);
    }
    EXPECT_EQ(rule.back().code, BPF_RET | BPF_K);
    EXPECT_NE(rule.back().k, 0u);
}

bytes cut(bytes b, std::size_t n) {
    b.resize(n);
    return b;
}

INSTANTIATE_TEST_SUITE_P(
    Frames, TrapFilter,
    ::testing::Values(
        FilterCase{"client request", ether({}, 0x0800, udp(68, 67)), true},
        FilterCase{"server reply", ether({}, 0x0800, udp(67, 68)), true},
        FilterCase{"relayed request, 67 to 67", ether({}, 0x0800, udp(67, 67)), true},
        FilterCase{"tagged request", ether({{0x8100, 10}}, 0x0800, udp(68, 67)), true},
        FilterCase{"tagged, priority bits", ether({{0x8100, 0xe00a}}, 0x0800, udp(68, 67)), true},
        FilterCase{"TCP to 67", ether({}, 0x0800, ipv4({.proto = 6}, 40000, 67)), true},
        FilterCase{"TCP from 68", ether({}, 0x0800, ipv4({.proto = 6}, 68, 40000)), true},
        FilterCase{"UDP 68 to 546", ether({}, 0x0800, udp(68, 546)), true},
        FilterCase{"UDP 546 to 68", ether({}, 0x0800, udp(546, 68)), true},
        FilterCase{"header with options", ether({}, 0x0800, ipv4({.ihl = 6}, 68, 67)), true},
        FilterCase{"longest header", ether({}, 0x0800, ipv4({.ihl = 15}, 68, 67)), true},
        FilterCase{"first fragment", ether({}, 0x0800, ipv4({.frag = 0x2000}, 68, 67)), true},
        FilterCase{"DNS", ether({}, 0x0800, udp(5353, 53)), false},
        FilterCase{"UDP 66 to 69", ether({}, 0x0800, udp(66, 69)), false},
        FilterCase{"ICMP", ether({}, 0x0800, ipv4({.proto = 1}, 68, 67)), false},
        FilterCase{"SCTP", ether({}, 0x0800, ipv4({.proto = 132}, 68, 67)), false},
        FilterCase{"later fragment", ether({}, 0x0800, ipv4({.frag = 0x0010}, 68, 67)), false},
        FilterCase{"later, last fragment", ether({}, 0x0800, ipv4({.frag = 1}, 68, 67)), false},
        FilterCase{"IPv6 ethertype", ether({}, 0x86dd, udp(68, 67)), false},
        FilterCase{"ARP", ether({}, 0x0806, udp(68, 67)), false},
        FilterCase{"version 6 in IPv4", ether({}, 0x0800, ipv4({.version = 6}, 68, 67)), false},
        FilterCase{"header length 4", ether({}, 0x0800, ipv4({.ihl = 4}, 68, 67)), false},
        // Ports 68/67 where a 20-byte header would end, other ports after
        // the real (24-byte) one: the header length is honoured.
        FilterCase{"ports behind the options",
                   [] {
                       bytes p = ipv4({.ihl = 6}, 1000, 2000);
                       p[20] = 0, p[21] = 68, p[22] = 0, p[23] = 67;
                       return ether({}, 0x0800, p);
                   }(),
                   false},
        FilterCase{"two tags", ether({{0x8100, 10}, {0x8100, 20}}, 0x0800, udp(68, 67)), false},
        FilterCase{"802.1ad tag", ether({{0x88a8, 10}}, 0x0800, udp(68, 67)), false},
        FilterCase{"tagged IPv6", ether({{0x8100, 10}}, 0x86dd, udp(68, 67)), false},
        FilterCase{"cut in the ports", cut(ether({}, 0x0800, udp(68, 67)), 35), false},
        FilterCase{"cut in the tag", cut(ether({{0x8100, 10}}, 0x0800, udp(68, 67)), 15),
                   false},
        FilterCase{"runt", bytes(10, 0), false}),
    [](const ::testing::TestParamInfo<FilterCase> &param_info) {
        std::string name = param_info.param.what;
        std::replace_if(name.begin(), name.end(), [](char ch) { return !std::isalnum(ch); }, '_');
        return name;
    });

// ---- the message ----

TEST(TrapHeader, FieldsSitWhereTheRelayReadsThem) {
    EXPECT_EQ(offsetof(hal_trap_hdr, port), 0u);
    EXPECT_EQ(offsetof(hal_trap_hdr, vlan), 8u);
    EXPECT_EQ(offsetof(hal_trap_hdr, gap), 12u);
    EXPECT_EQ(sizeof(hal_trap_hdr), 32u);
}

// The header bytes a message must start with, host order.
bytes header(std::uint32_t port, std::uint16_t vlan) {
    hal_trap_hdr h{};
    h.port = port;
    h.vlan = vlan;
    h.gap = HAL_TRAP_GAP;
    bytes b(sizeof h);
    std::memcpy(b.data(), &h, sizeof h);
    b.resize(b.size() + HAL_TRAP_GAP, 0);  // the gap reads 0
    return b;
}

struct Built {
    std::size_t len;
    bytes msg;  // header, gap, frame (the frame's length), rest unused
};

Built build(const bytes &frame, trap_ingress in, trap_aux aux,
            std::size_t room = HAL_TRAP_MSG_MAX) {
    bytes out(room, 0xee);
    std::size_t len = trap_build_msg(out, frame, in, aux);
    out.resize(len == 0 ? 0 : sizeof(hal_trap_hdr) + HAL_TRAP_GAP + len);
    return {len, out};
}

bytes concat(bytes a, const bytes &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

const trap_ingress SWP3{3, 10};

TEST(TrapMessage, UntaggedFrameFollowsTheHeaderAndGapAsReceived) {
    bytes f = ether({}, 0x0800, udp(68, 67));
    Built b = build(f, SWP3, {});
    EXPECT_EQ(b.len, f.size());
    EXPECT_EQ(b.msg, concat(header(3, 10), f));
}

TEST(TrapMessage, TagHeldAsideIsPutBackAfterTheMacs) {
    bytes untagged = ether({}, 0x0800, udp(68, 67));
    bytes tagged = ether({{0x8100, 0x2014}}, 0x0800, udp(68, 67));
    for (std::uint16_t tpid :
         {std::uint16_t{0x8100}, std::uint16_t{0}}) {  // 0: the kernel did not name it
        Built b = build(untagged, SWP3, {true, tpid, 0x2014});
        EXPECT_EQ(b.len, tagged.size());
        EXPECT_EQ(b.msg, concat(header(3, 20), tagged));  // VID 20, priority 1 kept
    }
}

TEST(TrapMessage, TagInTheFrameIsLeftAndNamesTheVlan) {
    bytes tagged = ether({{0x8100, 30}}, 0x0800, udp(68, 67));
    Built b = build(tagged, SWP3, {});
    EXPECT_EQ(b.len, tagged.size());
    EXPECT_EQ(b.msg, concat(header(3, 30), tagged));
}

TEST(TrapMessage, PriorityTagKeepsThePortsVlan) {
    bytes untagged = ether({}, 0x0800, udp(68, 67));
    Built aside = build(untagged, SWP3, {true, 0x8100, 0xa000});
    EXPECT_EQ(aside.msg, concat(header(3, 10), ether({{0x8100, 0xa000}}, 0x0800, udp(68, 67))));
    bytes in_frame = ether({{0x8100, 0x6000}}, 0x0800, udp(68, 67));
    EXPECT_EQ(build(in_frame, SWP3, {}).msg, concat(header(3, 10), in_frame));
}

TEST(TrapMessage, NetdevThatIsNotABridgeGivesPortZero) {
    bytes f = ether({}, 0x0800, udp(67, 68));
    EXPECT_EQ(build(f, {0, 30}, {}).msg, concat(header(0, 30), f));
}

TEST(TrapMessage, FramesAChipWouldNotDeliverAreDropped) {
    bytes f = ether({}, 0x0800, udp(68, 67));
    EXPECT_EQ(build(cut(f, 13), SWP3, {}).len, 0u);                                 // runt
    EXPECT_EQ(build(cut(ether({{0x8100, 5}}, 0x0800, {}), 17), SWP3, {}).len, 0u);  // cut tag
    EXPECT_EQ(build(f, SWP3, {true, 0x88a8, 5}).len, 0u);                           // 802.1ad aside
    EXPECT_EQ(build(ether({{0x8100, 5}}, 0x0800, udp(68, 67)), SWP3, {true, 0x8100, 6}).len,
              0u);  // a second tag
}

TEST(TrapMessage, FrameMustFitTheBuffer) {
    bytes f = ether({}, 0x0800, udp(68, 67));
    const std::size_t head = sizeof(hal_trap_hdr) + HAL_TRAP_GAP;
    EXPECT_EQ(build(f, SWP3, {}, head + f.size()).len, f.size());
    EXPECT_EQ(build(f, SWP3, {}, head + f.size() - 1).len, 0u);
    EXPECT_EQ(build(f, SWP3, {true, 0x8100, 7}, head + f.size() + 4).len, f.size() + 4);
    EXPECT_EQ(build(f, SWP3, {true, 0x8100, 7}, head + f.size() + 3).len, 0u);
    EXPECT_EQ(build(f, SWP3, {}, 10).len, 0u);
    // The largest frame taken, tag put back, fits the channel's message.
    bytes big = ether({}, 0x0800, bytes(HAL_TRAP_FRAME_MAX - 14, 0));
    EXPECT_EQ(build(big, SWP3, {true, 0x8100, 7}).len, HAL_TRAP_FRAME_MAX + 4);
}

// ---- the relay's side: tag removal on the message ----

TEST(RemoveTag, TaggedFrameLosesItsTagInPlace) {
    bytes untagged = ether({}, 0x0800, udp(68, 67));
    Built b = build(untagged, SWP3, {true, 0x8100, 10});
    std::uint8_t *frame = b.msg.data() + sizeof(hal_trap_hdr) + HAL_TRAP_GAP;
    std::uint8_t *start = vemix_remove_tag(frame);
    ASSERT_EQ(start, frame + 4);
    EXPECT_EQ(bytes(start, start + untagged.size()), untagged);
}

TEST(RemoveTag, UntaggedFrameIsLeftAlone) {
    bytes f = ether({}, 0x0800, udp(68, 67));
    bytes copy = f;
    EXPECT_EQ(vemix_remove_tag(copy.data()), copy.data());
    EXPECT_EQ(copy, f);
    bytes ad = ether({{0x88a8, 10}}, 0x0800, udp(68, 67));
    copy = ad;
    EXPECT_EQ(vemix_remove_tag(copy.data()), copy.data());
    EXPECT_EQ(copy, ad);
    EXPECT_EQ(vemix_remove_tag(nullptr), nullptr);
}

// ---- reading ----

int never(std::uint32_t, std::uint8_t *, std::uint32_t) {
    ADD_FAILURE() << "callback called";
    return 0;
}

TEST(TrapRecv, MissingArgumentsAndReadErrorsFail) {
    EXPECT_EQ(hal_recv(-1, never), -1);
    EXPECT_EQ(hal_recv(0, nullptr), -1);
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, sv), 0);
    EXPECT_EQ(hal_recv(sv[0], never), 0);  // nothing waiting
    close(sv[0]);
    close(sv[1]);
    EXPECT_EQ(hal_recv(sv[0], never), -1);  // closed descriptor
}

// ---- where a frame came in ----

struct Tables : ::testing::Test {
    fs::path root = fs::path(::testing::TempDir()) / ("trap-sysfs-" + std::to_string(getpid()));
    Tables() {
        fs::remove_all(root);
        fs::create_directories(root);
        uif_set_sysfs_root(root.string());
        netdev("vlanif10", 5, true);
        netdev("vlanif20", 6, true);
        netdev("vlanif30", 7, false);  // a plain netdev carrying VLAN 30
        netdev("br0", 8, true);
        port("swp1", 11, "vlanif10");
        port("swp12", 12, "vlanif20");
        port("swp5", 15, "br0");  // in a bridge that is no VLAN
        port("eth0", 2, "");
        uif_init();
        uvlan_init();
    }
    ~Tables() override {
        uif_set_sysfs_root("/sys/class/net");
        fs::remove_all(root);
    }
    void netdev(const std::string &name, int idx, bool bridge) {
        fs::create_directories(root / name);
        std::ofstream(root / name / "ifindex") << idx << "\n";
        std::ofstream(root / name / "address") << "02:00:00:00:00:" << idx << "\n";
        if (bridge) {
            fs::create_directories(root / name / "bridge");
        }
    }
    void port(const std::string &name, int idx, const std::string &br) {
        netdev(name, idx, false);
        if (!br.empty()) {
            fs::create_symlink("../" + br, root / name / "master");
        }
    }
};

struct SourceCase {
    int ifindex;
    trap_source source;
    std::uint32_t port;
    std::uint16_t vid;
};

TEST_F(Tables, IngressIsASwitchPortOrAVlanNetdevThatIsNoBridge) {
    for (const SourceCase &c : {
             SourceCase{11, trap_source::ingress, 1, 10},   // swp1
             SourceCase{12, trap_source::ingress, 12, 20},  // swp12
             SourceCase{7, trap_source::ingress, 0, 30},    // vlanif30, not a bridge
             SourceCase{5, trap_source::other, 0, 0},       // bridge vlanif10 itself
             SourceCase{6, trap_source::other, 0, 0},       // bridge vlanif20
             SourceCase{15, trap_source::unknown, 0, 0},    // port of br0
             SourceCase{8, trap_source::unknown, 0, 0},     // br0
             SourceCase{2, trap_source::unknown, 0, 0},     // eth0
             SourceCase{99, trap_source::unknown, 0, 0},    // no such netdev
             SourceCase{0, trap_source::unknown, 0, 0},
         }) {
        trap_ingress in;
        EXPECT_EQ(trap_source_of(c.ifindex, &in), c.source) << c.ifindex;
        EXPECT_EQ(in.port, c.port) << c.ifindex;
        EXPECT_EQ(in.vid, c.vid) << c.ifindex;
    }
}

TEST_F(Tables, TheTablesAreNotReReadPerFrame) {
    port("swp7", 17, "vlanif10");
    trap_ingress in;
    EXPECT_EQ(trap_source_of(17, &in), trap_source::unknown);
    uif_refresh();
    EXPECT_EQ(trap_source_of(17, &in), trap_source::ingress);
    EXPECT_EQ(in.port, 7u);
}

TEST_F(Tables, PortLookupsTakeTheBarePortNumber) {
    std::uint8_t mac[6] = {};
    ASSERT_EQ(uif_get_portmac(12, mac), 0);  // swp12, as a trapped frame names it
    EXPECT_EQ(mac[5], 0x12);
    ASSERT_NE(uif_lookup_by_index(1), nullptr);
    EXPECT_EQ(uif_lookup_by_index(1)->name, "swp1");
    EXPECT_EQ(uif_lookup_by_index(0), nullptr);  // port 0 names no port
    EXPECT_EQ(uif_get_portmac(0, mac), -1);
    EXPECT_EQ(uif_get_portmac(5, mac), -1);  // swp5 is no switch port
}

}  // namespace
