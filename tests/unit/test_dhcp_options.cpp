#include "dhcp/dhcp_options.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <ostream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "dhcp/dhcp_debug.h"
#include "lib/log.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using LogLine = std::pair<int, std::string>;

// Captures every log line and starts each test with the debug word clear.
class Codec : public ::testing::Test {
  protected:
    void SetUp() override {
        dhcp_debug = 0;
        zlog_set_hook([this](int prio, std::string_view text) { logs.emplace_back(prio, text); });
    }
    void TearDown() override {
        zlog_set_hook({});
        dhcp_debug = 0;
    }
    std::vector<LogLine> logs;
};

dhcp_packet blank_packet() {
    dhcp_packet p;
    std::memset(&p, 0, sizeof p);
    p.options[0] = DHCP_END;
    return p;
}

// Writes bytes into an area of the packet.
void put(std::uint8_t *area, std::size_t at, const Bytes &bytes) {
    std::copy(bytes.begin(), bytes.end(), area + at);
}

Bytes value_of(const std::uint8_t *value) {
    return Bytes(value, value + value[-1]);
}

Bytes option_bytes(const dhcp_packet &p) {
    const int end = dhcp_end_option(p.options);
    return Bytes(p.options, p.options + end + 1);
}

// ---- the option table ----------------------------------------------------

TEST(OptionTable, HoldsTheKnownOptionsInOrder) {
    const std::vector<std::pair<int, int>> expected = {
        {1, 0x11},   {2, 0x08},   {3, 0x31},  {4, 0x21},  {5, 0x21},  {6, 0x31},  {7, 0x21},
        {8, 0x21},   {9, 0x21},   {12, 0x14}, {13, 0x06}, {15, 0x14}, {16, 0x01}, {17, 0x03},
        {23, 0x05},  {26, 0x06},  {28, 0x11}, {33, 0x22}, {40, 0x04}, {41, 0x21}, {42, 0x31},
        {44, 0x21},  {50, 0x01},  {51, 0x07}, {53, 0x05}, {54, 0x01}, {56, 0x03}, {57, 0x06},
        {58, 0x07},  {59, 0x07},  {60, 0x03}, {61, 0x03}, {66, 0x04}, {67, 0x03}, {121, 0x2a},
        {212, 0x0b}, {249, 0x2a}, {252, 0x03}};
    ASSERT_EQ(expected.size(), DHCP_OPTION_COUNT);
    for (std::size_t i = 0; i < expected.size(); i++) {
        SCOPED_TRACE(i);
        EXPECT_EQ(dhcp_option_flags[i].code, expected[i].first);
        EXPECT_EQ(dhcp_option_flags[i].flags, expected[i].second);
    }
    EXPECT_EQ(dhcp_option_flags[DHCP_OPTION_COUNT].code, 0);
    static_assert(sizeof(dhcp_option) == 2);
}

TEST(OptionTable, LengthsByType) {
    const Bytes expected = {0, 4, 8, 1, 1, 1, 2, 4, 4, 0, 5, 22};
    EXPECT_EQ(Bytes(std::begin(dhcp_option_lengths), std::end(dhcp_option_lengths)), expected);
}

// ---- dhcp_get_option -----------------------------------------------------

TEST_F(Codec, GetOptionNullPacket) {
    dhcp_debug = DHCP_DEBUG_EVENTS;
    EXPECT_EQ(dhcp_get_option(static_cast<const dhcp_packet *>(nullptr), 53), nullptr);
    EXPECT_TRUE(logs.empty());
}

TEST_F(Codec, GetOptionEndFirstIsNotFoundAtOnce) {
    dhcp_packet p = blank_packet();
    // Options in file and sname must not be looked at without option 52.
    put(p.file, 0, {53, 1, 5, 255});
    put(p.sname, 0, {53, 1, 5, 255});
    EXPECT_EQ(dhcp_get_option(&p, 53), nullptr);
    EXPECT_TRUE(logs.empty());

    dhcp_debug = DHCP_DEBUG_EVENTS;
    EXPECT_EQ(dhcp_get_option(&p, 53), nullptr);
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_INFO, "Option 0x35 not found"}}));
}

TEST_F(Codec, GetOptionFoundPointsAtValue) {
    dhcp_packet p = blank_packet();
    put(p.options, 0, {0, 0, 0, 53, 1, 5, 12, 3, 'a', 'b', 'c', 255});
    const std::uint8_t *v = dhcp_get_option(&p, 53);
    ASSERT_EQ(v, p.options + 5);
    EXPECT_EQ(v[-1], 1);
    EXPECT_EQ(value_of(dhcp_get_option(&p, 12)), (Bytes{'a', 'b', 'c'}));
    EXPECT_TRUE(logs.empty());

    dhcp_debug = DHCP_DEBUG_EVENTS;
    EXPECT_NE(dhcp_get_option(&p, 12), nullptr);
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_INFO, "Option 0x0c found"}}));
}

TEST_F(Codec, GetOptionMutableOverloadPointsIntoRecord) {
    dhcp_packet p = blank_packet();
    put(p.options, 0, {82, 2, 1, 0, 255});
    std::uint8_t *v = dhcp_get_option(&p, 82);
    ASSERT_EQ(v, p.options + 2);
    v[1] = 9;
    EXPECT_EQ(p.options[3], 9);
}

struct OverloadCase {
    const char *name;
    Bytes main;
    Bytes file;
    Bytes sname;
    std::uint8_t code;
    Bytes expected;  // empty: not found
};

class Overload : public ::testing::TestWithParam<OverloadCase> {};

