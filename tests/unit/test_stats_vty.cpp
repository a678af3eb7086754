// The counters' commands as an operator types them: exact display text,
// zero drop reasons hidden, `?` and TAB, clear.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_options.h"
#include "dhcp/dhcp_packet.h"
#include "dhcp/dhcpr.h"
#include "dhcp/dhcpr_stats.h"
#include "dhcp/dhcpr_vty.h"
#include "dhcp/dhcps.h"
#include "dhcp/dhcps_leases.h"
#include "dhcp/dhcps_pool.h"
#include "dhcp/dhcps_stats.h"
#include "dhcp/dhcps_vty.h"
#include "lib/command.h"
#include "lib/if.h"
#include "lib/log.h"
#include "lib/thread.h"
#include "lib/vty.h"
#include "platform/clock.h"
#include "tests/unit/dhcps_test_msgs.h"
#include "tests/unit/cli_run.h"

namespace {

using namespace dhcps_test;

struct StatsCli : ::testing::Test {
    thread_master *master = thread_master_create();
    std::unique_ptr<vty> v = vty_new(VTY_SHELL_SERV);

    StatsCli() {
        cmd_init(1);
        cmd_set_hostname("sw1");
        if_init();
        dhcps_pool_list_init();
        dhcps_lease_list_init();
        dhcps_settings_init();
        dhcps_stats_clear();
        dhcpr_stats_clear();
        dhcpr_init(master);
        kq_time_set(1000000);
        dhcps_set_sender(no_send);
        zlog_set_hook([](int, std::string_view) {});
        dhcps_vty_init();
        dhcpr_vty_init();
        dhcps_stats_vty_init();
        dhcpr_stats_vty_init();
        interface *ifp = if_get_by_name("vlanif10");
        ifp->ifindex = 5;
        prefix a{};
        str2prefix("192.168.1.1/24", &a);
        connected_add(ifp, 0, &a, nullptr);
        v->node = ENABLE_NODE;
    }
    ~StatsCli() override {
        zlog_set_hook({});
        dhcps_set_sender(nullptr);
        dhcpr_reset();
        dhcps_pool_list_free();
        dhcps_lease_list_free();
        cmd_terminate();
        if_terminate();
        thread_master_free(master);
        kq_time_clear();
        dhcps_stats_clear();
        dhcpr_stats_clear();
    }
    std::string run(const std::string &line, int want = CMD_SUCCESS) {
        return cli_run(*v, line, want);
    }
    void make_pool() {
        v->node = CONFIG_NODE;
        for (const char *l :
             {"dhcp-server pool lan", "default-router 192.168.1.1", "network 192.168.1.0/24",
              "begin-ip 192.168.1.10 end-ip 192.168.1.20", "exit"}) {
            EXPECT_EQ(run(l), "") << l;
        }
        v->node = ENABLE_NODE;
    }
    void handle(dhcp_packet p) { dhcps_handle_request(p, 300, nip("192.168.1.1")); }
};

const std::string SERVER_ZERO =
    "Received\n"
    "  DISCOVER               : 0\n"
    "  REQUEST                : 0\n"
    "  DECLINE                : 0\n"
    "  RELEASE                : 0\n"
    "  INFORM                 : 0\n"
    "  other                  : 0\n"
    "Sent\n"
    "  OFFER                  : 0\n"
    "  ACK                    : 0\n"
    "  NAK                    : 0\n"
    "  INFORM reply           : 0\n"
    "Dropped\n";

TEST_F(StatsCli, ServerDisplayWithoutPoolsOrDrops) {
    EXPECT_EQ(run("show dhcp-server statistics"), SERVER_ZERO);
}

TEST_F(StatsCli, ServerDisplayShowsDropsOnlyWhenCountedAndOneBlockPerPool) {
    make_pool();
    handle(discover(1));
    handle(discover(2, 0));
    handle(discover(3, 0));
    EXPECT_EQ(run("show dhcp-server statistics"),
              "Received\n"
              "  DISCOVER               : 3\n"
              "  REQUEST                : 0\n"
              "  DECLINE                : 0\n"
              "  RELEASE                : 0\n"
              "  INFORM                 : 0\n"
              "  other                  : 0\n"
              "Sent\n"
              "  OFFER                  : 1\n"
              "  ACK                    : 0\n"
              "  NAK                    : 0\n"
              "  INFORM reply           : 0\n"
              "Dropped\n"
              "  hardware length not 6  : 2\n"
              "Pool lan\n"
              "  addresses in range     : 11\n"
              "  leased                 : 0\n"
              "  offered                : 1\n"
              "  reserved by conflicts  : 0\n"
              "  static bindings        : 0\n");
    // Also from the configuration node; clear zeroes the counters only.
    v->node = CONFIG_NODE;
    EXPECT_EQ(run("clear dhcp-server statistics"), "");
    const std::string shown = run("show dhcp-server statistics");
    EXPECT_EQ(shown.substr(0, SERVER_ZERO.size()), SERVER_ZERO);
    EXPECT_NE(shown.find("  offered                : 1\n"), std::string::npos);
    // Nothing of it is configuration.
    EXPECT_EQ(run("show running-config").find("statistics"), std::string::npos);
}

TEST_F(StatsCli, RelayDisplayOneBlockPerRelayInterfaceThenTheChannel) {
    if_get_by_name("vlanif20");
    sockunion server{};
    ASSERT_EQ(str2sockunion("10.0.20.2", &server), 0);
    ASSERT_EQ(dhcpr_if_relay_set(if_lookup_by_name("vlanif10"), &server), 0);
    dhcpr_stats_count(10, false, DHCPDISCOVER, dhcpr_outcome::forwarded);
    dhcpr_stats_count(10, true, DHCPOFFER, dhcpr_outcome::delivered);
    dhcpr_stats_count(10, false, DHCPREQUEST, dhcpr_outcome::hops_exceeded);
    dhcpr_stats_refused(dhcpr_refusal::wrong_port);
    const std::string v10 =
        "Interface vlanif10\n"
        "  DISCOVER received      : 1\n"
        "  REQUEST received       : 1\n"
        "  DECLINE received       : 0\n"
        "  RELEASE received       : 0\n"
        "  INFORM received        : 0\n"
        "  other request received : 0\n"
        "  requests forwarded     : 1\n"
        "  OFFER received         : 1\n"
        "  ACK received           : 0\n"
        "  NAK received           : 0\n"
        "  other reply received   : 0\n"
        "  replies delivered      : 1\n"
        "  hops exceeded          : 1\n";
    const std::string channel =
        "Channel\n"
        "  wrong message type     : 0\n"
        "  not UDP                : 0\n"
        "  wrong port             : 1\n"
        "  bad length             : 0\n";
    EXPECT_EQ(run("show dhcp-relay statistics"), v10 + channel);
    EXPECT_EQ(run("show dhcp-relay statistics interface vlanif10"), v10);
    EXPECT_EQ(run("show dhcp-relay statistics interface vlanif99", CMD_WARNING),
              "% Interface vlanif99 is not found!\n");
    // A VLAN without a relay binding shows once something was counted there.
    dhcpr_stats_count(20, true, DHCPOFFER, dhcpr_outcome::no_transaction);
    const std::string shown = run("show dhcp-relay statistics");
    EXPECT_NE(shown.find("Interface vlanif20\n"), std::string::npos);
    EXPECT_NE(shown.find("  no transaction         : 1\n"), std::string::npos);
    // Clearing one interface leaves the others and the channel.
    EXPECT_EQ(run("clear dhcp-relay statistics interface vlanif20"), "");
    EXPECT_EQ(run("show dhcp-relay statistics interface vlanif10"), v10);
    EXPECT_EQ(run("show dhcp-relay statistics").find("no transaction"), std::string::npos);
    EXPECT_EQ(run("clear dhcp-relay statistics interface vlanif99", CMD_WARNING),
              "% Interface vlanif99 is not found!\n");
    EXPECT_EQ(run("clear dhcp-relay statistics"), "");
    EXPECT_EQ(run("show dhcp-relay statistics").find(" : 1"), std::string::npos);
}

TEST_F(StatsCli, QuestionMarkNamesTheWordsWithTheirHelp) {
    struct {
        const char *typed;
        const char *word;
        const char *help;
    } cases[] = {
        {"show dhcp-server ", "statistics", "Dhcp server statistics"},
        {"show dhcp-relay ", "statistics", "Dhcp relay statistics"},
        {"show dhcp-relay statistics ", "interface", "Interface"},
        {"show dhcp-relay statistics interface ", "IFNAME", "Interface name"},
        {"", "clear", "Reset functions"},
        {"clear ", "dhcp-server", "Configure dhcp server"},
        {"clear ", "dhcp-relay", "Configure dhcp-relay"},
        {"clear dhcp-server ", "statistics", "Dhcp server statistics"},
        {"clear dhcp-relay ", "statistics", "Dhcp relay statistics"},
        {"clear dhcp-relay statistics ", "interface", "Interface"},
    };
    for (int node : {ENABLE_NODE, CONFIG_NODE}) {
        v->node = node;
        for (const auto &c : cases) {
            int status = -1;
            auto got = cmd_describe_command(c.typed, v.get(), &status);
            auto it = std::find_if(got.begin(), got.end(),
                                   [&](const cmd_description &d) { return d.word == c.word; });
            ASSERT_NE(it, got.end()) << node << " '" << c.typed << "' " << c.word;
            EXPECT_EQ(it->help, c.help) << c.typed;
        }
    }
}

TEST_F(StatsCli, TabCompletesTheWords) {
    const struct {
        const char *line;
        std::vector<std::string> words;
    } cases[] = {
        {"clear dhcp-s", {"dhcp-server"}},
        {"clear dhcp-server st", {"statistics"}},
        {"clear dhcp-relay statistics i", {"interface"}},
        {"show dhcp-server st", {"statistics"}},
        {"show dhcp-relay st", {"statistics"}},
    };
    for (const auto &c : cases) {
        int status = -1;
        EXPECT_EQ(cmd_complete_command(c.line, v.get(), &status), c.words) << c.line;
        EXPECT_EQ(status, CMD_SUCCESS) << c.line;
    }
}

TEST_F(StatsCli, TerminalSessionsEndLinesWithCrLf) {
    auto term = vty_new(VTY_TERM);
    term->node = ENABLE_NODE;
    ASSERT_EQ(cmd_execute_command("show dhcp-server statistics", term.get()), CMD_SUCCESS);
    EXPECT_EQ(term->obuf.substr(0, 10), "Received\r\n");
}

}  // namespace
