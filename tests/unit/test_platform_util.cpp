#include "platform/util.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace {

struct HexCase {
    const char *text;
    std::size_t max;
    std::vector<std::uint8_t> bytes;
    int error;  // errno afterwards, 0 when untouched
};

class Hex2Bin : public ::testing::TestWithParam<HexCase> {};

TEST_P(Hex2Bin, ConvertsPairsAndFlagsMalformedText) {
    const HexCase &c = GetParam();
    std::vector<std::uint8_t> out(32, 0xee);
    errno = 0;
    std::uint8_t *end = hex2bin(out.data(), c.text, c.max);
    EXPECT_EQ(errno, c.error);
    ASSERT_EQ(static_cast<std::size_t>(end - out.data()), c.bytes.size());
    out.resize(c.bytes.size());
    EXPECT_EQ(out, c.bytes);
}

INSTANTIATE_TEST_SUITE_P(
    Table, Hex2Bin,
    ::testing::Values(HexCase{"", 16, {}, 0}, HexCase{"00", 16, {0x00}, 0},
                      HexCase{"0aFf10", 16, {0x0a, 0xff, 0x10}, 0},
                      HexCase{"deadBEEF", 16, {0xde, 0xad, 0xbe, 0xef}, 0},
                      HexCase{"abc", 16, {0xab}, EINVAL},  // lone trailing digit
                      HexCase{"a", 16, {}, EINVAL},
                      HexCase{"0g11", 16, {}, EINVAL},            // non-hex digit
                      HexCase{"11 22", 16, {0x11}, EINVAL},       // no separators
                      HexCase{"112233", 2, {0x11, 0x22}, E2BIG},  // more text than room
                      HexCase{"1122", 2, {0x11, 0x22}, 0},        // exactly full
                      HexCase{"11", 0, {}, E2BIG}));

std::uint16_t stored(const std::vector<std::uint8_t> &bytes) {
    return inet_cksum(std::span<const std::uint8_t>(bytes));
}

TEST(InetCksum, IpHeaderGolden) {
    std::vector<std::uint8_t> hdr = {0x45, 0x00, 0x00, 0x73, 0x00, 0x00, 0x40, 0x00, 0x40, 0x11,
                                     0x00, 0x00, 0xc0, 0xa8, 0x00, 0x01, 0xc0, 0xa8, 0x00, 0xc7};
    const std::uint16_t sum = stored(hdr);
    std::memcpy(&hdr[10], &sum, 2);
    EXPECT_EQ(hdr[10], 0xb8);
    EXPECT_EQ(hdr[11], 0x61);
    // A header carrying its checksum sums to zero.
    EXPECT_EQ(stored(hdr), 0);
}

TEST(InetCksum, Rfc1071Example) {
    // RFC 1071 section 3: the words sum to 0xddf2, so the checksum is 0x220d.
    const std::vector<std::uint8_t> data = {0x00, 0x01, 0xf2, 0x03, 0xf4, 0xf5, 0xf6, 0xf7};
    std::uint16_t sum = stored(data);
    std::uint8_t bytes[2];
    std::memcpy(bytes, &sum, 2);
    EXPECT_EQ(bytes[0], 0x22);
    EXPECT_EQ(bytes[1], 0x0d);
}

TEST(InetCksum, OddLengthPadsWithZero) {
    const std::vector<std::uint8_t> odd = {0x12, 0x34, 0x56};
    const std::vector<std::uint8_t> even = {0x12, 0x34, 0x56, 0x00};
    EXPECT_EQ(stored(odd), stored(even));
}

TEST(InetCksum, EmptyAndAllOnes) {
    EXPECT_EQ(stored({}), 0xffff);
    EXPECT_EQ(stored({0xff, 0xff}), 0x0000);
}

TEST(InetCksum, CarriesFoldAcrossManyWords) {
    const std::vector<std::uint8_t> data(1500, 0xff);
    EXPECT_EQ(stored(data), 0x0000);
    const std::vector<std::uint8_t> ones(3000, 0x01);
    // 1500 words of 0x0101: 0x5e1dc, folded 0xe1e1, complement 0x1e1e.
    std::uint16_t sum = stored(ones);
    std::uint8_t bytes[2];
    std::memcpy(bytes, &sum, 2);
    EXPECT_EQ(bytes[0], 0x1e);
    EXPECT_EQ(bytes[1], 0x1e);
}

TEST(MonotonicMs, AdvancesAtLeastAsMuchAsASleep) {
    // Both read CLOCK_MONOTONIC and a sleep lasts at least as long as asked,
    // however busy the machine; only the truncation to milliseconds is lost.
    const std::uint64_t a = monotonic_ms();
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    const std::uint64_t b = monotonic_ms();
    EXPECT_GE(b - a, 29u);
}

}  // namespace
