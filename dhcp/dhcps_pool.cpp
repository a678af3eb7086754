// Address pools: the name-ordered pool list, lookups for request handling,
// allowed circuit ids and option-82 parsing, and binding pools to the
// interface that holds an address of their network.
#include "dhcp/dhcps_pool.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

#include "dhcp/dhcps_leases.h"
#include "lib/log.h"

namespace {

std::vector<std::unique_ptr<dhcps_pool>> pools;
// Shared by all pools and never given back by pool deletion: a deleted
// pool's entries keep counting, as operators of this switch expect.
std::size_t allow_total = 0;

constexpr dhcp_option kSubnetMaskOption = {0x11, DHCP_SUBNET_MASK};
constexpr dhcp_option kBroadcastOption = {0x11, DHCP_BROADCAST};

std::uint32_t option_u32(const option_set *opt) {
    std::uint32_t v = 0;
    if (opt != nullptr && opt->length() >= 4) {
        std::memcpy(&v, opt->value().data(), 4);
    }
    return v;
}

void replace_address_option(dhcps_pool *pool, const dhcp_option &desc, std::uint32_t nip) {
    dhcp_delete_option(pool->options, desc.code);
    std::uint8_t value[4];
    std::memcpy(value, &nip, 4);
    dhcp_attach_option(pool->options, desc, value);
}

std::uint64_t range_walk_steps = 0;

void free_first_lease_of(std::uint32_t nip) {
    if (dhcps_lease *lease = dhcps_find_lease_by_nip(nip)) {
        dhcps_lease_free(lease);
    }
}

// Frees the lease of every address of the pool's range: for each address,
// the first record holding it. A range can be far wider than the lease table
// (a /8 has 16 million addresses, the table at most a few thousand records),
// so the shorter of the two is walked.
void release_range_leases(const dhcps_pool *pool) {
    if (pool->end_ip < pool->begin_ip) {
        return;
    }
    const std::uint64_t span = std::uint64_t{pool->end_ip} - pool->begin_ip + 1;
    const auto records = static_cast<std::uint64_t>(std::max(dhcps_get_leases_num(), 0));
    if (span <= records) {
        range_walk_steps += span;
        for (std::uint64_t a = pool->begin_ip; a <= pool->end_ip; ++a) {
            free_first_lease_of(htonl(static_cast<std::uint32_t>(a)));
        }
        return;
    }
    range_walk_steps += records;
    std::vector<std::uint32_t> held;  // network order, each address once
    dhcps_lease_foreach([&](const dhcps_lease &l) {
        const std::uint32_t nip = dhcps_lease_nip(&l);
        const std::uint32_t h = ntohl(nip);
        if (h >= pool->begin_ip && h <= pool->end_ip) {
            held.push_back(nip);
        }
    });
    std::sort(held.begin(), held.end());
    held.erase(std::unique(held.begin(), held.end()), held.end());
    for (std::uint32_t nip : held) {
        free_first_lease_of(nip);
    }
}

// Range defaults of a network: see dhcps_network() in the header.
std::uint32_t default_begin(const prefix_ipv4 &typed, const prefix_ipv4 &net) {
    return ntohl(typed.prefixlen >= 31 ? net.prefix.s_addr : typed.prefix.s_addr);
}

std::uint32_t default_end(const prefix_ipv4 &net, const in_addr &mask) {
    return ntohl(net.prefix.s_addr | ~mask.s_addr);
}

}  // namespace

const prefix *dhcps_attach_prefix(const connected *c) {
    return c != nullptr ? CONNECTED_PREFIX(c) : nullptr;
}

std::uint64_t dhcps_range_walk_steps() {
    return range_walk_steps;
}

void dhcps_pool_list_init() {
    pools.clear();
}

void dhcps_pool_list_free() {
    while (!pools.empty()) {
        dhcps_delete_a_pool(pools.front().get());
    }
}

const std::vector<std::unique_ptr<dhcps_pool>> &dhcps_pool_list() {
    return pools;
}

