"""ccx2krx --solver mpi on 1 and 2 ranks against the single-machine own solver of the same
model: eigenvalues, mode shapes (up to sign, subspaces where eigenvalues repeat), the static
shapes of interface points, and the files through krxcompare; a rank that fails, and a run
without mpirun. CCX2KRX_MPI tells whether the tool was built with the parallel solver."""

import os
import subprocess

import numpy as np
import pytest

import krx
from conftest import MODES, built_tool, run_tool

BUILT = os.environ.get("CCX2KRX_MPI") == "1"
MPIRUN = os.environ.get("MPIEXEC", "mpirun")
ROOT_OK = {"OMPI_ALLOW_RUN_AS_ROOT": "1", "OMPI_ALLOW_RUN_AS_ROOT_CONFIRM": "1"}
needs_mpi = pytest.mark.skipif(not BUILT, reason="ccx2krx was built without MPI")


def mpirun(*args):
    environment = dict(os.environ, OMP_NUM_THREADS="1", **ROOT_OK)
    return subprocess.run([MPIRUN, "--oversubscribe", *args], capture_output=True, text=True,
                          env=environment, timeout=300)


def assert_same_modes(own_values, own, theirs, their_values, grouped=True):
    """Eigenvalues to 1e-8 (the rigid-body ones, zero to rounding, against the largest), shapes
    (columns) to 1e-6 of their largest entry up to sign, or the same subspace where repeated."""
    np.testing.assert_allclose(their_values, own_values, rtol=1e-8,
                               atol=1e-8 * np.max(np.abs(own_values)))
    scale, groups = np.max(np.abs(own_values)), [[0]]
    for k in range(1, own.shape[1]):  # modes whose eigenvalues agree to 1e-6 of the largest
        if not grouped or abs(own_values[k] - own_values[k - 1]) > 1e-6 * scale:
            groups.append([])
        groups[-1].append(k)
    for group in groups:
        a, b = own[:, group], theirs[:, group]
        if len(group) == 1:
            sign = 1.0 if a[:, 0] @ b[:, 0] >= 0 else -1.0
            worst = np.max(np.abs(a - sign * b)) / np.max(np.abs(a))
            assert worst < 1e-6, f"mode {group[0] + 1}: {worst:.1e} of the largest entry"
        else:
            # Orthonormal bases of one subspace: the cosines of its principal angles are 1.
            qa, qb = np.linalg.qr(a)[0], np.linalg.qr(b)[0]
            np.testing.assert_allclose(np.linalg.svd(qa.T @ qb, compute_uv=False), 1.0,
                                       atol=1e-6, err_msg=f"modes {group}")


def vectors(work):
    """The own solver's modes in work as columns."""
    return np.fromfile(os.path.join(work, "own_modes.bin")).reshape(MODES, -1).T


def parallel_export(ccx2krx, model, where, ranks, extra=()):
    """The run's file and work directory; each rank must have parsed only its share of the
    matrix files (no rank reads them whole), every value once."""
    out, keep = str(where / f"mpi{ranks}.krx"), str(where / f"work{ranks}")
    run = mpirun("-n", str(ranks), ccx2krx, model, "-o", out, "--modes", str(MODES), "--keep",
                 keep, "--solver", "mpi", "--timing", *extra)
    assert run.returncode == 0, run.stderr
    line = [x for x in run.stderr.splitlines() if "matrix values parsed by each rank:" in x]
    assert len(line) == 1, run.stderr
    *each, _, total = line[0].split(":")[-1].split()
    each = [int(x) for x in each]
    assert len(each) == ranks and sum(each) == int(total), line[0]
    assert ranks == 1 or max(each) < 0.6 * int(total), line[0]
    return out, keep


@needs_mpi
@pytest.mark.parametrize("name, held, ends", [
    ("bar_c3d8", False, ()), ("wedge_c3d15", False, ()), ("bar_c3d8", True, ()),
    ("wedge_c3d15", True, ()), ("bar_c3d8", False, ("END1", "END2"))])
