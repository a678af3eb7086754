// The JSON requests of the web front end, through the same path as the
// socket (parse, dispatch, handler, reply) without the connection: exact
// reply bytes, the running configuration after each change and the saved
// file.
#include <arpa/inet.h>
#include <cjson/cJSON.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <span>
#include <sstream>
#include <string>
#include <vector>

#include "dhcp/dhcp_json.h"
#include "dhcp/dhcpr.h"
#include "dhcp/dhcpr_vty.h"
#include "dhcp/dhcps.h"
#include "dhcp/dhcps_leases.h"
#include "dhcp/dhcps_pool.h"
#include "dhcp/dhcps_vty.h"
#include "lib/command.h"
#include "lib/if.h"
#include "lib/log.h"
#include "lib/prefix.h"
#include "lib/sockunion.h"
#include "lib/thread.h"
#include "lib/vty.h"
#include "platform/clock.h"
#include "platform/jserver.h"
#include "platform/uif.h"
#include "tests/unit/vlan10_sysfs.h"
#include "tests/unit/dhcps_test_msgs.h"

namespace fs = std::filesystem;

namespace {

using dhcps_test::nip;

constexpr std::int32_t NOW = 1700000000;

void add_address(const char *ifname, const char *addr) {
    interface *ifp = if_get_by_name(ifname);
    prefix p{};
    ASSERT_EQ(str2prefix(addr, &p), 1) << addr;
    connected_add(ifp, 0, &p, nullptr);
}

struct Json : ::testing::Test {
    test_sysfs::Vlan10Ports ports{"dhcp-json-"};
    fs::path conf_dir =
        fs::path(::testing::TempDir()) / ("dhcp-json-conf-" + std::to_string(getpid()));
    fs::path conf = conf_dir / "dhcpd.conf";
    thread_master *master = thread_master_create();

    Json() {
        cmd_init(1);
        cmd_set_hostname("sw1");
        if_init();
        dhcps_init(master);
        dhcps_lease_list_free();
        dhcps_lease_list_init();
        dhcps_vty_init();
        dhcpr_init(master);
        dhcpr_vty_init();
        jserver_cmd_reset();
        dhcp_json_register();
        kq_time_set(NOW);
        fs::remove_all(conf_dir);
        fs::create_directories(conf_dir);
        cmd_set_config_file(conf.c_str());
        add_address("vlanif10", "192.168.1.1/24");
        add_address("vlanif20", "10.0.20.1/24");
        add_address("lo", "127.0.0.1/8");
        add_address("v6only", "2001:db8::1/64");
        if_get_by_name("eth9");  // no address at all
    }
    ~Json() override {
        reset_server();
        dhcpr_reset();
        dhcps_lease_list_free();
        jserver_cmd_reset();
        cmd_set_config_file(nullptr);
        cmd_terminate();
        if_terminate();
        kq_time_clear();
        thread_master_free(master);
        fs::remove_all(conf_dir);
    }
    // Gives back what the process-wide counters hold, then drops the pools.
    static void reset_server() {
        dhcps_set_enable(0);
        for (const auto &p : dhcps_pool_list()) {
            while (!p->static_leases.empty()) {
                dhcps_pool_delete_static(nullptr, p.get(),
                                         ipv4_text(p->static_leases.front().ip).buf);
            }
        }
        dhcps_pool_list_free();
        dhcps_settings_init();
    }
    static std::string req(const std::string &text) {
        const char *reply = nullptr;
        const std::size_t n = dhcp_json_handle_text(text.data(), text.size(), &reply);
        EXPECT_LE(n + 1, DHCP_JSON_RESPONSE_SIZE);
        return {reply, n};
    }
    static std::string running() {
        std::unique_ptr<vty> v = vty_new(VTY_FILE);
        vty_write_config(v.get());
        return v->obuf;
    }
    std::string saved() const {
        std::ifstream in(conf);
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }
    // The pool the CLI would write for "dhcp-server pool NAME" with a
    // router and network only.
    void pool(const std::string &name, const std::string &router, const std::string &net) {
        ASSERT_EQ(req(R"({"cmd":"dhcps_pool_add","config":[{"pool_name":")" + name +
                      R"(","default_router":")" + router + R"(","network":")" + net + R"("}]})"),
                  "");
    }
};

// ---- dispatch ----

