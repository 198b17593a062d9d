"""JPEG inside TIFF against independent tools: old-style compression 6 files
built from cjpeg output (tables in tags 519-521, strips of entropy-coded
data) load as our decoder loads the cjpeg file, and close to libtiff's decode
through Pillow when its libtiff reads them.  (Type 40 output is checked in
writers_test.py.)"""
import struct
import subprocess

import brivanta as b

b.require("cjpeg", "tiffinfo", "tiffcp", "convert")
# Measured: old-style files at 42-49 dB of libtiff's decode.
OLD_STYLE_FLOOR = 40.0
path, psnr = b.tmp, b.psnr


def split_jpeg(data):
    """Tables, frame and scan selectors, restart interval and the entropy
    data cut at its restart markers."""
    j = {"q": {}, "dc": {}, "ac": {}, "restart": 0}
    p = 2
    while True:
        marker, length = data[p + 1], struct.unpack(">H", data[p + 2:p + 4])[0]
        s = data[p + 4:p + 2 + length]
        if marker == 0xDB:
            for i in range(0, len(s), 65):
                j["q"][s[i] & 15] = s[i + 1:i + 65]
        elif marker == 0xC4:
            i = 0
            while i < len(s):
                n = sum(s[i + 1:i + 17])
                j["ac" if s[i] >> 4 else "dc"][s[i] & 15] = s[i + 1:i + 17 + n]
                i += 17 + n
        elif marker == 0xC0:
            j["height"], j["width"] = struct.unpack(">HH", s[1:5])
            j["hv"] = [s[7 + 3 * c] for c in range(s[5])]
            j["tq"] = [s[8 + 3 * c] for c in range(s[5])]
        elif marker == 0xDD:
            j["restart"] = struct.unpack(">H", s[:2])[0]
        elif marker == 0xDA:
            j["td"] = [s[2 + 2 * c] >> 4 for c in range(s[0])]
            j["ta"] = [s[2 + 2 * c] & 15 for c in range(s[0])]
            p += 2 + length
            break
        p += 2 + length
    segs, seg = [], bytearray()
    while not (data[p] == 0xFF and data[p + 1] == 0xD9):
        if data[p] == 0xFF and data[p + 1] & 0xF8 == 0xD0:
            segs.append(bytes(seg))
            seg = bytearray()
            p += 2
            continue
        seg.append(data[p])
        p += 1
    segs.append(bytes(seg))
    j["segments"] = segs
    return j


def join(segs, first=0):
    """Segments with restart markers between them, numbered as in the whole
    image (libtiff reads the strips as one stream)."""
    out = bytearray()
    for i, s in enumerate(segs):
        if i:
            out += bytes([0xFF, 0xD0 + (first + i - 1) % 8])
        out += s
    return bytes(out)


