"""Shell, beam and mixed models exported by ccx2krx against CalculiX's own output: its
eigenvalues, its *NODE PRINT of the original nodes, the rotations that its expanded nodes give
(knots included), and the closed-form mass and inertia."""

import os

import numpy as np
import pytest

import calculix_output as ccx
import structures as st
from conftest import calculix, export_all, run_tool
from test_against_calculix import (assert_same_up_to_sign, by_node, inertia_about_centre,
                                   separated, surface)

MODES = 12

# name: deck text (or CalculiX example), free body, exact (mass, centre, inertia about it) from
# the steel boxes the model is made of (centre, edge lengths) and what the lumping by diagonal
# scaling gives on these coarse meshes (two to eight elements across): the centre of mass exact
# (each element's diagonal is symmetric about its centre), the inertia about it off by a share of
# its largest entry (trapezoidal weights on four linear elements across a plate alone make
# 12.5%, 2 / n^2); area of the shell faces.
L_FRAME = [(0, 0, 0), (60, 0, 0), (60, 40, 0)]
PLATE = st.boxes([((20, 10, 0), (40, 20, 1))])
MODELS = {
    "s8_plate": (lambda: st.shell_deck("S8"), True, (PLATE, 0.13), 800),
    "s4_plate": (lambda: st.shell_deck("S4", nx=8, ny=4), True, (PLATE, 0.06), 800),
    "s6_plate": (lambda: st.shell_deck("S6"), True, (PLATE, 0.12), 800),
    "s8_panel": (lambda: st.shell_deck("S8", nx=6, length=60.0, radius=50.0), True, None, None),
    "s8r_fold": (lambda: st.shell_deck("S8R", fold=20.0), True,
                 (st.boxes([((10, 10, 0), (20, 20, 1)), ((20, 10, 10), (1, 20, 20))]), 0.19), 800),
    "s8r_plate": (lambda: st.shell_deck("S8R"), True, (PLATE, 0.13), 800),  # the fold unfolded
    # The section: 4 along z, the direction given; 2 across the beam.
    "b32r_frame": (lambda: st.frame("B32R", L_FRAME, 3, 4.0, 2.0), True,
                   (st.boxes([((30, 0, 0), (60, 2, 4)), ((60, 20, 0), (2, 40, 4))]), 0.07), 0),
    "b32r_line": (lambda: st.frame("B32R", [(0, 0, 0), (60, 0, 0), (100, 0, 0)], 3, 4.0, 2.0),
                  True, (st.boxes([((50, 0, 0), (100, 2, 4))]), 0.05), 0),  # straightened
    "b31_beam": (lambda: st.frame("B31", [(0, 0, 0), (100, 0, 0)], 10, 4.0, 2.0), True,
                 (st.boxes([((50, 0, 0), (100, 2, 4))]), 0.03), 0),
    # The plate's part inside the bricks counts twice, as in CalculiX.
    "welded": (st.welded_deck, True,
               (st.boxes([((5, 10, 5), (10, 20, 10)), ((20, 10, 5), (40, 1, 10))]), 0.24), 400),
    "sheet": ("sheet.geo", True, None, None),  # gmsh's S8R mesh of the demo's bent sheet
    "shellf": ("shellf.inp", False, None, 1.0),
    "beamfsh1": ("beamfsh1.inp.gz", False, None, None),
    "boxprofile": ("boxprofile.inp", False, None, 0),
}
# Incompatible modes, a fold and a bend (knots), shells welded to solids: the own solver takes them
# (--solver own) beside CalculiX's path.
OWN = ["s4_plate", "s8r_fold", "b32r_frame", "welded"]
# CalculiX's table against the Rayleigh quotients of its own eigenvectors over its stored
# matrices: shellf's first mode differs by 1.1e-5.
EIGENVALUES = {"shellf": 2e-5}
# The fold and the frame's bend against the same meshes unbent.
UNBENT = {"s8r_fold": "s8r_plate", "b32r_frame": "b32r_line"}


@pytest.fixture(scope="module")
def exports(ccx2krx, tmp_path_factory):
    """Every model, with CalculiX's *NODE PRINT of its original nodes for the same modes (as
    print.dat); the S8 plate with the stresses of its top surface and of its mid-surface, the B31
    beam with those of its section corner, and the models that the own solver takes. Each run has
    a deck of its own: they run two at once."""
    where = tmp_path_factory.mktemp("structures")
    jobs = [(name, name, ["--stress"] if name in ("s8_plate", "b31_beam") else [])
            for name in MODELS]
    jobs.append(("s8_plate_mid", "s8_plate", ["--stress", "--shell-surface", "mid"]))
    jobs += [(name + "_own", name, ["--solver", "own"]) for name in OWN]
    exports = export_all(ccx2krx, where, [
        (label, st.write_deck(MODELS[name][0], str(where / f"{label}.inp")),
         ["--modes", str(MODES), *args]) for label, name, args in jobs])
    for name in MODELS:
        ids = "".join(f"{n},\n" for n in exports[name].read().node_ids)
        calculix(exports[name].keep, print=f"*NSET,NSET=PRINTALL\n{ids}*STEP\n*FREQUENCY\n"
                                           f"{MODES}\n*NODE PRINT,NSET=PRINTALL\nU\n*END STEP\n")
    return exports


