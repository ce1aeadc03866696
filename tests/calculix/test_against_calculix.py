"""Each gmsh mesh exported by ccx2krx's CalculiX path against CalculiX's own output in the kept
work directory and against the exact volume, centre and inertia of the geometry; its stresses are
the tool's recovery from CalculiX's eigenvectors (see conftest.export). Then a deck read in by
*INCLUDE before steps, in another unit system, and the bad inputs, which must leave no file
behind."""

import math
import os
import shutil

import numpy as np
import pytest

import calculix_output as ccx
import krx
import solids
from conftest import DERIVED, MODELS, MODES, run_tool

DENSITY = 7.85e-9
# Each shape's exact volume, centre and inertia, and its outer surface area: the bracket's L
# profile (area 775, perimeter 320) 40 deep; each bolt hole removes two discs of radius 5 from
# the plate's faces and adds a wall of the same area.
EXACT = {"bracket": (solids.BRACKET, 2 * 775 + 320 * 40),
         "bar": (solids.BAR, 2 * (24 * 16 + 200 * 24 + 200 * 16)),
         "wedge": (solids.WEDGE, 2 * 900 + 80 * (90 + math.hypot(60, 30)))}


def separated(eigenvalues, first=6, gap=0.01):
    """Modes from first on (after the six rigid-body ones of a free body) whose eigenvalue lies at
    least gap (relative) from its neighbours in the list."""
    return [k for k in range(first, len(eigenvalues))
            if all(abs(eigenvalues[k] - eigenvalues[j]) > gap * eigenvalues[k]
                   for j in (k - 1, k + 1) if first <= j < len(eigenvalues))]


def by_node(ids, values, wanted):
    """Rows of values reordered to the node ids wanted (every one must be there)."""
    order = np.argsort(ids)
    at = np.searchsorted(ids, wanted, sorter=order)
    at = order[np.clip(at, 0, len(ids) - 1)]
    assert np.array_equal(ids[at], wanted), "the node sets differ"
    return values[at]


def assert_same_up_to_sign(ours, theirs, what, tolerance=1e-4):
    """ours equals theirs or -theirs to what CalculiX's vectors are worth: each value has six
    significant digits in the .frd, and CalculiX's eigenvectors are converged to about 1e-5, so
    the library's solution in the span of the modes mixes neighbours by up to 4e-5 of the
    largest value (linear wedges, modes 2.8% apart)."""
    sign = 1.0 if np.sum(ours * theirs) >= 0 else -1.0
    scale = np.max(np.abs(theirs))
    worst = np.max(np.abs(ours - sign * theirs)) / scale
    assert worst < tolerance, f"{what}: differs from CalculiX by {worst:.2e} of its largest value"


def inertia_about_centre(body):
    """Block 6 holds the inertia about the origin with the products of inertia negated."""
    about_origin = body["inertia"] * np.where(np.eye(3) == 1, 1.0, -1.0)
    c = body["centre"]
    return about_origin - body["mass"] * (np.dot(c, c) * np.eye(3) - np.outer(c, c))


def surface(f):
    """The area of the face polygons of the file and the volume they enclose, positive when they
    all face outwards (the divergence theorem over each polygon's vector area)."""
    counts = np.array([len(face) for face in f.faces])
    area = volume = 0.0
    for n in np.unique(counts):
        p = f.coords[f.node_positions(np.array([face for face in f.faces if len(face) == n]))]
        vector_area = 0.5 * np.cross(p, np.roll(p, -1, axis=1)).sum(axis=1)
        area += np.linalg.norm(vector_area, axis=1).sum()
        volume += np.einsum("ij,ij->", p.mean(axis=1), vector_area) / 3
    return area, volume


@pytest.mark.parametrize("name", list(MODELS))
def test_eigenvalues_mass_and_faces(export, name):
    e = export(name)
    f = e.read()
    theirs = ccx.dat_eigenvalues(os.path.join(e.keep, "modes.dat"))
    assert len(theirs) == MODES and len(f.eigenvalues) == MODES
    # Six significant digits: CalculiX's table differs from the Rayleigh quotients of its own
    # eigenvectors, which the file holds, by up to 6e-6 (linear wedges). The six rigid-body
    # modes of the free body stay near zero against the elastic ones.
    np.testing.assert_allclose(f.eigenvalues[6:], theirs[6:], rtol=1e-5)
    assert np.all(np.abs(f.eigenvalues[:6]) < 1e-5 * theirs[6])
    np.testing.assert_allclose(f.gen_mass, 1.0, atol=1e-9)
    body = f.global_body_props
    mass = body["mass"]
    assert np.all(f.masses > 0), "a node without mass, or a negative one"
    shape = name.split("_")[0]
    (volume, centre, inertia), outer = EXACT[shape]
    assert mass == pytest.approx(DENSITY * volume, rel=MODELS[name][2])
    size = float(np.linalg.norm(np.ptp(f.coords, axis=0)))
    assert np.linalg.norm(body["centre"] - centre) < 1e-3 * size
    exact = DENSITY * inertia
    assert np.max(np.abs(inertia_about_centre(body) - exact)) < 0.01 * np.max(np.abs(exact))
    # Plane faces are covered exactly; the tetrahedra only approach the hole walls.
    area, enclosed = surface(f)
    rel = 1e-9 if shape != "bracket" else 1e-2
    assert area == pytest.approx(outer, rel=rel)
    assert enclosed == pytest.approx(volume, rel=rel)
    header = f.header  # title from *HEADING, the deck's file name
    assert header["title"].startswith(shape + " meshed by gmsh")
    assert header["input_name"] == os.path.basename(e.deck)
    assert "calculix" in header["input_type"].lower()


