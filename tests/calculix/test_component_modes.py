"""Component modes of the bracket's two bolt holes (ccx2krx --interface) against CalculiX's own
solutions of the same mesh with the same rigid bodies: its free-free frequencies, its static
displacements and stresses of one hole with the other held, its mass matrix, and its frequencies
of the bracket held at HOLE1 (with and without a point mass at HOLE2) against the body that
examples/mounted_body (MOUNTED_BODY) mounts there; and the C read API (READ_API_DUMP) against the
Python reader, block by block, on the same files."""

import glob
import os
import re
import subprocess
from concurrent.futures import ThreadPoolExecutor

import numpy as np
import pytest

import calculix_output as ccx
import krx
from conftest import ROOT, Export, built_tool, calculix, finish, run_tool
from test_against_calculix import by_node

BRACKET = "bracket_c3d10"
FIXED = 20  # fixed-interface normal modes
SHOWN = 6  # frequencies of the mounted body compared
OWN, INVARIANTS, CALCULIX = range(3)
paths = pytest.mark.parametrize("path", [OWN, CALCULIX], ids=["own", "calculix"])


def interface_points(e):
    """{set: (reference node, rotation node)} from the *RIGID BODY cards of the model part."""
    with open(os.path.join(e.keep, "model.inp")) as f:
        cards = re.findall(r"\*RIGID BODY,NSET=(\w+),REF NODE=(\d+),ROT NODE=(\d+)", f.read())
    return {name: (int(ref), int(rot)) for name, ref, rot in cards}


@pytest.fixture(scope="module")
def exports(ccx2krx, deck, tmp_path_factory):
    """The bracket with both holes as interface points, exported three times, two at once: by the
    own solver with stresses, by it with the inertia invariants (which keep only the nodes of
    faces and interfaces), and by CalculiX with stresses."""
    where = tmp_path_factory.mktemp("component")

    def export(label, args, options=None):
        out, keep = str(where / f"{label}.krx"), str(where / f"work_{label}")
        run = run_tool(ccx2krx, [deck(BRACKET), "-o", out, "--interface", "HOLE1", "--interface",
                                 "HOLE2", "--modes", str(FIXED), "--keep", keep, *args], options)
        assert run.returncode == 0, run.stderr
        return Export(deck(BRACKET), out, keep, run)

    jobs = [("own", ["--solver", "own", "--stress"]),
            ("invariants", ["--solver", "own"], "full_invar"),
            ("calculix", ["--solver", "calculix", "--stress"])]
    with ThreadPoolExecutor(2) as pool:
        return list(pool.map(lambda job: export(*job), jobs))


@pytest.fixture(scope="module")
def reference(exports):
    """CalculiX on the tool's own model part (mesh and rigid bodies): free-free modes, and HOLE1
    held with a unit force along z, then a unit moment about y, on HOLE2 (stresses in the .frd;
    the last step's are the moment's)."""
    work = exports[OWN].keep
    points = interface_points(exports[OWN])
    (ref_a, rot_a), (ref_b, rot_b) = points["HOLE1"], points["HOLE2"]
    free = calculix(work, "free", "*STEP\n*FREQUENCY\n14\n*END STEP\n")
    static = calculix(work, "static",
                      f"*STEP\n*STATIC\n*BOUNDARY\n{ref_a},1,3\n{rot_a},1,3\n"
                      f"*CLOAD\n{ref_b},3,1.\n*NODE PRINT,NSET=CCX2KRXIF\nU\n*EL FILE\nS\n"
                      "*END STEP\n"
                      f"*STEP\n*STATIC\n*CLOAD,OP=NEW\n{rot_b},2,1.\n*END STEP\n")
    finish(free)
    finish(static)
    tables = ccx.dat_displacements(os.path.join(work, "static.dat"), "CCX2KRXIF")
    assert len(tables) == 2
    displacements = [np.concatenate([t[ref_b], t[rot_b]]) for t in tables]
    return points, os.path.join(work, "free.dat"), displacements


def shapes_at(f, node):
    """The six components of every mode at node: an array of 6 x modes."""
    at = int(np.flatnonzero(f.mode_shape_node_ids == node)[0])
    return np.asarray(f.mode_shapes)[:, at, :].T


@paths
def test_frequencies_bound_calculix_free_free_from_above(exports, reference, path):
    f = exports[path].read()
    theirs = ccx.dat_eigenvalues(reference[1])
    ours = f.eigenvalues
    # Six rigid-body modes, then elastic ones no lower than the full model's and within 1%.
    assert np.all(np.abs(ours[:6]) < 1e-6 * theirs[6])
    ratio = ours[6:12] / theirs[6:12]
    assert np.all(ratio > 1 - 1e-7), ratio
    assert np.all(ratio < 1.01 ** 2), ratio  # eigenvalues: frequencies within 1%


