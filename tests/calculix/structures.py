"""Small shell, beam and mixed decks written node by node, with their exact mass properties; the
writer of the decks of the shell and beam tests; and a reader of what CalculiX writes about its
expansion of them (.12d)."""

import gzip
import os
import re

import numpy as np

import solids
from conftest import GEOMETRY
from make_deck import make_deck

DENSITY = 7.85e-9
EXAMPLES = "/usr/share/doc/calculix-ccx-test/examples/test"
MATERIAL = "*MATERIAL,NAME=STEEL\n*ELASTIC\n210000,0.3\n*DENSITY\n7.85e-9\n"


def _node_lines(nodes):
    return "*NODE,NSET=NALL\n" + "".join(
        f"{k},{x!r},{y!r},{z!r}\n" for k, (x, y, z) in nodes.items())


def _element_lines(kind, elset, elements):
    """CalculiX takes 16 entries a line: longer records go on over a trailing comma."""
    lines = []
    for k, e in elements.items():
        entries = [str(k)] + [str(n) for n in e]
        lines += [",".join(entries[i:i + 15]) + ("," if i + 15 < len(entries) else "")
                  for i in range(0, len(entries), 15)]
    return f"*ELEMENT,TYPE={kind},ELSET={elset}\n" + "\n".join(lines) + "\n"


