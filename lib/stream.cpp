#include "stream.h"

#include <algorithm>
#include <cstring>

namespace {

bool can_read(stream *s, std::size_t n) {
    if (s == nullptr) {
        return false;
    }
    if (s->endp - s->getp < n) {
        s->failed = true;
        return false;
    }
    return true;
}

bool can_write(stream *s, std::size_t n) {
    if (s == nullptr) {
        return false;
    }
    if (s->data.size() - s->endp < n) {
        s->failed = true;
        return false;
    }
    return true;
}

template <class T>
T get_be(stream *s) {
    if (!can_read(s, sizeof(T))) {
        return 0;
    }
    T v = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i) {
        v = static_cast<T>((v << 8) | s->data[s->getp + i]);
    }
    s->getp += sizeof(T);
    return v;
}

template <class T>
std::size_t put_be(stream *s, T v) {
    if (!can_write(s, sizeof(T))) {
        return 0;
    }
    for (std::size_t i = 0; i < sizeof(T); ++i) {
        s->data[s->endp + i] = static_cast<std::uint8_t>(v >> (8 * (sizeof(T) - 1 - i)));
    }
    s->endp += sizeof(T);
    return sizeof(T);
}

}  // namespace

std::unique_ptr<stream> stream_new(std::size_t size) {
    auto s = std::make_unique<stream>();
    s->data.assign(size, 0);
    return s;
}

void stream_reset(stream *s) {
    if (s != nullptr) {
        s->getp = s->endp = 0;
        s->failed = false;
    }
}

std::size_t stream_get_getp(const stream *s) {
    return s ? s->getp : 0;
}
std::size_t stream_get_endp(const stream *s) {
    return s ? s->endp : 0;
}
std::size_t stream_get_size(const stream *s) {
    return s ? s->data.size() : 0;
}
std::size_t stream_readable(const stream *s) {
    return s ? s->endp - s->getp : 0;
}
bool stream_failed(const stream *s) {
    return s == nullptr || s->failed;
}

std::span<const std::uint8_t> stream_data(const stream *s) {
    if (s == nullptr) {
        return {};
    }
    return std::span<const std::uint8_t>(s->data.data(), s->endp);
}

std::uint8_t stream_getc(stream *s) {
    return get_be<std::uint8_t>(s);
}
std::uint16_t stream_getw(stream *s) {
    return get_be<std::uint16_t>(s);
}
std::uint32_t stream_getl(stream *s) {
    return get_be<std::uint32_t>(s);
}
std::uint64_t stream_getq(stream *s) {
    return get_be<std::uint64_t>(s);
}

void stream_get(void *dst, stream *s, std::size_t n) {
    if (dst == nullptr) {
        return;
    }
    if (!can_read(s, n)) {
        std::memset(dst, 0, n);
        return;
    }
    std::memcpy(dst, s->data.data() + s->getp, n);
    s->getp += n;
}

void stream_forward_getp(stream *s, std::size_t n) {
    if (can_read(s, n)) {
        s->getp += n;
    }
}

std::size_t stream_putc(stream *s, std::uint8_t v) {
    return put_be(s, v);
}
std::size_t stream_putw(stream *s, std::uint16_t v) {
    return put_be(s, v);
}
std::size_t stream_putl(stream *s, std::uint32_t v) {
    return put_be(s, v);
}
std::size_t stream_putq(stream *s, std::uint64_t v) {
    return put_be(s, v);
}

std::size_t stream_put(stream *s, const void *src, std::size_t n) {
    if (!can_write(s, n)) {
        return 0;
    }
    if (src != nullptr) {
        std::memcpy(s->data.data() + s->endp, src, n);
    } else {
        std::fill_n(s->data.begin() + static_cast<std::ptrdiff_t>(s->endp), n, 0);
    }
    s->endp += n;
    return n;
}

std::size_t stream_putw_at(stream *s, std::size_t pos, std::uint16_t v) {
    if (s == nullptr || pos > s->endp || s->endp - pos < 2) {
        if (s != nullptr) {
            s->failed = true;
        }
        return 0;
    }
    s->data[pos] = static_cast<std::uint8_t>(v >> 8);
    s->data[pos + 1] = static_cast<std::uint8_t>(v);
    return 2;
}

bool stream_assign(stream *s, std::span<const std::uint8_t> bytes) {
    if (s == nullptr) {
        return false;
    }
    stream_reset(s);
    if (bytes.size() > s->data.size()) {
        s->failed = true;
        return false;
    }
    std::copy(bytes.begin(), bytes.end(), s->data.begin());
    s->endp = bytes.size();
    return true;
}
