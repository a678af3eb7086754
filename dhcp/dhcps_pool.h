// Address pools, the server's settings record and option-82 admission.
//
// The pool list is kept in name order (strcmp) and holds at most
// DHCPS_POOL_MAX pools; a pool lives from creation (CLI or JSON) until it is
// deleted. Pools bind to the layer-3 interface that holds an address in
// their network (interface tracking calls dhcps_pool_set_interface /
// dhcps_pool_clear_interface). Addresses named *_ip that are u32 are in host
// order for the range (begin_ip, end_ip), network order elsewhere.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "dhcp/dhcp_options.h"
#include "lib/if.h"
#include "lib/prefix.h"

struct thread;

constexpr std::size_t DHCPS_POOL_MAX = 16;
constexpr std::size_t DHCPS_POOL_NAME_LEN = 32;  // with the terminator
constexpr std::uint32_t DHCPS_DEFAULT_LEASE_TIME = 864000;
constexpr std::size_t DHCPS_ALLOW_CIRCUIT_MAX = 256;  // over all pools
constexpr std::size_t DHCPS_ALLOW_CIRCUIT_LEN = 32;   // with the terminator
constexpr std::size_t DHCPS_STATIC_MAX = 1024;        // over all pools
// The largest maximum lease number the settings take ("max-lease-num").
constexpr std::uint32_t DHCPS_MAX_LEASE_NUM_MAX = 10240;

struct dhcps_static_lease {
    std::uint32_t ip;  // network order
    std::uint8_t mac[6];
};

struct dhcps_port_bind {
    std::uint32_t ip;      // network order
    std::int32_t ifindex;  // uif index of a switch port
};

struct dhcps_pool {
    char name[DHCPS_POOL_NAME_LEN] = {};
    std::uint32_t enable = 1;
    ::interface *interface = nullptr;     // attached interface, none when detached
    std::unique_ptr<prefix_ipv4> prefix;  // the pool's network, masked
    std::int32_t ifindex = 0;
    std::uint32_t server_ip = 0;  // network order
    std::uint8_t server_mac[6] = {};
    std::unique_ptr<option_set> options;
    std::uint32_t begin_ip = 0;  // host order
    std::uint32_t end_ip = 0;    // host order, inclusive
    std::uint32_t lease_time = DHCPS_DEFAULT_LEASE_TIME;
    std::uint32_t min_lease_time = 0;
    std::uint32_t decline_time = 30;
    std::uint32_t conflict_time = 60;
    std::uint32_t offer_time = 10;
    std::uint32_t next_server = 0;  // network order
    std::string server_name;        // empty: not set
    std::string boot_file;          // empty: not set
    std::vector<dhcps_static_lease> static_leases;
    std::vector<dhcps_port_bind> port_binds;
    std::vector<std::string> allow_circuit_ids;  // each at most 31 characters
    std::uint32_t last_request_len = 0;
};

// The server's global settings.
struct dhcps_settings {
    std::uint32_t enable = 0;
    std::uint32_t write_time = 300;
    std::uint32_t max_lease_num = 4096;
    std::uint32_t leases_dirty = 0;
    std::uint32_t information = 1;
    int sock = 0;
    thread *recv_thread = nullptr;
};
extern dhcps_settings dhcps_global;

// Parsed relay agent information (option 82). The pointers point into the
// message being handled and are valid only while it is.
struct dhcp_option82 {
    std::uint32_t present = 0;  // 1 once a circuit-id sub-option was seen
    const std::uint8_t *circuit_id = nullptr;
    int circuit_id_len = 0;
    const std::uint8_t *remote_id = nullptr;
    int remote_id_len = 0;
};

// Pool list.
void dhcps_pool_list_init();
void dhcps_pool_list_free();
const std::vector<std::unique_ptr<dhcps_pool>> &dhcps_pool_list();
dhcps_pool *dhcps_lookup_by_name(const char *name);
dhcps_pool *dhcps_pool_create(const char *name, std::size_t len);
dhcps_pool *dhcps_pool_get(const char *name);
void dhcps_delete_a_pool(dhcps_pool *pool);
dhcps_pool *dhcps_lookup_by_network(std::uint32_t yiaddr, const dhcp_option82 *circuit);

// Allowed circuit ids (counted over all pools, deleted pools included).
int allow_add(std::vector<std::string> *list, const char *text);
int allow_delete(std::vector<std::string> *list, const char *text);
int allow_match(const std::vector<std::string> *list, const std::uint8_t *id, int id_len);
std::size_t allow_count();
// Tests and fuzzers: sets the count to the entries the pools hold now, as
// in a process that never deleted a pool.
void allow_count_recount();

int dhcps_parse_option82(const std::uint8_t *data, int len, dhcp_option82 *out);

// Network and interface binding.
//
// dhcps_network(pool, prefix) stores the masked network and, when unset,
// the range defaults: begin_ip is the address as typed, end_ip the last
// address of the network. The subnet-mask option (1) carries the mask and
// the broadcast option (28) the network's broadcast address. Two prefix
// lengths have no broadcast address of their own, and for them:
//   /31  a point-to-point link (RFC 3021): the range defaults to both
//        addresses, whichever one was typed, and option 28 carries
//        255.255.255.255;
//   /32  a single-address pool: the range is that address and option 28
//        carries 255.255.255.255. The default router must be that address
//        (it has to lie in the network), and the free-address search never
//        offers the router's address, so the address is handed out only
//        through a static or port binding.
// For /1 to /30 the range defaults to the typed address up to the broadcast
// address. Either way the range never leaves the network, so no walk over
// it goes beyond the network's size.
int dhcps_network(dhcps_pool *pool, const prefix_ipv4 *prefix);
void dhcps_pool_set_interface(dhcps_pool *pool, ::interface *ifp, const prefix *addr);
void dhcps_pool_clear_interface(dhcps_pool *pool);
// The prefix through which a connected entry attaches a pool: for a
// point-to-point entry (peer flag set) its peer's, else its own. Its network
// is matched against the pools' networks and its address becomes the
// attached pool's server_ip. The network command and interface tracking
// (address add, interface add) all take it from here, so a pool gets the
// same server_ip whichever path attached it. Null for a null entry.
const prefix *dhcps_attach_prefix(const connected *c);

// Addresses and lease records looked at by pool deletions since start-up.
// Deletion walks the range or the lease table, whichever is smaller, so one
// deletion adds at most the number of lease records.
std::uint64_t dhcps_range_walk_steps();

// Settings.
void dhcps_settings_init();
int dhcps_set_enable(std::uint32_t v);
std::uint32_t dhcps_get_enable();
void dhcps_set_write_time(std::uint32_t v);
std::uint32_t dhcps_get_write_time();
int dhcps_set_max_lease_num(std::uint32_t v);
std::uint32_t dhcps_get_max_lease_num();
int dhcps_set_information(std::uint32_t v);
std::uint32_t dhcps_get_information();
