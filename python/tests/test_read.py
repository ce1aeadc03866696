import os

import numpy as np
import pytest

import krx
import krxbuild as kb
import libhost as host

CODES = [code for _, code in host.OPTION_CODES]


def by_id(ids, values, wanted):
    order = {int(n): i for i, n in enumerate(ids)}
    return np.asarray(values)[[order[int(n)] for n in wanted]]


def same_up_to_sign(a, b, rtol):
    sign = 1.0 if np.sum(a * b) >= 0 else -1.0
    np.testing.assert_allclose(a, sign * b, rtol=rtol, atol=rtol * np.abs(b).max())


@pytest.mark.parametrize("code", CODES)
def test_library_file_holds_what_the_host_set(library_files, code):
    f = krx.read(library_files[code])
    rtol = 1e-6 if f.single else 1e-12
    assert f.version_code == code and f.generation == code & 0xFF
    assert f.xdr == (code in (41, 51) or bool(code & 0x100))
    assert f.single == (code in (50, 51) or bool(code & 0x200))
    assert f.header["title"] == host.HEADER[0] and f.header["input_name"] == host.HEADER[1]
    assert f.header["input_type"] == host.HEADER[2] and f.header["comments"] == list(host.HEADER[3:])
    assert f.units == host.UNITS
    assert sorted(f.node_ids) == sorted(host.NODE_IDS)
    np.testing.assert_allclose(by_id(f.node_ids, f.coords, host.NODE_IDS), host.COORDS, rtol=rtol)
    np.testing.assert_allclose(by_id(f.node_ids, f.masses, host.NODE_IDS), host.MASSES, rtol=rtol)
    expected = np.array([host.inertia_matrix(t) for t in host.INERTIA_TERMS])
    np.testing.assert_allclose(by_id(f.node_ids, f.inertias, host.NODE_IDS), expected, rtol=rtol)
    assert list(f.mode_numbers) == [1, 2, 3]
    np.testing.assert_allclose(f.hertz, host.HERTZ, rtol=max(rtol, 1e-9))
    np.testing.assert_allclose(f.eigenvalues, host.STIFF, rtol=max(rtol, 1e-9))
    np.testing.assert_allclose(f.radians, 6.28318530718 * host.HERTZ, rtol=max(rtol, 1e-9))
    np.testing.assert_allclose(f.gen_mass, 1.0, rtol=max(rtol, 1e-9))
    for m in range(host.MODES):
        shape = by_id(f.mode_shape_node_ids, f.mode_shapes[m], host.NODE_IDS)
        same_up_to_sign(shape, host.SHAPES[m], max(rtol, 1e-9))
    ids, stress = f.stress
    # A dense stress lists every node, with zeros where the host gave none.
    assert len(ids) == (2 if code & 0xFF == 60 else 6)
    for m in range(host.MODES):
        same_up_to_sign(by_id(ids, stress[m], host.STRESS_NODES), host.STRESS[m], max(rtol, 1e-9))
    assert sorted(map(tuple, f.faces)) == sorted(map(tuple, host.FACES))
    assert list(f.interface_nodes) == host.INTERFACE
    assert (5 in f.blocks) == (code in (10, 20)) and (14 in f.blocks) == (code not in (10, 20))


def test_unorthogonalised_file_holds_the_generalized_matrices(library_files):
    f = krx.read(library_files["no_ortho"])
    assert 7 not in f.blocks and {12, 13} <= set(f.blocks)
    np.testing.assert_allclose(f.generalized_mass, np.eye(3))
    np.testing.assert_allclose(f.generalized_stiffness, np.diag(host.STIFF))
    assert list(f.mode_numbers) == [1, 2, 3]
    np.testing.assert_array_equal(by_id(f.mode_shape_node_ids, f.mode_shapes[2], host.NODE_IDS),
                                  host.SHAPES[2])


def test_invariants_come_as_stored(library_files):
    f = krx.read(library_files["full_invar"])
    assert sorted(f.invariants) == list(range(19, 27))
    np.testing.assert_allclose(f.invariants[19], [host.MASSES.sum()])
    sizes = {20: 3, 21: 9, 22: 9, 23: 27, 24: 9, 25: 27, 26: 81}
    assert {b: len(v) for b, v in f.invariants.items() if b != 19} == sizes
    assert f.statistics[0].shape == (3, 13) and f.statistics[1].shape == (3, 13)


