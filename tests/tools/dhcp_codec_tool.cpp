// Drives the option codec from line commands on stdin, for cross-checks
// against an independent DHCP implementation. Every command answers one
// line starting with "ok" or "err"; each log line it caused comes first as
// "log <priority> <text as hex>".
//
//   clear                empty message record and option list
//   debug N              dhcp_debug = N
//   load HEX             the message record = HEX (cut at 628, zero-filled)
//   init TYPE            dhcp_init_header
//   field NAME VALUE     op htype hlen hops secs flags (decimal), xid (hex),
//                        ciaddr yiaddr siaddr giaddr (dotted), chaddr sname
//                        file (hex)
//   simple CODE N        dhcp_add_simple_option with N as the caller passes
//                        it: as is for 8-bit options, htons for 16-bit ones,
//                        htonl otherwise
//   binary HEX           dhcp_add_binary_option
//   attach FLAGS CODE HEX|-   dhcp_attach_option on the tool's list -> rc
//   delete CODE          dhcp_delete_option
//   list                 the list's nodes, hex each
//   pool                 every node of the list into the message, in order
//   get CODE             found LEN HEX | none
//   scan                 every code found, C:LEN:HEX, then the outcome for
//                        absent codes: end=notfound | end=malformed
//   value CODE           dhcp_get_option_value -> rc FIRST SECOND (hex)
//   end                  dhcp_end_option of the options area
//   dump                 the message as sent: fixed part and options up to
//                        the end marker
//   dumpall              all 628 bytes
#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_options.h"
#include "dhcp/dhcp_packet.h"
#include "lib/log.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

std::string to_hex(const std::uint8_t *data, std::size_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    s.reserve(n * 2);
    for (std::size_t i = 0; i < n; i++) {
        s += digits[data[i] >> 4];
        s += digits[data[i] & 0xf];
    }
    return s;
}

bool from_hex(const std::string &text, Bytes &out) {
    out.clear();
    if (text == "-") {
        return true;
    }
    if (text.size() % 2 != 0) {
        return false;
    }
    for (std::size_t i = 0; i < text.size(); i += 2) {
        unsigned v = 0;
        if (std::sscanf(text.c_str() + i, "%2x", &v) != 1) {
            return false;
        }
        out.push_back(static_cast<std::uint8_t>(v));
    }
    return true;
}

std::uint8_t option_type(std::uint8_t code) {
    for (const dhcp_option *e = dhcp_option_flags; e->code != 0; e++) {
        if (e->code == code) {
            return e->flags & OPTION_TYPE_MASK;
        }
    }
    return OPTION_TYPE_U32;
}

struct Session {
    dhcp_packet packet{};
    std::unique_ptr<option_set> list;
    std::vector<std::pair<int, std::string>> logs;

    std::string run(const std::string &line);
};

void copy_hex_field(std::uint8_t *field, std::size_t size, const Bytes &b) {
    std::memset(field, 0, size);
    std::memcpy(field, b.data(), std::min(size, b.size()));
}

