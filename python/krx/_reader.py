"""Reads a KRX file block by block from its layout alone.

The file is mapped into memory; every block is located by adding up the sizes of the present
blocks before it, and every count read off the file is checked against the bytes that are left
before anything is allocated from it. Mode shapes, modal stresses and modal strains stay in the
file: they are exposed as views over the mapping and converted one mode at a time.
"""

import mmap
import os

import numpy as np

from ._layout import (BLOCK_NAMES, FLAG_BYTE, FLAG_COUNT, HEADER_FIELDS,
                      NATIVE_GENERATIONS, OLD_GENERATIONS, is_single_code, is_xdr_code)


class KrxError(Exception):
    """A file that is not a readable KRX file; the message names the block and the byte offset."""


class ModeArray:
    """M x N x 6 values that stay in the file: indexing converts only the modes asked for to
    native float64, so one mode costs one read of its record."""

    def __init__(self, stored):
        self._stored = stored  # a view over the mapped file, in the file's byte order and width
        self.shape = stored.shape
        self.ndim = stored.ndim
        self.dtype = np.dtype(np.float64)

    def __len__(self):
        return self.shape[0]

    def __getitem__(self, key):
        with np.errstate(invalid="ignore"):  # a stored NaN stays NaN
            return np.asarray(self._stored[key], dtype=np.float64)

    def __iter__(self):
        for k in range(self.shape[0]):
            yield self[k]

    def __array__(self, dtype=None, copy=None):
        return np.asarray(self._stored, dtype=dtype or np.float64)

    def __repr__(self):
        return f"ModeArray(shape={self.shape}, stored as {self._stored.dtype})"


def _lazy_modes(stored):
    """Native double values are already what the caller wants: the memory map itself."""
    if stored.dtype == np.dtype("<f8") and np.little_endian:
        return stored
    return ModeArray(stored)


class _Cursor:
    """Reads primitives at a position of the mapped file, refusing to pass its end."""

    def __init__(self, data, size, xdr, single):
        self.data, self.size = data, size
        order = ">" if xdr else "<"
        self.i4 = np.dtype(order + "i4")
        self.real = np.dtype(order + ("f4" if single else "f8"))
        self.char = np.dtype(">i4") if xdr else np.dtype("i1")
        self.block, self.pos = 1, 0

    def fail(self, what, at=None):
        at = self.pos if at is None else at
        raise KrxError(f"block {self.block} ({BLOCK_NAMES[self.block]}) at byte {at}: {what}")

    def need(self, nbytes, what):
        left = self.size - self.pos
        if nbytes > left:
            self.fail(f"{what} needs {nbytes} bytes but the file ends after {max(left, 0)}")

    def array(self, dtype, count, what):
        dtype = np.dtype(dtype)
        self.need(count * dtype.itemsize, what)
        a = np.frombuffer(self.data, dtype=dtype, count=count, offset=self.pos)
        self.pos += count * dtype.itemsize
        return a

    def int(self, what):
        return int(self.array(self.i4, 1, what)[0])

    def count(self, what):
        at = self.pos
        n = self.int(what)
        if n < 0:
            self.fail(f"{what} is negative ({n})", at)
        return n

    def reals(self, count, what):
        return self.array(self.real, count, what).astype(np.float64)

    def ints(self, count, what):
        return self.array(self.i4, count, what).astype(np.int32)

    def text(self, n, what):
        raw = self.array(self.char, n, what).astype(np.uint8).tobytes()
        return raw.split(b"\0", 1)[0].decode("latin-1")


def _records(cur, count, fields, what):
    try:
        dtype = np.dtype(fields)
    except (ValueError, OverflowError):
        cur.fail(f"{what} cannot be laid out")
    return cur.array(dtype, count, what)


