// dhcpsh --metrics: JSON replies in, Prometheus text exposition out.
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "tools/dhcpsh/cmdline.h"
#include "tools/dhcpsh/metrics.h"

namespace {

const std::string SERVER =
    "{\"data\":[{\"name\":\"received_discover\",\"value\":3}, "
    "{\"name\":\"sent_offer\",\"value\":2}, "
    "{\"name\":\"dropped_no_pool\",\"value\":1}, "
    "{\"name\":\"pool_range\",\"pool\":\"lan\",\"value\":11}, "
    "{\"name\":\"pool_leased\",\"pool\":\"lan\",\"value\":4}, "
    "{\"name\":\"pool_offered\",\"pool\":\"lan\",\"value\":1}, "
    "{\"name\":\"pool_reserved\",\"pool\":\"lan\",\"value\":0}, "
    "{\"name\":\"pool_static\",\"pool\":\"lan\",\"value\":2}, "
    "{\"name\":\"something_new\",\"value\":7}]}";

const std::string RELAY =
    "{\"data\":[{\"name\":\"requests_received_discover\",\"interface\":\"vlanif10\",\"value\":5}, "
    "{\"name\":\"requests_forwarded\",\"interface\":\"vlanif10\",\"value\":4}, "
    "{\"name\":\"replies_received_offer\",\"interface\":\"vlanif10\",\"value\":4}, "
    "{\"name\":\"replies_delivered\",\"interface\":\"vlanif10\",\"value\":4}, "
    "{\"name\":\"dropped_hops_exceeded\",\"interface\":\"vlanif10\",\"value\":1}, "
    "{\"name\":\"refused_not_udp\",\"value\":6}]}";

TEST(Metrics, EveryFamilyWithHelpTypeAndLabelledSamples) {
    auto text = dhcpsh::render_metrics(SERVER, RELAY);
    ASSERT_TRUE(text.ok()) << text.error();
    EXPECT_EQ(*text,
              "# HELP dhcpd_server_received_total Requests the server received, by message type.\n"
              "# TYPE dhcpd_server_received_total counter\n"
              "dhcpd_server_received_total{type=\"discover\"} 3\n"
              "# HELP dhcpd_server_sent_total Replies the server sent, by message type.\n"
              "# TYPE dhcpd_server_sent_total counter\n"
              "dhcpd_server_sent_total{type=\"offer\"} 2\n"
              "# HELP dhcpd_server_dropped_total Requests the server dropped, by reason.\n"
              "# TYPE dhcpd_server_dropped_total counter\n"
              "dhcpd_server_dropped_total{reason=\"no_pool\"} 1\n"
              "# HELP dhcpd_server_pool_addresses Addresses in the pool's range.\n"
              "# TYPE dhcpd_server_pool_addresses gauge\n"
              "dhcpd_server_pool_addresses{pool=\"lan\"} 11\n"
              "# HELP dhcpd_server_pool_leased Committed leases of the pool.\n"
              "# TYPE dhcpd_server_pool_leased gauge\n"
              "dhcpd_server_pool_leased{pool=\"lan\"} 4\n"
              "# HELP dhcpd_server_pool_offered Addresses of the pool held for an offer.\n"
              "# TYPE dhcpd_server_pool_offered gauge\n"
              "dhcpd_server_pool_offered{pool=\"lan\"} 1\n"
              "# HELP dhcpd_server_pool_reserved Addresses of the pool reserved after a "
              "conflict.\n"
              "# TYPE dhcpd_server_pool_reserved gauge\n"
              "dhcpd_server_pool_reserved{pool=\"lan\"} 0\n"
              "# HELP dhcpd_server_pool_static_bindings Static bindings of the pool.\n"
              "# TYPE dhcpd_server_pool_static_bindings gauge\n"
              "dhcpd_server_pool_static_bindings{pool=\"lan\"} 2\n"
              "# HELP dhcpd_relay_requests_received_total Requests the relay received, by "
              "interface and message type.\n"
              "# TYPE dhcpd_relay_requests_received_total counter\n"
              "dhcpd_relay_requests_received_total{interface=\"vlanif10\",type=\"discover\"} 5\n"
              "# HELP dhcpd_relay_requests_forwarded_total Requests the relay forwarded to the "
              "server, by interface.\n"
              "# TYPE dhcpd_relay_requests_forwarded_total counter\n"
              "dhcpd_relay_requests_forwarded_total{interface=\"vlanif10\"} 4\n"
              "# HELP dhcpd_relay_replies_received_total Replies the relay received, by interface "
              "and message type.\n"
              "# TYPE dhcpd_relay_replies_received_total counter\n"
              "dhcpd_relay_replies_received_total{interface=\"vlanif10\",type=\"offer\"} 4\n"
              "# HELP dhcpd_relay_replies_delivered_total Replies the relay delivered to "
              "clients, by interface.\n"
              "# TYPE dhcpd_relay_replies_delivered_total counter\n"
              "dhcpd_relay_replies_delivered_total{interface=\"vlanif10\"} 4\n"
              "# HELP dhcpd_relay_dropped_total Messages the relay dropped, by interface and "
              "reason.\n"
              "# TYPE dhcpd_relay_dropped_total counter\n"
              "dhcpd_relay_dropped_total{interface=\"vlanif10\",reason=\"hops_exceeded\"} 1\n"
              "# HELP dhcpd_relay_channel_refused_total Trapped frames the relay's channel "
              "refused, by reason.\n"
              "# TYPE dhcpd_relay_channel_refused_total counter\n"
              "dhcpd_relay_channel_refused_total{reason=\"not_udp\"} 6\n");
}

TEST(Metrics, LabelValuesAreEscaped) {
    auto text = dhcpsh::render_metrics(
        "{\"data\":[{\"name\":\"pool_range\",\"pool\":\"a\\\"b\\\\c\\nd\",\"value\":1}]}",
        "{\"data\":[]}");
    ASSERT_TRUE(text.ok());
    EXPECT_NE(text->find("dhcpd_server_pool_addresses{pool=\"a\\\"b\\\\c\\nd\"} 1\n"),
              std::string::npos);
}

TEST(Metrics, LargeCountersKeepTheirDigits) {
    auto text = dhcpsh::render_metrics(
        "{\"data\":[{\"name\":\"sent_ack\",\"value\":4294967296123}]}", "{\"data\":[]}");
    ASSERT_TRUE(text.ok());
    EXPECT_NE(text->find("dhcpd_server_sent_total{type=\"ack\"} 4294967296123\n"),
              std::string::npos);
}

TEST(Metrics, RepliesThatAreNotCounterListsAreRefused) {
    for (const char *bad :
         {"", "{", "{result: 17}", "{\"error\":\"unknown request\"}", "{\"data\":{}}", "[1,2]"}) {
        auto text = dhcpsh::render_metrics(bad, "{\"data\":[]}");
        EXPECT_FALSE(text.ok()) << bad;
        text = dhcpsh::render_metrics("{\"data\":[]}", bad);
        EXPECT_FALSE(text.ok()) << bad;
    }
    // Objects without a name or a number are skipped, not fatal.
    auto text = dhcpsh::render_metrics(
        "{\"data\":[{\"name\":1,\"value\":2}, {\"name\":\"sent_ack\"}, 3, "
        "{\"name\":\"sent_ack\",\"value\":\"x\"}]}",
        "{\"data\":[]}");
    ASSERT_TRUE(text.ok());
    EXPECT_EQ(text->find("} "), std::string::npos);
}

TEST(Metrics, TheOptionIsAModeOfItsOwn) {
    const std::string_view alone[] = {"--metrics"};
    auto opts = dhcpsh::parse_args(alone);
    ASSERT_TRUE(opts.ok());
    EXPECT_EQ(opts->mode, dhcpsh::Mode::metrics);
    const std::string_view mixed[] = {"--metrics", "-c", "show dhcp-server"};
    auto bad = dhcpsh::parse_args(mixed);
    ASSERT_FALSE(bad.ok());
    EXPECT_EQ(bad.error(), "--metrics cannot be combined with -c, -f, -b or -j");
    EXPECT_NE(dhcpsh::help_text().find("  --metrics    print the counters in the Prometheus"),
              std::string::npos);
}

TEST(Metrics, NoDaemonIsReportedWithExitStatus2) {
    std::ostringstream out, err;
    EXPECT_EQ(dhcpsh::run_metrics("/nonexistent/dhcp.jsr", out, err), 2);
    EXPECT_EQ(out.str(), "");
    EXPECT_EQ(err.str().rfind("dhcpsh: ", 0), 0u) << err.str();
}

}  // namespace
