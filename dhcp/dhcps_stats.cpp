// The server's counters and pool gauges, and their two commands.
#include "dhcp/dhcps_stats.h"

#include <arpa/inet.h>

#include <algorithm>

#include "dhcp/dhcp_packet.h"
#include "dhcp/dhcps_leases.h"
#include "dhcp/dhcps_pool.h"
#include "lib/command.h"
#include "lib/prefix.h"
#include "lib/vty.h"
#include "lib/vty_counters.h"

namespace {

dhcps_counters counters;


constexpr counter_name rx_names[DHCPS_RX_COUNT] = {
    {"DISCOVER", "discover"}, {"REQUEST", "request"}, {"DECLINE", "decline"},
    {"RELEASE", "release"},   {"INFORM", "inform"},   {"other", "other"},
};

constexpr counter_name tx_names[DHCPS_TX_COUNT] = {
    {"OFFER", "offer"},
    {"ACK", "ack"},
    {"NAK", "nak"},
    {"INFORM reply", "inform_reply"},
};

constexpr counter_name drop_names[DHCPS_DROP_COUNT] = {
    {"hardware length not 6", "bad_hlen"},
    {"not a request", "not_request"},
    {"no interface", "no_interface"},
    {"option 82 invalid", "option82_invalid"},
    {"circuit id not allowed", "circuit_id_not_allowed"},
    {"no pool", "no_pool"},
    {"no subnet mask", "no_subnet_mask"},
    {"server id mismatch", "server_id_mismatch"},
    {"bad message type", "bad_message_type"},
    {"wrong message type", "wrong_message_type"},
    {"no requested address", "no_requested_address"},
    {"unknown client", "unknown_client"},
    {"no free address", "no_free_address"},
    {"lease table full", "lease_table_full"},
    {"decline ignored", "decline_ignored"},
    {"release ignored", "release_ignored"},
};

constexpr std::string_view pool_labels[] = {
    "addresses in range", "leased", "offered", "reserved by conflicts", "static bindings",
};

// One width for every label of the display, so the colons line up in all
// groups whatever is shown.
constexpr int label_width() {
    std::size_t w = widest_label(rx_names);
    w = widest_label(tx_names, w);
    w = widest_label(drop_names, w);
    for (auto l : pool_labels) {
        w = std::max(w, l.size());
    }
    return static_cast<int>(w);
}

void line(vty *vty, std::string_view label, std::uint64_t value) {
    vty_out_counter(vty, label_width(), label, value);
}

bool in_pool(const dhcps_pool &pool, std::uint32_t nip) {
    if (pool.prefix) {
        in_addr mask{};
        masklen2ip(pool.prefix->prefixlen, &mask);
        return (nip & mask.s_addr) == pool.prefix->prefix.s_addr;
    }
    const std::uint32_t h = ntohl(nip);
    return h >= pool.begin_ip && h <= pool.end_ip;
}

bool zero_mac(const dhcps_lease &l) {
    return std::all_of(std::begin(l.mac), std::end(l.mac), [](std::uint8_t b) { return b == 0; });
}

void show_pool(vty *vty, const dhcps_pool &pool) {
    const dhcps_pool_usage u = dhcps_pool_usage_of(pool);
    vty_out(vty, "Pool %s%s", pool.name, VTY_NEWLINE);
    const std::uint64_t values[] = {u.range, u.leased, u.offered, u.reserved, u.statics};
    for (std::size_t i = 0; i < std::size(values); ++i) {
        line(vty, pool_labels[i], values[i]);
    }
}

DEFUN(show_dhcps_statistics, show_dhcps_statistics_cmd, "show dhcp-server statistics",
      SHOW_STR "Configure dhcp server\nDhcp server statistics\n") {
    return dhcps_show_statistics(vty);
}

DEFUN(clear_dhcps_statistics, clear_dhcps_statistics_cmd, "clear dhcp-server statistics",
      "Reset functions\nConfigure dhcp server\nDhcp server statistics\n") {
    dhcps_stats_clear();
    return CMD_SUCCESS;
}

}  // namespace

