"""Printing on Linux: pages printed to PDF and rendered by poppler are the
source picture at the printed size (Pillow makes the reference); a
stopped print leaves a whole PDF of the pages done; a CUPS queue of a
private cupsd receives the document."""
import ctypes
import os
import shutil
import subprocess
import time

import numpy as np
from PIL import Image

from brivanta import LIB, TOOL, compare, main, require, run, test_rgb, tmp

require("pdftocairo", "pdfinfo")
P = ctypes.c_void_p
LIB.IMG_dc_create_printer.argtypes = [ctypes.c_char_p, ctypes.c_char_p, ctypes.c_int, ctypes.c_int, ctypes.c_int,
                                      ctypes.POINTER(P)]
for name in ("IMG_dc_start_page", "IMG_dc_end_page", "IMG_dc_end_doc", "IMG_dc_delete"):
    getattr(LIB, name).argtypes = [P]
LIB.IMG_print_bitmap.argtypes = [ctypes.c_int, P] + [ctypes.c_int] * 4
STATUS = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.c_int)
LIB.IMG_set_statusbar.argtypes = [ctypes.c_void_p, STATUS, ctypes.c_int]

# Pages of 3 x 2 inches at 100 dpi: 300 x 200 device pixels.
DPI, PAGE_W, PAGE_H = 100, 300, 200


def handle_of(im, gamma=100):
    path = tmp("source.bmp")
    im.save(path)
    h = LIB.IMG_decompress_bitmap(path.encode())
    assert h >= 0, h
    LIB.IMG_set_gamma(h, gamma)
    return h


