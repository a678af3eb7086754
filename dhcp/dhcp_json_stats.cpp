// The counters' JSON requests.
#include "dhcp/dhcp_json_stats.h"

#include <cjson/cJSON.h>

#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "dhcp/dhcpr_stats.h"
#include "dhcp/dhcps_pool.h"
#include "dhcp/dhcps_stats.h"
#include "lib/if.h"
#include "platform/jserver.h"
#include "platform/uif.h"

namespace {

constexpr char TOO_LONG[] = "{\"error\":\"reply too long\"}";
constexpr char NO_INTERFACE[] = "{result: 17}";

// Writes the {"data":[...]} reply into the response buffer, bounded by its
// size; once something does not fit, everything after it is refused.
class reply_writer {
  public:
    explicit reply_writer(char *out) : out_(out) { put("{\"data\":["); }

    // One counter object; `where` is "pool" or "interface" (or null).
    void counter(std::string_view prefix, std::string_view name, const char *where,
                 const char *whose, std::uint64_t value) {
        put(first_ ? "{" : ", {");
        first_ = false;
        put("\"name\":\"%.*s%.*s\"", static_cast<int>(prefix.size()), prefix.data(),
            static_cast<int>(name.size()), name.data());
        if (where != nullptr) {
            put(",\"%s\":\"%s\"", where, whose);
        }
        put(",\"value\":%" PRIu64 "}", value);
    }

    int finish() {
        put("]}");
        if (overflow_) {
            std::memcpy(out_, TOO_LONG, sizeof TOO_LONG);
            return static_cast<int>(sizeof TOO_LONG - 1);
        }
        return static_cast<int>(len_);
    }

  private:
    __attribute__((format(printf, 2, 3))) void put(const char *fmt, ...) {
        if (overflow_) {
            return;
        }
        va_list ap;
        va_start(ap, fmt);
        const int n = std::vsnprintf(out_ + len_, DHCP_JSON_STATS_REPLY_MAX - len_, fmt, ap);
        va_end(ap);
        if (n < 0 || static_cast<std::size_t>(n) >= DHCP_JSON_STATS_REPLY_MAX - len_) {
            overflow_ = true;
            return;
        }
        len_ += static_cast<std::size_t>(n);
    }

    char *out_;
    std::size_t len_ = 0;
    bool first_ = true;
    bool overflow_ = false;
};

int dhcps_get(cJSON *, char *response) {
    reply_writer w(response);
    const dhcps_counters &c = dhcps_stats();
    for (std::size_t i = 0; i < DHCPS_RX_COUNT; ++i) {
        w.counter("received_", dhcps_rx_name(i), nullptr, nullptr, c.received[i]);
    }
    for (std::size_t i = 0; i < DHCPS_TX_COUNT; ++i) {
        w.counter("sent_", dhcps_tx_name(i), nullptr, nullptr, c.sent[i]);
    }
    for (std::size_t i = 0; i < DHCPS_DROP_COUNT; ++i) {
        if (c.dropped[i] != 0) {
            w.counter("dropped_", dhcps_drop_name(i), nullptr, nullptr, c.dropped[i]);
        }
    }
    for (const auto &pool : dhcps_pool_list()) {
        const dhcps_pool_usage u = dhcps_pool_usage_of(*pool);
        w.counter("pool_", "range", "pool", pool->name, u.range);
        w.counter("pool_", "leased", "pool", pool->name, u.leased);
        w.counter("pool_", "offered", "pool", pool->name, u.offered);
        w.counter("pool_", "reserved", "pool", pool->name, u.reserved);
        w.counter("pool_", "static", "pool", pool->name, u.statics);
    }
    return w.finish();
}

void relay_block(reply_writer &w, const interface &ifp) {
    const dhcpr_if_counters c = dhcpr_stats_of(if_get_vid(&ifp));
    for (std::size_t i = 0; i < DHCPR_REQ_COUNT; ++i) {
        w.counter("requests_received_", dhcpr_req_name(i), "interface", ifp.name, c.requests[i]);
    }
    w.counter("requests_", "forwarded", "interface", ifp.name, c.forwarded);
    for (std::size_t i = 0; i < DHCPR_REP_COUNT; ++i) {
        w.counter("replies_received_", dhcpr_rep_name(i), "interface", ifp.name, c.replies[i]);
    }
    w.counter("replies_", "delivered", "interface", ifp.name, c.delivered);
    for (std::size_t i = 0; i < DHCPR_DROP_COUNT; ++i) {
        if (c.dropped[i] != 0) {
            w.counter("dropped_", dhcpr_drop_name(i), "interface", ifp.name, c.dropped[i]);
        }
    }
}

// The "interface" member of the first object of `array` (null without).
const char *interface_member(cJSON *root, const char *array) {
    const cJSON *items = cJSON_GetObjectItem(root, array);
    const cJSON *first = cJSON_IsArray(items) ? cJSON_GetArrayItem(items, 0) : nullptr;
    const cJSON *name = first != nullptr ? cJSON_GetObjectItem(first, "interface") : nullptr;
    return cJSON_IsString(name) ? name->valuestring : nullptr;
}

int dhcpr_get(cJSON *root, char *response) {
    if (const char *name = interface_member(root, "data")) {
        const interface *ifp = if_lookup_by_name(name);
        if (ifp == nullptr) {
            std::memcpy(response, NO_INTERFACE, sizeof NO_INTERFACE);
            return static_cast<int>(sizeof NO_INTERFACE - 1);
        }
        reply_writer w(response);
        relay_block(w, *ifp);
        return w.finish();
    }
    reply_writer w(response);
    for (const interface *ifp : vrf_iflist(VRF_DEFAULT)) {
        if (dhcpr_stats_shown(ifp)) {
            relay_block(w, *ifp);
        }
    }
    const auto &refused = dhcpr_stats_refusals();
    for (std::size_t i = 0; i < DHCPR_REFUSAL_COUNT; ++i) {
        w.counter("refused_", dhcpr_refusal_name(i), nullptr, nullptr, refused[i]);
    }
    return w.finish();
}

int dhcps_clear(cJSON *, char *) {
    dhcps_stats_clear();
    return 0;
}

// Every "config" item with "interface" clears that interface; none clears
// everything. An unknown interface stops the walk with {result: 17}.
int dhcpr_clear(cJSON *root, char *response) {
    const cJSON *config = cJSON_GetObjectItem(root, "config");
    const cJSON *items = cJSON_IsArray(config) ? config : nullptr;
    bool any = false;
    const cJSON *item = nullptr;
    cJSON_ArrayForEach(item, items) {
        const cJSON *name = cJSON_GetObjectItem(item, "interface");
        if (!cJSON_IsString(name)) {
            continue;
        }
        any = true;
        const interface *ifp = if_lookup_by_name(name->valuestring);
        if (ifp == nullptr) {
            std::memcpy(response, NO_INTERFACE, sizeof NO_INTERFACE);
            return static_cast<int>(sizeof NO_INTERFACE - 1);
        }
        dhcpr_stats_clear_vlan(if_get_vid(ifp));
    }
    if (!any) {
        dhcpr_stats_clear();
    }
    return 0;
}

}  // namespace

void dhcp_json_stats_register() {
    jserver_cmd_add("dhcps_statistics_get", dhcps_get);
    jserver_cmd_add("dhcpr_statistics_get", dhcpr_get);
    jserver_cmd_add("dhcps_statistics_clear", dhcps_clear);
    jserver_cmd_add("dhcpr_statistics_clear", dhcpr_clear);
}