class KrxFile:
    """The contents of one KRX file; attributes are None where the file lacks the block."""

    def __init__(self, path):
        self.path = os.fspath(path)
        for name in ("header", "node_ids", "coords", "global_body_props", "mode_numbers",
                     "eigenvalues", "hertz", "radians", "gen_mass", "gen_stiff",
                     "mode_shape_node_ids", "mode_shapes", "masses", "inertias", "units",
                     "generalized_stiffness", "generalized_mass", "generalized_damping",
                     "interface_nodes", "transformation", "stress", "strain", "preload",
                     "preload_mark", "modal_loads", "statistics", "pre_stress", "pre_strain"):
            setattr(self, name, None)
        self.invariants = {}
        self._face_counts = self._face_vertices = None
        self._faces = None
        self._mode_record_numbers = None
        self._id_order = None

    @property
    def faces(self):
        """One int32 array of node identifiers per face, in the file's order."""
        if self._face_counts is None:
            return None
        if self._faces is None:
            ends = np.cumsum(self._face_counts)[:-1]
            self._faces = np.split(self._face_vertices, ends) if len(self._face_counts) else []
        return self._faces

    @property
    def mode_count(self):
        """Number of modes: block 7's count, else block 8's; None without either."""
        if self.mode_numbers is not None:
            return len(self.mode_numbers)
        return None

    def node_positions(self, ids):
        """Position in node_ids of each identifier, -1 where block 4 does not hold it."""
        ids = np.asarray(ids, dtype=np.int64)
        if self.node_ids is None or len(self.node_ids) == 0:
            return np.full(ids.shape, -1, dtype=np.int64)
        if self._id_order is None or len(self._id_order[0]) != len(self.node_ids):
            order = np.argsort(self.node_ids, kind="stable")
            self._id_order = (order, self.node_ids[order])
        order, sorted_ids = self._id_order
        at = np.clip(np.searchsorted(sorted_ids, ids), 0, len(sorted_ids) - 1)
        return np.where(sorted_ids[at] == ids, order[at], -1)

    def __repr__(self):
        return (f"<KrxFile {self.path!r} version {self.version_code} blocks {self.blocks}>")


def read(path):
    """Reads the KRX file at path; raises KrxError when it is not a readable KRX file."""
    f = KrxFile(path)
    try:
        with open(f.path, "rb") as fh:
            size = os.fstat(fh.fileno()).st_size
            if size < 4:
                raise KrxError(f"block 1 (version_code) at byte 0: the file holds {size} bytes")
            data = mmap.mmap(fh.fileno(), 0, access=mmap.ACCESS_READ)
    except OSError as e:
        raise KrxError(f"cannot open {f.path}: {e.strerror}") from e
    _read_version(f, data, size)
    cur = _Cursor(data, size, f.xdr, f.single)
    cur.block, cur.pos = 2, 4
    f.header = _read_header(cur)
    cur.block = 3
    flags = cur.array(cur.char, FLAG_COUNT, "the content summary").astype(np.int64)
    if f.generation in OLD_GENERATIONS:
        flags[17:97] = 0
    f.blocks = [1, 2, 3] + [b for b in range(4, 33) if flags[FLAG_BYTE[b]] != 0]
    for b in f.blocks[3:]:
        cur.block = b
        _BLOCK_READERS[b](f, cur)
    return f


def _read_version(f, data, size):
    raw = bytes(data[:4])
    code = int.from_bytes(raw, "little", signed=True)
    low = code & 0xFF
    if low in NATIVE_GENERATIONS or (low >= 60 and not is_xdr_code(code)):
        xdr = False
    else:
        code = int.from_bytes(raw, "big", signed=True)
        low = code & 0xFF
        if not (low in (31, 41, 51) or (low >= 60 and is_xdr_code(code))):
            raise KrxError(f"block 1 (version_code) at byte 0: not a KRX version code ({raw.hex()})")
        xdr = True
    f.version_code, f.generation, f.xdr, f.single = code, low, xdr, is_single_code(code)


def _read_header(cur):
    fields = {name: cur.text(n, f"header field {name}").rstrip(" ") for name, n in HEADER_FIELDS}
    return {"title": fields["title"], "date": fields["date"], "input_name": fields["input_name"],
            "input_type": fields["input_type"],
            "comments": [fields["comment1"], fields["comment2"], fields["comment3"]]}


def _read_coords(f, cur):
    n = cur.count("node count")
    d = cur.count("coordinate count")
    rec = _records(cur, n, [("id", cur.i4), ("xyz", cur.real, (d,))], f"{n} node records")
    f.node_ids = rec["id"].astype(np.int32)
    coords = np.zeros((n, 3))
    coords[:, :min(d, 3)] = rec["xyz"][:, :3]
    f.coords = coords