TEST_F(Json, EveryRequestIsRegistered) {
    for (const char *name :
         {"dhcps_gloabl_set",         "dhcps_gloabl_get",          "dhcps_pool_add",
          "dhcps_pool_delete",        "dhcps_pool_config",         "dhcps_pool_list",
          "dhcps_pool_get_all",       "dhcps_leases_get_page",     "dhcps_bind_mac_ip_add",
          "dhcps_bind_mac_ip_delete", "dhcps_bind_mac_ip_get_all", "dhcps_l2_if_list",
          "dhcps_bind_port_ip_add",   "dhcps_bind_port_ip_delete", "dhcps_bind_port_ip_get_all",
          "dhcpr_state_set",          "dhcpr_state_get",           "dhcpr_l3_if_list",
          "dhcpr_if_server_add",      "dhcpr_if_server_delete",    "dhcpr_if_server_get_all"}) {
        EXPECT_NE(req(std::string(R"({"cmd":")") + name + R"("})"), JSERVER_ERR_UNKNOWN) << name;
    }
    EXPECT_EQ(req(R"({"cmd":"dhcps_global_get"})"), JSERVER_ERR_UNKNOWN);
    EXPECT_EQ(req("{"), JSERVER_ERR_PARSE);
}

TEST_F(Json, MemberReadersGiveZeroAndNullForMissingOrOtherTypes) {
    cJSON *o = cJSON_Parse(R"({"n":7,"s":"x","ns":"7","sn":3,"big":1e300})");
    EXPECT_EQ(cJSON_GetObjectItemInt(o, "n"), 7);
    EXPECT_EQ(cJSON_GetObjectItemInt(o, "N"), 7);  // names match in any case
    EXPECT_EQ(cJSON_GetObjectItemInt(o, "missing"), 0);
    EXPECT_EQ(cJSON_GetObjectItemInt(o, "ns"), 0);
    EXPECT_EQ(cJSON_GetObjectItemInt(o, "big"), INT_MAX);
    EXPECT_STREQ(cJSON_GetObjectItemString(o, "s"), "x");
    EXPECT_EQ(cJSON_GetObjectItemString(o, "missing"), nullptr);
    EXPECT_EQ(cJSON_GetObjectItemString(o, "sn"), nullptr);
    EXPECT_EQ(cJSON_GetObjectItemString(nullptr, "s"), nullptr);
    EXPECT_EQ(cJSON_GetObjectItemInt(nullptr, "n"), 0);
    cJSON_Delete(o);
}

// ---- global settings ----

struct GlobalCase {
    const char *request;
    const char *get;
};

TEST_F(Json, GlobalSetAndGet) {
    const GlobalCase cases[] = {
        {R"({"cmd":"dhcps_gloabl_set"})", R"({"data":[{"enable" :"0","max_lease_num" :"4096"}]})"},
        {R"({"cmd":"dhcps_gloabl_set","config":[{"enable":1,"max_lease_num":5000}]})",
         R"({"data":[{"enable" :"1","max_lease_num" :"5000"}]})"},
        // Only "enable": the maximum goes back to 4096.
        {R"({"cmd":"dhcps_gloabl_set","config":[{"enable":1}]})",
         R"({"data":[{"enable" :"1","max_lease_num" :"4096"}]})"},
        // Only "max_lease_num": the server is turned off.
        {R"({"cmd":"dhcps_gloabl_set","config":[{"max_lease_num":10240}]})",
         R"({"data":[{"enable" :"0","max_lease_num" :"10240"}]})"},
        // Out of range: the setter's default.
        {R"({"cmd":"dhcps_gloabl_set","config":[{"enable":7,"max_lease_num":99999}]})",
         R"({"data":[{"enable" :"1","max_lease_num" :"4096"}]})"},
        // Items in order: the last one stands.
        {R"({"cmd":"dhcps_gloabl_set","config":[{"enable":1,"max_lease_num":3000},{"max_lease_num":2048}]})",
         R"({"data":[{"enable" :"0","max_lease_num" :"2048"}]})"},
    };
    for (const GlobalCase &c : cases) {
        EXPECT_EQ(req(c.request), "") << c.request;
        EXPECT_EQ(req(R"({"cmd":"dhcps_gloabl_get"})"), c.get) << c.request;
        EXPECT_EQ(saved(), running()) << c.request;
    }
    EXPECT_EQ(running(),
              "!\ndhcp-server max-lease-num 2048\ndhcp-server information enable\nend\n");
}

// ---- pools ----

const std::string POOL_P1 =
    "dhcp-server pool p1\n"
    " default-router 192.168.1.1\n"
    " lease 864000 \n"
    " network 192.168.1.0/24\n"
    " begin-ip 192.168.1.0 end-ip 192.168.1.255\n"
    " pool enable\n"
    " quit\n"
    "!\n";
const std::string HEAD = "!\ndhcp-server max-lease-num 4096\ndhcp-server information enable\n";

TEST_F(Json, PoolAddWithRouterAndNetworkAnswersNothingAndIsSaved) {
    EXPECT_EQ(req(R"({"cmd":"dhcps_pool_add","config":[{"pool_name":"p1",)"
                  R"("default_router":"192.168.1.1","network":"192.168.1.0/24"}]})"),
              "");
    EXPECT_EQ(running(), HEAD + POOL_P1 + "end\n");
    EXPECT_EQ(saved(), running());
}

TEST_F(Json, PoolAddEveryMember) {
    EXPECT_EQ(req(R"({"cmd":"dhcps_pool_add","config":[{"pool_name":"p1",)"
                  R"("default_router":"192.168.1.1","network":"192.168.1.0/24",)"
                  R"("begin_ip":"192.168.1.10","end_ip":"192.168.1.20","lease_time":3600,)"
                  R"("dns_server1":"8.8.8.8","dns_server2":"8.8.4.4","domain_name":"10.0.0.5",)"
                  R"("netbios_server":"10.0.0.6"}]})"),
              "");
    EXPECT_EQ(running(), HEAD +
                             "dhcp-server pool p1\n"
                             " default-router 192.168.1.1\n"
                             " dns-server 8.8.8.8 8.8.4.4\n"
                             " domain-name 10.0.0.5\n"
                             " netbios-name-server 10.0.0.6\n"
                             " lease 3600 \n"
                             " network 192.168.1.0/24\n"
                             " begin-ip 192.168.1.10 end-ip 192.168.1.20\n"
                             " pool enable\n"
                             " quit\n"
                             "!\n"
                             "end\n");
    EXPECT_EQ(saved(), running());
    EXPECT_EQ(req(R"({"cmd":"dhcps_pool_get_all"})"),
              R"({"data":[{"pool_name" :"p1","network":"192.168.1.0/24","begin_ip":"192.168.1.10",)"
              R"("end_ip":"192.168.1.20","lease_time":3600,"default_router":"192.168.1.1",)"
              R"("dns_server1":"8.8.8.8","dns_server2":"8.8.4.4","domain_name":"10.0.0.5",)"
              R"("netbios_server":"10.0.0.6"}]})");
}

struct FailCase {
    const char *name;
    const char *item;  // one "config" item after a good first one
    const char *reply;
    bool second_pool_kept;
};

// The first item ("a") always stays; what the failing second item ("b")
// leaves depends on its step.
TEST_F(Json, PoolAddFailuresStopAtTheFailingItem) {
    const std::string good =
        R"({"pool_name":"a","default_router":"192.168.1.1","network":"192.168.1.0/24"})";
    const FailCase cases[] = {
        {"name missing", R"({"default_router":"10.0.20.1","network":"10.0.20.0/24"})",
         "{result: 1}", false},
        {"name empty", R"({"pool_name":"","default_router":"10.0.20.1"})", "{result: 1}", false},
        {"name with a blank", R"({"pool_name":"b c","default_router":"10.0.20.1"})", "{result: 1}",
         false},
        {"name of 32", R"({"pool_name":"bbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbb"})", "{result: 1}", false},
        {"router missing", R"({"pool_name":"b","network":"10.0.20.0/24"})", "{result: 2}", false},
        {"router malformed", R"({"pool_name":"b","default_router":"10.0.20.x"})", "{result: 2}",
         false},
        {"router a number", R"({"pool_name":"b","default_router":5})", "{result: 2}", false},
        {"network missing", R"({"pool_name":"b","default_router":"10.0.20.1"})", "{result: 3}",
         false},
        {"network malformed", R"({"pool_name":"b","default_router":"10.0.20.1","network":"bad"})",
         "{result: 3}", false},
        {"range outside",
         R"({"pool_name":"b","default_router":"10.0.20.1","network":"10.0.20.0/24","begin_ip":"10.0.20.5","end_ip":"10.0.21.5"})",
         "{result: 4}", true},
        {"range reversed",
         R"({"pool_name":"b","default_router":"10.0.20.1","network":"10.0.20.0/24","begin_ip":"10.0.20.9","end_ip":"10.0.20.5"})",
         "{result: 4}", true},
        {"dns1 malformed",
         R"({"pool_name":"b","default_router":"10.0.20.1","network":"10.0.20.0/24","dns_server1":"dns"})",
         "{result: 6}", true},
        {"dns2 malformed",
         R"({"pool_name":"b","default_router":"10.0.20.1","network":"10.0.20.0/24","dns_server1":"8.8.8.8","dns_server2":"x"})",
         "{result: 6}", true},
        {"dns2 alone",
         R"({"pool_name":"b","default_router":"10.0.20.1","network":"10.0.20.0/24","dns_server1":"","dns_server2":"8.8.8.8"})",
         "{result: 7}", true},
        {"domain refused",
         R"({"pool_name":"b","default_router":"10.0.20.1","network":"10.0.20.0/24","domain_name":"example.com"})",
         "{result: 8}", true},
        {"netbios malformed",
         R"({"pool_name":"b","default_router":"10.0.20.1","network":"10.0.20.0/24","netbios_server":"wins"})",
         "{result: 9}", true},
    };
    for (const FailCase &c : cases) {
        SCOPED_TRACE(c.name);
        reset_server();
        std::remove(conf.c_str());
        const std::string r =
            R"({"cmd":"dhcps_pool_add","config":[)" + good + "," + c.item +
            R"(,{"pool_name":"z","default_router":"10.0.20.1","network":"10.0.20.0/24"}]})";
        EXPECT_EQ(req(r), c.reply);
        std::string names = R"({"data":[{"pool_name" :"a"})";
        if (c.second_pool_kept) {
            names += R"(, {"pool_name" :"b"})";
        }
        names += "]}";
        EXPECT_EQ(req(R"({"cmd":"dhcps_pool_list"})"), names);  // "z" never made
        // Saved also when the request failed.
        EXPECT_EQ(saved(), running());
    }
}

TEST_F(Json, PoolAddSecondItemWithBadNetworkKeepsTheFirstAndRemovesTheSecond) {
    EXPECT_EQ(req(R"({"cmd":"dhcps_pool_add","config":[)"
                  R"({"pool_name":"p1","default_router":"192.168.1.1","network":"192.168.1.0/24"},)"
                  R"({"pool_name":"p2","default_router":"10.0.20.1","network":"10.0.20.0/33"}]})"),
              "{result: 3}");
    EXPECT_EQ(running(), HEAD + POOL_P1 + "end\n");
    EXPECT_EQ(saved(), running());
}

TEST_F(Json, PoolAddFailingOnAnExistingPoolDeletesIt) {
    pool("p1", "192.168.1.1", "192.168.1.0/24");
    EXPECT_EQ(req(R"({"cmd":"dhcps_pool_add","config":[{"pool_name":"p1"}]})"), "{result: 2}");
    EXPECT_EQ(req(R"({"cmd":"dhcps_pool_list"})"), R"({"data":[]})");
    EXPECT_EQ(running(), HEAD + "end\n");
}

TEST_F(Json, PoolAddOnAnExistingPoolResetsItsLeaseAndRefillsIt) {
    pool("p1", "192.168.1.1", "192.168.1.0/24");
    EXPECT_EQ(req(R"({"cmd":"dhcps_pool_config","config":[{"pool_name":"p1","lease_time":60}]})"),
              "");
    pool("p1", "192.168.1.1", "192.168.1.0/24");
    EXPECT_EQ(running(), HEAD + POOL_P1 + "end\n");
}

TEST_F(Json, SeventeenthPoolIsRefused) {
    for (int i = 0; i < 16; ++i) {
        pool("p" + std::to_string(i + 10), "192.168.1.1", "192.168.1.0/24");
    }
    EXPECT_EQ(
        req(R"({"cmd":"dhcps_pool_add","config":[{"pool_name":"q","default_router":"1.1.1.1"}]})"),
        "{result: 1}");
    EXPECT_EQ(dhcps_pool_list().size(), 16u);
}

TEST_F(Json, RequestWithoutConfigSucceedsAndSaves) {
    for (const char *cmd :
         {"dhcps_pool_add", "dhcps_pool_delete", "dhcps_pool_config", "dhcps_bind_mac_ip_add",
          "dhcps_bind_mac_ip_delete", "dhcps_bind_port_ip_add", "dhcps_bind_port_ip_delete",
          "dhcpr_state_set", "dhcpr_if_server_add", "dhcpr_if_server_delete", "dhcps_gloabl_set"}) {
        std::remove(conf.c_str());
        EXPECT_EQ(req(std::string(R"({"cmd":")") + cmd + R"("})"), "") << cmd;
        EXPECT_EQ(saved(), HEAD + "end\n") << cmd;
    }
}

TEST_F(Json, PoolDelete) {
    pool("p1", "192.168.1.1", "192.168.1.0/24");
    pool("p2", "10.0.20.1", "10.0.20.0/24");
    EXPECT_EQ(
        req(R"({"cmd":"dhcps_pool_delete","config":[{"pool_name":"p2"},{"pool_name":"p3"},{"pool_name":"p1"}]})"),
        "{result: 10}");
    EXPECT_EQ(running(), HEAD + POOL_P1 + "end\n");
    EXPECT_EQ(saved(), running());
    EXPECT_EQ(req(R"({"cmd":"dhcps_pool_delete","config":[{}]})"), "{result: 10}");
    EXPECT_EQ(req(R"({"cmd":"dhcps_pool_delete","config":[{"pool_name":"p1"}]})"), "");
    EXPECT_EQ(running(), HEAD + "end\n");
    EXPECT_EQ(saved(), running());
}

TEST_F(Json, PoolConfig) {
    pool("p1", "192.168.1.1", "192.168.1.0/24");
    struct Case {
        const char *item;
        const char *reply;
        const char *get_all;
    };
    const std::string head = R"({"data":[{"pool_name" :"p1","network":"192.168.1.0/24",)";
    const Case cases[] = {
        {R"({"pool_name":"p2","lease_time":60})", "{result: 11}",
         R"("begin_ip":"192.168.1.0","end_ip":"192.168.1.255","lease_time":864000,"default_router":"192.168.1.1","dns_server1":"","dns_server2":"","domain_name":"","netbios_server":""}]})"},
        {R"({"pool_name":"p1","lease_time":60,"begin_ip":"192.168.1.50"})", "",
         R"("begin_ip":"192.168.1.0","end_ip":"192.168.1.255","lease_time":60,"default_router":"192.168.1.1","dns_server1":"","dns_server2":"","domain_name":"","netbios_server":""}]})"},
        // Lease 0 means the default, not unlimited.
        {R"({"pool_name":"p1","lease_time":0,"begin_ip":"192.168.1.50","end_ip":"192.168.1.60"})",
         "",
         R"("begin_ip":"192.168.1.50","end_ip":"192.168.1.60","lease_time":864000,"default_router":"192.168.1.1","dns_server1":"","dns_server2":"","domain_name":"","netbios_server":""}]})"},
        {R"({"pool_name":"p1","lease_time":120,"begin_ip":"10.0.0.1","end_ip":"10.0.0.2"})",
         "{result: 4}",
         R"("begin_ip":"192.168.1.50","end_ip":"192.168.1.60","lease_time":864000,"default_router":"192.168.1.1","dns_server1":"","dns_server2":"","domain_name":"","netbios_server":""}]})"},
        {R"({"pool_name":"p1","lease_time":120,"dns_server1":"1.1.1.1"})", "",
         R"("begin_ip":"192.168.1.50","end_ip":"192.168.1.60","lease_time":120,"default_router":"192.168.1.1","dns_server1":"1.1.1.1","dns_server2":"","domain_name":"","netbios_server":""}]})"},
        // The lease is set before the DNS server is refused.
        {R"({"pool_name":"p1","lease_time":240,"dns_server2":"1.1.1.2"})", "{result: 7}",
         R"("begin_ip":"192.168.1.50","end_ip":"192.168.1.60","lease_time":240,"default_router":"192.168.1.1","dns_server1":"1.1.1.1","dns_server2":"","domain_name":"","netbios_server":""}]})"},
        {R"({"pool_name":"p1","domain_name":"10.1.1.1","netbios_server":"n"})", "{result: 9}",
         R"("begin_ip":"192.168.1.50","end_ip":"192.168.1.60","lease_time":864000,"default_router":"192.168.1.1","dns_server1":"1.1.1.1","dns_server2":"","domain_name":"10.1.1.1","netbios_server":""}]})"},
        // Above one year: the setter cuts it.
        {R"({"pool_name":"p1","lease_time":99999999,"netbios_server":"10.1.1.2"})", "",
         R"("begin_ip":"192.168.1.50","end_ip":"192.168.1.60","lease_time":31536000,"default_router":"192.168.1.1","dns_server1":"1.1.1.1","dns_server2":"","domain_name":"10.1.1.1","netbios_server":"10.1.1.2"}]})"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.item);
        EXPECT_EQ(req(std::string(R"({"cmd":"dhcps_pool_config","config":[)") + c.item + "]}"),
                  c.reply);
        EXPECT_EQ(req(R"({"cmd":"dhcps_pool_get_all"})"), head + c.get_all);
        EXPECT_EQ(saved(), running());
    }
    EXPECT_EQ(running(), HEAD +
                             "dhcp-server pool p1\n"
                             " default-router 192.168.1.1\n"
                             " dns-server 1.1.1.1\n"
                             " domain-name 10.1.1.1\n"
                             " netbios-name-server 10.1.1.2\n"
                             " lease 31536000 \n"
                             " network 192.168.1.0/24\n"
                             " begin-ip 192.168.1.50 end-ip 192.168.1.60\n"
                             " pool enable\n"
                             " quit\n"
                             "!\n"
                             "end\n");
}

TEST_F(Json, PoolWithoutNetworkIsListedButNotInGetAll) {
    pool("p2", "10.0.20.1", "10.0.20.0/24");
    dhcps_pool *bare = nullptr;
    ASSERT_EQ(dhcps_pool_enter(nullptr, "p1", &bare), CMD_SUCCESS);
    EXPECT_EQ(req(R"({"cmd":"dhcps_pool_list"})"),
              R"({"data":[{"pool_name" :"p1"}, {"pool_name" :"p2"}]})");
    EXPECT_EQ(req(R"({"cmd":"dhcps_pool_get_all"})"),
              R"({"data":[{"pool_name" :"p2","network":"10.0.20.0/24","begin_ip":"10.0.20.0",)"
              R"("end_ip":"10.0.20.255","lease_time":864000,"default_router":"10.0.20.1",)"
              R"("dns_server1":"","dns_server2":"","domain_name":"","netbios_server":""}]})");
}

TEST_F(Json, EmptyListsAndSettings) {
    EXPECT_EQ(req(R"({"cmd":"dhcps_pool_list"})"), R"({"data":[]})");
    EXPECT_EQ(req(R"({"cmd":"dhcps_pool_get_all"})"), R"({"data":[]})");
    EXPECT_EQ(req(R"({"cmd":"dhcps_bind_mac_ip_get_all"})"), R"({"data":[]})");
    EXPECT_EQ(req(R"({"cmd":"dhcps_bind_port_ip_get_all"})"), R"({"data":[]})");
    EXPECT_EQ(req(R"({"cmd":"dhcpr_if_server_get_all"})"), R"({"data":[]})");
    EXPECT_EQ(req(R"({"cmd":"dhcpr_state_get"})"), R"({"data":[{"enable" :"0"}]})");
    EXPECT_EQ(req(R"({"cmd":"dhcps_leases_get_page"})"), R"({"total":0,"data":[]})");
}

// ---- leases ----

std::string mac_text(int i) {
    char b[32];
    std::snprintf(b, sizeof b, "02-00-00-00-00-%02x", i);
    return b;
}

// Lease i: 192.168.1.(100+i), host<i>, granted 3600 s, 100*i s left.
std::string lease_object(int i) {
    return R"({"lease_ip":"192.168.1.)" + std::to_string(100 + i) + R"(","lease_mac":")" +
           mac_text(i) + R"(","lease_hostname":"host)" + std::to_string(i) +
           R"(","lease_time":"3600","lease_expires":")" + std::to_string(100 * i) + R"("})";
}

