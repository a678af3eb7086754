// A bounded byte stream for interface-manager messages.
//
// Writers append at the end pointer, readers consume from the get pointer;
// multi-byte values are in network byte order. Nothing ever reads or writes
// outside the buffer: a read past the written data returns zeros and a write
// past the capacity writes nothing, and either marks the stream failed, so
// a parser reads a whole message and checks stream_failed() once at the end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

struct stream {
    std::vector<std::uint8_t> data;  // capacity is data.size()
    std::size_t getp = 0;
    std::size_t endp = 0;
    bool failed = false;
};

std::unique_ptr<stream> stream_new(std::size_t size);
// Empties the stream and clears the failed mark.
void stream_reset(stream *s);

std::size_t stream_get_getp(const stream *s);
std::size_t stream_get_endp(const stream *s);
std::size_t stream_get_size(const stream *s);
// Bytes written and not yet read.
std::size_t stream_readable(const stream *s);
bool stream_failed(const stream *s);
// The written bytes.
std::span<const std::uint8_t> stream_data(const stream *s);

std::uint8_t stream_getc(stream *s);
std::uint16_t stream_getw(stream *s);
std::uint32_t stream_getl(stream *s);
std::uint64_t stream_getq(stream *s);
// Copies n bytes; on a short stream the destination is zero-filled.
void stream_get(void *dst, stream *s, std::size_t n);
void stream_forward_getp(stream *s, std::size_t n);

// Writers return the number of bytes written (0 when it did not fit).
std::size_t stream_putc(stream *s, std::uint8_t v);
std::size_t stream_putw(stream *s, std::uint16_t v);
std::size_t stream_putl(stream *s, std::uint32_t v);
std::size_t stream_putq(stream *s, std::uint64_t v);
std::size_t stream_put(stream *s, const void *src, std::size_t n);
// Overwrites a 16-bit value already written at `pos` (a length fixed up last).
std::size_t stream_putw_at(stream *s, std::size_t pos, std::uint16_t v);
// Replaces the content with `bytes` (a received message), ready to read.
bool stream_assign(stream *s, std::span<const std::uint8_t> bytes);