def _read_topology(f, cur):
    start = cur.pos
    nfaces = cur.count("face count")
    groups = cur.count("group count")
    heads = cur.ints(3 * groups, f"{groups} group headers").reshape(groups, 3)
    if np.any(heads < 0):
        cur.fail("a group header holds a negative number", start + 8)
    if int(heads[:, 1].sum()) != nfaces:
        cur.fail(f"the groups hold {int(heads[:, 1].sum())} faces, not {nfaces}", start)
    counts, vertices = [], []
    for _, e, p in sorted(heads.tolist()):
        words = cur.ints(e * (p + 2), f"{e} faces of {p} vertices").reshape(e, p + 2)
        counts.append(np.full(e, p, dtype=np.int32))
        vertices.append(words[:, 2:].reshape(-1))
    f._face_counts = np.concatenate(counts) if counts else np.zeros(0, np.int32)
    f._face_vertices = np.concatenate(vertices) if vertices else np.zeros(0, np.int32)


def _read_body(f, cur):
    v = cur.reals(13, "body properties")
    f.global_body_props = {"mass": v[0], "centre": v[1:4], "inertia": v[4:13].reshape(3, 3)}


def _read_eigenvalues(f, cur):
    m = cur.count("mode count")
    rec = _records(cur, m, [("num", cur.i4), ("v", cur.real, (5,))], f"{m} eigenvalue records")
    v = rec["v"].astype(np.float64)
    f.mode_numbers = rec["num"].astype(np.int32)
    f.eigenvalues, f.hertz, f.radians, f.gen_mass, f.gen_stiff = (v[:, i].copy() for i in range(5))


def _read_per_mode_vectors(f, cur, what):
    """Blocks 8, 18 and 29: node ids, then one record of 6 values per node for each mode."""
    start = cur.pos
    m = cur.count("mode count")
    n = cur.count("node count")
    if f.mode_count is not None and m != f.mode_count:
        cur.fail(f"{m} {what} modes, but {f.mode_count} eigenvalues", start)
    ids = cur.ints(n, f"{n} node ids")
    fields = [("v", cur.real, (n, 6))]
    if f.generation != 10:
        fields.insert(0, ("num", cur.i4))
    rec = _records(cur, m, fields, f"{m} {what} records of {n} nodes")
    numbers = (rec["num"].astype(np.int32) if f.generation != 10
               else np.arange(1, m + 1, dtype=np.int32))
    values = rec["v"] if n and m else np.zeros((m, n, 6), dtype=cur.real)
    return ids, numbers, _lazy_modes(values), start


def _read_mode_shapes(f, cur):
    ids, numbers, values, start = _read_per_mode_vectors(f, cur, "mode shape")
    if f.node_ids is not None and np.any(f.node_positions(ids) < 0):
        cur.fail("the mode shapes list a node that block 4 does not hold", start + 8)
    if f.mode_numbers is None:
        f.mode_numbers = numbers
    elif not np.array_equal(numbers, f.mode_numbers) and f.generation != 10:
        cur.fail("the mode shapes are numbered differently from the eigenvalues", start)
    f._mode_record_numbers = numbers
    f.mode_shape_node_ids, f.mode_shapes = ids, values


def _read_stress_like(f, cur, what):
    ids, numbers, values, start = _read_per_mode_vectors(f, cur, what)
    if f._mode_record_numbers is None:
        cur.fail(f"{what} modes come before the mode shapes", start)
    if not np.array_equal(numbers, f._mode_record_numbers):
        cur.fail(f"{what} modes are in a different order than the mode shapes", start)
    return ids, values


def _read_stress(f, cur):
    f.stress = _read_stress_like(f, cur, "stress")


def _read_strain(f, cur):
    f.strain = _read_stress_like(f, cur, "strain")


def _by_node(f, cur, ids, start, what):
    """Positions of ids in block 4; the per-node arrays are laid out in block 4's order."""
    if f.node_ids is None:
        return np.arange(len(ids))
    at = f.node_positions(ids)
    if np.any(at < 0):
        bad = int(ids[np.argmax(at < 0)])
        cur.fail(f"{what} of node {bad}, which block 4 does not hold", start)
    return at


