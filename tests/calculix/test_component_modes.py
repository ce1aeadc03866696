"""Component modes (ccx2krx --interface) against CalculiX's own solutions of the same model part
with the same rigid bodies. The bracket's two bolt holes: its free-free frequencies, its static
displacements and stresses of one hole with the other held, its mass matrix, and its frequencies
of the bracket held at HOLE1 (with and without a point mass at HOLE2) against the body that
examples/mounted_body (MOUNTED_BODY) mounts there. Sets of shell, beam and solid nodes of shell,
beam and mixed parts: CalculiX's *STATIC with one set held, every original node's displacement
printed, and the sheet mounted at HOLE1. Then the C read API (READ_API_DUMP) against the Python
reader, block by block, on the bracket's files."""

import glob
import os
import re
import subprocess

import numpy as np
import pytest

import calculix_output as ccx
import krx
import structures as st
from conftest import ROOT, built_tool, calculix, export_all
from test_against_calculix import by_node

BRACKET = "bracket_c3d10"
FIXED = 20  # fixed-interface normal modes
SHOWN = 6  # frequencies of the mounted body compared
PART_FIXED = 8  # the same for the shell, beam and mixed parts
PART_MOUNTED = 4  # frequencies of the sheet mounted at HOLE1 compared with CalculiX's


def interface_points(work):
    """{set: (reference node, rotation node)} from the *RIGID BODY cards of the model part."""
    with open(os.path.join(work, "model.inp")) as f:
        cards = re.findall(r"\*RIGID BODY,NSET=(\w+),REF NODE=(\d+),ROT NODE=(\d+)", f.read())
    return {name: (int(ref), int(rot)) for name, ref, rot in cards}


def interface_jobs(points, force, moment, output, held):
    """CalculiX's jobs on a model part with the interface points HOLE1 and HOLE2: static, HOLE1
    held and a unit force along force (1 to 3) on HOLE2's reference node, then a unit moment
    about moment (4 to 6) on its rotation node, output asked in each step; held, the lowest held
    modes with HOLE1 held."""
    (ref_a, rot_a), (ref_b, rot_b) = points["HOLE1"], points["HOLE2"]
    hold = f"*BOUNDARY\n{ref_a},1,3\n{rot_a},1,3\n"
    return {"static": f"*STEP\n*STATIC\n{hold}*CLOAD\n{ref_b},{force},1.\n{output}*END STEP\n"
                      f"*STEP\n*STATIC\n*CLOAD,OP=NEW\n{rot_b},{moment - 3},1.\n{output}"
                      "*END STEP\n",
            "held": f"*STEP\n*FREQUENCY\n{held}\n{hold}*END STEP\n"}


@pytest.fixture(scope="module")
def exports(ccx2krx, deck, tmp_path_factory):
    """The bracket with both holes as interface points, exported three times, two at once: by the
    own solver with stresses, by it with the inertia invariants (which keep only the nodes of
    faces and interfaces), and by CalculiX with stresses."""
    args = ["--interface", "HOLE1", "--interface", "HOLE2", "--modes", str(FIXED)]
    return export_all(ccx2krx, tmp_path_factory.mktemp("component"), [
        ("own", deck(BRACKET), args + ["--solver", "own", "--stress"]),
        ("invariants", deck(BRACKET), args + ["--solver", "own"], "full_invar"),
        ("calculix", deck(BRACKET), args + ["--solver", "calculix", "--stress"])])


@pytest.fixture(scope="module")
def reference(exports):
    """CalculiX on the tool's own model part (mesh and rigid bodies): free-free modes; the static
    job, a force along z and a moment about y (stresses in static.frd, the last step's the
    moment's); modes held at HOLE1, without and with a point mass of half the bracket's mass at
    HOLE2's reference node. Returns the points, the work directory and the mass (node, mass)."""
    work = exports["own"].keep
    points = interface_points(work)
    jobs = interface_jobs(points, 3, 5, "*NODE PRINT,NSET=CCX2KRXIF\nU\n*EL FILE\nS\n", SHOWN)
    mass = points["HOLE2"][0], exports["invariants"].read().global_body_props["mass"] / 2
    calculix(work, free="*STEP\n*FREQUENCY\n14\n*END STEP\n", **jobs,
             held_mass=f"*ELEMENT,TYPE=MASS,ELSET=POINTMASS\n900001,{mass[0]}\n"
                       f"*MASS,ELSET=POINTMASS\n{mass[1]!r}\n" + jobs["held"])
    return points, work, mass


