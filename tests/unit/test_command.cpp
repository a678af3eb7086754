// The CLI engine: matching of every word kind, result codes, `?` help,
// completion, node moves, list, running configuration and saving it.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "lib/command.h"
#include "lib/vty.h"

namespace {

constexpr int TEST_NODE = 81;

std::string last_cmd;
std::vector<std::string> last_args;
int next_result = CMD_SUCCESS;

int record(cmd_element *self, vty *, int argc, const char *argv[]) {
    last_cmd = self->string;
    last_args.assign(argv, argv + argc);
    return next_result;
}

// Help strings follow the words: one line per word, one per choice keyword.
cmd_element test_cmds[] = {
    {"ip address A.B.C.D", record, "IP information\nSet address\nAddress\n"},
    {"ip route A.B.C.D/M", record, "IP information\nSet route\nPrefix\n"},
    {"port <30-65535>", record, "Port\nPort number\n"},
    {"lease <0-31536000>", record, "Lease\nSeconds\n"},
    {"offset <-10-10>", record, "Offset\nSigned value\n"},
    {"debug dhcp (events|packet|all)", record, "Debug\nDHCP\nEvents\nPackets\nEverything\n"},
    {"name NAME", record, "Name\nThe name\n"},
    {"name default", record, "Name\nThe default name\n"},
    {"dns-server .DNSLIST", record, "DNS servers\nServer addresses\n"},
    {"mac MM-MM-MM-MM-MM-MM", record, "MAC\nMAC address\n"},
    {"val <1-10>", record, "Value\nSmall number\n"},
    {"val WORD", record, "Value\nAny word\n"},
    {"amb <1-10>", record, "Ambiguous\nLow\n"},
    {"amb <5-20>", record, "Ambiguous\nHigh\n"},
    {"shutdown", record, "Shut down\n"},
    {"show version", record, "Show\nVersion\n"},
    {"show versions all", record, "Show\nVersions\nAll\n"},
    {"level (errors|emergencies|debugging)", record, "Level\nErrors\nEmergencies\nDebugging\n"},
    {"pick (A.B.C.D|auto)", record, "Pick\nAn address\nAutomatic\n"},
};

const char *pool_name(vty *) {
    return "p1";
}

cmd_node test_node = {TEST_NODE, "%s(config-%s)# ", 1, nullptr, pool_name};

std::string written_by_fake;
int fake_writer(vty *vty) {
    vty_out(vty, "%s", written_by_fake.c_str());
    return 0;
}

struct Engine : ::testing::Test {
    std::unique_ptr<vty> v = vty_new(VTY_SHELL_SERV);

    Engine() {
        cmd_terminate();
        cmd_init(1);
        cmd_set_hostname("sw1");
        // Nothing a test runs by accident may touch the real startup file.
        cmd_set_config_file("/nonexistent-dir/dhcpd.conf");
        install_node(&test_node, nullptr);
        install_default(TEST_NODE);
        for (cmd_element &c : test_cmds) {
            install_element(TEST_NODE, &c);
        }
        last_cmd.clear();
        last_args.clear();
        next_result = CMD_SUCCESS;
    }
    ~Engine() override { cmd_terminate(); }

