"""Printing on Linux: pages printed to PDF and drawn by poppler are the source
picture at the printed size (Pillow makes the reference); a stopped print
leaves a whole PDF of the pages done; the tool prints every page; the queue
of a private cupsd receives the document.  pdftocairo rather than pdftoppm:
the latter resamples images a fraction of a pixel off even at their own
resolution."""
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
LIB.IMG_dc_create_printer.argtypes = [ctypes.c_char_p, ctypes.c_char_p] + [ctypes.c_int] * 3 + [ctypes.POINTER(P)]
for name in ("IMG_dc_start_page", "IMG_dc_end_page", "IMG_dc_end_doc", "IMG_dc_delete"):
    getattr(LIB, name).argtypes = [P]
LIB.IMG_print_bitmap.argtypes = [ctypes.c_int, P] + [ctypes.c_int] * 4
STATUS = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.c_int)
LIB.IMG_set_statusbar.argtypes = [ctypes.c_void_p, STATUS, ctypes.c_int]
SRC = test_rgb(90, 60)


def print_pages(rects, pdf=None, queue=None, crop=None, stop_at=0):
    """Prints SRC once a page at 100 dpi on 3 x 2 inch pages (300 x 200
    pixels); the status calls and the results of the prints and of the end."""
    path = tmp("source.bmp")
    SRC.save(path)
    h = LIB.IMG_decompress_bitmap(path.encode())
    LIB.IMG_set_gamma(h, 100)
    if crop:
        LIB.IMG_set_croprect(h, *crop)
    calls = []
    status = STATUS(lambda _, total: calls.append(total) or (-5 if len(calls) == stop_at else 0))
    LIB.IMG_set_statusbar(None, status, 1)
    dc = P()
    assert LIB.IMG_dc_create_printer(pdf and pdf.encode(), queue and queue.encode(), 100, 3000, 2000,
                                     ctypes.byref(dc)) == 0
    results = []
    for rect in rects:
        LIB.IMG_dc_start_page(dc)
        results.append(LIB.IMG_print_bitmap(h, dc, *rect))
        if results[-1] < 0:
            break  # the caller gives up: the document keeps the pages done
        assert LIB.IMG_dc_end_page(dc) == len(results)
    end = LIB.IMG_dc_end_doc(dc) if results[-1] >= 0 else None
    LIB.IMG_dc_delete(dc)
    LIB.IMG_set_statusbar(None, status, 0)
    LIB.IMG_delete_bitmap(h)
    return calls, results, end


def rendered(pdf):
    for line in run(["pdfinfo", pdf]).decode().splitlines():
        if line.startswith("Pages:"):
            pages = int(line.split()[1])
    run(["pdftocairo", "-r", "100", "-png", pdf, tmp("page")])
    width = len(str(pages))
    return [np.asarray(Image.open(tmp("page-%0*d.png" % (width, i + 1))).convert("RGB")) for i in range(pages)]


def expected_page(crop, rect):
    """The crop at the destination size by whole-pixel repetition, on white."""
    page = Image.new("RGB", (300, 200), "white")
    part = SRC.crop((crop[0], crop[1], crop[0] + crop[2], crop[1] + crop[3])) if crop else SRC
    page.paste(part.resize(rect[2:], Image.NEAREST), rect[:2])
    return np.asarray(page)


def test_pdf_is_source_at_printed_size():
    # Powers of two, where the band painter's 16.16 column steps are exact
    # and pick the pixels the reference's nearest-neighbour sampling does.
    for crop, rect in [(None, (20, 30, 180, 120)), ((10, 5, 40, 30), (0, 0, 160, 120)), (None, (105, 70, 90, 60))]:
        pdf = tmp("look.pdf")
        calls, results, end = print_pages([rect], pdf, crop=crop)
        assert results == [0] and end == 0 and calls == [rect[3]] * rect[3], (results, end, len(calls))
        compare(rendered(pdf)[0], expected_page(crop, rect), "page of %s at %s" % (crop, rect))


def test_stop_leaves_pdf_of_pages_done():
    pdf = tmp("stopped.pdf")
    calls, results, _ = print_pages([(0, 0, 90, 60), (0, 0, 180, 120)], pdf, stop_at=70)
    assert results == [0, -5] and len(calls) == 70, (results, len(calls))
    pages = rendered(pdf)
    assert len(pages) == 1
    compare(pages[0], expected_page(None, (0, 0, 90, 60)), "the page done")


