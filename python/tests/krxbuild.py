"""Builds KRX files byte by byte from the layout, for cases the library does not write (old
generations, broken counts) and to check the reader against bytes it did not make itself."""

import numpy as np

FLAG_BYTE = {b: b - 4 if b <= 10 else b - 3 if b <= 13 else b - 2 for b in range(4, 33)}


class Enc:
    def __init__(self, code):
        self.code = code
        self.xdr = code in (31, 41, 51) or bool(code & 0x100)
        self.single = code in (50, 51) or bool(code & 0x200)
        self.order = ">" if self.xdr else "<"
        self.f = self.order + ("f4" if self.single else "f8")

    def i(self, *values):
        return np.array(values, dtype=self.order + "i4").tobytes()

    def r(self, values):
        return np.asarray(values, dtype=np.float64).astype(self.f).tobytes()

    def c(self, values):
        """Characters given as small integers (or bytes), one item each."""
        return np.array(list(values), dtype=np.int64).astype(">i4" if self.xdr else "i1").tobytes()

    def text(self, s, n):
        raw = s.encode("latin-1")[:n]
        return self.c(raw + b"\0" * (n - len(raw)))


def krx_file(enc, blocks, title="hand-built", comments=("c1", "c2", "c3")):
    """blocks: {block number: bytes}; blocks 4 to 32 are flagged and written in order."""
    fields = [(title, 128), ("today", 32), ("in.dat", 128), ("TEST", 16)] + [(c, 80) for c in comments]
    flags = [int(k in {FLAG_BYTE[b] for b in blocks}) for k in range(100)]
    return (enc.i(enc.code) + b"".join(enc.text(t, n) for t, n in fields) + enc.c(flags)
            + b"".join(blocks[b] for b in sorted(blocks)))


def records(enc, counts, keys, rows):
    """The counts, then per record its key and its reals (nodal coordinates, eigenvalues)."""
    return enc.i(*counts) + b"".join(enc.i(k) + enc.r(row) for k, row in zip(keys, rows))


def per_mode_block(enc, numbers, ids, values, with_numbers=True):
    return enc.i(len(numbers), len(ids)) + enc.i(*ids) + b"".join(
        (enc.i(k) if with_numbers else b"") + enc.r(np.asarray(v).reshape(-1))
        for k, v in zip(numbers, values))


def faces_block(enc, faces):
    """faces as lists of node positions."""
    words = [w for face in faces for w in [len(face)] + list(face)]
    return enc.i(4 * len(words) + 16, 0, len(faces), len(words)) + (enc.i(*words) if words else b"")


def topology_block(enc, faces):
    """faces as lists of node ids, grouped by vertex count 2 to 13."""
    groups = [[f for f in faces if len(f) == g + 2] for g in range(12)]
    out = enc.i(len(faces), 12) + b"".join(enc.i(g, len(m), g + 2) for g, m in enumerate(groups))
    return out + b"".join(enc.i(0, 0, *face) for members in groups for face in members)


def sparse_block(enc, order, entries):
    return enc.i(len(entries), order) + b"".join(
        enc.i(row, col) + enc.r([v]) + enc.i(1) for row, col, v in entries)
