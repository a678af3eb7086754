#include "vemix.h"

#include <cstring>

#include "platform/util.h"

int vemix_str2mac(const char *text, std::uint8_t mac[6]) {
    if (text == nullptr || mac == nullptr || std::strlen(text) != 17) {
        return -1;
    }
    std::uint8_t out[6];
    for (std::size_t i = 0; i < 6; ++i) {
        const char *p = text + i * 3;
        int hi = hex_value(p[0]);
        int lo = hex_value(p[1]);
        if (hi < 0 || lo < 0 || (i < 5 && p[2] != '-')) {
            return -1;
        }
        out[i] = static_cast<std::uint8_t>(hi << 4 | lo);
    }
    std::memcpy(mac, out, 6);
    return 0;
}

std::uint8_t *vemix_remove_tag(std::uint8_t *frame) {
    if (frame == nullptr || frame[12] != 0x81 || frame[13] != 0x00) {
        return frame;
    }
    std::memmove(frame + 4, frame, 12);
    return frame + 4;
}
