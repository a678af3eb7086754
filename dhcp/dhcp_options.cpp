#include "dhcp/dhcp_options.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string>

#include "dhcp/dhcp_debug.h"
#include "lib/log.h"
#include "platform/util.h"

const std::uint8_t dhcp_option_lengths[12] = {
    0,   // none
    4,   // IP address
    8,   // IP address pair
    1,   // string (minimum)
    1,   // host-name string (minimum)
    1,   // unsigned 8-bit
    2,   // unsigned 16-bit
    4,   // unsigned 32-bit
    4,   // signed 32-bit
    0,   // binary
    5,   // static routes (minimum)
    22,  // 6rd
};

const dhcp_option dhcp_option_flags[DHCP_OPTION_COUNT + 1] = {
    {0x11, 0x01},  // subnet mask
    {0x08, 0x02},  // time offset
    {0x31, 0x03},  // router
    {0x21, 0x04},  // time server
    {0x21, 0x05},  // name server
    {0x31, 0x06},  // domain name server
    {0x21, 0x07},  // log server
    {0x21, 0x08},  // cookie server
    {0x21, 0x09},  // LPR server
    {0x14, 0x0c},  // host name
    {0x06, 0x0d},  // boot file size
    {0x14, 0x0f},  // domain name
    {0x01, 0x10},  // swap server
    {0x03, 0x11},  // root path
    {0x05, 0x17},  // default IP TTL
    {0x06, 0x1a},  // interface MTU
    {0x11, 0x1c},  // broadcast address
    {0x22, 0x21},  // static routes
    {0x04, 0x28},  // NIS domain
    {0x21, 0x29},  // NIS servers
    {0x31, 0x2a},  // NTP servers
    {0x21, 0x2c},  // NetBIOS name servers
    {0x01, 0x32},  // requested IP address
    {0x07, 0x33},  // lease time
    {0x05, 0x35},  // message type
    {0x01, 0x36},  // server identifier
    {0x03, 0x38},  // message
    {0x06, 0x39},  // maximum message size
    {0x07, 0x3a},  // renewal (T1) time
    {0x07, 0x3b},  // rebinding (T2) time
    {0x03, 0x3c},  // vendor class identifier
    {0x03, 0x3d},  // client identifier
    {0x04, 0x42},  // TFTP server name
    {0x03, 0x43},  // boot file name
    {0x2a, 0x79},  // classless static routes
    {0x0b, 0xd4},  // 6rd
    {0x2a, 0xf9},  // classless static routes, vendor code
    {0x03, 0xfc},  // WPAD URL
    {0x00, 0x00},
};

namespace {

constexpr unsigned kOverloadFile = 0x101;
constexpr unsigned kOverloadSname = 0x202;

bool events_debug() {
    return dhcp_debug_on(DHCP_DEBUG_EVENTS);
}

}  // namespace

const std::uint8_t *dhcp_get_option(const dhcp_packet *packet, std::uint8_t code) {
    if (packet == nullptr) {
        return nullptr;
    }
    const std::uint8_t *area = packet->options;
    std::ptrdiff_t remaining = DHCP_OPTIONS_AREA;
    unsigned overload = 0;

    while (remaining > 0) {
        const std::uint8_t current = area[0];
        if (current == DHCP_PADDING) {
            remaining--;
            area++;
            continue;
        }
        if (current == DHCP_END) {
            if ((overload & kOverloadFile) == 1) {
                overload |= kOverloadFile;
                area = packet->file;
                remaining = DHCP_FILE_SIZE;
            } else if ((overload & kOverloadSname) == 2) {
                overload |= kOverloadSname;
                area = packet->sname;
                remaining = DHCP_SNAME_SIZE;
            } else {
                if (events_debug()) {
                    zlog_info("Option 0x%02x not found", code);
                }
                return nullptr;
            }
            continue;
        }
        // The length byte must itself lie in the area; without it the step
        // below could only run past the end, so it is malformed either way.
        if (remaining < 2) {
            break;
        }
        const std::ptrdiff_t step = area[1] + 2;
        remaining -= step;
        if (remaining < 0) {
            break;
        }
        if (current == code) {
            if (events_debug()) {
                zlog_info("Option 0x%02x found", code);
            }
            return area + 2;
        }
        // The overload value is the byte after the length, also when the
        // length is 0 and that byte is the next option's code: kept so. Only
        // an empty option 52 on the area's last two bytes has no such byte,
        // and the scan ends there anyway.
        if (current == DHCP_OPTION_OVERLOAD && (area[1] > 0 || remaining > 0)) {
            overload |= area[2];
        }
        area += step;
    }
    if (events_debug()) {
        zlog_err("bad packet, malformed option field");
    }
    return nullptr;
}