TEST_P(Overload, SearchesAreasInOrder) {
    const OverloadCase &c = GetParam();
    dhcp_packet p = blank_packet();
    put(p.options, 0, c.main);
    put(p.file, 0, c.file);
    put(p.sname, 0, c.sname);
    const std::uint8_t *v = dhcp_get_option(&p, c.code);
    if (c.expected.empty()) {
        EXPECT_EQ(v, nullptr);
    } else {
        ASSERT_NE(v, nullptr);
        EXPECT_EQ(value_of(v), c.expected);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Table, Overload,
    ::testing::Values(
        // Overload 3: main, then file, then sname.
        OverloadCase{"main_first",
                     {52, 1, 3, 12, 1, 'm', 255},
                     {12, 1, 'f', 255},
                     {12, 1, 's', 255},
                     12,
                     {'m'}},
        OverloadCase{
            "file_before_sname", {52, 1, 3, 255}, {12, 1, 'f', 255}, {12, 1, 's', 255}, 12, {'f'}},
        OverloadCase{
            "sname_last", {52, 1, 3, 255}, {15, 1, 'f', 255}, {12, 1, 's', 255}, 12, {'s'}},
        OverloadCase{
            "absent_everywhere", {52, 1, 3, 255}, {15, 1, 'f', 255}, {15, 1, 's', 255}, 12, {}},
        // Overload 1: file only.
        OverloadCase{"file_only", {52, 1, 1, 255}, {15, 1, 'f', 255}, {12, 1, 's', 255}, 12, {}},
        OverloadCase{
            "file_only_found", {52, 1, 1, 255}, {12, 1, 'f', 255}, {12, 1, 's', 255}, 12, {'f'}},
        // Overload 2: sname only.
        OverloadCase{"sname_only", {52, 1, 2, 255}, {12, 1, 'f', 255}, {15, 1, 's', 255}, 12, {}},
        OverloadCase{
            "sname_only_found", {52, 1, 2, 255}, {12, 1, 'f', 255}, {12, 1, 's', 255}, 12, {'s'}},
        // An overload option found inside file still counts.
        OverloadCase{
            "overload_in_file", {52, 1, 1, 255}, {52, 1, 2, 255}, {12, 1, 's', 255}, 12, {'s'}},
        // Found in sname first, file then follows: each area once.
        OverloadCase{
            "overload_in_sname", {52, 1, 2, 255}, {12, 1, 'f', 255}, {52, 1, 1, 255}, 12, {'f'}},
        // Pads inside the overloaded areas.
        OverloadCase{"pads_in_file",
                     {52, 1, 1, 0, 0, 255},
                     {0, 0, 0, 12, 2, 'x', 'y', 255},
                     {},
                     12,
                     {'x', 'y'}},
        // An empty overload option still has a value: the byte after its
        // length. Here that is the end marker, 0xff: file, then sname.
        OverloadCase{"empty_overload", {52, 0, 255}, {12, 1, 'f', 255}, {}, 12, {'f'}},
        OverloadCase{"empty_overload_then_sname",
                     {52, 0, 255},
                     {15, 1, 'f', 255},
                     {12, 1, 's', 255},
                     12,
                     {'s'}},
        // The byte after the length is the next option's code, 2: sname only.
        OverloadCase{"empty_overload_takes_next_code",
                     {52, 0, 2, 1, 'x', 255},
                     {12, 1, 'f', 255},
                     {12, 1, 's', 255},
                     12,
                     {'s'}},
        OverloadCase{
            "empty_overload_next_code_is_found", {52, 0, 2, 1, 'x', 255}, {}, {}, 2, {'x'}},
        // The same inside file and inside sname.
        OverloadCase{
            "empty_overload_in_file", {52, 1, 1, 255}, {52, 0, 255}, {12, 1, 's', 255}, 12, {'s'}},
        OverloadCase{
            "empty_overload_in_sname", {52, 1, 2, 255}, {12, 1, 'f', 255}, {52, 0, 255}, 12, {'f'}},
        // Option 52 itself is found like any other.
        OverloadCase{"overload_wanted", {52, 1, 3, 255}, {}, {}, 52, {3}}),
    [](const auto &param_info) { return std::string(param_info.param.name); });

TEST_F(Codec, GetOptionWantedBeforeBadLengthIsReturned) {
    dhcp_packet p = blank_packet();
    put(p.options, 0, {53, 1, 5});
    // At index 300, 88 bytes remain; a length of 100 runs past them.
    put(p.options, 300, {12, 100});
    dhcp_debug = DHCP_DEBUG_EVENTS;
    EXPECT_EQ(value_of(dhcp_get_option(&p, 53)), (Bytes{5}));
    logs.clear();
    EXPECT_EQ(dhcp_get_option(&p, 15), nullptr);
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_ERR, "bad packet, malformed option field"}}));
}

TEST_F(Codec, GetOptionMalformedIsQuietWithoutDebug) {
    dhcp_packet p = blank_packet();
    put(p.options, 0, {12, 250, 0});
    put(p.options, 252, {15, 200});
    EXPECT_EQ(dhcp_get_option(&p, 15), nullptr);
    EXPECT_TRUE(logs.empty());
}

TEST_F(Codec, GetOptionWantedOptionThatRunsPastIsNotReturned) {
    dhcp_packet p = blank_packet();
    std::memset(p.options, 0, sizeof p.options);
    put(p.options, 380, {12, 7});  // needs 9 bytes, 8 remain
    dhcp_debug = DHCP_DEBUG_EVENTS;
    EXPECT_EQ(dhcp_get_option(&p, 12), nullptr);
    EXPECT_EQ(logs.back(), (LogLine{LOG_ERR, "bad packet, malformed option field"}));
}

