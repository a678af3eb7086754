#include "dhcp/dhcp_json.h"

#include <arpa/inet.h>
#include <cjson/cJSON.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "dhcp/dhcp_json_stats.h"
#include "dhcp/dhcp_options.h"
#include "dhcp/dhcpr.h"
#include "dhcp/dhcpr_vty.h"
#include "dhcp/dhcps_leases.h"
#include "dhcp/dhcps_pool.h"
#include "dhcp/dhcps_vty.h"
#include "lib/command.h"
#include "lib/if.h"
#include "lib/log.h"
#include "lib/prefix.h"
#include "lib/sockunion.h"
#include "platform/clock.h"
#include "platform/config_save.h"
#include "platform/jserver.h"
#include "platform/uif.h"

namespace {

// ---- the response buffer and its size ----
//
// Sized for the largest reply any request can make, so no reply the limits
// allow is ever cut: a page of every lease the table may hold (the largest
// max-lease-num) with the longest host names, every pool, every static
// binding. Every append is bounded all the same: lists no constant bounds
// (switch ports, interfaces, port bindings) are cut at an object's end and
// still closed, which only a machine with thousands of them would see.

template <std::size_t N>
constexpr std::size_t lit(const char (&)[N]) {
    return N - 1;
}

constexpr std::size_t IPV4_TEXT_MAX = lit("255.255.255.255");
constexpr std::size_t PREFIX_TEXT_MAX = IPV4_TEXT_MAX + lit("/32");
constexpr std::size_t MAC_TEXT_LEN = lit("00-00-00-00-00-00");
// Lease times and remaining times: below 2^32 seconds.
constexpr std::size_t U32_TEXT_MAX = lit("4294967295");
constexpr std::size_t INT_TEXT_MAX = lit("-2147483648");
constexpr std::size_t POOL_NAME_MAX = DHCPS_POOL_NAME_LEN - 1;
constexpr std::size_t HOSTNAME_MAX = sizeof(dhcps_lease::hostname);
constexpr std::size_t SEPARATOR_LEN = lit(", ");
constexpr std::size_t CLOSE_LEN = lit("]}");

constexpr std::size_t LEASE_OBJECT_MAX =
    lit("{\"lease_ip\":\"\"") + IPV4_TEXT_MAX + lit(",\"lease_mac\":\"\"") + MAC_TEXT_LEN +
    lit(",\"lease_hostname\":\"\"") + HOSTNAME_MAX + lit(",\"lease_time\":\"\"") + U32_TEXT_MAX +
    lit(",\"lease_expires\":\"\"") + U32_TEXT_MAX + lit("}");
constexpr std::size_t POOL_OBJECT_MAX =
    lit("{\"pool_name\" :\"\"") + POOL_NAME_MAX + lit(",\"network\":\"\"") + PREFIX_TEXT_MAX +
    lit(",\"begin_ip\":\"\"") + IPV4_TEXT_MAX + lit(",\"end_ip\":\"\"") + IPV4_TEXT_MAX +
    lit(",\"lease_time\":") + U32_TEXT_MAX + lit(",\"default_router\":\"\"") + IPV4_TEXT_MAX +
    lit(",\"dns_server1\":\"\"") + IPV4_TEXT_MAX + lit(",\"dns_server2\":\"\"") + IPV4_TEXT_MAX +
    lit(",\"domain_name\":\"\"") + IPV4_TEXT_MAX + lit(",\"netbios_server\":\"\"") + IPV4_TEXT_MAX +
    lit("}");
constexpr std::size_t STATIC_OBJECT_MAX = lit("{\"pool_name\" :\"\"") + POOL_NAME_MAX +
                                          lit(",\"bind_ip\":\"\"") + IPV4_TEXT_MAX +
                                          lit(",\"bind_mac\":\"\"") + MAC_TEXT_LEN + lit("}");

constexpr std::size_t list_size(std::size_t head, std::size_t count, std::size_t object) {
    return head + count * (object + SEPARATOR_LEN) + CLOSE_LEN;
}

constexpr std::size_t DATA_HEAD_LEN = lit("{\"data\":[");
constexpr std::size_t LEASE_PAGE_MAX =
    list_size(lit("{\"total\":") + INT_TEXT_MAX + lit(",\"data\":["), DHCPS_MAX_LEASE_NUM_MAX,
              LEASE_OBJECT_MAX);
constexpr std::size_t POOL_LIST_MAX = list_size(DATA_HEAD_LEN, DHCPS_POOL_MAX, POOL_OBJECT_MAX);
// The static count is kept over all pools, so this bounds every pool's list.
constexpr std::size_t STATIC_LIST_MAX =
    list_size(DATA_HEAD_LEN, DHCPS_STATIC_MAX, STATIC_OBJECT_MAX);
// Error replies of the dispatcher fit in 64 bytes.
constexpr std::size_t REPLY_MAX =
    std::max({LEASE_PAGE_MAX, POOL_LIST_MAX, STATIC_LIST_MAX, std::size_t{64}});
static_assert(REPLY_MAX >= LEASE_PAGE_MAX && REPLY_MAX >= POOL_LIST_MAX &&
              REPLY_MAX >= STATIC_LIST_MAX);
static_assert(REPLY_MAX <= 4u << 20, "the lease page should stay a few MiB");

// One response buffer shared by all requests: safe because requests run one
// at a time on the event loop. One byte more than the longest reply for the
// terminator the formatting leaves behind it.
std::array<char, REPLY_MAX + 1> response;

// ---- bounded reply writing ----

// Appends to the response buffer; nothing is ever written past its end.
// A list's closing "]}" is held back from the start, so a list that runs
// out of room is cut after its last whole object and still closed.
class reply_writer {
  public:
    // Only our own buffer has a known size: handed any other, nothing is
    // written.
    explicit reply_writer(char *buf)
        : buf_(buf), cap_(buf == response.data() ? response.size() : 0) {}