    int run(const std::string &line, int node = TEST_NODE) {
        v->node = node;
        return cmd_execute_command(line.c_str(), v.get());
    }
};

struct MatchCase {
    std::string line;
    int code;
    std::string cmd;
    std::vector<std::string> args;
};

TEST_F(Engine, MatchingTable) {
    const std::vector<MatchCase> cases = {
        {"ip address 10.0.0.1", CMD_SUCCESS, "ip address A.B.C.D", {"10.0.0.1"}},
        {"i a 10.0.0.1", CMD_SUCCESS, "ip address A.B.C.D", {"10.0.0.1"}},
        {"ip address 300.1.1.1", CMD_SUCCESS, "ip address A.B.C.D", {"300.1.1.1"}},
        {"ip address 1..2", CMD_SUCCESS, "ip address A.B.C.D", {"1..2"}},
        {"ip address abc", CMD_ERR_NO_MATCH, "", {}},
        {"ip address 10.0.0.0/8", CMD_ERR_NO_MATCH, "", {}},
        {"ip route 10.0.0.0/8", CMD_SUCCESS, "ip route A.B.C.D/M", {"10.0.0.0/8"}},
        {"ip route 10.0.0.0/", CMD_ERR_NO_MATCH, "", {}},
        {"ip route 10.0.0.0", CMD_ERR_NO_MATCH, "", {}},
        {"ip route /8", CMD_ERR_NO_MATCH, "", {}},
        {"ip", CMD_ERR_INCOMPLETE, "", {}},
        {"ip address", CMD_ERR_INCOMPLETE, "", {}},
        {"ip foo", CMD_ERR_NO_MATCH, "", {}},
        {"port 29", CMD_ERR_NO_MATCH, "", {}},
        {"port 30", CMD_SUCCESS, "port <30-65535>", {"30"}},
        {"port 65535", CMD_SUCCESS, "port <30-65535>", {"65535"}},
        {"port 65536", CMD_ERR_NO_MATCH, "", {}},
        {"port -1", CMD_ERR_NO_MATCH, "", {}},
        {"port +40", CMD_ERR_NO_MATCH, "", {}},
        {"port 4x", CMD_ERR_NO_MATCH, "", {}},
        {"port 99999999999999999999999", CMD_ERR_NO_MATCH, "", {}},
        {"lease 0", CMD_SUCCESS, "lease <0-31536000>", {"0"}},
        {"lease 31536000", CMD_SUCCESS, "lease <0-31536000>", {"31536000"}},
        {"lease 31536001", CMD_ERR_NO_MATCH, "", {}},
        {"offset -10", CMD_SUCCESS, "offset <-10-10>", {"-10"}},
        {"offset -11", CMD_ERR_NO_MATCH, "", {}},
        {"offset 10", CMD_SUCCESS, "offset <-10-10>", {"10"}},
        {"debug dhcp events", CMD_SUCCESS, "debug dhcp (events|packet|all)", {"events"}},
        {"deb d pa", CMD_SUCCESS, "debug dhcp (events|packet|all)", {"packet"}},
        {"debug dhcp a", CMD_SUCCESS, "debug dhcp (events|packet|all)", {"all"}},
        {"debug dhcp x", CMD_ERR_NO_MATCH, "", {}},
        {"level e", CMD_ERR_AMBIGUOUS, "", {}},
        {"level er", CMD_SUCCESS, "level (errors|emergencies|debugging)", {"errors"}},
        {"level em", CMD_SUCCESS, "level (errors|emergencies|debugging)", {"emergencies"}},
        {"pick 1.2.3.4", CMD_SUCCESS, "pick (A.B.C.D|auto)", {"1.2.3.4"}},
        {"pick au", CMD_SUCCESS, "pick (A.B.C.D|auto)", {"auto"}},
        {"name default", CMD_SUCCESS, "name default", {}},
        {"name def", CMD_SUCCESS, "name default", {}},
        {"name defaults", CMD_SUCCESS, "name NAME", {"defaults"}},
        {"name pool-1", CMD_SUCCESS, "name NAME", {"pool-1"}},
        {"name a b", CMD_ERR_NO_MATCH, "", {}},
        {"dns-server 1.1.1.1", CMD_SUCCESS, "dns-server .DNSLIST", {"1.1.1.1"}},
        {"dns-server 1.1.1.1 8.8.8.8 9.9.9.9",
         CMD_SUCCESS,
         "dns-server .DNSLIST",
         {"1.1.1.1", "8.8.8.8", "9.9.9.9"}},
        {"dns-server", CMD_ERR_INCOMPLETE, "", {}},
        {"mac 00-11-22-33-44-55", CMD_SUCCESS, "mac MM-MM-MM-MM-MM-MM", {"00-11-22-33-44-55"}},
        {"val 5", CMD_SUCCESS, "val <1-10>", {"5"}},
        {"val 11", CMD_SUCCESS, "val WORD", {"11"}},
        {"val x", CMD_SUCCESS, "val WORD", {"x"}},
        {"amb 3", CMD_SUCCESS, "amb <1-10>", {"3"}},
        {"amb 15", CMD_SUCCESS, "amb <5-20>", {"15"}},
        {"amb 7", CMD_ERR_AMBIGUOUS, "", {}},
        {"sh", CMD_ERR_AMBIGUOUS, "", {}},
        {"shu", CMD_SUCCESS, "shutdown", {}},
        {"show version", CMD_SUCCESS, "show version", {}},
        {"sho version", CMD_SUCCESS, "show version", {}},
        {"show versions", CMD_ERR_INCOMPLETE, "", {}},
        {"show versions all", CMD_SUCCESS, "show versions all", {}},
        {"show v", CMD_ERR_AMBIGUOUS, "", {}},
        {"  ip   address\t10.0.0.1  ", CMD_SUCCESS, "ip address A.B.C.D", {"10.0.0.1"}},
        {"", CMD_SUCCESS, "", {}},
        {"    ", CMD_SUCCESS, "", {}},
        {"! ip address 1.1.1.1", CMD_SUCCESS, "", {}},
        {"  # comment", CMD_SUCCESS, "", {}},
        {"?", CMD_ERR_NO_MATCH, "", {}},
        {"nonsense", CMD_ERR_NO_MATCH, "", {}},
    };
    for (const MatchCase &c : cases) {
        SCOPED_TRACE(c.line);
        last_cmd.clear();
        last_args.clear();
        EXPECT_EQ(run(c.line), c.code);
        EXPECT_EQ(last_cmd, c.cmd);
        EXPECT_EQ(last_args, c.args);
    }
}

TEST_F(Engine, HandlerResultsPassThrough) {
    for (int code : {CMD_SUCCESS, CMD_WARNING, CMD_ERR_NO_MATCH, CMD_ERR_NOTHING_TODO,
                     CMD_ERR_LIMIT_REACHED}) {
        next_result = code;
        EXPECT_EQ(run("shutdown"), code);
    }
}

TEST_F(Engine, TooManyWords) {
    std::string line = "dns-server";
    for (int i = 0; i < CMD_ARGC_MAX - 1; ++i) {
        line += " 1.1.1.1";
    }
    EXPECT_EQ(run(line), CMD_SUCCESS);
    EXPECT_EQ(last_args.size(), static_cast<std::size_t>(CMD_ARGC_MAX - 1));
    EXPECT_EQ(run(line + " 2.2.2.2"), CMD_ERR_EXEED_ARGC_MAX);
}

TEST_F(Engine, EngineMessagesEndWithTheVtyNewline) {
    struct Case {
        vty_type type;
        std::string line;
        int code;
        std::string out;
    };
    const std::vector<Case> cases = {
        {VTY_SHELL_SERV, "nonsense", CMD_ERR_NO_MATCH, "% Unknown command.\n"},
        {VTY_TERM, "nonsense", CMD_ERR_NO_MATCH, "% Unknown command.\r\n"},
        {VTY_SHELL_SERV, "sh", CMD_ERR_AMBIGUOUS, "% Ambiguous command.\n"},
        {VTY_TERM, "sh", CMD_ERR_AMBIGUOUS, "% Ambiguous command.\r\n"},
        {VTY_SHELL_SERV, "ip", CMD_ERR_INCOMPLETE, "% Command incomplete.\n"},
        {VTY_FILE, "ip", CMD_ERR_INCOMPLETE, "% Command incomplete.\n"},
        {VTY_SHELL, "a b", CMD_ERR_NO_MATCH, "% Unknown command.\n"},
        {VTY_SHELL_SERV, "shutdown", CMD_SUCCESS, ""},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.line);
        auto t = vty_new(c.type);
        t->node = TEST_NODE;
        EXPECT_EQ(vty_command(t.get(), c.line.c_str()), c.code);
        EXPECT_EQ(t->obuf, c.out);
    }
    std::string many = "a";
    for (int i = 0; i < CMD_ARGC_MAX; ++i) {
        many += " a";
    }
    auto t = vty_new(VTY_TERM);
    EXPECT_EQ(vty_command(t.get(), many.c_str()), CMD_ERR_EXEED_ARGC_MAX);
    EXPECT_EQ(t->obuf, "% Too many arguments.\r\n");
}