std::uint8_t *dhcp_get_option(dhcp_packet *packet, std::uint8_t code) {
    return const_cast<std::uint8_t *>(
        dhcp_get_option(static_cast<const dhcp_packet *>(packet), code));
}

std::optional<std::span<const std::uint8_t>> dhcp_get_option_span(const dhcp_packet &packet,
                                                                  std::uint8_t code) {
    const std::uint8_t *value = dhcp_get_option(&packet, code);
    if (value == nullptr) {
        return std::nullopt;
    }
    return std::span<const std::uint8_t>(value, value[-1]);
}

std::uint32_t dhcp_option_nip(std::span<const std::uint8_t> value) {
    std::uint32_t nip = 0;
    if (!value.empty()) {
        std::memcpy(&nip, value.data(), std::min<std::size_t>(sizeof nip, value.size()));
    }
    return nip;
}

int dhcp_end_option(std::span<const std::uint8_t> options) {
    std::size_t i = 0;
    while (i < options.size() && options[i] != DHCP_END) {
        if (options[i] != DHCP_PADDING) {
            if (i + 1 >= options.size()) {
                return static_cast<int>(options.size());
            }
            i += options[i + 1] + 1u;
        }
        i += 1;
    }
    return static_cast<int>(std::min(i, options.size()));
}

void dhcp_add_binary_option(dhcp_packet &packet, std::span<const std::uint8_t> option) {
    if (option.size() < 2 || option.size() < option[1] + 2u) {
        return;
    }
    const auto end = static_cast<std::size_t>(dhcp_end_option(packet.options));
    const std::size_t len = option[1] + 2u;
    if (end + len + 1 >= DHCP_OPTIONS_BUFSIZE) {
        zlog_err("option 0x%02x did not fit into the packet", option[0]);
        return;
    }
    if (events_debug()) {
        // The bytes as text stop at the first zero, and never past the option.
        const auto *text = reinterpret_cast<const char *>(option.data());
        zlog_info("Adding option: %s", std::string(text, strnlen(text, len)).c_str());
    }
    std::memcpy(packet.options + end, option.data(), len);
    packet.options[end + len] = DHCP_END;
}

void dhcp_add_simple_option(dhcp_packet &packet, std::uint8_t code, std::uint32_t value) {
    const dhcp_option *entry = dhcp_option_flags;
    while (entry->code != 0 && entry->code != code) {
        entry++;
    }
    if (entry->code == 0) {
        if (events_debug()) {
            zlog_err("can't add option 0x%02x", code);
        }
        return;
    }
    const std::uint8_t type = entry->flags & OPTION_TYPE_MASK;
    const std::uint8_t len = dhcp_option_lengths[type];
    // Room for the longest type, so a length above the four value bytes
    // reads zeros rather than whatever lies beyond.
    std::array<std::uint8_t, 2 + 22> option{};
    option[0] = code;
    option[1] = len;
    if (type == OPTION_TYPE_U8) {
        option[2] = static_cast<std::uint8_t>(value & 0xff);
    } else if (type == OPTION_TYPE_U16) {
        const auto half = static_cast<std::uint16_t>(value & 0xffff);
        std::memcpy(&option[2], &half, sizeof half);
    } else {
        std::memcpy(&option[2], &value, sizeof value);
    }
    dhcp_add_binary_option(packet, std::span<const std::uint8_t>(option).first(len + 2u));
}

option_set *dhcp_find_option(const std::unique_ptr<option_set> &list, std::uint8_t code) {
    option_set *node = list.get();
    while (node != nullptr && node->code() < code) {
        node = node->next.get();
    }
    return (node != nullptr && node->code() == code) ? node : nullptr;
}