    // Appends the formatted text whole, or nothing (false) when it does not
    // fit.
    [[gnu::format(printf, 2, 3)]] bool add(const char *format, ...) {
        va_list args;
        va_start(args, format);
        const bool ok = vadd(format, args);
        va_end(args);
        return ok;
    }

    // "{" head "[" is written by the caller with add(); objects follow.
    void open_list() { held_ = CLOSE_LEN; }

    // One object of a list, with ", " before all but the first. Once an
    // object did not fit, later ones are left out too.
    [[gnu::format(printf, 2, 3)]] void object(const char *format, ...) {
        if (cut_) {
            return;
        }
        const std::size_t mark = len_;
        if (objects_ > 0 && !add(", ")) {
            cut_ = true;
            return;
        }
        va_list args;
        va_start(args, format);
        const bool ok = vadd(format, args);
        va_end(args);
        if (!ok) {
            len_ = mark;
            cut_ = true;
            zlog_warn("JSON reply cut after %zu objects: buffer full", objects_);
            return;
        }
        ++objects_;
    }

    int close_list() {
        held_ = 0;
        add("]}");
        return length();
    }

    int length() const { return static_cast<int>(len_); }

  private:
    bool vadd(const char *format, va_list args) {
        if (len_ + held_ >= cap_) {
            return false;
        }
        const std::size_t room = cap_ - len_ - held_;
        const int n = std::vsnprintf(buf_ + len_, room, format, args);
        if (n < 0 || static_cast<std::size_t>(n) >= room) {
            return false;
        }
        len_ += static_cast<std::size_t>(n);
        return true;
    }