TEST_F(Engine, HandlerCodesPrintNoEngineMessage) {
    next_result = CMD_ERR_NO_MATCH;
    v->node = TEST_NODE;
    EXPECT_EQ(vty_command(v.get(), "shutdown"), CMD_ERR_NO_MATCH);
    EXPECT_EQ(v->obuf, "");
}

TEST_F(Engine, NoCrashOnHostileLines) {
    std::mt19937 rng(1234);
    std::string huge(1 << 20, 'x');
    std::vector<std::string> lines = {huge,
                                      std::string(1 << 16, ' ') + "ip",
                                      "\x01\x02\xff",
                                      "(((",
                                      "<1-2>",
                                      "ip address ?",
                                      ")",
                                      "|",
                                      "..."};
    for (int i = 0; i < 2000; ++i) {
        std::string s(rng() % 40, '\0');
        for (char &ch : s) {
            ch = static_cast<char>(rng() % 255 + 1);
        }
        lines.push_back(s);
    }
    for (const std::string &l : lines) {
        for (int node : {int{ENABLE_NODE}, int{CONFIG_NODE}, TEST_NODE, 77}) {
            v->node = node;
            int st = 0;
            cmd_execute_command(l.c_str(), v.get());
            v->node = node;
            v->status = VTY_NORMAL;
            cmd_describe_command(l.c_str(), v.get(), &st);
            cmd_complete_command(l.c_str(), v.get(), &st);
            vty_command(v.get(), l.c_str());
        }
    }
    EXPECT_EQ(cmd_execute_command(nullptr, v.get()), CMD_SUCCESS);
    EXPECT_EQ(cmd_execute_command("ip", nullptr), CMD_WARNING);
}

