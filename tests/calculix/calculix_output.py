"""Readers of CalculiX's own output files: the eigenvalue and displacement tables of the .dat,
the result blocks of an ASCII .frd, the eigenvectors of a .eig, and the matrices of a
SOLVER=MATRIXSTORAGE run."""

import re

import numpy as np

_NUMBER = r"[-+]?\d*\.\d+(?:[EeDd][-+]?\d+)?"


def _floats(line):
    return [float(t.replace("D", "E")) for t in re.findall(_NUMBER, line)]


def dat_eigenvalues(path):
    """The eigenvalue column of the .dat's eigenvalue table, in mode order."""
    values, inside = [], False
    with open(path) as f:
        for line in f:
            if "E I G E N V A L U E   O U T P U T" in line:
                inside, values = True, []
            elif inside and re.match(r"\s*\d+\s+" + _NUMBER, line):
                values.append(_floats(line)[0])
            elif inside and values and not line.strip():
                inside = False
    return np.array(values)


def dat_displacements(path, name):
    """The displacement tables that *NODE PRINT wrote for the node set name: one {node: xyz} per
    table."""
    tables, inside = [], False
    with open(path) as f:
        for line in f:
            parts = line.split()
            if line.startswith(" displacements"):
                inside = f"set {name} " in line
                tables += [{}] if inside else []
            elif inside and len(parts) == 4 and parts[0].isdigit():
                tables[-1][int(parts[0])] = np.array([float(v) for v in parts[1:]])
    return tables


def frd_results(path, name):
    """{mode: (node ids, values)} of the result blocks called name (DISP, STRESS, or NODES for
    the coordinates, under None) in an ASCII .frd; values has one row per node and one column per
    component. CalculiX writes stresses xx yy zz xy yz zx: they come in our files' order, xx yy
    zz xy xz yz."""
    out, mode, rows = {}, None, None
    with open(path) as f:
        for line in f:
            if line.startswith("    1PMODE"):
                mode = int(line.split()[-1])
            elif line.startswith((" -4  ", "    2C")):
                rows = [] if ("NODES" if line[4] == "2" else line.split()[1]) == name else None
            elif rows is not None and line.startswith(" -1"):
                rest = line[13:].rstrip("\n")
                rows.append((int(line[3:13]),
                             [float(rest[i:i + 12]) for i in range(0, len(rest), 12)]))
            elif rows is not None and line.startswith(" -3"):
                values = np.array([r[1] for r in rows])
                out[mode] = (np.array([r[0] for r in rows]),
                             values[:, [0, 1, 2, 3, 5, 4]] if name == "STRESS" else values)
                rows = None
    return out


def deck_nodes(path):
    """Node ids (increasing) and coordinates of the *NODE cards of a deck."""
    rows, inside = [], False
    with open(path) as f:
        for line in f:
            if line.startswith("*"):
                inside = line.split(",")[0].strip().upper() == "*NODE"
            elif inside and line.strip():
                rows.append([float(t) for t in line.split(",")[:4]])
    rows = np.array(sorted(rows))
    return rows[:, 0].astype(np.int64), rows[:, 1:4]


def eig_vectors(path, rows):
    """The double-precision eigenvectors (rows x modes) of a .eig file (*FREQUENCY,
    STORAGE=YES): four integers, the eigenvalues, the matrices, then the vectors, found from the
    end of the file."""
    data = open(path, "rb").read()
    modes = int(np.frombuffer(data[:16], dtype=np.int32)[3])
    return np.frombuffer(data[len(data) - 8 * rows * modes:]).reshape(modes, rows).T


def stored_matrices(prefix):
    """The rows of prefix.dof as (node, direction 0..2) and a function that multiplies the
    stored stiffness (which="sti") or mass ("mas") matrix with a block of columns."""
    with open(prefix + ".dof") as f:
        rows = np.array([[int(t) for t in line.strip().split(".")] for line in f if line.strip()])
    triplets = {}
    for which in ("sti", "mas"):
        data = np.loadtxt(f"{prefix}.{which}", ndmin=2)
        triplets[which] = (data[:, 0].astype(int) - 1, data[:, 1].astype(int) - 1, data[:, 2])

    def product(which, x):
        r, c, v = triplets[which]
        y = np.zeros_like(x)
        np.add.at(y, r, v[:, None] * x[c])
        off = r != c
        np.add.at(y, c[off], v[off, None] * x[r[off]])
        return y

    return np.column_stack([rows[:, 0], rows[:, 1] - 1]), product