TEST_F(Codec, GetOptionFullAreaWithoutEndStopsAfter388Bytes) {
    dhcp_packet p = blank_packet();
    // Only pads: every byte is consumed, then the scan ends malformed.
    std::memset(p.options, 0, sizeof p.options);
    put(p.file, 0, {12, 1, 'f', 255});
    dhcp_debug = DHCP_DEBUG_EVENTS;
    EXPECT_EQ(dhcp_get_option(&p, 12), nullptr);
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_ERR, "bad packet, malformed option field"}}));

    // Options that exactly fill the area, no end marker.
    for (std::size_t i = 0; i < 388; i += 4) {
        put(p.options, i, {60, 2, 'a', 'b'});
    }
    logs.clear();
    EXPECT_EQ(value_of(dhcp_get_option(&p, 60)), (Bytes{'a', 'b'}));
    logs.clear();
    EXPECT_EQ(dhcp_get_option(&p, 61), nullptr);
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_ERR, "bad packet, malformed option field"}}));
}

TEST_F(Codec, GetOptionCodeOnLastByteIsMalformed) {
    dhcp_packet p = blank_packet();
    std::memset(p.options, 0, sizeof p.options);
    p.options[387] = 12;  // its length byte would lie beyond the area
    dhcp_debug = DHCP_DEBUG_EVENTS;
    EXPECT_EQ(dhcp_get_option(&p, 12), nullptr);
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_ERR, "bad packet, malformed option field"}}));
}

TEST_F(Codec, GetOptionValueEndingExactlyAtAreaEnd) {
    dhcp_packet p = blank_packet();
    std::memset(p.options, 0, sizeof p.options);
    put(p.options, 383, {12, 3, 'x', 'y', 'z'});
    const std::uint8_t *v = dhcp_get_option(&p, 12);
    ASSERT_EQ(v, p.options + 385);
    EXPECT_EQ(value_of(v), (Bytes{'x', 'y', 'z'}));

    std::memset(p.options, 0, sizeof p.options);
    put(p.options, 386, {12, 0});
    v = dhcp_get_option(&p, 12);
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(v[-1], 0);
}

TEST_F(Codec, GetOptionOverloadedAreasAreBoundedToo) {
    dhcp_packet p = blank_packet();
    put(p.options, 0, {52, 1, 3, 255});
    // file: an option that runs past its 128 bytes; sname holds the wanted one.
    put(p.file, 120, {15, 10});
    put(p.sname, 0, {12, 1, 's', 255});
    dhcp_debug = DHCP_DEBUG_EVENTS;
    EXPECT_EQ(dhcp_get_option(&p, 12), nullptr);
    EXPECT_EQ(logs.back(), (LogLine{LOG_ERR, "bad packet, malformed option field"}));

    // In sname, a value may end exactly at its last byte but not beyond.
    dhcp_packet q = blank_packet();
    put(q.options, 0, {52, 1, 2, 255});
    put(q.sname, 60, {12, 2, 'a', 'b'});
    EXPECT_EQ(value_of(dhcp_get_option(&q, 12)), (Bytes{'a', 'b'}));
    put(q.sname, 60, {12, 3, 'a', 'b'});
    EXPECT_EQ(dhcp_get_option(&q, 12), nullptr);
    // A code on sname's last byte: its length would be file's first byte.
    dhcp_packet r = blank_packet();
    put(r.options, 0, {52, 1, 2, 255});
    r.sname[63] = 12;
    r.file[0] = 0;
    EXPECT_EQ(dhcp_get_option(&r, 12), nullptr);
}

TEST_F(Codec, GetOptionEmptyOverloadOnTheAreaEndReadsNothingBeyond) {
    // On the heap at its exact size, so a read past the record is caught.
    auto p = std::make_unique<dhcp_packet>(blank_packet());
    std::memset(p->options, 0, sizeof p->options);
    put(p->options, 386, {52, 0});
    dhcp_debug = DHCP_DEBUG_EVENTS;
    EXPECT_EQ(dhcp_get_option(p.get(), 12), nullptr);
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_ERR, "bad packet, malformed option field"}}));
    // Option 52 itself is still found there, empty.
    const std::uint8_t *v = dhcp_get_option(p.get(), 52);
    ASSERT_EQ(v, p->options + 388);
    EXPECT_EQ(v[-1], 0);

    // On the last bytes of file and sname, where the next byte is the cookie
    // and file: the scan ends malformed there whatever that byte says.
    auto q = std::make_unique<dhcp_packet>(blank_packet());
    put(q->options, 0, {52, 1, 3, 255});
    put(q->file, 126, {52, 0});
    put(q->sname, 0, {12, 1, 's', 255});
    EXPECT_EQ(dhcp_get_option(q.get(), 12), nullptr);
    auto r = std::make_unique<dhcp_packet>(blank_packet());
    put(r->options, 0, {52, 1, 2, 255});
    put(r->sname, 62, {52, 0});
    put(r->file, 0, {12, 1, 'f', 255});
    EXPECT_EQ(dhcp_get_option(r.get(), 12), nullptr);
}

TEST_F(Codec, GetOptionSpanIsTheValueWhateverItsLength) {
    dhcp_packet p = blank_packet();
    put(p.options, 0, {53, 1, 3, 50, 0, 54, 2, 192, 168, 255});
    const auto type = dhcp_get_option_span(p, 53);
    ASSERT_TRUE(type.has_value());
    EXPECT_EQ(type->data(), p.options + 2);
    EXPECT_EQ(Bytes(type->begin(), type->end()), (Bytes{3}));
    // Carried with no value bytes: present, and empty.
    const auto empty = dhcp_get_option_span(p, 50);
    ASSERT_TRUE(empty.has_value());
    EXPECT_EQ(empty->data(), p.options + 5);
    EXPECT_TRUE(empty->empty());
    const auto shorter = dhcp_get_option_span(p, 54);
    ASSERT_TRUE(shorter.has_value());
    EXPECT_EQ(Bytes(shorter->begin(), shorter->end()), (Bytes{192, 168}));
    EXPECT_FALSE(dhcp_get_option_span(p, 61).has_value());
}