dhcps_rx dhcps_rx_of(int type) {
    switch (type) {
        case DHCPDISCOVER:
            return dhcps_rx::discover;
        case DHCPREQUEST:
            return dhcps_rx::request;
        case DHCPDECLINE:
            return dhcps_rx::decline;
        case DHCPRELEASE:
            return dhcps_rx::release;
        case DHCPINFORM:
            return dhcps_rx::inform;
        default:
            return dhcps_rx::other;
    }
}

void dhcps_stats_count(int type, dhcps_outcome outcome) {
    ++counters.received[static_cast<std::size_t>(dhcps_rx_of(type))];
    switch (outcome) {
        case dhcps_outcome::offer_sent:
            ++counters.sent[static_cast<std::size_t>(dhcps_tx::offer)];
            return;
        case dhcps_outcome::ack_sent:
            ++counters.sent[static_cast<std::size_t>(dhcps_tx::ack)];
            return;
        case dhcps_outcome::nak_sent:
            ++counters.sent[static_cast<std::size_t>(dhcps_tx::nak)];
            return;
        case dhcps_outcome::inform_sent:
            ++counters.sent[static_cast<std::size_t>(dhcps_tx::inform_reply)];
            return;
        case dhcps_outcome::declined:
        case dhcps_outcome::released:
        case dhcps_outcome::count:
            return;
        default:
            ++counters.dropped[dhcps_drop_index(outcome)];
            return;
    }
}

const dhcps_counters &dhcps_stats() {
    return counters;
}

void dhcps_stats_clear() {
    counters = dhcps_counters{};
}

dhcps_pool_usage dhcps_pool_usage_of(const dhcps_pool &pool) {
    dhcps_pool_usage u;
    if (pool.end_ip >= pool.begin_ip && pool.begin_ip != 0) {
        u.range = static_cast<std::uint64_t>(pool.end_ip) - pool.begin_ip + 1;
    }
    u.statics = pool.static_leases.size();
    dhcps_lease_foreach([&](const dhcps_lease &l) {
        if (dhcps_lease_expired(&l) != 0 || !in_pool(pool, dhcps_lease_nip(&l))) {
            return;
        }
        if (dhcps_lease_state(&l) != 0) {
            ++u.leased;
        } else if (zero_mac(l)) {
            ++u.reserved;
        } else {
            ++u.offered;
        }
    });
    return u;
}

std::string_view dhcps_rx_label(std::size_t i) {
    return counter_label(rx_names, i);
}
std::string_view dhcps_rx_name(std::size_t i) {
    return counter_key(rx_names, i);
}
std::string_view dhcps_tx_label(std::size_t i) {
    return counter_label(tx_names, i);
}
std::string_view dhcps_tx_name(std::size_t i) {
    return counter_key(tx_names, i);
}
std::string_view dhcps_drop_label(std::size_t i) {
    return counter_label(drop_names, i);
}
std::string_view dhcps_drop_name(std::size_t i) {
    return counter_key(drop_names, i);
}

int dhcps_show_statistics(vty *vty) {
    vty_out(vty, "Received%s", VTY_NEWLINE);
    for (std::size_t i = 0; i < DHCPS_RX_COUNT; ++i) {
        line(vty, rx_names[i].label, counters.received[i]);
    }
    vty_out(vty, "Sent%s", VTY_NEWLINE);
    for (std::size_t i = 0; i < DHCPS_TX_COUNT; ++i) {
        line(vty, tx_names[i].label, counters.sent[i]);
    }
    vty_out(vty, "Dropped%s", VTY_NEWLINE);
    for (std::size_t i = 0; i < DHCPS_DROP_COUNT; ++i) {
        if (counters.dropped[i] != 0) {
            line(vty, drop_names[i].label, counters.dropped[i]);
        }
    }
    for (const auto &pool : dhcps_pool_list()) {
        show_pool(vty, *pool);
    }
    return CMD_SUCCESS;
}

void dhcps_stats_vty_init() {
    for (int node : {CONFIG_NODE, ENABLE_NODE}) {
        install_element(node, &show_dhcps_statistics_cmd);
        install_element(node, &clear_dhcps_statistics_cmd);
    }
}
