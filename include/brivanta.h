/* Brivanta image file library: the public interface.
 *
 * Pictures live in memory as device-independent bitmaps behind small integer
 * handles.  Every export returns a signed 32-bit int: 0 or a positive value
 * (a handle, a type code, a count) on success, a negative IMG_ERR_* code on
 * failure.  The library serves one call at a time. */
#ifndef BRIVANTA_H
#define BRIVANTA_H

#ifdef __cplusplus
extern "C" {
#endif

/* The Windows standard calling convention on 32-bit Windows, nothing elsewhere. */
#if defined(_WIN32) && !defined(_WIN64)
#define IMG_API __stdcall
#else
#define IMG_API
#endif
#define IMG_CALLBACK IMG_API

#if defined(_WIN32)
#if defined(BRIVANTA_BUILD) && !defined(BRIVANTA_STATIC)
#define IMG_EXPORT __declspec(dllexport)
#else
#define IMG_EXPORT
#endif
#elif defined(BRIVANTA_BUILD)
#define IMG_EXPORT __attribute__((visibility("default")))
#else
#define IMG_EXPORT
#endif

/* Error codes. */
#define IMG_ERR_MEMORY        (-1)  /* out of memory or a working buffer over its limit */
#define IMG_ERR_OPEN          (-2)  /* input cannot be opened, or its header is too short */
#define IMG_ERR_HEADER        (-3)  /* invalid image header or corrupt structure */
#define IMG_ERR_CREATE        (-6)  /* output or temporary file cannot be opened or created */
#define IMG_ERR_TYPE          (-7)  /* unknown or disabled type, or a variant or depth not accepted */
#define IMG_ERR_EPS_PREVIEW   (-8)  /* EPS wrapper with a preview of unknown type */
#define IMG_ERR_WRITE         (-9)  /* a write came out short */
#define IMG_ERR_PAGE          (-11) /* the requested page does not exist */
#define IMG_ERR_DATA          (-12) /* image data missing or truncated */
#define IMG_ERR_HANDLE        (-13) /* invalid handle */
#define IMG_ERR_SCAN_SOURCE   (-16) /* scanning failure */
#define IMG_ERR_SCAN_ACQUIRE  (-17) /* scanning failure */
#define IMG_ERR_STOPPED       (-18) /* stopped by a header callback */
#define IMG_ERR_DEPTH         (-21) /* bit depth not supported by the format or operation */
#define IMG_ERR_NO_TRANSPARENT (-26) /* the bitmap has no transparent colour */

/* Type codes, shared by detection and saving. */
#define IMG_TYPE_BY_EXTENSION (-1)
#define IMG_TYPE_TIFF        0
#define IMG_TYPE_BMP         1
#define IMG_TYPE_PCX         2
#define IMG_TYPE_TARGA       3
#define IMG_TYPE_GIF         4
#define IMG_TYPE_WPG         5
#define IMG_TYPE_WMF         6
#define IMG_TYPE_TIFF_HUFFMAN 7
#define IMG_TYPE_TIFF_G3     8
#define IMG_TYPE_TIFF_LZW    9
#define IMG_TYPE_TIFF_G4     10
#define IMG_TYPE_DCX         11
#define IMG_TYPE_BMP_RLE     12
#define IMG_TYPE_JPEG        13
#define IMG_TYPE_EPS         14
#define IMG_TYPE_PICT        15
#define IMG_TYPE_TIFF_PACKBITS 16
#define IMG_TYPE_TIFF_45     17
#define IMG_TYPE_CALS        18
#define IMG_TYPE_LSD         19
#define IMG_TYPE_XBM         20
#define IMG_TYPE_MACPAINT    21
#define IMG_TYPE_GX2         22
#define IMG_TYPE_KOFAX       23
#define IMG_TYPE_IOCA        24
#define IMG_TYPE_ICO         25
#define IMG_TYPE_IFF         26
#define IMG_TYPE_CLIPBOARD   27
#define IMG_TYPE_GEM         28
#define IMG_TYPE_BTR         29
#define IMG_TYPE_MSP         30
#define IMG_TYPE_CUT         31
#define IMG_TYPE_TARGA16     32
#define IMG_TYPE_RAW_G3      33
#define IMG_TYPE_RAW_G4      34
#define IMG_TYPE_XPM         35
#define IMG_TYPE_XWD         36
#define IMG_TYPE_SUNRAS      37
#define IMG_TYPE_TEXT        38
#define IMG_TYPE_PHOTOCD     39
#define IMG_TYPE_TIFF_JPEG   40
#define IMG_TYPE_PSD         41
#define IMG_TYPE_IMT         42
/* Extensions of the table: codes past the original ones, each with its own
 * auto-detect flag and signature probe. */
#define IMG_TYPE_PNG         43  /* PNG, every colour type; writes 1, 4, 8 and 24 bits */

/* What IMGLOW_get_type_info reports of a type code. */
#define IMG_TYPE_CAN_READ    1  /* files of this type load */
#define IMG_TYPE_CAN_WRITE   2  /* the save exports write this code */
#define IMG_TYPE_DETECTED    4  /* IMGLOW_get_filetype can report this code */
#define IMG_TYPE_APPENDS     8  /* IMG_save_bitmap over a file of this type adds a page */

/* File descriptor that stands for the current memory block source. */
#define IMG_MEMORY_FD 32767

/* Callbacks.  Rows are in DIB layout for the header's bit count; row numbers
 * count from the top of the image, from 0.  A negative result stops the
 * load or save, which returns that value. */
typedef int (IMG_CALLBACK *IMG_begin_image_fn)(void *header, void *context);
typedef int (IMG_CALLBACK *IMG_put_row_fn)(unsigned char *row, void *context,
                                           int row_number, int byte_count);
typedef int (IMG_CALLBACK *IMG_get_row_fn)(void *context, unsigned char *buffer,
                                           int row_number, int byte_count);
typedef int (IMG_CALLBACK *IMG_status_fn)(void *value, int total_rows);
typedef int (IMG_CALLBACK *IMG_read_fn)(int fd, void *buffer, int count);
typedef int (IMG_CALLBACK *IMG_write_fn)(int fd, const void *buffer, int count);
typedef int (IMG_CALLBACK *IMG_seek_fn)(int fd, int offset, int origin);

/* Memory blocks: movable blocks named by positive 32-bit integers.  Pass a
 * locked block's address to the _mem and _keep exports. */
IMG_EXPORT int   IMG_API IMG_mem_alloc(int size);
IMG_EXPORT void *IMG_API IMG_mem_lock(int block);
IMG_EXPORT int   IMG_API IMG_mem_unlock(int block);
IMG_EXPORT int   IMG_API IMG_mem_free(int block);
IMG_EXPORT int   IMG_API IMG_mem_size(int block);

/* Handles and bitmaps. */
IMG_EXPORT int IMG_API IMG_create_handle(void *dib);
IMG_EXPORT int IMG_API IMG_create_handle_keep(void *dib);
IMG_EXPORT int IMG_API IMG_delete_bitmap(int handle);
IMG_EXPORT int IMG_API IMG_delete_bitmap_keep(int handle);
IMG_EXPORT int IMG_API IMG_bitmap_info(int handle, int *width, int *height, int *bits);
IMG_EXPORT int IMG_API IMG_get_croprect(int handle, int *left, int *top, int *width, int *height);
IMG_EXPORT int IMG_API IMG_set_croprect(int handle, int left, int top, int width, int height);
IMG_EXPORT int IMG_API IMG_set_gamma(int handle, int gamma);
IMG_EXPORT int IMG_API IMGLOW_get_palette(int handle, void *dst);
IMG_EXPORT int IMG_API IMGLOW_put_palette(int handle, const void *src);
IMG_EXPORT int IMG_API IMGLOW_get_bitmap_header(int handle, void *dst);

/* File access. */
IMG_EXPORT int IMG_API IMGLOW_set_fileio(IMG_read_fn read, IMG_write_fn write, IMG_seek_fn seek);

/* Loading. */
IMG_EXPORT int IMG_API IMG_decompress_bitmap(const char *name);
IMG_EXPORT int IMG_API IMG_decompress_bitmap_fd(int fd, int offset, int page);
IMG_EXPORT int IMG_API IMG_decompress_bitmap_mem(void *block, int page);
IMG_EXPORT int IMG_API IMGLOW_decompress_bitmap(int fd, int offset, int page, IMG_put_row_fn put_row,
                                                void *context, IMG_begin_image_fn begin_image);
IMG_EXPORT int IMG_API IMGLOW_decompress_bitmap_mem(void *block, int page, IMG_put_row_fn put_row,
                                                    void *context, IMG_begin_image_fn begin_image);
IMG_EXPORT int IMG_API IMGLOW_set_decompsize(int width, int height);
IMG_EXPORT int IMG_API IMGLOW_set_decomp_reduction(int bits);
IMG_EXPORT int IMG_API IMGLOW_set_dithermode(int mode);
IMG_EXPORT int IMG_API IMGLOW_autocolor(int flag);
IMG_EXPORT int IMG_API IMGLOW_get_fileinfo(const char *name, void *header_out);
IMG_EXPORT int IMG_API IMGLOW_get_pages(const char *name);
/* The same from a memory block holding a file image. */
IMG_EXPORT int IMG_API IMGLOW_get_pages_mem(void *block);
/* The largest picture a load may create, in megabytes of bitmap (and of the
 * temporary files a load writes): a picture over it is refused with
 * IMG_ERR_MEMORY before anything is allocated.  The default,
 * IMG_DEFAULT_LOAD_LIMIT_MB, takes a 100-megapixel colour photo or an A3
 * colour scan at 1200 dpi, and refuses a small file claiming a huge picture.
 * 0 removes the limit.  Returns the previous value, or IMG_ERR_TYPE for a
 * negative one. */
#define IMG_DEFAULT_LOAD_LIMIT_MB 1024
IMG_EXPORT int IMG_API IMGLOW_set_load_limit(int megabytes);
IMG_EXPORT int IMG_API IMGLOW_get_load_limit(void);
/* Raw CCITT fax data from an open file's current position into a new 1-bit
 * handle.  fax_type 4: Group 4; 2: Group 3 two-dimensional; 3: Group 3 with
 * EOLs; other values: one-dimensional rows (2 byte-aligned).  height 0 takes
 * the rows the data holds; fill_order 2 reads bytes least significant bit first. */
IMG_EXPORT int IMG_API IMG_decompress_fax(int fd, int width, int height, int fax_type, int fill_order);

/* Detection. */
IMG_EXPORT int IMG_API IMGLOW_get_filetype(const char *name);
IMG_EXPORT int IMG_API IMGLOW_get_filetype_fd(int fd);
IMG_EXPORT int IMG_API IMGLOW_get_filetype_mem(void *block);
IMG_EXPORT int IMG_API IMGLOW_set_auto_detect(int code);
IMG_EXPORT int IMG_API IMGLOW_unset_auto_detect(int code);
IMG_EXPORT int IMG_API IMGLOW_get_auto_detect(int code);

/* What the library knows of a type code: its short key (a stable lower-case
 * name such as "tif-g4", which the command-line tool's --type takes), its
 * descriptive name and its file extension, each copied NUL-terminated and cut
 * to its buffer's size (a null buffer or a size of 0 is skipped).  Returns
 * IMG_TYPE_CAN_* bits, or IMG_ERR_TYPE for a code outside 0..IMG_TYPE_PNG. */
IMG_EXPORT int IMG_API IMGLOW_get_type_info(int code, char *key, int key_size, char *name, int name_size,
                                            char *extension, int extension_size);

/* Saving. */
IMG_EXPORT int IMG_API IMG_save_bitmap(int handle, const char *name, int type);
IMG_EXPORT int IMG_API IMG_save_bitmap_fd(int handle, int fd, int type);
IMG_EXPORT int IMG_API IMG_save_bitmap_mem(int handle, void *block, int type);
IMG_EXPORT int IMG_API IMGLOW_save_bitmap(int fd, const void *header, int type, IMG_get_row_fn get_row,
                                          void *context);
IMG_EXPORT int IMG_API IMGLOW_save_bitmap_mem(void *block, const void *header, int type,
                                              IMG_get_row_fn get_row, void *context);
IMG_EXPORT int IMG_API IMGLOW_set_comp_quality(int quality);
/* The PNG writer's deflate level, 0 (stored) to 9 (smallest); 6 at start.
 * The Windows writer, whose deflate effort is fixed, takes it as its row
 * filter: 0 none, 1-3 left difference, 4-6 its default, 7-9 best per row.
 * Returns the previous level, or IMG_ERR_TYPE for a level outside 0..9. */
IMG_EXPORT int IMG_API IMGLOW_set_png_level(int level);
/* Sun raster output (type 37): nonzero writes byte-encoded run-length data,
 * 0 (the default) plain rows.  Returns the previous value. */
IMG_EXPORT int IMG_API IMGLOW_set_sunras_rle(int on);
IMG_EXPORT int IMG_API IMGLOW_get_bitmap_name(char *text_out, char *date_out);
IMG_EXPORT int IMG_API IMGLOW_set_bitmap_name(const char *text, const char *date);

/* Colour reductions, in place on a handle: each returns 0, IMG_ERR_HANDLE,
 * IMG_ERR_TYPE for a source depth it does not take, IMG_ERR_MEMORY, or the
 * status callback's negative answer (called once per output row); on any
 * failure the bitmap is left as it was.
 *   popularity: 24-bit source, 8-bit result on the 256 most frequent colours.
 *   octree: 8- or 24-bit source; bits 4 gives 4 bits (at most 16 colours),
 *     anything else 8 bits.  palette null: the colours come from the image,
 *     at most `colours` of them (8..256); otherwise from the first `colours`
 *     quads (blue, green, red, 0) of palette (colours 0 gives IMG_ERR_TYPE).
 *   promote_8: 1 or 4 bits to 8, indexes and table kept.
 *   promote_24: 1, 4 or 8 bits to 24.
 *   bayer_mono, halftone_mono, diffusion_mono: 4, 8, 24 bits to black and white.
 *   bayer_color, diffusion_color: 4, 8, 24 bits to the 16-colour cube.
 *   mediancut_color: 4, 8, 24 bits by error diffusion onto the 3-3-2 cube. */
IMG_EXPORT int IMG_API IMG_popularity_color(int handle);
IMG_EXPORT int IMG_API IMG_octree_color(int handle, int bits, const void *palette, int colours);
IMG_EXPORT int IMG_API IMG_promote_8(int handle);
IMG_EXPORT int IMG_API IMG_promote_24(int handle);
IMG_EXPORT int IMG_API IMG_bayer_mono(int handle);
IMG_EXPORT int IMG_API IMG_halftone_mono(int handle);
IMG_EXPORT int IMG_API IMG_diffusion_mono(int handle);
IMG_EXPORT int IMG_API IMG_bayer_color(int handle);
IMG_EXPORT int IMG_API IMG_diffusion_color(int handle);
IMG_EXPORT int IMG_API IMG_mediancut_color(int handle);

/* Display palettes.  The table is the bitmap's colour table through the
 * handle's gamma, brightness and contrast (2, 16 or 256 entries), or the
 * 3-3-2 cube for 24 bits and when IMGLOW_autocolor is set; a 1-bit bitmap
 * under auto-colour has none (0 is returned, nothing is made).
 * On Windows the palette is a GDI palette object (HPALETTE).  Elsewhere it
 * is a memory block laid out as a LOGPALETTE: version 0x300 and the entry
 * count (two 16-bit words), then per entry red, green, blue, flags (0).
 * Lock it with IMG_mem_lock; IMG_mem_free deletes it.
 *   IMG_bitmap_palette: the handle keeps the palette (replacing and deleting
 *     its previous one) and, on Windows, selects it into the device context
 *     dc and realizes it; 0.
 *   IMG_get_bitmap_palette: returns the palette; the caller owns it. */
IMG_EXPORT int IMG_API IMG_bitmap_palette(int handle, void *dc);
IMG_EXPORT int IMG_API IMG_get_bitmap_palette(int handle);

/* Settings and queries. */
IMG_EXPORT int IMG_API IMG_set_statusbar(void *value, IMG_status_fn function, int enable);
IMG_EXPORT int IMG_API IMGLOW_set_rop(int handle, int rop);
IMG_EXPORT int IMG_API IMGLOW_get_transp_color(int handle);
IMG_EXPORT int IMG_API IMGLOW_get_image_orientation(const char *name);
IMG_EXPORT int IMG_API IMG_qor_version(int *major, int *minor);
/* Copies per piece of a transition effect (times the effect's weight);
 * 0 or less: measured against the device at each effect. */
IMG_EXPORT int IMG_API IMGLOW_set_wipedelay(int delay);
/* Writes the clipboard's picture to the BMP file name: 1, IMG_ERR_OPEN when
 * the clipboard cannot be opened or holds no picture, IMG_ERR_MEMORY when the
 * file cannot be created or memory fails.  On Windows owner is the window
 * that opens the clipboard (CF_DIB, else CF_BITMAP as 24 bits).  On Linux it
 * is the X display's name (null: $DISPLAY), and the CLIPBOARD selection is
 * asked for image/bmp, then image/png (where the library reads PNG). */
IMG_EXPORT int IMG_API IMG_save_clipboard(const char *name, void *owner);

/* Printing onto a printer device context the caller has put in a page;
 * (left, top, width, height) in the context's logical units.
 *   IMG_print_bitmap: the banded drawing of IMG_display_bitmap, with the
 *     printing tone table, calling the status callback once per device row
 *     with the device height; 0, IMG_ERR_HANDLE, IMG_ERR_MEMORY, or the
 *     callback's negative answer, which stops it.
 *   IMG_print_bitmap_fast: the crop rectangle in one stretched transfer, the
 *     scaling left to the printer; 0, IMG_ERR_HANDLE or IMG_ERR_MEMORY.  The
 *     device coordinates go over as 16 bits. */
IMG_EXPORT int IMG_API IMG_print_bitmap(int handle, void *dc, int left, int top, int width, int height);
IMG_EXPORT int IMG_API IMG_print_bitmap_fast(int handle, void *dc, int left, int top, int width, int height);
/* Draws a device-dependent bitmap (HBITMAP; on Linux a bitmap surface) into
 * dc with its top-left corner at (left, top), revealed piece by piece:
 * 1 rows top to bottom, 2 rows bottom to top (the top row is left
 * undrawn), 3 8-pixel columns right to left (a remainder of width mod 8 at
 * the left edge is left undrawn), 4 columns left to right, 5 four
 * interleaved bands, 6 a checkerboard, 7 a box growing from the centre in
 * eighths, 8 four blinds, 9 a box growing by 8 pixels, 10 curtains opening
 * from the middle.  Any other code draws nothing.  The status callback is
 * called with the picture's height as it runs and stops it by answering < 0.
 * 0, IMG_ERR_MEMORY, -8 when the bitmap's size cannot be read, or
 * IMG_ERR_STOPPED (what was drawn stays). */
IMG_EXPORT int IMG_API IMG_display_ddb_effect(void *ddb, void *dc, int left, int top, int effect);

/* Processing, in place on a handle: the handle keeps its number, and on
 * any failure its bitmap and record are left as they were.  Long operations
 * call the status callback once per row and stop when it answers < 0. */
/* 90 and 270 turn a quarter clockwise and counter-clockwise, 180 a half
 * turn; any other angle mirrors the picture about its anti-diagonal.  A
 * quarter turn takes bitmaps up to 8180 rows at 1 bit (height x 4 plus
 * header and colour table within 32768 bytes), else IMG_ERR_MEMORY. */
IMG_EXPORT int IMG_API IMG_rotate_bitmap(int handle, int angle);
IMG_EXPORT int IMG_API IMG_flip_bitmapx(int handle);
IMG_EXPORT int IMG_API IMG_flip_bitmapy(int handle);
/* Complements every stored byte: a negative at 24 bits, inverted palette
 * indexes at 1, 4 and 8 bits (the colour table is left alone). */
IMG_EXPORT int IMG_API IMG_invert_bitmap(int handle);
/* New size by repeating and dropping pixels, at every depth; sizes below 1
 * give IMG_ERR_TYPE. */
IMG_EXPORT int IMG_API IMG_resize_bitmap(int handle, int width, int height);
/* New size by 3 x 3 averaging when narrower, linear ramps otherwise; 24 bits,
 * or 8 bits with a grey colour table (else IMG_ERR_TYPE). */
IMG_EXPORT int IMG_API IMG_resize_bitmap_interp(int handle, int width, int height);
/* Unsharp mask: level 0 weakest .. 128 strongest, in steps of 16; 24 bits,
 * or 4 and 8 bits with a grey colour table (else IMG_ERR_TYPE). */
IMG_EXPORT int IMG_API IMG_sharpen_bitmap(int handle, int level);
/* 3 x 3 convolution, clamped to 0..255, border pixels kept: filter 1 to 9
 * built in, 0 the caller's nine weights (top row first).  8 bits (a colour
 * table that is not grey is made grey first) or 24; IMG_ERR_DEPTH below 8. */
IMG_EXPORT int IMG_API IMG_process_bitmap(int handle, int filter, const signed char *kernel);
/* The display brightness and contrast the handle keeps; the pixels are not touched. */
IMG_EXPORT int IMG_API IMG_set_lut(int handle, int brightness, int contrast);
/* Per-channel 256-entry tables applied in place: to the colour table at 1, 4
 * and 8 bits, to the pixels at 24.  A null table leaves its channel alone. */
IMG_EXPORT int IMG_API IMG_apply_lut(int handle, const unsigned char *red, const unsigned char *green,
                                     const unsigned char *blue);
/* Merges the picture of handle from into handle into with its top-left
 * corner at (left, top) of into (clipped to it), by mode: a raster operation
 * on the stored values (both of one depth, else IMG_ERR_DEPTH), or a blend
 * with opacity 0..255 at 24 bits, or at 8 bits when both colour tables are
 * grey.  The two handles must differ.  No status callback. */
#define IMG_MERGE_COPY 0
#define IMG_MERGE_AND 1
#define IMG_MERGE_OR 2
#define IMG_MERGE_XOR 3
#define IMG_MERGE_BLEND(opacity) (0x100 | ((opacity) & 0xFF))
IMG_EXPORT int IMG_API IMG_merge_bitmap(int into, int from, int left, int top, int mode);

/* Colour. */
/* Any 4-, 8- or 24-bit picture to 8-bit luminance (white gives 253) on the
 * identity grey ramp; IMG_ERR_TYPE at 1 bit. */
IMG_EXPORT int IMG_API IMG_color_gray(int handle);

/* A short English text for an error code, copied NUL-terminated and cut to
 * size (nothing is copied for a null buffer or a size of 0).  Returns the
 * text's full length, or IMG_ERR_TYPE for a code the library never returns. */
IMG_EXPORT int IMG_API IMG_get_error_text(int code, char *text_out, int size);

/* Scanning: pictures from a scanner through the system's source manager
 * (TWAIN32.DLL in the Windows directory; libsane, loaded when needed,
 * elsewhere).  window is the parent window (HWND) on Windows and is ignored
 * elsewhere; show_ui shows the source's own dialog on Windows.  Results:
 * IMG_ERR_SCAN_SOURCE the source cannot be opened or enabled (or there is
 * none), IMG_ERR_SCAN_ACQUIRE no source manager, IMG_ERR_STOPPED the user
 * cancelled or closed the source (or the status callback stopped the
 * transfer), IMG_ERR_MEMORY the transfer failed.
 *   IMG_scan_acquire: one picture into a new handle.
 *   IMG_scan_pages: every page the source delivers (a feeder until empty),
 *     each saved as type (negative: BMP).  A multi-page type (TIFF 0, 7, 8,
 *     10, 16 or DCX 11) with a name puts all pages in that file, replacing
 *     it; otherwise page n goes to "%s%08d.img" with name as prefix (no
 *     prefix when null), replacing any such file.  Returns the last page's
 *     handle number (already deleted) or a negative code; a failed
 *     transfer within the series gives IMG_ERR_SCAN_SOURCE.
 *   IMG_scan_set_caps: what later scans ask of the source (on Windows when
 *     its dialog is hidden); 0 leaves a setting as the source has it.  Area
 *     in thousandths of an inch from the top-left corner; width or height 0
 *     takes the whole area.  0, or IMG_ERR_TYPE for a value out of range.
 *   IMG_scan_open_source: the source later scans use, by name; null or ""
 *     shows the selection dialog on Windows and takes the first device
 *     elsewhere.  0, IMG_ERR_SCAN_SOURCE for a name no source has,
 *     IMG_ERR_STOPPED when the dialog is cancelled.
 *   IMG_scan_list_sources: the source names, each NUL-terminated and then an
 *     empty one, as many whole names as fit in size bytes; the number of
 *     sources there are, or a negative code. */
#define IMG_SCAN_COLOUR  1
#define IMG_SCAN_GREY    2
#define IMG_SCAN_LINEART 3
#define IMG_SCAN_FLATBED 1
#define IMG_SCAN_FEEDER  2
#define IMG_SCAN_DUPLEX  3
IMG_EXPORT int IMG_API IMG_scan_acquire(void *window, int show_ui);
IMG_EXPORT int IMG_API IMG_scan_pages(void *window, const char *name, int type, int show_ui);
IMG_EXPORT int IMG_API IMG_scan_set_caps(int resolution, int mode, int source, int left, int top, int width,
                                         int height);
IMG_EXPORT int IMG_API IMG_scan_open_source(void *window, const char *name);
IMG_EXPORT int IMG_API IMG_scan_list_sources(char *names, int size);

/* Text import: plain text files read as pictures.  Detection of text (type
 * IMG_TYPE_TEXT) is off until IMGLOW_set_auto_detect(IMG_TYPE_TEXT) is
 * called.  A page renders as a 1-bit bitmap (black text on white) at the set
 * resolution.  The layout record below: lengths in thousandths of an inch;
 * mask selects the fields that setting copies in and getting fills. */
#define IMG_ASCII_XRES        0x0001
#define IMG_ASCII_YRES        0x0002
#define IMG_ASCII_MARGINS     0x0004
#define IMG_ASCII_TAB         0x0008
#define IMG_ASCII_PAGE_WIDTH  0x0010
#define IMG_ASCII_PAGE_HEIGHT 0x0020
#define IMG_ASCII_FONT_HEIGHT 0x0040
#define IMG_ASCII_LINE_CHARS  0x0080
#define IMG_ASCII_PAGE_LINES  0x0100
#define IMG_ASCII_BOLD        0x0200
#define IMG_ASCII_ITALIC      0x0400
#define IMG_ASCII_FACE        0x0800
#pragma pack(push, 1)
typedef struct IMG_ascii_attributes {
    unsigned short mask;
    unsigned short reserved;
    short x_dpi, y_dpi;              /* default 200, 200 */
    int margins[4];                  /* left, top, right, bottom: 1000, 750, 1000, 750 */
    short tab;                       /* tab stops every this many characters: 4 */
    int page_width, page_height;     /* 8500, 11000 */
    int font_height;                 /* pixels; negative: from the lines and characters: -1 */
    short line_chars, page_lines;    /* 80, 60 */
    int bold;                        /* non-zero: bold */
    int italic;                      /* low byte non-zero: italic */
    char face[32];                   /* "Courier New" */
} IMG_ascii_attributes;
#pragma pack(pop)
IMG_EXPORT int IMG_API IMGLOW_set_ascii_attributes(const IMG_ascii_attributes *attributes);
IMG_EXPORT int IMG_API IMGLOW_get_ascii_attributes(IMG_ascii_attributes *attributes);
/* The page width, in thousandths of an inch, that the file's widest line
 * needs between the margins under the current settings (so that nothing
 * wraps), or a negative code. */
IMG_EXPORT int IMG_API IMGLOW_get_ascii_page_width(const char *name);
/* Loads page (0 = the first) of a text file into a new handle through the
 * ordinary load, with text detection on for that load (a file whose first
 * bytes another type claims loads as that type): the handle, IMG_ERR_OPEN,
 * or the load's code. */
IMG_EXPORT int IMG_API IMG_import_ascii(const char *name, int page);

/* Display.  dc is a device context (an HDC on Windows, a surface from
 * IMG_dc_create_memory or a window surface elsewhere), window a window (an
 * HWND; elsewhere a surface, whose client area is its size).  Rectangles are
 * in dc's logical units.  The handle's crop rectangle is what is shown,
 * stretched to the destination; its raster operation (IMGLOW_set_rop) is
 * the transfer's.  Drawing on a device of fewer than 4 colours dithers
 * pictures of 4 bits and more to black and white (never on a PostScript
 * printer).  The handle's gamma, brightness and contrast shape the tones.
 *   IMG_display_bitmap: 0, IMG_ERR_HANDLE, IMG_ERR_MEMORY.
 *   IMG_display_bitmap_transp: the same, but pixels of colour (a COLORREF:
 *     red in the low byte, RGB(r, g, b)) leave the destination untouched.
 *   IMG_decompress_bitmap_display: loads page (0 the first) of a file, draws
 *     it and frees it again: the drawing's result or the load's error. */
IMG_EXPORT int IMG_API IMG_display_bitmap(int handle, void *dc, int left, int top, int width, int height);
IMG_EXPORT int IMG_API IMG_display_bitmap_transp(int handle, void *dc, int left, int top, int width, int height,
                                                 unsigned int colour);
IMG_EXPORT int IMG_API IMG_decompress_bitmap_display(const char *name, int page, void *dc, int left, int top,
                                                     int width, int height);

/* Zoomed and scrolled views in a window: each sets the crop rectangle and
 * the window's scroll bars (ranges 0..picture size - crop size).
 *   IMG_zoom_bitmap: percent of 100 or less shows the whole picture; above,
 *     the crop is the picture width / (percent / 100) wide, of the window's
 *     shape, about the current centre.
 *   IMG_zoom_bitmap_rect: the picture rectangle fills the window, grown along
 *     one side to the window's shape about its centre.
 *   IMG_zoom_bitmap_1_to_1: one picture pixel per screen pixel about the centre.
 *   IMG_scroll_bitmap: for a WM_HSCROLL (276) or WM_VSCROLL message's wParam
 *     (SB_LINEUP, SB_LINEDOWN, SB_PAGEUP, SB_PAGEDOWN, SB_THUMBTRACK; others
 *     do nothing) moves the crop and scrolls the window's pixels; returns 0
 *     (nothing scrolled), 1 or 2 (scrolled right or left), 3 or 4 (down or up).
 *   IMG_repaint_scroll: in the following paint, draws the uncovered strip of
 *     a scroll; direction is IMG_scroll_bitmap's result, paint the
 *     PAINTSTRUCT of BeginPaint (elsewhere an IMG_paint, its first fields).
 * All return IMG_ERR_HANDLE for an invalid handle. */
typedef struct IMG_paint {
    void *dc;
    int erase;
    int left, top, right, bottom; /* the rectangle to paint */
} IMG_paint;
IMG_EXPORT int IMG_API IMG_zoom_bitmap(int handle, void *window, int percent);
IMG_EXPORT int IMG_API IMG_zoom_bitmap_rect(int handle, void *window, int left, int top, int width, int height);
IMG_EXPORT int IMG_API IMG_zoom_bitmap_1_to_1(int handle, void *window);
IMG_EXPORT int IMG_API IMG_scroll_bitmap(int handle, void *window, unsigned int wparam, int lparam, int message);
IMG_EXPORT int IMG_API IMG_repaint_scroll(int handle, void *dc, void *window, int direction, const void *paint);

/* Device-dependent bitmaps (an HBITMAP on Windows, a surface elsewhere):
 * a copy of the picture drawn once for a device, then drawn again fast.
 *   IMG_dib_to_ddb: the crop rectangle scaled to width x height for dc's
 *     device, into *ddb (null on failure); 0, IMG_ERR_HANDLE, IMG_ERR_TYPE
 *     for a size below 1, IMG_ERR_MEMORY.
 *   IMG_display_ddb: draws it with its top left at (x, y) of dc, one to one.
 *   IMG_create_handle_ddb: a new 24-bit handle from its pixels, or an error.
 *   IMG_delete_ddb: frees it.
 * IMG_ERR_HANDLE for what is no bitmap. */
IMG_EXPORT int IMG_API IMG_dib_to_ddb(int handle, void *dc, int width, int height, void **ddb);
IMG_EXPORT int IMG_API IMG_display_ddb(void *ddb, void *dc, int x, int y);
IMG_EXPORT int IMG_API IMG_create_handle_ddb(void *ddb, void *dc);
IMG_EXPORT int IMG_API IMG_delete_ddb(void *ddb);

#ifndef _WIN32
/* Device contexts on Linux.  Where Windows takes an HDC, HWND or HBITMAP,
 * the display exports take a surface the library makes: 32-bit pixels
 * (0x00RRGGBB) with the mapping, capabilities and scroll bars of a device
 * context.  A memory surface also serves as a window: its client area is its
 * size and its scroll bars are fields of its own.
 *   IMG_dc_create_memory: a white surface of width x height, true colour,
 *     96 dpi, a display; *dc receives it.  IMG_ERR_TYPE for sizes below 1,
 *     IMG_ERR_MEMORY when it cannot be made.
 *   IMG_dc_delete: frees a surface (and a bitmap made by the display exports).
 *   IMG_dc_read_pixels: copies a w x h rectangle as 0x00RRGGBB words, rows
 *     top-down, into out; IMG_ERR_TYPE when it does not lie inside.
 *   IMG_dc_set_caps: what the surface reports as a device: NUMCOLORS (-1
 *     true colour, 2 monochrome), the technology name ("PostScript" for a
 *     PostScript printer, "" or null for a display), LOGPIXELSX, and the
 *     printer scaling factor (-1 for either: the device lacks the escape).
 *   IMG_dc_set_mapping: map mode 1 (MM_TEXT: the origins only) or 8
 *     (MM_ANISOTROPIC) with window and viewport origins and extents, so that
 *     callers draw in logical units; IMG_ERR_TYPE for other modes or a zero extent.
 *   IMG_dc_get_scroll: a window surface's scroll bar (0 horizontal, 1 vertical):
 *     its range and position, each pointer may be null.
 * All return 0, or IMG_ERR_HANDLE for a pointer that is no live surface.
 *
 *   void *dc;
 *   int h = IMG_decompress_bitmap("photo.jpg");
 *   IMG_dc_create_memory(640, 480, &dc);
 *   IMG_display_bitmap(h, dc, 0, 0, 640, 480);
 *   IMG_dc_read_pixels(dc, 0, 0, 640, 480, pixels);
 *   IMG_dc_delete(dc); */
IMG_EXPORT int IMG_API IMG_dc_create_memory(int width, int height, void **dc);
IMG_EXPORT int IMG_API IMG_dc_delete(void *dc);
IMG_EXPORT int IMG_API IMG_dc_read_pixels(void *dc, int x, int y, int w, int h, void *out);
IMG_EXPORT int IMG_API IMG_dc_set_caps(void *dc, int num_colors, const char *technology, int logpixels_x,
                                       int scale_x, int scale_y);
IMG_EXPORT int IMG_API IMG_dc_set_mapping(void *dc, int map_mode, int window_org_x, int window_org_y,
                                          int window_ext_x, int window_ext_y, int viewport_org_x,
                                          int viewport_org_y, int viewport_ext_x, int viewport_ext_y);
IMG_EXPORT int IMG_API IMG_dc_get_scroll(void *window, int bar, int *min, int *max, int *pos);
/* Printer device contexts on Linux: a surface of the page's size at dpi
 * dots per inch (page size in thousandths of an inch), drawn on like any
 * surface, whose pages are written as PDF to pdf_file and, at the end of the
 * document, sent to the CUPS queue named queue (either may be null, not
 * both; with no file the PDF is a temporary one).  The printer reports true
 * colour, no technology name (it is no PostScript device), LOGPIXELSX = dpi
 * and no scaling factor, so at 300 dpi and more the printing tone table
 * lightens the picture as on such a Windows printer; IMG_dc_set_caps changes
 * what it reports.  A build without cairo and CUPS returns IMG_ERR_TYPE.
 *   IMG_dc_create_printer: IMG_ERR_TYPE for bad arguments, IMG_ERR_CREATE when
 *     the file cannot be made, IMG_ERR_MEMORY.
 *   IMG_dc_start_page: clears the page to white.
 *   IMG_dc_end_page: adds the page to the document, clears it; returns the
 *     number of pages done, or IMG_ERR_WRITE.
 *   IMG_dc_end_doc: closes the PDF (a page started and not ended is left
 *     out; a document of no pages holds one blank page, as a PDF must have
 *     one) and sends it to the queue: the CUPS job number, 0 without a
 *     queue, IMG_ERR_WRITE, or IMG_ERR_CREATE when the queue refuses the job.
 *   IMG_dc_delete without IMG_dc_end_doc closes the PDF with the pages done
 *     and sends nothing.
 * Page calls on a surface that is no printer return IMG_ERR_HANDLE.
 *
 *   IMG_dc_create_printer("out.pdf", NULL, 300, 8500, 11000, &dc);
 *   IMG_dc_start_page(dc);
 *   IMG_print_bitmap(h, dc, 300, 300, 1800, 1200);
 *   IMG_dc_end_page(dc);
 *   IMG_dc_end_doc(dc);
 *   IMG_dc_delete(dc); */
IMG_EXPORT int IMG_API IMG_dc_create_printer(const char *pdf_file, const char *queue, int dpi, int page_w_mils,
                                             int page_h_mils, void **dc);
IMG_EXPORT int IMG_API IMG_dc_start_page(void *dc);
IMG_EXPORT int IMG_API IMG_dc_end_page(void *dc);
IMG_EXPORT int IMG_API IMG_dc_end_doc(void *dc);

/* A window on an X display, as a surface: its pixels are the window's
 * backing store, shown through MIT-SHM where the server has it and by
 * plain image requests otherwise.  The surface is the device context and
 * the window of the display exports alike; its client area is the window's
 * size, and pixels the server lost are put back from the backing store
 * without the caller.  IMG_dc_delete closes the window.
 *   IMG_dc_create_window: opens display (null: $DISPLAY) and maps a white
 *     window of width x height titled title; *dc receives it.
 *     IMG_ERR_TYPE when the display cannot be opened, is not a 24-bit true
 *     colour one, or the library was built without X11; IMG_ERR_MEMORY.
 *   IMG_dc_next_event: waits up to timeout_ms (-1: for ever) for the next
 *     event: 1 with *event filled, 0 on timeout, IMG_ERR_HANDLE for what is
 *     no window.  After a scroll moved the window's pixels, the uncovered
 *     strip comes as an IMG_EVENT_PAINT to draw (as the paint that follows
 *     ScrollWindow on Windows); IMG_EVENT_RESIZE comes with the backing
 *     store already resized (new parts white), to be drawn whole. */
#define IMG_EVENT_KEY    1  /* key: a lower-case character or IMG_KEY_*, modifiers */
#define IMG_EVENT_WHEEL  2  /* wheel: +1 up, -1 down, modifiers */
#define IMG_EVENT_PAINT  3  /* left, top, right, bottom: a rectangle to draw */
#define IMG_EVENT_RESIZE 4  /* right, bottom: the new client size */
#define IMG_EVENT_CLOSE  5  /* the window manager asks to close */
#define IMG_KEY_ESCAPE    27
#define IMG_KEY_LEFT      0x101
#define IMG_KEY_RIGHT     0x102
#define IMG_KEY_UP        0x103
#define IMG_KEY_DOWN      0x104
#define IMG_KEY_PAGE_UP   0x105
#define IMG_KEY_PAGE_DOWN 0x106
#define IMG_KEY_HOME      0x107
#define IMG_KEY_END       0x108
#define IMG_MOD_SHIFT 1
#define IMG_MOD_CTRL  2
typedef struct IMG_event {
    int type;
    int key;
    int wheel;
    int modifiers;
    int left, top, right, bottom;
} IMG_event;
IMG_EXPORT int IMG_API IMG_dc_create_window(const char *display, int width, int height, const char *title,
                                            void **dc);
IMG_EXPORT int IMG_API IMG_dc_next_event(void *dc, int timeout_ms, IMG_event *event);
#endif

/* The library's exit procedure: does nothing, returns 1. */
IMG_EXPORT int IMG_API WEP(int reserved);

#ifdef __cplusplus
}
#endif

#endif