std::string Session::run(const std::string &line) {
    std::istringstream in(line);
    std::string cmd;
    in >> cmd;
    Bytes bytes;
    if (cmd == "clear") {
        std::memset(&packet, 0, sizeof packet);
        list.reset();
        return "ok";
    }
    if (cmd == "debug") {
        unsigned long n = 0;
        in >> n;
        dhcp_debug = static_cast<std::uint32_t>(n);
        return "ok";
    }
    if (cmd == "load") {
        std::string h;
        in >> h;
        if (!from_hex(h, bytes)) {
            return "err hex";
        }
        std::memset(&packet, 0, sizeof packet);
        std::memcpy(&packet, bytes.data(), std::min(bytes.size(), sizeof packet));
        return "ok " + std::to_string(bytes.size());
    }
    if (cmd == "init") {
        unsigned type = 0;
        in >> type;
        dhcp_init_header(packet, static_cast<std::uint8_t>(type));
        return "ok";
    }
    if (cmd == "field") {
        std::string name;
        std::string value;
        in >> name >> value;
        const unsigned long n = std::strtoul(value.c_str(), nullptr, name == "xid" ? 16 : 10);
        in_addr addr{};
        if (name == "op") {
            packet.op = static_cast<std::uint8_t>(n);
        } else if (name == "htype") {
            packet.htype = static_cast<std::uint8_t>(n);
        } else if (name == "hlen") {
            packet.hlen = static_cast<std::uint8_t>(n);
        } else if (name == "hops") {
            packet.hops = static_cast<std::uint8_t>(n);
        } else if (name == "secs") {
            packet.secs = htons(static_cast<std::uint16_t>(n));
        } else if (name == "flags") {
            packet.flags = htons(static_cast<std::uint16_t>(n));
        } else if (name == "xid") {
            packet.xid = htonl(static_cast<std::uint32_t>(n));
        } else if (name == "ciaddr" || name == "yiaddr" || name == "siaddr" || name == "giaddr") {
            if (inet_pton(AF_INET, value.c_str(), &addr) != 1) {
                return "err address";
            }
            std::uint32_t *f = name == "ciaddr"   ? &packet.ciaddr
                               : name == "yiaddr" ? &packet.yiaddr
                               : name == "siaddr" ? &packet.siaddr_nip
                                                  : &packet.gateway_nip;
            *f = addr.s_addr;
        } else if (name == "chaddr" || name == "sname" || name == "file") {
            if (!from_hex(value, bytes)) {
                return "err hex";
            }
            if (name == "chaddr") {
                copy_hex_field(packet.chaddr, sizeof packet.chaddr, bytes);
            } else if (name == "sname") {
                copy_hex_field(packet.sname, sizeof packet.sname, bytes);
            } else {
                copy_hex_field(packet.file, sizeof packet.file, bytes);
            }
        } else {
            return "err field";
        }
        return "ok";
    }
    if (cmd == "simple") {
        unsigned code = 0;
        unsigned long n = 0;
        in >> code >> n;
        const auto c = static_cast<std::uint8_t>(code);
        const auto v = static_cast<std::uint32_t>(n);
        const std::uint8_t type = option_type(c);
        std::uint32_t value = htonl(v);
        if (type == OPTION_TYPE_U8) {
            value = v;
        } else if (type == OPTION_TYPE_U16) {
            value = htons(static_cast<std::uint16_t>(v));
        }
        dhcp_add_simple_option(packet, c, value);
        return "ok";
    }
    if (cmd == "binary") {
        std::string h;
        in >> h;
        if (!from_hex(h, bytes)) {
            return "err hex";
        }
        dhcp_add_binary_option(packet, bytes);
        return "ok";
    }
    if (cmd == "attach") {
        std::string flags;
        unsigned code = 0;
        std::string h;
        in >> flags >> code >> h;
        if (!from_hex(h, bytes)) {
            return "err hex";
        }
        const dhcp_option option{static_cast<std::uint8_t>(std::strtoul(flags.c_str(), nullptr, 0)),
                                 static_cast<std::uint8_t>(code)};
        return "ok " + std::to_string(dhcp_attach_option(list, option, bytes));
    }
    if (cmd == "delete") {
        unsigned code = 0;
        in >> code;
        dhcp_delete_option(list, static_cast<std::uint8_t>(code));
        return "ok";
    }
    if (cmd == "list") {
        std::string out = "ok";
        for (const option_set *n = list.get(); n != nullptr; n = n->next.get()) {
            out += " " + to_hex(n->data.data(), n->data.size());
        }
        return out;
    }
    if (cmd == "pool") {
        for (const option_set *n = list.get(); n != nullptr; n = n->next.get()) {
            dhcp_add_binary_option(packet, n->data);
        }
        return "ok";
    }
    if (cmd == "get") {
        unsigned code = 0;
        in >> code;
        const std::uint8_t *v = dhcp_get_option(&packet, static_cast<std::uint8_t>(code));
        if (v == nullptr) {
            return "ok none";
        }
        return "ok found " + std::to_string(v[-1]) + " " + to_hex(v, v[-1]);
    }
    if (cmd == "scan") {
        const std::uint32_t saved = dhcp_debug;
        dhcp_debug |= DHCP_DEBUG_EVENTS;
        std::string out = "ok";
        std::string absent = "none";
        for (unsigned code = 1; code < 255; code++) {
            logs.clear();
            const std::uint8_t *v = dhcp_get_option(&packet, static_cast<std::uint8_t>(code));
            if (v != nullptr) {
                out += " " + std::to_string(code) + ":" + std::to_string(v[-1]) + ":" +
                       to_hex(v, v[-1]);
            } else if (!logs.empty()) {
                absent = logs.back().second.find("malformed") != std::string::npos ? "malformed"
                                                                                   : "notfound";
            }
        }
        logs.clear();
        dhcp_debug = saved;
        return out + " end=" + absent;
    }
    if (cmd == "value") {
        unsigned code = 0;
        in >> code;
        std::uint32_t first = 0;
        std::uint32_t second = 0;
        const int rc =
            dhcp_get_option_value(list, static_cast<std::uint8_t>(code), &first, &second);
        return "ok " + std::to_string(rc) + " " +
               to_hex(reinterpret_cast<const std::uint8_t *>(&first), 4) + " " +
               to_hex(reinterpret_cast<const std::uint8_t *>(&second), 4);
    }
    if (cmd == "end") {
        return "ok " + std::to_string(dhcp_end_option(packet.options));
    }
    if (cmd == "dump") {
        const int end =
            std::min(dhcp_end_option(packet.options), static_cast<int>(DHCP_OPTIONS_AREA) - 1);
        return "ok " + to_hex(reinterpret_cast<const std::uint8_t *>(&packet),
                              DHCP_FIXED_SIZE + static_cast<std::size_t>(end) + 1);
    }
    if (cmd == "dumpall") {
        return "ok " + to_hex(reinterpret_cast<const std::uint8_t *>(&packet), sizeof packet);
    }
    return "err command";
}

}  // namespace

int main() {
    Session session;
    zlog_set_hook([&session](int prio, std::string_view text) {
        session.logs.emplace_back(prio, std::string(text));
    });
    std::string line;
    while (std::getline(std::cin, line)) {
        if (line.empty()) {
            continue;
        }
        session.logs.clear();
        const std::string answer = session.run(line);
        for (const auto &[prio, text] : session.logs) {
            std::cout << "log " << prio << " "
                      << to_hex(reinterpret_cast<const std::uint8_t *>(text.data()), text.size())
                      << "\n";
        }
        std::cout << answer << std::endl;
    }
    return 0;
}
