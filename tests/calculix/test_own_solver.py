"""ccx2krx's own solver against CalculiX's solution of the same model, per element type (free,
and held at one face for two of them): its eigenvalues against the Rayleigh quotients of
CalculiX's own eigenvectors with CalculiX's matrices, its mode shapes against those eigenvectors,
the rigid-body subspace, the stresses it recovers against CalculiX's nodal stresses; and the
choice between the paths."""

import os

import numpy as np
import pytest

import calculix_output as ccx
from conftest import MODELS, MODES, calculix, run_tool
from test_against_calculix import assert_same_up_to_sign, by_node, separated

CASES = [(name, False) for name in MODELS] + [("bar_c3d8", True), ("bracket_c3d10", True)]


@pytest.mark.parametrize("name, held", CASES)
def test_modes_and_stresses_are_calculix_own(export, name, held):
    e = export(name, solver="own", stress=not held, held=held)
    f = e.read()
    # CalculiX's own solution of the same model part: double-precision eigenvectors (.eig) and
    # nodal stresses (.frd).
    calculix(e.keep, modes=f"*STEP\n*FREQUENCY,STORAGE=YES\n{MODES}\n*NODE FILE\nU\n*EL FILE\nS\n"
                          "*END STEP\n")
    assert "from CalculiX's matrices" in f.header["comments"][0]
    rows, product = ccx.stored_matrices(os.path.join(e.keep, "matrices"))
    theirs = ccx.eig_vectors(os.path.join(e.keep, "modes.eig"), len(rows))
    rayleigh = np.sum(theirs * product("sti", theirs), axis=0) / np.sum(
        theirs * product("mas", theirs), axis=0)
    rigid = 0 if held else 6
    np.testing.assert_allclose(f.eigenvalues[rigid:], rayleigh[rigid:], rtol=1e-6)
    at = f.node_positions(rows[:, 0])
    assert np.all(at >= 0)
    ours = np.asarray(f.mode_shapes)[:, at, rows[:, 1]].T  # at the matrices' rows: rows x modes
    np.testing.assert_allclose(ours.T @ product("mas", ours), np.eye(len(f.eigenvalues)),
                               atol=1e-9)
    if not held:
        assert np.all(np.abs(f.eigenvalues[:6]) < 1e-6 * rayleigh[6])
        # The sixfold eigenvalue zero: CalculiX's rigid-body modes span the same space as ours.
        overlap = ours[:, :6].T @ product("mas", theirs[:, :6])
        np.testing.assert_allclose(np.linalg.svd(overlap, compute_uv=False), 1.0, atol=1e-6)
        stress = ccx.frd_results(os.path.join(e.keep, "modes.frd"), "STRESS")
    picked = separated(rayleigh, rigid)
    assert len(picked) >= 3
    for k in picked:
        assert_same_up_to_sign(ours[:, k], theirs[:, k], f"{name} mode {k + 1}")
        if not held:
            # Eigenvectors that differ by 1e-5 to 1e-4 of their largest entry differ by more in
            # their derivatives.
            ids, values = stress[k + 1]
            ours_k = by_node(f.stress[0], np.asarray(f.stress[1][k]), ids)
            assert_same_up_to_sign(ours_k, values, f"{name} stress {k + 1}", 1e-3)


def test_both_paths_write_the_same_blocks(export):
    own = export("bar_c3d8", solver="own").read()
    calculix = export("bar_c3d8").read()
    assert sorted(own.blocks) == sorted(calculix.blocks)
    np.testing.assert_allclose(own.masses, calculix.masses, rtol=1e-12)


EQUATION = "*EQUATION\n2\n1,1,1.,2,1,-1.\n"
ORTHOTROPIC = "*MATERIAL,NAME=WOOD\n*ELASTIC,TYPE=ENGINEERING CONSTANTS\n" + \
    "1e4,1e3,1e3,0.3,0.3,0.3,500,500,\n500,0\n"


@pytest.mark.parametrize("case, extra, args, status, message", [
    ("a dependent degree of freedom goes to CalculiX", EQUATION, [], 0,
     "note: CalculiX solves the model: the deck's *EQUATION makes degrees of freedom depend"),
    ("... and --solver own refuses it", EQUATION, ["--solver", "own"], 1,
     "--solver own: the deck's *EQUATION makes degrees of freedom depend"),
    ("--stress of another material goes to CalculiX", ORTHOTROPIC, ["--stress"], 0,
     "note: CalculiX solves the model: --stress: material WOOD has *ELASTIC, TYPE=ENGINEERINGC"),
    ("... and --solver own refuses it", ORTHOTROPIC, ["--stress", "--solver", "own"], 1,
     "--solver own: --stress: material WOOD has *ELASTIC, TYPE=ENGINEERINGCONSTANTS"),
    ("more modes than the model has", "", ["--modes", "5000"], 1,
     "5000 modes asked, but the model has"),
])
def test_solver_choice(ccx2krx, deck, tmp_path, case, extra, args, status, message):
    model = tmp_path / "bar.inp"
    with open(deck("bar_c3d8")) as f:
        model.write_text(f.read() + extra)
    out = tmp_path / "out.krx"
    run = run_tool(ccx2krx, [str(model), "-o", str(out), "--modes", "8", *args])
    assert run.returncode == status and message in run.stderr, f"{case}:\n{run.stderr}"
    assert out.exists() == (status == 0), case


def test_progress_lines_per_stage_and_none_when_quiet(ccx2krx, deck, tmp_path):
    out = str(tmp_path / "out.krx")
    stages = [line for line in run_tool(ccx2krx, [deck("bar_c3d8"), "-o", out]).stderr.splitlines()
              if " s: " in line]
    assert [line.split(" s: ")[1] for line in stages] == [
        "CalculiX assembles the matrices", "reading the matrices", "factoring K - sigma M",
        "Lanczos", "checking the modes (residuals, LDL' count)",
        "handing the modes to the library", "writing the file"]
    quiet = run_tool(ccx2krx, [deck("bar_c3d8"), "-o", out, "--quiet"])
    assert quiet.returncode == 0 and " s: " not in quiet.stderr