using Descr = std::vector<std::pair<std::string, std::string>>;

Descr describe(vty *v, const char *line, int *status) {
    Descr out;
    for (const cmd_description &d : cmd_describe_command(line, v, status)) {
        out.emplace_back(d.word, d.help);
    }
    return out;
}

TEST_F(Engine, DescribeTable) {
    struct Case {
        std::string line;
        int status;
        Descr words;
    };
    const std::vector<Case> cases = {
        {"ip ", CMD_SUCCESS, {{"address", "Set address"}, {"route", "Set route"}}},
        {"ip a", CMD_SUCCESS, {{"address", "Set address"}}},
        {"ip address ", CMD_SUCCESS, {{"A.B.C.D", "Address"}}},
        {"ip address 10.0", CMD_SUCCESS, {{"A.B.C.D", "Address"}}},
        {"ip address 10.0.0.1 ", CMD_SUCCESS, {{"<cr>", ""}}},
        {"ip address x", CMD_ERR_NO_MATCH, {}},
        {"ip route 10.0.0.0/", CMD_SUCCESS, {{"A.B.C.D/M", "Prefix"}}},
        {"port ", CMD_SUCCESS, {{"<30-65535>", "Port number"}}},
        {"port 7", CMD_SUCCESS, {{"<30-65535>", "Port number"}}},
        {"port 70000", CMD_ERR_NO_MATCH, {}},
        {"debug dhcp ",
         CMD_SUCCESS,
         {{"all", "Everything"}, {"events", "Events"}, {"packet", "Packets"}}},
        {"debug dhcp e", CMD_SUCCESS, {{"events", "Events"}}},
        {"name ", CMD_SUCCESS, {{"NAME", "The name"}, {"default", "The default name"}}},
        {"name d", CMD_SUCCESS, {{"NAME", "The name"}, {"default", "The default name"}}},
        {"dns-server ", CMD_SUCCESS, {{".DNSLIST", "Server addresses"}}},
        {"dns-server 1.1.1.1 ", CMD_SUCCESS, {{".DNSLIST", "Server addresses"}, {"<cr>", ""}}},
        {"show ",
         CMD_SUCCESS,
         {{"running-config", "Current operating configuration"},
          {"version", "Version"},
          {"versions", "Versions"}}},
        {"show version", CMD_SUCCESS, {{"version", "Version"}, {"versions", "Versions"}}},
        {"show version ", CMD_SUCCESS, {{"<cr>", ""}}},
        {"show versions ", CMD_SUCCESS, {{"all", "All"}}},
        {"write ",
         CMD_SUCCESS,
         {{"file", "Write to configuration file"},
          {"memory", "Write configuration to the file (same as write file)"},
          {"terminal", "Write to terminal"}}},
        {"sh ", CMD_ERR_AMBIGUOUS, {}},
        {"nothing ", CMD_ERR_NO_MATCH, {}},
        {"ip address 1.1.1.1 extra ", CMD_ERR_NO_MATCH, {}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.line);
        v->node = TEST_NODE;
        int status = -1;
        EXPECT_EQ(describe(v.get(), c.line.c_str(), &status), c.words);
        EXPECT_EQ(status, c.status);
    }
}