dhcps_pool *dhcps_lookup_by_name(const char *name) {
    if (name == nullptr) {
        return nullptr;
    }
    for (auto &p : pools) {
        if (std::strcmp(p->name, name) == 0) {
            return p.get();
        }
    }
    return nullptr;
}

dhcps_pool *dhcps_pool_create(const char *name, std::size_t len) {
    if (pools.size() >= DHCPS_POOL_MAX || name == nullptr) {
        return nullptr;
    }
    auto pool = std::make_unique<dhcps_pool>();
    // Callers keep names below 32 characters; never copy past the field.
    len = std::min(len, DHCPS_POOL_NAME_LEN - 1);
    std::memcpy(pool->name, name, strnlen(name, len));
    if (dhcps_lookup_by_name(pool->name) != nullptr) {
        zlog_warn("dhcps_pool with this name [%s] exists already!", pool->name);
        return nullptr;
    }
    auto at = std::find_if(pools.begin(), pools.end(),
                           [&](const auto &p) { return std::strcmp(p->name, pool->name) > 0; });
    return pools.insert(at, std::move(pool))->get();
}

dhcps_pool *dhcps_pool_get(const char *name) {
    dhcps_pool *pool = dhcps_lookup_by_name(name);
    return pool ? pool : dhcps_pool_create(name, name ? std::strlen(name) : 0);
}

void dhcps_delete_a_pool(dhcps_pool *pool) {
    if (pool == nullptr) {
        return;
    }
    release_range_leases(pool);
    auto it =
        std::find_if(pools.begin(), pools.end(), [pool](const auto &p) { return p.get() == pool; });
    if (it != pools.end()) {
        pools.erase(it);
    }
}

dhcps_pool *dhcps_lookup_by_network(std::uint32_t yiaddr, const dhcp_option82 *circuit) {
    if (circuit == nullptr) {
        return nullptr;
    }
    for (auto &p : pools) {
        const option_set *mask_opt = dhcp_find_option(p->options, DHCP_SUBNET_MASK);
        if (mask_opt == nullptr) {
            zlog_debug("dhcp_find_option DHCP_SUBNET_MASK fail!");
            continue;
        }
        std::uint32_t mask = option_u32(mask_opt);
        if (!p->prefix || ((p->prefix->prefix.s_addr ^ yiaddr) & mask) != 0) {
            continue;
        }
        if (p->enable == 0) {
            zlog_debug("Pool %s is not enabled, jump over!", p->name);
            continue;
        }
        if (circuit->present == 0 ||
            allow_match(&p->allow_circuit_ids, circuit->circuit_id, circuit->circuit_id_len) == 1) {
            return p.get();
        }
        zlog_debug("Circuit ID is not found! jump over!");
    }
    return nullptr;
}

int allow_add(std::vector<std::string> *list, const char *text) {
    if (list == nullptr || text == nullptr) {
        return -1;
    }
    std::string id(text, strnlen(text, DHCPS_ALLOW_CIRCUIT_LEN - 1));
    if (std::find(list->begin(), list->end(), id) != list->end()) {
        return -8;
    }
    if (allow_total >= DHCPS_ALLOW_CIRCUIT_MAX) {
        return -6;
    }
    list->push_back(std::move(id));
    ++allow_total;
    return 0;
}

int allow_delete(std::vector<std::string> *list, const char *text) {
    if (list == nullptr || text == nullptr) {
        return 0;
    }
    std::string id(text, strnlen(text, DHCPS_ALLOW_CIRCUIT_LEN - 1));
    auto it = std::find(list->begin(), list->end(), id);
    if (it != list->end()) {
        list->erase(it);
        --allow_total;
    }
    return 0;
}

int allow_match(const std::vector<std::string> *list, const std::uint8_t *id, int id_len) {
    if (list == nullptr || id == nullptr || id_len <= 0) {
        return 0;
    }
    auto n = static_cast<std::size_t>(id_len);
    for (const auto &entry : *list) {
        // A prefix compare over the received id's length: an entry longer
        // than the id that begins with it matches as well.
        if (std::strncmp(entry.c_str(), reinterpret_cast<const char *>(id), n) == 0) {
            return 1;
        }
    }
    return 0;
}

