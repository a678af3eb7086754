// DHCP options: the table of codes the daemon knows, reading options from a
// received message (with overload), appending options to a message being
// built, and the sorted per-pool option lists copied into replies.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "dhcp/dhcp_packet.h"

// Option codes (RFC 2132 and later).
constexpr std::uint8_t DHCP_PADDING = 0x00;
constexpr std::uint8_t DHCP_SUBNET_MASK = 0x01;
constexpr std::uint8_t DHCP_TIME_OFFSET = 0x02;
constexpr std::uint8_t DHCP_ROUTER = 0x03;
constexpr std::uint8_t DHCP_TIME_SERVER = 0x04;
constexpr std::uint8_t DHCP_NAME_SERVER = 0x05;
constexpr std::uint8_t DHCP_DNS_SERVER = 0x06;
constexpr std::uint8_t DHCP_LOG_SERVER = 0x07;
constexpr std::uint8_t DHCP_COOKIE_SERVER = 0x08;
constexpr std::uint8_t DHCP_LPR_SERVER = 0x09;
constexpr std::uint8_t DHCP_HOST_NAME = 0x0c;
constexpr std::uint8_t DHCP_BOOT_SIZE = 0x0d;
constexpr std::uint8_t DHCP_DOMAIN_NAME = 0x0f;
constexpr std::uint8_t DHCP_SWAP_SERVER = 0x10;
constexpr std::uint8_t DHCP_ROOT_PATH = 0x11;
constexpr std::uint8_t DHCP_IP_TTL = 0x17;
constexpr std::uint8_t DHCP_MTU = 0x1a;
constexpr std::uint8_t DHCP_BROADCAST = 0x1c;
constexpr std::uint8_t DHCP_STATIC_ROUTES = 0x21;
constexpr std::uint8_t DHCP_NIS_DOMAIN = 0x28;
constexpr std::uint8_t DHCP_NIS_SERVER = 0x29;
constexpr std::uint8_t DHCP_NTP_SERVER = 0x2a;
constexpr std::uint8_t DHCP_WINS_SERVER = 0x2c;
constexpr std::uint8_t DHCP_REQUESTED_IP = 0x32;
constexpr std::uint8_t DHCP_LEASE_TIME = 0x33;
constexpr std::uint8_t DHCP_OPTION_OVERLOAD = 0x34;
constexpr std::uint8_t DHCP_MESSAGE_TYPE = 0x35;
constexpr std::uint8_t DHCP_SERVER_ID = 0x36;
constexpr std::uint8_t DHCP_PARAM_REQ = 0x37;
constexpr std::uint8_t DHCP_MESSAGE = 0x38;
constexpr std::uint8_t DHCP_MAX_SIZE = 0x39;
constexpr std::uint8_t DHCP_T1 = 0x3a;
constexpr std::uint8_t DHCP_T2 = 0x3b;
constexpr std::uint8_t DHCP_VENDOR = 0x3c;
constexpr std::uint8_t DHCP_CLIENT_ID = 0x3d;
constexpr std::uint8_t DHCP_TFTP_SERVER_NAME = 0x42;
constexpr std::uint8_t DHCP_BOOT_FILE = 0x43;
constexpr std::uint8_t DHCP_RELAY_AGENT_INFO = 0x52;
constexpr std::uint8_t DHCP_STATIC_ROUTES_CLASSLESS = 0x79;
constexpr std::uint8_t DHCP_6RD = 0xd4;
constexpr std::uint8_t DHCP_MS_STATIC_ROUTES = 0xf9;
constexpr std::uint8_t DHCP_WPAD = 0xfc;
constexpr std::uint8_t DHCP_END = 0xff;

// Value types: the low four bits of a descriptor's flags.
constexpr std::uint8_t OPTION_TYPE_NONE = 0;
constexpr std::uint8_t OPTION_TYPE_IP = 1;
constexpr std::uint8_t OPTION_TYPE_IP_PAIR = 2;
constexpr std::uint8_t OPTION_TYPE_STRING = 3;
constexpr std::uint8_t OPTION_TYPE_STRING_HOST = 4;
constexpr std::uint8_t OPTION_TYPE_U8 = 5;
constexpr std::uint8_t OPTION_TYPE_U16 = 6;
constexpr std::uint8_t OPTION_TYPE_U32 = 7;
constexpr std::uint8_t OPTION_TYPE_S32 = 8;
constexpr std::uint8_t OPTION_TYPE_BIN = 9;
constexpr std::uint8_t OPTION_TYPE_STATIC_ROUTES = 10;
constexpr std::uint8_t OPTION_TYPE_6RD = 11;
constexpr std::uint8_t OPTION_TYPE_MASK = 0x0f;
// A client asks for the option by default.
constexpr std::uint8_t OPTION_REQ = 0x10;
// The option may hold several values; a further value is appended.
constexpr std::uint8_t OPTION_LIST = 0x20;

