"""Shell, beam and mixed models exported by ccx2krx against CalculiX's own output: its
eigenvalues, its *NODE PRINT of the original nodes, the rotations that its expanded nodes give
(knots included), and the closed-form mass and inertia."""

import gzip
import os
from concurrent.futures import ThreadPoolExecutor

import numpy as np
import pytest

import calculix_output as ccx
import structures as st
from conftest import GEOMETRY, Export, calculix, finish, run_tool
from make_deck import make_deck
from test_against_calculix import (assert_same_up_to_sign, by_node, inertia_about_centre,
                                   separated, surface)

MODES = 12
EXAMPLES = "/usr/share/doc/calculix-ccx-test/examples/test"

# name: deck text (or CalculiX example), free body, exact (mass, centre, inertia about it) from
# the steel boxes the model is made of (centre, edge lengths), area of the shell faces.
L_FRAME = [(0, 0, 0), (60, 0, 0), (60, 40, 0)]
PLATE = st.boxes([((20, 10, 0), (40, 20, 1))])
MODELS = {
    "s8_plate": (lambda: st.shell_deck("S8"), True, PLATE, 800),
    "s4_plate": (lambda: st.shell_deck("S4", nx=8, ny=4), True, PLATE, 800),
    "s6_plate": (lambda: st.shell_deck("S6"), True, PLATE, 800),
    "s8_panel": (lambda: st.shell_deck("S8", nx=6, length=60.0, radius=50.0), True, None, None),
    "s8r_fold": (lambda: st.shell_deck("S8R", fold=20.0), True,
                 st.boxes([((10, 10, 0), (20, 20, 1)), ((20, 10, 10), (1, 20, 20))]), 800),
    "s8r_plate": (lambda: st.shell_deck("S8R"), True, PLATE, 800),  # the fold unfolded
    # The section: 4 along z, the direction given; 2 across the beam.
    "b32r_frame": (lambda: st.frame("B32R", L_FRAME, 3, 4.0, 2.0), True,
                   st.boxes([((30, 0, 0), (60, 2, 4)), ((60, 20, 0), (2, 40, 4))]), 0),
    "b32r_line": (lambda: st.frame("B32R", [(0, 0, 0), (60, 0, 0), (100, 0, 0)], 3, 4.0, 2.0),
                  True, st.boxes([((50, 0, 0), (100, 2, 4))]), 0),  # the frame straightened
    "b31_beam": (lambda: st.frame("B31", [(0, 0, 0), (100, 0, 0)], 10, 4.0, 2.0), True,
                 st.boxes([((50, 0, 0), (100, 2, 4))]), 0),
    # The plate's part inside the bricks counts twice, as in CalculiX.
    "welded": (st.welded_deck, True,
               st.boxes([((5, 10, 5), (10, 20, 10)), ((20, 10, 5), (40, 1, 10))]), 400),
    "sheet": ("sheet.geo", True, None, None),  # gmsh's S8R mesh of the demo's bent sheet
    "shellf": ("shellf.inp", False, None, 1.0),
    "beamfsh1": ("beamfsh1.inp.gz", False, None, None),
    "boxprofile": ("boxprofile.inp", False, None, 0),
}
# What the lumping by diagonal scaling gives on these coarse meshes (two to eight elements
# across): the centre of mass exact (each element's diagonal is symmetric about its centre),
# the inertia about it off by a share of its largest entry (trapezoidal weights on four linear
# elements across a plate alone make 12.5%, 2 / n^2).
LUMPING = {"s8_plate": 0.13, "s4_plate": 0.06, "s6_plate": 0.12, "s8r_fold": 0.19,
           "s8r_plate": 0.13, "b32r_frame": 0.07, "b32r_line": 0.05, "b31_beam": 0.03,
           "welded": 0.24}
# Incompatible modes, a fold and a bend (knots), shells welded to solids: the own solver takes them
# (--solver own) beside CalculiX's path.
OWN = ["s4_plate", "s8r_fold", "b32r_frame", "welded"]
# CalculiX's table against the Rayleigh quotients of its own eigenvectors over its stored
# matrices: shellf's first mode differs by 1.1e-5.
EIGENVALUES = {"shellf": 2e-5}


def _write_deck(name, where, stem=None):
    source = MODELS[name][0]
    path = os.path.join(where, (stem or name) + ".inp")
    if callable(source):
        text = source()
    elif source.endswith(".geo"):
        return make_deck(os.path.join(GEOMETRY, source), path, [("h", 8)], shell=1.5)
    else:
        opener = gzip.open if source.endswith(".gz") else open
        with opener(os.path.join(EXAMPLES, source), "rt") as f:
            text = f.read()
    with open(path, "w") as f:
        f.write(text)
    return path


def _print_job(work, node_ids):
    """CalculiX's *NODE PRINT of the original nodes for the same modes, as print.dat."""
    ids = "".join(f"{n},\n" for n in node_ids)
    finish(calculix(work, "print", f"*NSET,NSET=PRINTALL\n{ids}*STEP\n*FREQUENCY\n{MODES}\n"
                                   "*NODE PRINT,NSET=PRINTALL\nU\n*END STEP\n"))