struct NipCase {
    Bytes value;
    Bytes nip;  // as it lies in memory, network order
};

void PrintTo(const NipCase &c, std::ostream *os) {
    *os << "value of " << c.value.size() << " bytes";
}

class OptionNip : public ::testing::TestWithParam<NipCase> {};

TEST_P(OptionNip, ReadsTheBytesThereAndZerosForTheRest) {
    const NipCase &c = GetParam();
    // On the heap at its exact size, so a read beyond the value is caught.
    auto value = std::make_unique<std::uint8_t[]>(c.value.size());
    std::copy(c.value.begin(), c.value.end(), value.get());
    const std::uint32_t nip =
        dhcp_option_nip(std::span<const std::uint8_t>(value.get(), c.value.size()));
    Bytes got(4);
    std::memcpy(got.data(), &nip, 4);
    EXPECT_EQ(got, c.nip);
}

INSTANTIATE_TEST_SUITE_P(Table, OptionNip,
                         ::testing::Values(NipCase{{}, {0, 0, 0, 0}},
                                           NipCase{{192}, {192, 0, 0, 0}},
                                           NipCase{{192, 168}, {192, 168, 0, 0}},
                                           NipCase{{192, 168, 1}, {192, 168, 1, 0}},
                                           NipCase{{192, 168, 1, 1}, {192, 168, 1, 1}},
                                           NipCase{{192, 168, 1, 1, 9}, {192, 168, 1, 1}}));

TEST(OptionNipEmpty, DefaultSpanReadsZero) {
    EXPECT_EQ(dhcp_option_nip({}), 0u);
}

// ---- dhcp_end_option -----------------------------------------------------

struct EndCase {
    Bytes area;
    int end;
};

class EndOption : public ::testing::TestWithParam<EndCase> {};

TEST_P(EndOption, IndexOfEndMarker) {
    const EndCase &c = GetParam();
    EXPECT_EQ(dhcp_end_option(c.area), c.end);
}

INSTANTIATE_TEST_SUITE_P(
    Table, EndOption,
    ::testing::Values(EndCase{{255, 0, 0}, 0}, EndCase{{53, 1, 5, 255}, 3},
                      EndCase{{0, 0, 53, 1, 5, 0, 255}, 6},
                      EndCase{{12, 1, 255, 255}, 3},  // a value byte 255 is no end marker
                      EndCase{{0, 0, 0, 0}, 4},       // no end marker: the area's size
                      EndCase{{53, 1, 5, 12}, 4},     // a code without its length byte
                      EndCase{{53, 1, 5, 12, 200, 1, 2, 255}, 8},  // runs past the area
                      EndCase{{}, 0}));

// ---- dhcp_add_binary_option ----------------------------------------------

TEST_F(Codec, AddBinaryAppendsBeforeEnd) {
    dhcp_packet p = blank_packet();
    const Bytes host = {12, 3, 'a', 'b', 'c'};
    dhcp_add_binary_option(p, host);
    dhcp_add_binary_option(p, Bytes{82, 4, 1, 2, 0, 9});
    EXPECT_EQ(option_bytes(p), (Bytes{12, 3, 'a', 'b', 'c', 82, 4, 1, 2, 0, 9, 255}));
    EXPECT_TRUE(logs.empty());
}

TEST_F(Codec, AddBinaryLogsTheOptionAsText) {
    dhcp_packet p = blank_packet();
    dhcp_debug = DHCP_DEBUG_EVENTS;
    dhcp_add_binary_option(p, Bytes{12, 3, 'a', 'b', 'c'});
    dhcp_add_binary_option(p, Bytes{51, 4, 0, 0, 14, 16});  // text stops at the zero
    dhcp_add_binary_option(p, Bytes{53, 1, 5});             // no zero: stops at the option's end
    dhcp_add_binary_option(p, Bytes{60, 3, 'x', 0, 'y'});
    // The log shows control bytes as dots.
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_INFO, "Adding option: ..abc"},
                                          {LOG_INFO, "Adding option: 3."},
                                          {LOG_INFO, "Adding option: 5.."},
                                          {LOG_INFO, "Adding option: <.x"}}));
}

TEST_F(Codec, AddBinaryBoundaryTable) {
    // {index of the end marker, whole option length, fits}: end + len + 1
    // must stay below 308.
    for (const auto &[end, len, fits] : std::vector<std::tuple<int, int, bool>>{{200, 106, true},
                                                                                {200, 107, false},
                                                                                {0, 257, true},
                                                                                {49, 257, true},
                                                                                {50, 257, false},
                                                                                {300, 6, true},
                                                                                {300, 7, false},
                                                                                {304, 2, true},
                                                                                {305, 2, false}}) {
        SCOPED_TRACE(testing::Message() << "end " << end << " len " << len);
        dhcp_packet p = blank_packet();
        std::memset(p.options, 0, sizeof p.options);
        p.options[end] = DHCP_END;
        Bytes option = {15, static_cast<std::uint8_t>(len - 2)};
        option.resize(static_cast<std::size_t>(len), 'x');
        logs.clear();
        dhcp_add_binary_option(p, option);
        if (fits) {
            EXPECT_EQ(dhcp_end_option(p.options), end + len);
            EXPECT_EQ(p.options[end], 15);
            EXPECT_TRUE(logs.empty());
        } else {
            EXPECT_EQ(dhcp_end_option(p.options), end);
            EXPECT_EQ(p.options[end + 1], 0);
            EXPECT_EQ(logs,
                      (std::vector<LogLine>{{LOG_ERR, "option 0x0f did not fit into the packet"}}));
        }
    }
}