    char *buf_;
    std::size_t cap_;
    std::size_t len_ = 0;
    std::size_t held_ = 0;
    std::size_t objects_ = 0;
    bool cut_ = false;
};

// The handlers get the buffer the dispatcher was given, which is ours.
reply_writer list_reply(char *buf) {
    reply_writer w(buf);
    w.open_list();
    w.add("{\"data\":[");
    return w;
}

// The failure form: not valid JSON (the key is unquoted), which is what the
// front end parses. Kept so.
int result_reply(char *buf, int code) {
    reply_writer w(buf);
    w.add("{result: %d}", code);
    return w.length();
}

// ---- member texts ----

ipv4_text_buf addr_text(std::uint32_t nip) {
    return nip == 0 ? ipv4_text_buf{} : ipv4_text(nip);
}

struct mac_text {
    char buf[MAC_TEXT_LEN + 1] = {};
};

mac_text mac_of(const std::uint8_t *m) {
    mac_text t;
    std::snprintf(t.buf, sizeof t.buf, "%02x-%02x-%02x-%02x-%02x-%02x", m[0], m[1], m[2], m[3],
                  m[4], m[5]);
    return t;
}

bool non_empty(const char *text) {
    return text != nullptr && text[0] != '\0';
}

// The `index`-th address (0 or 1) of a pool option, 0 when absent.
std::uint32_t option_addr(const dhcps_pool &pool, std::uint8_t code, std::size_t index) {
    const option_set *o = dhcp_find_option(pool.options, code);
    if (o == nullptr) {
        return 0;
    }
    const auto v = o->value();
    if (v.size() < 4 * (index + 1)) {
        return 0;
    }
    std::uint32_t nip = 0;
    std::memcpy(&nip, v.data() + 4 * index, sizeof nip);
    return nip;
}

// ---- changing requests ----

using item_fn = int (*)(const cJSON *item);

// Carries out the "config" items in order; the first failing one stops the
// walk with its code, the ones before it stay. The configuration is saved
// whatever the outcome.
int walk_config(const cJSON *root, char *buf, item_fn fn) {
    const cJSON *config = cJSON_GetObjectItem(root, "config");
    int code = 0;
    const cJSON *item = nullptr;
    cJSON_ArrayForEach(item, config) {
        code = fn(item);
        if (code != 0) {
            break;
        }
    }
    config_save();
    return code == 0 ? 0 : result_reply(buf, code);
}

std::uint32_t lease_or_default(int seconds) {
    return seconds == 0 ? DHCPS_DEFAULT_LEASE_TIME : static_cast<std::uint32_t>(seconds);
}

// Steps range to NetBIOS server, shared by pool creation and pool change.
int pool_options(dhcps_pool *pool, const cJSON *item) {
    const char *begin = cJSON_GetObjectItemString(item, "begin_ip");
    const char *end = cJSON_GetObjectItemString(item, "end_ip");
    if (non_empty(begin) && non_empty(end) &&
        dhcps_pool_set_range(nullptr, pool, begin, end) != CMD_SUCCESS) {
        return 4;
    }
    // Unlimited (0) cannot be set from here: 0 means the default.
    if (dhcps_pool_set_lease(pool, lease_or_default(cJSON_GetObjectItemInt(item, "lease_time"))) !=
        0) {
        return 5;
    }
    const char *dns1 = cJSON_GetObjectItemString(item, "dns_server1");
    const char *dns2 = cJSON_GetObjectItemString(item, "dns_server2");
    if (non_empty(dns1)) {
        if (dhcps_pool_set_dns(nullptr, pool, dns1, dns2) != CMD_SUCCESS) {
            return 6;
        }
    } else if (non_empty(dns2)) {
        return 7;
    }
    const char *domain = cJSON_GetObjectItemString(item, "domain_name");
    if (non_empty(domain) && dhcps_pool_set_domain(nullptr, pool, domain) != CMD_SUCCESS) {
        return 8;
    }
    const char *netbios = cJSON_GetObjectItemString(item, "netbios_server");
    if (non_empty(netbios) && dhcps_pool_set_netbios(nullptr, pool, netbios) != CMD_SUCCESS) {
        return 9;
    }
    return 0;
}

int pool_add_steps(const cJSON *item) {
    dhcps_pool *pool = nullptr;
    if (dhcps_pool_enter(nullptr, cJSON_GetObjectItemString(item, "pool_name"), &pool) !=
        CMD_SUCCESS) {
        return 1;
    }
    if (dhcps_pool_set_router(nullptr, pool, cJSON_GetObjectItemString(item, "default_router")) !=
        CMD_SUCCESS) {
        return 2;
    }
    if (dhcps_pool_set_network(nullptr, pool, cJSON_GetObjectItemString(item, "network")) !=
        CMD_SUCCESS) {
        return 3;
    }
    return pool_options(pool, item);
}

// A pool without router or network is taken back, also one that existed
// before the request.
int pool_add_item(const cJSON *item) {
    const int code = pool_add_steps(item);
    if (code == 2 || code == 3) {
        if (dhcps_pool_remove(nullptr, cJSON_GetObjectItemString(item, "pool_name")) !=
            CMD_SUCCESS) {
            std::printf("%% dhcps_delete_a_pool fail!\n");
            std::fflush(stdout);
        }
    }
    return code;
}

int pool_delete_item(const cJSON *item) {
    return dhcps_pool_remove(nullptr, cJSON_GetObjectItemString(item, "pool_name")) == CMD_SUCCESS
               ? 0
               : 10;
}

dhcps_pool *item_pool(const cJSON *item) {
    return dhcps_lookup_by_name(cJSON_GetObjectItemString(item, "pool_name"));
}

int pool_config_item(const cJSON *item) {
    dhcps_pool *pool = item_pool(item);
    return pool == nullptr ? 11 : pool_options(pool, item);
}

int static_add_item(const cJSON *item) {
    dhcps_pool *pool = item_pool(item);
    if (pool == nullptr) {
        return 11;
    }
    switch (dhcps_pool_add_static(nullptr, pool, cJSON_GetObjectItemString(item, "bind_ip"),
                                  cJSON_GetObjectItemString(item, "bind_mac"))) {
        case CMD_SUCCESS:
            return 0;
        case CMD_ERR_LIMIT_REACHED:
            return 13;
        default:
            return 12;
    }
}

int static_delete_item(const cJSON *item) {
    dhcps_pool *pool = item_pool(item);
    if (pool == nullptr) {
        return 11;
    }
    return dhcps_pool_delete_static(nullptr, pool, cJSON_GetObjectItemString(item, "bind_ip")) ==
                   CMD_SUCCESS
               ? 0
               : 14;
}

int port_add_item(const cJSON *item) {
    dhcps_pool *pool = item_pool(item);
    if (pool == nullptr) {
        return 11;
    }
    return dhcps_pool_add_port_bind(nullptr, pool, cJSON_GetObjectItemString(item, "bind_port"),
                                    cJSON_GetObjectItemString(item, "bind_ip")) == CMD_SUCCESS
               ? 0
               : 15;
}

// "bind_ip" is not needed to find the binding.
int port_delete_item(const cJSON *item) {
    dhcps_pool *pool = item_pool(item);
    if (pool == nullptr) {
        return 11;
    }
    return dhcps_pool_delete_port_bind(nullptr, pool,
                                       cJSON_GetObjectItemString(item, "bind_port")) == CMD_SUCCESS
               ? 0
               : 16;
}

// A missing "enable" turns the server off, a missing "max_lease_num" (0)
// puts the default back.
int global_set_item(const cJSON *item) {
    dhcps_set_enable(cJSON_GetObjectItemInt(item, "enable") != 0 ? 1 : 0);
    dhcps_set_max_lease_num(
        static_cast<std::uint32_t>(cJSON_GetObjectItemInt(item, "max_lease_num")));
    return 0;
}

int relay_state_item(const cJSON *item) {
    dhcpr_enable_set(cJSON_GetObjectItemInt(item, "enable") != 0 ? 1 : 0);
    return 0;
}

int relay_server_add_item(const cJSON *item) {
    interface *ifp = if_lookup_by_name(cJSON_GetObjectItemString(item, "if_name"));
    if (ifp == nullptr) {
        return 17;
    }
    return dhcpr_remote_server_set(nullptr, ifp, cJSON_GetObjectItemString(item, "server_ip")) ==
                   CMD_SUCCESS
               ? 0
               : 18;
}

// "server_ip" is not needed: an interface has one server.
int relay_server_delete_item(const cJSON *item) {
    interface *ifp = if_lookup_by_name(cJSON_GetObjectItemString(item, "if_name"));
    if (ifp == nullptr) {
        return 17;
    }
    return dhcpr_remote_server_unset(nullptr, ifp) == CMD_SUCCESS ? 0 : 19;
}

// ---- the handlers, in registration order ----

int json_api_dhcps_gloabl_set(cJSON *root, char *buf) {
    return walk_config(root, buf, global_set_item);
}

int json_api_dhcps_gloabl_get(cJSON *, char *buf) {
    reply_writer w = list_reply(buf);
    w.object("{\"enable\" :\"%d\",\"max_lease_num\" :\"%d\"}", static_cast<int>(dhcps_get_enable()),
             static_cast<int>(dhcps_get_max_lease_num()));
    return w.close_list();
}

int json_api_dhcps_pool_add(cJSON *root, char *buf) {
    return walk_config(root, buf, pool_add_item);
}

int json_api_dhcps_pool_delete(cJSON *root, char *buf) {
    return walk_config(root, buf, pool_delete_item);
}

int json_api_dhcps_pool_config(cJSON *root, char *buf) {
    return walk_config(root, buf, pool_config_item);
}

int json_api_dhcps_pool_list(cJSON *, char *buf) {
    reply_writer w = list_reply(buf);
    for (const auto &pool : dhcps_pool_list()) {
        zassert(pool != nullptr);
        w.object("{\"pool_name\" :\"%s\"}", pool->name);
    }
    return w.close_list();
}

void pool_object(reply_writer &w, const dhcps_pool &pool) {
    w.object(
        "{\"pool_name\" :\"%s\",\"network\":\"%s/%d\",\"begin_ip\":\"%s\",\"end_ip\":\"%s\""
        ",\"lease_time\":%u,\"default_router\":\"%s\",\"dns_server1\":\"%s\""
        ",\"dns_server2\":\"%s\",\"domain_name\":\"%s\",\"netbios_server\":\"%s\"}",
        pool.name, ipv4_text(pool.prefix->prefix.s_addr).buf,
        static_cast<int>(pool.prefix->prefixlen), addr_text(htonl(pool.begin_ip)).buf,
        addr_text(htonl(pool.end_ip)).buf, pool.lease_time,
        addr_text(option_addr(pool, DHCP_ROUTER, 0)).buf,
        addr_text(option_addr(pool, DHCP_DNS_SERVER, 0)).buf,
        addr_text(option_addr(pool, DHCP_DNS_SERVER, 1)).buf,
        addr_text(option_addr(pool, DHCP_DOMAIN_NAME, 0)).buf,
        addr_text(option_addr(pool, DHCP_WINS_SERVER, 0)).buf);
}

int json_api_dhcps_pool_get_all(cJSON *, char *buf) {
    reply_writer w = list_reply(buf);
    for (const auto &pool : dhcps_pool_list()) {
        zassert(pool != nullptr);
        if (pool->prefix) {
            pool_object(w, *pool);
        }
    }
    return w.close_list();
}

bool lease_active(const dhcps_lease &l, std::int64_t now) {
    return dhcps_lease_state(&l) != 0 && std::int64_t{dhcps_lease_expires(&l)} - now > 0;
}

void lease_object(reply_writer &w, const dhcps_lease &l, std::int64_t now) {
    std::array<char, HOSTNAME_MAX + 1> host{};
    std::memcpy(host.data(), l.hostname, HOSTNAME_MAX);
    w.object(
        "{\"lease_ip\":\"%s\",\"lease_mac\":\"%s\",\"lease_hostname\":\"%s\""
        ",\"lease_time\":\"%ld\",\"lease_expires\":\"%ld\"}",
        addr_text(dhcps_lease_nip(&l)).buf, mac_of(l.mac).buf, host.data(),
        static_cast<long>(dhcps_lease_time(&l)),
        static_cast<long>(std::int64_t{dhcps_lease_expires(&l)} - now));
}

int json_api_dhcps_leases_get_page(cJSON *root, char *buf) {
    const cJSON *data = cJSON_GetObjectItem(root, "data");
    const cJSON *first = data != nullptr ? cJSON_GetArrayItem(data, 0) : nullptr;
    // Wide enough that no sum below overflows.
    std::int64_t index = cJSON_GetObjectItemInt(first, "index");
    std::int64_t count = cJSON_GetObjectItemInt(first, "count");

    std::int64_t total = 0;
    std::int64_t now = kq_time_get();
    dhcps_lease_foreach([&](const dhcps_lease &l) { total += lease_active(l, now) ? 1 : 0; });
    if (index < 0 || index > total) {
        index = 0;
    }
    if (index + count > total) {
        count = total - index;
    }

    reply_writer w(buf);
    w.open_list();
    w.add("{\"total\":%d,\"data\":[", static_cast<int>(total));
    // Numbered from 1 over the active leases; index + 1 up to index + count
    // are written. The clock is read again: a lease may have run out since.
    std::int64_t number = 0;
    now = kq_time_get();
    dhcps_lease_foreach([&](const dhcps_lease &l) {
        if (!lease_active(l, now)) {
            return;
        }
        ++number;
        if (number > index && number <= index + count) {
            lease_object(w, l, now);
        }
    });
    return w.close_list();
}

int json_api_dhcps_bind_mac_ip_add(cJSON *root, char *buf) {
    return walk_config(root, buf, static_add_item);
}

int json_api_dhcps_bind_mac_ip_delete(cJSON *root, char *buf) {
    return walk_config(root, buf, static_delete_item);
}

int json_api_dhcps_bind_mac_ip_get_all(cJSON *, char *buf) {
    reply_writer w = list_reply(buf);
    for (const auto &pool : dhcps_pool_list()) {
        zassert(pool != nullptr);
        for (const dhcps_static_lease &s : pool->static_leases) {
            w.object("{\"pool_name\" :\"%s\",\"bind_ip\":\"%s\",\"bind_mac\":\"%s\"}", pool->name,
                     addr_text(s.ip).buf, mac_of(s.mac).buf);
        }
    }
    return w.close_list();
}

int json_api_dhcps_l2_if_list(cJSON *, char *buf) {
    reply_writer w = list_reply(buf);
    uif_foreach([&w](const uif &port) {
        if ((port.index >> 24) != 0) {
            w.object("{\"name\" :\"%s\"}", port.name.c_str());
        }
    });
    return w.close_list();
}

int json_api_dhcps_bind_port_ip_add(cJSON *root, char *buf) {
    return walk_config(root, buf, port_add_item);
}

int json_api_dhcps_bind_port_ip_delete(cJSON *root, char *buf) {
    return walk_config(root, buf, port_delete_item);
}

// A binding whose port no longer exists is left out, as the configuration
// writer leaves it out; the old walk stayed on it for ever.
int json_api_dhcps_bind_port_ip_get_all(cJSON *, char *buf) {
    reply_writer w = list_reply(buf);
    for (const auto &pool : dhcps_pool_list()) {
        zassert(pool != nullptr);
        for (const dhcps_port_bind &b : pool->port_binds) {
            const uif *port = uif_lookup_by_index(static_cast<std::uint32_t>(b.ifindex));
            if (port == nullptr) {
                continue;
            }
            w.object("{\"pool_name\" :\"%s\",\"bind_port\":\"%s\",\"bind_ip\":\"%s\"}", pool->name,
                     port->name.c_str(), addr_text(b.ip).buf);
        }
    }
    return w.close_list();
}

int json_api_dhcpr_state_set(cJSON *root, char *buf) {
    return walk_config(root, buf, relay_state_item);
}

int json_api_dhcpr_state_get(cJSON *, char *buf) {
    reply_writer w = list_reply(buf);
    w.object("{\"enable\" :\"%d\"}", static_cast<int>(dhcpr_enable_get()));
    return w.close_list();
}

bool has_ipv4(const interface &ifp) {
    return std::any_of(ifp.connected.begin(), ifp.connected.end(), [](const auto &c) {
        return c != nullptr && c->address != nullptr && c->address->family == AF_INET;
    });
}

int json_api_dhcpr_l3_if_list(cJSON *, char *buf) {
    reply_writer w = list_reply(buf);
    for (interface *ifp : vrf_iflist(VRF_DEFAULT)) {
        zassert(ifp != nullptr);
        if (std::strcmp(ifp->name, "lo") != 0 && has_ipv4(*ifp)) {
            w.object("{\"name\" :\"%s\"}", ifp->name);
        }
    }
    return w.close_list();
}

int json_api_dhcpr_if_server_add(cJSON *root, char *buf) {
    return walk_config(root, buf, relay_server_add_item);
}

int json_api_dhcpr_if_server_delete(cJSON *root, char *buf) {
    return walk_config(root, buf, relay_server_delete_item);
}

// Every binding with a record is listed, whatever its kind or enable flag.
int json_api_dhcpr_if_server_get_all(cJSON *, char *buf) {
    reply_writer w = list_reply(buf);
    for (interface *ifp : vrf_iflist(VRF_DEFAULT)) {
        zassert(ifp != nullptr);
        const dhcpr_if_info *info = dhcpr_if_binding(ifp);
        if (info == nullptr || info->relay == nullptr) {
            continue;
        }
        std::array<char, 64> server{};
        sockunion2str(&info->relay->server, server.data(), server.size());
        w.object("{\"if_name\" :\"%s\",\"server_ip\":\"%s\"}", ifp->name, server.data());
    }
    return w.close_list();
}

struct request {
    const char *name;
    jserver_handler_fn handler;
};

constexpr request requests[] = {
    {"dhcps_gloabl_set", json_api_dhcps_gloabl_set},
    {"dhcps_gloabl_get", json_api_dhcps_gloabl_get},
    {"dhcps_pool_add", json_api_dhcps_pool_add},
    {"dhcps_pool_delete", json_api_dhcps_pool_delete},
    {"dhcps_pool_config", json_api_dhcps_pool_config},
    {"dhcps_pool_list", json_api_dhcps_pool_list},
    {"dhcps_pool_get_all", json_api_dhcps_pool_get_all},
    {"dhcps_leases_get_page", json_api_dhcps_leases_get_page},
    {"dhcps_bind_mac_ip_add", json_api_dhcps_bind_mac_ip_add},
    {"dhcps_bind_mac_ip_delete", json_api_dhcps_bind_mac_ip_delete},
    {"dhcps_bind_mac_ip_get_all", json_api_dhcps_bind_mac_ip_get_all},
    {"dhcps_l2_if_list", json_api_dhcps_l2_if_list},
    {"dhcps_bind_port_ip_add", json_api_dhcps_bind_port_ip_add},
    {"dhcps_bind_port_ip_delete", json_api_dhcps_bind_port_ip_delete},
    {"dhcps_bind_port_ip_get_all", json_api_dhcps_bind_port_ip_get_all},
    {"dhcpr_state_set", json_api_dhcpr_state_set},
    {"dhcpr_state_get", json_api_dhcpr_state_get},
    {"dhcpr_l3_if_list", json_api_dhcpr_l3_if_list},
    {"dhcpr_if_server_add", json_api_dhcpr_if_server_add},
    {"dhcpr_if_server_delete", json_api_dhcpr_if_server_delete},
    {"dhcpr_if_server_get_all", json_api_dhcpr_if_server_get_all},
};
static_assert(std::size(requests) == 21);

}  // namespace