std::string page(int total, int from, int to) {
    std::string s = R"({"total":)" + std::to_string(total) + R"(,"data":[)";
    for (int i = from; i <= to; ++i) {
        s += (i == from ? "" : ", ") + lease_object(i);
    }
    return s + "]}";
}

struct Leases : Json {
    Leases() {
        // Newest first in the table: made backwards, lease 1 leads. An
        // offer (state 0) and an expired lease sit among them.
        for (int i = 12; i >= 1; --i) {
            add(i, 1, NOW + 100 * i);
            if (i == 6) {
                add(40, 0, NOW + 500);
                add(41, 1, NOW);
            }
        }
    }
    static void add(int i, std::uint32_t state, std::int32_t expires) {
        std::uint8_t mac[6] = {2, 0, 0, 0, 0, static_cast<std::uint8_t>(i)};
        const std::string host = "host" + std::to_string(i);
        ASSERT_NE(dhcps_add_lease(mac, nip(("192.168.1." + std::to_string(100 + i)).c_str()), 3600,
                                  expires, host.c_str(), static_cast<int>(host.size()), state, 0),
                  nullptr);
    }
};

TEST_F(Leases, Paging) {
    struct Case {
        const char *data;
        int from;
        int to;
    };
    const Case cases[] = {
        {R"(,"data":[{"index":5,"count":10}])", 6, 12},
        // Beyond the total: from the start.
        {R"(,"data":[{"index":13,"count":10}])", 1, 10},
        {R"(,"data":[{"index":0,"count":3}])", 1, 3},
        {R"(,"data":[{"index":12,"count":3}])", 13, 12},
        {R"(,"data":[{"index":-1,"count":2}])", 1, 2},
        {R"(,"data":[{"index":2,"count":2147483647}])", 3, 12},
        {R"(,"data":[{"index":2,"count":-5}])", 3, 2},
        {R"(,"data":[{"count":100},{"index":3}])", 1, 12},
        {R"(,"data":[])", 1, 0},
        {"", 1, 0},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(req(std::string(R"({"cmd":"dhcps_leases_get_page")") + c.data + "}"),
                  page(12, c.from, c.to))
            << c.data;
    }
}

