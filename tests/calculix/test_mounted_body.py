"""The consumer's side: the bracket exported with both bolt holes as interface points, mounted by
examples/mounted_body (the C read API alone) at HOLE1, with and without a point mass at HOLE2,
against CalculiX's frequencies of the full mesh held at HOLE1's reference and rotation nodes;
and the C read API against the Python reader, block by block, on the same files.

MOUNTED_BODY names the example program, KRXLIB the shared library (CTest passes the build's)."""

import ctypes
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
    """The bracket with both holes as interface points: with stresses, and with the invariants."""
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
        return list(pool.map(export, ["", "full_invar"]))


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


def test_point_mass_lowers_the_frequencies(frequencies):
    held, loaded = frequencies[0]
    assert np.all(loaded <= held * (1 + 1e-9)) and loaded[1] < 0.9 * held[1]


# ---- the C read API against the Python reader ----

class Api:
    """The read entries of libkrxlib.so through ctypes."""

    def __init__(self):
        path = os.environ.get("KRXLIB")
        if not path or not os.path.exists(path):
            pytest.fail(f"KRXLIB must name the built shared library (got {path!r})")
        self.lib = ctypes.CDLL(path)
        self.lib.krx_error_message.restype = ctypes.c_char_p

    def open(self, path):
        handle = ctypes.c_void_p()
        code = self.lib.krx_open(path.encode(), ctypes.byref(handle))
        assert code == 0, self.lib.krx_error_message(handle)
        return handle

    def call(self, handle, name, *args):
        code = getattr(self.lib, name)(handle, *args)
        assert code == 0, (name, self.lib.krx_error_message(handle))

    def count(self, handle, which):
        n = ctypes.c_int64()
        self.call(handle, "krx_count", which, ctypes.byref(n))
        return n.value

    def array(self, handle, name, dtype, shape, *lead):
        out = np.zeros(shape, dtype=dtype)
        self.call(handle, name, *lead, out.ctypes.data_as(ctypes.c_void_p))
        return out


def compare_block_by_block(api, path):
    import krx
    ours, theirs = api.open(path), krx.read(path)
    have = [b for b in range(4, 33) if api.lib.krx_has_block(ours, b)]
    assert have == theirs.blocks[3:]
    n = api.count(ours, 1)
    buffer = ctypes.create_string_buffer(128)
    for field, name in enumerate(["title", "date", "input_name", "input_type"]):
        api.call(ours, "krx_read_header", field, buffer, 128)
        assert buffer.value.decode() == theirs.header[name]
    if 4 in have:
        np.testing.assert_array_equal(api.array(ours, "krx_read_node_ids", np.int32, n),
                                      theirs.node_ids)
        np.testing.assert_array_equal(api.array(ours, "krx_read_coordinates", float, (n, 3)),
                                      theirs.coords)
    if 6 in have:
        body = api.array(ours, "krx_read_body_properties", float, 13)
        props = theirs.global_body_props
        np.testing.assert_array_equal(body, np.r_[props["mass"], props["centre"],
                                                  props["inertia"].ravel()])
    m = api.count(ours, 2)
    if 7 in have:
        numbers = np.zeros(m, np.int32)
        records = np.zeros((m, 5))
        api.call(ours, "krx_read_eigenvalues", numbers.ctypes.data_as(ctypes.c_void_p),
                 records.ctypes.data_as(ctypes.c_void_p))
        np.testing.assert_array_equal(numbers, theirs.mode_numbers)
        np.testing.assert_array_equal(records, np.c_[theirs.eigenvalues, theirs.hertz,
                                                     theirs.radians, theirs.gen_mass,
                                                     theirs.gen_stiff])
    for block, kind, count, python in ((8, 0, 3, lambda: (theirs.mode_shape_node_ids,
                                                          theirs.mode_shapes)),
                                       (18, 1, 4, lambda: theirs.stress),
                                       (29, 2, 5, lambda: theirs.strain)):
        if block not in have:
            continue
        ids, values = python()
        nodes = api.count(ours, count)
        np.testing.assert_array_equal(
            api.array(ours, "krx_read_mode_node_ids", np.int32, nodes, kind), ids)
        for mode in range(len(values)):
            one = np.zeros((nodes, 6))
            api.call(ours, "krx_read_mode", kind, ctypes.c_int64(mode), None,
                     one.ctypes.data_as(ctypes.c_void_p))
            np.testing.assert_array_equal(one, values[mode])
    if 9 in have:
        np.testing.assert_array_equal(api.array(ours, "krx_read_nodal_masses", float, n),
                                      theirs.masses)
    if 10 in have:
        np.testing.assert_array_equal(api.array(ours, "krx_read_nodal_inertias", float, (n, 3, 3)),
                                      theirs.inertias)
    if 11 in have:
        units = (ctypes.c_char * 64)()
        api.call(ours, "krx_read_units", units)
        assert [units[16 * u:16 * u + 16].split(b"\0")[0].decode() for u in range(4)] == \
               [u.rstrip("\0 ") for u in theirs.units]
    order = api.count(ours, 11)
    for block, python in ((12, "generalized_stiffness"), (13, "generalized_mass"),
                          (15, "generalized_damping")):
        if block in have:
            np.testing.assert_array_equal(
                api.array(ours, "krx_read_generalized_matrix", float, (order, order), block),
                getattr(theirs, python))
    if 16 in have:
        k = api.count(ours, 12)
        numbers, matrix = np.zeros(k, np.int32), np.zeros((k, k))
        api.call(ours, "krx_read_transformation", numbers.ctypes.data_as(ctypes.c_void_p),
                 matrix.ctypes.data_as(ctypes.c_void_p))
        np.testing.assert_array_equal(numbers, theirs.transformation[0])
        np.testing.assert_array_equal(matrix, theirs.transformation[1])
    if 17 in have:
        np.testing.assert_array_equal(
            api.array(ours, "krx_read_interface_nodes", np.int32, api.count(ours, 8)),
            theirs.interface_nodes)
    if 5 in have or 14 in have:
        words = api.array(ours, "krx_read_faces", np.int32, api.count(ours, 7))
        faces, at = [], 0
        while at < len(words):
            faces.append(theirs.node_ids[words[at + 1:at + 1 + words[at]]])
            at += 1 + words[at]
        assert len(faces) == len(theirs.faces) == api.count(ours, 6)
        for a, b in zip(faces, theirs.faces):
            np.testing.assert_array_equal(a, b)
    for block, invariant in zip(range(19, 27), (1, 2, 3, 4, 5, 7, 8, 9)):
        if block in have:
            values = theirs.invariants[block]
            np.testing.assert_array_equal(
                api.array(ours, "krx_read_invariant", float, len(values), invariant), values)
    api.lib.krx_close(ours)
    return have


def test_c_api_reads_what_the_python_reader_reads(exports):
    api = Api()
    seen = set()
    files = [e.out for e in exports] + sorted(glob.glob(os.path.join(ROOT, "tests/data/*.krx")))
    for path in files:
        seen.update(compare_block_by_block(api, path))
    # Every block the API serves was compared on some file.
    assert set(range(4, 27)) | {29} <= seen, sorted(seen)
