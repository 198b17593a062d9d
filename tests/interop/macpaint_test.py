"""MacPaint interop: files from pbmtomacp load as macptopbm reads them.  A
MacBinary wrapper (file type "PNTG") is decoded from its byte 128: a wrapper
holding a file's packed rows without the 512-byte header loads as macptopbm
reads the file."""
import struct

import brivanta as B

B.require("macptopbm")


def macptopbm(path):
    return B.image_rgb(B.run(["macptopbm", path]))


def plain(name):
    path = B.fixture("macpaint", name)
    B.compare(B.loaded(path).rgb(), macptopbm(path), name + " against macptopbm")


def wrapped(name):
    data = open(B.fixture("macpaint", name), "rb").read()
    header = bytearray(128)
    header[1] = 10
    header[2:12] = b"picture.mp"
    header[65:73] = b"PNTGMPNT"
    header[83:87] = struct.pack(">I", len(data) - 512)
    path = B.tmp("wrapped.bin")
    open(path, "wb").write(bytes(header) + data[512:])
    B.compare(B.loaded(path).rgb(), macptopbm(B.fixture("macpaint", name)), name + " wrapped against macptopbm")


names = ("nb_plasma.mac", "nb_shapes.mac")
B.main([(n, lambda n=n: plain(n)) for n in names] + [(n + " wrapped", lambda n=n: wrapped(n)) for n in names])