const std::size_t DHCP_JSON_RESPONSE_SIZE = response.size();

int cJSON_GetObjectItemInt(const cJSON *object, const char *name) {
    const cJSON *item = cJSON_GetObjectItem(object, name);
    return cJSON_IsNumber(item) ? item->valueint : 0;
}

const char *cJSON_GetObjectItemString(const cJSON *object, const char *name) {
    const cJSON *item = cJSON_GetObjectItem(object, name);
    return cJSON_IsString(item) ? item->valuestring : nullptr;
}

void dhcp_json_register() {
    for (const request &r : requests) {
        jserver_cmd_add(r.name, r.handler);
    }
    dhcp_json_stats_register();
}

void dhcp_json_init(thread_master *master) {
    jserver_init(master, DHCP_JSON_PATH, dhcp_json_request);
    dhcp_json_register();
}

std::size_t dhcp_json_handle_text(const char *text, std::size_t len, const char **reply) {
    cJSON *root = cJSON_ParseWithLength(text, len);
    int n = 0;
    jserver_cmd_handle(root, response.data(), response.size() - 1, &n);
    cJSON_Delete(root);
    *reply = response.data();
    return static_cast<std::size_t>(std::clamp<int>(n, 0, static_cast<int>(REPLY_MAX)));
}

int dhcp_json_request(int fd, const char *text, std::size_t len) {
    const char *reply = nullptr;
    const std::size_t n = dhcp_json_handle_text(text, len, &reply);
    // The reply goes through the server rather than one write() on the
    // descriptor: a full lease page exceeds a socket buffer, and a client
    // that stops reading must not block the daemon or cut the reply short.
    jserver_reply(fd, reply, n);
    return 0;
}