def old_style_tiff(j, rows_per_strip=None):
    """A little-endian compression 6 file: tables first, then the strips,
    then one IFD.  Several strips take one MCU row per restart segment."""
    comps = len(j["hv"])
    mcu_rows = 8 * max(v & 15 for v in j["hv"])
    blob, at = bytearray(), {}
    for kind in ("q", "dc", "ac"):
        for k, t in sorted(j[kind].items()):
            at[kind, k] = 8 + len(blob)
            blob += t
    if rows_per_strip is None or rows_per_strip >= j["height"]:
        rows_per_strip, strips, restart = j["height"], [join(j["segments"])], j["restart"]
    else:
        per = rows_per_strip // mcu_rows
        strips = [join(j["segments"][i:i + per], i) for i in range(0, len(j["segments"]), per)]
        restart = -(-j["width"] // (8 * (j["hv"][0] >> 4)))
    data = bytes(blob) + b"".join(strips)
    offsets, pos = [], 8 + len(blob)
    for s in strips:
        offsets.append(pos)
        pos += len(s)
    extra = bytearray()  # arrays that do not fit in an entry
    base = 8 + len(data)
    base += base & 1
    fields = [(256, 3, [j["width"]]), (257, 3, [j["height"]]), (258, 3, [8] * comps), (259, 3, [6]),
              (262, 3, [6 if comps == 3 else 1]), (273, 4, offsets), (277, 3, [comps]),
              (278, 4, [rows_per_strip]), (279, 4, [len(s) for s in strips]), (284, 3, [1]), (512, 3, [1])]
    if restart:
        fields.append((515, 3, [restart]))
    fields += [(519, 4, [at["q", j["tq"][c]] for c in range(comps)]),
               (520, 4, [at["dc", j["td"][c]] for c in range(comps)]),
               (521, 4, [at["ac", j["ta"][c]] for c in range(comps)])]
    if comps == 3:
        fields.append((530, 3, [j["hv"][0] >> 4, j["hv"][0] & 15]))
    ifd_at, ifd_size = base, 2 + 12 * len(fields) + 4  # arrays go after the IFD
    entries = []
    for tag, typ, vals in fields:
        fmt = "<H" if typ == 3 else "<I"
        packed = b"".join(struct.pack(fmt, v) for v in vals)
        if len(packed) <= 4:
            entries.append(struct.pack("<HHI", tag, typ, len(vals)) + packed.ljust(4, b"\0"))
        else:
            entries.append(struct.pack("<HHII", tag, typ, len(vals), ifd_at + ifd_size + len(extra)))
            extra += packed
    ifd = struct.pack("<H", len(fields)) + b"".join(entries) + b"\0\0\0\0"
    return b"II*\0" + struct.pack("<I", ifd_at) + data + b"\0" * (base - 8 - len(data)) + ifd + bytes(extra)


def libtiff_decode(f):
    """libtiff's decode: through Pillow, or (for grey, which Pillow does not
    map) copied uncompressed by tiffcp first; None when libtiff refuses."""
    for src in (f, f + ".plain.tif"):
        if src != f and subprocess.run(["tiffcp", "-c", "none", f, src], capture_output=True).returncode:
            return None
        try:
            return b.pillow_rgb(src)
        except Exception:
            pass


def make_jpegs():
    b.run("convert -size 203x77 -seed 5 plasma:fractal -blur 0x1 -depth 8 %s" % path("src.ppm"))
    return {name + ("_rows" if restart else ""): b.make("cjpeg -quality 85 %s %s %s" % (opts, restart, path("src.ppm")),
                                                        name + ("_rows" if restart else "") + ".jpg")
            for name, opts in (("grey", "-grayscale"), ("c420", ""), ("c444", "-sample 1x1"), ("c422", "-sample 2x1"))
            for restart in ("", "-restart 1")}


JPEGS = make_jpegs()


def case_old_style_strips_match_our_jpeg_decode_and_libtiff():
    for key, jpg in sorted(JPEGS.items()):
        j = split_jpeg(open(jpg, "rb").read())
        mcu_rows = 8 * max(v & 15 for v in j["hv"])
        for rps in [None] + ([mcu_rows, 2 * mcu_rows] if key.endswith("_rows") else []):
            name = path("%s_%s.tif" % (key, rps or "one"))
            open(name, "wb").write(old_style_tiff(j, rps))
            ours, reference = b.loaded(name), b.loaded(jpg)
            assert ours.bits == reference.bits and ours.rows == reference.rows, "%s differs from its JPEG" % name
            # libtiff reads the strips as one stream with its own restart
            # markers between them, so a strip may hold one restart segment.
            if rps in (None, mcu_rows):
                theirs = libtiff_decode(name)
                assert theirs is not None, "libtiff refused %s" % name
                b.compare(ours.rgb(), theirs, "%s rows/strip %s against libtiff" % (key, rps or "all"), floor=OLD_STYLE_FLOOR)


b.main([(n, f) for n, f in sorted(globals().items()) if n.startswith("case_")])
