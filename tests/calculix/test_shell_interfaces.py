"""Component modes of shell, beam and mixed parts (ccx2krx --interface on sets of shell, beam and
solid nodes) against CalculiX's *STATIC of the same model part: one set held, a unit force and
then a unit moment on the other, every original node's displacement printed; and the sheet
mounted at HOLE1 by examples/mounted_body against CalculiX's *FREQUENCY of it held there."""

import os

import krx
import numpy as np
import pytest

import structures as st
from calculix_output import dat_displacements, dat_eigenvalues
from conftest import GEOMETRY, Export, calculix, finish, run_tool
from make_deck import make_deck
from test_component_modes import interface_points, mounted, shapes_at, static_response

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
    "sheet": (None, 2, 4, "calculix"),  # the demo's bent sheet with its bolt holes
    "sheet_own": (None, 2, 4, "own"),
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


@pytest.fixture(scope="module", params=list(MODELS))
def case(request, ccx2krx, tmp_path_factory):
    """The model exported with HOLE1 and HOLE2 as interface points, and CalculiX's static
    solution of the same model part (the tool's model.inp): HOLE1 held, a unit force on HOLE2's
    reference node, then a unit moment on its rotation node. For the sheet also the lowest
    frequencies of that model part held at HOLE1, from CalculiX and from examples/mounted_body."""
    name = request.param
    source, force, moment, solver = MODELS[name]
    where = tmp_path_factory.mktemp(name)
    deck = str(where / f"{name}.inp")
    if source is None:
        make_deck(os.path.join(GEOMETRY, "sheet.geo"), deck, [("h", 8)], shell=1.5)
    else:
        with open(deck, "w") as f:
            f.write(source())
    out, keep = str(where / f"{name}.krx"), str(where / "work")
    run = run_tool(ccx2krx, [deck, "-o", out, "--interface", "HOLE1", "--interface", "HOLE2",
                             "--modes", str(FIXED), "--keep", keep, "--solver", solver])
    assert run.returncode == 0, f"{name}: {run.stderr}"
    points = interface_points(Export(None, None, keep, None))
    (ref_a, rot_a), (ref_b, rot_b) = points["HOLE1"], points["HOLE2"]
    prints = "*NODE PRINT,NSET=CCX2KRXIF\nU\n*NODE PRINT,NSET=CCX2KRXALL\nU\n"
    static = calculix(keep, "static",
                      f"*STEP\n*STATIC\n*BOUNDARY\n{ref_a},1,3\n{rot_a},1,3\n"
                      f"*CLOAD\n{ref_b},{force},1.\n{prints}*END STEP\n"
                      f"*STEP\n*STATIC\n*CLOAD,OP=NEW\n{rot_b},{moment - 3},1.\n{prints}"
                      "*END STEP\n")
    held = None
    if name.startswith("sheet"):
        held = calculix(keep, "held", f"*STEP\n*FREQUENCY\n{MOUNTED}\n*BOUNDARY\n{ref_a},1,3\n"
                                      f"{rot_a},1,3\n*END STEP\n")
    finish(static)
    dat = os.path.join(keep, "static.dat")
    frequencies = None
    if held:
        finish(held)
        theirs = np.sqrt(dat_eigenvalues(os.path.join(keep, "held.dat"))[:MOUNTED]) / (2 * np.pi)
        frequencies = mounted(out, ref_a, count=MOUNTED), theirs
    return (name, out, points, dat_displacements(dat, "CCX2KRXIF"),
            dat_displacements(dat, "CCX2KRXALL"), frequencies)


def test_static_response_is_calculix_own_at_every_node(case):
    """The interface point's motion and every node's translation (for a shell node tied to the
    point, the mean through its thickness that CalculiX prints, which its untied middle node
    enters) follow from the file's modes and eigenvalues as CalculiX computes them. Every node
    tied to an interface point keeps its share of the mass (the frame's knots and the brick's
    face nodes, which have no rows, theirs from the expanded elements), the points none; the
    total stays CalculiX's (density x area x thickness on the plate)."""
    name, out, points, ends, everywhere, _ = case
    f = krx.read(out)
    assert f.mode_count == 12 + FIXED
    refs = f.node_positions(np.array([ref for ref, _ in points.values()]))
    assert np.all(np.delete(f.masses, refs) > 0) and np.all(f.masses[refs] == 0)
    if name == "s4_plate":
        assert f.masses.sum() == pytest.approx(st.DENSITY * 40 * 20 * 1.0, rel=1e-9)
    _, force, moment, _ = MODELS[name]
    ref_b, rot_b = points["HOLE2"]
    shapes = np.asarray(f.mode_shapes)
    for load, at_ends, at_nodes in zip((np.eye(6)[force - 1], np.eye(6)[moment - 1]), ends,
                                       everywhere):
        q = static_response(f, points, load)
        ours = shapes_at(f, ref_b) @ q
        theirs = np.concatenate([at_ends[ref_b], at_ends[rot_b]])
        error = np.linalg.norm(ours - theirs) / np.linalg.norm(theirs)
        assert error < 1e-6, f"{name}: {ours} against CalculiX's {theirs}: {error:.1e}"
        position = {int(n): k for k, n in enumerate(f.mode_shape_node_ids)}
        ids = [n for n in at_nodes if n in position and n != ref_b]
        mine = np.tensordot(q, shapes[:, [position[n] for n in ids], :3], axes=1)
        theirs = np.array([at_nodes[n] for n in ids])
        worst = np.abs(mine - theirs).max() / np.abs(theirs).max()
        assert worst < 1e-6, f"{name}: node translations off by {worst:.1e} of the largest"


@pytest.mark.parametrize("case", ["sheet", "sheet_own"], indirect=True)
def test_the_mounted_sheet_has_calculix_frequencies(case):
    """The read API's consumer holds the sheet's HOLE1 point (all six rows) and finds the
    frequencies that CalculiX finds for the whole shell model held there."""
    name, _, _, _, _, frequencies = case
    ours, theirs = frequencies
    assert len(ours) == MOUNTED and len(theirs) == MOUNTED
    np.testing.assert_allclose(ours, theirs, rtol=1e-3)
