// Requests for the in-process server tests: dotted-quad to network order
// (nip), a sender that drops every reply (no_send), a bare DISCOVER from
// 02:00:00:00:00:<mac> (discover) and a request being built option by
// option, END after the last one (Request).
#pragma once

#include <arpa/inet.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "dhcp/dhcp_options.h"
#include "dhcp/dhcp_packet.h"

namespace dhcps_test {

inline std::uint32_t nip(const char *a) {
    in_addr v{};
    inet_pton(AF_INET, a, &v);
    return v.s_addr;
}

inline int no_send(const dhcp_packet &, std::uint32_t, std::uint32_t, const std::uint8_t *, int) {
    return 0;
}

// A DISCOVER from ...:mac with `hlen`.
inline dhcp_packet discover(std::uint8_t mac, std::uint8_t hlen = 6) {
    dhcp_packet p{};
    p.op = BOOTREQUEST;
    p.htype = 1;
    p.hlen = hlen;
    p.chaddr[0] = 2;
    p.chaddr[5] = mac;
    p.cookie = htonl(DHCP_MAGIC);
    p.options[0] = DHCP_MESSAGE_TYPE;
    p.options[1] = 1;
    p.options[2] = DHCPDISCOVER;
    p.options[3] = DHCP_END;
    return p;
}

struct Request {
    dhcp_packet p{};
    std::size_t at = 0;
    Request(std::uint8_t type, std::uint8_t mac_last) {
        p.op = BOOTREQUEST;
        p.htype = 1;
        p.hlen = 6;
        p.xid = htonl(0x1234);
        std::uint8_t mac[6] = {0x02, 0, 0, 0, 0, mac_last};
        std::memcpy(p.chaddr, mac, 6);
        p.cookie = htonl(DHCP_MAGIC);
        opt(DHCP_MESSAGE_TYPE, {type});
    }
    Request &opt(std::uint8_t code, std::vector<std::uint8_t> v) {
        p.options[at++] = code;
        p.options[at++] = static_cast<std::uint8_t>(v.size());
        for (auto b : v) {
            p.options[at++] = b;
        }
        p.options[at] = DHCP_END;
        return *this;
    }
    // Bytes as they go into the options area, end marker after them.
    Request &raw(const std::vector<std::uint8_t> &bytes) {
        for (auto b : bytes) {
            p.options[at++] = b;
        }
        p.options[at] = DHCP_END;
        return *this;
    }
    Request &addr_opt(std::uint8_t code, const char *a) {
        std::uint32_t n = nip(a);
        auto *b = reinterpret_cast<std::uint8_t *>(&n);
        return opt(code, {b[0], b[1], b[2], b[3]});
    }
};

}  // namespace dhcps_test
