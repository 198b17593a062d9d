// Printer device contexts on Linux: a surface the size of the printable page
// at the printer's resolution.  Each finished page goes into a PDF document
// through cairo; the end of the document sends that file to a CUPS queue.
#include "platform/posix/surface.h"

#include "brivanta.h"

#include <cairo-pdf.h>
#include <cups/cups.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace brv {

namespace {

constexpr int NAME_CAPACITY = 1024;

struct printer {
    mem_block block;
    cairo_surface_t *pdf;
    int fd;
    bool write_failed;
    bool ended;
    bool temporary;  // the PDF exists only to be sent to the queue
    int dpi;
    int pages;
    char file[NAME_CAPACITY];
    char queue[NAME_CAPACITY];
};

printer *printer_of(surface *s);

// cairo's output goes through the library's own file calls, so a full disk
// shows as a short write.
cairo_status_t write_pdf(void *closure, const unsigned char *data, unsigned int length) {
    auto *p = static_cast<printer *>(closure);
    while (length) {
        const int32_t chunk = static_cast<int32_t>(std::min(length, 1u << 30));
        if (os_write(p->fd, data, chunk) != chunk) {
            p->write_failed = true;
            return CAIRO_STATUS_WRITE_ERROR;
        }
        data += chunk;
        length -= static_cast<unsigned>(chunk);
    }
    return CAIRO_STATUS_SUCCESS;
}

// Closes the PDF with the pages shown so far: a document that ends early is
// still a whole file.  0 or IMG_ERR_WRITE.
int finish_document(printer *p) {
    if (!p->pdf) return p->write_failed ? IMG_ERR_WRITE : 0;
    cairo_surface_finish(p->pdf);
    const bool bad = cairo_surface_status(p->pdf) != CAIRO_STATUS_SUCCESS;
    cairo_surface_destroy(p->pdf);
    p->pdf = nullptr;
    if (p->fd >= 0) os_close(p->fd);
    p->fd = -1;
    return bad || p->write_failed ? IMG_ERR_WRITE : 0;
}

void printer_destroy(surface *s) {
    printer *p = printer_of(s);
    if (!p) return;
    finish_document(p);
    if (p->temporary) os_delete(p->file);
    mem_block b = p->block;
    mem_unlock(b);
    mem_free(b);
    s->owner = nullptr;
}

const surface_hooks printer_hooks = {nullptr, nullptr, printer_destroy};

printer *printer_of(surface *s) {
    return s && s->hooks == &printer_hooks ? static_cast<printer *>(s->owner) : nullptr;
}

void clear_page(surface *s) { std::fill(s->pixels, s->pixels + static_cast<size_t>(s->width) * s->height, 0xFFFFFFu); }

}  // namespace

}  // namespace brv

using namespace brv;

