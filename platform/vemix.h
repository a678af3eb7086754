// Frame and MAC helpers of the switch platform.
#pragma once

#include <cstdint>

// Parses "MM-MM-MM-MM-MM-MM" (hex pairs, either case, '-' between them)
// into 6 bytes. 0 on success, -1 on malformed text (mac left unchanged).
int vemix_str2mac(const char *text, std::uint8_t mac[6]);