@pytest.mark.parametrize("name", list(MODELS))
def test_eigenvalues_and_translations_are_calculix_own(exports, name):
    """CalculiX's eigenvalues and translations; and its eigenvalues from the own solver on
    CalculiX's expanded matrices (its six rigid-body modes deflated from the expanded rows' rigid
    motions), with the same masses."""
    e = exports[name]
    f = e.read()
    theirs = ccx.dat_eigenvalues(os.path.join(e.keep, "modes.dat"))
    first = 6 * MODELS[name][1]  # the rigid-body modes of a free body
    for g in [f] + ([exports[name + "_own"].read()] if name in OWN else []):
        np.testing.assert_allclose(g.eigenvalues[first:], theirs[first:],
                                   rtol=EIGENVALUES.get(name, 1e-5))
        if first:
            assert np.all(np.abs(g.eigenvalues[:6]) < 1e-5 * theirs[6])
        np.testing.assert_array_equal(g.masses, f.masses)
    tables = ccx.dat_displacements(os.path.join(e.keep, "print.dat"), "PRINTALL")
    assert len(tables) == len(theirs)
    ids = np.sort(f.node_ids)
    shapes = np.asarray(f.mode_shapes)
    largest = np.abs(shapes[:, :, :3]).max()
    for k in separated(f.eigenvalues, first, 0.05)[: 4]:
        ours = by_node(f.mode_shape_node_ids, shapes[k], ids)[:, :3]
        theirs_k = np.array([tables[k][n] for n in ids])
        # A torsion mode of a beam moves no node: its translations are round-off.
        if np.abs(theirs_k).max() > 1e-6 * largest:
            assert_same_up_to_sign(ours, theirs_k, f"{name} mode {k + 1}")


# Not beamfsh1: its shells are 1e-4 thick, and the .frd's five digits of top and bottom cannot
# resolve their difference.
@pytest.mark.parametrize("name", ["s8_plate", "s6_plate", "s8_panel", "s8r_fold", "b32r_frame",
                                  "b31_beam", "sheet", "welded", "shellf", "boxprofile"])
def test_rotations_are_those_of_the_expanded_nodes(exports, name):
    """For every shell node in each element, its bottom and top expanded nodes give
    n x (u_top - u_bottom) / t, the rotation about the surface's axes; for every beam node, the
    least-squares rotation of its section corners; from CalculiX's .frd (expanded coordinates
    and displacements), knots included."""
    e = exports[name]
    f = e.read()
    elements, knots = st.expansion(os.path.join(e.keep, "modes.12d"))
    if name in ("s8r_fold", "b32r_frame", "sheet"):
        assert knots, f"{name}: CalculiX made no knot"
    groups = []  # (original node, its expanded nodes)
    for originals, expanded in elements.values():
        n = len(originals)
        if n in (2, 3) and len(expanded) in (11, 20):
            # Beams: corners of the section at the element's first and last node.
            slots = {0: [0, 3, 4, 7], n - 1: [1, 2, 5, 6]}
        else:  # shells: the bottom and top node of each corner
            corners = 4 if n in (4, 8) else 3
            slots = {k: [k, k + corners] for k in range(corners)}
        groups += [(originals[k], [expanded[s] for s in at]) for k, at in slots.items()]
    xyz = dict(zip(*ccx.frd_results(os.path.join(e.keep, "modes.frd"), "NODES")[None]))
    disp = ccx.frd_results(os.path.join(e.keep, "modes.frd"), "DISP")
    shapes = np.asarray(f.mode_shapes)
    size = np.ptp(f.coords, axis=0).max()
    for k in separated(f.eigenvalues, 6 * MODELS[name][1], 0.05):
        u = dict(zip(*disp[k + 1]))
        ours = by_node(f.mode_shape_node_ids, shapes[k], np.array([g[0] for g in groups]))[:, 3:]
        theirs, mine = [], []
        for (_, ex), rotation in zip(groups, ours):
            if not all(x in u for x in ex):
                continue
            p, v = np.array([xyz[x] for x in ex]), np.array([u[x] for x in ex])
            if len(ex) == 2:
                d = p[1] - p[0]
                plane = np.eye(3) - np.outer(d, d) / d.dot(d)
                theta = np.cross(d, v[1] - v[0]) / d.dot(d)
            else:
                r, w = p - p.mean(axis=0), v - v.mean(axis=0)
                a = sum(r_i.dot(r_i) * np.eye(3) - np.outer(r_i, r_i) for r_i in r)
                plane, theta = np.eye(3), np.linalg.solve(a, np.cross(r, w).sum(axis=0))
            theirs.append(plane @ theta)
            mine.append(plane @ rotation)
        # The .frd's five digits of each expanded translation; a mode that bends no shell has
        # only round-off to compare.
        if np.abs(theirs).max() * size < 1e-6 * np.abs(shapes[k][:, :3]).max():
            continue
        assert_same_up_to_sign(np.array(mine), np.array(theirs), f"{name} rotations of {k + 1}")


