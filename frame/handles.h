// Bitmap handles: the process-wide handle table and the record behind a slot.
#pragma once
#include "frame/frame.h"

#include <cstddef>

namespace brv {

struct handle_record {
    int32_t display_a[4];      // owned by the display code
    int32_t crop_left, crop_top, crop_width, crop_height;
    int32_t display_b[2];
    mem_block dib_memory;      // the block holding the DIB, 0 = none
    int32_t raster_op;
    intptr_t palette_object;
    int32_t display_c;
    void *dib_address;         // locked address while in use
    int32_t width, height, stride;
    int32_t last_row;          // last stored row of a shrinking load
    int32_t gamma;             // hundredths; 0 reads as 100
    int32_t brightness, contrast;
    int32_t display_d[6];
    intptr_t previous_palette;
    int32_t reserved;
    uint32_t transparent_colour;
    mem_block record_block;    // the block this record lives in
};
// In the 32-bit DLL every field is one 32-bit word: 31 words, then the
// record's own block.
static_assert(sizeof(void *) != 4 || (offsetof(handle_record, transparent_colour) == 120 &&
                                      offsetof(handle_record, record_block) == 124));

int handle_alloc();
int handle_check(int h);
handle_record *handle_get(int h);   // nullptr unless handle_check passes
int handle_free(int h);
int handle_free_keep(int h);

// Locks the handle's DIB for the guard's lifetime.
class dib_lock {
public:
    explicit dib_lock(handle_record *rec) : rec_(rec) {
        if (!rec_) return;
        if (rec_->dib_memory) {
            addr_ = mem_lock(rec_->dib_memory);
            if (addr_) rec_->dib_address = addr_;
        } else {
            addr_ = rec_->dib_address;  // an adopted bitmap outside any block
        }
    }
    ~dib_lock() {
        if (addr_ && rec_->dib_memory) mem_unlock(rec_->dib_memory);
    }
    dib_lock(const dib_lock &) = delete;
    dib_lock &operator=(const dib_lock &) = delete;
    uint8_t *get() const { return static_cast<uint8_t *>(addr_); }
    explicit operator bool() const { return addr_ != nullptr; }

private:
    handle_record *rec_;
    void *addr_ = nullptr;
};

// The 256-entry display level table from a gamma, brightness and contrast.
void build_level_table(int gamma, int brightness, int contrast, uint8_t table[256]);

}  // namespace brv
