// The relay's counters and their two commands.
#include "dhcp/dhcpr_stats.h"

#include <algorithm>
#include <memory>
#include <vector>

#include "dhcp/dhcp_packet.h"
#include "dhcp/dhcpr.h"
#include "lib/command.h"
#include "lib/if.h"
#include "lib/vty.h"
#include "lib/vty_counters.h"
#include "platform/uif.h"

namespace {

constexpr std::size_t VLAN_SLOTS = 4096;

// One slot per VLAN, made on the first count there.
std::vector<std::unique_ptr<dhcpr_if_counters>> &slots() {
    static std::vector<std::unique_ptr<dhcpr_if_counters>> s(VLAN_SLOTS);
    return s;
}

std::array<std::uint64_t, DHCPR_REFUSAL_COUNT> refusals{};

dhcpr_if_counters &slot(std::uint16_t vlan) {
    auto &p = slots()[vlan % VLAN_SLOTS];
    if (!p) {
        p = std::make_unique<dhcpr_if_counters>();
    }
    return *p;
}


constexpr counter_name req_names[DHCPR_REQ_COUNT] = {
    {"DISCOVER received", "discover"}, {"REQUEST received", "request"},
    {"DECLINE received", "decline"},   {"RELEASE received", "release"},
    {"INFORM received", "inform"},     {"other request received", "other"},
};

constexpr counter_name rep_names[DHCPR_REP_COUNT] = {
    {"OFFER received", "offer"},
    {"ACK received", "ack"},
    {"NAK received", "nak"},
    {"other reply received", "other"},
};

constexpr counter_name drop_names[DHCPR_DROP_COUNT] = {
    {"hops exceeded", "hops_exceeded"},
    {"no relay address", "no_relay_address"},
    {"no relay record", "no_relay_record"},
    {"relay not enabled", "relay_not_enabled"},
    {"option 82 present", "option82_present"},
    {"wrong request type", "wrong_request_type"},
    {"no client interface", "no_client_interface"},
    {"send failed", "send_failed"},
    {"untrusted port", "untrusted_port"},
    {"no transaction", "no_transaction"},
    {"wrong reply type", "wrong_reply_type"},
    {"no server identifier", "no_server_id"},
};

constexpr counter_name refusal_names[DHCPR_REFUSAL_COUNT] = {
    {"wrong message type", "wrong_type"},
    {"not UDP", "not_udp"},
    {"wrong port", "wrong_port"},
    {"bad length", "bad_length"},
};

constexpr std::string_view forwarded_label = "requests forwarded";
constexpr std::string_view delivered_label = "replies delivered";

constexpr int label_width() {
    std::size_t w = std::max(forwarded_label.size(), delivered_label.size());
    w = widest_label(req_names, w);
    w = widest_label(rep_names, w);
    w = widest_label(drop_names, w);
    w = widest_label(refusal_names, w);
    return static_cast<int>(w);
}

void line(vty *vty, std::string_view label, std::uint64_t value) {
    vty_out_counter(vty, label_width(), label, value);
}

std::size_t req_index(int type) {
    switch (type) {
        case DHCPDISCOVER:
            return static_cast<std::size_t>(dhcpr_req::discover);
        case DHCPREQUEST:
            return static_cast<std::size_t>(dhcpr_req::request);
        case DHCPDECLINE:
            return static_cast<std::size_t>(dhcpr_req::decline);
        case DHCPRELEASE:
            return static_cast<std::size_t>(dhcpr_req::release);
        case DHCPINFORM:
            return static_cast<std::size_t>(dhcpr_req::inform);
        default:
            return static_cast<std::size_t>(dhcpr_req::other);
    }
}

std::size_t rep_index(int type) {
    switch (type) {
        case DHCPOFFER:
            return static_cast<std::size_t>(dhcpr_rep::offer);
        case DHCPACK:
            return static_cast<std::size_t>(dhcpr_rep::ack);
        case DHCPNAK:
            return static_cast<std::size_t>(dhcpr_rep::nak);
        default:
            return static_cast<std::size_t>(dhcpr_rep::other);
    }
}

void show_block(vty *vty, const interface &ifp) {
    const dhcpr_if_counters c = dhcpr_stats_of(if_get_vid(&ifp));
    vty_out(vty, "Interface %s%s", ifp.name, VTY_NEWLINE);
    for (std::size_t i = 0; i < DHCPR_REQ_COUNT; ++i) {
        line(vty, req_names[i].label, c.requests[i]);
    }
    line(vty, forwarded_label, c.forwarded);
    for (std::size_t i = 0; i < DHCPR_REP_COUNT; ++i) {
        line(vty, rep_names[i].label, c.replies[i]);
    }
    line(vty, delivered_label, c.delivered);
    for (std::size_t i = 0; i < DHCPR_DROP_COUNT; ++i) {
        if (c.dropped[i] != 0) {
            line(vty, drop_names[i].label, c.dropped[i]);
        }
    }
}

int unknown_interface(vty *vty, const char *name) {
    vty_out(vty, "%% Interface %s is not found!%s", name, VTY_NEWLINE);
    return CMD_WARNING;
}

#define STATS_HELP "Dhcp relay statistics\n"
#define IFNAME_HELP "Interface\nInterface name\n"

DEFUN(show_dhcpr_statistics, show_dhcpr_statistics_cmd, "show dhcp-relay statistics",
      SHOW_STR "dhcp-relay configurations\n" STATS_HELP) {
    return dhcpr_show_statistics(vty, argc > 0 ? argv[0] : nullptr);
}

ALIAS(show_dhcpr_statistics, show_dhcpr_statistics_if_cmd,
      "show dhcp-relay statistics interface IFNAME",
      SHOW_STR "dhcp-relay configurations\n" STATS_HELP IFNAME_HELP)

DEFUN(clear_dhcpr_statistics, clear_dhcpr_statistics_cmd, "clear dhcp-relay statistics",
      "Reset functions\nConfigure dhcp-relay\n" STATS_HELP) {
    if (argc == 0) {
        dhcpr_stats_clear();
        return CMD_SUCCESS;
    }
    const interface *ifp = if_lookup_by_name(argv[0]);
    if (ifp == nullptr) {
        return unknown_interface(vty, argv[0]);
    }
    dhcpr_stats_clear_vlan(if_get_vid(ifp));
    return CMD_SUCCESS;
}

ALIAS(clear_dhcpr_statistics, clear_dhcpr_statistics_if_cmd,
      "clear dhcp-relay statistics interface IFNAME",
      "Reset functions\nConfigure dhcp-relay\n" STATS_HELP IFNAME_HELP)

}  // namespace