TEST_F(Engine, DescribeAtTheStartListsEveryFirstWordOnce) {
    v->node = TEST_NODE;
    int status = -1;
    std::vector<std::string> words;
    for (const cmd_description &d : cmd_describe_command("", v.get(), &status)) {
        words.push_back(d.word);
    }
    EXPECT_EQ(status, CMD_SUCCESS);
    EXPECT_EQ(words,
              (std::vector<std::string>{"amb", "debug", "dns-server", "end", "exit", "ip", "lease",
                                        "level", "list", "mac", "name", "offset", "pick", "port",
                                        "quit", "show", "shutdown", "val", "write"}));
}

TEST_F(Engine, DescribeInEnableNodeWithRealHelp) {
    v->node = ENABLE_NODE;
    int status = -1;
    EXPECT_EQ(describe(v.get(), "conf", &status),
              (Descr{{"configure", "Configuration from vty interface"}}));
    EXPECT_EQ(describe(v.get(), "write ", &status),
              (Descr{{"file", "Write to configuration file"},
                     {"memory", "Write configuration to the file (same as write file)"},
                     {"terminal", "Write to terminal"},
                     {"<cr>", ""}}));
    EXPECT_EQ(describe(v.get(), "show ", &status),
              (Descr{{"running-config", "Current operating configuration"}}));
}

TEST_F(Engine, CompletionTable) {
    struct Case {
        int node;
        std::string line;
        int status;
        std::vector<std::string> words;
    };
    const std::vector<Case> cases = {
        {ENABLE_NODE, "conf", CMD_SUCCESS, {"configure"}},
        {ENABLE_NODE, "configure ", CMD_SUCCESS, {"terminal"}},
        {ENABLE_NODE, "w", CMD_SUCCESS, {"write"}},
        {ENABLE_NODE, "write ", CMD_SUCCESS, {"file", "memory", "terminal"}},
        {ENABLE_NODE, "write m", CMD_SUCCESS, {"memory"}},
        {ENABLE_NODE, "zz", CMD_ERR_NO_MATCH, {}},
        {TEST_NODE, "debug dhcp ", CMD_SUCCESS, {"all", "events", "packet"}},
        {TEST_NODE, "ip address ", CMD_ERR_NO_MATCH, {}},
        {TEST_NODE, "name ", CMD_SUCCESS, {"default"}},
        {TEST_NODE, "sh", CMD_SUCCESS, {"show", "shutdown"}},
        {TEST_NODE, "show ver", CMD_SUCCESS, {"version", "versions"}},
        {TEST_NODE, "pick ", CMD_SUCCESS, {"auto"}},
        {TEST_NODE, "sh x", CMD_ERR_AMBIGUOUS, {}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.line);
        v->node = c.node;
        int status = -1;
        EXPECT_EQ(cmd_complete_command(c.line.c_str(), v.get(), &status), c.words);
        EXPECT_EQ(status, c.status);
    }
}

