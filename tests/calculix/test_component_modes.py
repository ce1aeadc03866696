"""Component modes of the bracket's two bolt holes (ccx2krx --interface) against CalculiX's own
solutions of the same mesh with the same rigid bodies: its free-free frequencies, its static
displacements of one hole with the other held, and its mass matrix."""

import os
import re
import subprocess
from concurrent.futures import ThreadPoolExecutor

import numpy as np
import pytest

import calculix_output as ccx
from conftest import Export, run_tool
from test_against_calculix import by_node

BRACKET = "bracket_c3d10"
FIXED = 20  # fixed-interface normal modes


def calculix(work, job, text):
    """Starts CalculiX on text as work/job.inp; wait with finish()."""
    with open(os.path.join(work, job + ".inp"), "w") as f:
        f.write("*INCLUDE,INPUT=model.inp\n" + text)
    env = dict(os.environ, OMP_NUM_THREADS="1")
    return subprocess.Popen([os.environ.get("CCX", "ccx"), "-i", job], cwd=work, env=env,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)


def finish(run):
    out, _ = run.communicate(timeout=300)
    assert run.returncode == 0 and "*ERROR" not in out, out[-2000:]


def interface_points(model):
    """{set: (reference node, rotation node)} from the *RIGID BODY cards of the model part."""
    with open(model) as f:
        cards = re.findall(r"\*RIGID BODY,NSET=(\w+),REF NODE=(\d+),ROT NODE=(\d+)", f.read())
    return {name: (int(ref), int(rot)) for name, ref, rot in cards}


def dat_tables(path, name):
    """The displacement tables that *NODE PRINT wrote for set name: one {node: xyz} per table."""
    tables = []
    with open(path) as f:
        for line in f:
            if line.startswith(" displacements") and f"set {name} " in line:
                tables.append({})
            elif tables and re.match(r"\s+\d+\s+[-\d]", line):
                parts = line.split()
                tables[-1][int(parts[0])] = np.array([float(v) for v in parts[1:4]])
    return tables


def deck_set(path, name):
    """The node ids of the deck's *NSET called name."""
    ids, inside = [], False
    with open(path) as f:
        for line in f:
            if line.startswith("*"):
                card = line.replace(" ", "").upper().rstrip() + ","
                inside = card.startswith(f"*NSET,NSET={name},")
            elif inside:
                ids += [int(t) for t in line.split(",") if t.strip()]
    return np.array(sorted(set(ids)))


@pytest.fixture(scope="module")
def exports(ccx2krx, deck, tmp_path_factory):
    """The bracket with both holes as interface points, exported three times at once: by the own
    solver with stresses, by it with the inertia invariants (which keep only the nodes of faces
    and interfaces), and by CalculiX with stresses."""
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
def component(exports):
    return exports[0]


@pytest.fixture(scope="module")
def reference(component):
    """CalculiX on the tool's own model part (mesh and rigid bodies): free-free modes, and HOLE1
    held with a unit force along z, then a unit moment about y, on HOLE2 (stresses in the .frd;
    the last step's are the moment's)."""
    points = interface_points(os.path.join(component.keep, "model.inp"))
    (ref_a, rot_a), (ref_b, rot_b) = points["HOLE1"], points["HOLE2"]
    free = calculix(component.keep, "free", "*STEP\n*FREQUENCY\n14\n*END STEP\n")
    static = calculix(component.keep, "static",
                      f"*STEP\n*STATIC\n*BOUNDARY\n{ref_a},1,3\n{rot_a},1,3\n"
                      f"*CLOAD\n{ref_b},3,1.\n*NODE PRINT,NSET=CCX2KRXIF\nU\n*EL FILE\nS\n*END STEP\n"
                      f"*STEP\n*STATIC\n*CLOAD,OP=NEW\n{rot_b},2,1.\n*END STEP\n")
    finish(free)
    finish(static)
    tables = dat_tables(os.path.join(component.keep, "static.dat"), "CCX2KRXIF")
    assert len(tables) == 2
    displacements = [np.concatenate([t[ref_b], t[rot_b]]) for t in tables]
    return points, os.path.join(component.keep, "free.dat"), displacements


def shapes_at(f, node):
    """The six components of every mode at node: an array of 6 x modes."""
    at = int(np.flatnonzero(f.mode_shape_node_ids == node)[0])
    return np.asarray(f.mode_shapes)[:, at, :].T