std::size_t allow_count() {
    return allow_total;
}

void allow_count_recount() {
    allow_total = 0;
    for (const auto &p : pools) {
        allow_total += p->allow_circuit_ids.size();
    }
}

int dhcps_parse_option82(const std::uint8_t *data, int len, dhcp_option82 *out) {
    if (data == nullptr || len < 1 || out == nullptr) {
        return -4;
    }
    *out = dhcp_option82{};
    int pos = 0;
    while (pos < len) {
        if (pos + 1 >= len) {
            return -1;  // the length byte is missing
        }
        int code = data[pos];
        // Sub-option lengths are signed bytes: 0x80 and up read as negative.
        int sublen = static_cast<int>(static_cast<std::int8_t>(data[pos + 1]));
        if (sublen < 0 || pos + 2 + sublen > len) {
            return -1;
        }
        const std::uint8_t *value = data + pos + 2;
        if (code == 1) {
            out->present = 1;
            out->circuit_id = value;
            out->circuit_id_len = sublen;
        } else if (code == 2) {
            out->remote_id = value;
            out->remote_id_len = sublen;
        }
        pos += 2 + sublen;
    }
    return 0;
}

int dhcps_network(dhcps_pool *pool, const prefix_ipv4 *p) {
    if (pool == nullptr || p == nullptr) {
        zlog_warn("The input pointer is NULL!");
        return -1;
    }
    in_addr mask{};
    masklen2ip(p->prefixlen, &mask);
    prefix_ipv4 net = *p;
    apply_mask_ipv4(&net);
    // The range defaults are taken before any check and stay even when one fails.
    if (pool->begin_ip == 0) {
        pool->begin_ip = default_begin(*p, net);
    }
    if (pool->end_ip == 0) {
        pool->end_ip = default_end(net, mask);
    }
    const option_set *router = dhcp_find_option(pool->options, DHCP_ROUTER);
    if (router == nullptr) {
        zlog_warn("dhcp_find_option can't find DHCP_ROUTER!");
        return -1;
    }
    if ((option_u32(router) & mask.s_addr) != net.prefix.s_addr) {
        zlog_warn("The default gateway should in network!");
        return -1;
    }
    if (!pool->prefix) {
        pool->prefix = std::make_unique<prefix_ipv4>();
    }
    *pool->prefix = net;
    replace_address_option(pool, kSubnetMaskOption, mask.s_addr);
    replace_address_option(pool, kBroadcastOption,
                           ipv4_broadcast_addr(net.prefix.s_addr, net.prefixlen));

    for (interface *ifp : vrf_iflist(VRF_DEFAULT)) {
        for (auto &c : ifp->connected) {
            const prefix *addr = dhcps_attach_prefix(c.get());
            if (addr == nullptr || addr->family != AF_INET) {
                continue;
            }
            prefix cn = *addr;
            apply_mask(&cn);
            if (prefix_same(&cn, as_prefix(&net))) {
                dhcps_pool_set_interface(pool, ifp, addr);
                return 0;
            }
        }
    }
    dhcps_pool_clear_interface(pool);
    return 0;
}

void dhcps_pool_set_interface(dhcps_pool *pool, ::interface *ifp, const prefix *addr) {
    if (pool == nullptr || ifp == nullptr || addr == nullptr) {
        zlog_warn("The input pointer is NULL!");
        return;
    }
    pool->interface = ifp;
    pool->ifindex = ifp->ifindex;
    pool->server_ip = addr->u.prefix4.s_addr;
    pool->next_server = pool->server_ip;
}

void dhcps_pool_clear_interface(dhcps_pool *pool) {
    if (pool == nullptr) {
        zlog_warn("The input pointer is NULL!");
        return;
    }
    pool->interface = nullptr;
    pool->ifindex = 0;
    pool->server_ip = pool->prefix ? pool->prefix->prefix.s_addr : 0;
    pool->next_server = pool->server_ip;
}
