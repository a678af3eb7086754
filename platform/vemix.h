// Frame and MAC helpers of the switch platform.
#pragma once

#include <cstdint>

// Parses "MM-MM-MM-MM-MM-MM" (hex pairs, either case, '-' between them)
// into 6 bytes. 0 on success, -1 on malformed text (mac left unchanged).
int vemix_str2mac(const char *text, std::uint8_t mac[6]);
// Takes out one 802.1Q tag: when bytes 12-13 of `frame` read 0x8100 the two
// MAC addresses are moved 4 bytes on and the untagged frame begins at
// frame + 4, which is returned; otherwise `frame` itself is returned (also
// for a null frame). The frame must hold at least 14 bytes; the tag's 4
// bytes are overwritten.
std::uint8_t *vemix_remove_tag(std::uint8_t *frame);
