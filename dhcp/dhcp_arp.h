// Probing an address with one broadcast ARP request before it is offered.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>

// The ARP frame sent and received, Ethernet header included.
struct dhcp_arp_frame {
    std::uint8_t h_dest[6];
    std::uint8_t h_source[6];
    std::uint16_t h_proto;  // network order
    std::uint16_t htype;    // network order
    std::uint16_t ptype;    // network order
    std::uint8_t hlen;
    std::uint8_t plen;
    std::uint16_t operation;  // network order
    std::uint8_t sender_mac[6];
    std::uint8_t sender_ip[4];
    std::uint8_t target_mac[6];
    std::uint8_t target_ip[4];
    std::uint8_t pad[18];
};
static_assert(sizeof(dhcp_arp_frame) == 60);

// The broadcast request for `test_nip` from `from_ip` (both network order)
// and the 6-byte `from_mac`.
dhcp_arp_frame dhcp_arp_request(std::uint32_t test_nip, std::uint32_t from_ip,
                                const std::uint8_t *from_mac);

// Asks on `interface` whether some host holds `test_nip`, waiting up to two
// seconds for a reply. 1 when the address is free, 0 when it is in use or
// can't be probed. An answer from `safe_mac` (6 bytes, the requesting
// client's own MAC; may be nullptr) is no conflict.
int arpping(std::uint32_t test_nip, const std::uint8_t *safe_mac, std::uint32_t from_ip,
            const std::uint8_t *from_mac, const char *interface);

// What a probe takes from the outside world, replaceable by tests: the
// millisecond clock that measures its budget, and the wait for one frame on
// its socket, which returns the frame's length, or -1 once `timeout_ms` has
// passed without one or on an error. Empty functions restore the defaults
// (monotonic_ms(); poll(2) then read(2)).
struct dhcp_arp_io {
    std::function<std::uint64_t()> now_ms;
    std::function<long(int fd, std::span<std::byte> frame, unsigned timeout_ms)> receive;
};
void dhcp_arp_set_io(dhcp_arp_io io);