def dump_rows(text, after):
    """Split rows of a listing after the banner's end and the last line starting with `after`."""
    lines = text.splitlines()
    banner = max(i for i, line in enumerate(lines) if line.startswith("-----"))
    start = max(i for i, line in enumerate(lines) if i >= banner and line.startswith(after)) + 1
    return [line.split() for line in lines[start:] if line.strip()]


def check_against_dump(f, path, krxdump):
    rows = dump_rows(krxdump(path, 4), "-----")
    listed = {int(r[0]): [float(v) for v in r[1:4]] for r in rows}
    assert sorted(listed) == sorted(f.node_ids.tolist())
    np.testing.assert_allclose(by_id(f.node_ids, f.coords, list(listed)),
                               list(listed.values()), rtol=1e-9, atol=1e-300)
    rows = dump_rows(krxdump(path, 7), "=====")
    np.testing.assert_array_equal([int(r[0]) for r in rows], f.mode_numbers)
    values = np.column_stack([f.eigenvalues, f.hertz, f.radians, f.gen_mass, f.gen_stiff])
    np.testing.assert_allclose([[float(v) for v in r[1:]] for r in rows], values, rtol=1e-9,
                               atol=1e-300)
    rows = dump_rows(krxdump(path, 14), "number of faces")
    assert [list(map(int, r[1:])) for r in rows] == [list(face) for face in f.faces]


@pytest.mark.parametrize("code", CODES)
def test_listing_agrees_on_nodes_eigenvalues_and_faces(library_files, krxdump, code):
    check_against_dump(krx.read(library_files[code]), library_files[code], krxdump)


def test_listing_agrees_on_the_example_host_file(example_file, krxdump):
    check_against_dump(krx.read(example_file), example_file, krxdump)


def test_example_host_eigenvalues_are_the_closed_form_ones(example_file):
    f = krx.read(example_file)
    j = np.arange(1, 15)
    axial = 4.0 * 1000.0 / 0.001 * np.sin(j * np.pi / 600.0) ** 2
    np.testing.assert_allclose(f.eigenvalues[6:], axial, rtol=1e-8)
    assert np.all(np.abs(f.eigenvalues[:6]) < 1e-6)
    assert f.mode_shapes.shape == (20, 300, 6) and isinstance(f.mode_shapes, krx.ModeArray)


# Hand-built files: every generation and both flag bits, the bytes laid out here from the table.
HAND_CODES = [10, 20, 30, 31, 40, 41, 50, 51, 60, 316, 572, 828, 30 | 0x200, 40 | 0x200, 41 | 0x300]
IDS = [7, 3, 9, 5]
XYZ = [[0.5, -1.0, 2.0], [1.5, 0.0, -2.25], [3.0, 4.0, 5.0], [-6.0, 7.5, 8.0]]
EIGEN = [[4.0, 0.3183, 2.0, 1.0, 4.0], [16.0, 0.6366, 4.0, 1.0, 16.0]]
SHAPE = np.arange(2 * 4 * 6, dtype=float).reshape(2, 4, 6) / 8.0
FACE_POSITIONS = [[0, 1, 2], [1, 2, 3, 0], [3, 2]]


def hand_built(code):
    enc = kb.Enc(code)
    numbered = code & 0xFF != 10
    blocks = {4: kb.coords_block(enc, IDS, XYZ), 7: kb.eigen_block(enc, [1, 2], EIGEN),
              8: kb.per_mode_block(enc, [1, 2], IDS, SHAPE, numbered),
              11: b"".join(enc.text(u, 16) for u in ("KILOGRAM", "METER", "SECOND", "NEWTON")),
              12: kb.sparse_block(enc, 2, [(1, 1, 4.0), (2, 2, 16.0), (1, 2, 0.5)]),
              17: enc.i(2, 9, 7)}
    if code & 0xFF in (10, 20, 30, 31):
        blocks[5] = kb.topology_block(enc, [[IDS[p] for p in f] for f in FACE_POSITIONS])
        blocks[30] = b""  # old generations have no block 30: its flag means nothing
    else:
        blocks[14] = kb.faces_block(enc, FACE_POSITIONS)
        blocks[21] = enc.i(2) + enc.r(np.arange(6.0))
        blocks[28] = enc.i(2, 1) + enc.text("gravity", 256) + enc.i(1) + enc.r([2.5, -1.0])
    return kb.krx_file(enc, blocks, title="bridge  ", comments=("é", "", "x")), blocks