def static_response(f, points, load):
    """Modal coordinates of HOLE2's reference node loaded by load (six components) with HOLE1
    held, from the file alone: its modes and eigenvalues, the modal stiffness condensed onto the
    modes that leave HOLE1 at rest."""
    phi_a, phi_b = shapes_at(f, points["HOLE1"][0]), shapes_at(f, points["HOLE2"][0])
    null = np.linalg.svd(phi_a)[2][6:].T
    stiffness = null.T @ np.diag(f.eigenvalues) @ null
    return null @ np.linalg.solve(stiffness, null.T @ phi_b.T @ load)


@paths
def test_static_response_and_stresses_of_one_hole_with_the_other_held(exports, reference, path):
    f = exports[path].read()
    points, _, theirs = reference
    # A unit force along z, then a unit moment about y: displacements within round-off.
    for load, expected in zip((np.eye(6)[2], np.eye(6)[4]), theirs):
        ours = shapes_at(f, points["HOLE2"][0]) @ static_response(f, points, load)
        error = np.linalg.norm(ours - expected) / np.linalg.norm(expected)
        assert error < 1e-6, f"{ours} against CalculiX's {expected}: {error:.1e}"
    # The moment's stresses from the modal stresses; both sides carry the .frd's five digits.
    q = static_response(f, points, np.eye(6)[4])
    ids, modal = f.stress
    ours = np.tensordot(q, np.asarray(modal), axes=1)
    their_ids, theirs = ccx.frd_results(os.path.join(exports[OWN].keep, "static.frd"),
                                        "STRESS")[None]
    theirs = by_node(their_ids, theirs[:, [0, 1, 2, 3, 5, 4]], ids)
    assert np.max(np.abs(ours - theirs)) < 1e-4 * np.max(np.abs(theirs))


def test_modes_are_mass_orthonormal_and_carry_the_mass(exports, reference):
    f, work = exports[OWN].read(), exports[OWN].keep
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
    assert exports[INVARIANTS].read().invariants[19][0] == pytest.approx(total, rel=1e-12)
    # The nodes of the hole walls have masses of their own, and the total stays CalculiX's.
    assert np.all(f.masses > 0)
    assert f.masses.sum() == pytest.approx(total, rel=1e-12)


# ---- the consumer's side: the body mounted at HOLE1 ----

def mounted(path, fixed, mass=None, count=SHOWN):
    args = [built_tool("MOUNTED_BODY"), path, "--fix", str(fixed), "--count", str(count)]
    if mass:
        args += ["--mass", str(mass[0]), repr(mass[1])]
    run = subprocess.run(args, capture_output=True, text=True, timeout=60)
    assert run.returncode == 0, run.stderr
    return np.array([float(line.split()[1]) for line in run.stdout.splitlines()[2:]])


@pytest.fixture(scope="module")
def frequencies(exports):
    """(ours, CalculiX's) frequencies in Hz: held at HOLE1, and held with a point mass of half
    the bracket's mass at HOLE2's reference node."""
    component = exports[INVARIANTS]
    (ref_a, rot_a), (ref_b, _) = (interface_points(component)[s] for s in ("HOLE1", "HOLE2"))
    mass = component.read().global_body_props["mass"] / 2
    held = f"*STEP\n*FREQUENCY\n{SHOWN}\n*BOUNDARY\n{ref_a},1,3\n{rot_a},1,3\n*END STEP\n"
    point = f"*ELEMENT,TYPE=MASS,ELSET=POINTMASS\n900001,{ref_b}\n*MASS,ELSET=POINTMASS\n{mass!r}\n"
    runs = [calculix(component.keep, "held", held),
            calculix(component.keep, "held_mass", point + held)]
    ours = [mounted(component.out, ref_a), mounted(component.out, ref_a, (ref_b, mass))]
    theirs = []
    for run, job in zip(runs, ("held", "held_mass")):
        finish(run)
        eigenvalues = ccx.dat_eigenvalues(os.path.join(component.keep, job + ".dat"))
        theirs.append(np.sqrt(eigenvalues[:SHOWN]) / (2 * np.pi))
    return ours, theirs


@pytest.mark.parametrize("case", [0, 1], ids=["held", "held_with_mass"])
def test_mounted_frequencies_match_calculix(frequencies, case):
    ours, theirs = frequencies[0][case], frequencies[1][case]
    assert len(ours) == SHOWN and len(theirs) == SHOWN
    np.testing.assert_allclose(ours, theirs, rtol=5e-3)


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
        stem, kind = os.path.splitext(name)
        full = os.path.join(where, name)
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
            expected[f"mode_ids_{kind}"] = ids
            expected[f"mode_numbers_{kind}"] = theirs._mode_record_numbers
            expected[f"modes_{kind}"] = np.asarray(values)
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
    files = [e.out for e in exports] + sorted(glob.glob(os.path.join(ROOT, "tests/data/*.krx")))
    for k, path in enumerate(files):
        seen.update(compare_block_by_block(path, str(tmp_path / str(k))))
    # Every block the API serves was compared on some file.
    assert set(range(4, 27)) | {29} <= seen, sorted(seen)