std::optional<std::vector<std::uint8_t>> dhcp_option_hex(const dhcp_option &option,
                                                         std::span<const std::uint8_t> value,
                                                         int &length) {
    if ((option.flags & OPTION_TYPE_MASK) != OPTION_TYPE_BIN) {
        return std::nullopt;
    }
    // The text ends at its first zero byte or with the buffer.
    const std::string text(value.begin(), std::find(value.begin(), value.end(), 0));
    std::vector<std::uint8_t> bytes(text.size() / 2 + 1);
    errno = 0;
    const std::uint8_t *end =
        hex2bin(bytes.data(), text.c_str(), std::min<std::size_t>(255, bytes.size()));
    if (errno != 0) {
        zlog_err("malformed hex string '%s'", text.c_str());
    }
    bytes.resize(static_cast<std::size_t>(end - bytes.data()));
    length = static_cast<int>(bytes.size());
    return bytes;
}

int dhcp_attach_option(std::unique_ptr<option_set> &list, const dhcp_option &option,
                       std::span<const std::uint8_t> value) {
    option_set *existing = dhcp_find_option(list, option.code);
    int length = static_cast<int>(value.size());

    if (existing == nullptr) {
        if (events_debug()) {
            zlog_info("Attaching option %02x to list", option.code);
        }
        const auto converted = dhcp_option_hex(option, value, length);
        const std::span<const std::uint8_t> source =
            converted ? std::span<const std::uint8_t>(*converted) : value;
        const auto len = static_cast<std::uint8_t>(length & 0xff);
        auto node = std::make_unique<option_set>();
        node->data.reserve(len + 2u);
        node->data.push_back(option.code);
        node->data.push_back(len);
        const auto bytes = source.first(len);
        node->data.insert(node->data.end(), bytes.begin(), bytes.end());

        std::unique_ptr<option_set> *link = &list;
        while (*link && (*link)->code() < option.code) {
            link = &(*link)->next;
        }
        node->next = std::move(*link);
        *link = std::move(node);
        return 0;
    }

    if ((option.flags & OPTION_LIST) == 0) {
        return -1;  // the first configured value stays
    }
    if (events_debug()) {
        zlog_info("Attaching option %02x to existing member of list", option.code);
    }
    // A binary value only sets the length here; the text itself is appended.
    // No binary list option exists, so this never shows.
    (void)dhcp_option_hex(option, value, length);
    int old = existing->length();
    if (old + length >= 255) {
        return -1;
    }
    std::vector<std::uint8_t> &data = existing->data;
    const std::uint8_t type = option.flags & OPTION_TYPE_MASK;
    if (type == OPTION_TYPE_STRING || type == OPTION_TYPE_STRING_HOST) {
        data.push_back(' ');
        old++;
    }
    const auto bytes = value.first(static_cast<std::size_t>(length));
    data.insert(data.end(), bytes.begin(), bytes.end());
    data[1] = static_cast<std::uint8_t>((old + length) & 0xff);
    return 0;
}

void dhcp_delete_option(std::unique_ptr<option_set> &list, std::uint8_t code) {
    std::unique_ptr<option_set> *link = &list;
    while (*link && (*link)->code() != code) {
        link = &(*link)->next;
    }
    if (*link) {
        *link = std::move((*link)->next);
    }
}

int dhcp_get_option_value(const std::unique_ptr<option_set> &list, std::uint8_t code,
                          std::uint32_t *first, std::uint32_t *second) {
    if (!list || first == nullptr || second == nullptr) {
        return -1;
    }
    *first = 0;
    *second = 0;
    if (code != DHCP_ROUTER && code != DHCP_DNS_SERVER && code != DHCP_DOMAIN_NAME &&
        code != DHCP_WINS_SERVER) {
        return -1;
    }
    for (const option_set *node = list.get(); node != nullptr; node = node->next.get()) {
        if (node->code() != code) {
            continue;
        }
        const auto value = node->value();
        std::memcpy(first, value.data(), std::min<std::size_t>(4, value.size()));
        if (code == DHCP_DNS_SERVER && value.size() == 8) {
            std::memcpy(second, value.data() + 4, 4);
        }
        return 0;
    }
    return -1;
}
