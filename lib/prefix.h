// IPv4/IPv6 prefixes and the address helpers around them.
//
// Text parsers return 1 on success and 0 on malformed text; a bare address
// is a host prefix (/32, /128). Addresses are kept in network byte order.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

struct prefix {
    std::uint8_t family;
    std::uint8_t prefixlen;
    union {
        std::uint8_t prefix;
        in_addr prefix4;
        in6_addr prefix6;
        std::uint8_t val[16];
    } u __attribute__((aligned(8)));
};

// Same leading layout as `prefix`, so one may be viewed as the other.
struct prefix_ipv4 {
    std::uint8_t family;
    std::uint8_t prefixlen;
    in_addr prefix __attribute__((aligned(8)));
};

struct prefix_ipv6 {
    std::uint8_t family;
    std::uint8_t prefixlen;
    in6_addr prefix __attribute__((aligned(8)));
};

static_assert(sizeof(prefix_ipv4) <= sizeof(prefix));
static_assert(offsetof(prefix_ipv4, prefix) == offsetof(prefix, u));

// Dotted-quad text of an IPv4 address, held by value so a format can take
// several at once: ipv4_text(nip).buf.
struct ipv4_text_buf {
    char buf[INET_ADDRSTRLEN] = {};
};
// `nip` in network byte order.
ipv4_text_buf ipv4_text(std::uint32_t nip);

constexpr int IPV4_MAX_BITLEN = 32;
constexpr int IPV6_MAX_BITLEN = 128;
constexpr int PREFIX_STRLEN = 51;  // room for an IPv6 prefix text

inline prefix *as_prefix(prefix_ipv4 *p) {
    return reinterpret_cast<prefix *>(p);
}
inline const prefix *as_prefix(const prefix_ipv4 *p) {
    return reinterpret_cast<const prefix *>(p);
}

int str2prefix_ipv4(const char *str, prefix_ipv4 *p);
int str2prefix_ipv6(const char *str, prefix_ipv6 *p);
int str2prefix(const char *str, prefix *p);
// Writes "a.b.c.d/len"; returns 0, or -1 when the buffer is too small.
int prefix2str(const prefix *p, char *str, int size);
// 1 when family, length and the address bits are the same.
int prefix_same(const prefix *p1, const prefix *p2);
// 1 when `p` lies inside network `n`.
int prefix_match(const prefix *n, const prefix *p);
void prefix_copy(prefix *dest, const prefix *src);

void apply_mask_ipv4(prefix_ipv4 *p);
void apply_mask(prefix *p);
void masklen2ip(int masklen, in_addr *netmask);
std::uint8_t ip_masklen(in_addr netmask);
// Broadcast address (network order) of the network of `hostaddr`/masklen.
in_addr_t ipv4_broadcast_addr(in_addr_t hostaddr, int masklen);
