// The log: thresholds, line format, the hook, rotation and the assertion.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "lib/log.h"

namespace {

struct Log : ::testing::Test {
    std::vector<std::pair<int, std::string>> lines;
    Log() {
        openzlog("dhcpd", 21, LOG_NDELAY | LOG_PID, LOG_DAEMON);
        zlog_set_level(zlog_default, ZLOG_DEST_SYSLOG, ZLOG_DISABLED);
        zlog_set_hook([this](int prio, std::string_view text) { lines.emplace_back(prio, text); });
    }
    ~Log() override {
        zlog_set_hook({});
        closezlog(zlog_default);
    }
};

TEST_F(Log, EveryLevelReachesTheHookWithTrailingNewlinesFolded) {
    zlog_err("e %d", 1);
    zlog_warn("w");
    zlog_notice("n\n");
    zlog_info("i\n\n");
    zlog_debug("d");
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[0], std::make_pair(LOG_ERR, std::string("e 1")));
    EXPECT_EQ(lines[1], std::make_pair(LOG_WARNING, std::string("w")));
    EXPECT_EQ(lines[2], std::make_pair(LOG_NOTICE, std::string("n")));
    EXPECT_EQ(lines[3], std::make_pair(LOG_INFO, std::string("i")));
    EXPECT_EQ(lines[4], std::make_pair(LOG_DEBUG, std::string("d")));
}

TEST_F(Log, StdoutLinesCarryTheLevelAndHonourTheThreshold) {
    ::testing::internal::CaptureStdout();
    zlog_info("DHCP %s starting", "x");
    zlog_debug("hidden at the default threshold");
    zlog_set_level(zlog_default, ZLOG_DEST_STDOUT, LOG_DEBUG);
    zlog_debug("now shown");
    zlog_set_level(zlog_default, ZLOG_DEST_STDOUT, ZLOG_DISABLED);
    zlog_err("not on stdout");
    std::string out = ::testing::internal::GetCapturedStdout();
    std::regex line(R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d dhcpd: (\w+): (.*))");
    std::istringstream in(out);
    std::vector<std::string> got;
    for (std::string l; std::getline(in, l);) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(l, m, line)) << l;
        got.push_back(m[1].str() + "|" + m[2].str());
    }
    EXPECT_EQ(got, (std::vector<std::string>{"info|DHCP x starting", "debug|now shown"}));
}

TEST_F(Log, FileDestinationAndRotation) {
    std::string path = ::testing::TempDir() + "/zlog-test.log";
    std::string rotated = path + ".1";
    std::remove(path.c_str());
    std::remove(rotated.c_str());
    zlog_set_level(zlog_default, ZLOG_DEST_STDOUT, ZLOG_DISABLED);
    ASSERT_EQ(zlog_set_file(zlog_default, path.c_str(), LOG_INFO), 1);
    EXPECT_STREQ(zlog_get_filename(zlog_default), path.c_str());
    zlog_info("first");
    ASSERT_EQ(std::rename(path.c_str(), rotated.c_str()), 0);
    EXPECT_EQ(zlog_rotate(zlog_default), 1);
    zlog_info("second");
    std::ifstream a(rotated), b(path);
    std::string la, lb;
    std::getline(a, la);
    std::getline(b, lb);
    EXPECT_NE(la.find("dhcpd: info: first"), std::string::npos);
    EXPECT_NE(lb.find("dhcpd: info: second"), std::string::npos);
    zlog_reset_file(zlog_default);
    EXPECT_EQ(zlog_get_filename(zlog_default), nullptr);
    EXPECT_EQ(zlog_set_file(zlog_default, "/nonexistent-dir/x.log", LOG_INFO), 0);
}

TEST_F(Log, DefaultsAreRememberedForTheConfiguration) {
    zlog_set_level(zlog_default, ZLOG_DEST_STDOUT, LOG_INFO);
    zlog_mark_defaults(zlog_default);
    zlog_set_level(zlog_default, ZLOG_DEST_STDOUT, LOG_DEBUG);
    EXPECT_EQ(zlog_get_default_level(zlog_default, ZLOG_DEST_STDOUT), LOG_INFO);
    EXPECT_EQ(zlog_get_level(zlog_default, ZLOG_DEST_STDOUT), LOG_DEBUG);
}

TEST_F(Log, BufferedLinesReachTheFileAtTheFlush) {
    std::string path = ::testing::TempDir() + "/zlog-buffered.log";
    std::remove(path.c_str());
    zlog_set_level(zlog_default, ZLOG_DEST_STDOUT, ZLOG_DISABLED);
    ASSERT_EQ(zlog_set_file(zlog_default, path.c_str(), LOG_INFO), 1);
    auto contents = [&] {
        std::ifstream in(path);
        std::ostringstream all;
        all << in.rdbuf();
        return all.str();
    };
    zlog_set_buffered(zlog_default, true);
    zlog_info("held %d", 1);
    zlog_info("held %d", 2);
    EXPECT_EQ(contents(), "");
    zlog_flush(zlog_default);
    std::regex two(R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d dhcpd: info: held 1\n)"
                   R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d dhcpd: info: held 2\n)");
    EXPECT_TRUE(std::regex_match(contents(), two)) << contents();
    zlog_info("held 3");
    zlog_set_buffered(zlog_default, false);  // turning it off flushes
    EXPECT_NE(contents().find("dhcpd: info: held 3\n"), std::string::npos);
    zlog_info("at once");
    EXPECT_NE(contents().find("dhcpd: info: at once\n"), std::string::npos);
    zlog_reset_file(zlog_default);
    std::remove(path.c_str());
}

TEST_F(Log, ALongMessageIsCutToOneLine) {
    ::testing::internal::CaptureStdout();
    std::string big(3000, 'x');
    zlog_info("%s", big.c_str());
    std::string out = ::testing::internal::GetCapturedStdout();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back().second, std::string(1023, 'x'));
    EXPECT_NE(out.find(": info: " + std::string(1023, 'x') + "\n"), std::string::npos);
}

TEST(LogLevels, NamesBothWays) {
    EXPECT_STREQ(zlog_level_name(LOG_INFO), "informational");
    EXPECT_STREQ(zlog_level_name(LOG_DEBUG), "debugging");
    EXPECT_STREQ(zlog_level_name(LOG_EMERG), "emergencies");
    EXPECT_EQ(zlog_level_from_name("warnings"), LOG_WARNING);
    EXPECT_EQ(zlog_level_from_name("notifications"), LOG_NOTICE);
    EXPECT_EQ(zlog_level_from_name("bogus"), -1);
    EXPECT_EQ(zlog_level_from_name(nullptr), -1);
}

void assert_on_null(const void *node) {
    zassert(node != nullptr);
}

TEST(LogDeathTest, AssertionNamesExpressionModuleLineAndFunction) {
    EXPECT_DEATH(assert_on_null(nullptr),
                 "Assertion `node != nullptr' failed in file tests/unit/test_log, line [0-9]+, "
                 "function assert_on_null");
}

}  // namespace