def plate(kind, nx, ny, length, width, fold=None):
    """An nx x ny grid of shell elements on [0, length] x [0, width] (z = 0); with fold, the part
    beyond x = fold turns up by 90 degrees (x -> fold, z -> x - fold). Returns the nodes (id ->
    xyz) and elements (id -> node ids in CalculiX's order)."""
    quadratic = kind.startswith("S8") or kind == "S6"
    step = 2 if quadratic else 1
    grid, nodes, elements = {}, {}, {}

    def node(i, j):
        if (i, j) not in grid:
            x, y = length * i / (step * nx), width * j / (step * ny)
            if fold is not None and x > fold:
                x, z = fold, x - fold
            else:
                z = 0.0
            grid[i, j] = 1 + len(grid)
            nodes[grid[i, j]] = (x, y, z)
        return grid[i, j]

    for ex in range(nx):
        for ey in range(ny):
            i, j = step * ex, step * ey
            corners = [node(i, j), node(i + step, j), node(i + step, j + step), node(i, j + step)]
            if kind == "S6":  # two triangles, split along the diagonal
                at = [(i, j), (i + 2, j), (i + 2, j + 2), (i, j + 2)]
                for a, b, c in ((0, 1, 2), (0, 2, 3)):
                    elements[1 + len(elements)] = [corners[a], corners[b], corners[c]] + [
                        node((at[p][0] + at[q][0]) // 2, (at[p][1] + at[q][1]) // 2)
                        for p, q in ((a, b), (b, c), (c, a))]
                continue
            if kind.startswith("S8"):
                corners += [node(i + 1, j), node(i + 2, j + 1), node(i + 1, j + 2), node(i, j + 1)]
            elements[1 + len(elements)] = corners
    return nodes, elements


def shell_deck(kind, nx=4, ny=2, length=40.0, width=20.0, thickness=1.0, fold=None, radius=None):
    """A plate deck; with radius, the plate is rolled about an axis along y into a cylindrical
    panel whose arc is the plate's length."""
    nodes, elements = plate(kind, nx, ny, length, width, fold)
    if radius:
        nodes = {k: (radius * np.sin(x / radius), y, radius * (1 - np.cos(x / radius)))
                 for k, (x, y, z) in nodes.items()}
    return (f"*HEADING\n{kind} plate\n" + _node_lines(nodes) +
            _element_lines(kind, "PLATE", elements) + MATERIAL +
            f"*SHELL SECTION,ELSET=PLATE,MATERIAL=STEEL\n{thickness}\n")


def frame(kind, points, per_leg, a, b, direction=(0.0, 0.0, 1.0)):
    """The deck of a beam along the polyline points, per_leg elements on each leg, a RECT
    section a x b."""
    quadratic = kind != "B31"
    nodes, elements = {}, {}
    ids = []
    for leg in range(len(points) - 1):
        p, q = np.asarray(points[leg], float), np.asarray(points[leg + 1], float)
        steps = per_leg * (2 if quadratic else 1)
        for s in range(0 if leg == 0 else 1, steps + 1):
            nodes[len(nodes) + 1] = tuple(p + (q - p) * s / steps)
            ids.append(len(nodes))
    width = 2 if quadratic else 1
    for e in range(0, len(ids) - 1, width):
        elements[len(elements) + 1] = ids[e:e + width + 1]
    d = ",".join(repr(float(v)) for v in direction)
    return (f"*HEADING\n{kind} frame\n" + _node_lines(nodes) +
            _element_lines(kind, "FRAME", elements) + MATERIAL +
            f"*BEAM SECTION,ELSET=FRAME,MATERIAL=STEEL,SECTION=RECT\n{a},{b}\n{d}\n")


def welded_deck():
    """Two C3D20 bricks [0,10] x [0,20] x [0,10], split at y = 10, and an S8 plate of 4 x 1
    elements in the plane y = 10 from x = 0 to 40 whose first element is the bricks' common face:
    CalculiX ties a shell to a solid node by node, which along an edge alone is a hinge."""
    nodes, at, bricks, shells = {}, {}, {}, {}

    def node(x, y, z):
        key = (round(x, 9), round(y, 9), round(z, 9))
        if key not in at:
            at[key] = len(nodes) + 1
            nodes[at[key]] = (float(x), float(y), float(z))
        return at[key]

    # A brick's corners, bottom then top, and its twelve edges, in CalculiX's order.
    corners = [(x, y, z) for z in (0, 10) for x, y in ((0, 0), (10, 0), (10, 10), (0, 10))]
    edges = [(k, (k + 1) % 4 + 4 * (k // 4)) for k in range(8)] + [(k, k + 4) for k in range(4)]
    for k, y0 in enumerate((0.0, 10.0)):
        corner = [node(x, y0 + y, z) for x, y, z in corners]
        bricks[k + 1] = corner + [node(*(np.add(nodes[corner[a]], nodes[corner[b]]) / 2))
                                  for a, b in edges]
    for e in range(-1, 3):
        x0, x1 = 10.0 + 10 * e, 20.0 + 10 * e
        xm = (x0 + x1) / 2
        shells[4 + e] = [node(x0, 10, 0), node(x1, 10, 0), node(x1, 10, 10), node(x0, 10, 10),
                         node(xm, 10, 0), node(x1, 10, 5), node(xm, 10, 10), node(x0, 10, 5)]
    return ("*HEADING\nshell welded to a block\n" + _node_lines(nodes) +
            _element_lines("C3D20", "BLOCK", bricks) + _element_lines("S8", "PLATE", shells) +
            MATERIAL + "*SOLID SECTION,ELSET=BLOCK,MATERIAL=STEEL\n"
            "*SHELL SECTION,ELSET=PLATE,MATERIAL=STEEL\n1.0\n")


def write_deck(source, path):
    """Writes the deck at path from source: a function that returns its text, a gmsh geometry
    (meshed at h = 8 into shells 1.5 thick) or one of CalculiX's examples (gzipped or not)."""
    if callable(source):
        text = source()
    elif source.endswith(".geo"):
        return make_deck(os.path.join(GEOMETRY, source), path, [("h", 8)], shell=1.5)
    else:
        with (gzip.open if source.endswith(".gz") else open)(os.path.join(EXAMPLES, source),
                                                              "rt") as f:
            text = f.read()
    with open(path, "w") as f:
        f.write(text)
    return path


def boxes(pieces):
    """Mass, centre and inertia about the centre of steel boxes given as (centre, edge lengths)."""
    volume, centre, inertia = solids.combine(
        [(1, solids.box(np.subtract(c, np.divide(size, 2)), size)) for c, size in pieces])
    return DENSITY * volume, centre, DENSITY * inertia


def expansion(path):
    """{element id: (original node ids, expanded node ids)} and the knot ids of a .12d file."""
    elements = {}
    with open(path) as f:
        text = f.read()
    knots = [int(k) for k in re.findall(r"a KNOT was generated in node\s+(\d+)", text)]
    for m in re.finditer(r"ELEMENT\s+(\d+) with label.*?nodes:(.*?)is expanded into.*?topology:"
                         r"(.*?)(?=\n\s*\n|\Z)", text, re.S):
        elements[int(m.group(1))] = ([int(v) for v in m.group(2).split()],
                                     [int(v) for v in m.group(3).split()])
    return elements, sorted(set(knots))
