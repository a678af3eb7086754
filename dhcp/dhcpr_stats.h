// The relay's counters: per relay interface, requests and replies by type,
// what was forwarded and delivered, and why a message went no further; and
// the frames the trapped-frame channel refused.
//
// Contract:
// - Every trapped request and reply ends in exactly one outcome (forwarded,
//   delivered, or one drop reason); the request and reply paths report it
//   once, through dhcpr_stats_count(), the only place these counters move.
//   The channel reports each refused frame once through
//   dhcpr_stats_refused().
// - Counters are kept per VLAN: a request counts on the VLAN it came in on,
//   a reply on the VLAN of the client interface of its transaction (on the
//   VLAN it came in on when it has none); interfaces that are not vlanifN
//   share VLAN 0. They are 64-bit, live for the process and survive
//   configuration changes (a remote server removed and set again, the relay
//   turned off and on); only the clear functions zero them. Nothing of them
//   is written to the configuration.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

struct interface;
struct vty;

// Requests received, by message type; replies received, by message type.
enum class dhcpr_req : std::uint8_t { discover, request, decline, release, inform, other, count };
enum class dhcpr_rep : std::uint8_t { offer, ack, nak, other, count };

enum class dhcpr_outcome : std::uint8_t {
    forwarded,  // a request sent to the server
    delivered,  // a reply sent to the client
    // Dropped, one value per reason (in display order).
    hops_exceeded,        // request: hops 9 or more
    no_relay_address,     // request: no address on the ingress VLAN
    no_relay_record,      // no relay record for the relay's address
    relay_not_enabled,    // the relay record is not enabled
    option82_present,     // request: option 82 present with strategy drop
    wrong_request_type,   // request: not DISCOVER, REQUEST, DECLINE, RELEASE, INFORM
    no_client_interface,  // no client interface to remember or deliver to
    send_failed,          // request: the server send fell short
    untrusted_port,       // reply: from an untrusted port with snooping on
    no_transaction,       // reply: no request with its xid
    wrong_reply_type,     // reply: not OFFER, ACK or NAK
    no_server_id,         // reply: no server identifier
    count
};

// Frames the channel refused before any path saw them.
enum class dhcpr_refusal : std::uint8_t { wrong_type, not_udp, wrong_port, bad_length, count };

constexpr std::size_t DHCPR_REQ_COUNT = static_cast<std::size_t>(dhcpr_req::count);
constexpr std::size_t DHCPR_REP_COUNT = static_cast<std::size_t>(dhcpr_rep::count);
constexpr std::size_t DHCPR_FIRST_DROP = static_cast<std::size_t>(dhcpr_outcome::hops_exceeded);
constexpr std::size_t DHCPR_DROP_COUNT =
    static_cast<std::size_t>(dhcpr_outcome::count) - DHCPR_FIRST_DROP;
constexpr std::size_t DHCPR_REFUSAL_COUNT = static_cast<std::size_t>(dhcpr_refusal::count);

struct dhcpr_if_counters {
    std::array<std::uint64_t, DHCPR_REQ_COUNT> requests{};
    std::uint64_t forwarded = 0;
    std::array<std::uint64_t, DHCPR_REP_COUNT> replies{};
    std::uint64_t delivered = 0;
    std::array<std::uint64_t, DHCPR_DROP_COUNT> dropped{};
};

// The one counting point of both paths. `reply` says which path; `type` is
// the message's type (option 53, -1 when it has none).
void dhcpr_stats_count(std::uint16_t vlan, bool reply, int type, dhcpr_outcome outcome);
void dhcpr_stats_refused(dhcpr_refusal why);

// The counters of VLAN `vlan` (all zero when nothing was counted there).
dhcpr_if_counters dhcpr_stats_of(std::uint16_t vlan);
const std::array<std::uint64_t, DHCPR_REFUSAL_COUNT> &dhcpr_stats_refusals();
// Whether anything was ever counted on `vlan` since the last clear.
bool dhcpr_stats_known(std::uint16_t vlan);
// Clear everything (the channel's refusals included), or one VLAN only.
void dhcpr_stats_clear();
void dhcpr_stats_clear_vlan(std::uint16_t vlan);

// Whether the display lists `ifp` (walked in interface-table order): it has
// a relay binding, or counters.
bool dhcpr_stats_shown(const interface *ifp);

std::string_view dhcpr_req_label(std::size_t i);
std::string_view dhcpr_req_name(std::size_t i);
std::string_view dhcpr_rep_label(std::size_t i);
std::string_view dhcpr_rep_name(std::size_t i);
std::string_view dhcpr_drop_label(std::size_t i);
std::string_view dhcpr_drop_name(std::size_t i);
std::string_view dhcpr_refusal_label(std::size_t i);
std::string_view dhcpr_refusal_name(std::size_t i);

// "show dhcp-relay statistics [interface IFNAME]": `ifname` null for all.
// CMD_SUCCESS, or CMD_WARNING with a message for an unknown interface.
int dhcpr_show_statistics(vty *vty, const char *ifname);
// Installs the show and clear commands.
void dhcpr_stats_vty_init();