def test_ranks_give_the_single_machine_modes(ccx2krx, export, tmp_path, name, held, ends):
    """The modes and the file (krxcompare); with interface points, the static shapes too, and
    the stresses recovered on rank 0."""
    own = export(name, solver="own", stress=bool(ends), held=held, interfaces=ends)
    f = own.read()
    extra = ["--stress", *(a for point in ends for a in ("--interface", point))] if ends else []
    for ranks in (1, 2):
        out, keep = parallel_export(ccx2krx, own.deck, tmp_path, ranks, extra)
        # With interface points, the fixed-interface modes (no eigenvalue repeats on this bar),
        # and the eigenvalues of the file, which the library computes from the static shapes and
        # those modes.
        assert_same_modes(f.eigenvalues, vectors(own.keep), vectors(keep),
                          krx.read(out).eigenvalues, not ends)
        krxcompare = os.path.join(os.path.dirname(built_tool("KRXDUMP")), "krxcompare")
        compare = subprocess.run([krxcompare, "-v", "0", own.out, out], capture_output=True,
                                 text=True)
        report = compare.stdout
        if not ends:
            assert compare.returncode == 0, f"{ranks} ranks:\n{report}"
            continue
        shapes, theirs = (np.fromfile(os.path.join(work, "static_shapes.bin"))
                          for work in (own.keep, keep))
        assert theirs.shape == shapes.shape
        assert np.max(np.abs(theirs - shapes)) < 1e-8 * np.max(np.abs(shapes))
        # The interface rotations of fixed-interface modes and the stresses of rigid-body modes
        # are zero to rounding, which a relative comparison cannot pass: krxcompare may fail
        # those and nothing else.
        stress = np.abs(np.asarray(f.stress[1]))
        for line in report.splitlines():
            if line.startswith("->Fail Stress Mode: #"):
                mode = int(line.split("#")[1]) - 1
                assert stress[mode].max() < 1e-9 * stress.max(), report
            elif line.startswith("->Fail"):
                assert "EigenVector rotational" in line or "ModeShape, " in line, report


@needs_mpi
def test_a_failing_rank_ends_the_run_with_one_message(ccx2krx, deck, tmp_path):
    # The second rank starts in another directory, so the relative work directory rank 0 made
    # is not there for it: the working directory is not shared.
    (tmp_path / "a").mkdir()
    (tmp_path / "b").mkdir()
    out = str(tmp_path / "out.krx")
    args = [os.path.abspath(ccx2krx), deck("bar_c3d8"), "-o", out, "--modes", "8", "--keep",
            "work", "--solver", "mpi", "--quiet"]
    run = mpirun("-n", "1", "--wdir", str(tmp_path / "a"), *args,
                 ":", "-n", "1", "--wdir", str(tmp_path / "b"), *args)
    ours = [line for line in run.stderr.splitlines()
            if line.startswith("ccx2krx:") and "note:" not in line]
    assert run.returncode != 0
    assert ours == ["ccx2krx: rank 1: cannot open work/matrices.mas: No such file or directory"], \
        run.stderr
    assert not os.path.exists(out)


@needs_mpi
def test_without_mpirun_the_run_is_one_rank(ccx2krx, export, deck, tmp_path):
    out = str(tmp_path / "one.krx")
    run = run_tool(ccx2krx, [deck("bar_c3d8"), "-o", out, "--modes", str(MODES), "--solver",
                             "mpi"], env=ROOT_OK)
    assert "note: --solver mpi on one process; start it with mpirun -n N to use N" in run.stderr
    own = export("bar_c3d8", solver="own", stress=False).read()
    np.testing.assert_allclose(krx.read(out).eigenvalues[6:], own.eigenvalues[6:], rtol=1e-8)


@pytest.mark.skipif(BUILT, reason="ccx2krx was built with MPI")
def test_without_mpi_built_the_option_is_refused(ccx2krx, deck, tmp_path):
    run = run_tool(ccx2krx, [deck("bar_c3d8"), "-o", str(tmp_path / "x.krx"), "--solver", "mpi"])
    assert run.returncode == 2
    assert run.stderr == ("ccx2krx: --solver mpi: this ccx2krx was built without MPI (its build "
                          "needs PETSc, SLEPc and MPI)\n")
