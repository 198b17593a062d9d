// The operating-system boundary: movable memory blocks, files, temporary
// files and the tick count.  One implementation per system lives beside this
// header; the frame and the codecs see nothing else of the system.
#pragma once
#include <cstdint>

namespace brv {

// ---- Movable memory blocks -------------------------------------------------
// A block is named by a positive 32-bit integer (0 = none).  Blocks never
// move in practice, but callers lock before use and unlock after, so a
// system whose blocks do move needs no change above this layer.
using mem_block = int32_t;

constexpr unsigned MEM_MOVEABLE = 0x0002;
constexpr unsigned MEM_ZEROINIT = 0x0040;

mem_block mem_alloc(uint32_t size, unsigned flags);
void *mem_lock(mem_block block);
int mem_unlock(mem_block block);       // lock count left after the unlock
mem_block mem_free(mem_block block);   // 0 on success, the block on failure
uint32_t mem_size(mem_block block);    // 0 for a block that does not exist
// The block whose data starts exactly at address, or 0.
mem_block mem_handle(const void *address);

// A zeroed record of type T in a block of its own, locked for its life:
// the record, with *block set, or null (nothing left allocated).
template <class T> T *mem_new_record(mem_block *block) {
    *block = mem_alloc(sizeof(T), MEM_MOVEABLE | MEM_ZEROINIT);
    T *record = *block ? static_cast<T *>(mem_lock(*block)) : nullptr;
    if (!record && *block) *block = mem_free(*block);
    return record;
}

// Test hooks: make the k-th allocation from now fail (k = 1 is the next one;
// 0 switches failing off), and count the blocks alive.
void mem_fail_after(int k);
int mem_live_blocks();

// Freed picture-sized blocks may be kept for reuse (they are not alive):
// give them all back to the system, and count the bytes kept.
void mem_trim();
uint32_t mem_cached_bytes();

// ---- Files -------------------------------------------------------------------
constexpr int OS_OPEN_READ = 0;
constexpr int OS_OPEN_READWRITE = 2;

int os_open(const char *name, int mode);     // handle or -1
int os_create(const char *name);             // truncates; handle or -1
bool os_exists(const char *name);
int32_t os_read(int fd, void *buffer, int32_t count);
int32_t os_write(int fd, const void *buffer, int32_t count);
int32_t os_seek(int fd, int32_t offset, int origin);
int os_close(int fd);
int os_delete(const char *name);

// Fills dir (capacity bytes) with the temporary directory, ending in a separator.
bool os_temp_dir(char *dir, int capacity);
// Creates a new temporary file in that directory, open for reading and
// writing, and puts its name in name (capacity bytes): the descriptor, or -1.
// Where the system allows, the file is made exclusively under a name no
// other process can predict, so two loads never share one.
int os_create_temp(char *name, int capacity);

// Milliseconds since some fixed point; wraps.
uint32_t os_tick_count();

// ---- Logical palettes ----------------------------------------------------------
// A palette object from count entries of red, green, blue, flags: a GDI
// palette on Windows, elsewhere a memory block of the same layout as the
// system's LOGPALETTE.  0 when it cannot be made.
int32_t os_palette_create(const uint8_t *entries, int count);
void os_palette_delete(int32_t palette);
// Selects the palette into a device context (foreground) and realizes it;
// returns the palette that was selected before (0 where there are none).
int32_t os_palette_select(void *dc, int32_t palette);

// ---- Clipboard -------------------------------------------------------------------
constexpr int OS_CLIP_DIB = 0;  // a packed DIB: header, colour table, rows
constexpr int OS_CLIP_PNG = 1;  // a PNG file
// Copies the clipboard's picture into a new block of *size bytes (owner: the
// window that opens the clipboard on Windows, the X display's name or null
// elsewhere).  0; -2 when the clipboard cannot be opened or holds no picture;
// -1 when memory fails.
int os_clipboard_picture(void *owner, mem_block *block, uint32_t *size, int *kind);

// ---- Fonts ---------------------------------------------------------------------
// A face chosen by name, for drawing text into 1-bit rows.  Where the named
// face is absent the system's substitute for it serves (on Linux a
// metric-compatible face through fontconfig).
struct os_font;
struct font_request {
    const char *face;
    int32_t height;  // cell height (ascent + descent) in pixels; 0: the system's default
    int32_t width;   // average character width in pixels; 0: in proportion to the height
    bool bold, italic;
};
// 0 with *font set; -1 when memory fails, -7 when no face can be had.
int os_font_open(const font_request &request, os_font **font);
void os_font_close(os_font *font);
// The height of the text extent of "a" (with tab_stop as the measure's tab
// position): the distance from one line to the next.
int32_t os_font_line_height(os_font *font, int32_t tab_stop);
// How far the pen moves past the character, in pixels; negative when the
// font fails (-1 for memory).
int32_t os_font_advance(os_font *font, uint32_t code_point);
// Draws count characters with their cells' tops on the band's first row and
// their pens at xs, setting ink bits (most significant bit first) in rows of
// stride bytes, clipped to width x rows.  0, or negative when the font fails.
int os_font_draw(os_font *font, const uint32_t *code_points, const int32_t *xs, int32_t count, uint8_t *band,
                 int32_t stride, int32_t width, int32_t rows);

}  // namespace brv
