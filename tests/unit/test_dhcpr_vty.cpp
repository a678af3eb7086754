// The relay's commands, display and running configuration, driven through
// the CLI engine as an operator types them.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcpr.h"
#include "dhcp/dhcpr_vty.h"
#include "lib/command.h"
#include "lib/if.h"
#include "lib/log.h"
#include "lib/thread.h"
#include "lib/vty.h"
#include "tests/unit/cli_run.h"

namespace {

// Terminal sessions end lines with CR LF.
std::string crlf(const std::string &s) {
    std::string out;
    for (char c : s) {
        if (c == '\n') {
            out += '\r';
        }
        out += c;
    }
    return out;
}

const std::string STARS = "********************************\n";
const std::string SHOW_OFF = STARS + "DHCP Relay is disabled.\n" + STARS;
const std::string SHOW_ON = STARS + "DHCP Relay is enabled.\n" + STARS;
const std::string INACTIVE = "% Since dhcp-relay is not enabled, config will be inactive now.\n";
const std::string NO_RELAY = "% No dhcp-relay be configured at this interface\n";

std::string block(const std::string &ifname, const std::string &server, const std::string &o82,
                  const std::string &strategy, const std::string &cmode, const std::string &rmode,
                  const std::string &ctext, const std::string &rtext) {
    return "\n"
           "Interface         : " +
           ifname +
           "\n"
           "Remote Server-IP  : " +
           server +
           "\n"
           "Option-82 Enable  : " +
           o82 +
           "\n"
           "Option-82 Strategy: " +
           strategy +
           "\n"
           "Circuit-ID Mode   : " +
           cmode +
           "\n"
           "Remote-ID Mode    : " +
           rmode +
           "\n"
           "Circuit-ID string : " +
           ctext +
           "\n"
           "Remote-ID String  : " +
           rtext + "\n";
}

std::string default_block(const std::string &ifname, const std::string &server) {
    return block(ifname, server, "Disabled", "replace", "normal", "normal", "", "");
}

struct RelayCli : ::testing::Test {
    thread_master *master = thread_master_create();
    std::unique_ptr<vty> v = vty_new(VTY_SHELL_SERV);
    std::vector<std::string> log;