TEST_F(Leases, ExpiredLeasesLeaveTheCountAsTheClockRuns) {
    kq_time_set(NOW + 250);  // leases 1 and 2 have run out
    const std::string r = req(R"({"cmd":"dhcps_leases_get_page","data":[{"index":0,"count":1}]})");
    EXPECT_EQ(r,
              R"({"total":10,"data":[{"lease_ip":"192.168.1.103","lease_mac":"02-00-00-00-00-03",)"
              R"("lease_hostname":"host3","lease_time":"3600","lease_expires":"50"}]})");
}

TEST_F(Json, LeaseWithoutAddressAndFullHostName) {
    std::uint8_t mac[6] = {0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff};
    ASSERT_NE(dhcps_add_lease(mac, 0, 7, NOW + 1, "abcdefghijklmnopqrstuvwxyz", 26, 1, 0), nullptr);
    EXPECT_EQ(req(R"({"cmd":"dhcps_leases_get_page","data":[{"index":0,"count":1}]})"),
              R"({"total":1,"data":[{"lease_ip":"","lease_mac":"aa-bb-cc-dd-ee-ff",)"
              R"("lease_hostname":"abcdefghijklmnopqrst","lease_time":"7","lease_expires":"1"}]})");
}

// ---- static bindings ----

TEST_F(Json, StaticBindings) {
    pool("p1", "192.168.1.1", "192.168.1.0/24");
    pool("p2", "10.0.20.1", "10.0.20.0/24");
    struct Case {
        const char *request;
        const char *reply;
    };
    const Case cases[] = {
        {R"({"cmd":"dhcps_bind_mac_ip_add","config":[{"pool_name":"p2","bind_ip":"10.0.20.7","bind_mac":"00-11-22-33-44-77"},)"
         R"({"pool_name":"p1","bind_ip":"192.168.1.60","bind_mac":"00-11-22-33-44-55"}]})",
         ""},
        {R"({"cmd":"dhcps_bind_mac_ip_add","config":[{"pool_name":"p3","bind_ip":"192.168.1.61","bind_mac":"00-11-22-33-44-56"}]})",
         "{result: 11}"},
        {R"({"cmd":"dhcps_bind_mac_ip_add","config":[{"pool_name":"p1","bind_ip":"192.168.2.61","bind_mac":"00-11-22-33-44-56"}]})",
         "{result: 12}"},
        {R"({"cmd":"dhcps_bind_mac_ip_add","config":[{"pool_name":"p1","bind_ip":"192.168.1.61","bind_mac":"00-11-22"}]})",
         "{result: 12}"},
        {R"({"cmd":"dhcps_bind_mac_ip_add","config":[{"pool_name":"p1","bind_ip":"192.168.1.61","bind_mac":"00-11-22-33-44-55"}]})",
         "{result: 12}"},
        {R"({"cmd":"dhcps_bind_mac_ip_add","config":[{"pool_name":"p1","bind_mac":"00-11-22-33-44-56"}]})",
         "{result: 12}"},
        {R"({"cmd":"dhcps_bind_mac_ip_add","config":[{"pool_name":"p1","bind_ip":"192.168.1.62","bind_mac":"00-11-22-33-44-62"}]})",
         ""},
        {R"({"cmd":"dhcps_bind_mac_ip_delete","config":[{"pool_name":"p1","bind_ip":"192.168.1.62"},{"pool_name":"p1"}]})",
         "{result: 14}"},
        {R"({"cmd":"dhcps_bind_mac_ip_delete","config":[{"pool_name":"p1","bind_ip":"1.2.3"}]})",
         "{result: 14}"},
        {R"({"cmd":"dhcps_bind_mac_ip_delete","config":[{"pool_name":"p9","bind_ip":"192.168.1.60"}]})",
         "{result: 11}"},
        // An address without a binding: nothing to do, no failure.
        {R"({"cmd":"dhcps_bind_mac_ip_delete","config":[{"pool_name":"p1","bind_ip":"192.168.1.99"}]})",
         ""},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(req(c.request), c.reply) << c.request;
        EXPECT_EQ(saved(), running()) << c.request;
    }
    EXPECT_EQ(
        req(R"({"cmd":"dhcps_bind_mac_ip_get_all"})"),
        R"({"data":[{"pool_name" :"p1","bind_ip":"192.168.1.60","bind_mac":"00-11-22-33-44-55"}, )"
        R"({"pool_name" :"p2","bind_ip":"10.0.20.7","bind_mac":"00-11-22-33-44-77"}]})");
    EXPECT_NE(running().find(" static 192.168.1.60 00-11-22-33-44-55\n"), std::string::npos);
    EXPECT_EQ(running().find(" static 192.168.1.62"), std::string::npos);
}