def _read_masses(f, cur):
    start = cur.pos
    n = cur.count("node count")
    d = cur.count("values per node")
    rec = _records(cur, n, [("id", cur.i4), ("m", cur.real, (d,))], f"{n} mass records")
    per_node = rec["m"].astype(np.float64).mean(axis=1) if d else np.zeros(n)
    at = _by_node(f, cur, rec["id"], start, "a mass")
    f.masses = np.zeros(len(f.node_ids) if f.node_ids is not None else n)
    f.masses[at] = per_node


def _read_inertias(f, cur):
    start = cur.pos
    k = cur.count("entry count")
    rec = _records(cur, k, [("id", cur.i4), ("row", cur.char), ("col", cur.char),
                            ("v", cur.real)], f"{k} inertia entries")
    rows, cols = rec["row"].astype(np.int64) - 4, rec["col"].astype(np.int64) - 4
    if np.any((rows < 0) | (rows > 2) | (cols < 0) | (cols > 2)):
        cur.fail("an inertia entry's row or column is not 4, 5 or 6", start)
    if f.node_ids is None:
        nodes, at = np.unique(rec["id"], return_inverse=True)
    else:
        nodes, at = f.node_ids, _by_node(f, cur, rec["id"], start, "an inertia")
    inertias = np.zeros((len(nodes), 3, 3))
    given = np.zeros((len(nodes), 3, 3), dtype=bool)
    inertias[at, rows, cols] = rec["v"]
    given[at, rows, cols] = True
    # An entry given on one side of the diagonal only stands for both.
    mirror = ~given & given.transpose(0, 2, 1)
    inertias[mirror] = inertias.transpose(0, 2, 1)[mirror]
    f.inertias = inertias


def _read_units(f, cur):
    f.units = [cur.text(16, f"{what} unit") for what in ("mass", "length", "time", "force")]


def _dense_from_entries(f, cur):
    start = cur.pos
    k = cur.count("entry count")
    m = cur.count("matrix order")
    rec = _records(cur, k, [("row", cur.i4), ("col", cur.i4), ("v", cur.real), ("one", cur.i4)],
                   f"{k} matrix entries")
    known = max(len(f.mode_numbers) if f.mode_numbers is not None else 0,
                len(f.transformation[0]) if f.transformation is not None else 0)
    if m > known and m * m > cur.size:
        cur.fail(f"matrix order {m} is more than the file can justify", start + 4)
    rows, cols = rec["row"].astype(np.int64) - 1, rec["col"].astype(np.int64) - 1
    if np.any((rows < 0) | (rows >= m) | (cols < 0) | (cols >= m)):
        cur.fail(f"an entry lies outside the {m} x {m} matrix", start)
    dense = np.zeros((m, m))
    dense[rows, cols] = rec["v"]
    return dense


def _read_stiffness(f, cur):
    f.generalized_stiffness = _dense_from_entries(f, cur)


def _read_gen_mass(f, cur):
    f.generalized_mass = _dense_from_entries(f, cur)


def _read_damping(f, cur):
    f.generalized_damping = _dense_from_entries(f, cur)


def _read_faces(f, cur):
    start = cur.pos
    s = cur.int("block size")
    cur.int("reserved word")
    nfaces = cur.int("face count")
    w = cur.count("face list length")
    if s != 4 * w + 16:
        cur.fail(f"block size {s} does not match a face list of {w} words", start)
    words = cur.ints(w, f"a face list of {w} words").astype(np.int64)
    heads = _face_heads(cur, words, start + 16)
    if len(heads) != max(nfaces, 0):
        cur.fail(f"the face list holds {len(heads)} faces, not {nfaces}", start + 8)
    counts = words[heads]
    mask = np.ones(w, dtype=bool)
    mask[heads] = False
    positions = words[mask]
    nodes = len(f.node_ids) if f.node_ids is not None else 0
    outside = (positions < 0) | (positions >= nodes)
    if np.any(outside):
        bad = int(positions[np.argmax(outside)])
        cur.fail(f"a face names node position {bad}, outside the {nodes} nodes of block 4",
                 start + 16)
    f._face_counts = counts.astype(np.int32)
    f._face_vertices = f.node_ids[positions].astype(np.int32) if nodes else np.zeros(0, np.int32)


