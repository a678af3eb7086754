// The JSON requests of the server's and the relay's counters.
//
//   "dhcps_statistics_get", "dhcpr_statistics_get" (reading): {"data":[...]}
//     with one object per counter, {"name":"...","value":N}, names in
//     snake_case; pool gauges carry "pool", relay counters "interface".
//     Drop reasons appear only when not 0, as in the CLI displays. The relay
//     request takes an optional {"data":[{"interface":"IFNAME"}]} to ask for
//     one interface (no channel counters then); an interface that does not
//     exist gets {result: 17}, as the relay's changing requests do. A reply
//     that would not fit the response buffer is {"error":"reply too long"}.
//   "dhcps_statistics_clear", "dhcpr_statistics_clear" (changing): clear the
//     counters (the relay's: all, or those of {"config":[{"interface":...}]}
//     items; an unknown interface stops there with {result: 17}); no reply
//     on success. Counters are not configuration: nothing is saved.
//
// Names: server "received_<type>", "sent_<type>", "dropped_<reason>",
// "pool_<gauge>"; relay "requests_received_<type>", "requests_forwarded",
// "replies_received_<type>", "replies_delivered", "dropped_<reason>",
// "refused_<reason>" (channel).
#pragma once

#include <cstddef>

// The response buffer's size the handlers write within (dhcp_json's).
constexpr std::size_t DHCP_JSON_STATS_REPLY_MAX = 64 * 1024;

// Registers the four requests with the dispatcher.
void dhcp_json_stats_register();
