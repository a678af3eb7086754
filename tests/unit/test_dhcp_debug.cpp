// The interface node and the debug switches, driven through the CLI engine.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "dhcp/dhcp_debug.h"
#include "lib/command.h"
#include "lib/if.h"
#include "lib/vty.h"

namespace {

struct DebugCli : ::testing::Test {
    std::unique_ptr<vty> v = vty_new(VTY_SHELL_SERV);
    DebugCli() {
        cmd_init(1);
        if_init();
        dhcp_debug_init();
        dhcp_debug = 0;
    }
    ~DebugCli() override {
        cmd_terminate();
        if_terminate();
        dhcp_debug = 0;
    }
    // Runs a line and returns what it printed, clearing the output.
    std::string run(const char *line, int want = CMD_SUCCESS) {
        int rc = cmd_execute_command(line, v.get());
        EXPECT_EQ(rc, want) << line;
        std::string out = v->obuf;
        v->obuf.clear();
        return out;
    }
};

TEST_F(DebugCli, StartsAllOff) {
    EXPECT_EQ(run("show debugging dhcp"), "Dhcp debugging status:\n");
}

struct Case {
    std::vector<const char *> lines;
    std::uint32_t word;
    const char *shown;
};

class DebugWords : public DebugCli, public ::testing::WithParamInterface<Case> {};

TEST_P(DebugWords, SetClearAndShow) {
    for (const char *l : GetParam().lines) {
        run(l);
    }
    EXPECT_EQ(dhcp_debug, GetParam().word);
    EXPECT_EQ(run("show debugging dhcp"), GetParam().shown);
}

INSTANTIATE_TEST_SUITE_P(
    Table, DebugWords,
    ::testing::Values(
        Case{{"debug dhcp events"}, 0x1, "Dhcp debugging status:\n  Dhcp event debugging is on\n"},
        Case{{"debug dhcp packet"}, 0x2, "Dhcp debugging status:\n  Dhcp packet debugging is on\n"},
        // The timer line follows the interface bit; the timer bit alone shows nothing.
        Case{{"debug dhcp timer"}, 0x8, "Dhcp debugging status:\n"},
        Case{{"debug dhcp interface"},
             0x4,
             "Dhcp debugging status:\n  Dhcp interface debugging is on\n"
             "  Dhcp timer debugging is on\n"},
        Case{{"debug dhcp all", "no debug dhcp packet"},
             0xd,
             "Dhcp debugging status:\n  Dhcp event debugging is on\n"
             "  Dhcp interface debugging is on\n  Dhcp timer debugging is on\n"},
        Case{{"debug dhcp all"},
             0xf,
             "Dhcp debugging status:\n  Dhcp event debugging is on\n"
             "  Dhcp packet debugging is on\n  Dhcp interface debugging is on\n"
             "  Dhcp timer debugging is on\n"},
        Case{{"debug dhcp all", "no debug dhcp events", "no debug dhcp interface",
              "no debug dhcp timer"},
             0x2,
             "Dhcp debugging status:\n  Dhcp packet debugging is on\n"},
        Case{{"debug dhcp all", "no debug dhcp all"}, 0x0, "Dhcp debugging status:\n"}));

TEST_F(DebugCli, CommandsWorkInTheConfigurationNodeAndAbbreviated) {
    run("configure terminal");
    EXPECT_EQ(v->node, CONFIG_NODE);
    run("deb dhcp ev");
    EXPECT_EQ(dhcp_debug, 0x1u);
    EXPECT_EQ(run("sh deb dhcp"), "Dhcp debugging status:\n  Dhcp event debugging is on\n");
}

TEST_F(DebugCli, TerminalSessionsEndLinesWithCrLf) {
    v->type = VTY_TERM;
    run("debug dhcp packet");
    EXPECT_EQ(run("show debugging dhcp"),
              "Dhcp debugging status:\r\n  Dhcp packet debugging is on\r\n");
}

TEST_F(DebugCli, HelpStringsAreTheOperatorsOwn) {
    int status = -1;
    auto words = cmd_describe_command("no debug dhcp ", v.get(), &status);
    EXPECT_EQ(status, CMD_SUCCESS);
    std::vector<std::string> got;
    for (auto &d : words) {
        got.push_back(d.word + "=" + d.help);
    }
    EXPECT_EQ(got, (std::vector<std::string>{"all=Debug option set for all",
                                             "events=Debug option set for dhcp events",
                                             "interface=Debug option set for interface",
                                             "packet=Debug option set for Igmp-snooping packet",
                                             "timer=Debug option set for timer"}));
    auto show = cmd_describe_command("show debugging ", v.get(), &status);
    ASSERT_EQ(show.size(), 1u);
    EXPECT_EQ(show[0].word, "dhcp");
    EXPECT_EQ(show[0].help, "Dhcp debugging information");
}

TEST_F(DebugCli, InterfaceNodeIsEnteredForVlanifAndEthOnly) {
    run("configure terminal");
    EXPECT_EQ(run("interface lo", CMD_ERR_NOTHING_TODO),
              "% [dhcp_interface]Cann't create interface lo\n");
    EXPECT_EQ(v->node, CONFIG_NODE);
    EXPECT_EQ(if_lookup_by_name("lo"), nullptr);
    EXPECT_EQ(run("interface vlanif10"), "");
    EXPECT_EQ(v->node, INTERFACE_NODE);
    EXPECT_EQ(v->index, if_lookup_by_name("vlanif10"));
    run("exit");
    EXPECT_EQ(v->node, CONFIG_NODE);
    run("interface eth0");
    EXPECT_EQ(v->node, INTERFACE_NODE);
    EXPECT_NE(cmd_prompt(v.get()).find("(config-if)# "), std::string::npos);
}

TEST_F(DebugCli, NoInterfaceDeletesKnownAndIgnoresUnknown) {
    run("configure terminal");
    run("interface vlanif10");
    run("exit");
    EXPECT_EQ(run("no interface vlanif99"), "");
    EXPECT_EQ(run("no interface vlanif10"), "");
    EXPECT_EQ(if_lookup_by_name("vlanif10"), nullptr);
}

}  // namespace
