#include "lib/vty_counters.h"

#include <cinttypes>

#include "lib/vty.h"

void vty_out_counter(vty *vty, int width, std::string_view label, std::uint64_t value) {
    vty_out(vty, "  %-*.*s : %" PRIu64 "%s", width, static_cast<int>(label.size()), label.data(),
            value, VTY_NEWLINE);
}
