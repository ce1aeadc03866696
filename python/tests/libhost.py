"""A host in Python: builds a small model through the library's exported KRX_ entries (ctypes)
and writes it with the given option words. SMALL holds the values it sets."""

import ctypes
import os
from ctypes import byref, c_double, c_int

import numpy as np

# Node ids out of order on purpose; every node lies on a face so no write drops one.
NODE_IDS = np.array([30, 10, 50, 20, 60, 40], dtype=np.int32)
COORDS = np.array([[0.0, 0.0, 0.0], [1.0, 0.0, 0.0], [1.0, 1.0, 0.0], [0.0, 1.0, 0.5],
                   [2.0, 0.5, 0.25], [0.5, 2.0, 1.0]])
MASSES = np.array([1.0, 2.0, 3.0, 4.0, 5.0, 6.0])
# i11, i22, i33, i12, i13, i23 per node
INERTIA_TERMS = np.array([[1.0, 2.0, 3.0, 0.1, 0.2, 0.3]] * 6) * np.arange(1, 7)[:, None]
FACES = [[30, 10, 50], [10, 20, 60, 50], [60, 40], [20, 30, 40]]
INTERFACE = [10, 40]
HERTZ = np.array([2.0, 5.0, 11.0])
STIFF = (6.28318530718 * HERTZ) ** 2
MODES = 3
SHAPES = np.array([[[0.1 * (m + 1) + 0.01 * n + 0.001 * c for c in range(6)]
                    for n in range(6)] for m in range(MODES)])
STRESS_NODES = [10, 60]  # a sparse stress: two nodes only
STRESS = np.array([[[100.0 * (m + 1) + 10.0 * n + c for c in range(6)] for n in range(2)]
                   for m in range(MODES)])
HEADER = ("Python host model", "host.dat", "PYTEST", "first comment", "second", "third")
UNITS = ["MEGAGRAM", "MILLIMETER", "SECOND", "NEWTON"]

# (option words, the version code they give)
OPTION_CODES = [("", 316), ("single", 828), ("no_xdr", 60), ("single no_xdr", 572),
                ("full_str", 41), ("full_str single", 51), ("full_str no_xdr", 40),
                ("full_str single no_xdr", 50), ("82_comp", 20), ("81_comp", 10)]


def library(build_dir):
    path = os.path.join(build_dir, "libkrxlib.so")
    return ctypes.CDLL(path) if os.path.exists(path) else None


def _ints(values):
    return (c_int * len(values))(*values)


def write_small(lib, path, options, tmp_dir):
    """Writes SMALL through the exported entries; returns the write status."""
    os.environ["QOR_KRXWRITE_OPTIONS"] = options
    os.environ["TMP"] = str(tmp_dir)
    status = c_int(0)
    lib.KRX_CREATE(byref(c_int(len(NODE_IDS))), byref(c_int(MODES)), byref(status))
    texts = [t.encode() for t in HEADER]
    lib.KRX_SET_HEADER(*texts, byref(status), *[c_int(len(t)) for t in texts])
    lib.KRX_UNITS_SI_MULTIPLIERS(byref(c_double(1000.0)), byref(c_double(0.001)),
                                 byref(c_double(1.0)), byref(c_double(1.0)), byref(status))
    for i, nid in enumerate(NODE_IDS.tolist()):
        xyz = (c_double * 3)(*COORDS[i])
        lib.KRX_SET_NODE_COORDINATES_VEC(byref(c_int(nid)), xyz, byref(status))
        lib.KRX_SET_NODAL_MASS(byref(c_int(nid)), byref(c_double(MASSES[i])), byref(status))
        lib.KRX_SET_NODAL_INERTIA(byref(c_int(nid)),
                                  *[byref(c_double(v)) for v in INERTIA_TERMS[i]], byref(status))
        for m in range(MODES):
            v = (c_double * 6)(*SHAPES[m, i])
            lib.KRX_SET_MODE_SHAPE_VEC(byref(c_int(m + 1)), byref(c_int(nid)), v, byref(status))
    for m in range(MODES):
        for j, nid in enumerate(STRESS_NODES):
            v = (c_double * 6)(*STRESS[m, j])
            lib.KRX_SET_MODAL_STRESS_VEC(byref(c_int(m + 1)), byref(c_int(nid)), v, byref(status))
        lib.KRX_SET_GENERALIZED_MASS(byref(c_int(m + 1)), byref(c_int(m + 1)),
                                     byref(c_double(1.0)), byref(status))
        lib.KRX_SET_GENERALIZED_STIFFNESS(byref(c_int(m + 1)), byref(c_int(m + 1)),
                                          byref(c_double(STIFF[m])), byref(status))
    for face in FACES:
        lib.KRX_SET_FACE(byref(c_int(len(face))), _ints(face), byref(status))
    for nid in INTERFACE:
        lib.KRX_SET_INTERFACE_NODE(byref(c_int(nid)), byref(status))
    name = os.fspath(path).encode()
    lib.KRX_WRITE_KRX(name, byref(status), c_int(len(name)))
    written = status.value
    lib.KRX_TERMINATE(byref(status))
    return written


def inertia_matrix(terms):
    i11, i22, i33, i12, i13, i23 = terms
    return np.array([[i11, i12, i13], [i12, i22, i23], [i13, i23, i33]])
