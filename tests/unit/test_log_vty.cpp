// The log commands: each one moves the right threshold, and the running
// configuration shows exactly what differs from the defaults.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "lib/command.h"
#include "lib/log.h"
#include "lib/log_vty.h"
#include "lib/vty.h"

namespace {

TEST(LogCommandsWithoutLog, ConfigWriteIsEmptyAndCommandsWarn) {
    // Needs a process where no log was opened yet (first test, or run alone).
    if (zlog_default != nullptr) {
        GTEST_SKIP() << "a log is already open in this process";
    }
    cmd_terminate();
    cmd_init(1);
    auto v = vty_new();
    zlog_config_write(v.get());
    EXPECT_EQ(v->obuf, "");
    v->node = CONFIG_NODE;
    EXPECT_EQ(vty_command(v.get(), "log stdout"), CMD_WARNING);
    EXPECT_EQ(v->obuf, "% Logging is not open\n");
    cmd_terminate();
}

struct LogCommands : ::testing::Test {
    std::unique_ptr<vty> v = vty_new(VTY_SHELL_SERV);
    std::string dir;
    std::string file;

    LogCommands() {
        char tmpl[] = "/tmp/logvtytest.XXXXXX";
        dir = mkdtemp(tmpl);
        file = dir + "/dhcpd.log";
        if (zlog_default == nullptr) {
            openzlog("dhcpd", 0, 0, LOG_DAEMON);
        }
        zlog_reset_file(zlog_default);
        zlog_set_level(zlog_default, ZLOG_DEST_STDOUT, LOG_INFO);
        zlog_set_level(zlog_default, ZLOG_DEST_SYSLOG, LOG_INFO);
        zlog_mark_defaults(zlog_default);
        cmd_terminate();
        cmd_init(1);
        v->node = CONFIG_NODE;
    }
    ~LogCommands() override {
        zlog_reset_file(zlog_default);
        zlog_set_level(zlog_default, ZLOG_DEST_STDOUT, LOG_INFO);
        zlog_set_level(zlog_default, ZLOG_DEST_SYSLOG, LOG_INFO);
        cmd_terminate();
        std::system(("rm -rf '" + dir + "'").c_str());
    }

