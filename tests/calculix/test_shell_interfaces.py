"""Component modes of shell, beam and mixed parts (ccx2krx --interface on sets of shell, beam and
solid nodes) against CalculiX's *STATIC of the same model part: one set held, a unit force and
then a unit moment on the other, every original node's displacement printed; and the sheet
mounted at HOLE1 by examples/mounted_body against CalculiX's *FREQUENCY of it held there."""

import os

import numpy as np
import pytest

import structures as st
from calculix_output import dat_displacements
from conftest import calculix, export_all
from test_component_modes import (interface_jobs, interface_points, mounted_against_calculix,
                                  static_against_calculix)

FIXED = 8  # fixed-interface normal modes
MOUNTED = 4  # frequencies of the sheet mounted at HOLE1 compared with CalculiX's


def _with_sets(text, sets):
    """The deck with node sets HOLE1 and HOLE2, each the nodes within a radius of a point (the
    decks of structures.py give their nodes first, id and coordinates on each line)."""
    nodes = np.array([[float(v) for v in line.split(",")]
                      for line in text.split("*ELEMENT")[0].splitlines() if line.count(",") == 3])
    for name, (centre, radius) in sets.items():
        near = np.linalg.norm(nodes[:, 1:] - np.asarray(centre, float), axis=1) <= radius
        text += f"*NSET,NSET={name}\n" + "".join(f"{int(i)},\n" for i in nodes[near, 0])
    return text


# name: the deck, the load case's force and moment directions on HOLE2 (HOLE1 held), and the
# solver (CalculiX's by default; the own solver's static shapes and Lanczos on the sheet).
# The S4 plate's sets are two columns of nodes at each end (a set on one line leaves a rotation
# free); the U-frame's are the nodes about its two bends (beam nodes in two directions); the
# welded part holds the brick's far face (solid nodes) against the plate's far end (shell nodes).
MODELS = {
    "sheet": ("sheet.geo", 2, 4, "calculix"),  # the demo's bent sheet with its bolt holes
    "sheet_own": ("sheet.geo", 2, 4, "own"),
    "s4_plate": (lambda: _with_sets(st.shell_deck("S4", nx=8, ny=4),
                                    {"HOLE1": ((2.5, 10, 0), 6), "HOLE2": ((37.5, 10, 0), 6)}),
                 2, 4, "calculix"),
    "b32r_frame": (lambda: _with_sets(st.frame("B32R", [(0, 40, 0), (0, 0, 0), (60, 0, 0),
                                                        (60, 40, 0)], 4, 4.0, 2.0),
                                      {"HOLE1": ((0, 0, 0), 8), "HOLE2": ((60, 0, 0), 8)}),
                   2, 4, "calculix"),
    "welded": (lambda: _with_sets(st.welded_deck(),
                                  {"HOLE1": ((5, 0, 5), 7.1), "HOLE2": ((40, 10, 5), 7.1)}),
               1, 5, "calculix"),
}


@pytest.fixture(scope="module")
def exports(ccx2krx, tmp_path_factory):
    """Every model exported with HOLE1 and HOLE2 as interface points, two at once, and CalculiX's
    static job (interface_jobs) on its model part (the tool's model.inp) with every original
    node's displacement printed; for the sheet also its lowest frequencies held at HOLE1."""
    where = tmp_path_factory.mktemp("interfaces")
    args = ["--interface", "HOLE1", "--interface", "HOLE2", "--modes", str(FIXED), "--solver"]
    exports = export_all(ccx2krx, where, [
        (name, st.write_deck(source, str(where / f"{name}.inp")), args + [solver])
        for name, (source, _, _, solver) in MODELS.items()])
    prints = "*NODE PRINT,NSET=CCX2KRXIF\nU\n*NODE PRINT,NSET=CCX2KRXALL\nU\n"
    for name, (_, force, moment, _) in MODELS.items():
        jobs = interface_jobs(interface_points(exports[name].keep), force, moment, prints, MOUNTED)
        if not name.startswith("sheet"):
            del jobs["held"]
        calculix(exports[name].keep, **jobs)
    return exports


@pytest.mark.parametrize("name", list(MODELS))
def test_static_response_is_calculix_own_at_every_node(exports, name):
    """The interface point's motion and every node's translation (for a shell node tied to the
    point, the mean through its thickness that CalculiX prints, which its untied middle node
    enters) follow from the file's modes and eigenvalues as CalculiX computes them. Every node
    tied to an interface point keeps its share of the mass (the frame's knots and the brick's
    face nodes, which have no rows, theirs from the expanded elements), the points none; the
    total stays CalculiX's (density x area x thickness on the plate). The read API's consumer
    holds the sheet's HOLE1 point (all six rows) and finds the frequencies that CalculiX finds
    for the whole shell model held there."""
    e = exports[name]
    f, points = e.read(), interface_points(e.keep)
    assert f.mode_count == 12 + FIXED
    refs = f.node_positions(np.array([ref for ref, _ in points.values()]))
    assert np.all(np.delete(f.masses, refs) > 0) and np.all(f.masses[refs] == 0)
    if name == "s4_plate":
        assert f.masses.sum() == pytest.approx(st.DENSITY * 40 * 20 * 1.0, rel=1e-9)
    shapes = np.asarray(f.mode_shapes)
    position = {int(n): k for k, n in enumerate(f.mode_shape_node_ids)}
    everywhere = dat_displacements(os.path.join(e.keep, "static.dat"), "CCX2KRXALL")
    for q, at_nodes in zip(static_against_calculix(f, e.keep, points, *MODELS[name][1:3]),
                           everywhere):
        ids = [n for n in at_nodes if n in position and n != points["HOLE2"][0]]
        mine = np.tensordot(q, shapes[:, [position[n] for n in ids], :3], axes=1)
        theirs = np.array([at_nodes[n] for n in ids])
        worst = np.abs(mine - theirs).max() / np.abs(theirs).max()
        assert worst < 1e-6, f"{name}: node translations off by {worst:.1e} of the largest"
    if name.startswith("sheet"):
        ours, theirs = mounted_against_calculix(e.out, e.keep, "held", points["HOLE1"][0],
                                                MOUNTED)
        np.testing.assert_allclose(ours, theirs, rtol=1e-3)