@pytest.fixture(scope="module")
def exports(ccx2krx, tmp_path_factory):
    where = tmp_path_factory.mktemp("structures")

    def export(label, name, options=()):
        deck = _write_deck(name, str(where), label)  # each run its own deck: they run at once
        out, keep = str(where / f"{label}.krx"), str(where / f"work_{label}")
        run = run_tool(ccx2krx, [deck, "-o", out, "--modes", str(MODES), "--keep", keep, *options])
        assert run.returncode == 0, f"{label}: {run.stderr}"
        e = Export(deck, out, keep, run)
        if label == name:
            _print_job(keep, e.read().node_ids)
        return label, e

    # The S8 plate with the stresses of its top surface and of its mid-surface, the B31 beam
    # with those of its section corner, and the models that the own solver takes.
    jobs = [(name, name, ["--stress"] if name in ("s8_plate", "b31_beam") else [])
            for name in MODELS]
    jobs.append(("s8_plate_mid", "s8_plate", ["--stress", "--shell-surface", "mid"]))
    jobs += [(name + "_own", name, ["--solver", "own"]) for name in OWN]
    with ThreadPoolExecutor(2) as pool:
        return dict(pool.map(lambda job: export(*job), jobs))


names = pytest.mark.parametrize("name", list(MODELS))


def rigid(name):
    """The rigid-body modes of the model: six of a free body, none of a held one."""
    return 6 if MODELS[name][1] else 0


@names
def test_eigenvalues_and_translations_are_calculix_own(exports, name):
    e = exports[name]
    f = e.read()
    theirs = ccx.dat_eigenvalues(os.path.join(e.keep, "modes.dat"))
    first = rigid(name)
    np.testing.assert_allclose(f.eigenvalues[first:], theirs[first:],
                               rtol=EIGENVALUES.get(name, 1e-5))
    if first:
        assert np.all(np.abs(f.eigenvalues[:6]) < 1e-5 * theirs[6])
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


def rotations_from_expansion(e):
    """{node: [(axes to compare on, rotation)]}: for every shell node in each element, its
    bottom and top expanded nodes give n x (u_top - u_bottom) / t, the rotation about the
    surface's axes; for every beam node the least-squares rotation of its section corners.
    Computed from CalculiX's .frd (expanded coordinates and displacements) for each mode."""
    elements, knots = st.expansion(os.path.join(e.keep, "modes.12d"))
    xyz = st.frd_nodes(os.path.join(e.keep, "modes.frd"))
    disp = ccx.frd_results(os.path.join(e.keep, "modes.frd"), "DISP")
    rows = {}
    for originals, expanded in elements.values():
        n = len(originals)
        if n in (2, 3) and len(expanded) in (11, 20):
            # Beams: corners of the section at the element's first and last node.
            for k, slots in {0: [0, 3, 4, 7], n - 1: [1, 2, 5, 6]}.items():
                rows.setdefault(originals[k], []).append(("beam", [expanded[s] for s in slots]))
        else:
            corners = 4 if n in (4, 8) else 3
            for k in range(corners):
                rows.setdefault(originals[k], []).append(
                    ("shell", [expanded[k], expanded[k + corners]]))
    out = {node: [] for node in rows}
    for mode in sorted(disp):
        u = dict(zip(*disp[mode]))
        for node, entries in rows.items():
            found = []
            for kind, ex in entries:
                if any(x not in u for x in ex):
                    continue
                p = np.array([xyz[x] for x in ex])
                v = np.array([u[x] for x in ex])
                if kind == "shell":
                    d = p[1] - p[0]
                    found.append((d / np.linalg.norm(d), np.cross(d, v[1] - v[0]) / d.dot(d)))
                else:
                    r, w = p - p.mean(axis=0), v - v.mean(axis=0)
                    a = sum(r_i.dot(r_i) * np.eye(3) - np.outer(r_i, r_i) for r_i in r)
                    found.append((None, np.linalg.solve(a, np.cross(r, w).sum(axis=0))))
            out[node].append(found)
    return out, knots


# Not beamfsh1: its shells are 1e-4 thick, and the .frd's five digits of top and bottom cannot
# resolve their difference.
@pytest.mark.parametrize("name", ["s8_plate", "s6_plate", "s8_panel", "s8r_fold", "b32r_frame",
                                  "b31_beam", "sheet", "welded", "shellf", "boxprofile"])
