#include "clock.h"

#include <ctime>
#include <optional>

namespace {
std::optional<std::int32_t> pinned;
}

std::int32_t kq_time_get() {
    if (pinned) {
        return *pinned;
    }
    return static_cast<std::int32_t>(std::time(nullptr));
}

void kq_time_set(std::int32_t now) {
    pinned = now;
}
void kq_time_clear() {
    pinned.reset();
}
