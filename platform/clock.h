// Wall clock of the platform, in seconds. Tests may pin it.
#pragma once

#include <cstdint>

std::int32_t kq_time_get();
// Pins the clock to `now` (tests); kq_time_clear() goes back to real time.
void kq_time_set(std::int32_t now);
void kq_time_clear();