TEST_F(Json, StaticLimitIsResult13) {
    pool("big", "10.8.0.1", "10.8.0.0/16");
    dhcps_pool *p = dhcps_lookup_by_name("big");
    while (dhcps_static_count() < DHCPS_STATIC_MAX) {
        const auto n = static_cast<std::uint32_t>(dhcps_static_count()) + 10;
        const std::string ip = ipv4_text(htonl(0x0a080000u + n)).buf;
        char mac[32];
        std::snprintf(mac, sizeof mac, "00-00-00-00-%02x-%02x", n >> 8, n & 0xff);
        ASSERT_EQ(dhcps_pool_add_static(nullptr, p, ip.c_str(), mac), CMD_SUCCESS);
    }
    EXPECT_EQ(
        req(R"({"cmd":"dhcps_bind_mac_ip_add","config":[{"pool_name":"big","bind_ip":"10.8.9.9","bind_mac":"00-11-22-33-44-55"}]})"),
        "{result: 13}");
}

// ---- port bindings ----

TEST_F(Json, PortBindings) {
    pool("p1", "192.168.1.1", "192.168.1.0/24");
    EXPECT_EQ(req(R"({"cmd":"dhcps_l2_if_list"})"),
              R"({"data":[{"name" :"swp1"}, {"name" :"swp2"}, {"name" :"swp3"}]})");
    struct Case {
        const char *request;
        const char *reply;
    };
    const Case cases[] = {
        {R"({"cmd":"dhcps_bind_port_ip_add","config":[{"pool_name":"p1","bind_port":"swp1","bind_ip":"192.168.1.50"},)"
         R"({"pool_name":"p1","bind_port":"swp2","bind_ip":"192.168.1.51"}]})",
         ""},
        {R"({"cmd":"dhcps_bind_port_ip_add","config":[{"pool_name":"px","bind_port":"swp3","bind_ip":"192.168.1.52"}]})",
         "{result: 11}"},
        {R"({"cmd":"dhcps_bind_port_ip_add","config":[{"pool_name":"p1","bind_port":"swp9","bind_ip":"192.168.1.52"}]})",
         "{result: 15}"},
        {R"({"cmd":"dhcps_bind_port_ip_add","config":[{"pool_name":"p1","bind_port":"swp3","bind_ip":"10.1.1.1"}]})",
         "{result: 15}"},
        {R"({"cmd":"dhcps_bind_port_ip_add","config":[{"pool_name":"p1","bind_port":"swp1","bind_ip":"192.168.1.53"}]})",
         "{result: 15}"},
        {R"({"cmd":"dhcps_bind_port_ip_add","config":[{"pool_name":"p1","bind_ip":"192.168.1.53"}]})",
         "{result: 15}"},
        {R"({"cmd":"dhcps_bind_port_ip_add","config":[{"pool_name":"p1","bind_port":"swp3","bind_ip":"192.168.1.53"}]})",
         ""},
        {R"({"cmd":"dhcps_bind_port_ip_delete","config":[{"pool_name":"p1","bind_port":"swp3","bind_ip":"ignored"},{"pool_name":"p1","bind_port":"swp7"}]})",
         "{result: 16}"},
        {R"({"cmd":"dhcps_bind_port_ip_delete","config":[{"pool_name":"p2","bind_port":"swp1"}]})",
         "{result: 11}"},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(req(c.request), c.reply) << c.request;
        EXPECT_EQ(saved(), running()) << c.request;
    }
    EXPECT_EQ(req(R"({"cmd":"dhcps_bind_port_ip_get_all"})"),
              R"({"data":[{"pool_name" :"p1","bind_port":"swp1","bind_ip":"192.168.1.50"}, )"
              R"({"pool_name" :"p1","bind_port":"swp2","bind_ip":"192.168.1.51"}]})");
    EXPECT_NE(running().find(" port-bind swp2 192.168.1.51\n"), std::string::npos);
}

