#include "platform/util.h"

#include <cerrno>
#include <cstring>
#include <ctime>

int hex_value(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

std::uint8_t *hex2bin(std::uint8_t *dst, const char *src, std::size_t max) {
    std::size_t written = 0;
    while (*src != '\0') {
        if (written == max) {
            errno = E2BIG;
            break;
        }
        int hi = hex_value(src[0]);
        int lo = hi < 0 ? -1 : hex_value(src[1]);
        if (lo < 0) {
            errno = EINVAL;
            break;
        }
        dst[written++] = static_cast<std::uint8_t>((hi << 4) | lo);
        src += 2;
    }
    return dst + written;
}

std::uint16_t inet_cksum(std::span<const std::uint8_t> data) {
    // Words are summed as they lie in memory, so the folded result needs no
    // byte swapping to be stored into a header on any host.
    std::uint64_t sum = 0;
    std::size_t i = 0;
    for (; i + 1 < data.size(); i += 2) {
        std::uint16_t word;
        std::memcpy(&word, data.data() + i, sizeof word);
        sum += word;
    }
    if (i < data.size()) {
        const std::uint8_t last[2] = {data[i], 0};
        std::uint16_t word;
        std::memcpy(&word, last, sizeof word);
        sum += word;
    }
    while ((sum >> 16) != 0) {
        sum = (sum & 0xffff) + (sum >> 16);
    }
    return static_cast<std::uint16_t>(~sum);
}

std::uint64_t monotonic_ms() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * 1000u +
           static_cast<std::uint64_t>(ts.tv_nsec) / 1000000u;
}
