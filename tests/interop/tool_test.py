"""The command-line tool: its type keys and format list come from the
library, outputs are replaced unless --append, - reads standard input and
writes standard output (checked by Pillow's decode of the output against
the source picture), and what it cannot do it refuses in one line."""
import subprocess

import numpy as np

import brivanta as B

SOURCE = B.test_rgb(83, 57)
SOURCE.save(B.tmp("src.bmp"))


def tool(*args, stdin=None):
    return subprocess.run([B.TOOL, *args], input=stdin, capture_output=True)


def formats_list_every_code_once():
    assert tool("--version").stdout.decode().startswith("brivanta 5.10")
    rows = [line.split(None, 5) for line in tool("formats").stdout.decode().splitlines()[1:]]
    assert [int(r[0]) for r in rows] == list(range(44))
    keys = [r[1] for r in rows]
    assert len(set(keys)) == len(keys) and "tif-g4" in keys and "fax-g3" in keys
    writable = {r[1] for r in rows if r[4] == "yes"}
    assert writable >= {"tif", "bmp", "gif", "jpg", "tif-lzw", "tga-15", "wpg", "pct", "ico"} and "img" not in writable


def pipes_through_standard_input_and_output():
    with open(B.tmp("src.bmp"), "rb") as f:
        src = f.read()
    out = tool("convert", "-", "-", "--type", "tif-lzw", stdin=src)
    assert out.returncode == 0, out.stderr
    with open(B.tmp("piped.tif"), "wb") as f:
        f.write(out.stdout)
    B.compare(B.pillow_rgb(B.tmp("piped.tif")), np.asarray(SOURCE), "piped TIFF in Pillow")
    assert tool("convert", B.tmp("src.bmp"), "-", "--type", "9").stdout == out.stdout, "key and number differ"
    assert tool("info", "-", stdin=out.stdout).stdout == tool("info", B.tmp("piped.tif")).stdout


def replaces_unless_appending():
    out = B.tmp("pages.tif")
    for args, pages in (((), 1), ((), 1), (("--append",), 2)):
        assert tool("convert", B.tmp("src.bmp"), out, "--type", "tif", *args).returncode == 0
        assert ("pages=%d" % pages) in tool("info", out).stdout.decode()


def refuses_what_it_cannot_do():
    """Usage errors exit 2, a refused input or operation 1, each with one line naming it."""
    src, x = B.tmp("src.bmp"), B.tmp("x.bmp")
    with open(B.tmp("src4.bmp"), "wb") as f:  # filters take no 4-bit picture
        f.write(B.bmp_file(np.zeros((5, 5), int), 4, [(v, v, v) for v in range(0, 256, 17)]))
    for args, code, text in ((("convert", src, x, "--type", "tiff"), 2, "unknown type"),
                             (("convert", src, x, "--type", "99"), 2, "unknown type"),
                             (("convert", src, x, "--type", ""), 2, "unknown type"),
                             (("convert", src, "-"), 2, "standard output needs --type"),
                             (("info", B.tmp("missing.bmp")), 1, "cannot open the input"),
                             (("process", B.tmp("src4.bmp"), x, "--filter", "3"), 1, "--filter"),
                             (("process", src, x, "--resize", "0x3"), 2, "WxH"), (("process", src, x, "--bogus"), 2, "--bogus"),
                             (("process", src, x, "--rotate"), 2, "--rotate"), (("process", src, x, "--octree", "5"), 2, "--octree")):
        r = tool(*args)
        err = r.stderr.decode()
        assert r.returncode == code and text in err and err.count("\n") == 1, (args, r.returncode, err)


B.main([("formats list every code once", formats_list_every_code_once),
        ("pipes through standard input and output", pipes_through_standard_input_and_output),
        ("replaces unless appending", replaces_unless_appending),
        ("refuses what it cannot do", refuses_what_it_cannot_do)])