TEST_F(Engine, NodeTransitions) {
    struct Case {
        int from;
        std::string line;
        int to;
        vty_status status;
    };
    const std::vector<Case> cases = {
        {ENABLE_NODE, "configure terminal", CONFIG_NODE, VTY_NORMAL},
        {ENABLE_NODE, "conf t", CONFIG_NODE, VTY_NORMAL},
        {ENABLE_NODE, "exit", ENABLE_NODE, VTY_CLOSE},
        {ENABLE_NODE, "quit", ENABLE_NODE, VTY_CLOSE},
        {ENABLE_NODE, "end", ENABLE_NODE, VTY_NORMAL},
        {CONFIG_NODE, "exit", ENABLE_NODE, VTY_NORMAL},
        {CONFIG_NODE, "quit", ENABLE_NODE, VTY_NORMAL},
        {CONFIG_NODE, "end", ENABLE_NODE, VTY_NORMAL},
        {TEST_NODE, "exit", CONFIG_NODE, VTY_NORMAL},
        {TEST_NODE, "qu", CONFIG_NODE, VTY_NORMAL},
        {TEST_NODE, "end", ENABLE_NODE, VTY_NORMAL},
    };
    int obj = 0;
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.from) + " " + c.line);
        v->node = c.from;
        v->status = VTY_NORMAL;
        v->index = &obj;
        cmd_execute_command(c.line.c_str(), v.get());
        EXPECT_EQ(v->node, c.to);
        EXPECT_EQ(v->status, c.status);
        if (c.from > CONFIG_NODE) {
            EXPECT_EQ(v->index, nullptr);
        }
    }
}

TEST_F(Engine, ConfigureTerminalIsOnlyInEnable) {
    EXPECT_EQ(run("configure terminal", CONFIG_NODE), CMD_ERR_NO_MATCH);
    EXPECT_EQ(run("configure terminal", TEST_NODE), CMD_ERR_NO_MATCH);
    EXPECT_EQ(v->node, TEST_NODE);
}

// A sub-node without the defaults still leaves to the configuration node.
TEST_F(Engine, ExitFromSubNodeWithoutDefaults) {
    static cmd_node bare = {82, "%s(config-relay)# ", 1};
    install_node(&bare, nullptr);
    int obj = 0;
    v->index = &obj;
    EXPECT_EQ(run("exit", 82), CMD_SUCCESS);
    EXPECT_EQ(v->node, CONFIG_NODE);
    EXPECT_EQ(v->index, nullptr);
}

TEST_F(Engine, ConfigCommandFromSubNodeRunsInConfigNode) {
    static cmd_element enter = {"enter-test",
                                [](cmd_element *, vty *vty, int, const char *[]) {
                                    vty->node = TEST_NODE;
                                    return CMD_SUCCESS;
                                },
                                "Enter\n"};
    install_element(CONFIG_NODE, &enter);
    int obj = 0;
    v->index = &obj;
    EXPECT_EQ(run("enter-test", TEST_NODE), CMD_SUCCESS);
    EXPECT_EQ(v->node, TEST_NODE);
    EXPECT_EQ(v->index, nullptr);
    v->index = &obj;
    EXPECT_EQ(run("bogus", TEST_NODE), CMD_ERR_NO_MATCH);
    EXPECT_EQ(v->node, TEST_NODE);
    EXPECT_EQ(v->index, &obj);
}

TEST_F(Engine, Prompts) {
    struct Case {
        int node;
        std::string prompt;
    };
    static cmd_node iface = {INTERFACE_NODE, "", 1};
    install_node(&iface, nullptr);
    for (const Case &c : std::vector<Case>{{ENABLE_NODE, "sw1# "},
                                           {CONFIG_NODE, "sw1(config)# "},
                                           {INTERFACE_NODE, "sw1(config-if)# "},
                                           {TEST_NODE, "sw1(config-p1)# "}}) {
        v->node = c.node;
        EXPECT_EQ(cmd_prompt(v.get()), c.prompt);
    }
    cmd_set_hostname("edge-7");
    v->node = CONFIG_NODE;
    EXPECT_EQ(cmd_prompt(v.get()), "edge-7(config)# ");
    EXPECT_EQ(cmd_prompt(nullptr), "");
}

