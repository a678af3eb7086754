// The counters' JSON requests: replies parse as JSON and say what the CLI
// displays say; clear requests clear what they name and answer nothing.
#include <arpa/inet.h>
#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <sstream>
#include <string>

#include "dhcp/dhcp_json.h"
#include "dhcp/dhcp_packet.h"
#include "dhcp/dhcpr.h"
#include "dhcp/dhcpr_stats.h"
#include "dhcp/dhcps.h"
#include "dhcp/dhcps_leases.h"
#include "dhcp/dhcps_pool.h"
#include "dhcp/dhcps_stats.h"
#include "lib/if.h"
#include "lib/log.h"
#include "lib/thread.h"
#include "lib/vty.h"
#include "platform/clock.h"
#include "platform/jserver.h"
#include "tests/unit/dhcps_test_msgs.h"

namespace {

using namespace dhcps_test;

using json_ptr = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

std::string ask(const std::string &request) {
    const char *reply = nullptr;
    const std::size_t n = dhcp_json_handle_text(request.data(), request.size(), &reply);
    return std::string(reply, n);
}

// "name[/pool or interface]" -> value, from a {"data":[...]} reply.
std::map<std::string, std::uint64_t> counters_of(const std::string &reply) {
    json_ptr root(cJSON_Parse(reply.c_str()), cJSON_Delete);
    EXPECT_NE(root, nullptr) << reply;
    std::map<std::string, std::uint64_t> out;
    const cJSON *data = cJSON_GetObjectItem(root.get(), "data");
    EXPECT_TRUE(cJSON_IsArray(data)) << reply;
    const cJSON *o = nullptr;
    cJSON_ArrayForEach(o, data) {
        std::string key = cJSON_GetObjectItem(o, "name")->valuestring;
        for (const char *m : {"pool", "interface"}) {
            if (const cJSON *w = cJSON_GetObjectItem(o, m)) {
                key += std::string("/") + w->valuestring;
            }
        }
        out[key] = static_cast<std::uint64_t>(cJSON_GetObjectItem(o, "value")->valuedouble);
    }
    return out;
}

// "label : value" lines of a display under their block heading, as
// "heading/label" -> value.
std::map<std::string, std::uint64_t> display_of(const std::string &text) {
    std::map<std::string, std::uint64_t> out;
    std::istringstream in(text);
    std::string line, heading;
    while (std::getline(in, line)) {
        const auto colon = line.find(" : ");
        if (colon == std::string::npos) {
            heading = line;
            continue;
        }
        std::string label = line.substr(2, colon - 2);
        label.erase(label.find_last_not_of(' ') + 1);
        out[heading + "/" + label] = std::stoull(line.substr(colon + 3));
    }
    return out;
}

struct JsonStats : ::testing::Test {
    thread_master *master = thread_master_create();
    dhcps_pool *pool = nullptr;

