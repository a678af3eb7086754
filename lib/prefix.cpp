#include "prefix.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// Splits "addr/len"; the length must be all digits and within max.
bool split_prefix(const char *str, std::string &addr, int &len, int max) {
    const char *slash = std::strchr(str, '/');
    if (slash == nullptr) {
        addr = str;
        len = max;
        return true;
    }
    addr.assign(str, static_cast<std::size_t>(slash - str));
    const char *digits = slash + 1;
    if (*digits == '\0' || std::strlen(digits) > 3) {
        return false;
    }
    for (const char *c = digits; *c != '\0'; ++c) {
        if (*c < '0' || *c > '9') {
            return false;
        }
    }
    len = std::atoi(digits);
    return len <= max;
}

}  // namespace

int str2prefix_ipv4(const char *str, prefix_ipv4 *p) {
    if (str == nullptr || p == nullptr) {
        return 0;
    }
    std::string addr;
    int len = 0;
    in_addr a{};
    if (!split_prefix(str, addr, len, IPV4_MAX_BITLEN) ||
        inet_pton(AF_INET, addr.c_str(), &a) != 1) {
        return 0;
    }
    std::memset(p, 0, sizeof *p);
    p->family = AF_INET;
    p->prefixlen = static_cast<std::uint8_t>(len);
    p->prefix = a;
    return 1;
}

int str2prefix_ipv6(const char *str, prefix_ipv6 *p) {
    if (str == nullptr || p == nullptr) {
        return 0;
    }
    std::string addr;
    int len = 0;
    in6_addr a{};
    if (!split_prefix(str, addr, len, IPV6_MAX_BITLEN) ||
        inet_pton(AF_INET6, addr.c_str(), &a) != 1) {
        return 0;
    }
    std::memset(p, 0, sizeof *p);
    p->family = AF_INET6;
    p->prefixlen = static_cast<std::uint8_t>(len);
    p->prefix = a;
    return 1;
}

int str2prefix(const char *str, prefix *p) {
    if (str == nullptr || p == nullptr) {
        return 0;
    }
    std::memset(p, 0, sizeof *p);
    prefix_ipv4 p4{};
    if (str2prefix_ipv4(str, &p4) == 1) {
        p->family = p4.family;
        p->prefixlen = p4.prefixlen;
        p->u.prefix4 = p4.prefix;
        return 1;
    }
    prefix_ipv6 p6{};
    if (str2prefix_ipv6(str, &p6) == 1) {
        p->family = p6.family;
        p->prefixlen = p6.prefixlen;
        p->u.prefix6 = p6.prefix;
        return 1;
    }
    return 0;
}

int prefix2str(const prefix *p, char *str, int size) {
    if (p == nullptr || str == nullptr || size <= 0) {
        return -1;
    }
    char addr[INET6_ADDRSTRLEN] = "";
    inet_ntop(p->family == AF_INET6 ? AF_INET6 : AF_INET, &p->u, addr, sizeof addr);
    int n = std::snprintf(str, static_cast<std::size_t>(size), "%s/%d", addr, p->prefixlen);
    return (n < 0 || n >= size) ? -1 : 0;
}

namespace {
int addr_bytes(const prefix *p) {
    return p->family == AF_INET6 ? 16 : 4;
}

// Compares the first `bits` bits of two addresses.
bool same_bits(const std::uint8_t *a, const std::uint8_t *b, int bits) {
    int bytes = bits / 8;
    if (std::memcmp(a, b, static_cast<std::size_t>(bytes)) != 0) {
        return false;
    }
    int rest = bits % 8;
    if (rest == 0) {
        return true;
    }
    auto mask = static_cast<std::uint8_t>(0xff << (8 - rest));
    return (a[bytes] & mask) == (b[bytes] & mask);
}
}  // namespace

int prefix_same(const prefix *p1, const prefix *p2) {
    if (p1 == nullptr || p2 == nullptr) {
        return 0;
    }
    if (p1->family != p2->family || p1->prefixlen != p2->prefixlen) {
        return 0;
    }
    return std::memcmp(&p1->u, &p2->u, static_cast<std::size_t>(addr_bytes(p1))) == 0 ? 1 : 0;
}

int prefix_match(const prefix *n, const prefix *p) {
    if (n == nullptr || p == nullptr || n->family != p->family || n->prefixlen > p->prefixlen) {
        return 0;
    }
    return same_bits(n->u.val, p->u.val, n->prefixlen) ? 1 : 0;
}

void prefix_copy(prefix *dest, const prefix *src) {
    if (dest != nullptr && src != nullptr) {
        std::memcpy(dest, src, sizeof *dest);
    }
}

void masklen2ip(int masklen, in_addr *netmask) {
    if (netmask == nullptr) {
        return;
    }
    if (masklen <= 0) {
        netmask->s_addr = 0;
    } else if (masklen >= 32) {
        netmask->s_addr = 0xffffffffu;
    } else {
        netmask->s_addr = htonl(~((1u << (32 - masklen)) - 1));
    }
}

std::uint8_t ip_masklen(in_addr netmask) {
    return static_cast<std::uint8_t>(__builtin_popcount(ntohl(netmask.s_addr)));
}

void apply_mask_ipv4(prefix_ipv4 *p) {
    if (p == nullptr) {
        return;
    }
    in_addr mask{};
    masklen2ip(p->prefixlen, &mask);
    p->prefix.s_addr &= mask.s_addr;
}

void apply_mask(prefix *p) {
    if (p == nullptr) {
        return;
    }
    int len = addr_bytes(p);
    for (int i = 0; i < len; ++i) {
        int bits = p->prefixlen - i * 8;
        if (bits >= 8) {
            continue;
        }
        int keep = bits <= 0 ? 0 : (0xff << (8 - bits)) & 0xff;
        p->u.val[i] = static_cast<std::uint8_t>(p->u.val[i] & keep);
    }
}

in_addr_t ipv4_broadcast_addr(in_addr_t hostaddr, int masklen) {
    in_addr mask{};
    masklen2ip(masklen, &mask);
    // A /31 or /32 has no broadcast address of its own: all ones.
    return masklen <= 30 ? (hostaddr & mask.s_addr) | ~mask.s_addr : 0xffffffffu;
}

ipv4_text_buf ipv4_text(std::uint32_t nip) {
    ipv4_text_buf t;
    in_addr a{};
    a.s_addr = nip;
    inet_ntop(AF_INET, &a, t.buf, sizeof t.buf);
    return t;
}