@pytest.mark.parametrize("code", HAND_CODES)
def test_hand_built_file_of_every_version_code(tmp_path, code):
    data, blocks = hand_built(code)
    path = tmp_path / "hand.krx"
    path.write_bytes(data)
    f = krx.read(path)
    assert f.version_code == code and f.blocks == [1, 2, 3] + sorted(b for b in blocks if blocks[b])
    assert f.header["title"] == "bridge" and f.header["comments"] == ["é", "", "x"]
    assert f.node_ids.dtype == np.int32 and list(f.node_ids) == IDS
    np.testing.assert_allclose(f.coords, XYZ)
    np.testing.assert_allclose(np.column_stack([f.eigenvalues, f.hertz, f.radians, f.gen_mass,
                                                f.gen_stiff]), EIGEN, rtol=1e-7)
    np.testing.assert_array_equal(np.asarray(f.mode_shapes), SHAPE)
    np.testing.assert_array_equal(f.mode_shapes[1], SHAPE[1])
    assert f.mode_shapes[1].dtype == np.float64 and f.mode_shapes.shape == (2, 4, 6)
    assert f.units == ["KILOGRAM", "METER", "SECOND", "NEWTON"]
    np.testing.assert_array_equal(f.generalized_stiffness, [[4.0, 0.5], [0.0, 16.0]])
    assert [list(face) for face in sorted(map(tuple, f.faces))] == sorted(
        [IDS[p] for p in face] for face in FACE_POSITIONS)
    if 14 in blocks:
        assert [list(face) for face in f.faces] == [[IDS[p] for p in face] for face in FACE_POSITIONS]
        np.testing.assert_array_equal(f.invariants[21], np.arange(6.0))
        name, projected, loads = f.modal_loads[0]
        assert (name, projected, list(loads)) == ("gravity", True, [2.5, -1.0])


def test_native_double_mode_shapes_are_a_memory_map(tmp_path):
    path = tmp_path / "native.krx"
    path.write_bytes(hand_built(60)[0])
    f = krx.read(path)
    assert isinstance(f.mode_shapes, np.ndarray) and not f.mode_shapes.flags.owndata
    path.write_bytes(hand_built(316)[0])
    g = krx.read(path)
    assert isinstance(g.mode_shapes, krx.ModeArray) and g.mode_shapes._stored.dtype == ">f8"


DATA = os.path.join(os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__)))),
                    "tests", "data")


def golden_numbers(name):
    text = open(os.path.join(DATA, name)).read().split("-----\n")[-1]
    return [[float(v) for v in line.split()] for line in text.splitlines()
            if line.strip() and line.split()[0][0].isdigit()]


def test_bracket_files_every_block_agrees_with_their_listings():
    xdr = krx.read(os.path.join(DATA, "bracket_xdr.krx"))
    assert xdr.blocks == [1, 2, 3] + [b for b in range(4, 33) if b != 5]
    np.testing.assert_allclose([r[1] for r in golden_numbers("krxdump_xdr_b27.txt")], xdr.preload)
    assert [(n, p) for n, p, _ in xdr.modal_loads] == [("gravity", True)]
    np.testing.assert_allclose([r[1] for r in golden_numbers("krxdump_xdr_b28.txt")],
                               xdr.modal_loads[0][2])
    rows = golden_numbers("krxdump_xdr_b31.txt")
    np.testing.assert_allclose([r[1:] for r in rows], by_id(xdr.stress[0], xdr.pre_stress,
                                                            [int(r[0]) for r in rows]))
    # The same model in single precision and in the 8.2 generation holds the same values.
    for other in ("bracket_single.krx", "bracket_82.krx"):
        g = krx.read(os.path.join(DATA, other))
        for name in ("coords", "hertz", "masses", "inertias", "generalized_mass",
                     "generalized_damping", "interface_nodes", "mode_shapes"):
            np.testing.assert_allclose(np.asarray(getattr(g, name)),
                                       np.asarray(getattr(xdr, name)), rtol=1e-6, err_msg=name)
        assert sorted(map(tuple, g.faces)) == sorted(map(tuple, xdr.faces))
