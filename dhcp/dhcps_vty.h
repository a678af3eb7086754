// The server's operator commands: the global dhcp-server commands, the pool
// node and its commands, the server displays and the running-configuration
// writer of the server.
//
// Each command is a thin handler over a setter below. The JSON surface calls
// the same setters with vty = nullptr (messages then go nowhere), so every
// rule lives in the setter. Setters return the CLI result codes: CMD_SUCCESS,
// CMD_WARNING (message printed, nothing changed), CMD_ERR_NOTHING_TODO (a
// "no" form with nothing to remove), CMD_ERR_LIMIT_REACHED (a count limit);
// a missing pool or required text gives CMD_WARNING at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

struct vty;
struct dhcps_pool;

constexpr std::uint32_t DHCPS_LEASE_TIME_MAX = 31536000;  // one year

// Registers the pool node and every server command. Called once at start-up.
void dhcps_vty_init();

// Writer of the pool node: server settings, then every pool. Returns 0.
int dhcps_config_write(vty *vty);
// "show dhcp-server lease": nip (network order) filters, 0 shows all.
int dhcps_show_leases(vty *vty, std::uint32_t nip);
// "show dhcp-server".
int show_dhcp_server(vty *vty);

// Pool block: four line writers, each usable by itself. Options come before
// the network and range lines, the other three after them.
enum class dhcps_block_step { options, statics, port_binds, circuit_ids };
void dhcps_pool_block_write(vty *vty, const dhcps_pool *pool, dhcps_block_step step);
void dhcps_pool_write_options(vty *vty, const dhcps_pool *pool);
void dhcps_pool_write_statics(vty *vty, const dhcps_pool *pool);
void dhcps_pool_write_port_binds(vty *vty, const dhcps_pool *pool);
void dhcps_pool_write_circuit_ids(vty *vty, const dhcps_pool *pool);

// Pool entry and removal. dhcps_pool_enter() creates or finds the pool and
// puts its lease back to the default; *out gets the pool on success.
int dhcps_pool_enter(vty *vty, const char *name, dhcps_pool **out);
int dhcps_pool_remove(vty *vty, const char *name);

// Pool settings.
int dhcps_pool_set_enable(dhcps_pool *pool, std::uint32_t v);
int dhcps_pool_set_network(vty *vty, dhcps_pool *pool, const char *text);
int dhcps_pool_set_range(vty *vty, dhcps_pool *pool, const char *begin, const char *end);
int dhcps_pool_set_domain(vty *vty, dhcps_pool *pool, const char *text);
// `text2` may be nullptr or empty for a single server.
int dhcps_pool_set_dns(vty *vty, dhcps_pool *pool, const char *text1, const char *text2);
// One or two servers as the command gives them; more are refused.
int dhcps_pool_set_dns_list(vty *vty, dhcps_pool *pool, std::span<const char *const> texts);
int dhcps_pool_set_netbios(vty *vty, dhcps_pool *pool, const char *text);
int dhcps_pool_set_router(vty *vty, dhcps_pool *pool, const char *text);
// 0 on success (values above one year are cut to it), else the option
// list's result.
int dhcps_pool_set_lease(dhcps_pool *pool, std::uint32_t seconds);

// "no" forms of the options: CMD_ERR_NOTHING_TODO when absent.
int dhcps_pool_unset_option(dhcps_pool *pool, std::uint8_t code);
int dhcps_pool_unset_domain(vty *vty, dhcps_pool *pool);
int dhcps_pool_unset_dns(vty *vty, dhcps_pool *pool);
int dhcps_pool_unset_netbios(vty *vty, dhcps_pool *pool);
int dhcps_pool_unset_router(vty *vty, dhcps_pool *pool);

// Allowed circuit ids (option-82 admission).
int dhcps_allow_circuitID(vty *vty, dhcps_pool *pool, const char *text);
int dhcps_pool_delete_circuit_id(vty *vty, dhcps_pool *pool, const char *text);

// Static MAC-IP bindings, at most DHCPS_STATIC_MAX over all pools.
int dhcps_pool_add_static(vty *vty, dhcps_pool *pool, const char *ip, const char *mac);
int dhcps_pool_delete_static(vty *vty, dhcps_pool *pool, const char *ip);
// Static bindings counted over all pools.
std::size_t dhcps_static_count();
// Counts again only the bindings of the pools that exist, forgetting those
// of deleted pools (tests and fuzzers that start over in one process).
void dhcps_static_count_recount();

// Port bindings (switch port to address).
int dhcps_pool_add_port_bind(vty *vty, dhcps_pool *pool, const char *ifname, const char *ip);
int dhcps_pool_delete_port_bind(vty *vty, dhcps_pool *pool, const char *ifname);