TEST_F(Codec, AddBinaryExactly307) {
    dhcp_packet p = blank_packet();
    std::memset(p.options, 0, sizeof p.options);
    p.options[200] = DHCP_END;
    Bytes option = {15, 104};
    option.resize(106, 'x');
    // 200 + 106 + 1 = 307: fits, the new end marker lands on index 306.
    dhcp_add_binary_option(p, option);
    EXPECT_EQ(dhcp_end_option(p.options), 306);
    EXPECT_EQ(p.options[306], 255);
    EXPECT_EQ(p.options[307], 0);

    // 306 + 3 + 1 = 310, and even a two-byte option: 306 + 2 + 1 = 309.
    dhcp_add_binary_option(p, Bytes{16, 0});
    EXPECT_EQ(dhcp_end_option(p.options), 306);
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_ERR, "option 0x10 did not fit into the packet"}}));
}

TEST_F(Codec, AddBinaryExactly308IsRefused) {
    dhcp_packet p = blank_packet();
    std::memset(p.options, 0, sizeof p.options);
    p.options[200] = DHCP_END;
    Bytes option = {15, 105};
    option.resize(107, 'x');
    dhcp_add_binary_option(p, option);  // 200 + 107 + 1 = 308
    EXPECT_EQ(dhcp_end_option(p.options), 200);
    EXPECT_EQ(p.options[201], 0);
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_ERR, "option 0x0f did not fit into the packet"}}));
}

TEST_F(Codec, AddBinaryRefusedWithoutEndMarker) {
    // Whatever a peer sent: no end marker anywhere in the 388 bytes.
    for (const std::uint8_t fill : {std::uint8_t{0}, std::uint8_t{1}, std::uint8_t{0x41}}) {
        dhcp_packet p = blank_packet();
        std::memset(p.options, fill, sizeof p.options);
        dhcp_packet before = p;
        logs.clear();
        dhcp_add_binary_option(p, Bytes{53, 1, 5});
        EXPECT_EQ(std::memcmp(&p, &before, sizeof p), 0);
        EXPECT_EQ(logs,
                  (std::vector<LogLine>{{LOG_ERR, "option 0x35 did not fit into the packet"}}));
    }
}

TEST_F(Codec, AddBinaryRefusedWhenEndLiesInSlack) {
    dhcp_packet p = blank_packet();
    std::memset(p.options, 0, sizeof p.options);
    p.options[350] = DHCP_END;
    dhcp_add_binary_option(p, Bytes{53, 1, 5});
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_ERR, "option 0x35 did not fit into the packet"}}));
}

TEST_F(Codec, AddBinaryIgnoresShortSpan) {
    dhcp_packet p = blank_packet();
    dhcp_add_binary_option(p, Bytes{12, 5, 'a'});
    dhcp_add_binary_option(p, Bytes{12});
    EXPECT_EQ(option_bytes(p), (Bytes{255}));
}

// ---- dhcp_add_simple_option ----------------------------------------------

struct SimpleCase {
    const char *name;
    std::uint8_t code;
    std::uint32_t value;
    Bytes expected;
};

class AddSimple : public Codec, public ::testing::WithParamInterface<SimpleCase> {};

TEST_P(AddSimple, BuildsGoldenBytes) {
    const SimpleCase &c = GetParam();
    dhcp_packet p = blank_packet();
    dhcp_add_simple_option(p, c.code, c.value);
    Bytes expected = c.expected;
    expected.push_back(255);
    EXPECT_EQ(option_bytes(p), expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, AddSimple,
    ::testing::Values(
        SimpleCase{"lease_3600", 51, htonl(3600), {51, 4, 0, 0, 14, 16}},
        SimpleCase{"message_type_ack", 53, 5, {53, 1, 5}},
        SimpleCase{"message_type_low_byte", 53, 0x1202, {53, 1, 2}},
        SimpleCase{"server_id", 54, htonl(0xc0a80101), {54, 4, 192, 168, 1, 1}},
        SimpleCase{"t1", 58, htonl(432000), {58, 4, 0, 6, 0x97, 0x80}},
        SimpleCase{"time_offset_signed", 2, htonl(0xfffff1f0), {2, 4, 0xff, 0xff, 0xf1, 0xf0}},
        SimpleCase{"mtu_u16", 26, htons(1500), {26, 2, 5, 220}},
        SimpleCase{"ttl_u8", 23, 64, {23, 1, 64}},
        SimpleCase{"string_takes_first_byte", 12, htonl(0x61626364), {12, 1, 'a'}},
        SimpleCase{"ip_pair_zero_filled", 33, htonl(0x0a000001), {33, 8, 10, 0, 0, 1, 0, 0, 0, 0}},
        SimpleCase{
            "static_routes_zero_filled", 121, htonl(0x18c0a801), {121, 5, 0x18, 0xc0, 0xa8, 1, 0}},
        SimpleCase{
            "sixrd_zero_filled", 212, htonl(0x01020304), {212, 22, 1, 2, 3, 4, 0, 0, 0, 0, 0, 0,
                                                          0,   0,  0, 0, 0, 0, 0, 0, 0, 0, 0, 0}}),
    [](const auto &param_info) { return std::string(param_info.param.name); });

TEST_F(Codec, AddSimpleUnknownCodeAddsNothing) {
    dhcp_packet p = blank_packet();
    for (const std::uint8_t code : {std::uint8_t{52}, std::uint8_t{82}, std::uint8_t{0}}) {
        dhcp_add_simple_option(p, code, 1);
    }
    EXPECT_EQ(option_bytes(p), (Bytes{255}));
    EXPECT_TRUE(logs.empty());

    dhcp_debug = DHCP_DEBUG_EVENTS;
    dhcp_add_simple_option(p, 82, 1);
    EXPECT_EQ(option_bytes(p), (Bytes{255}));
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_ERR, "can't add option 0x52"}}));
}