@pytest.mark.parametrize("name", [n for n, m in MODELS.items() if m[2:] != (None, None)])
def test_mass_inertia_and_shell_area_against_closed_forms(exports, name):
    """The closed forms; and an element's mass diagonal does not change when it turns: the knots
    at the fold and at the frame's bend, whose rows CalculiX condenses, take the masses that the
    same mesh gives its nodes unbent, node by node."""
    f = exports[name].read()
    if name in UNBENT:
        unbent = exports[UNBENT[name]].read()
        assert np.array_equal(f.node_ids, unbent.node_ids)
        np.testing.assert_allclose(f.masses, unbent.masses, rtol=1e-12)
    exact, area = MODELS[name][2:]
    if exact is not None:
        (mass, centre, inertia), lumping = exact
        body = f.global_body_props
        assert body["mass"] == pytest.approx(mass, rel=1e-9)
        assert np.all(f.masses > 0)
        size = np.ptp(f.coords, axis=0).max()
        assert np.abs(body["centre"] - centre).max() < 1e-9 * size
        worst = np.max(np.abs(inertia_about_centre(body) - inertia)) / np.max(np.abs(inertia))
        assert worst < lumping, f"{inertia_about_centre(body)} against {inertia}"
    if area is not None:
        shell_area = surface(f)[0] if f.faces else 0.0
        if name == "welded":  # the plate and the bricks' skin
            shell_area -= 2 * (10 * 20 + 20 * 10 + 10 * 10)
        assert shell_area == pytest.approx(area, rel=1e-7)  # shellf's corner lies at -7.45e-9


def test_stresses_at_the_chosen_surface_and_fibre(exports):
    """The file's stresses against CalculiX's at the expanded nodes that lie at an offset from
    the original ones (found by their coordinates in the .frd), weighted. The plate's normal is
    +z, its thickness 1; the beam's section axes are z (4) and -y (2)."""
    for label, parts in [("s8_plate", [((0, 0, 0.5), 1.0)]),
                         ("s8_plate_mid", [((0, 0, 0.5), 0.5), ((0, 0, -0.5), 0.5)]),
                         ("b31_beam", [((0, -1.0, 2.0), 1.0)])]:
        e = exports[label]
        f = e.read()
        ids, modal = f.stress
        expanded, points = ccx.frd_results(os.path.join(e.keep, "modes.frd"), "NODES")[None]
        nearest = [expanded[np.argmin(np.linalg.norm(
            points[None] - (f.coords[f.node_positions(ids)] + offset)[:, None], axis=2), axis=1)]
            for offset, _ in parts]
        stress = ccx.frd_results(os.path.join(e.keep, "modes.frd"), "STRESS")
        for k in separated(f.eigenvalues):
            their_ids, values = stress[k + 1]
            theirs = sum(weight * by_node(their_ids, values, at)
                         for (_, weight), at in zip(parts, nearest))
            assert_same_up_to_sign(np.asarray(modal[k]), theirs, f"{label} stress {k + 1}")


@pytest.mark.parametrize("change, options, message", [
    (("\n1.0\n", "\n1.0\n*NORMAL\n1,0,0,1\n"), [], "*NORMAL cannot be exported"),
    (("MATERIAL=STEEL\n1.0", "MATERIAL=STEEL,COMPOSITE\n0.5,,STEEL\n0.5,,STEEL"), [],
     "COMPOSITE cannot be exported"),
    (("ELSET=PLATE,MATERIAL", "ELSET=OTHER,MATERIAL"), [], "S8 element 1 has no *SHELL SECTION"),
    (("MATERIAL=STEEL\n1.0", "MATERIAL=STEEL,OFFSET=0.5\n1.0"), [],
     "of S8 element 1 has an offset"),
    # CalculiX ties shell nodes by their translations only: the plate's edge at x = 0 leaves the
    # rotation about it free, which no interface point can stand for.
    (("*MATERIAL", "*NSET,NSET=EDGE\n1,4,8,10,13\n*MATERIAL"), ["--interface", "EDGE"],
     "--interface EDGE: its nodes leave the rotation about y free"),
])
def test_refusals_name_what_cannot_be_exported(ccx2krx, tmp_path, change, options, message):
    text = st.shell_deck("S8").replace(*change)
    deck, out = tmp_path / "refused.inp", tmp_path / "refused.krx"
    deck.write_text(text)
    run = run_tool(ccx2krx, [str(deck), "-o", str(out), *options])
    assert run.returncode == 1 and message in run.stderr, run.stderr
    assert not out.exists()