def static_against_calculix(f, work, points, force, moment):
    """The modal coordinates of the static job's two loads (interface_jobs), from the file alone:
    its modes and eigenvalues, the modal stiffness condensed onto the modes that leave HOLE1 at
    rest; HOLE2's point moves as CalculiX's does (static.dat) within round-off."""
    shapes = np.asarray(f.mode_shapes)
    phi_a, phi_b = (shapes[:, f.mode_shape_node_ids == points[s][0], :][:, 0].T
                    for s in ("HOLE1", "HOLE2"))  # the six components of every mode: 6 x modes
    null = np.linalg.svd(phi_a)[2][6:].T
    stiffness = null.T @ np.diag(f.eigenvalues) @ null
    tables = ccx.dat_displacements(os.path.join(work, "static.dat"), "CCX2KRXIF")
    assert len(tables) == 2
    out = []
    for load, table in zip((force, moment), tables):
        out.append(null @ np.linalg.solve(stiffness, null.T @ phi_b[load - 1]))
        ours, theirs = phi_b @ out[-1], np.concatenate([table[n] for n in points["HOLE2"]])
        error = np.linalg.norm(ours - theirs) / np.linalg.norm(theirs)
        assert error < 1e-6, f"{ours} against CalculiX's {theirs}: {error:.1e}"
    return out


def mounted_against_calculix(path, work, job, fixed, count, mass=None):
    """The lowest count frequencies in Hz of the body of path held at its point fixed (with a
    point mass (node, mass)) by examples/mounted_body, and CalculiX's of job in work."""
    args = [built_tool("MOUNTED_BODY"), path, "--fix", str(fixed), "--count", str(count)]
    if mass:
        args += ["--mass", str(mass[0]), repr(mass[1])]
    run = subprocess.run(args, capture_output=True, text=True, timeout=60)
    assert run.returncode == 0, run.stderr
    ours = np.array([float(line.split()[1]) for line in run.stdout.splitlines()[2:]])
    theirs = np.sqrt(ccx.dat_eigenvalues(os.path.join(work, job + ".dat"))[:count]) / (2 * np.pi)
    assert len(ours) == count and len(theirs) == count
    return ours, theirs


@pytest.mark.parametrize("path", ["own", "calculix"])
def test_free_and_held_bracket_against_calculix(exports, reference, path):
    """Six rigid-body modes, then elastic ones no lower than the full model's and within 1%; a
    unit force along z, then a unit moment about y, on HOLE2 with HOLE1 held move it within
    round-off, and the moment's stresses follow from the modal stresses (both sides carry the
    .frd's five digits)."""
    f = exports[path].read()
    points, work, _ = reference
    theirs = ccx.dat_eigenvalues(os.path.join(work, "free.dat"))
    assert np.all(np.abs(f.eigenvalues[:6]) < 1e-6 * theirs[6])
    ratio = f.eigenvalues[6:12] / theirs[6:12]
    assert np.all(ratio > 1 - 1e-7), ratio
    assert np.all(ratio < 1.01 ** 2), ratio  # eigenvalues: frequencies within 1%
    q = static_against_calculix(f, work, points, 3, 5)[1]
    ids, modal = f.stress
    ours = np.tensordot(q, np.asarray(modal), axes=1)
    their_ids, theirs = ccx.frd_results(os.path.join(work, "static.frd"), "STRESS")[None]
    theirs = by_node(their_ids, theirs, ids)
    assert np.max(np.abs(ours - theirs)) < 1e-4 * np.max(np.abs(theirs))