def printer(pdf, dpi=DPI, queue=None):
    dc = P()
    r = LIB.IMG_dc_create_printer(pdf.encode() if pdf else None, queue.encode() if queue else None, dpi,
                                  PAGE_W * 1000 // DPI, PAGE_H * 1000 // DPI, ctypes.byref(dc))
    assert r == 0, r
    return dc


def rendered(pdf, dpi=DPI):
    """Every page of the PDF as poppler draws it, RGB arrays.  pdftocairo
    rather than pdftoppm: the latter resamples images a fraction of a pixel
    off even at their own resolution."""
    prefix = tmp("page")
    for f in os.listdir(os.path.dirname(prefix)):
        if f.startswith("page-"):
            os.remove(os.path.join(os.path.dirname(prefix), f))
    run(["pdftocairo", "-r", str(dpi), "-png", pdf, prefix])
    names = sorted(f for f in os.listdir(os.path.dirname(prefix)) if f.startswith("page-"))
    return [np.asarray(Image.open(os.path.join(os.path.dirname(prefix), f)).convert("RGB")) for f in names]


def pages_of(pdf):
    for line in run(["pdfinfo", pdf]).decode().splitlines():
        if line.startswith("Pages:"):
            return int(line.split()[1])
    raise AssertionError("pdfinfo names no page count")


class Progress:
    def __init__(self, stop_at=0):
        self.calls, self.totals, self.stop_at = 0, set(), stop_at
        self.fn = STATUS(self.step)
        LIB.IMG_set_statusbar(None, self.fn, 1)

    def step(self, _, total):
        self.calls += 1
        self.totals.add(total)
        return -5 if self.calls == self.stop_at else 0

    def off(self):
        LIB.IMG_set_statusbar(None, self.fn, 0)


def expected_page(src, crop, rect):
    """The source's crop at the destination size, by whole-pixel repetition,
    on a white page."""
    page = Image.new("RGB", (PAGE_W, PAGE_H), "white")
    part = src.crop((crop[0], crop[1], crop[0] + crop[2], crop[1] + crop[3])) if crop else src
    page.paste(part.resize((rect[2], rect[3]), Image.NEAREST), (rect[0], rect[1]))
    return np.asarray(page)


def test_pdf_looks_like_source():
    # Powers of two, so the reference's nearest-neighbour sampling and the
    # band painter's 16.16 column steps (exact only there) pick the same
    # source pixels: equal to the last bit.
    src = test_rgb(90, 60)
    cases = [(None, (20, 30, 180, 120)), ((10, 5, 40, 30), (0, 0, 160, 120)), ((0, 0, 90, 60), (105, 70, 90, 60))]
    for crop, rect in cases:
        h = handle_of(src)
        if crop:
            assert LIB.IMG_set_croprect(h, *crop) == 0
        pdf = tmp("look.pdf")
        dc = printer(pdf)
        progress = Progress()
        assert LIB.IMG_dc_start_page(dc) == 0
        assert LIB.IMG_print_bitmap(h, dc, *rect) == 0
        progress.off()
        assert LIB.IMG_dc_end_page(dc) == 1
        assert LIB.IMG_dc_end_doc(dc) == 0
        LIB.IMG_dc_delete(dc)
        LIB.IMG_delete_bitmap(h)
        assert progress.calls == rect[3] and progress.totals == {rect[3]}, (progress.calls, progress.totals)
        got, want = rendered(pdf)[0], expected_page(src, crop, rect)
        compare(got, want, "page of %s at %s" % (crop, rect))


def test_stop_leaves_pdf_of_pages_done():
    src = test_rgb(60, 40)
    h = handle_of(src)
    pdf = tmp("stopped.pdf")
    dc = printer(pdf)
    assert LIB.IMG_dc_start_page(dc) == 0
    assert LIB.IMG_print_bitmap(h, dc, 0, 0, 60, 40) == 0
    assert LIB.IMG_dc_end_page(dc) == 1
    progress = Progress(stop_at=10)
    assert LIB.IMG_dc_start_page(dc) == 0
    assert LIB.IMG_print_bitmap(h, dc, 0, 0, 120, 80) == -5
    progress.off()
    assert progress.calls == 10
    # The caller gives up: the document closes with the one page done.
    LIB.IMG_dc_delete(dc)
    LIB.IMG_delete_bitmap(h)
    assert pages_of(pdf) == 1
    compare(rendered(pdf)[0][:40, :60], np.asarray(src), "first page", tolerance=0)


def test_fine_printer_lightens():
    # At 300 dpi without a scaling factor black prints as level 24, white
    # stays white, mid grey follows the cube-root curve.
    grey = Image.fromarray(np.repeat(np.array([[0] * 30 + [128] * 30 + [255] * 30], np.uint8), 30, axis=0), "L")
    h = handle_of(grey.convert("RGB"))
    pdf = tmp("fine.pdf")
    dc = printer(pdf, dpi=300)
    LIB.IMG_dc_start_page(dc)
    assert LIB.IMG_print_bitmap(h, dc, 0, 0, 90, 30) == 0
    LIB.IMG_dc_end_page(dc)
    LIB.IMG_dc_end_doc(dc)
    LIB.IMG_dc_delete(dc)
    LIB.IMG_delete_bitmap(h)
    page = rendered(pdf, 300)[0]
    levels = [int(page[15, x, 1]) for x in (15, 45, 75)]
    assert levels == [24, int((128 / 255.0) ** 0.33333333 * 220) + 24, 255], levels


def test_tool_prints_every_page():
    src = tmp("two.tif")
    test_rgb(80, 50).save(src, save_all=True, append_images=[test_rgb(40, 90)])
    pdf = tmp("tool.pdf")
    run([TOOL, "print", src, "--to", pdf, "--fit", "--dpi", "100"])
    assert pages_of(pdf) == 2
    page = rendered(pdf)[1]
    # Fitted: the tall page fills the 10 inches between the margins.
    ink = np.argwhere((page != 255).any(axis=-1))
    assert ink[:, 0].min() == 50 and ink[:, 0].max() == 1049, (ink[:, 0].min(), ink[:, 0].max())


CUPSD_CONF = """Listen {dir}/cups.sock
LogLevel warn
WebInterface No
Browsing No
<Location />
  Order allow,deny
  Allow all
</Location>
"""
CUPS_FILES_CONF = """ServerRoot {dir}/etc
ServerBin {dir}/bin
RequestRoot {dir}/spool
CacheDir {dir}/cache
StateDir {dir}/run
TempDir {dir}/tmp
ErrorLog {dir}/error_log
AccessLog {dir}/access_log
PageLog {dir}/page_log
"""
# A backend that keeps each job's document in the folder its URI names.
KEEP_BACKEND = """#!/bin/sh
[ $# -eq 0 ] && { echo 'direct keep "Unknown" "Job keeper"'; exit 0; }
dir=${DEVICE_URI#keep:}
if [ -n "$6" ]; then cat "$6"; else cat; fi > "$dir/job-$1.tmp" && mv "$dir/job-$1.tmp" "$dir/job-$1"
"""


def test_cups_queue_receives_document():
    cupsd = shutil.which("cupsd") or ("/usr/sbin/cupsd" if os.path.exists("/usr/sbin/cupsd") else None)
    if not cupsd or not shutil.which("lpadmin") or not os.path.isdir("/usr/lib/cups/daemon"):
        print("     skipped: cupsd and lpadmin are not installed")
        return
    d = tmp("cups")
    for sub in ("etc", "bin/backend", "spool", "cache", "run", "tmp", "out"):
        os.makedirs(os.path.join(d, sub))
    # The backend runs as the scheduler's unprivileged user.
    os.chmod(os.path.dirname(d), 0o711)
    os.chmod(d, 0o755)
    for sub in ("tmp", "out"):
        os.chmod(os.path.join(d, sub), 0o1777)
    os.symlink("/usr/lib/cups/daemon", os.path.join(d, "bin/daemon"))
    os.symlink("/usr/lib/cups/filter", os.path.join(d, "bin/filter"))
    with open(os.path.join(d, "etc/cupsd.conf"), "w") as f:
        f.write(CUPSD_CONF.format(dir=d))
    with open(os.path.join(d, "etc/cups-files.conf"), "w") as f:
        f.write(CUPS_FILES_CONF.format(dir=d))
    backend = os.path.join(d, "bin/backend/keep")
    with open(backend, "w") as f:
        f.write(KEEP_BACKEND)
    os.chmod(backend, 0o755)
    server = subprocess.Popen([cupsd, "-f", "-c", d + "/etc/cupsd.conf", "-s", d + "/etc/cups-files.conf"],
                              stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    try:
        sock = os.path.join(d, "cups.sock")
        for _ in range(100):
            if os.path.exists(sock) or server.poll() is not None:
                break
            time.sleep(0.1)
        if not os.path.exists(sock):
            print("     skipped: cupsd did not start: %s" % server.stderr.read(400).decode(errors="replace"))
            return
        os.environ["CUPS_SERVER"] = sock
        run(["lpadmin", "-p", "brivanta", "-E", "-v", "keep:" + os.path.join(d, "out")])
        h = handle_of(test_rgb(60, 40))
        dc = printer(None, queue="brivanta")
        LIB.IMG_dc_start_page(dc)
        assert LIB.IMG_print_bitmap(h, dc, 10, 10, 120, 80) == 0
        assert LIB.IMG_dc_end_page(dc) == 1
        job = LIB.IMG_dc_end_doc(dc)
        LIB.IMG_dc_delete(dc)
        LIB.IMG_delete_bitmap(h)
        assert job > 0, job
        out = os.path.join(d, "out", "job-%d" % job)
        for _ in range(100):
            if os.path.exists(out):
                break
            time.sleep(0.1)
        assert os.path.exists(out), "job %d never reached the backend" % job
        # The queue's output is the document: one page, the picture on it.
        assert pages_of(out) == 1
        compare(rendered(out)[0][10:90, 10:130], expected_page(test_rgb(60, 40), None, (0, 0, 120, 80))[:80, :120],
                "queued page", tolerance=0)
    finally:
        os.environ.pop("CUPS_SERVER", None)
        server.terminate()
        server.wait()


if __name__ == "__main__":
    main([
        ("pdf_looks_like_source", test_pdf_looks_like_source),
        ("stop_leaves_pdf_of_pages_done", test_stop_leaves_pdf_of_pages_done),
        ("fine_printer_lightens", test_fine_printer_lightens),
        ("tool_prints_every_page", test_tool_prints_every_page),
        ("cups_queue_receives_document", test_cups_queue_receives_document),
    ])
