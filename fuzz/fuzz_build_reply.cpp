// Builds a pool option list from arbitrary input, then a reply from it the
// way the server does: header, simple options, every node of the list.
//
// Input: message type, flags (bit 0: events debug on), then records
// {op, flags, code, length, value...}: op % 4 is 0 attach (descriptor =
// flags, code), 1 delete, 2 a simple option into the reply, 3 a ready-made
// option into the reply. The value is cut at the input's end.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <vector>

#include "fuzz/fuzz_common.h"
#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_options.h"
#include "lib/log.h"

namespace {

// The options area is a well-formed chain up to its end marker, and nothing
// lies beyond the building area.
void check_reply(const dhcp_packet &p) {
    const int end = dhcp_end_option(p.options);
    require(end >= 0 && end <= 306);
    require(p.options[end] == 255);
    std::size_t i = 0;
    while (p.options[i] != 255) {
        require(p.options[i] != 0);
        i += 2u + p.options[i + 1];
        require(i <= static_cast<std::size_t>(end));
    }
    require(i == static_cast<std::size_t>(end));
    for (std::size_t k = static_cast<std::size_t>(end) + 1; k < sizeof p.options; k++) {
        require(p.options[k] == 0);
    }
}

void check_list(const std::unique_ptr<option_set> &list) {
    int previous = -1;
    for (const option_set *n = list.get(); n != nullptr; n = n->next.get()) {
        require(n->data.size() >= 2);
        require(n->data.size() == n->data[1] + 2u);
        require(n->code() > previous);
        previous = n->code();
        require(dhcp_find_option(list, n->code()) == n);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    // The log is formatted (so its arguments are exercised) but goes nowhere.
    static const bool quiet = [] {
        fuzz_quiet_log();
        return true;
    }();
    (void)quiet;
    if (size < 2) {
        return 0;
    }
    const std::uint8_t type = data[0];
    dhcp_debug = (data[1] & 1) != 0 ? DHCP_DEBUG_EVENTS : 0;

    std::unique_ptr<option_set> list;
    auto reply = std::make_unique<dhcp_packet>();
    dhcp_init_header(*reply, type);
    require(reply->op == ((type == 2 || type == 5 || type == 6) ? 2 : 1));

    std::size_t pos = 2;
    while (pos + 4 <= size) {
        const std::uint8_t op = data[pos] & 3;
        const std::uint8_t flags = data[pos + 1];
        const std::uint8_t code = data[pos + 2];
        std::size_t len = data[pos + 3];
        pos += 4;
        len = std::min(len, size - pos);
        // A copy of exactly the value, so a read beyond it is caught.
        const std::vector<std::uint8_t> value(data + pos, data + pos + len);
        pos += len;
        // Pad and end are never options a caller adds or configures.
        if ((op == 0 || op == 3) && (code == 0 || code == 255)) {
            continue;
        }
        switch (op) {
            case 0: {
                const option_set *before = dhcp_find_option(list, code);
                const std::size_t old = before != nullptr ? before->length() : 0;
                const int rc = dhcp_attach_option(list, dhcp_option{flags, code}, value);
                const option_set *after = dhcp_find_option(list, code);
                require(after != nullptr);
                if (before == nullptr) {
                    require(rc == 0);
                } else if (rc != 0) {
                    require(after->length() == old);
                }
                break;
            }
            case 1:
                dhcp_delete_option(list, code);
                require(dhcp_find_option(list, code) == nullptr);
                break;
            case 2: {
                std::uint32_t v = 0;
                if (!value.empty()) {
                    std::memcpy(&v, value.data(), std::min<std::size_t>(4, value.size()));
                }
                dhcp_add_simple_option(*reply, code, v);
                break;
            }
            default: {
                std::vector<std::uint8_t> option = {code, static_cast<std::uint8_t>(value.size())};
                option.insert(option.end(), value.begin(), value.end());
                dhcp_add_binary_option(*reply, option);
                break;
            }
        }
        check_list(list);
        check_reply(*reply);
    }

    // The pool's options go in whole, in list order.
    for (const option_set *n = list.get(); n != nullptr; n = n->next.get()) {
        const int end = dhcp_end_option(reply->options);
        dhcp_add_binary_option(*reply, n->data);
        if (end + static_cast<int>(n->data.size()) + 1 < 308) {
            require(std::memcmp(reply->options + end, n->data.data(), n->data.size()) == 0);
        }
        check_reply(*reply);
    }
    std::uint32_t first = 0;
    std::uint32_t second = 0;
    for (const std::uint8_t code :
         {DHCP_ROUTER, DHCP_DNS_SERVER, DHCP_DOMAIN_NAME, DHCP_WINS_SERVER}) {
        (void)dhcp_get_option_value(list, code, &first, &second);
    }
    // What the codec reads back from the reply is always a well-bounded value.
    for (unsigned code = 1; code < 255; code++) {
        const std::uint8_t *v = dhcp_get_option(reply.get(), static_cast<std::uint8_t>(code));
        if (v != nullptr) {
            require(v + v[-1] <= reply->options + 307);
        }
    }
    return 0;
}
