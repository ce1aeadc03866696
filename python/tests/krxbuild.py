"""Builds KRX files byte by byte from the layout, for cases the library does not write (old
generations, broken counts) and to check the reader against bytes it did not make itself."""

import numpy as np

FLAG_BYTE = {b: b - 4 if b <= 10 else b - 3 if b <= 13 else b - 2 for b in range(4, 33)}


class Enc:
    def __init__(self, code):
        self.code = code
        self.xdr = code in (31, 41, 51) or bool(code & 0x100)
        self.single = code in (50, 51) or bool(code & 0x200)
        order = ">" if self.xdr else "<"
        self.i4 = order + "i4"
        self.f = order + ("f4" if self.single else "f8")

    def i(self, *values):
        return np.array(values, dtype=self.i4).tobytes()

    def r(self, values):
        return np.asarray(values, dtype=np.float64).astype(self.f).tobytes()

    def c(self, values):
        """Characters given as small integers (or bytes), one item each."""
        values = list(values)
        return np.array(values, dtype=np.int64).astype(">i4" if self.xdr else "i1").tobytes()

    def text(self, s, n):
        raw = s.encode("latin-1")[:n]
        return self.c(raw + b"\0" * (n - len(raw)))


def header(enc, title="hand-built", date="today", name="in.dat", kind="TEST",
           comments=("c1", "c2", "c3")):
    fields = [(title, 128), (date, 32), (name, 128), (kind, 16)] + [(c, 80) for c in comments]
    return b"".join(enc.text(t, n) for t, n in fields)


def krx_file(enc, blocks, **head):
    """blocks: {block number: bytes}; blocks 4 to 32 are flagged and written in order."""
    flags = [0] * 100
    for b in blocks:
        flags[FLAG_BYTE[b]] = 1
    out = enc.i(enc.code) + header(enc, **head) + enc.c(flags)
    return out + b"".join(blocks[b] for b in sorted(blocks))


def coords_block(enc, ids, xyz):
    out = enc.i(len(ids), 3)
    for nid, p in zip(ids, xyz):
        out += enc.i(nid) + enc.r(p)
    return out


def eigen_block(enc, numbers, rows):
    out = enc.i(len(numbers))
    for k, row in zip(numbers, rows):
        out += enc.i(k) + enc.r(row)
    return out


def per_mode_block(enc, numbers, ids, values, with_numbers=True):
    out = enc.i(len(numbers), len(ids)) + enc.i(*ids)
    for k, v in zip(numbers, values):
        out += (enc.i(k) if with_numbers else b"") + enc.r(np.asarray(v).reshape(-1))
    return out


def faces_block(enc, faces):
    """faces as lists of node positions."""
    words = [w for face in faces for w in [len(face)] + list(face)]
    return enc.i(4 * len(words) + 16, 0, len(faces), len(words)) + (enc.i(*words) if words else b"")


def topology_block(enc, faces):
    """faces as lists of node ids, grouped by vertex count 2 to 13."""
    groups = [[f for f in faces if len(f) == g + 2] for g in range(12)]
    out = enc.i(len(faces), 12)
    for g, members in enumerate(groups):
        out += enc.i(g, len(members), g + 2)
    for members in groups:
        for face in members:
            out += enc.i(0, 0, *face)
    return out


def sparse_block(enc, order, entries):
    out = enc.i(len(entries), order)
    for row, col, v in entries:
        out += enc.i(row, col) + enc.r([v]) + enc.i(1)
    return out
