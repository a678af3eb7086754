// Prefix and address helpers.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>

#include "lib/prefix.h"
#include "lib/sockunion.h"

namespace {

std::string text(const prefix &p) {
    char buf[PREFIX_STRLEN];
    EXPECT_EQ(prefix2str(&p, buf, sizeof buf), 0);
    return buf;
}

struct Parse {
    const char *in;
    int ok;
    const char *out;
};

class Str2PrefixIpv4 : public ::testing::TestWithParam<Parse> {};

TEST_P(Str2PrefixIpv4, ParsesOrRefuses) {
    const Parse &c = GetParam();
    prefix_ipv4 p{};
    ASSERT_EQ(str2prefix_ipv4(c.in, &p), c.ok) << c.in;
    if (c.ok) {
        EXPECT_EQ(text(*as_prefix(&p)), c.out);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Table, Str2PrefixIpv4,
    ::testing::Values(Parse{"10.0.0.1", 1, "10.0.0.1/32"}, Parse{"10.0.0.1/24", 1, "10.0.0.1/24"},
                      Parse{"0.0.0.0/0", 1, "0.0.0.0/0"}, Parse{"1.2.3.4/32", 1, "1.2.3.4/32"},
                      Parse{"1.2.3.4/33", 0, ""}, Parse{"300.1.1.1", 0, ""}, Parse{"1.2.3", 0, ""},
                      Parse{"1.2.3.4/", 0, ""}, Parse{"1.2.3.4/2x", 0, ""}, Parse{"", 0, ""},
                      Parse{"example.com", 0, ""}, Parse{"1.2.3.4/0024", 0, ""}));

TEST(Prefix, Str2PrefixTakesBothFamilies) {
    prefix p{};
    ASSERT_EQ(str2prefix("192.168.1.1/24", &p), 1);
    EXPECT_EQ(p.family, AF_INET);
    EXPECT_EQ(text(p), "192.168.1.1/24");
    ASSERT_EQ(str2prefix("2001:db8::1/64", &p), 1);
    EXPECT_EQ(p.family, AF_INET6);
    EXPECT_EQ(text(p), "2001:db8::1/64");
    EXPECT_EQ(str2prefix("300.1.1.1", &p), 0);
    EXPECT_EQ(str2prefix(nullptr, &p), 0);
}

TEST(Prefix, Prefix2StrRefusesSmallBuffer) {
    prefix p{};
    str2prefix("192.168.100.100/24", &p);
    char small[8];
    EXPECT_EQ(prefix2str(&p, small, sizeof small), -1);
}

TEST(Prefix, ApplyMaskAndSame) {
    prefix_ipv4 a{}, b{};
    str2prefix_ipv4("192.168.1.77/24", &a);
    str2prefix_ipv4("192.168.1.0/24", &b);
    EXPECT_EQ(prefix_same(as_prefix(&a), as_prefix(&b)), 0);
    apply_mask_ipv4(&a);
    EXPECT_EQ(prefix_same(as_prefix(&a), as_prefix(&b)), 1);
    prefix c{};
    str2prefix("10.1.2.3/12", &c);
    apply_mask(&c);
    EXPECT_EQ(text(c), "10.0.0.0/12");
    prefix_ipv4 d{};
    str2prefix_ipv4("192.168.1.0/25", &d);
    EXPECT_EQ(prefix_same(as_prefix(&b), as_prefix(&d)), 0);  // lengths differ
}

TEST(Prefix, MatchIsContainment) {
    prefix net{}, host{}, other{};
    str2prefix("192.168.1.0/24", &net);
    str2prefix("192.168.1.200", &host);
    str2prefix("192.168.2.1", &other);
    EXPECT_EQ(prefix_match(&net, &host), 1);
    EXPECT_EQ(prefix_match(&net, &other), 0);
    EXPECT_EQ(prefix_match(&host, &net), 0);
}

struct MaskCase {
    int len;
    const char *mask;
};
class Masklen : public ::testing::TestWithParam<MaskCase> {};
TEST_P(Masklen, ToNetmaskAndBack) {
    in_addr m{};
    masklen2ip(GetParam().len, &m);
    char buf[INET_ADDRSTRLEN];
    EXPECT_STREQ(inet_ntop(AF_INET, &m, buf, sizeof buf), GetParam().mask);
    EXPECT_EQ(ip_masklen(m), GetParam().len);
}
INSTANTIATE_TEST_SUITE_P(Table, Masklen,
                         ::testing::Values(MaskCase{0, "0.0.0.0"}, MaskCase{1, "128.0.0.0"},
                                           MaskCase{8, "255.0.0.0"}, MaskCase{23, "255.255.254.0"},
                                           MaskCase{24, "255.255.255.0"},
                                           MaskCase{31, "255.255.255.254"},
                                           MaskCase{32, "255.255.255.255"}));

TEST(Prefix, BroadcastAddress) {
    auto bc = [](const char *addr, int len) {
        in_addr a{};
        inet_pton(AF_INET, addr, &a);
        in_addr b{ipv4_broadcast_addr(a.s_addr, len)};
        char buf[INET_ADDRSTRLEN];
        return std::string(inet_ntop(AF_INET, &b, buf, sizeof buf));
    };
    EXPECT_EQ(bc("192.168.1.1", 24), "192.168.1.255");
    EXPECT_EQ(bc("10.0.0.9", 8), "10.255.255.255");
    EXPECT_EQ(bc("10.0.0.9", 30), "10.0.0.11");
    EXPECT_EQ(bc("10.0.0.9", 32), "255.255.255.255");
}

TEST(Sockunion, RoundTripsBothFamilies) {
    sockunion su{};
    char buf[64];
    ASSERT_EQ(str2sockunion("192.0.2.7", &su), 0);
    EXPECT_EQ(su.sa.sa_family, AF_INET);
    EXPECT_STREQ(sockunion2str(&su, buf, sizeof buf), "192.0.2.7");
    ASSERT_EQ(str2sockunion("fe80::1", &su), 0);
    EXPECT_STREQ(sockunion2str(&su, buf, sizeof buf), "fe80::1");
    EXPECT_EQ(str2sockunion("300.1.1.1", &su), -1);
    EXPECT_EQ(str2sockunion(nullptr, &su), -1);
}

}  // namespace
