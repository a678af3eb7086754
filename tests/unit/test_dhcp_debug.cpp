// The interface node and the debug switches, driven through the CLI engine.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_zebra.h"
#include "dhcp/dhcps.h"
#include "dhcp/dhcps_leases.h"
#include "dhcp/dhcps_pool.h"
#include "dhcp/dhcps_vty.h"
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

// ---- "no interface" on an interface that pools and the relay refer to ----

interface *torn_down = nullptr;
void fake_teardown(interface *ifp) {
    torn_down = ifp;
    ifp->info = nullptr;
}

struct NoInterface : DebugCli {
    NoInterface() {
        dhcps_pool_list_init();
        dhcps_lease_list_init();
        dhcps_settings_init();
        torn_down = nullptr;
        dhcp_zebra_relay_teardown = fake_teardown;
    }
    ~NoInterface() override {
        dhcp_zebra_relay_teardown = nullptr;
        dhcps_pool_list_free();
        dhcps_lease_list_free();
    }
    static void add_address(interface *ifp, const char *text) {
        prefix a{};
        ASSERT_EQ(str2prefix(text, &a), 1);
        connected_add(ifp, 0, &a, nullptr);
    }
    static dhcps_pool *pool(const char *name, const char *router, const char *network) {
        dhcps_pool *p = dhcps_pool_get(name);
        in_addr r{};
        inet_pton(AF_INET, router, &r);
        dhcp_attach_option(p->options, dhcp_option{0x31, DHCP_ROUTER},
                           {reinterpret_cast<const std::uint8_t *>(&r.s_addr), 4});
        prefix_ipv4 net{};
        EXPECT_EQ(str2prefix_ipv4(network, &net), 1);
        EXPECT_EQ(dhcps_network(p, &net), 0);
        return p;
    }
    static std::string pool_lines() {
        auto out = vty_new(VTY_SHELL_SERV);
        show_dhcp_server(out.get());
        std::string lines;
        std::size_t at = 0;
        while ((at = out->obuf.find("interface: ", at)) != std::string::npos) {
            std::size_t end = out->obuf.find('\n', at);
            lines += out->obuf.substr(at, end + 1 - at);
            at = end;
        }
        return lines;
    }
};

TEST_F(NoInterface, DetachesEveryPoolAndHandsTheBindingToTheRelay) {
    interface *ifp = if_get_by_name("vlanif10");
    add_address(ifp, "192.168.1.1/24");
    add_address(ifp, "192.168.2.1/24");
    interface *eth0 = if_get_by_name("eth0");
    add_address(eth0, "192.168.3.1/24");
    dhcps_pool *p1 = pool("p1", "192.168.1.1", "192.168.1.0/24");
    dhcps_pool *p2 = pool("p2", "192.168.2.1", "192.168.2.0/24");
    dhcps_pool *p3 = pool("p3", "192.168.3.1", "192.168.3.0/24");
    int binding = 1;
    ifp->info = &binding;
    ASSERT_EQ(pool_lines(),
              "interface: vlanif10, state: run\n"
              "interface: vlanif10, state: run\n"
              "interface: eth0, state: run\n");

    run("configure terminal");
    EXPECT_EQ(run("no interface vlanif10"), "");
    EXPECT_EQ(if_lookup_by_name("vlanif10"), nullptr);
    EXPECT_EQ(torn_down, ifp);  // the address only: the record is gone
    for (const dhcps_pool *p : {p1, p2}) {
        EXPECT_EQ(p->interface, nullptr) << p->name;
        EXPECT_EQ(p->ifindex, 0) << p->name;
        EXPECT_EQ(p->server_ip, p->prefix->prefix.s_addr) << p->name;
    }
    EXPECT_EQ(p3->interface, eth0);
    EXPECT_EQ(pool_lines(),
              "interface: all, state: run\n"
              "interface: all, state: run\n"
              "interface: eth0, state: run\n");
}

TEST_F(NoInterface, AnEmptySlotIsNotHandedToTheRelay) {
    add_address(if_get_by_name("vlanif10"), "192.168.1.1/24");
    dhcps_pool *p = pool("p1", "192.168.1.1", "192.168.1.0/24");
    run("configure terminal");
    run("no interface vlanif10");
    EXPECT_EQ(torn_down, nullptr);
    EXPECT_EQ(if_lookup_by_name("vlanif10"), nullptr);
    EXPECT_EQ(p->interface, nullptr);
}

TEST_F(NoInterface, FromInsideTheInterfaceNodeLeavesIt) {
    add_address(if_get_by_name("vlanif10"), "192.168.1.1/24");
    dhcps_pool *p = pool("p1", "192.168.1.1", "192.168.1.0/24");
    run("configure terminal");
    run("interface vlanif10");
    EXPECT_EQ(run("no interface vlanif10"), "");
    EXPECT_EQ(v->node, CONFIG_NODE);
    EXPECT_EQ(v->index, nullptr);
    EXPECT_EQ(p->interface, nullptr);
}

}  // namespace