def _face_heads(cur, words, at):
    """Positions of the count words of a face list. Runs of faces with one vertex count are
    stepped over a window at a time; the window doubles while the run lasts."""
    heads, p, w, window = [], 0, len(words), 16
    while p < w:
        n = int(words[p])
        if n < 0 or p + 1 + n > w:
            cur.fail(f"face {sum(map(len, heads)) + 1} has a vertex count of {n}", at + 4 * p)
        run = np.arange(p, min(w, p + window * (n + 1)), n + 1)
        same = words[run] == n
        same &= run + n < w
        taken = len(run) if same.all() else int(np.argmin(same))
        heads.append(run[:taken])
        p = int(run[taken - 1]) + n + 1
        window = window * 2 if taken == len(run) else 16
    return np.concatenate(heads) if heads else np.zeros(0, dtype=np.int64)


def _read_transformation(f, cur):
    m = cur.count("mode count")
    numbers = cur.ints(m, f"{m} mode numbers")
    f.transformation = (numbers, cur.reals(m * m, f"a {m} x {m} matrix").reshape(m, m))


def _read_interface(f, cur):
    k = cur.count("node count")
    f.interface_nodes = cur.ints(k, f"{k} node ids")


def _read_invariant(f, cur):
    shape = {19: (1, 0), 20: (3, 0), 21: (0, 3), 22: (0, 3), 23: (0, -3), 24: (9, 0),
             25: (0, 9), 26: (0, -9)}[cur.block]
    fixed, per_mode = shape
    if fixed:
        f.invariants[cur.block] = cur.reals(fixed, f"{fixed} values")
        return
    m = cur.count("mode count")
    count = per_mode * m if per_mode > 0 else -per_mode * m * m
    f.invariants[cur.block] = cur.reals(count, f"{count} values")


def _check_mode_count(f, cur, m, start, what):
    if f.mode_count is not None and m != f.mode_count:
        cur.fail(f"{m} {what}, but the file holds {f.mode_count} modes", start)


def _read_preload(f, cur):
    start = cur.pos
    m = cur.count("mode count")
    _check_mode_count(f, cur, m, start, "modal preloads")
    f.preload_mark = cur.int("preload mark")
    f.preload = cur.reals(m, f"{m} preloads")


def _read_modal_loads(f, cur):
    start = cur.pos
    m = cur.count("mode count")
    _check_mode_count(f, cur, m, start, "modal load components")
    cases = cur.count("load case count")
    rec = _records(cur, cases, [("name", cur.char, (256,)), ("flag", cur.i4),
                                ("v", cur.real, (m,))], f"{cases} load cases")
    f.modal_loads = [(bytes(r["name"].astype(np.uint8)).split(b"\0", 1)[0].decode("latin-1"),
                      bool(r["flag"]), r["v"].astype(np.float64)) for r in rec]


def _read_statistics(f, cur):
    m = cur.count("mode count")
    rec = _records(cur, m, [("i", cur.i4, (13,)), ("r", cur.real, (13,))],
                   f"{m} statistics records")
    f.statistics = (rec["i"].astype(np.int32), rec["r"].astype(np.float64))


def _read_pre(f, cur, of, what):
    start = cur.pos
    n = cur.count("node count")
    if of is not None and n != len(of[0]):
        cur.fail(f"{n} nodes in the {what}, but {len(of[0])} in its modes", start)
    return cur.reals(6 * n, f"{n} nodes of 6 values").reshape(n, 6)


def _read_pre_stress(f, cur):
    f.pre_stress = _read_pre(f, cur, f.stress, "pre-stress")


def _read_pre_strain(f, cur):
    f.pre_strain = _read_pre(f, cur, f.strain, "pre-strain")


_BLOCK_READERS = {
    4: _read_coords, 5: _read_topology, 6: _read_body, 7: _read_eigenvalues,
    8: _read_mode_shapes, 9: _read_masses, 10: _read_inertias, 11: _read_units,
    12: _read_stiffness, 13: _read_gen_mass, 14: _read_faces, 15: _read_damping,
    16: _read_transformation, 17: _read_interface, 18: _read_stress,
    **{b: _read_invariant for b in range(19, 27)},
    27: _read_preload, 28: _read_modal_loads, 29: _read_strain, 30: _read_statistics,
    31: _read_pre_stress, 32: _read_pre_strain,
}
