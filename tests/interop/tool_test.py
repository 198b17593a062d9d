"""The command-line tool: its type keys and format list come from the
library, outputs are replaced unless --append, and - reads standard input
and writes standard output (checked by Pillow's decode of the output
against the source picture)."""
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
    for args in (("--type", "tiff"), ("--type", "99"), ("--type", "")):
        r = tool("convert", B.tmp("src.bmp"), B.tmp("x.tif"), *args)
        assert r.returncode == 2 and b"unknown type" in r.stderr, (args, r.stderr)
    assert tool("convert", B.tmp("src.bmp"), "-").returncode == 2, "standard output without --type"
    r = tool("info", B.tmp("missing.bmp"))
    assert r.returncode == 1 and b"cannot open the input" in r.stderr


B.main([("formats list every code once", formats_list_every_code_once),
        ("pipes through standard input and output", pipes_through_standard_input_and_output),
        ("replaces unless appending", replaces_unless_appending),
        ("refuses what it cannot do", refuses_what_it_cannot_do)])
