// The lease table and the lease file.
//
// One table for all pools. Its order is part of its contract: a record is
// placed when it is created (still all zero) directly before the first
// record whose MAC is not all zero, and keeps that place; so conflict
// reservations sit at the head in creation order and client leases follow,
// newest first. Every walk (lookups, truncation, the file, the displays)
// follows this order. Lookups by MAC and by address are indexed, the count
// of active leases is kept without a walk, and the free-address search is
// linear in the pool's range only.
//
// The record is the file record: 44 bytes, multi-byte fields big-endian,
// the address in network byte order. Read and write fields through the
// accessors; change MAC or expiry of a record in the table only through
// dhcps_lease_set_mac() / dhcps_lease_set_expires(), which keep the indexes.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>

struct dhcps_pool;
struct interface;
struct thread;
struct thread_master;

struct dhcps_lease {
    std::uint8_t state[4];       // 0 uncommitted, 1 committed
    std::uint8_t expires[4];     // wall-clock seconds, signed
    std::uint8_t lease_time[4];  // seconds as granted
    std::uint8_t nip[4];         // address bytes as on the wire
    std::uint8_t mac[6];
    char hostname[20];  // NUL-padded, not terminated at 20 characters
    std::uint8_t pad[2];
};
static_assert(sizeof(dhcps_lease) == 44);

constexpr const char *DHCPS_LEASE_FILE = "/mnt/dhcps.leases";

std::uint32_t dhcps_lease_state(const dhcps_lease *l);
std::int32_t dhcps_lease_expires(const dhcps_lease *l);
std::uint32_t dhcps_lease_time(const dhcps_lease *l);
std::uint32_t dhcps_lease_nip(const dhcps_lease *l);  // network order
void dhcps_lease_set_state(dhcps_lease *l, std::uint32_t state);
void dhcps_lease_set_expires(dhcps_lease *l, std::int32_t expires);
void dhcps_lease_set_mac(dhcps_lease *l, const std::uint8_t mac[6]);

void dhcps_lease_list_init();
void dhcps_lease_list_free();
dhcps_lease *dhcps_leases_new();
dhcps_lease *dhcps_add_lease(const std::uint8_t *mac, std::uint32_t nip, std::uint32_t lease_time,
                             std::int32_t expires, const char *hostname, int hostname_len,
                             std::uint32_t state, int check_max);
void dhcps_lease_free(dhcps_lease *lease);
void dhcps_clear_leases(const std::uint8_t *mac, std::uint32_t nip);
int dhcps_lease_expired(const dhcps_lease *lease);
int dhcps_get_active_leases_num();
int dhcps_get_leases_num();  // every record, expired ones included
int dhcps_delete_an_expired_leases();
dhcps_lease *dhcps_find_lease_by_mac(const std::uint8_t *mac);
dhcps_lease *dhcps_find_lease_by_nip(std::uint32_t nip);
int dhcps_reserve_check(interface *ifp, dhcps_pool *pool, std::uint32_t nip,
                        const std::uint8_t *client_mac);
std::uint32_t dhcps_free_ip(interface *ifp, dhcps_pool *pool, const std::uint8_t *client_mac);
void dhcps_write_leases(const char *path);
void dhcps_load_leases(const char *path);
void dhcps_leases_truncate(std::uint32_t max);
int dhcps_write_timer(thread *t);
// The file the write timer and truncation write: DHCPS_LEASE_FILE unless a
// test or tool points it elsewhere (nullptr goes back to the default).
void dhcps_set_lease_file(const char *path);
const char *dhcps_lease_file();
// How dhcps_write_leases() puts the records into the temporary file: write
// them all and flush them to the device, false on any failure (the old file
// is then kept). The default is dhcps_lease_file_store(); crash tests and
// tools replace it to stop a write midway. An empty function restores it.
using dhcps_lease_file_writer = std::function<bool(int fd, std::span<const std::byte> records)>;
void dhcps_set_lease_file_writer(dhcps_lease_file_writer writer);
bool dhcps_lease_file_store(int fd, std::span<const std::byte> records);
// Arms the first write-timer run on `m` (start-up); later runs re-arm on it.
void dhcps_write_timer_start(thread_master *m);
// Cancels a pending run and forgets the master (before freeing it).
void dhcps_write_timer_stop();

// Walks the table in its order; the callback must not change the table.
void dhcps_lease_foreach(const std::function<void(const dhcps_lease &)> &fn);

// Tests and fuzzers: every index of the table (order links, tree, MAC and
// address lookups, expiry counts) checked against a plain walk of it. Empty
// when they agree, else what disagrees.
std::string dhcps_leases_check();
