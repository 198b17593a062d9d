// PNG on Windows through the imaging component the system ships, so the DLL
// bundles no codec.  The file passes through memory on both sides: the
// component reads from and writes to streams, not callbacks.  It has no
// deflate level setting: the writer's level chooses its row filter instead
// (see png_filter_for).
#include "platform/png_codec.h"

#include "brivanta.h"
#include "platform/platform.h"

#include <objbase.h>
#include <wincodec.h>

#include <cstring>
#include <utility>

namespace brv {

namespace {

void *block_alloc(uint32_t size) {
    mem_block b = mem_alloc(size ? size : 1, MEM_MOVEABLE | MEM_ZEROINIT);
    if (!b) return nullptr;
    void *p = mem_lock(b);
    if (!p) mem_free(b);
    return p;
}

void block_free(void *p) {
    if (!p) return;
    mem_block b = mem_handle(p);
    mem_unlock(b);
    mem_free(b);
}

template <class T> void release(T *&p) {
    if (p) p->Release();
    p = nullptr;
}

// COM on this thread for as long as a codec lives; a thread already in
// another apartment mode keeps it and is served as it is.
struct com_scope {
    bool owned = false;
    bool start() {
        HRESULT hr = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        owned = SUCCEEDED(hr);
        return owned || hr == RPC_E_CHANGED_MODE;
    }
    void end() {
        if (owned) CoUninitialize();
        owned = false;
    }
};

IWICImagingFactory *make_factory() {
    IWICImagingFactory *f = nullptr;
    if (FAILED(CoCreateInstance(CLSID_WICImagingFactory, nullptr, CLSCTX_INPROC_SERVER, IID_IWICImagingFactory,
                                reinterpret_cast<void **>(&f))))
        return nullptr;
    return f;
}

struct pixel_format {
    const GUID *guid;
    int depth, colour_type;
    bool packed;
};

const pixel_format pixel_formats[] = {
    {&GUID_WICPixelFormat1bppIndexed, 1, 3, true}, {&GUID_WICPixelFormat2bppIndexed, 2, 3, true},
    {&GUID_WICPixelFormat4bppIndexed, 4, 3, true}, {&GUID_WICPixelFormat8bppIndexed, 8, 3, true},
    {&GUID_WICPixelFormatBlackWhite, 1, 0, true},  {&GUID_WICPixelFormat2bppGray, 2, 0, true},
    {&GUID_WICPixelFormat4bppGray, 4, 0, true},    {&GUID_WICPixelFormat8bppGray, 8, 0, true},
    {&GUID_WICPixelFormat16bppGray, 16, 0, false}, {&GUID_WICPixelFormat24bppBGR, 8, 2, false},
    {&GUID_WICPixelFormat48bppRGB, 16, 2, false},  {&GUID_WICPixelFormat32bppBGRA, 8, 6, false},
    {&GUID_WICPixelFormat64bppRGBA, 16, 6, false},
};

uint32_t be32(const uint8_t *p) { return uint32_t{p[0]} << 24 | p[1] << 16 | p[2] << 8 | p[3]; }

// What the component does not tell, from the chunks before the image data:
// the header's colour type (grey with alpha comes as RGBA), the resolution
// (the component says 96 dots per inch for a file without pHYs) and the
// background colour.
void read_chunks(const uint8_t *data, uint32_t size, png_info *info) {
    if (size < 26 || std::memcmp(data + 12, "IHDR", 4)) return;
    const int depth = data[24], type = data[25];
    if (!info->packed) info->colour_type = type;
    if (depth != 1 && depth != 2 && depth != 4 && depth != 8 && depth != 16) return;
    for (uint32_t at = 8; at <= size - 12;) {
        const uint32_t n = be32(data + at);
        const uint8_t *c = data + at + 8;
        if (n > size - 12 - at || !std::memcmp(c - 4, "IDAT", 4)) return;
        if (!std::memcmp(c - 4, "pHYs", 4) && n == 9 && c[8] == 1) {
            info->dpi_x = png_dpi(be32(c));
            info->dpi_y = png_dpi(be32(c + 4));
        } else if (!std::memcmp(c - 4, "bKGD", 4)) {
            if (type == 3 && n == 1 && c[0] < info->palette_count) {
                std::memcpy(info->background, info->palette[c[0]], 3);
                info->has_background = true;
            } else if ((type == 0 || type == 4) && n == 2) {
                std::memset(info->background, png_sample8(uint32_t{c[0]} << 8 | c[1], depth), 3);
                info->has_background = true;
            } else if ((type == 2 || type == 6) && n == 6) {
                for (int k = 0; k < 3; k++) info->background[k] = png_sample8(uint32_t{c[2 * k]} << 8 | c[2 * k + 1], depth);
                info->has_background = true;
            }
        }
        at += 12 + n;
    }
}

}  // namespace

struct png_decoder {
    com_scope com;
    IWICImagingFactory *factory;
    IWICStream *stream;
    IWICBitmapDecoder *decoder;
    IWICBitmapFrameDecode *frame;
    IWICFormatConverter *converter;
    IWICBitmapSource *source;  // the frame, or the converter to RGBA
    uint8_t *data;
    uint32_t width, row_size, next_row;
    bool swap;  // rows come blue first
};

png_decoder *png_decode_open(png_read_fn read, void *user, uint32_t max_width, uint32_t max_height,
                             png_info *info, int *error) {
    *error = IMG_ERR_MEMORY;
    auto *d = static_cast<png_decoder *>(block_alloc(sizeof(png_decoder)));
    if (!d) return nullptr;
    // The whole file into one block, grown as it comes.
    uint32_t size = 0, cap = 1 << 16;
    d->data = static_cast<uint8_t *>(block_alloc(cap));
    for (;;) {
        if (!d->data) {
            png_decode_close(d);
            return nullptr;
        }
        int32_t got = read(user, d->data + size, static_cast<int32_t>(cap - size));
        if (got <= 0) break;
        size += static_cast<uint32_t>(got);
        if (size == cap) {
            if (cap > 0x3FFFFFFF) break;
            auto *bigger = static_cast<uint8_t *>(block_alloc(cap * 2));
            if (bigger) std::memcpy(bigger, d->data, size);
            block_free(d->data);
            d->data = bigger;
            cap *= 2;
        }
    }
    *error = IMG_ERR_HEADER;
    WICPixelFormatGUID pf;
    UINT w = 0, h = 0;
    if (!d->com.start() || !(d->factory = make_factory()) || FAILED(d->factory->CreateStream(&d->stream)) ||
        FAILED(d->stream->InitializeFromMemory(d->data, size)) ||
        FAILED(d->factory->CreateDecoder(GUID_ContainerFormatPng, nullptr, &d->decoder)) ||
        FAILED(d->decoder->Initialize(d->stream, WICDecodeMetadataCacheOnDemand)) ||
        FAILED(d->decoder->GetFrame(0, &d->frame)) || FAILED(d->frame->GetSize(&w, &h)) ||
        FAILED(d->frame->GetPixelFormat(&pf))) {
        png_decode_close(d);
        return nullptr;
    }
    if (!w || !h || w > max_width || h > max_height) {
        *error = w && h ? IMG_ERR_MEMORY : IMG_ERR_HEADER;
        png_decode_close(d);
        return nullptr;
    }
    std::memset(info, 0, sizeof *info);
    info->width = d->width = w;
    info->height = h;
    info->grey_key = -1;
    info->bit_depth = 8;
    info->colour_type = 6;
    for (const pixel_format &f : pixel_formats)
        if (IsEqualGUID(*f.guid, pf)) {
            info->bit_depth = f.depth;
            info->colour_type = f.colour_type;
            info->packed = f.packed;
        }
    if (info->colour_type == 3) {
        IWICPalette *palette = nullptr;
        WICColor colours[256];
        UINT n = 0;
        bool ok = SUCCEEDED(d->factory->CreatePalette(&palette)) && SUCCEEDED(d->frame->CopyPalette(palette)) &&
                  SUCCEEDED(palette->GetColors(256, colours, &n));
        release(palette);
        if (!ok) {
            png_decode_close(d);
            return nullptr;
        }
        info->palette_count = static_cast<int>(n);
        for (UINT i = 0; i < n; i++) {
            info->palette[i][0] = static_cast<uint8_t>(colours[i] >> 16);
            info->palette[i][1] = static_cast<uint8_t>(colours[i] >> 8);
            info->palette[i][2] = static_cast<uint8_t>(colours[i]);
            info->palette[i][3] = static_cast<uint8_t>(colours[i] >> 24);
        }
    }
    read_chunks(d->data, size, info);
    if (info->packed) {
        d->source = d->frame;
        d->row_size = (w * static_cast<uint32_t>(info->bit_depth) + 7) / 8;
    } else {
        if (FAILED(d->factory->CreateFormatConverter(&d->converter)) ||
            FAILED(d->converter->Initialize(d->frame, GUID_WICPixelFormat32bppBGRA, WICBitmapDitherTypeNone, nullptr,
                                            0.0, WICBitmapPaletteTypeCustom))) {
            png_decode_close(d);
            return nullptr;
        }
        d->source = d->converter;
        d->row_size = w * 4;
        d->swap = true;
    }
    *error = 0;
    return d;
}

int png_decode_row(png_decoder *d, uint8_t *row) {
    WICRect r = {0, static_cast<INT>(d->next_row++), static_cast<INT>(d->width), 1};
    if (FAILED(d->source->CopyPixels(&r, d->row_size, d->row_size, row))) return IMG_ERR_DATA;
    if (d->swap)
        for (uint32_t x = 0; x < d->width; x++) std::swap(row[4 * x], row[4 * x + 2]);
    return 0;
}

void png_decode_close(png_decoder *d) {
    if (!d) return;
    release(d->converter);
    release(d->frame);
    release(d->decoder);
    release(d->stream);
    release(d->factory);
    d->com.end();
    block_free(d->data);
    block_free(d);
}

struct png_encoder {
    com_scope com;
    IWICImagingFactory *factory;
    IStream *stream;
    IWICBitmapEncoder *encoder;
    IWICBitmapFrameEncode *frame;
    png_write_fn write;
    void *user;
    uint8_t *bgr;  // a 24-bit row turned back to blue first
    uint32_t width, row_size;
};

namespace {

// The component's deflate effort is fixed; the level picks the row filter,
// the one choice it offers that trades time for size: 0 none (fastest,
// largest), 1 to 3 the left-difference filter, 4 to 6 the component's own
// choice (its default), 7 to 9 the best filter found for each row.
uint8_t png_filter_for(int level) {
    return static_cast<uint8_t>(level <= 0 ? WICPngFilterNone
                                : level <= 3 ? WICPngFilterSub
                                : level <= 6 ? WICPngFilterUnspecified
                                             : WICPngFilterAdaptive);
}

// An option the component does not know leaves its default: not an error.
void set_filter_option(IPropertyBag2 *options, int level) {
    if (!options) return;
    PROPBAG2 name = {};
    name.pstrName = const_cast<LPOLESTR>(L"FilterOption");
    VARIANT value = {};
    value.vt = VT_UI1;
    value.bVal = png_filter_for(level);
    options->Write(1, &name, &value);
}

}  // namespace

png_encoder *png_encode_open(const png_encode_params &p, png_write_fn write, void *user, int *error) {
    *error = IMG_ERR_MEMORY;
    auto *e = static_cast<png_encoder *>(block_alloc(sizeof(png_encoder)));
    if (!e) return nullptr;
    e->write = write;
    e->user = user;
    e->width = p.width;
    const bool rgb = p.colour_type == 2;
    e->row_size = rgb ? p.width * 3 : (p.width * static_cast<uint32_t>(p.bit_depth) + 7) / 8;
    if (rgb && !(e->bgr = static_cast<uint8_t *>(block_alloc(e->row_size)))) {
        png_encode_close(e);
        return nullptr;
    }
    WICPixelFormatGUID pf = GUID_WICPixelFormat24bppBGR;
    if (p.colour_type == 0)
        pf = p.bit_depth == 1 ? GUID_WICPixelFormatBlackWhite
             : p.bit_depth == 4 ? GUID_WICPixelFormat4bppGray
                                : GUID_WICPixelFormat8bppGray;
    else if (p.colour_type == 3)
        pf = p.bit_depth == 1 ? GUID_WICPixelFormat1bppIndexed
             : p.bit_depth == 4 ? GUID_WICPixelFormat4bppIndexed
                                : GUID_WICPixelFormat8bppIndexed;
    const WICPixelFormatGUID wanted = pf;
    *error = IMG_ERR_CREATE;
    IPropertyBag2 *options = nullptr;
    bool ok = e->com.start() && (e->factory = make_factory()) &&
              SUCCEEDED(CreateStreamOnHGlobal(nullptr, TRUE, &e->stream)) &&
              SUCCEEDED(e->factory->CreateEncoder(GUID_ContainerFormatPng, nullptr, &e->encoder)) &&
              SUCCEEDED(e->encoder->Initialize(e->stream, WICBitmapEncoderNoCache)) &&
              SUCCEEDED(e->encoder->CreateNewFrame(&e->frame, &options)) &&
              (set_filter_option(options, p.level), SUCCEEDED(e->frame->Initialize(options))) &&
              SUCCEEDED(e->frame->SetSize(p.width, p.height)) && SUCCEEDED(e->frame->SetPixelFormat(&pf)) &&
              IsEqualGUID(pf, wanted);
    release(options);
    if (ok && p.dpi_x > 0 && p.dpi_y > 0) ok = SUCCEEDED(e->frame->SetResolution(p.dpi_x, p.dpi_y));
    if (ok && p.colour_type == 3) {
        WICColor colours[256];
        for (int i = 0; i < p.palette_count; i++)
            colours[i] = 0xFF000000u | p.palette[i][0] << 16 | p.palette[i][1] << 8 | p.palette[i][2];
        IWICPalette *palette = nullptr;
        ok = SUCCEEDED(e->factory->CreatePalette(&palette)) &&
             SUCCEEDED(palette->InitializeCustom(colours, static_cast<UINT>(p.palette_count))) &&
             SUCCEEDED(e->frame->SetPalette(palette));
        release(palette);
    }
    if (!ok) {
        png_encode_close(e);
        return nullptr;
    }
    *error = 0;
    return e;
}

int png_encode_row(png_encoder *e, const uint8_t *row) {
    const uint8_t *pixels = row;
    if (e->bgr) {
        for (uint32_t x = 0; x < e->width; x++) {
            e->bgr[3 * x] = row[3 * x + 2];
            e->bgr[3 * x + 1] = row[3 * x + 1];
            e->bgr[3 * x + 2] = row[3 * x];
        }
        pixels = e->bgr;
    }
    return SUCCEEDED(e->frame->WritePixels(1, e->row_size, e->row_size, const_cast<BYTE *>(pixels))) ? 0
                                                                                                      : IMG_ERR_WRITE;
}

int png_encode_finish(png_encoder *e) {
    HGLOBAL memory = nullptr;
    if (FAILED(e->frame->Commit()) || FAILED(e->encoder->Commit()) || FAILED(GetHGlobalFromStream(e->stream, &memory)))
        return IMG_ERR_WRITE;
    STATSTG stat;
    if (FAILED(e->stream->Stat(&stat, STATFLAG_NONAME)) || stat.cbSize.QuadPart > 0x7FFFFFFF) return IMG_ERR_WRITE;
    const auto *bytes = static_cast<const uint8_t *>(GlobalLock(memory));
    if (!bytes) return IMG_ERR_MEMORY;
    bool written = e->write(e->user, bytes, static_cast<int32_t>(stat.cbSize.QuadPart));
    GlobalUnlock(memory);
    return written ? 0 : IMG_ERR_WRITE;
}

void png_encode_close(png_encoder *e) {
    if (!e) return;
    release(e->frame);
    release(e->encoder);
    release(e->stream);
    release(e->factory);
    e->com.end();
    block_free(e->bgr);
    block_free(e);
}

}  // namespace brv
