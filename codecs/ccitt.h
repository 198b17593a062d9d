// Bilevel fax coding: Group 3 one- and two-dimensional and Group 4 decoders
// over the file access layer, and the code tables they share.
#pragma once
#include "frame/frame.h"

namespace brv {

// Run-length code tables: for each colour one directly indexed table per
// code length, entries 0x8000 | run (4095 = EOL), 0 where nothing matches.
struct ccitt_tables {
    uint16_t *white[13];  // index = code length; null for lengths with no code
    uint16_t *black[14];
    uint16_t *storage;
};
// Builds the tables in one scratch block: false when it cannot be allocated.
bool ccitt_tables_build(ccitt_tables &t);
void ccitt_tables_free(ccitt_tables &t);

// Row sink: a negative result ends decoding and is returned.
using ccitt_sink = int (*)(void *context, uint8_t *row, int row_index, int byte_count);

struct ccitt_params {
    int32_t width;
    int32_t rows;          // rows to decode in this call
    int32_t first_row;     // index handed to the sink with the first row
    uint32_t compression;  // 2, 3, 4 or 45; any other value decodes 1-D rows without EOL or alignment rules
    uint32_t photometric;  // 0: rows are inverted before delivery
    uint32_t fill_order;   // 2: bytes are bit-reversed as they are read
    bool pad_white;        // the end of the page (RTC, EOFB, a lost EOL, the data's end) delivers the remaining rows white
    const ccitt_tables *tables;  // prebuilt tables, or null to build them for this call
};

// Each decoder reads from the file's current position through the work
// buffer and returns 0 or a negative code.  Input that ends is the end of
// the page: decoding stops with 0 after the last complete row.
int ccitt_decode_g3_1d(uint8_t *work, int32_t work_size, const ccitt_params &p, int fd, ccitt_sink sink, void *context);
int ccitt_decode_g3_2d(uint8_t *work, int32_t work_size, const ccitt_params &p, int fd, ccitt_sink sink, void *context);
int ccitt_decode_g4(uint8_t *work, int32_t work_size, const ccitt_params &p, int fd, ccitt_sink sink, void *context);

// The code of a run: bits (right-aligned) and length, for the encoders.
struct ccitt_code {
    uint16_t bits;
    uint8_t length;
};
// Terminating codes (run < 64) and make-up codes (multiples of 64 up to 2560).
ccitt_code ccitt_terminating(int colour, int run);
ccitt_code ccitt_makeup(int colour, int run);

// ---- Encoders ------------------------------------------------------------------
// Row kinds the encoder writes: one-dimensional rows padded to a byte
// (TIFF compression 2), one-dimensional rows each after an EOL that ends on a
// byte boundary (compression 3), and two-dimensional Group 4 rows.
enum ccitt_kind { CCITT_MH_ALIGNED, CCITT_G3_EOL, CCITT_G4 };

struct ccitt_encoder {
    int fd;
    int32_t width;
    ccitt_kind kind;
    bool reverse;       // fill order 2: bytes go out bit-reversed
    int white;          // the bit value coded as white
    uint8_t *out;       // output buffer, flushed to the file as it fills
    uint32_t used;
    uint64_t acc;       // pending bits, most significant first
    int nbits;
    int32_t *ref, *cur; // transition lists of the reference and coding lines
    void *block;
};
// Allocates the buffers: 0, or -1.  palette is the picture's two colour
// entries: the lighter one is coded white, so every fax output shows the
// picture the user sees whichever order its palette has.
int ccitt_encode_begin(ccitt_encoder &e, int fd, int32_t width, ccitt_kind kind, bool reverse,
                       const uint8_t *palette);
// Codes one row of width pixels: 0, or -9 on a short write.
int ccitt_encode_row(ccitt_encoder &e, const uint8_t *row);
// Ends the page (RTC for Group 3 when asked, EOFB for Group 4) and flushes.
int ccitt_encode_end(ccitt_encoder &e, bool rtc);
void ccitt_encode_free(ccitt_encoder &e);

}  // namespace brv