    RelayCli() {
        cmd_init(1);
        cmd_set_hostname("sw1");
        if_init();
        dhcpr_init(master);
        dhcp_debug_init();
        dhcpr_vty_init();
        zlog_set_hook([this](int, std::string_view t) { log.emplace_back(t); });
    }
    ~RelayCli() override {
        zlog_set_hook({});
        dhcpr_reset();
        cmd_terminate();
        if_terminate();
        thread_master_free(master);
    }
    std::string run(const std::string &line, int want = CMD_SUCCESS) {
        return cli_run(*v, line, want);
    }
    void run_all(const std::vector<std::string> &lines) {
        for (const std::string &l : lines) {
            EXPECT_EQ(run(l), "") << l;
        }
    }
    // Enters vlanif<n> from wherever the session is.
    void enter(const std::string &ifname) {
        v->node = CONFIG_NODE;
        v->index = nullptr;
        run("interface " + ifname);
        ASSERT_EQ(v->node, INTERFACE_NODE);
    }
    void relay_on(const std::string &ifname, const std::string &server) {
        enter(ifname);
        run("dhcp-relay remote-server " + server);
    }
};

// ---- show dhcp-relay ----

TEST_F(RelayCli, ShowWithTheRelayOffAndNoInterfacesIsThreeLines) {
    EXPECT_EQ(run("show dhcp-relay"), SHOW_OFF);
    run("configure terminal");
    EXPECT_EQ(run("show dhcp-relay"), SHOW_OFF);
    v->type = VTY_TERM;
    EXPECT_EQ(run("show dhcp-relay"), crlf(SHOW_OFF));
}

TEST_F(RelayCli, RemoteServerWithTheRelayOffWarnsAndIsStored) {
    enter("vlanif10");
    EXPECT_EQ(run("dhcp-relay remote-server 10.0.20.2"), INACTIVE);
    v->node = CONFIG_NODE;
    EXPECT_EQ(run("show dhcp-relay"), SHOW_OFF + default_block("vlanif10", "10.0.20.2"));
}

TEST_F(RelayCli, ShowListsEveryRelayInterfaceInOrder) {
    relay_on("vlanif20", "10.0.0.2");
    relay_on("vlanif10", "10.0.0.1");
    run_all({"dhcp-relay information enable", "dhcp-relay information strategy keep",
             "dhcp-relay information circuit-id string CID-1",
             "dhcp-relay information remote-id string sw1"});
    enter("vlanif30");  // no relay: not listed
    run("end");
    run("configure terminal");
    run("dhcp-relay enable");
    EXPECT_EQ(run("show dhcp-relay"), SHOW_ON +
                                          block("vlanif10", "10.0.0.1", "Enabled", "keep", "string",
                                                "string", "CID-1", "sw1") +
                                          default_block("vlanif20", "10.0.0.2"));
    run("dhcp-relay disable");
    EXPECT_EQ(run("show dhcp-relay").substr(0, SHOW_OFF.size()), SHOW_OFF);
}

TEST_F(RelayCli, ForeignBindingIsNotListedAndRefusesTheServer) {
    interface *ifp = if_get_by_name("vlanif10");
    dhcpr_if_info foreign{2, std::make_unique<dhcpr_if>()};
    ifp->info = &foreign;
    enter("vlanif10");
    EXPECT_EQ(run("dhcp-relay remote-server 10.0.20.2", CMD_ERR_NOTHING_TODO),
              "%The interface has configure dhcp, undo it first\n");
    EXPECT_EQ(run("no dhcp-relay remote-server", CMD_ERR_NOTHING_TODO), NO_RELAY);
    EXPECT_EQ(run("dhcp-relay information enable", CMD_ERR_NOTHING_TODO), NO_RELAY);
    v->node = CONFIG_NODE;
    EXPECT_EQ(run("show dhcp-relay"), SHOW_OFF);
    EXPECT_EQ(run("show running-config"), "!\nend\n");
    ifp->info = nullptr;
}

// ---- the interface commands ----

TEST_F(RelayCli, MalformedAddressIsRefused) {
    enter("vlanif10");
    EXPECT_EQ(run("dhcp-relay remote-server 300.1.1.1", CMD_ERR_NOTHING_TODO),
              "Malformed address: -1 300.1.1.1\n");
    EXPECT_EQ(run("dhcp-relay remote-server 1.2.3", CMD_ERR_NOTHING_TODO),
              "Malformed address: -1 1.2.3\n");
    EXPECT_EQ(dhcpr_if_binding(if_lookup_by_name("vlanif10")), nullptr);
}

TEST_F(RelayCli, OptionCommandsWithoutARemoteServerAreRefused) {
    enter("vlanif10");
    for (const char *line :
         {"no dhcp-relay remote-server", "dhcp-relay information enable",
          "dhcp-relay information disable", "dhcp-relay information strategy keep",
          "dhcp-relay information circuit-id normal", "dhcp-relay information circuit-id string x",
          "dhcp-relay information remote-id normal", "dhcp-relay information remote-id string x"}) {
        EXPECT_EQ(run(line, CMD_ERR_NOTHING_TODO), NO_RELAY) << line;
    }
}

TEST_F(RelayCli, NoRemoteServerRemovesTheBinding) {
    relay_on("vlanif10", "10.0.20.2");
    EXPECT_EQ(run("no dhcp-relay remote-server"), "");
    EXPECT_EQ(if_lookup_by_name("vlanif10")->info, nullptr);
    EXPECT_EQ(run("no dhcp-relay remote-server", CMD_ERR_NOTHING_TODO), NO_RELAY);
}

TEST_F(RelayCli, OptionCommandsOfABindingWithoutRecordDoNothing) {
    relay_on("vlanif10", "10.0.20.2");
    interface *ifp = if_lookup_by_name("vlanif10");
    dhcpr_if_binding(ifp)->relay.reset();
    run_all({"dhcp-relay information enable", "dhcp-relay information strategy drop",
             "dhcp-relay information circuit-id string x",
             "dhcp-relay information remote-id normal"});
    EXPECT_EQ(dhcpr_if_record(ifp), nullptr);
}

TEST_F(RelayCli, ANewServerResetsOption82AndTheSameOneDoesNot) {
    relay_on("vlanif10", "10.0.20.2");
    run_all({"dhcp-relay information enable", "dhcp-relay information strategy drop"});
    run("dhcp-relay remote-server 10.0.20.2");
    v->node = CONFIG_NODE;
    EXPECT_EQ(run("show dhcp-relay"), SHOW_OFF + block("vlanif10", "10.0.20.2", "Enabled", "drop",
                                                       "normal", "normal", "", ""));
    enter("vlanif10");
    EXPECT_EQ(run("dhcp-relay remote-server 10.0.20.9"), INACTIVE);
    v->node = CONFIG_NODE;
    EXPECT_EQ(run("show dhcp-relay"), SHOW_OFF + default_block("vlanif10", "10.0.20.9"));
}

TEST_F(RelayCli, RelayOnSetsTheServerWithoutWarning) {
    run("configure terminal");
    run("dhcp-relay enable");
    EXPECT_EQ(dhcpr_enable_get(), 1u);
    enter("vlanif10");
    EXPECT_EQ(run("dhcp-relay remote-server 10.0.20.2"), "");
    v->node = CONFIG_NODE;
    run("dhcp-relay disable");
    EXPECT_EQ(dhcpr_enable_get(), 0u);
}

TEST_F(RelayCli, FortyCharacterStringKeepsThirtyOne) {
    relay_on("vlanif10", "10.0.20.2");
    const std::string forty = "0123456789abcdefghijklmnopqrstuvwxyzABCD";
    run("dhcp-relay information circuit-id string " + forty);
    run("dhcp-relay information remote-id string " + forty);
    const dhcpr_if *r = dhcpr_if_record(if_lookup_by_name("vlanif10"));
    EXPECT_EQ(r->circuit_id_len, 40u);
    EXPECT_EQ(r->remote_id_len, 40u);
    v->node = CONFIG_NODE;
    const std::string kept = forty.substr(0, 31);
    EXPECT_EQ(run("show dhcp-relay"), SHOW_OFF + block("vlanif10", "10.0.20.2", "Disabled",
                                                       "replace", "string", "string", kept, kept));
}

TEST_F(RelayCli, NormalModeAfterStringClearsTheText) {
    relay_on("vlanif10", "10.0.20.2");
    run_all({"dhcp-relay information circuit-id string abc",
             "dhcp-relay information circuit-id normal"});
    v->node = CONFIG_NODE;
    EXPECT_EQ(run("show dhcp-relay"), SHOW_OFF + default_block("vlanif10", "10.0.20.2"));
}

TEST_F(RelayCli, ChoiceWordsArePassedByTheirFirstLetter) {
    relay_on("vlanif10", "10.0.20.2");
    const dhcpr_if *r = dhcpr_if_record(if_lookup_by_name("vlanif10"));
    struct Case {
        const char *line;
        std::uint32_t strategy;
    };
    for (const Case &c : {Case{"dhcp-relay information strategy k", DHCPR_OPT82_KEEP},
                          Case{"dhcp-relay information strategy d", DHCPR_OPT82_DROP},
                          Case{"dhcp-relay information strategy replace", DHCPR_OPT82_REPLACE}}) {
        run(c.line);
        EXPECT_EQ(r->opt82_strategy, c.strategy) << c.line;
    }
    run("dhcp-relay information en");
    EXPECT_EQ(r->opt82_enable, 1u);
    run("dhcp-relay information dis");
    EXPECT_EQ(r->opt82_enable, 0u);
}

// ---- running configuration ----

TEST_F(RelayCli, WriterExampleWritesSixLines) {
    relay_on("vlanif10", "10.0.20.2");
    run_all({"dhcp-relay information enable", "dhcp-relay information strategy drop",
             "dhcp-relay information circuit-id string ABC"});
    std::unique_ptr<vty> w = vty_new(VTY_FILE);
    EXPECT_EQ(dhcpr_config_write(w.get()), 0);
    EXPECT_EQ(w->obuf,
              "interface vlanif10\n"
              " dhcp-relay remote-server 10.0.20.2\n"
              " dhcp-relay information enable\n"
              " dhcp-relay information strategy drop\n"
              " dhcp-relay information circuit-id string ABC\n"
              " quit\n");
}

TEST_F(RelayCli, DefaultsAreNeverWritten) {
    relay_on("vlanif10", "10.0.20.2");
    run_all({"dhcp-relay information disable", "dhcp-relay information strategy replace",
             "dhcp-relay information circuit-id normal",
             "dhcp-relay information remote-id normal"});
    v->node = CONFIG_NODE;
    EXPECT_EQ(run("show running-config"),
              "!\ninterface vlanif10\n dhcp-relay remote-server 10.0.20.2\n quit\nend\n");
}

const std::vector<std::string> FULL_SETUP = {
    "configure terminal",
    "dhcp-relay enable",
    "interface vlanif10",
    "dhcp-relay remote-server 10.0.20.2",
    "dhcp-relay information enable",
    "dhcp-relay information strategy keep",
    "dhcp-relay information remote-id string sw1-agent",
    "quit",
    "interface vlanif20",
    "dhcp-relay remote-server 192.0.2.7",
    "dhcp-relay information circuit-id string c20",
    "quit",
    "interface vlanif30",
    "end",
};

const std::string FULL_CONFIG =
    "!\n"
    "dhcp-relay enable\n"
    "interface vlanif10\n"
    " dhcp-relay remote-server 10.0.20.2\n"
    " dhcp-relay information enable\n"
    " dhcp-relay information strategy keep\n"
    " dhcp-relay information remote-id string sw1-agent\n"
    " quit\n"
    "interface vlanif20\n"
    " dhcp-relay remote-server 192.0.2.7\n"
    " dhcp-relay information circuit-id string c20\n"
    " quit\n"
    "end\n";

TEST_F(RelayCli, FullConfigurationIsWrittenExactlyAndReplaysToTheSameText) {
    for (const std::string &l : FULL_SETUP) {
        const int rc = cmd_execute_command(l.c_str(), v.get());
        EXPECT_EQ(rc, CMD_SUCCESS) << l;
    }
    v->obuf.clear();
    const std::string written = run("show running-config");
    EXPECT_EQ(written, FULL_CONFIG);

    // A fresh engine and relay, as after a restart.
    dhcpr_reset();
    cmd_terminate();
    if_terminate();
    cmd_init(1);
    if_init();
    dhcpr_init(master);
    dhcp_debug_init();
    dhcpr_vty_init();
    auto replay = vty_new(VTY_FILE);
    replay->node = CONFIG_NODE;
    std::istringstream in(written);
    for (std::string line; std::getline(in, line);) {
        EXPECT_EQ(cmd_execute_command(line.c_str(), replay.get()), CMD_SUCCESS) << line;
        EXPECT_EQ(replay->obuf, "") << line;
        replay->obuf.clear();
    }
    EXPECT_EQ(run("show running-config"), written);
    v->type = VTY_TERM;
    EXPECT_EQ(run("show running-config"), crlf(written));
}

// ---- workers without a terminal ----

TEST_F(RelayCli, WorkersTakeNoTerminal) {
    interface *ifp = if_get_by_name("vlanif10");
    EXPECT_EQ(dhcpr_remote_server_set(nullptr, nullptr, "10.0.0.1"), CMD_WARNING);
    EXPECT_EQ(dhcpr_remote_server_set(nullptr, ifp, nullptr), CMD_WARNING);
    EXPECT_EQ(dhcpr_remote_server_set(nullptr, ifp, "10.0.0.x"), CMD_ERR_NOTHING_TODO);
    EXPECT_EQ(dhcpr_remote_server_set(nullptr, ifp, "2001:db8::1"), CMD_ERR_NOTHING_TODO);
    EXPECT_EQ(dhcpr_remote_server_set(nullptr, ifp, "10.0.0.1"), CMD_SUCCESS);
    EXPECT_NE(dhcpr_if_record(ifp), nullptr);
    EXPECT_EQ(dhcpr_remote_server_unset(nullptr, nullptr), CMD_WARNING);
    EXPECT_EQ(dhcpr_remote_server_unset(nullptr, ifp), CMD_SUCCESS);
    EXPECT_EQ(dhcpr_remote_server_unset(nullptr, ifp), CMD_ERR_NOTHING_TODO);
}

TEST_F(RelayCli, ASessionInADeletedInterfaceIsRefusedNotCrashed) {
    relay_on("vlanif10", "10.0.20.2");
    interface *ifp = if_lookup_by_name("vlanif10");
    dhcpr_if_teardown(ifp);
    if_delete(ifp);
    EXPECT_EQ(run("dhcp-relay remote-server 10.0.20.2", CMD_WARNING), "");
    EXPECT_EQ(run("dhcp-relay information enable", CMD_WARNING), "");
    EXPECT_EQ(run("dhcp-relay information circuit-id string x", CMD_WARNING), "");
    EXPECT_EQ(run("no dhcp-relay remote-server", CMD_WARNING), "");
}

TEST_F(RelayCli, DisplayWords) {
    EXPECT_STREQ(option82_strategy_str(DHCPR_OPT82_DROP), "drop");
    EXPECT_STREQ(option82_strategy_str(DHCPR_OPT82_KEEP), "keep");
    EXPECT_STREQ(option82_strategy_str(DHCPR_OPT82_REPLACE), "replace");
    EXPECT_STREQ(option82_submode_str(DHCPR_SUBMODE_STRING), "string");
    EXPECT_STREQ(option82_submode_str(DHCPR_SUBMODE_NORMAL), "normal");
}

// ---- installation: order and help ----

std::vector<std::string> relay_commands(int node) {
    std::vector<std::string> out;
    for (const std::string &s : cmd_list_node(node)) {
        if (s.find("dhcp-relay") != std::string::npos) {
            out.push_back(s);
        }
    }
    return out;
}

TEST_F(RelayCli, CommandsInTheirNodesAndOrder) {
    EXPECT_EQ(
        relay_commands(INTERFACE_NODE),
        (std::vector<std::string>{"dhcp-relay remote-server A.B.C.D", "no dhcp-relay remote-server",
                                  "dhcp-relay information (enable|disable)",
                                  "dhcp-relay information strategy (drop|keep|replace)",
                                  "dhcp-relay information circuit-id (normal)",
                                  "dhcp-relay information circuit-id (string) STRING",
                                  "dhcp-relay information remote-id (normal)",
                                  "dhcp-relay information remote-id (string) STRING"}));
    EXPECT_EQ(
        relay_commands(CONFIG_NODE),
        (std::vector<std::string>{"dhcp-relay (enable|disable)",
                                  "dhcp-relay server-reply-port (67|68)", "show dhcp-relay"}));
    EXPECT_EQ(relay_commands(ENABLE_NODE), std::vector<std::string>{"show dhcp-relay"});
    std::vector<std::string> node82 = cmd_list_node(DHCPR_NODE);
    ASSERT_FALSE(node82.empty());
    EXPECT_EQ(node82.back(), "show dhcp-relay");
    EXPECT_NE(std::find(node82.begin(), node82.end(), "exit"), node82.end());
}

constexpr const char *REPLY_PORT_HELP =
    "UDP port of DHCP Server's replies(and of relayed requests)";
constexpr const char *REPLY_PORT_67_HELP = "Port 67(as RFC 2131 DHCP Servers reply to a relay)";

struct Word {
    const char *typed;
    const char *shown;
    const char *help;
};

struct HelpCase {
    int node;
    std::vector<Word> words;
};

std::vector<HelpCase> help_cases() {
    const Word relay = {"dhcp-relay", "dhcp-relay", "Configure dhcp-relay"};
    const Word relay_global = {"dhcp-relay", "dhcp-relay", "Configure dhcp relay"};
    const Word no = {"no", "no", "Negate a command or set its defaults"};
    const Word reply_port = {"server-reply-port", "server-reply-port", REPLY_PORT_HELP};
    const Word server = {"remote-server", "remote-server",
                         "Remote DHCP Server(Relay it's DHCP packets)"};
    const Word info = {"information", "information", "DHCP Relay Option-82 Configuration"};
    const Word circuit = {"circuit-id", "circuit-id", "Circuit-ID(sub-option 1) of Option-82"};
    const Word remote = {"remote-id", "remote-id", "Remote-ID(sub-option 2) of Option-82"};
    std::vector<HelpCase> cases = {
        {CONFIG_NODE, {relay_global, {"enable", "enable", "Enable dhcp-relay"}}},
        {CONFIG_NODE, {relay_global, {"disable", "disable", "Disable dhcp-relay"}}},
        {CONFIG_NODE, {relay_global, reply_port, {"67", "67", REPLY_PORT_67_HELP}}},
        {CONFIG_NODE, {relay_global, reply_port, {"68", "68", "Port 68(default)"}}},
        {INTERFACE_NODE, {relay, server, {"10.0.0.1", "A.B.C.D", "Specify the IP Address"}}},
        {INTERFACE_NODE, {no, relay, server}},
        {INTERFACE_NODE, {relay, info, {"enable", "enable", "Enable Option-82"}}},
        {INTERFACE_NODE, {relay, info, {"disable", "disable", "Disable Option-82"}}},
        {INTERFACE_NODE,
         {relay,
          info,
          {"strategy", "strategy", "Processing strategy of DHCP Request with Option-82"},
          {"drop", "drop", "Drop the packet with Option-82"}}},
        {INTERFACE_NODE,
         {relay,
          info,
          {"strategy", "strategy", ""},
          {"keep", "keep", "Keep Option-82 in the packet"}}},
        {INTERFACE_NODE,
         {relay,
          info,
          {"strategy", "strategy", ""},
          {"replace", "replace", "Replace the Option-82 with device's information"}}},
        {INTERFACE_NODE,
         {relay, info, circuit, {"normal", "normal", "Fill Circuit ID sub-option in Normal mode"}}},
        {INTERFACE_NODE,
         {relay,
          info,
          circuit,
          {"string", "string", "Fill Circuit ID sub-option with specified string"},
          {"c1", "STRING", "Specify string as Circuit ID"}}},
        {INTERFACE_NODE,
         {relay, info, remote, {"normal", "normal", "Fill Remote ID sub-option in Normal mode"}}},
        {INTERFACE_NODE,
         {relay,
          info,
          remote,
          {"string", "string", "Fill Remote ID sub-option with specified string"},
          {"r1", "STRING", "Specify string as Remote ID"}}},
    };
    for (int node : {CONFIG_NODE, ENABLE_NODE, DHCPR_NODE}) {
        cases.push_back({node,
                         {{"show", "show", "Show running system information"},
                          {"dhcp-relay", "dhcp-relay", "dhcp-relay configurations"}}});
    }
    return cases;
}

// For each word of each command: `?` after the words before it names the
// word with its help line. An empty help skips the word's own check.
TEST_F(RelayCli, EveryWordHasItsHelpLine) {
    interface *ifp = if_get_by_name("vlanif10");
    for (const HelpCase &c : help_cases()) {
        v->node = c.node;
        v->index = ifp;
        std::string typed;
        for (const Word &w : c.words) {
            if (w.help[0] != '\0') {
                int status = -1;
                auto got = cmd_describe_command(typed.c_str(), v.get(), &status);
                EXPECT_EQ(status, CMD_SUCCESS) << typed;
                auto it = std::find_if(got.begin(), got.end(),
                                       [&](const cmd_description &d) { return d.word == w.shown; });
                ASSERT_NE(it, got.end()) << "node " << c.node << " '" << typed << "' " << w.shown;
                EXPECT_EQ(it->help, w.help) << "node " << c.node << " '" << typed << "'";
            }
            typed += std::string(w.typed) + " ";
        }
    }
}

TEST_F(RelayCli, ChoiceWordsAreOfferedWithTheirHelp) {
    enter("vlanif10");
    int status = -1;
    auto got = cmd_describe_command("dhcp-relay information strategy ", v.get(), &status);
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[0].word + "=" + got[0].help, "drop=Drop the packet with Option-82");
    EXPECT_EQ(got[1].word + "=" + got[1].help, "keep=Keep Option-82 in the packet");
    EXPECT_EQ(got[2].word + "=" + got[2].help,
              "replace=Replace the Option-82 with device's information");
    got = cmd_describe_command("dhcp-relay information circuit-id ", v.get(), &status);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].word + "=" + got[0].help, "normal=Fill Circuit ID sub-option in Normal mode");
    EXPECT_EQ(got[1].word + "=" + got[1].help,
              "string=Fill Circuit ID sub-option with specified string");
    auto words = cmd_complete_command("dhcp-relay information re", v.get(), &status);
    EXPECT_EQ(words, std::vector<std::string>{"remote-id"});
}

