"""The consumer's side: the bracket exported with both bolt holes as interface points, mounted by
examples/mounted_body (the C read API alone) at HOLE1, with and without a point mass at HOLE2,
against CalculiX's frequencies of the full mesh held at HOLE1's reference and rotation nodes;
and the C read API against the Python reader, block by block, on the same files.

MOUNTED_BODY names the example program, READ_API_DUMP tests/hosts/read_api_dump (CTest passes
the build's)."""

import glob
import os
import subprocess
from concurrent.futures import ThreadPoolExecutor

import numpy as np
import pytest

import calculix_output as ccx
from conftest import ROOT, Export, run_tool
from test_component_modes import BRACKET, FIXED, calculix, finish, interface_points

SHOWN = 6  # frequencies compared


@pytest.fixture(scope="module")
def exports(ccx2krx, deck, tmp_path_factory):
    """The bracket with both holes as interface points: with stresses, with the invariants, and
    with the full generalized matrices of CalculiX's modes instead of orthonormal modes."""
    where = tmp_path_factory.mktemp("mounted")

    def export(options):
        label = options or "plain"
        out, keep = str(where / f"{label}.krx"), str(where / f"work_{label}")
        stress = [] if options else ["--stress"]
        run = run_tool(ccx2krx, [deck(BRACKET), "-o", out, "--interface", "HOLE1", "--interface",
                                 "HOLE2", "--modes", str(FIXED), "--keep", keep, *stress], options)
        assert run.returncode == 0, run.stderr
        return Export(deck(BRACKET), out, keep, run)

    with ThreadPoolExecutor(2) as pool:
        return list(pool.map(export, ["", "full_invar", "no_ortho"]))


def mounted(path, fixed, mass=None):
    program = os.environ.get("MOUNTED_BODY")
    if not program or not os.access(program, os.X_OK):
        pytest.fail(f"MOUNTED_BODY must name the built example (got {program!r})")
    args = [program, path, "--fix", str(fixed), "--count", str(SHOWN)]
    if mass:
        args += ["--mass", str(mass[0]), repr(mass[1])]
    run = subprocess.run(args, capture_output=True, text=True, timeout=60)
    assert run.returncode == 0, run.stderr
    return np.array([float(line.split()[1]) for line in run.stdout.splitlines()[2:]])


@pytest.fixture(scope="module")
def frequencies(exports):
    """(ours, CalculiX's) frequencies in Hz: held at HOLE1, and held with a point mass of half
    the bracket's mass at HOLE2's reference node."""
    component = exports[1]
    points = interface_points(os.path.join(component.keep, "model.inp"))
    (ref_a, rot_a), (ref_b, _) = points["HOLE1"], points["HOLE2"]
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
    for label, a, b in zip(("mounted", "mounted with mass"), ours, theirs):
        print(f"\n{label}\n mode  mounted_body (Hz)  CalculiX (Hz)  difference")
        for k, (x, y) in enumerate(zip(a, b), 1):
            print(f"{k:5d}  {x:17.3f}  {y:13.3f}  {100 * (x / y - 1):+9.4f}%")
    return ours, theirs


@pytest.mark.parametrize("case", [0, 1], ids=["held", "held_with_mass"])
def test_mounted_frequencies_match_calculix(frequencies, case):
    ours, theirs = frequencies[0][case], frequencies[1][case]
    assert len(ours) == SHOWN and len(theirs) == SHOWN
    np.testing.assert_allclose(ours, theirs, rtol=5e-3)


def test_full_generalized_matrices_mount_to_the_same_body(exports, frequencies):
    # The file of CalculiX's own modes holds the full modal mass and stiffness (no eigenvalues).
    component = exports[2]
    points = interface_points(os.path.join(component.keep, "model.inp"))
    ours = mounted(component.out, points["HOLE1"][0])
    np.testing.assert_allclose(ours, frequencies[0][0], rtol=1e-7)


def test_point_mass_lowers_the_frequencies(frequencies):
    held, loaded = frequencies[0]
    assert np.all(loaded <= held * (1 + 1e-9)) and loaded[1] < 0.9 * held[1]


# ---- the C read API against the Python reader ----

def c_api_arrays(path, where):
    """Every array of path as tests/hosts/read_api_dump reads it through the C API: {name: array},
    with the texts as lists of lines."""
    program = os.environ.get("READ_API_DUMP")
    if not program or not os.access(program, os.X_OK):
        pytest.fail(f"READ_API_DUMP must name the built program (got {program!r})")
    os.makedirs(where)
    run = subprocess.run([program, path, where], capture_output=True, text=True, timeout=60)
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
    import krx
    ours, theirs = c_api_arrays(path, where), krx.read(path)
    have = [int(b) for b in ours["blocks"]]
    assert have == theirs.blocks[3:]
    assert ours["header"] == [theirs.header[k] for k in ("title", "date", "input_name",
                                                          "input_type")]
    expected = {}
    if 4 in have:
        expected.update(node_ids=theirs.node_ids, coords=theirs.coords)
    if 6 in have:
        props = theirs.global_body_props
        expected["body"] = np.r_[props["mass"], props["centre"], props["inertia"].ravel()]
    if 7 in have:
        expected.update(eigen_numbers=theirs.mode_numbers,
                        eigen_records=np.c_[theirs.eigenvalues, theirs.hertz, theirs.radians,
                                            theirs.gen_mass, theirs.gen_stiff])
    for block, kind, python in ((8, 0, lambda: (theirs.mode_shape_node_ids, theirs.mode_shapes)),
                                (18, 1, lambda: theirs.stress), (29, 2, lambda: theirs.strain)):
        if block in have:
            ids, values = python()
            expected[f"mode_ids_{kind}"] = ids
            expected[f"mode_numbers_{kind}"] = theirs._mode_record_numbers
            expected[f"modes_{kind}"] = np.asarray(values)
    if 9 in have:
        expected["masses"] = theirs.masses
    if 10 in have:
        expected["inertias"] = theirs.inertias
    for block, name in ((12, "generalized_stiffness"), (13, "generalized_mass"),
                        (15, "generalized_damping")):
        if block in have:
            expected[f"matrix_{block}"] = getattr(theirs, name)
    if 16 in have:
        expected.update(transformation_numbers=theirs.transformation[0],
                        transformation=theirs.transformation[1])
    if 17 in have:
        expected["interface"] = theirs.interface_nodes
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
