// Small platform helpers: hex text to bytes, the Internet checksum and a
// monotonic millisecond clock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

// Converts pairs of hex digits (either case) from the NUL-terminated `src`
// into bytes at `dst`, at most `max` of them. Returns the position after the
// last byte written. Malformed text (a non-hex character or a lone trailing
// digit) sets errno to EINVAL, text left over once `max` bytes are written
// sets it to E2BIG; either way the bytes converted so far are kept. errno is
// untouched on success, so callers clear it first.
// Value of one hex digit (either case), -1 for any other character.
int hex_value(char c);

std::uint8_t *hex2bin(std::uint8_t *dst, const char *src, std::size_t max);

// RFC 1071 one's-complement checksum of `data`, complemented and returned in
// memory order: store it straight into the header field.
std::uint16_t inet_cksum(std::span<const std::uint8_t> data);

// Milliseconds of CLOCK_MONOTONIC.
std::uint64_t monotonic_ms();