TEST_F(Json, PortBindingOfAVanishedPortIsSkipped) {
    pool("p1", "192.168.1.1", "192.168.1.0/24");
    ASSERT_EQ(req(R"({"cmd":"dhcps_bind_port_ip_add","config":[)"
                  R"({"pool_name":"p1","bind_port":"swp1","bind_ip":"192.168.1.50"},)"
                  R"({"pool_name":"p1","bind_port":"swp2","bind_ip":"192.168.1.51"},)"
                  R"({"pool_name":"p1","bind_port":"swp3","bind_ip":"192.168.1.52"}]})"),
              "");
    ports.remove("swp2");
    uif_refresh();
    EXPECT_EQ(req(R"({"cmd":"dhcps_bind_port_ip_get_all"})"),
              R"({"data":[{"pool_name" :"p1","bind_port":"swp1","bind_ip":"192.168.1.50"}, )"
              R"({"pool_name" :"p1","bind_port":"swp3","bind_ip":"192.168.1.52"}]})");
    EXPECT_EQ(req(R"({"cmd":"dhcps_l2_if_list"})"),
              R"({"data":[{"name" :"swp1"}, {"name" :"swp3"}]})");
}

// ---- relay ----

TEST_F(Json, RelayState) {
    EXPECT_EQ(req(R"({"cmd":"dhcpr_state_set","config":[{"enable":1}]})"), "");
    EXPECT_EQ(req(R"({"cmd":"dhcpr_state_get"})"), R"({"data":[{"enable" :"1"}]})");
    EXPECT_EQ(running(), HEAD + "dhcp-relay enable\nend\n");
    EXPECT_EQ(saved(), running());
    // Without "enable" the relay goes off.
    EXPECT_EQ(req(R"({"cmd":"dhcpr_state_set","config":[{"enable":"1"}]})"), "");
    EXPECT_EQ(req(R"({"cmd":"dhcpr_state_get"})"), R"({"data":[{"enable" :"0"}]})");
    EXPECT_EQ(saved(), HEAD + "end\n");
}

