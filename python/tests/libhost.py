"""A host in Python: builds a small model through the library's exported KRX_ entries (ctypes)
and writes it with the given option words. The names below hold the values it sets."""

import os
from ctypes import byref, c_double, c_int

import numpy as np

# Node ids out of order on purpose; every node lies on a face so no write drops one.
NODE_IDS = [30, 10, 50, 20, 60, 40]
COORDS = np.array([[0.0, 0.0, 0.0], [1.0, 0.0, 0.0], [1.0, 1.0, 0.0], [0.0, 1.0, 0.5],
                   [2.0, 0.5, 0.25], [0.5, 2.0, 1.0]])
MASSES = np.arange(1.0, 7.0)
# i11, i22, i33, i12, i13, i23 per node
INERTIA_TERMS = np.array([1.0, 2.0, 3.0, 0.1, 0.2, 0.3]) * np.arange(1, 7)[:, None]
FACES = [[30, 10, 50], [10, 20, 60, 50], [60, 40], [20, 30, 40]]
INTERFACE = [10, 40]
HERTZ = np.array([2.0, 5.0, 11.0])
STIFF = (6.28318530718 * HERTZ) ** 2
MODES = 3
SHAPES = 0.1 * np.arange(1, 4)[:, None, None] + 0.01 * np.arange(6)[:, None] + 0.001 * np.arange(6)
STRESS_NODES = [10, 60]  # a sparse stress: two nodes only
STRESS = 100.0 * np.arange(1, 4)[:, None, None] + 10.0 * np.arange(2)[:, None] + np.arange(6)
HEADER = ("Python host model", "host.dat", "PYTEST", "first comment", "second", "third")
UNITS = ["MEGAGRAM", "MILLIMETER", "SECOND", "NEWTON"]

# (option words, the version code they give)
OPTION_CODES = [("", 316), ("single", 828), ("no_xdr", 60), ("single no_xdr", 572),
                ("full_str", 41), ("full_str single", 51), ("full_str no_xdr", 40),
                ("full_str single no_xdr", 50), ("82_comp", 20), ("81_comp", 10)]


def _ints(*values):
    return (c_int * len(values))(*values)


def _reals(*values):
    return (c_double * len(values))(*values)


def write_small(lib, path, options, tmp_dir):
    """Writes the model above through the exported entries; returns the write status."""
    os.environ["QOR_KRXWRITE_OPTIONS"] = options
    os.environ["TMP"] = str(tmp_dir)
    status = c_int(0)
    s = byref(status)
    lib.KRX_CREATE(_ints(len(NODE_IDS)), _ints(MODES), s)
    texts = [t.encode() for t in HEADER]
    lib.KRX_SET_HEADER(*texts, s, *[c_int(len(t)) for t in texts])
    lib.KRX_UNITS_SI_MULTIPLIERS(_reals(1000.0), _reals(0.001), _reals(1.0), _reals(1.0), s)
    for i, nid in enumerate(NODE_IDS):
        lib.KRX_SET_NODE_COORDINATES_VEC(_ints(nid), _reals(*COORDS[i]), s)
        lib.KRX_SET_NODAL_MASS(_ints(nid), _reals(MASSES[i]), s)
        lib.KRX_SET_NODAL_INERTIA(_ints(nid), *[_reals(v) for v in INERTIA_TERMS[i]], s)
        for m in range(MODES):
            lib.KRX_SET_MODE_SHAPE_VEC(_ints(m + 1), _ints(nid), _reals(*SHAPES[m, i]), s)
    for m in range(MODES):
        for j, nid in enumerate(STRESS_NODES):
            lib.KRX_SET_MODAL_STRESS_VEC(_ints(m + 1), _ints(nid), _reals(*STRESS[m, j]), s)
        lib.KRX_SET_GENERALIZED_MASS(_ints(m + 1), _ints(m + 1), _reals(1.0), s)
        lib.KRX_SET_GENERALIZED_STIFFNESS(_ints(m + 1), _ints(m + 1), _reals(STIFF[m]), s)
    for face in FACES:
        lib.KRX_SET_FACE(_ints(len(face)), _ints(*face), s)
    for nid in INTERFACE:
        lib.KRX_SET_INTERFACE_NODE(_ints(nid), s)
    name = os.fspath(path).encode()
    lib.KRX_WRITE_KRX(name, s, c_int(len(name)))
    written = status.value
    lib.KRX_TERMINATE(s)
    return written