def test_rotations_are_those_of_the_expanded_nodes(exports, name):
    e = exports[name]
    f = e.read()
    shapes = np.asarray(f.mode_shapes)
    expanded, knots = rotations_from_expansion(e)
    if name in ("s8r_fold", "b32r_frame", "sheet"):
        assert knots, f"{name}: CalculiX made no knot"
    for k in separated(f.eigenvalues, rigid(name), 0.05):
        ours = by_node(f.mode_shape_node_ids, shapes[k], np.array(sorted(expanded)))[:, 3:]
        theirs, mine = [], []
        for at, node in enumerate(sorted(expanded)):
            for normal, theta in expanded[node][k]:
                plane = np.eye(3) if normal is None else np.eye(3) - np.outer(normal, normal)
                theirs.append(plane @ theta)
                mine.append(plane @ ours[at])
        # The .frd's five digits of each expanded translation; a mode that bends no shell has
        # only round-off to compare.
        size = np.ptp(f.coords, axis=0).max()
        if np.abs(theirs).max() * size < 1e-6 * np.abs(shapes[k][:, :3]).max():
            continue
        assert_same_up_to_sign(np.array(mine), np.array(theirs), f"{name} rotations of {k + 1}")


def test_own_solver_takes_the_expanded_model(exports):
    """The own solver on CalculiX's expanded matrices: CalculiX's eigenvalues, its six rigid-body
    modes deflated from the expanded rows' rigid motions, the same masses."""
    for name in OWN:
        ours = exports[name + "_own"].read()
        theirs = ccx.dat_eigenvalues(os.path.join(exports[name].keep, "modes.dat"))
        np.testing.assert_allclose(ours.eigenvalues[6:], theirs[6:], rtol=1e-5, err_msg=name)
        assert np.all(np.abs(ours.eigenvalues[:6]) < 1e-5 * theirs[6]), name
        np.testing.assert_array_equal(ours.masses, exports[name].read().masses)


@pytest.mark.parametrize("name", [n for n, m in MODELS.items() if m[2:] != (None, None)])
def test_mass_inertia_and_shell_area_against_closed_forms(exports, name):
    f = exports[name].read()
    exact, area = MODELS[name][2:]
    if exact is not None:
        mass, centre, inertia = exact
        body = f.global_body_props
        assert body["mass"] == pytest.approx(mass, rel=1e-9)
        assert np.all(f.masses > 0)
        size = np.ptp(f.coords, axis=0).max()
        assert np.abs(body["centre"] - centre).max() < 1e-9 * size
        worst = np.max(np.abs(inertia_about_centre(body) - inertia)) / np.max(np.abs(inertia))
        assert worst < LUMPING[name], f"{inertia_about_centre(body)} against {inertia}"
    if area is not None:
        shell_area = surface(f)[0] if f.faces else 0.0
        if name == "welded":  # the plate and the bricks' skin
            shell_area -= 2 * (10 * 20 + 20 * 10 + 10 * 10)
        assert shell_area == pytest.approx(area, rel=1e-7)  # shellf's corner lies at -7.45e-9


@pytest.mark.parametrize("bent, straight",
                         [("s8r_fold", "s8r_plate"), ("b32r_frame", "b32r_line")])
def test_knots_take_the_masses_of_the_unbent_mesh(exports, bent, straight):
    """An element's mass diagonal does not change when it turns: the knots at the fold and at
    the frame's bend, whose rows CalculiX condenses, take the masses that the same mesh gives
    its nodes unbent, node by node."""
    ours, theirs = exports[bent].read(), exports[straight].read()
    assert np.array_equal(ours.node_ids, theirs.node_ids)
    np.testing.assert_allclose(ours.masses, theirs.masses, rtol=1e-12)


def stresses_at(e, offset):
    """CalculiX's stresses of each mode at the expanded node that lies at offset from each
    original node (found by its coordinates in the .frd): {mode: (original ids, values)}."""
    f = e.read()
    xyz = st.frd_nodes(os.path.join(e.keep, "modes.frd"))
    ids = np.array(sorted(xyz))
    points = np.array([xyz[i] for i in ids])
    wanted = f.coords[f.node_positions(f.node_ids)] + offset
    nearest = ids[np.argmin(np.linalg.norm(points[None] - wanted[:, None], axis=2), axis=1)]
    out = {}
    for mode, (their_ids, values) in ccx.frd_results(os.path.join(e.keep, "modes.frd"),
                                                     "STRESS").items():
        out[mode] = by_node(their_ids, values[:, [0, 1, 2, 3, 5, 4]], nearest)
    return f.node_ids, out


def test_stresses_at_the_chosen_surface_and_fibre(exports):
    top, mid, beam = (exports[label] for label in ("s8_plate", "s8_plate_mid", "b31_beam"))
    # The plate's normal is +z, its thickness 1; the beam's section axes are z (4) and -y (2).
    checks = [(top, [(np.array([0, 0, 0.5]), 1.0)]),
              (mid, [(np.array([0, 0, 0.5]), 0.5), (np.array([0, 0, -0.5]), 0.5)]),
              (beam, [(np.array([0, -1.0, 2.0]), 1.0)])]
    for e, parts in checks:
        f = e.read()
        ids, modal = f.stress
        for k in separated(f.eigenvalues):
            theirs = 0.0
            for offset, weight in parts:
                node_ids, at = stresses_at(e, offset)
                theirs = theirs + weight * by_node(node_ids, at[k + 1], ids)
            assert_same_up_to_sign(np.asarray(modal[k]), theirs, f"{e.out} stress {k + 1}")


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