TEST_F(Json, L3InterfacesWithAnIpv4AddressOtherThanLo) {
    EXPECT_EQ(req(R"({"cmd":"dhcpr_l3_if_list"})"),
              R"({"data":[{"name" :"vlanif10"}, {"name" :"vlanif20"}]})");
    add_address("v6only", "192.0.2.1/24");
    EXPECT_EQ(req(R"({"cmd":"dhcpr_l3_if_list"})"),
              R"({"data":[{"name" :"v6only"}, {"name" :"vlanif10"}, {"name" :"vlanif20"}]})");
}

TEST_F(Json, RelayServers) {
    struct Case {
        const char *request;
        const char *reply;
    };
    const Case cases[] = {
        {R"({"cmd":"dhcpr_if_server_add","config":[{"if_name":"vlanif20","server_ip":"10.0.20.2"},{"if_name":"vlanif10","server_ip":"192.168.1.2"}]})",
         ""},
        {R"({"cmd":"dhcpr_if_server_add","config":[{"if_name":"vlanif99","server_ip":"10.0.20.2"}]})",
         "{result: 17}"},
        {R"({"cmd":"dhcpr_if_server_add","config":[{"server_ip":"10.0.20.2"}]})", "{result: 17}"},
        {R"({"cmd":"dhcpr_if_server_add","config":[{"if_name":"eth9","server_ip":"10.0.20.300"}]})",
         "{result: 18}"},
        {R"({"cmd":"dhcpr_if_server_add","config":[{"if_name":"eth9","server_ip":"2001:db8::2"}]})",
         "{result: 18}"},
        {R"({"cmd":"dhcpr_if_server_add","config":[{"if_name":"eth9"}]})", "{result: 18}"},
        {R"({"cmd":"dhcpr_if_server_delete","config":[{"if_name":"vlanif10","server_ip":"x"},{"if_name":"vlanif10"}]})",
         "{result: 19}"},
        {R"({"cmd":"dhcpr_if_server_delete","config":[{"if_name":"nope"}]})", "{result: 17}"},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(req(c.request), c.reply) << c.request;
        EXPECT_EQ(saved(), running()) << c.request;
    }
    EXPECT_EQ(req(R"({"cmd":"dhcpr_if_server_get_all"})"),
              R"({"data":[{"if_name" :"vlanif20","server_ip":"10.0.20.2"}]})");
    EXPECT_EQ(running(), HEAD +
                             "interface vlanif20\n"
                             " dhcp-relay remote-server 10.0.20.2\n"
                             " quit\n"
                             "end\n");
}

TEST_F(Json, RelayServerOnAForeignBindingIsRefusedButListed) {
    interface *ifp = if_lookup_by_name("eth9");
    dhcpr_if_info foreign{};
    foreign.kind = 2;
    foreign.relay = std::make_unique<dhcpr_if>();
    sockunion su{};
    str2sockunion("10.9.9.9", &su);
    foreign.relay->server = su;
    ifp->info = &foreign;
    EXPECT_EQ(
        req(R"({"cmd":"dhcpr_if_server_add","config":[{"if_name":"eth9","server_ip":"10.0.20.2"}]})"),
        "{result: 18}");
    EXPECT_EQ(req(R"({"cmd":"dhcpr_if_server_delete","config":[{"if_name":"eth9"}]})"),
              "{result: 19}");
    // Neither the kind nor the enable flag is looked at.
    EXPECT_EQ(req(R"({"cmd":"dhcpr_if_server_get_all"})"),
              R"({"data":[{"if_name" :"eth9","server_ip":"10.9.9.9"}]})");
    ifp->info = nullptr;
}