def test_modes_are_mass_orthonormal_and_carry_the_mass(exports, reference):
    f, work = exports["own"].read(), exports["own"].keep
    rotation_of = {rot: ref for ref, rot in reference[0].values()}
    assert sorted(f.interface_nodes) == sorted(rotation_of.values())
    rows, product = ccx.stored_matrices(os.path.join(work, "matrices"))
    node = np.array([rotation_of.get(n, n) for n in rows[:, 0]])
    column = rows[:, 1] + 3 * np.isin(rows[:, 0], list(rotation_of))
    at = f.node_positions(node)
    assert np.all(at >= 0)
    phi = np.asarray(f.mode_shapes)[:, at, column].T  # rows x modes
    # A unit translation along x moves the hole walls with their reference nodes: x^T M x is
    # CalculiX's mass of the body.
    x = (column == 0).astype(float)[:, None]
    m_vectors = product("mas", np.hstack([phi, x]))
    np.testing.assert_allclose(phi.T @ m_vectors[:, :-1], np.eye(f.mode_count), atol=1e-10)
    total = float(x[:, 0] @ m_vectors[:, -1])
    assert exports["invariants"].read().invariants[19][0] == pytest.approx(total, rel=1e-12)
    # The nodes of the hole walls have masses of their own, and the total stays CalculiX's.
    assert np.all(f.masses > 0)
    assert f.masses.sum() == pytest.approx(total, rel=1e-12)


def test_mounted_frequencies_match_calculix(exports, reference):
    """The body of the file mounted at HOLE1, without and with the point mass at HOLE2."""
    points, work, mass = reference
    for job, extra in (("held", None), ("held_mass", mass)):
        ours, theirs = mounted_against_calculix(exports["invariants"].out, work, job,
                                                points["HOLE1"][0], SHOWN, extra)
        np.testing.assert_allclose(ours, theirs, rtol=5e-3, err_msg=job)