    int run(const std::string &line) {
        v->obuf.clear();
        return vty_command(v.get(), line.c_str());
    }
    std::string config() {
        auto out = vty_new(VTY_SHELL_SERV);
        zlog_config_write(out.get());
        return out->obuf;
    }
    int stdout_level() const { return zlog_get_level(zlog_default, ZLOG_DEST_STDOUT); }
    int syslog_level() const { return zlog_get_level(zlog_default, ZLOG_DEST_SYSLOG); }
    int file_level() const { return zlog_get_level(zlog_default, ZLOG_DEST_FILE); }
};

TEST_F(LogCommands, AtDefaultsNothingIsWritten) {
    EXPECT_EQ(config(), "");
}

TEST_F(LogCommands, StdoutAndSyslogTable) {
    struct Case {
        std::string line;
        int code;
        int stdout_lvl;
        int syslog_lvl;
        std::string config;
    };
    const std::vector<Case> cases = {
        {"log stdout debugging", CMD_SUCCESS, LOG_DEBUG, LOG_INFO, "log stdout debugging\n"},
        {"log stdout", CMD_SUCCESS, LOG_INFO, LOG_INFO, ""},
        {"log stdout emergencies", CMD_SUCCESS, LOG_EMERG, LOG_INFO, "log stdout emergencies\n"},
        {"log stdout alerts", CMD_SUCCESS, LOG_ALERT, LOG_INFO, "log stdout alerts\n"},
        {"log stdout critical", CMD_SUCCESS, LOG_CRIT, LOG_INFO, "log stdout critical\n"},
        {"log stdout errors", CMD_SUCCESS, LOG_ERR, LOG_INFO, "log stdout errors\n"},
        {"log stdout warnings", CMD_SUCCESS, LOG_WARNING, LOG_INFO, "log stdout warnings\n"},
        {"log stdout notifications", CMD_SUCCESS, LOG_NOTICE, LOG_INFO,
         "log stdout notifications\n"},
        {"log stdout informational", CMD_SUCCESS, LOG_INFO, LOG_INFO, ""},
        {"lo std w", CMD_SUCCESS, LOG_WARNING, LOG_INFO, "log stdout warnings\n"},
        {"no log stdout", CMD_SUCCESS, ZLOG_DISABLED, LOG_INFO, "no log stdout\n"},
        {"log stdout e", CMD_ERR_AMBIGUOUS, ZLOG_DISABLED, LOG_INFO, "no log stdout\n"},
        {"log stdout bogus", CMD_ERR_NO_MATCH, ZLOG_DISABLED, LOG_INFO, "no log stdout\n"},
        {"log stdout", CMD_SUCCESS, LOG_INFO, LOG_INFO, ""},
        {"no log stdout errors", CMD_SUCCESS, ZLOG_DISABLED, LOG_INFO, "no log stdout\n"},
        {"log syslog errors", CMD_SUCCESS, ZLOG_DISABLED, LOG_ERR,
         "no log stdout\nlog syslog errors\n"},
        {"log stdout", CMD_SUCCESS, LOG_INFO, LOG_ERR, "log syslog errors\n"},
        {"no log syslog", CMD_SUCCESS, LOG_INFO, ZLOG_DISABLED, "no log syslog\n"},
        {"log syslog", CMD_SUCCESS, LOG_INFO, LOG_INFO, ""},
        {"no log syslog debugging", CMD_SUCCESS, LOG_INFO, ZLOG_DISABLED, "no log syslog\n"},
        {"log syslog debugging", CMD_SUCCESS, LOG_INFO, LOG_DEBUG, "log syslog debugging\n"},
        {"log", CMD_ERR_INCOMPLETE, LOG_INFO, LOG_DEBUG, "log syslog debugging\n"},
        {"log s", CMD_ERR_AMBIGUOUS, LOG_INFO, LOG_DEBUG, "log syslog debugging\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.line);
        EXPECT_EQ(run(c.line), c.code);
        EXPECT_EQ(stdout_level(), c.stdout_lvl);
        EXPECT_EQ(syslog_level(), c.syslog_lvl);
        EXPECT_EQ(config(), c.config);
    }
}

std::string slurp(const std::string &path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

TEST_F(LogCommands, LogFile) {
    EXPECT_EQ(run("log file " + file), CMD_SUCCESS);
    EXPECT_EQ(v->obuf, "");
    ASSERT_NE(zlog_get_filename(zlog_default), nullptr);
    EXPECT_EQ(std::string(zlog_get_filename(zlog_default)), file);
    EXPECT_EQ(file_level(), LOG_INFO);
    EXPECT_EQ(config(), "log file " + file + " informational\n");

    zlog_info("to the file");
    zlog_debug("not to the file");
    std::string text = slurp(file);
    EXPECT_NE(text.find("dhcpd: info: to the file\n"), std::string::npos);
    EXPECT_EQ(text.find("not to the file"), std::string::npos);

    EXPECT_EQ(run("log file " + file + " errors"), CMD_SUCCESS);
    EXPECT_EQ(file_level(), LOG_ERR);
    EXPECT_EQ(config(), "log file " + file + " errors\n");

    EXPECT_EQ(run("no log file"), CMD_SUCCESS);
    EXPECT_EQ(zlog_get_filename(zlog_default), nullptr);
    EXPECT_EQ(file_level(), ZLOG_DISABLED);
    EXPECT_EQ(config(), "");

    for (const std::string &off : {"no log file " + file, "no log file " + file + " debugging"}) {
        SCOPED_TRACE(off);
        ASSERT_EQ(run("log file " + file + " debugging"), CMD_SUCCESS);
        EXPECT_EQ(file_level(), LOG_DEBUG);
        EXPECT_EQ(run(off), CMD_SUCCESS);
        EXPECT_EQ(zlog_get_filename(zlog_default), nullptr);
        EXPECT_EQ(config(), "");
    }
}

TEST_F(LogCommands, LogFileThatCannotBeOpened) {
    const std::string bad = dir + "/missing/dhcpd.log";
    EXPECT_EQ(run("log file " + bad), CMD_WARNING);
    EXPECT_EQ(v->obuf, "% Can't open log file " + bad + "\n");
    EXPECT_EQ(zlog_get_filename(zlog_default), nullptr);
    auto term = vty_new(VTY_TERM);
    term->node = CONFIG_NODE;
    EXPECT_EQ(vty_command(term.get(), ("log file " + bad + " errors").c_str()), CMD_WARNING);
    EXPECT_EQ(term->obuf, "% Can't open log file " + bad + "\r\n");
}

TEST_F(LogCommands, RunningConfigCarriesTheLogLines) {
    ASSERT_EQ(run("log stdout debugging"), CMD_SUCCESS);
    ASSERT_EQ(run("no log syslog"), CMD_SUCCESS);
    ASSERT_EQ(run("log file " + file + " warnings"), CMD_SUCCESS);
    v->node = ENABLE_NODE;
    EXPECT_EQ(run("show running-config"), CMD_SUCCESS);
    EXPECT_EQ(v->obuf,
              "!\nlog stdout debugging\nno log syslog\nlog file " + file + " warnings\nend\n");
}

TEST_F(LogCommands, CommandsAreInTheConfigNode) {
    const std::vector<std::string> expected = {
        "log stdout",
        "log stdout (emergencies|alerts|critical|errors|warnings|notifications|informational|"
        "debugging)",
        "no log stdout",
        "no log stdout (emergencies|alerts|critical|errors|warnings|notifications|informational|"
        "debugging)",
        "log syslog",
        "log syslog (emergencies|alerts|critical|errors|warnings|notifications|informational|"
        "debugging)",
        "no log syslog",
        "no log syslog (emergencies|alerts|critical|errors|warnings|notifications|informational|"
        "debugging)",
        "log file FILENAME",
        "log file FILENAME (emergencies|alerts|critical|errors|warnings|notifications|"
        "informational|debugging)",
        "no log file",
        "no log file FILENAME",
        "no log file FILENAME (emergencies|alerts|critical|errors|warnings|notifications|"
        "informational|debugging)",
    };
    std::vector<std::string> all = cmd_list_node(CONFIG_NODE);
    std::vector<std::string> logs;
    for (const std::string &s : all) {
        if (s.find("log ") != std::string::npos) {
            logs.push_back(s);
        }
    }
    EXPECT_EQ(logs, expected);
    v->node = ENABLE_NODE;
    EXPECT_EQ(run("log stdout"), CMD_ERR_NO_MATCH);
}

using Descr = std::vector<std::pair<std::string, std::string>>;

Descr describe(vty *v, const std::string &line) {
    int status = -1;
    Descr out;
    for (const cmd_description &d : cmd_describe_command(line.c_str(), v, &status)) {
        out.emplace_back(d.word, d.help);
    }
    EXPECT_EQ(status, CMD_SUCCESS) << line;
    return out;
}

TEST_F(LogCommands, HelpText) {
    EXPECT_EQ(describe(v.get(), "lo"), (Descr{{"log", "Logging control"}}));
    EXPECT_EQ(describe(v.get(), "log "), (Descr{{"file", "Logging to file"},
                                                {"stdout", "Set stdout logging level"},
                                                {"syslog", "Set syslog logging level"}}));
    const Descr levels = {{"alerts", "Immediate action needed"},
                          {"critical", "Critical conditions"},
                          {"debugging", "Debugging messages"},
                          {"emergencies", "System is unusable"},
                          {"errors", "Error conditions"},
                          {"informational", "Informational messages"},
                          {"notifications", "Normal but significant conditions"},
                          {"warnings", "Warning conditions"}};
    Descr with_cr = levels;
    with_cr.emplace_back("<cr>", "");
    EXPECT_EQ(describe(v.get(), "log stdout "), with_cr);
    EXPECT_EQ(describe(v.get(), "log syslog "), with_cr);
    EXPECT_EQ(describe(v.get(), "no log syslog "), with_cr);
    EXPECT_EQ(describe(v.get(), "log file "), (Descr{{"FILENAME", "Logging filename"}}));
    EXPECT_EQ(describe(v.get(), "log file x "), with_cr);
    EXPECT_EQ(describe(v.get(), "no log file "),
              (Descr{{"FILENAME", "Logging filename"}, {"<cr>", ""}}));
    EXPECT_EQ(describe(v.get(), "log stdout e"),
              (Descr{{"emergencies", "System is unusable"}, {"errors", "Error conditions"}}));
    EXPECT_EQ(describe(v.get(), "n"), (Descr{{"no", "Negate a command or set its defaults"}}));
}

}  // namespace