    JsonStats() {
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
        jserver_cmd_reset();
        dhcp_json_register();
        interface *ifp = if_get_by_name("vlanif10");
        prefix a{};
        str2prefix("192.168.1.1/24", &a);
        connected_add(ifp, 0, &a, nullptr);
        pool = dhcps_pool_get("lan");
        const std::uint32_t router = nip("192.168.1.1");
        dhcp_attach_option(pool->options, dhcp_option{0x31, DHCP_ROUTER},
                           {reinterpret_cast<const std::uint8_t *>(&router), 4});
        prefix_ipv4 pfx{};
        str2prefix_ipv4("192.168.1.0/24", &pfx);
        EXPECT_EQ(dhcps_network(pool, &pfx), 0);
        pool->begin_ip = ntohl(nip("192.168.1.10"));
        pool->end_ip = ntohl(nip("192.168.1.20"));
    }
    ~JsonStats() override {
        zlog_set_hook({});
        jserver_cmd_reset();
        dhcps_set_sender(nullptr);
        dhcpr_reset();
        dhcps_pool_list_free();
        dhcps_lease_list_free();
        if_terminate();
        thread_master_free(master);
        kq_time_clear();
        dhcps_stats_clear();
        dhcpr_stats_clear();
    }
    void handle(dhcp_packet p) { dhcps_handle_request(p, 300, nip("192.168.1.1")); }
    std::string show(int (*fn)(vty *)) {
        auto v = vty_new(VTY_SHELL_SERV);
        fn(v.get());
        return v->obuf;
    }
};

TEST_F(JsonStats, ServerReplyAgreesWithTheDisplay) {
    handle(discover(1));
    handle(discover(2, 0));
    const std::string reply = ask("{\"cmd\":\"dhcps_statistics_get\"}");
    EXPECT_EQ(reply.rfind("{\"data\":[{\"name\":\"received_discover\",\"value\":2}, "
                          "{\"name\":\"received_request\",\"value\":0}, ",
                          0),
              0u)
        << reply;
    EXPECT_NE(reply.find("{\"name\":\"pool_offered\",\"pool\":\"lan\",\"value\":1}"),
              std::string::npos);
    const auto json = counters_of(reply);
    const auto shown = display_of(show(dhcps_show_statistics));
    // Every displayed line has its JSON counter with the same value.
    const std::map<std::string, std::string> label_to_name = {
        {"Received/DISCOVER", "received_discover"},
        {"Received/other", "received_other"},
        {"Sent/OFFER", "sent_offer"},
        {"Sent/INFORM reply", "sent_inform_reply"},
        {"Dropped/hardware length not 6", "dropped_bad_hlen"},
        {"Pool lan/addresses in range", "pool_range/lan"},
        {"Pool lan/offered", "pool_offered/lan"},
        {"Pool lan/static bindings", "pool_static/lan"},
    };
    for (const auto &[label, name] : label_to_name) {
        ASSERT_TRUE(shown.count(label)) << label;
        ASSERT_TRUE(json.count(name)) << name;
        EXPECT_EQ(shown.at(label), json.at(name)) << label;
    }
    EXPECT_EQ(json.at("dropped_bad_hlen"), 1u);
    // Zero drop reasons are left out, as in the display.
    EXPECT_EQ(json.count("dropped_no_pool"), 0u);
    EXPECT_EQ(shown.size(), json.size());
}

TEST_F(JsonStats, RelayReplyAgreesWithTheDisplayAndTakesOneInterface) {
    const sockunion server = [] {
        sockunion su{};
        str2sockunion("10.0.20.2", &su);
        return su;
    }();
    ASSERT_EQ(dhcpr_if_relay_set(if_lookup_by_name("vlanif10"), &server), 0);
    dhcpr_stats_count(10, false, DHCPDISCOVER, dhcpr_outcome::forwarded);
    dhcpr_stats_count(10, false, DHCPDISCOVER, dhcpr_outcome::option82_present);
    dhcpr_stats_refused(dhcpr_refusal::not_udp);
    const std::string reply = ask("{\"cmd\":\"dhcpr_statistics_get\"}");
    const auto json = counters_of(reply);
    EXPECT_EQ(json.at("requests_received_discover/vlanif10"), 2u);
    EXPECT_EQ(json.at("requests_forwarded/vlanif10"), 1u);
    EXPECT_EQ(json.at("dropped_option82_present/vlanif10"), 1u);
    EXPECT_EQ(json.at("refused_not_udp"), 1u);
    EXPECT_EQ(json.count("dropped_hops_exceeded/vlanif10"), 0u);
    auto v = vty_new(VTY_SHELL_SERV);
    dhcpr_show_statistics(v.get(), nullptr);
    const auto shown = display_of(v->obuf);
    EXPECT_EQ(shown.at("Interface vlanif10/DISCOVER received"), 2u);
    EXPECT_EQ(shown.at("Interface vlanif10/option 82 present"), 1u);
    EXPECT_EQ(shown.at("Channel/not UDP"), 1u);
    EXPECT_EQ(shown.size(), json.size());
    const auto one = counters_of(
        ask("{\"cmd\":\"dhcpr_statistics_get\",\"data\":[{\"interface\":\"vlanif10\"}]}"));
    EXPECT_EQ(one.size(), json.size() - DHCPR_REFUSAL_COUNT);
    EXPECT_EQ(ask("{\"cmd\":\"dhcpr_statistics_get\",\"data\":[{\"interface\":\"nope\"}]}"),
              "{result: 17}");
}

TEST_F(JsonStats, ClearRequestsClearWhatTheyNameAndAnswerNothing) {
    handle(discover(1));
    dhcpr_stats_count(10, false, DHCPDISCOVER, dhcpr_outcome::forwarded);
    dhcpr_stats_count(20, false, DHCPDISCOVER, dhcpr_outcome::forwarded);
    dhcpr_stats_refused(dhcpr_refusal::wrong_port);
    if_get_by_name("vlanif20");
    EXPECT_EQ(ask("{\"cmd\":\"dhcpr_statistics_clear\",\"config\":[{\"interface\":\"vlanif20\"}]}"),
              "");
    EXPECT_EQ(dhcpr_stats_of(20).forwarded, 0u);
    EXPECT_EQ(dhcpr_stats_of(10).forwarded, 1u);
    EXPECT_EQ(dhcpr_stats_refusals()[static_cast<std::size_t>(dhcpr_refusal::wrong_port)], 1u);
    EXPECT_EQ(dhcps_stats().sent[0], 1u);
    EXPECT_EQ(ask("{\"cmd\":\"dhcpr_statistics_clear\",\"config\":[{\"interface\":\"nope\"}]}"),
              "{result: 17}");
    EXPECT_EQ(ask("{\"cmd\":\"dhcpr_statistics_clear\"}"), "");
    EXPECT_EQ(dhcpr_stats_of(10).forwarded, 0u);
    EXPECT_EQ(dhcpr_stats_refusals()[static_cast<std::size_t>(dhcpr_refusal::wrong_port)], 0u);
    EXPECT_EQ(dhcps_stats().sent[0], 1u);
    EXPECT_EQ(ask("{\"cmd\":\"dhcps_statistics_clear\"}"), "");
    EXPECT_EQ(dhcps_stats().sent[0], 0u);
    EXPECT_EQ(dhcps_pool_usage_of(*pool).offered, 1u);
}

}  // namespace