# ---- shell, beam and mixed parts ----

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
PARTS = {
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
def parts(ccx2krx, tmp_path_factory):
    """Every model exported with HOLE1 and HOLE2 as interface points, two at once, and CalculiX's
    static job (interface_jobs) on its model part (the tool's model.inp) with every original
    node's displacement printed; for the sheet also its lowest frequencies held at HOLE1."""
    where = tmp_path_factory.mktemp("interfaces")
    args = ["--interface", "HOLE1", "--interface", "HOLE2", "--modes", str(PART_FIXED)]
    done = export_all(ccx2krx, where, [
        (name, st.write_deck(source, str(where / f"{name}.inp")), args + ["--solver", solver])
        for name, (source, _, _, solver) in PARTS.items()])
    prints = "*NODE PRINT,NSET=CCX2KRXIF\nU\n*NODE PRINT,NSET=CCX2KRXALL\nU\n"
    for name, (_, force, moment, _) in PARTS.items():
        jobs = interface_jobs(interface_points(done[name].keep), force, moment, prints,
                              PART_MOUNTED)
        if not name.startswith("sheet"):
            del jobs["held"]
        calculix(done[name].keep, **jobs)
    return done


@pytest.mark.parametrize("name", list(PARTS))
def test_static_response_of_parts_is_calculix_own_at_every_node(parts, name):
    """The interface point's motion and every node's translation (for a shell node tied to the
    point, the mean through its thickness that CalculiX prints, which its untied middle node
    enters) follow from the file's modes and eigenvalues as CalculiX computes them. Every node
    tied to an interface point keeps its share of the mass (the frame's knots and the brick's
    face nodes, which have no rows, theirs from the expanded elements), the points none; the
    total stays CalculiX's (density x area x thickness on the plate). The read API's consumer
    holds the sheet's HOLE1 point (all six rows) and finds the frequencies that CalculiX finds
    for the whole shell model held there."""
    e = parts[name]
    f, points = e.read(), interface_points(e.keep)
    assert f.mode_count == 12 + PART_FIXED
    refs = f.node_positions(np.array([ref for ref, _ in points.values()]))
    assert np.all(np.delete(f.masses, refs) > 0) and np.all(f.masses[refs] == 0)
    if name == "s4_plate":
        assert f.masses.sum() == pytest.approx(st.DENSITY * 40 * 20 * 1.0, rel=1e-9)
    shapes = np.asarray(f.mode_shapes)
    position = {int(n): k for k, n in enumerate(f.mode_shape_node_ids)}
    everywhere = ccx.dat_displacements(os.path.join(e.keep, "static.dat"), "CCX2KRXALL")
    for q, at_nodes in zip(static_against_calculix(f, e.keep, points, *PARTS[name][1:3]),
                           everywhere):
        ids = [n for n in at_nodes if n in position and n != points["HOLE2"][0]]
        mine = np.tensordot(q, shapes[:, [position[n] for n in ids], :3], axes=1)
        theirs = np.array([at_nodes[n] for n in ids])
        worst = np.abs(mine - theirs).max() / np.abs(theirs).max()
        assert worst < 1e-6, f"{name}: node translations off by {worst:.1e} of the largest"
    if name.startswith("sheet"):
        ours, theirs = mounted_against_calculix(e.out, e.keep, "held", points["HOLE1"][0],
                                                PART_MOUNTED)
        np.testing.assert_allclose(ours, theirs, rtol=1e-3)


# ---- the C read API against the Python reader ----

def c_api_arrays(path, where):
    """Every array of path as tests/hosts/read_api_dump reads it through the C API, under the
    Python reader's names: {name: array}, with the texts as lists of lines."""
    os.makedirs(where)
    run = subprocess.run([built_tool("READ_API_DUMP"), path, where], capture_output=True,
                         text=True, timeout=60)
    assert run.returncode == 0, run.stderr
    out = {}
    for name in os.listdir(where):
        (stem, kind), full = os.path.splitext(name), os.path.join(where, name)
        if kind == ".txt":
            with open(full) as f:
                out[stem] = f.read().splitlines()
        else:
            out[stem] = np.fromfile(full, dtype={".i4": np.int32, ".f8": np.float64}[kind])
    return out


def compare_block_by_block(path, where):
    ours, theirs = c_api_arrays(path, where), krx.read(path)
    have = [int(b) for b in ours["blocks"]]
    assert have == theirs.blocks[3:]
    assert ours["header"] == [theirs.header[k] for k in ("title", "date", "input_name",
                                                          "input_type")]
    expected = {name: getattr(theirs, name) for name in (
        "node_ids", "coords", "mode_numbers", "masses", "inertias", "generalized_stiffness",
        "generalized_mass", "generalized_damping", "interface_nodes") if name in ours}
    if 6 in have:
        props = theirs.global_body_props
        expected["body"] = np.r_[props["mass"], props["centre"], props["inertia"].ravel()]
    if 7 in have:
        expected["eigen_records"] = np.c_[theirs.eigenvalues, theirs.hertz, theirs.radians,
                                          theirs.gen_mass, theirs.gen_stiff]
    for block, kind, python in ((8, 0, lambda: (theirs.mode_shape_node_ids, theirs.mode_shapes)),
                                (18, 1, lambda: theirs.stress), (29, 2, lambda: theirs.strain)):
        if block in have:
            ids, values = python()
            expected.update({f"mode_ids_{kind}": ids, f"modes_{kind}": np.asarray(values),
                             f"mode_numbers_{kind}": theirs._mode_record_numbers})
    if 16 in have:
        expected.update(transformation_numbers=theirs.transformation[0],
                        transformation=theirs.transformation[1])
    for block, invariant in zip(range(19, 27), (1, 2, 3, 4, 5, 7, 8, 9)):
        if block in have:
            expected[f"invariant_{invariant}"] = theirs.invariants[block]
    for name, value in expected.items():
        np.testing.assert_array_equal(ours[name], np.ravel(value), err_msg=f"{path}: {name}")
    if 11 in have:
        assert ours["units"] == [u.rstrip("\0 ") for u in theirs.units]
    if 5 in have or 14 in have:
        # Vertex count, then positions in the node order: the Python reader gives node ids.
        words, faces, at = ours["faces"], [], 0
        while at < len(words):
            faces.append(theirs.node_ids[words[at + 1:at + 1 + words[at]]])
            at += 1 + words[at]
        assert len(faces) == len(theirs.faces)
        for a, b in zip(faces, theirs.faces):
            np.testing.assert_array_equal(a, b)
    return have


def test_c_api_reads_what_the_python_reader_reads(exports, tmp_path):
    seen = set()
    files = [e.out for e in exports.values()]
    files += sorted(glob.glob(os.path.join(ROOT, "tests/data/*.krx")))
    for k, path in enumerate(files):
        seen.update(compare_block_by_block(path, str(tmp_path / str(k))))
    # Every block the API serves was compared on some file.
    assert set(range(4, 27)) | {29} <= seen, sorted(seen)