// An option descriptor: flags (type and the bits above), code.
struct dhcp_option {
    std::uint8_t flags;
    std::uint8_t code;
};

// Value length a single value of each type stands for, indexed by type.
extern const std::uint8_t dhcp_option_lengths[12];

// The known options, ended by an entry with code 0.
constexpr std::size_t DHCP_OPTION_COUNT = 38;
extern const dhcp_option dhcp_option_flags[DHCP_OPTION_COUNT + 1];

// Returns the value bytes of the first option `code` (searching the options
// area, then `file`, then `sname` as option 52 says), or nullptr when the
// packet is nullptr, the option is absent or the scan met a malformed option
// first. The length is the byte before the returned pointer; the value never
// runs past the area it was found in.
const std::uint8_t *dhcp_get_option(const dhcp_packet *packet, std::uint8_t code);
std::uint8_t *dhcp_get_option(dhcp_packet *packet, std::uint8_t code);

// The same search, giving the value as a span of exactly its length bytes;
// std::nullopt when the option is absent. An option is carried whatever its
// length: an empty span is a carried option with no value bytes.
std::optional<std::span<const std::uint8_t>> dhcp_get_option_span(const dhcp_packet &packet,
                                                                  std::uint8_t code);

// An address value (network order) read from a value of any length: the
// bytes it has, the ones it lacks below four taken as 0, nothing read beyond.
std::uint32_t dhcp_option_nip(std::span<const std::uint8_t> value);

// Index of the end marker in an options area. An area without one (or whose
// last option runs past it) gives options.size(), which no add accepts.
int dhcp_end_option(std::span<const std::uint8_t> options);

// Appends one whole option {code, length, value} before the end marker when
// it fits the 308-byte building area; logs and changes nothing otherwise.
// `option` must hold at least length + 2 bytes; a shorter span is ignored.
void dhcp_add_binary_option(dhcp_packet &packet, std::span<const std::uint8_t> option);

// Appends option `code` (a table entry) with a numeric value: the low byte of
// `value` for an 8-bit option, its low 16 bits as they lie in memory for a
// 16-bit one (pass htons()), else its four bytes as they lie in memory (pass
// htonl() or an address in network order). Value bytes a type stands for
// beyond those four are zero.
void dhcp_add_simple_option(dhcp_packet &packet, std::uint8_t code, std::uint32_t value);

// A node of a pool's option list: sorted by ascending code, one node per
// code. `data` holds the whole option, code, length, value, and always
// exactly length + 2 bytes.
struct option_set {
    std::vector<std::uint8_t> data;
    std::unique_ptr<option_set> next;

    std::uint8_t code() const { return data[0]; }
    std::uint8_t length() const { return data[1]; }
    std::span<const std::uint8_t> value() const {
        return std::span<const std::uint8_t>(data).subspan(2);
    }
};

// The list functions take the list by its head, the owning pointer the
// keeper of the list holds (an empty head is an empty list); nodes are owned
// by their predecessor and freed when unlinked.

// The node with `code`, or nullptr.
option_set *dhcp_find_option(const std::unique_ptr<option_set> &list, std::uint8_t code);

// Adds a configured value for `option` to the list: a new node in code
// order; for an existing list option the value appended (strings joined with
// one space) unless the length would reach 255; for an existing other
// option nothing. Returns 0 when the value was stored, -1 when it was left
// out.
int dhcp_attach_option(std::unique_ptr<option_set> &list, const dhcp_option &option,
                       std::span<const std::uint8_t> value);

// Unlinks and frees the node with `code`, if any.
void dhcp_delete_option(std::unique_ptr<option_set> &list, std::uint8_t code);

// For the pool report: the first 4 value bytes of option 3, 6, 15 or 44 into
// `first` (as they lie, network order), and for a two-address option 6 the
// next 4 into `second`; bytes the value lacks stay zero. 0, or -1 when the
// option is absent or an output is nullptr.
int dhcp_get_option_value(const std::unique_ptr<option_set> &list, std::uint8_t code,
                          std::uint32_t *first, std::uint32_t *second);

// For a binary option: the bytes the hex text in `value` spells, with
// `length` set to their number; for any other type nothing, `length` alone.
std::optional<std::vector<std::uint8_t>> dhcp_option_hex(const dhcp_option &option,
                                                         std::span<const std::uint8_t> value,
                                                         int &length);