@pytest.mark.parametrize("name", list(MODELS) + list(DERIVED))
def test_nodes_mode_shapes_and_stresses(export, name):
    """Also of the other element types and of a bar of two materials, whose stresses the tool
    recovers from CalculiX's eigenvectors."""
    e = export(name)
    f = e.read()
    disp = ccx.frd_results(os.path.join(e.keep, "modes.frd"), "DISP")
    stress = ccx.frd_results(os.path.join(e.keep, "modes.frd"), "STRESS")
    ids, coords = ccx.deck_nodes(e.deck)
    used = np.isin(ids, f.node_ids)  # all but the mid-side nodes that C3D4 elements leave out
    assert used.all() or name == "bracket_c3d4"
    ids, coords = ids[used], coords[used]
    assert np.array_equal(np.sort(f.node_ids), ids)
    np.testing.assert_allclose(by_node(f.node_ids, f.coords, ids), coords, rtol=0, atol=1e-9)
    stress_ids, values = f.stress
    picked = separated(f.eigenvalues)
    assert len(picked) >= 3
    for k in picked:
        ours = by_node(f.mode_shape_node_ids, np.asarray(f.mode_shapes[k]), ids)
        assert not np.any(ours[:, 3:]), "solid elements have no rotations"
        assert_same_up_to_sign(ours[:, :3], by_node(*disp[k + 1], ids), f"{name} mode {k + 1}")
        their_ids, theirs = stress[k + 1]
        assert_same_up_to_sign(by_node(stress_ids, np.asarray(values[k]), their_ids), theirs,
                               f"{name} stress of mode {k + 1}")


# ---- a deck read in by *INCLUDE before steps, another unit system, and the refusals ----

def test_includes_read_in_steps_left_out_and_units_named(export, ccx2krx, tmp_path):
    plain = export("bar_c3d8")
    shutil.copy(plain.deck, tmp_path / "part.inp")  # CalculiX runs elsewhere: it must be read in
    deck = tmp_path / "with_steps.inp"
    deck.write_text("*INCLUDE,INPUT=part.inp\n*STEP\n*STATIC\n*BOUNDARY\nEND1, 1, 3\n*END STEP\n")
    out = tmp_path / "with_steps.krx"
    run = run_tool(ccx2krx, [str(deck), "-o", str(out), "--modes", "12", "--units", "m-kg-s"])
    assert run.returncode == 0, run.stderr
    assert sum("*STEP" in line for line in run.stderr.splitlines()) == 1
    f, g = krx.read(out), plain.read()
    np.testing.assert_allclose(f.eigenvalues[6:], g.eigenvalues[6:], rtol=1e-9)
    assert g.units == ["MEGAGRAM", "MILLIMETER", "SECOND", "NEWTON"]
    assert f.units == ["KILOGRAM", "METER", "SECOND", "NEWTON"]


def test_bad_input_gives_a_message_and_no_file(ccx2krx, deck, tmp_path):
    good = deck("bar_c3d8")
    refused = tmp_path / "refused.inp"  # a section naming a material the deck does not define
    with open(good) as f:
        refused.write_text(f.read().replace("MATERIAL=STEEL", "MATERIAL=STEAL"))
    stand_in = tmp_path / "ccx"  # CalculiX may print *ERROR and end with status 0
    stand_in.write_text("#!/bin/sh\necho ' *ERROR in a stand-in'\n")
    stand_in.chmod(0o755)
    out, missing = str(tmp_path / "out.krx"), str(tmp_path / "missing")
    # (case, deck, output, environment, a text the message must hold)
    for case, model, path, env, text in [
            ("ccx missing", good, out, {"CCX": "/nonexistent/ccx"}, "/nonexistent/ccx"),
            ("ccx fails silently", good, out, {"CCX": "/bin/false"}, "ended with status 1"),
            ("ccx errs with status 0", good, out, {"CCX": str(stand_in)}, "*ERROR in a stand-in"),
            ("deck refused", str(refused), out, {}, "*ERROR"),
            ("no density", deck("bar_c3d8", density=False), out, {}, "density"),
            ("no output directory", good, os.path.join(missing, "out.krx"), {}, missing)]:
        run = run_tool(ccx2krx, [model, "-o", path, "--modes", "8"], env=env)
        assert run.returncode == 1, f"{case}: exit {run.returncode}\n{run.stderr}"
        assert run.stderr.startswith("ccx2krx: "), f"{case}: {run.stderr!r}"
        assert text.lower() in run.stderr.lower(), f"{case}: {run.stderr!r}"
        assert not os.path.exists(path), f"{case}: {path} was written"
    usage = run_tool(ccx2krx, [])
    assert usage.returncode == 2 and usage.stderr
