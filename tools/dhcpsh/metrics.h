// dhcpsh --metrics: the daemon's counters in the Prometheus text exposition
// format (version 0.0.4), for node_exporter's textfile collector.
//
// Input: the replies of the JSON requests "dhcps_statistics_get" and
// "dhcpr_statistics_get" ({"data":[{"name":...,"value":N}, ...]}). Every
// family is written with its HELP and TYPE lines, also when it has no
// sample; counters are named dhcpd_..._total and labelled with `type`,
// `reason`, `pool` and `interface`; pool usage is a set of gauges. Objects
// whose name is not known here are skipped, so a daemon that counts more
// still renders.
#pragma once

#include <iosfwd>
#include <string>
#include <string_view>

#include "tools/dhcpsh/result.h"

namespace dhcpsh {

// The exposition text, or why a reply could not be read (not JSON, no
// "data" array, an error reply).
Result<std::string, std::string> render_metrics(std::string_view server_reply,
                                                std::string_view relay_reply);

// --metrics: asks the JSON socket at `path` for both statistics and prints
// the exposition text. 0, or 2 after "dhcpsh: REASON" on `err` (no daemon,
// a reply that is not a counter list).
int run_metrics(const std::string &path, std::ostream &out, std::ostream &err);

}  // namespace dhcpsh