def test_tool_prints_every_page():
    src = tmp("two.tif")
    test_rgb(80, 50).save(src, save_all=True, append_images=[test_rgb(40, 90)])
    pdf = tmp("tool.pdf")
    run([TOOL, "print", src, "--to", pdf, "--fit", "--dpi", "100"])
    pages = rendered(pdf)
    # Fitted: the tall page fills the 10 inches of a Letter sheet inside its margins.
    ink = np.argwhere((pages[1] != 255).any(axis=-1))
    assert len(pages) == 2 and (ink[:, 0].min(), ink[:, 0].max()) == (50, 1049), ink[:, 0]


# A private scheduler: its own socket, folders and a backend that keeps
# each job's document in the folder its URI names.
CUPS_FILES = {
    "etc/cupsd.conf": "Listen {d}/cups.sock\nLogLevel warn\nWebInterface No\nBrowsing No\n"
                      "<Location />\n  Order allow,deny\n  Allow all\n</Location>\n",
    "etc/cups-files.conf": "".join("%s {d}/%s\n" % kv for kv in (
        ("ServerRoot", "etc"), ("ServerBin", "bin"), ("RequestRoot", "spool"), ("CacheDir", "cache"),
        ("StateDir", "run"), ("TempDir", "tmp"), ("ErrorLog", "error_log"), ("AccessLog", "access_log"),
        ("PageLog", "page_log"))),
    "bin/backend/keep": "#!/bin/sh\n[ $# -eq 0 ] && { echo 'direct keep \"Unknown\" \"Job keeper\"'; exit 0; }\n"
                        "if [ -n \"$6\" ]; then cat \"$6\"; else cat; fi > \"${DEVICE_URI#keep:}/job-$1.tmp\" &&\n"
                        "  mv \"${DEVICE_URI#keep:}/job-$1.tmp\" \"${DEVICE_URI#keep:}/job-$1\"\n",
}


def test_cups_queue_receives_document():
    if not shutil.which("cupsd") or not shutil.which("lpadmin") or not os.path.isdir("/usr/lib/cups/daemon"):
        print("     skipped: cupsd and lpadmin are not installed")
        return
    d = tmp("cups")
    for sub in ("etc", "bin/backend", "spool", "cache", "run", "tmp", "out"):
        os.makedirs(os.path.join(d, sub))
    for name, text in CUPS_FILES.items():
        with open(os.path.join(d, name), "w") as f:
            f.write(text.format(d=d) if name.startswith("etc") else text)
    os.chmod(os.path.join(d, "bin/backend/keep"), 0o755)
    # The backend runs as the scheduler's unprivileged user.
    for path, mode in ((os.path.dirname(d), 0o711), (d, 0o755), (d + "/tmp", 0o1777), (d + "/out", 0o1777)):
        os.chmod(path, mode)
    for sub in ("daemon", "filter"):
        os.symlink("/usr/lib/cups/" + sub, os.path.join(d, "bin", sub))
    server = subprocess.Popen(["cupsd", "-f", "-c", d + "/etc/cupsd.conf", "-s", d + "/etc/cups-files.conf"],
                              stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    try:
        for _ in range(100):
            if os.path.exists(d + "/cups.sock") or server.poll() is not None:
                break
            time.sleep(0.1)
        if not os.path.exists(d + "/cups.sock"):
            print("     skipped: cupsd did not start: %s" % server.stderr.read(400).decode(errors="replace"))
            return
        os.environ["CUPS_SERVER"] = d + "/cups.sock"
        run(["lpadmin", "-p", "brivanta", "-E", "-v", "keep:" + d + "/out"])
        _, results, job = print_pages([(10, 10, 180, 120)], queue="brivanta")
        assert results == [0] and job > 0, (results, job)
        out = d + "/out/job-%d" % job
        for _ in range(100):
            if os.path.exists(out):
                break
            time.sleep(0.1)
        compare(rendered(out)[0], expected_page(None, (10, 10, 180, 120)), "queued page")
    finally:
        os.environ.pop("CUPS_SERVER", None)
        server.terminate()
        try:
            server.wait(timeout=10)
        except subprocess.TimeoutExpired:
            server.kill()
            server.wait()


if __name__ == "__main__":
    main([
        ("pdf_is_source_at_printed_size", test_pdf_is_source_at_printed_size),
        ("stop_leaves_pdf_of_pages_done", test_stop_leaves_pdf_of_pages_done),
        ("tool_prints_every_page", test_tool_prints_every_page),
        ("cups_queue_receives_document", test_cups_queue_receives_document),
    ])