// ---- largest replies ----

// Every lease the table may hold, each with the longest texts: the page of
// all of them fits the buffer whole.
TEST_F(Json, FullLeaseTableInOnePageFits) {
    dhcps_set_max_lease_num(DHCPS_MAX_LEASE_NUM_MAX);
    kq_time_set(INT32_MIN);
    for (std::uint32_t i = 0; i < DHCPS_MAX_LEASE_NUM_MAX; ++i) {
        // 200.200.100.100 and on: every address of 15 characters.
        const std::uint32_t a = 0xc8c80000u + ((100 + i / 100) << 8) + (100 + i % 100);
        std::uint8_t mac[6] = {0xaa,
                               0xbb,
                               0xcc,
                               0xdd,
                               static_cast<std::uint8_t>(i >> 8),
                               static_cast<std::uint8_t>(i)};
        ASSERT_NE(
            dhcps_add_lease(mac, htonl(a), UINT32_MAX, INT32_MAX, "twenty-characters-xx", 20, 1, 0),
            nullptr);
    }
    const std::string r =
        req(R"({"cmd":"dhcps_leases_get_page","data":[{"index":0,"count":10240}]})");
    const std::string one =
        R"({"lease_ip":"200.200.200.100","lease_mac":"aa-bb-cc-dd-00-00","lease_hostname":"twenty-characters-xx","lease_time":"4294967295","lease_expires":"4294967295"})";
    EXPECT_EQ(r.size(), std::string(R"({"total":10240,"data":[)").size() + 10240 * one.size() +
                            10239 * 2 + 2);
    EXPECT_EQ(r.substr(r.size() - 2), "]}");
    EXPECT_LT(r.size(), DHCP_JSON_RESPONSE_SIZE);
    std::size_t objects = 0;
    for (std::size_t at = r.find("lease_ip"); at != std::string::npos;
         at = r.find("lease_ip", at + 1)) {
        ++objects;
    }
    EXPECT_EQ(objects, 10240u);
}

TEST_F(Json, EveryStaticBindingOfSixteenPoolsFits) {
    std::string expect = R"({"data":[)";
    for (int p = 0; p < 16; ++p) {
        const std::string name = std::string(29, 'n') + (p < 10 ? "0" : "") + std::to_string(p);
        const std::string net = "10." + std::to_string(100 + p) + ".0.0/16";
        const std::string router = "10." + std::to_string(100 + p) + ".0.1";
        pool(name, router, net);
        dhcps_pool *pp = dhcps_lookup_by_name(name.c_str());
        for (int s = 0; s < 64; ++s) {
            const std::string ip =
                "10." + std::to_string(100 + p) + ".200." + std::to_string(100 + s);
            char mac[32];
            std::snprintf(mac, sizeof mac, "aa-bb-cc-dd-%02x-%02x", p, s);
            ASSERT_EQ(dhcps_pool_add_static(nullptr, pp, ip.c_str(), mac), CMD_SUCCESS);
            expect += std::string(expect.size() > 9 ? ", " : "") + R"({"pool_name" :")" + name +
                      R"(","bind_ip":")" + ip + R"(","bind_mac":")" + mac + R"("})";
        }
    }
    EXPECT_EQ(req(R"({"cmd":"dhcps_bind_mac_ip_get_all"})"), expect + "]}");
}

}  // namespace

namespace {

// ---- one set of rules ----

// The DNS server count is the setter's rule, so the command and a request
// refuse the same lists; without a vty nothing is printed.
TEST_F(Json, DnsListCountIsTheSettersRule) {
    pool("p1", "192.168.1.1", "192.168.1.0/24");
    dhcps_pool *p = dhcps_lookup_by_name("p1");
    const char *three[] = {"1.1.1.1", "2.2.2.2", "3.3.3.3"};
    std::unique_ptr<vty> v = vty_new(VTY_SHELL_SERV);
    EXPECT_EQ(dhcps_pool_set_dns_list(v.get(), p, three), CMD_WARNING);
    EXPECT_EQ(v->obuf, "% Only support max 2 DNS Servers!\n");
    EXPECT_EQ(dhcps_pool_set_dns_list(v.get(), p, {}), CMD_WARNING);
    v->obuf.clear();
    EXPECT_EQ(dhcps_pool_set_dns_list(nullptr, p, three), CMD_WARNING);
    EXPECT_EQ(dhcps_pool_set_dns_list(v.get(), p, std::span(three).first(2)), CMD_SUCCESS);
    EXPECT_EQ(v->obuf, "");
    EXPECT_NE(running().find(" dns-server 1.1.1.1 2.2.2.2\n"), std::string::npos);
}

// Refusals that print a message on the CLI print nothing for a request.
TEST_F(Json, FailedRequestsPrintNothing) {
    pool("p1", "192.168.1.1", "192.168.1.0/24");
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(
        req(R"({"cmd":"dhcps_pool_add","config":[{"pool_name":"p2","default_router":"1.1.1.1","network":"10.0.0.0/8"},{"pool_name":"p3","default_router":"1.1.1.1"}]})"),
        "{result: 3}");
    EXPECT_EQ(
        req(R"({"cmd":"dhcps_pool_config","config":[{"pool_name":"p1","begin_ip":"1.1.1.1","end_ip":"1.1.1.2"}]})"),
        "{result: 4}");
    EXPECT_EQ(
        req(R"({"cmd":"dhcps_bind_port_ip_add","config":[{"pool_name":"p1","bind_port":"swp9","bind_ip":"192.168.1.5"}]})"),
        "{result: 15}");
    EXPECT_EQ(req(R"({"cmd":"dhcpr_if_server_delete","config":[{"if_name":"vlanif10"}]})"),
              "{result: 19}");
    EXPECT_EQ(
        req(R"({"cmd":"dhcpr_if_server_add","config":[{"if_name":"vlanif10","server_ip":"10.0.0.9"}]})"),
        "");
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
}

}  // namespace
