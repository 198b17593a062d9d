// How readers take bytes from the file access layer: a bounds-safe buffered
// byte source, and direct reads for decoders that keep their own buffers
// (strips, the LZW and CCITT bit readers).  Neither asks for bytes past the
// source's known end, so a decoder sees a clean end of data on truncated or
// hostile input, whatever the underlying source reports past its end.
#pragma once
#include "frame/frame.h"

namespace brv {

// ---- Direct reads -----------------------------------------------------------------
// One read of at most n bytes: the count it brought, never more than n, 0
// when it failed.  A short read stays short; the format decides what that means.
// Out of line: it runs once a buffer, and inlined it crowds the bit readers'
// hot loops.
__attribute__((noinline)) inline int32_t read_once(int fd, void *buf, int32_t n) {
    if (n <= 0) return 0;
    int32_t got = file_read(fd, buf, n);
    return got < 0 ? 0 : got > n ? n : got;
}

// The bytes between fd's position and end; 0 when the position is unknown.
inline int32_t bytes_left(int fd, int32_t end) {
    int32_t here = file_seek(fd, 0, 1);
    return here < 0 || end < here ? 0 : end - here;
}

// One read of up to n bytes at absolute position at, cut at end.
inline int32_t read_once_at(int fd, int32_t end, int64_t at, void *buf, int32_t n) {
    if (at < 0 || at >= end) return 0;
    if (n > end - at) n = static_cast<int32_t>(end - at);
    if (file_seek(fd, static_cast<int32_t>(at), 0) < 0) return 0;
    return read_once(fd, buf, n);
}

// Reads until n bytes came or a read brings nothing (hooks may trickle);
// the count.
inline int32_t read_fully(int fd, void *buf, int32_t n) {
    auto *d = static_cast<uint8_t *>(buf);
    int32_t done = 0;
    while (done < n) {
        int32_t got = file_read(fd, d + done, n - done);
        if (got <= 0 || got > n - done) break;
        done += got;
    }
    return done;
}

// read_fully of up to n bytes at absolute position at, cut at end.
inline int32_t read_fully_at(int fd, int32_t end, int64_t at, void *buf, int32_t n) {
    if (at < 0 || at >= end) return 0;
    if (n > end - at) n = static_cast<int32_t>(end - at);
    if (file_seek(fd, static_cast<int32_t>(at), 0) < 0) return 0;
    return read_fully(fd, buf, n);
}

// ---- The buffered source ------------------------------------------------------------

struct byte_source {
    int fd = 0;
    uint8_t *buf = nullptr;
    int32_t cap = 0;
    int32_t pos = 0;       // next byte in buf
    int32_t len = 0;       // valid bytes in buf
    int32_t file_pos = 0;  // absolute source position of buf[len]
    int32_t end = 0;       // the source's size
};

// Drops the buffer and moves the file to offset: for a source whose file a
// direct read has moved.
inline void source_restart(byte_source &s, int32_t offset) {
    s.pos = s.len = 0;
    s.file_pos = file_seek(s.fd, offset, 0);
    if (s.file_pos < 0) s.file_pos = s.end;
}

// Takes a scratch buffer of cap bytes and positions at the absolute offset.
inline bool source_open(byte_source &s, int fd, int32_t offset, int32_t cap) {
    s.fd = fd;
    s.cap = cap;
    s.buf = static_cast<uint8_t *>(scratch_alloc(static_cast<uint32_t>(cap)));
    s.end = file_size_hint(fd);
    source_restart(s, offset);
    return s.buf != nullptr;
}

// A source over bytes already in memory (fd -1): the whole block is the
// buffer, so nothing is ever read from the file access layer.
inline void source_open_span(byte_source &s, const uint8_t *data, int32_t size) {
    s.fd = -1;
    s.buf = const_cast<uint8_t *>(data);
    s.cap = s.len = s.end = s.file_pos = size;
    s.pos = 0;
}

inline bool source_fill(byte_source &s) {
    if (s.pos < s.len) return true;
    int32_t want = s.cap;
    if (s.end - s.file_pos < want) want = s.end - s.file_pos;
    if (want <= 0) return false;
    int32_t n = read_once(s.fd, s.buf, want);
    if (n <= 0) return false;
    s.pos = 0;
    s.len = n;
    s.file_pos += n;
    return true;
}

// The next byte, or -1 at the end of the data.
inline int source_byte(byte_source &s) {
    if (s.pos >= s.len && !source_fill(s)) return -1;
    return s.buf[s.pos++];
}

// Copies up to n bytes; returns how many were available.
inline int32_t source_read(byte_source &s, void *dst, int32_t n) {
    auto *d = static_cast<uint8_t *>(dst);
    int32_t done = 0;
    while (done < n) {
        if (s.pos >= s.len && !source_fill(s)) break;
        int32_t k = s.len - s.pos < n - done ? s.len - s.pos : n - done;
        std::memcpy(d + done, s.buf + s.pos, k);
        s.pos += k;
        done += k;
    }
    return done;
}

inline int32_t source_tell(const byte_source &s) { return s.file_pos - (s.len - s.pos); }

inline void source_seek(byte_source &s, int32_t offset) {
    int32_t base = s.file_pos - s.len;
    if (offset >= base && offset <= s.file_pos) {
        s.pos = offset - base;
        return;
    }
    if (s.fd < 0) {  // a span: outside it is the end
        s.pos = s.len;
        return;
    }
    source_restart(s, offset);
}

// Moves n bytes on; false when that passes the end of the data.
inline bool source_skip(byte_source &s, uint64_t n) {
    const int64_t to = int64_t{source_tell(s)} + static_cast<int64_t>(n > 0x7FFFFFFF ? 0x80000000u : n);
    if (to > s.end) return false;
    source_seek(s, static_cast<int32_t>(to));
    return true;
}

inline bool source_at_end(byte_source &s) { return s.pos >= s.len && !source_fill(s); }

// Run-length packets until at least n bytes are in row: a control byte c
// below 128 copies the next c + 1 bytes, any other repeats the next byte
// 257 - c times (128 included).  The last packet may run up to 128 bytes past
// n, which row must have room for.  False when the data ends first.
inline bool source_unpack_runs(byte_source &s, uint8_t *row, int32_t n) {
    for (int32_t done = 0; done < n;) {
        const int c = source_byte(s);
        if (c < 0) return false;
        if (c < 128) {
            if (source_read(s, row + done, c + 1) != c + 1) return false;
            done += c + 1;
        } else {
            const int v = source_byte(s);
            if (v < 0) return false;
            std::memset(row + done, v, static_cast<size_t>(257 - c));
            done += 257 - c;
        }
    }
    return true;
}

}  // namespace brv
