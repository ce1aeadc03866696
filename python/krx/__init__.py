"""krx: reads KRX files (the modal model of a flexible component) into numpy arrays.

    f = krx.read("part.krx")
    f.coords, f.hertz, f.mode_shapes[0]     # one mode, read from the file on demand
    mesh = krx.to_meshio(f)                 # faces and mode vectors for ParaView
"""

from ._reader import KrxError, KrxFile, ModeArray, read
from ._mesh import to_meshio, von_mises

__all__ = ["read", "KrxError", "KrxFile", "ModeArray", "to_meshio", "von_mises"]