TEST_F(Codec, AddSimpleLogsThroughAddBinary) {
    dhcp_packet p = blank_packet();
    dhcp_debug = DHCP_DEBUG_EVENTS;
    dhcp_add_simple_option(p, 53, 5);
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_INFO, "Adding option: 5.."}}));
}

TEST_F(Codec, AddSimpleRefusedWhenFull) {
    dhcp_packet p = blank_packet();
    std::memset(p.options, 0, sizeof p.options);
    p.options[302] = 255;  // 302 + 6 + 1 = 309
    dhcp_add_simple_option(p, 51, htonl(60));
    EXPECT_EQ(dhcp_end_option(p.options), 302);
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_ERR, "option 0x33 did not fit into the packet"}}));
    p.options[302] = 0;
    p.options[301] = 255;  // 301 + 6 + 1 = 308
    logs.clear();
    dhcp_add_simple_option(p, 51, htonl(60));
    EXPECT_EQ(dhcp_end_option(p.options), 301);
    p.options[301] = 0;
    p.options[300] = 255;  // 300 + 6 + 1 = 307
    dhcp_add_simple_option(p, 51, htonl(60));
    EXPECT_EQ(dhcp_end_option(p.options), 306);
}

// ---- the option list -----------------------------------------------------

constexpr dhcp_option kRouter{0x31, 3};
constexpr dhcp_option kDns{0x31, 6};
constexpr dhcp_option kDomain{0x14, 15};
constexpr dhcp_option kNetbios{0x31, 44};
constexpr dhcp_option kLease{0x13, 51};
constexpr dhcp_option kMask{0x11, 1};
constexpr dhcp_option kStringList{OPTION_TYPE_STRING | OPTION_LIST, 56};
constexpr dhcp_option kHostList{OPTION_TYPE_STRING_HOST | OPTION_LIST, 40};
constexpr dhcp_option kBinary{OPTION_TYPE_BIN, 224};

Bytes text(const char *s) {
    return Bytes(s, s + std::strlen(s));
}

std::vector<Bytes> nodes(const std::unique_ptr<option_set> &list) {
    std::vector<Bytes> out;
    for (const option_set *n = list.get(); n != nullptr; n = n->next.get()) {
        out.push_back(n->data);
    }
    return out;
}

TEST_F(Codec, AttachKeepsCodesSorted) {
    std::unique_ptr<option_set> list;
    EXPECT_EQ(dhcp_attach_option(list, kLease, text("3600")), 0);
    EXPECT_EQ(dhcp_attach_option(list, kDns, Bytes{8, 8, 8, 8}), 0);
    EXPECT_EQ(dhcp_attach_option(list, kMask, Bytes{255, 255, 255, 0}), 0);
    EXPECT_EQ(dhcp_attach_option(list, kNetbios, Bytes{10, 0, 0, 9}), 0);
    EXPECT_EQ(dhcp_attach_option(list, kRouter, Bytes{10, 0, 0, 1}), 0);
    EXPECT_EQ(nodes(list), (std::vector<Bytes>{{1, 4, 255, 255, 255, 0},
                                               {3, 4, 10, 0, 0, 1},
                                               {6, 4, 8, 8, 8, 8},
                                               {44, 4, 10, 0, 0, 9},
                                               {51, 4, '3', '6', '0', '0'}}));
    EXPECT_TRUE(logs.empty());
}

TEST_F(Codec, AttachLogsWithDebug) {
    std::unique_ptr<option_set> list;
    dhcp_debug = DHCP_DEBUG_EVENTS;
    dhcp_attach_option(list, kDns, Bytes{8, 8, 8, 8});
    dhcp_attach_option(list, kDns, Bytes{8, 8, 4, 4});
    dhcp_attach_option(list, kDomain, Bytes{1, 2, 3, 4});
    dhcp_attach_option(list, kDomain, Bytes{5, 6, 7, 8});  // ignored, silently
    EXPECT_EQ(logs,
              (std::vector<LogLine>{{LOG_INFO, "Attaching option 06 to list"},
                                    {LOG_INFO, "Attaching option 06 to existing member of list"},
                                    {LOG_INFO, "Attaching option 0f to list"}}));
}

TEST_F(Codec, SecondDnsAppendsFourBytes) {
    std::unique_ptr<option_set> list;
    dhcp_attach_option(list, kDns, Bytes{8, 8, 8, 8});
    EXPECT_EQ(dhcp_attach_option(list, kDns, Bytes{1, 1, 1, 1}), 0);
    EXPECT_EQ(nodes(list), (std::vector<Bytes>{{6, 8, 8, 8, 8, 8, 1, 1, 1, 1}}));
}

TEST_F(Codec, SecondDomainNameIsIgnored) {
    std::unique_ptr<option_set> list;
    dhcp_attach_option(list, kDomain, Bytes{1, 2, 3, 4});
    EXPECT_EQ(dhcp_attach_option(list, kDomain, Bytes{5, 6, 7, 8}), -1);
    EXPECT_EQ(nodes(list), (std::vector<Bytes>{{15, 4, 1, 2, 3, 4}}));
}

TEST_F(Codec, StringListValuesJoinWithOneSpace) {
    std::unique_ptr<option_set> list;
    dhcp_attach_option(list, kStringList, text("abc"));
    dhcp_attach_option(list, kStringList, text("de"));
    dhcp_attach_option(list, kHostList, text("x"));
    dhcp_attach_option(list, kHostList, text("yz"));
    EXPECT_EQ(nodes(list), (std::vector<Bytes>{{40, 4, 'x', ' ', 'y', 'z'},
                                               {56, 6, 'a', 'b', 'c', ' ', 'd', 'e'}}));
}

