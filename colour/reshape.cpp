// The in-place frame shared by the colour operations: the new bitmap is
// made first and swapped in last, so a failure leaves the handle as it was.
#include "colour/reshape.h"

namespace brv {

reshape::reshape(int h, unsigned depths, int target_bits) : target_(target_bits) {
    rec_ = handle_get(h);
    if (!rec_) {
        result_ = IMG_ERR_HANDLE;
        return;
    }
    if (rec_->dib_memory) {
        src_ = static_cast<const uint8_t *>(mem_lock(rec_->dib_memory));
        src_locked_ = src_ != nullptr;
    } else {
        src_ = static_cast<const uint8_t *>(rec_->dib_address);  // an adopted bitmap outside any block
    }
    if (!src_) {
        result_ = IMG_ERR_MEMORY;
        return;
    }
    const dib_info *info = dib_of(const_cast<uint8_t *>(src_));
    width_ = info->biWidth;
    height_ = info->biHeight;
    bits_ = info->biBitCount;
    if (bits_ > 24 || !(depths >> bits_ & 1)) {
        result_ = IMG_ERR_TYPE;
        return;
    }
    src_stride_ = row_bytes(width_, bits_);
    dst_stride_ = row_bytes(width_, target_bits);
    src_pixels_ = 40 + palette_bytes(bits_);
    dst_pixels_ = 40 + palette_bytes(target_bits);
    uint32_t size;
    uint64_t rows4 = (static_cast<uint64_t>(height_) + 3) & ~uint64_t{3};
    if (!dst_stride_ || height_ < 1 || !size_mul_add(dst_stride_, rows4, dst_pixels_ + 2000, &size)) {
        result_ = IMG_ERR_MEMORY;
        return;
    }
    block_ = mem_alloc(size, MEM_MOVEABLE | MEM_ZEROINIT);
    dst_ = block_ ? static_cast<uint8_t *>(mem_lock(block_)) : nullptr;
    if (!dst_) {
        result_ = IMG_ERR_MEMORY;
        return;
    }
    std::memcpy(dst_, src_, 40);
    dib_info *out = dib_of(dst_);
    out->biBitCount = static_cast<uint16_t>(target_bits);
    out->biCompression = 0;
    out->biSizeImage = dst_stride_ * static_cast<uint32_t>(height_);
}

int reshape::finish(int code) {
    if (code < 0 || !dst_) return code;
    if (src_locked_) {
        mem_unlock(rec_->dib_memory);
        src_locked_ = false;
    }
    // Freeing ignores a lock a load left behind.
    if (rec_->dib_memory) mem_free(rec_->dib_memory);
    mem_unlock(block_);
    rec_->dib_memory = block_;
    rec_->dib_address = dst_;
    rec_->stride = static_cast<int32_t>(dst_stride_);
    block_ = 0;
    dst_ = nullptr;
    return code;
}

reshape::~reshape() {
    if (src_locked_) mem_unlock(rec_->dib_memory);
    if (block_) {
        mem_unlock(block_);
        mem_free(block_);
    }
}

}  // namespace brv
