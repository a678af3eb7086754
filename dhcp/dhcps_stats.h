// The server's counters: what came in, what went out and why a request got
// nothing, since start-up or the last clear, and each pool's usage.
//
// Contract:
// - Every request the server reads ends in exactly one outcome (a reply of
//   one type, a lease change without reply, or one drop reason); request
//   handling reports it once through dhcps_stats_count(), and that is the
//   only place the counters move. Log lines are not this module's business.
// - Counters are 64-bit and live for the process: configuration changes
//   (pools added, removed or changed, the server turned off and on) leave
//   them alone; only dhcps_stats_clear() zeroes them. Nothing of them is
//   written to the configuration.
// - Pool gauges are computed when asked, from the pool and the lease table.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

struct dhcps_pool;
struct vty;

// Received, by the request's message type (option 53).
enum class dhcps_rx : std::uint8_t { discover, request, decline, release, inform, other, count };
// Sent, by reply.
enum class dhcps_tx : std::uint8_t { offer, ack, nak, inform_reply, count };

// The end of one request.
enum class dhcps_outcome : std::uint8_t {
    // A reply was sent.
    offer_sent,
    ack_sent,
    nak_sent,
    inform_sent,
    // Taken without a reply.
    declined,
    released,
    // Dropped, one value per reason (in display order).
    bad_hlen,                // hardware address length not 6
    not_request,             // op is not BOOTREQUEST
    no_interface,            // no interface owns the receiving address
    option82_invalid,        // option 82 could not be parsed
    circuit_id_not_allowed,  // a pool fits, but not the circuit id
    no_pool,                 // no enabled pool for the network
    no_subnet_mask,          // the pool has no subnet mask
    server_id_mismatch,      // option 54 names another server
    bad_message_type,        // option 53 absent, 0 or above 8
    wrong_message_type,      // a server's message (OFFER, ACK, NAK)
    no_requested_address,    // REQUEST without option 50 and ciaddr
    unknown_client,          // REQUEST without 50 and 54 for no lease of ours
    no_free_address,         // nothing left to offer
    lease_table_full,        // the offer's lease could not be recorded
    decline_ignored,         // DECLINE not for the client's lease
    release_ignored,         // RELEASE not for the client's lease
    count
};

constexpr std::size_t DHCPS_RX_COUNT = static_cast<std::size_t>(dhcps_rx::count);
constexpr std::size_t DHCPS_TX_COUNT = static_cast<std::size_t>(dhcps_tx::count);
constexpr std::size_t DHCPS_FIRST_DROP = static_cast<std::size_t>(dhcps_outcome::bad_hlen);
constexpr std::size_t DHCPS_DROP_COUNT =
    static_cast<std::size_t>(dhcps_outcome::count) - DHCPS_FIRST_DROP;

struct dhcps_counters {
    std::array<std::uint64_t, DHCPS_RX_COUNT> received{};
    std::array<std::uint64_t, DHCPS_TX_COUNT> sent{};
    std::array<std::uint64_t, DHCPS_DROP_COUNT> dropped{};
};

// One pool's usage as it stands.
struct dhcps_pool_usage {
    std::uint64_t range = 0;     // addresses from begin-ip to end-ip
    std::uint64_t leased = 0;    // committed, not expired
    std::uint64_t offered = 0;   // uncommitted for a client, not expired
    std::uint64_t reserved = 0;  // held after a conflict or a decline
    std::uint64_t statics = 0;   // static bindings
};

// The message type of a request as counted: option 53's value, 0 when absent.
dhcps_rx dhcps_rx_of(int type);
// The one counting point: `type` is option 53's value (0 when absent).
void dhcps_stats_count(int type, dhcps_outcome outcome);
// Whether the outcome is a drop, and its index in dhcps_counters::dropped.
constexpr bool dhcps_is_drop(dhcps_outcome o) {
    return static_cast<std::size_t>(o) >= DHCPS_FIRST_DROP && o != dhcps_outcome::count;
}
constexpr std::size_t dhcps_drop_index(dhcps_outcome o) {
    return static_cast<std::size_t>(o) - DHCPS_FIRST_DROP;
}

const dhcps_counters &dhcps_stats();
void dhcps_stats_clear();
dhcps_pool_usage dhcps_pool_usage_of(const dhcps_pool &pool);

// Names: display labels and snake_case names (JSON, metrics).
std::string_view dhcps_rx_label(std::size_t i);
std::string_view dhcps_rx_name(std::size_t i);
std::string_view dhcps_tx_label(std::size_t i);
std::string_view dhcps_tx_name(std::size_t i);
std::string_view dhcps_drop_label(std::size_t i);
std::string_view dhcps_drop_name(std::size_t i);

// "show dhcp-server statistics".
int dhcps_show_statistics(vty *vty);
// Installs "show dhcp-server statistics" and "clear dhcp-server statistics".
void dhcps_stats_vty_init();
