// Renders the counters' JSON replies as Prometheus text.
#include "tools/dhcpsh/metrics.h"

#include <cjson/cJSON.h>

#include <array>
#include <cinttypes>
#include <cstdio>
#include <memory>
#include <ostream>
#include <utility>
#include <vector>

#include "tools/dhcpsh/jsonclient.h"

namespace dhcpsh {

namespace {

// Where a reply object goes: which family, and which label the rest of its
// name fills ("type" or "reason"; empty for none).
struct family {
    const char *metric;
    const char *type;  // "counter" or "gauge"
    const char *help;
    std::string_view source;  // JSON name, or its prefix when `label` is set
    const char *label;        // label taken from the rest of the name, or null
};

constexpr std::array<family, 14> families = {{
    {"dhcpd_server_received_total", "counter", "Requests the server received, by message type.",
     "received_", "type"},
    {"dhcpd_server_sent_total", "counter", "Replies the server sent, by message type.", "sent_",
     "type"},
    {"dhcpd_server_dropped_total", "counter", "Requests the server dropped, by reason.", "dropped_",
     "reason"},
    {"dhcpd_server_pool_addresses", "gauge", "Addresses in the pool's range.", "pool_range",
     nullptr},
    {"dhcpd_server_pool_leased", "gauge", "Committed leases of the pool.", "pool_leased", nullptr},
    {"dhcpd_server_pool_offered", "gauge", "Addresses of the pool held for an offer.",
     "pool_offered", nullptr},
    {"dhcpd_server_pool_reserved", "gauge", "Addresses of the pool reserved after a conflict.",
     "pool_reserved", nullptr},
    {"dhcpd_server_pool_static_bindings", "gauge", "Static bindings of the pool.", "pool_static",
     nullptr},
    {"dhcpd_relay_requests_received_total", "counter",
     "Requests the relay received, by interface and message type.", "requests_received_", "type"},
    {"dhcpd_relay_requests_forwarded_total", "counter",
     "Requests the relay forwarded to the server, by interface.", "requests_forwarded", nullptr},
    {"dhcpd_relay_replies_received_total", "counter",
     "Replies the relay received, by interface and message type.", "replies_received_", "type"},
    {"dhcpd_relay_replies_delivered_total", "counter",
     "Replies the relay delivered to clients, by interface.", "replies_delivered", nullptr},
    {"dhcpd_relay_dropped_total", "counter", "Messages the relay dropped, by interface and reason.",
     "dropped_", "reason"},
    {"dhcpd_relay_channel_refused_total", "counter",
     "Trapped frames the relay's channel refused, by reason.", "refused_", "reason"},
}};

// Families of each reply: the server's first, the relay's after them.
constexpr std::size_t SERVER_FIRST = 0, SERVER_END = 8, RELAY_FIRST = 8,
                      RELAY_END = families.size();

using json_ptr = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

std::string escape(std::string_view v) {
    std::string out;
    for (char c : v) {
        if (c == '\\' || c == '"') {
            out += '\\';
            out += c;
        } else if (c == '\n') {
            out += "\\n";
        } else {
            out += c;
        }
    }
    return out;
}

// The family index and label value for a name, or false.
bool classify(std::string_view name, std::size_t first, std::size_t end, std::size_t *index,
              std::string_view *rest) {
    for (std::size_t i = first; i < end; ++i) {
        const family &f = families[i];
        if (f.label == nullptr ? name == f.source
                               : (name.size() > f.source.size() && name.starts_with(f.source))) {
            *index = i;
            *rest = name.substr(f.label == nullptr ? name.size() : f.source.size());
            return true;
        }
    }
    return false;
}

std::string sample(const family &f, const cJSON *obj, std::string_view rest, double value) {
    std::vector<std::pair<std::string, std::string>> labels;
    for (const char *member : {"interface", "pool"}) {
        const cJSON *m = cJSON_GetObjectItem(obj, member);
        if (cJSON_IsString(m)) {
            labels.emplace_back(member, escape(m->valuestring));
        }
    }
    if (f.label != nullptr) {
        labels.emplace_back(f.label, escape(rest));
    }
    std::string line = f.metric;
    if (!labels.empty()) {
        line += '{';
        for (std::size_t i = 0; i < labels.size(); ++i) {
            line += (i == 0 ? "" : ",") + labels[i].first + "=\"" + labels[i].second + "\"";
        }
        line += '}';
    }
    char num[32];
    std::snprintf(num, sizeof num, " %.0f\n", value);
    return line + num;
}

// Sorts the objects of one reply into the families' sample lists.
Result<bool, std::string> collect(std::string_view reply, std::size_t first, std::size_t end,
                                  std::vector<std::string> &samples) {
    json_ptr root(cJSON_ParseWithLength(reply.data(), reply.size()), cJSON_Delete);
    const cJSON *data = root ? cJSON_GetObjectItem(root.get(), "data") : nullptr;
    if (!cJSON_IsArray(data)) {
        return Failure{std::string("unexpected reply: ") + std::string(reply.substr(0, 80))};
    }
    const cJSON *obj = nullptr;
    cJSON_ArrayForEach(obj, data) {
        const cJSON *name = cJSON_GetObjectItem(obj, "name");
        const cJSON *value = cJSON_GetObjectItem(obj, "value");
        std::size_t index = 0;
        std::string_view rest;
        if (!cJSON_IsString(name) || !cJSON_IsNumber(value) ||
            !classify(name->valuestring, first, end, &index, &rest)) {
            continue;
        }
        samples[index] += sample(families[index], obj, rest, value->valuedouble);
    }
    return true;
}

}  // namespace

Result<std::string, std::string> render_metrics(std::string_view server_reply,
                                                std::string_view relay_reply) {
    std::vector<std::string> samples(families.size());
    if (auto r = collect(server_reply, SERVER_FIRST, SERVER_END, samples); !r) {
        return Failure{r.error()};
    }
    if (auto r = collect(relay_reply, RELAY_FIRST, RELAY_END, samples); !r) {
        return Failure{r.error()};
    }
    std::string out;
    for (std::size_t i = 0; i < RELAY_END; ++i) {
        const family &f = families[i];
        out += std::string("# HELP ") + f.metric + " " + f.help + "\n";
        out += std::string("# TYPE ") + f.metric + " " + f.type + "\n";
        out += samples[i];
    }
    return out;
}

int run_metrics(const std::string &path, std::ostream &out, std::ostream &err) {
    std::string replies[2];
    const char *requests[2] = {"{\"cmd\":\"dhcps_statistics_get\"}",
                               "{\"cmd\":\"dhcpr_statistics_get\"}"};
    for (int i = 0; i < 2; ++i) {
        auto reply = json_request(path, requests[i]);
        if (!reply) {
            err << "dhcpsh: " << reply.error().message << '\n';
            return 2;
        }
        replies[i] = std::move(*reply);
    }
    auto text = render_metrics(replies[0], replies[1]);
    if (!text) {
        err << "dhcpsh: " << text.error() << '\n';
        return 2;
    }
    out << *text;
    return 0;
}

}  // namespace dhcpsh
