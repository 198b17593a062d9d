// The frame of every in-place colour operation: check the handle and its
// depth, build a new bitmap of the target depth row by row with the status
// callback, and swap it into the handle only when every row is done.
#pragma once
#include "frame/handles.h"

namespace brv {

class reshape {
public:
    // depths: bit mask of accepted source depths (1 << bits).  result() is
    // then 0, or the code that ends the operation before any row.
    reshape(int h, unsigned depths, int target_bits);
    ~reshape();
    reshape(const reshape &) = delete;
    reshape &operator=(const reshape &) = delete;

    int result() const { return result_; }
    int width() const { return width_; }
    int height() const { return height_; }
    int bits() const { return bits_; }
    const uint8_t *palette() const { return src_ + 40; }
    uint8_t *new_palette() { return dst_ + 40; }
    dib_info *new_header() { return dib_of(dst_); }
    // Storage row r (0 is the bottom row of the picture).
    const uint8_t *row(int r) const { return src_ + src_pixels_ + static_cast<size_t>(r) * src_stride_; }
    uint8_t *new_row(int r) { return dst_ + dst_pixels_ + static_cast<size_t>(r) * dst_stride_; }
    // Called before each output row: the status callback's stop value, or 0.
    int status() const { return status_report(height_); }
    // Swaps the new bitmap in when code is not negative; returns code.
    int finish(int code);

private:
    int result_ = 0;
    handle_record *rec_ = nullptr;
    const uint8_t *src_ = nullptr;
    uint8_t *dst_ = nullptr;
    mem_block block_ = 0;
    int width_ = 0, height_ = 0, bits_ = 0, target_ = 0;
    uint32_t src_stride_ = 0, dst_stride_ = 0, src_pixels_ = 0, dst_pixels_ = 0;
    bool src_locked_ = false;
};

// A zero-filled scratch buffer of count T released when it goes out of scope.
template <class T>
struct scratch_array {
    T *data;
    explicit scratch_array(size_t count)
        : data(count && count <= 0x7FFFFFFF / sizeof(T)
                   ? static_cast<T *>(scratch_alloc(static_cast<uint32_t>(count * sizeof(T))))
                   : nullptr) {}
    ~scratch_array() { scratch_free(data); }
    scratch_array(const scratch_array &) = delete;
    scratch_array &operator=(const scratch_array &) = delete;
    explicit operator bool() const { return data != nullptr; }
    T &operator[](size_t i) const { return data[i]; }
};

}  // namespace brv