TEST_F(Codec, ListStopsBelow255) {
    std::unique_ptr<option_set> list;
    // 63 addresses make 252 bytes; a 64th would make 256 and is dropped.
    for (int i = 0; i < 64; i++) {
        const int rc =
            dhcp_attach_option(list, kRouter, Bytes{10, 0, 0, static_cast<std::uint8_t>(i)});
        EXPECT_EQ(rc, i < 63 ? 0 : -1) << i;
    }
    ASSERT_TRUE(list);
    EXPECT_EQ(list->length(), 252);
    EXPECT_EQ(list->data.size(), 254u);

    // 252 + 2 = 254 still goes in; 254 + 1 = 255 does not.
    EXPECT_EQ(dhcp_attach_option(list, kRouter, Bytes{1, 2}), 0);
    EXPECT_EQ(list->length(), 254);
    EXPECT_EQ(dhcp_attach_option(list, kRouter, Bytes{1}), -1);
    EXPECT_EQ(list->length(), 254);
    EXPECT_EQ(list->data.size(), 256u);
}

TEST_F(Codec, StringJoinMayReachExactly255) {
    std::unique_ptr<option_set> list;
    dhcp_attach_option(list, kStringList, Bytes(250, 'a'));
    // 250 + 4 = 254 is below 255; with the space the option is 255 long.
    EXPECT_EQ(dhcp_attach_option(list, kStringList, text("bcde")), 0);
    EXPECT_EQ(list->length(), 255);
    EXPECT_EQ(list->data.size(), 257u);
    EXPECT_EQ(list->data[252], ' ');
    EXPECT_EQ(dhcp_attach_option(list, kStringList, Bytes{}), -1);  // 255 + 0
}

TEST_F(Codec, AttachLongValueKeepsLowEightBitsOfLength) {
    std::unique_ptr<option_set> list;
    dhcp_attach_option(list, kStringList, Bytes(260, 'q'));
    ASSERT_TRUE(list);
    EXPECT_EQ(list->length(), 4);
    EXPECT_EQ(list->data, (Bytes{56, 4, 'q', 'q', 'q', 'q'}));
}

TEST_F(Codec, FindWalksSortedList) {
    std::unique_ptr<option_set> list;
    EXPECT_EQ(dhcp_find_option(list, 3), nullptr);
    dhcp_attach_option(list, kMask, Bytes{255, 0, 0, 0});
    dhcp_attach_option(list, kDns, Bytes{8, 8, 8, 8});
    dhcp_attach_option(list, kLease, text("60"));
    EXPECT_EQ(dhcp_find_option(list, 1), list.get());
    EXPECT_EQ(dhcp_find_option(list, 6), list->next.get());
    EXPECT_EQ(dhcp_find_option(list, 51), list->next->next.get());
    EXPECT_EQ(dhcp_find_option(list, 3), nullptr);
    EXPECT_EQ(dhcp_find_option(list, 0), nullptr);
    EXPECT_EQ(dhcp_find_option(list, 255), nullptr);
}

TEST_F(Codec, DeleteUnlinksAnyNode) {
    std::unique_ptr<option_set> list;
    dhcp_delete_option(list, 3);  // empty list
    EXPECT_FALSE(list);
    for (const auto &o : {kMask, kRouter, kDns, kNetbios}) {
        dhcp_attach_option(list, o, Bytes{1, 2, 3, 4});
    }
    dhcp_delete_option(list, 6);   // middle
    dhcp_delete_option(list, 1);   // head
    dhcp_delete_option(list, 44);  // tail
    dhcp_delete_option(list, 99);  // absent
    EXPECT_EQ(nodes(list), (std::vector<Bytes>{{3, 4, 1, 2, 3, 4}}));
    dhcp_delete_option(list, 3);
    EXPECT_FALSE(list);
}

TEST_F(Codec, ReplaceByDeleteThenAttach) {
    std::unique_ptr<option_set> list;
    dhcp_attach_option(list, kDns, Bytes{1, 1, 1, 1});
    dhcp_delete_option(list, kDns.code);
    dhcp_attach_option(list, kDns, Bytes{2, 2, 2, 2, 3, 3, 3, 3});
    EXPECT_EQ(nodes(list), (std::vector<Bytes>{{6, 8, 2, 2, 2, 2, 3, 3, 3, 3}}));
}

std::uint32_t word(std::initializer_list<std::uint8_t> b) {
    std::uint32_t w = 0;
    std::memcpy(&w, Bytes(b).data(), 4);
    return w;
}

TEST_F(Codec, GetOptionValueForReport) {
    std::unique_ptr<option_set> list;
    std::uint32_t first = 7;
    std::uint32_t second = 7;
    EXPECT_EQ(dhcp_get_option_value(list, 3, &first, &second), -1);  // empty list

    dhcp_attach_option(list, kMask, Bytes{255, 255, 255, 0});
    dhcp_attach_option(list, kRouter, Bytes{10, 0, 0, 1});
    dhcp_attach_option(list, kDns, Bytes{8, 8, 8, 8, 8, 8, 4, 4});
    dhcp_attach_option(list, kDomain, text("example"));
    dhcp_attach_option(list, kNetbios, Bytes{10, 0, 0, 9, 10, 0, 0, 10});
    dhcp_attach_option(list, kLease, text("60"));

    EXPECT_EQ(dhcp_get_option_value(list, 3, &first, &second), 0);
    EXPECT_EQ(first, word({10, 0, 0, 1}));
    EXPECT_EQ(second, 0u);
    EXPECT_EQ(dhcp_get_option_value(list, 6, &first, &second), 0);
    EXPECT_EQ(first, word({8, 8, 8, 8}));
    EXPECT_EQ(second, word({8, 8, 4, 4}));
    EXPECT_EQ(dhcp_get_option_value(list, 15, &first, &second), 0);
    EXPECT_EQ(first, word({'e', 'x', 'a', 'm'}));
    EXPECT_EQ(second, 0u);
    // Only option 6 gives a second value.
    EXPECT_EQ(dhcp_get_option_value(list, 44, &first, &second), 0);
    EXPECT_EQ(first, word({10, 0, 0, 9}));
    EXPECT_EQ(second, 0u);
    // Other codes never match, present or not.
    EXPECT_EQ(dhcp_get_option_value(list, 1, &first, &second), -1);
    EXPECT_EQ(dhcp_get_option_value(list, 51, &first, &second), -1);
    EXPECT_EQ(dhcp_get_option_value(list, 3, nullptr, &second), -1);
    EXPECT_EQ(dhcp_get_option_value(list, 3, &first, nullptr), -1);
}