TEST_F(Engine, HostnameDefaultsToTheSystemName) {
    char buf[256] = {};
    ASSERT_EQ(gethostname(buf, sizeof buf - 1), 0);
    cmd_set_hostname(nullptr);
    EXPECT_STREQ(cmd_hostname(), buf);
}

TEST_F(Engine, ListCommand) {
    const std::vector<std::string> enable = {
        "configure terminal", "exit",       "quit",         "list", "show running-config",
        "write terminal",     "write file", "write memory", "write"};
    EXPECT_EQ(cmd_list_node(ENABLE_NODE), enable);
    std::string expected;
    for (const std::string &s : enable) {
        expected += s + "\n";
    }
    v->node = ENABLE_NODE;
    EXPECT_EQ(vty_command(v.get(), "list"), CMD_SUCCESS);
    EXPECT_EQ(v->obuf, expected);

    auto term = vty_new(VTY_TERM);
    term->node = ENABLE_NODE;
    vty_command(term.get(), "li");
    EXPECT_EQ(term->obuf.substr(0, 20), "configure terminal\r\n");

    const std::vector<std::string> defaults = {
        "exit",           "quit",       "end",          "list",
        "write terminal", "write file", "write memory", "show running-config"};
    std::vector<std::string> node = cmd_list_node(TEST_NODE);
    ASSERT_GE(node.size(), defaults.size());
    EXPECT_EQ(std::vector<std::string>(node.begin(), node.begin() + 8), defaults);
    EXPECT_EQ(node[8], "ip address A.B.C.D");
    EXPECT_TRUE(cmd_list_node(99).empty());
}

TEST_F(Engine, ReinstallingACommandReplacesIt) {
    static cmd_element again = {"shutdown", record, "Shut down again\n"};
    std::size_t before = cmd_list_node(TEST_NODE).size();
    install_element(TEST_NODE, &again);
    install_element(TEST_NODE, &again);
    EXPECT_EQ(cmd_list_node(TEST_NODE).size(), before);
    int status = 0;
    v->node = TEST_NODE;
    EXPECT_EQ(describe(v.get(), "shut", &status), (Descr{{"shutdown", "Shut down again"}}));
}

TEST_F(Engine, TerminateClearsEverything) {
    cmd_terminate();
    EXPECT_TRUE(cmd_list_node(ENABLE_NODE).empty());
    EXPECT_TRUE(cmd_list_node(TEST_NODE).empty());
    EXPECT_EQ(run("configure terminal", ENABLE_NODE), CMD_ERR_NO_MATCH);
    cmd_init(1);
    EXPECT_EQ(run("configure terminal", ENABLE_NODE), CMD_SUCCESS);
}

struct RunningConfig : Engine {
    cmd_node fake = {90, "%s(fake)# ", 1};
    RunningConfig() {
        written_by_fake = "!\ninterface eth0\n ip dhcp relay\n";
        install_node(&fake, fake_writer);
    }
};

TEST_F(RunningConfig, ShowRunningConfigAndWriteTerminal) {
    const std::string expected = "!\n!\ninterface eth0\n ip dhcp relay\nend\n";
    for (const char *line : {"show running-config", "sh run", "write terminal", "wr t"}) {
        SCOPED_TRACE(line);
        v->obuf.clear();
        v->node = ENABLE_NODE;
        EXPECT_EQ(vty_command(v.get(), line), CMD_SUCCESS);
        EXPECT_EQ(v->obuf, expected);
    }
    v->obuf.clear();
    v->node = CONFIG_NODE;
    EXPECT_EQ(vty_command(v.get(), "do-not-exist"), CMD_ERR_NO_MATCH);
    v->obuf.clear();
    EXPECT_EQ(vty_command(v.get(), "show running-config"), CMD_SUCCESS);
    EXPECT_EQ(v->obuf, expected);
}

