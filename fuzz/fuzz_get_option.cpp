// dhcp_get_option, dhcp_end_option and an add over arbitrary messages.
// Input: the wanted code, a flags byte (bit 0: events debug on), then the
// message (cut at 628 bytes, zero-filled when shorter).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "fuzz/fuzz_common.h"
#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_options.h"
#include "lib/log.h"

namespace {

struct Area {
    const std::uint8_t *begin;
    std::size_t size;
};

// A second reading of the search, by offsets: where the value of the first
// `code` lies, or nullptr.
const std::uint8_t *reference_get(const dhcp_packet &p, std::uint8_t code) {
    const Area areas[3] = {
        {p.options, sizeof p.options}, {p.file, sizeof p.file}, {p.sname, sizeof p.sname}};
    bool file_done = false;
    bool sname_done = false;
    unsigned overload = 0;
    const Area *area = &areas[0];
    for (;;) {
        std::size_t i = 0;
        bool ended = false;
        while (i < area->size) {
            const std::uint8_t c = area->begin[i];
            if (c == 0) {
                i++;
                continue;
            }
            if (c == 255) {
                ended = true;
                break;
            }
            if (i + 1 >= area->size || i + 2 + area->begin[i + 1] > area->size) {
                return nullptr;  // malformed
            }
            if (c == code) {
                return area->begin + i + 2;
            }
            // The byte after the length, also for an empty option 52,
            // unless that byte lies beyond the area.
            if (c == 52 && i + 2 < area->size) {
                overload |= area->begin[i + 2];
            }
            i += 2u + area->begin[i + 1];
        }
        if (!ended) {
            return nullptr;  // ran out of bytes: malformed
        }
        if ((overload & 1) != 0 && !file_done) {
            file_done = true;
            area = &areas[1];
        } else if ((overload & 2) != 0 && !sname_done) {
            sname_done = true;
            area = &areas[2];
        } else {
            return nullptr;
        }
    }
}

bool inside(const std::uint8_t *v, const std::uint8_t *begin, std::size_t size) {
    return v >= begin + 2 && v + v[-1] <= begin + size;
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
    const std::uint8_t code = data[0];
    dhcp_debug = (data[1] & 1) != 0 ? DHCP_DEBUG_EVENTS : 0;
    // On the heap at its exact size, so any read past the record is caught.
    auto packet = std::make_unique<dhcp_packet>();
    std::memset(packet.get(), 0, sizeof *packet);
    std::memcpy(packet.get(), data + 2, std::min(size - 2, sizeof *packet));
    const dhcp_packet &p = *packet;

    const std::uint8_t *v = dhcp_get_option(&p, code);
    require(v == reference_get(p, code));
    if (v != nullptr) {
        require(v[-2] == code);
        require(inside(v, p.options, sizeof p.options) || inside(v, p.file, sizeof p.file) ||
                inside(v, p.sname, sizeof p.sname));
        unsigned sum = 0;
        for (unsigned i = 0; i < v[-1]; i++) {
            sum += v[i];
        }
        require(sum <= 255u * 255u);
    }

    // The span getter finds the same value, exactly its length long, and an
    // address read from it never goes past it.
    const auto span = dhcp_get_option_span(p, code);
    require(span.has_value() == (v != nullptr));
    if (span) {
        require(span->data() == v && span->size() == v[-1]);
        std::uint32_t expected = 0;
        std::memcpy(&expected, v, std::min<std::size_t>(4, span->size()));
        require(dhcp_option_nip(*span) == expected);
    }

    const int end = dhcp_end_option(p.options);
    require(end >= 0 && end <= static_cast<int>(sizeof p.options));
    require(end == static_cast<int>(sizeof p.options) || p.options[end] == 255);

    // Adding to whatever came in never writes past the building area.
    dhcp_packet copy = p;
    const std::uint8_t option[3] = {53, 1, 5};
    dhcp_add_binary_option(copy, option);
    const bool added = end + 3 + 1 < 308;
    require(std::memcmp(copy.options + 308, p.options + 308, 80) == 0);
    if (added) {
        require(dhcp_end_option(copy.options) == end + 3);
    } else {
        require(std::memcmp(&copy, &p, sizeof p) == 0);
    }
    return 0;
}