TEST_F(Codec, GetOptionValueShortValueLeavesZeros) {
    std::unique_ptr<option_set> list;
    dhcp_attach_option(list, kDomain, text("ab"));
    dhcp_attach_option(list, kDns, Bytes{1, 2, 3, 4, 5, 6});  // 6 bytes: no second
    std::uint32_t first = 7;
    std::uint32_t second = 7;
    EXPECT_EQ(dhcp_get_option_value(list, 15, &first, &second), 0);
    EXPECT_EQ(first, word({'a', 'b', 0, 0}));
    EXPECT_EQ(dhcp_get_option_value(list, 6, &first, &second), 0);
    EXPECT_EQ(first, word({1, 2, 3, 4}));
    EXPECT_EQ(second, 0u);
    // Absent code: outputs zeroed, -1.
    first = second = 7;
    EXPECT_EQ(dhcp_get_option_value(list, 44, &first, &second), -1);
    EXPECT_EQ(first, 0u);
    EXPECT_EQ(second, 0u);
}

// ---- dhcp_option_hex -----------------------------------------------------

TEST_F(Codec, OptionHexOnlyForBinary) {
    int length = 4;
    EXPECT_FALSE(dhcp_option_hex(kRouter, Bytes{'0', 'a', '0', 'b'}, length));
    EXPECT_EQ(length, 4);
    EXPECT_TRUE(logs.empty());
}

struct HexOptionCase {
    const char *text;
    Bytes bytes;
    bool malformed;
};

class OptionHex : public Codec, public ::testing::WithParamInterface<HexOptionCase> {};

TEST_P(OptionHex, ConvertsTextAndLogsMalformed) {
    const HexOptionCase &c = GetParam();
    int length = -1;
    const auto converted = dhcp_option_hex(kBinary, text(c.text), length);
    ASSERT_TRUE(converted);
    EXPECT_EQ(*converted, c.bytes);
    EXPECT_EQ(length, static_cast<int>(c.bytes.size()));
    if (c.malformed) {
        EXPECT_EQ(logs, (std::vector<LogLine>{
                            {LOG_ERR, std::string("malformed hex string '") + c.text + "'"}}));
    } else {
        EXPECT_TRUE(logs.empty());
    }
}

INSTANTIATE_TEST_SUITE_P(Table, OptionHex,
                         ::testing::Values(HexOptionCase{"0a0B", {0x0a, 0x0b}, false},
                                           HexOptionCase{"", {}, false},
                                           HexOptionCase{"0g", {}, true},
                                           HexOptionCase{"abc", {0xab}, true},
                                           HexOptionCase{"01zz02", {0x01}, true}));

TEST_F(Codec, OptionHexCapsAt255Bytes) {
    const std::string hex(600, 'f');
    int length = 0;
    const auto converted = dhcp_option_hex(kBinary, text(hex.c_str()), length);
    ASSERT_TRUE(converted);
    EXPECT_EQ(length, 255);
    EXPECT_EQ(logs.size(), 1u);
}

TEST_F(Codec, AttachBinaryStoresConvertedBytes) {
    std::unique_ptr<option_set> list;
    dhcp_attach_option(list, kBinary, text("dead01"));
    EXPECT_EQ(nodes(list), (std::vector<Bytes>{{224, 3, 0xde, 0xad, 0x01}}));
    // A binary list option appends the text as given, per the list rule.
    constexpr dhcp_option kBinaryList{OPTION_TYPE_BIN | OPTION_LIST, 225};
    dhcp_attach_option(list, kBinaryList, text("0102"));
    dhcp_attach_option(list, kBinaryList, text("0304"));
    EXPECT_EQ(nodes(list).back(), (Bytes{225, 4, 0x01, 0x02, '0', '3'}));
}

// ---- copying a pool list into a reply ------------------------------------

TEST_F(Codec, PoolListCopiedIntoReply) {
    std::unique_ptr<option_set> list;
    dhcp_attach_option(list, kMask, Bytes{255, 255, 255, 0});
    dhcp_attach_option(list, kRouter, Bytes{192, 168, 1, 1});
    dhcp_attach_option(list, kDns, Bytes{8, 8, 8, 8});
    dhcp_attach_option(list, kDns, Bytes{8, 8, 4, 4});
    dhcp_packet reply;
    dhcp_init_header(reply, DHCPOFFER);
    dhcp_add_simple_option(reply, DHCP_SERVER_ID, htonl(0xc0a80101));
    for (const option_set *n = list.get(); n != nullptr; n = n->next.get()) {
        dhcp_add_binary_option(reply, n->data);
    }
    EXPECT_EQ(option_bytes(reply),
              (Bytes{53, 1,   2,   54, 4, 192, 168, 1, 1, 1, 4, 255, 255, 255, 0, 3,
                     4,  192, 168, 1,  1, 6,   8,   8, 8, 8, 8, 8,   8,   4,   4, 255}));
    EXPECT_EQ(value_of(dhcp_get_option(&reply, 6)), (Bytes{8, 8, 8, 8, 8, 8, 4, 4}));
}

}  // namespace