TEST_F(RunningConfig, WritersRunInNodeOrder) {
    static cmd_node early = {70, "", 1};
    install_node(&early, [](vty *vty) {
        vty_out(vty, "early%s", VTY_NEWLINE);
        return 1;
    });
    auto term = vty_new(VTY_TERM);
    written_by_fake = "fake\r\n";
    vty_write_config(term.get());
    EXPECT_EQ(term->obuf, "!\r\nearly\r\nfake\r\nend\r\n");
}

struct TempDir {
    std::string path;
    TempDir() {
        char tmpl[] = "/tmp/cmdtest.XXXXXX";
        path = mkdtemp(tmpl);
    }
    ~TempDir() { std::system(("rm -rf '" + path + "'").c_str()); }
};

std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

TEST_F(RunningConfig, WriteMemorySavesAtomically) {
    TempDir dir;
    const std::string path = dir.path + "/dhcpd.conf";
    {
        std::ofstream old(path);
        old << "old contents\n";
    }
    cmd_set_config_file(path.c_str());
    EXPECT_STREQ(cmd_config_file(), path.c_str());
    for (const char *line : {"write memory", "write file", "write", "wr mem"}) {
        SCOPED_TRACE(line);
        v->obuf.clear();
        v->node = ENABLE_NODE;
        EXPECT_EQ(vty_command(v.get(), line), CMD_SUCCESS);
        EXPECT_EQ(v->obuf, "[OK]\n");
        EXPECT_EQ(slurp(path), "!\n!\ninterface eth0\n ip dhcp relay\nend\n");
        EXPECT_NE(access((path + ".tmp").c_str(), F_OK), 0);
    }
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_EQ(config_write_file(path.c_str()), 0);
}

TEST_F(RunningConfig, WriteMemoryFailureIsReported) {
    TempDir dir;
    const std::string path = dir.path + "/missing/dhcpd.conf";
    cmd_set_config_file(path.c_str());
    v->node = CONFIG_NODE;
    EXPECT_EQ(vty_command(v.get(), "write memory"), CMD_WARNING);
    EXPECT_EQ(v->obuf, "% Can't save configuration to " + path + ": No such file or directory\n");
    errno = 0;
    EXPECT_EQ(config_write_file(path.c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(config_write_file(""), -1);
    EXPECT_EQ(config_write_file(nullptr), -1);
}

TEST_F(Engine, DefaultConfigFile) {
    cmd_terminate();
    EXPECT_STREQ(cmd_config_file(), CONFIG_STARTUP_FILE);
    cmd_set_config_file(nullptr);
    EXPECT_STREQ(cmd_config_file(), CONFIG_STARTUP_FILE);
}

TEST(VtyOut, NullVtyPrintsNothing) {
    EXPECT_EQ(vty_out(nullptr, "%s", "text"), 0);
}

TEST(VtyOut, AppendsFormattedTextAndLongOutput) {
    auto v = vty_new();
    EXPECT_EQ(vty_out(v.get(), "a%db", 5), 3);
    std::string big(100000, 'z');
    EXPECT_EQ(vty_out(v.get(), "%s", big.c_str()), 100000);
    for (int i = 0; i < 50; ++i) {
        vty_out(v.get(), "%s", big.c_str());
    }
    EXPECT_EQ(v->obuf.size(), 3u + 51u * 100000u);
    EXPECT_EQ(v->obuf.substr(0, 3), "a5b");
}

TEST(VtyOut, StripsNulBytes) {
    auto v = vty_new();
    EXPECT_EQ(vty_out(v.get(), "a%cb", 0), 2);
    EXPECT_EQ(v->obuf, "ab");
}

TEST(VtyOut, NewVtyDefaults) {
    auto v = vty_new();
    EXPECT_EQ(v->type, VTY_SHELL_SERV);
    EXPECT_EQ(v->node, ENABLE_NODE);
    EXPECT_EQ(v->status, VTY_NORMAL);
    EXPECT_STREQ(vty_newline(v.get()), "\n");
    EXPECT_STREQ(vty_newline(vty_new(VTY_TERM).get()), "\r\n");
    EXPECT_STREQ(vty_newline(nullptr), "\n");
}

}  // namespace