extern "C" {

int IMG_API IMG_dc_create_printer(const char *pdf_file, const char *queue, int dpi, int page_w_mils, int page_h_mils,
                                  void **dc) {
    if (!dc) return IMG_ERR_TYPE;
    *dc = nullptr;
    const bool to_file = pdf_file && *pdf_file, to_queue = queue && *queue;
    if ((!to_file && !to_queue) || dpi < 1 || dpi > 4800 || page_w_mils < 1 || page_h_mils < 1 ||
        page_w_mils > 1000000 || page_h_mils > 1000000)
        return IMG_ERR_TYPE;
    if ((to_file && std::strlen(pdf_file) >= NAME_CAPACITY) || (to_queue && std::strlen(queue) >= NAME_CAPACITY))
        return IMG_ERR_CREATE;
    const int64_t w = (static_cast<int64_t>(page_w_mils) * dpi + 500) / 1000;
    const int64_t h = (static_cast<int64_t>(page_h_mils) * dpi + 500) / 1000;
    if (w < 1 || h < 1 || w * h > 0x1FFFC000) return IMG_ERR_MEMORY;

    mem_block b;
    auto *p = mem_new_record<printer>(&b);
    if (!p) return IMG_ERR_MEMORY;
    p->block = b;
    p->dpi = dpi;
    if (to_queue) std::strcpy(p->queue, queue);
    if (to_file) {
        std::strcpy(p->file, pdf_file);
        p->fd = os_create(p->file);
    } else {
        p->temporary = true;
        p->fd = os_create_temp(p->file, NAME_CAPACITY);
    }
    surface *s = nullptr;
    if (p->fd >= 0) s = surface_create(static_cast<int>(w), static_cast<int>(h));
    if (s) {
        p->pdf = cairo_pdf_surface_create_for_stream(write_pdf, p, page_w_mils * 0.072, page_h_mils * 0.072);
        if (cairo_surface_status(p->pdf) != CAIRO_STATUS_SUCCESS) {
            cairo_surface_destroy(p->pdf);
            p->pdf = nullptr;
        }
    }
    if (!p->pdf) {
        const int code = p->fd < 0 ? IMG_ERR_CREATE : IMG_ERR_MEMORY;
        if (s) surface_destroy(s);
        if (p->fd >= 0) {
            os_close(p->fd);
            os_delete(p->file);
        }
        mem_unlock(b);
        mem_free(b);
        return code;
    }
    // A true-colour device at the printer's resolution.  Not "PostScript":
    // the pages become PDF, and nothing here answers PostScript escapes.
    s->logpixels_x = dpi;
    s->hooks = &printer_hooks;
    s->owner = p;
    *dc = s;
    return 0;
}

int IMG_API IMG_dc_start_page(void *dc) {
    surface *s = surface_of(dc);
    printer *p = printer_of(s);
    if (!p) return IMG_ERR_HANDLE;
    if (p->ended) return IMG_ERR_TYPE;
    clear_page(s);
    return 0;
}

int IMG_API IMG_dc_end_page(void *dc) {
    surface *s = surface_of(dc);
    printer *p = printer_of(s);
    if (!p) return IMG_ERR_HANDLE;
    if (p->ended || !p->pdf) return IMG_ERR_TYPE;
    cairo_surface_t *page = cairo_image_surface_create_for_data(reinterpret_cast<unsigned char *>(s->pixels),
                                                                CAIRO_FORMAT_RGB24, s->width, s->height, s->width * 4);
    cairo_t *cr = cairo_create(p->pdf);
    // One device pixel is 1/dpi inch; the page keeps its pixels unsmoothed.
    cairo_scale(cr, 72.0 / p->dpi, 72.0 / p->dpi);
    cairo_set_source_surface(cr, page, 0, 0);
    cairo_pattern_set_filter(cairo_get_source(cr), CAIRO_FILTER_NEAREST);
    cairo_paint(cr);
    const bool bad = cairo_status(cr) != CAIRO_STATUS_SUCCESS;
    cairo_destroy(cr);
    cairo_surface_show_page(p->pdf);
    cairo_surface_destroy(page);
    clear_page(s);
    if (bad) return IMG_ERR_MEMORY;
    if (p->write_failed || cairo_surface_status(p->pdf) != CAIRO_STATUS_SUCCESS) return IMG_ERR_WRITE;
    return ++p->pages;
}

int IMG_API IMG_dc_end_doc(void *dc) {
    printer *p = printer_of(surface_of(dc));
    if (!p) return IMG_ERR_HANDLE;
    if (p->ended) return IMG_ERR_TYPE;
    p->ended = true;
    if (int r = finish_document(p); r < 0) return r;
    if (!*p->queue) return 0;
    const char *slash = std::strrchr(p->file, '/');
    const int job = cupsPrintFile(p->queue, p->file, p->temporary ? "brivanta" : (slash ? slash + 1 : p->file), 0,
                                  nullptr);
    return job > 0 ? job : IMG_ERR_CREATE;
}

}  // extern "C"