// ---- the server reply port ----

TEST_F(RelayCli, ServerReplyPortIsOfferedAndCompleted) {
    run("configure terminal");
    int status = -1;
    auto got = cmd_describe_command("dhcp-relay ", v.get(), &status);
    std::vector<std::string> words;
    for (const cmd_description &d : got) {
        words.push_back(d.word + "=" + d.help);
    }
    EXPECT_EQ(words,
              (std::vector<std::string>{"disable=Disable dhcp-relay", "enable=Enable dhcp-relay",
                                        std::string("server-reply-port=") + REPLY_PORT_HELP}));
    got = cmd_describe_command("dhcp-relay server-reply-port ", v.get(), &status);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].word + "=" + got[0].help, std::string("67=") + REPLY_PORT_67_HELP);
    EXPECT_EQ(got[1].word + "=" + got[1].help, "68=Port 68(default)");
    EXPECT_EQ(cmd_complete_command("dhcp-relay s", v.get(), &status),
              std::vector<std::string>{"server-reply-port"});
    EXPECT_EQ(cmd_complete_command("dhcp-relay server-reply-port 6", v.get(), &status),
              (std::vector<std::string>{"67", "68"}));
}

TEST_F(RelayCli, ServerReplyPortSetsTheRelayAndIsWrittenOnlyWhenNot68) {
    run("configure terminal");
    EXPECT_EQ(run("dhcp-relay server-reply-port 67"), "");
    EXPECT_EQ(dhcpr_reply_port_get(), 67);
    EXPECT_EQ(run("show running-config"), "!\ndhcp-relay server-reply-port 67\nend\n");
    // The display does not change with the port.
    EXPECT_EQ(run("show dhcp-relay"), SHOW_OFF);
    EXPECT_EQ(run("dhcp-relay server-reply-port 68"), "");
    EXPECT_EQ(dhcpr_reply_port_get(), 68);
    EXPECT_EQ(run("show running-config"), "!\nend\n");
    run("dhcp-relay server-reply-port 69", CMD_ERR_NO_MATCH);
    run("dhcp-relay server-reply-port", CMD_ERR_INCOMPLETE);
    EXPECT_EQ(dhcpr_reply_port_get(), 68);
}