void dhcpr_stats_count(std::uint16_t vlan, bool reply, int type, dhcpr_outcome outcome) {
    dhcpr_if_counters &c = slot(vlan);
    if (reply) {
        ++c.replies[rep_index(type)];
    } else {
        ++c.requests[req_index(type)];
    }
    switch (outcome) {
        case dhcpr_outcome::forwarded:
            ++c.forwarded;
            return;
        case dhcpr_outcome::delivered:
            ++c.delivered;
            return;
        case dhcpr_outcome::count:
            return;
        default:
            ++c.dropped[static_cast<std::size_t>(outcome) - DHCPR_FIRST_DROP];
            return;
    }
}

void dhcpr_stats_refused(dhcpr_refusal why) {
    if (why != dhcpr_refusal::count) {
        ++refusals[static_cast<std::size_t>(why)];
    }
}

dhcpr_if_counters dhcpr_stats_of(std::uint16_t vlan) {
    const auto &p = slots()[vlan % VLAN_SLOTS];
    return p ? *p : dhcpr_if_counters{};
}

const std::array<std::uint64_t, DHCPR_REFUSAL_COUNT> &dhcpr_stats_refusals() {
    return refusals;
}

bool dhcpr_stats_known(std::uint16_t vlan) {
    return slots()[vlan % VLAN_SLOTS] != nullptr;
}

void dhcpr_stats_clear() {
    for (auto &p : slots()) {
        p.reset();
    }
    refusals = {};
}

void dhcpr_stats_clear_vlan(std::uint16_t vlan) {
    auto &p = slots()[vlan % VLAN_SLOTS];
    if (p) {
        *p = dhcpr_if_counters{};
    }
}

bool dhcpr_stats_shown(const interface *ifp) {
    if (ifp == nullptr) {
        return false;
    }
    return dhcpr_if_record(ifp) != nullptr || dhcpr_stats_known(if_get_vid(ifp));
}

std::string_view dhcpr_req_label(std::size_t i) {
    return counter_label(req_names, i);
}
std::string_view dhcpr_req_name(std::size_t i) {
    return counter_key(req_names, i);
}
std::string_view dhcpr_rep_label(std::size_t i) {
    return counter_label(rep_names, i);
}
std::string_view dhcpr_rep_name(std::size_t i) {
    return counter_key(rep_names, i);
}
std::string_view dhcpr_drop_label(std::size_t i) {
    return counter_label(drop_names, i);
}
std::string_view dhcpr_drop_name(std::size_t i) {
    return counter_key(drop_names, i);
}
std::string_view dhcpr_refusal_label(std::size_t i) {
    return counter_label(refusal_names, i);
}
std::string_view dhcpr_refusal_name(std::size_t i) {
    return counter_key(refusal_names, i);
}

int dhcpr_show_statistics(vty *vty, const char *ifname) {
    if (ifname != nullptr) {
        const interface *ifp = if_lookup_by_name(ifname);
        if (ifp == nullptr) {
            return unknown_interface(vty, ifname);
        }
        show_block(vty, *ifp);
        return CMD_SUCCESS;
    }
    for (const interface *ifp : vrf_iflist(VRF_DEFAULT)) {
        if (dhcpr_stats_shown(ifp)) {
            show_block(vty, *ifp);
        }
    }
    vty_out(vty, "Channel%s", VTY_NEWLINE);
    for (std::size_t i = 0; i < DHCPR_REFUSAL_COUNT; ++i) {
        line(vty, refusal_names[i].label, refusals[i]);
    }
    return CMD_SUCCESS;
}

void dhcpr_stats_vty_init() {
    for (int node : {CONFIG_NODE, ENABLE_NODE}) {
        install_element(node, &show_dhcpr_statistics_cmd);
        install_element(node, &show_dhcpr_statistics_if_cmd);
        install_element(node, &clear_dhcpr_statistics_cmd);
        install_element(node, &clear_dhcpr_statistics_if_cmd);
    }
}
