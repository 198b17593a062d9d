"""MacPaint files from pbmtomacp load as macptopbm reads them, plain and in a
MacBinary wrapper ("PNTG"), which is decoded from its byte 128: the wrapper
holds the packed rows without the 512-byte header."""
import brivanta as B

B.require("macptopbm")


def check(name, wrapped):
    path = B.fixture("macpaint", name)
    want = B.image_rgb(B.run(["macptopbm", path]))
    if wrapped:
        header = bytearray(128)
        header[1:12], header[65:73] = b"\x0apicture.mp", b"PNTGMPNT"
        with open(B.tmp(name), "wb") as f:
            f.write(bytes(header) + open(path, "rb").read()[512:])
        path = B.tmp(name)
    B.compare(B.loaded(path).rgb(), want, name + " against macptopbm")


B.main([(n + w * " wrapped", lambda n=n, w=w: check(n, w)) for n in ("nb_plasma.mac", "nb_shapes.mac")
        for w in (False, True)])