TEST_F(RelayCli, ServerReplyPortComesAfterTheEnableLineAndBeforeInterfaces) {
    relay_on("vlanif10", "10.0.20.2");
    v->node = CONFIG_NODE;
    run_all({"dhcp-relay enable", "dhcp-relay server-reply-port 67"});
    const std::string show = SHOW_ON + default_block("vlanif10", "10.0.20.2");
    EXPECT_EQ(run("show dhcp-relay"), show);
    EXPECT_EQ(run("show running-config"),
              "!\n"
              "dhcp-relay enable\n"
              "dhcp-relay server-reply-port 67\n"
              "interface vlanif10\n"
              " dhcp-relay remote-server 10.0.20.2\n"
              " quit\n"
              "end\n");
    run("dhcp-relay server-reply-port 68");
    EXPECT_EQ(run("show dhcp-relay"), show);
    EXPECT_EQ(run("show running-config"),
              "!\n"
              "dhcp-relay enable\n"
              "interface vlanif10\n"
              " dhcp-relay remote-server 10.0.20.2\n"
              " quit\n"
              "end\n");
    std::unique_ptr<vty> w = vty_new(VTY_TERM);
    run("dhcp-relay server-reply-port 67");
    EXPECT_EQ(dhcpr_config_write(w.get()), 0);
    EXPECT_EQ(w->obuf, crlf("dhcp-relay enable\n"
                            "dhcp-relay server-reply-port 67\n"
                            "interface vlanif10\n"
                            " dhcp-relay remote-server 10.0.20.2\n"
                            " quit\n"));
}

TEST_F(RelayCli, ServerReplyPortWorkerRefusesOtherText) {
    EXPECT_EQ(dhcpr_server_reply_port_set(nullptr, nullptr), CMD_WARNING);
    for (const char *bad : {"", "6", "69", "067", "67 ", "sixty-seven", "546"}) {
        EXPECT_EQ(dhcpr_server_reply_port_set(nullptr, bad), CMD_ERR_NOTHING_TODO) << bad;
        EXPECT_EQ(dhcpr_server_reply_port_set(v.get(), bad), CMD_ERR_NOTHING_TODO) << bad;
        EXPECT_EQ(v->obuf,
                  std::string("% Invalid server reply port ") + bad + ", 67 or 68 expected\n");
        v->obuf.clear();
        EXPECT_EQ(dhcpr_reply_port_get(), 68);
    }
    EXPECT_EQ(dhcpr_server_reply_port_set(nullptr, "67"), CMD_SUCCESS);
    EXPECT_EQ(dhcpr_reply_port_get(), 67);
    EXPECT_EQ(dhcpr_server_reply_port_set(nullptr, "68"), CMD_SUCCESS);
    EXPECT_EQ(dhcpr_reply_port_get(), 68);
}

}  // namespace