def test_interface_points_are_the_file_interface_nodes(component, reference):
    f, points = component.read(), reference[0]
    assert sorted(f.interface_nodes) == sorted(ref for ref, _ in points.values())
    assert f.mode_count == 12 + FIXED
    # Each reference node stands at the plain mean of its set's nodes.
    ids, xyz = ccx.deck_nodes(component.deck)
    for name, (ref, _) in points.items():
        mean = xyz[np.searchsorted(ids, deck_set(component.deck, name))].mean(axis=0)
        np.testing.assert_allclose(f.coords[f.node_positions([ref])[0]], mean, rtol=1e-12)


@pytest.mark.parametrize("path", [0, 2], ids=["own", "calculix"])
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


@pytest.mark.parametrize("path", [0, 2], ids=["own", "calculix"])
def test_static_response_of_one_hole_with_the_other_held_is_exact(exports, reference, path):
    f = exports[path].read()
    points, _, theirs = reference
    # A unit force along z, then a unit moment about y.
    for load, expected in zip((np.eye(6)[2], np.eye(6)[4]), theirs):
        ours = shapes_at(f, points["HOLE2"][0]) @ static_response(f, points, load)
        error = np.linalg.norm(ours - expected) / np.linalg.norm(expected)
        assert error < 1e-6, f"{ours} against CalculiX's {expected}: {error:.1e}"


@pytest.mark.parametrize("path", [0, 2], ids=["own", "calculix"])
def test_static_stresses_follow_from_the_modal_stresses(exports, reference, path):
    f = exports[path].read()
    q = static_response(f, reference[0], np.eye(6)[4])
    ids, modal = f.stress
    ours = np.tensordot(q, np.asarray(modal), axes=1)
    their_ids, theirs = ccx.frd_results(os.path.join(exports[0].keep, "static.frd"), "STRESS")[None]
    theirs = by_node(their_ids, theirs[:, [0, 1, 2, 3, 5, 4]], ids)
    # Both sides carry the .frd's five digits.
    assert np.max(np.abs(ours - theirs)) < 1e-4 * np.max(np.abs(theirs))


def test_modes_are_mass_orthonormal_and_carry_the_mass(exports, reference):
    component = exports[0]
    f = component.read()
    work = component.keep
    points = reference[0]
    rotation_of = {rot: ref for ref, rot in points.values()}
    with open(os.path.join(work, "matrices.dof")) as fh:
        rows = [line.strip().split(".") for line in fh if line.strip()]
    node = np.array([rotation_of.get(int(n), int(n)) for n, _ in rows])
    column = np.array([int(d) - 1 + (3 if int(n) in rotation_of else 0) for n, d in rows])
    at = f.node_positions(node)
    assert np.all(at >= 0)
    phi = np.asarray(f.mode_shapes)[:, at, column].T  # rows x modes
    data = np.loadtxt(os.path.join(work, "matrices.mas"), ndmin=2)
    r, c, v = data[:, 0].astype(int) - 1, data[:, 1].astype(int) - 1, data[:, 2]
    # A unit translation along x moves the hole walls with their reference nodes: x^T M x is
    # CalculiX's mass of the body.
    x = (column == 0).astype(float)[:, None]
    vectors = np.hstack([phi, x])
    m_vectors = np.zeros_like(vectors)
    np.add.at(m_vectors, r, v[:, None] * vectors[c])
    off = r != c
    np.add.at(m_vectors, c[off], v[off, None] * vectors[r[off]])
    np.testing.assert_allclose(phi.T @ m_vectors[:, :-1], np.eye(f.mode_count), atol=1e-10)
    total = float(x[:, 0] @ m_vectors[:, -1])
    assert exports[1].read().invariants[19][0] == pytest.approx(total, rel=1e-12)
    # The nodes of the hole walls have masses of their own, and the total stays CalculiX's.
    assert np.all(f.masses > 0)
    assert f.masses.sum() == pytest.approx(total, rel=1e-12)


@pytest.mark.parametrize("sets, message", [
    (["HOLE3"], "--interface HOLE3: the deck has no node set of that name"),
    (["LONE"], "--interface LONE: the set holds no node of the solid elements"),
    (["HOLE1", "BRACKET"], "--interface HOLE1 and --interface BRACKET share node"),
])
def test_bad_interface_sets_leave_no_file(ccx2krx, deck, tmp_path, sets, message):
    with open(deck(BRACKET)) as f:
        text = f.read()
    bad = tmp_path / "bracket.inp"
    bad.write_text(text + "*NODE\n999999,0.,0.,0.\n*NSET,NSET=LONE\n999999\n")
    out = tmp_path / "out.krx"
    args = [str(bad), "-o", str(out)]
    for name in sets:
        args += ["--interface", name]
    run = run_tool(ccx2krx, args)
    assert run.returncode == 1 and message in run.stderr, run.stderr
    assert not out.exists()
