import os

import numpy as np
import pytest

import krx
import krxbuild as kb
import libhost as host

CODES = [code for _, code in host.OPTION_CODES]
DATA = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tests", "data")


def by_id(ids, values, wanted):
    order = {int(n): i for i, n in enumerate(ids)}
    return np.asarray(values)[[order[int(n)] for n in wanted]]


def same_up_to_sign(a, b, rtol):
    sign = 1.0 if np.sum(a * b) >= 0 else -1.0
    np.testing.assert_allclose(a, sign * b, rtol=rtol, atol=rtol * np.abs(b).max())


@pytest.mark.parametrize("code", CODES)
def test_library_file_holds_what_the_host_set(library_files, code):
    f, enc = krx.read(library_files[code]), kb.Enc(code)
    rtol = 1e-6 if enc.single else 1e-12
    assert (f.version_code, f.generation, f.xdr, f.single) == (code, code & 0xFF, enc.xdr, enc.single)
    assert [f.header[k] for k in ("title", "input_name", "input_type", "comments")] == [
        *host.HEADER[:3], list(host.HEADER[3:])]
    assert f.units == host.UNITS and sorted(f.node_ids) == sorted(host.NODE_IDS)
    for name, expected in [("coords", host.COORDS), ("masses", host.MASSES),
                           ("inertias", host.INERTIA_TERMS[:, [[0, 3, 4], [3, 1, 5], [4, 5, 2]]])]:
        np.testing.assert_allclose(by_id(f.node_ids, getattr(f, name), host.NODE_IDS), expected,
                                   rtol=rtol, err_msg=name)
    rtol = max(rtol, 1e-9)
    assert list(f.mode_numbers) == [1, 2, 3]
    np.testing.assert_allclose([f.hertz, f.eigenvalues, f.radians, f.gen_mass],
                               [host.HERTZ, host.STIFF, 6.28318530718 * host.HERTZ, np.ones(3)], rtol=rtol)
    ids, stress = f.stress
    assert len(ids) == (2 if code & 0xFF == 60 else 6)  # a dense stress lists every node
    for m in range(host.MODES):
        same_up_to_sign(by_id(f.mode_shape_node_ids, f.mode_shapes[m], host.NODE_IDS), host.SHAPES[m], rtol)
        same_up_to_sign(by_id(ids, stress[m], host.STRESS_NODES), host.STRESS[m], rtol)
    assert sorted(map(tuple, f.faces)) == sorted(map(tuple, host.FACES))
    assert list(f.interface_nodes) == host.INTERFACE
    assert (5 in f.blocks, 14 in f.blocks) == (code in (10, 20), code not in (10, 20))


def listed(text):
    """The numbered rows of a listing after its banner, as numbers."""
    rows = [line.split() for line in text.split("-----\n")[-1].splitlines()]
    return [[float(v) for v in r] for r in rows if r and r[0].isdigit()]


@pytest.mark.parametrize("code", CODES + ["example"])
def test_listing_agrees_on_nodes_eigenvalues_and_faces(library_files, example_file, krxdump, code):
    path = example_file if code == "example" else library_files[code]
    f = krx.read(path)
    nodes = listed(krxdump(path, 4))
    assert sorted(int(r[0]) for r in nodes) == sorted(f.node_ids.tolist())
    np.testing.assert_allclose(by_id(f.node_ids, f.coords, [r[0] for r in nodes]), [r[1:] for r in nodes],
                               rtol=1e-9, atol=1e-300)
    eigen = np.array(listed(krxdump(path, 7)))
    np.testing.assert_array_equal(eigen[:, 0], f.mode_numbers)
    np.testing.assert_allclose(eigen[:, 1:], np.column_stack([f.eigenvalues, f.hertz, f.radians, f.gen_mass,
                                                              f.gen_stiff]), rtol=1e-9, atol=1e-300)
    assert [r[1:] for r in listed(krxdump(path, 14))] == [list(face) for face in f.faces]


def test_example_host_eigenvalues_are_the_closed_form_ones(example_file):
    f = krx.read(example_file)
    axial = 4.0 * 1000.0 / 0.001 * np.sin(np.arange(1, 15) * np.pi / 600.0) ** 2
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
FACES = [[IDS[p] for p in face] for face in FACE_POSITIONS]


def hand_built(code):
    enc = kb.Enc(code)
    blocks = {4: kb.records(enc, [4, 3], IDS, XYZ), 7: kb.records(enc, [2], [1, 2], EIGEN),
              8: kb.per_mode_block(enc, [1, 2], IDS, SHAPE, code & 0xFF != 10),
              11: b"".join(enc.text(u, 16) for u in ("KILOGRAM", "METER", "SECOND", "NEWTON")),
              12: kb.sparse_block(enc, 2, [(1, 1, 4.0), (2, 2, 16.0), (1, 2, 0.5)]),
              17: enc.i(2, 9, 7)}
    if code & 0xFF in (10, 20, 30, 31):
        blocks[5] = kb.topology_block(enc, FACES)
        blocks[30] = b""  # old generations have no block 30: its flag means nothing
    else:
        blocks[14] = kb.faces_block(enc, FACE_POSITIONS)
        blocks[21] = enc.i(2) + enc.r(np.arange(6.0))
        blocks[28] = enc.i(2, 1) + enc.text("gravity", 256) + enc.i(1) + enc.r([2.5, -1.0])
    return kb.krx_file(enc, blocks, title="bridge  ", comments=("é", "", "x")), blocks


def read_hand_built(tmp_path, code):
    data, blocks = hand_built(code)
    (tmp_path / "hand.krx").write_bytes(data)
    return krx.read(tmp_path / "hand.krx"), blocks


@pytest.mark.parametrize("code", HAND_CODES)
def test_hand_built_file_of_every_version_code(tmp_path, code):
    f, blocks = read_hand_built(tmp_path, code)
    assert f.version_code == code and f.blocks == [1, 2, 3] + sorted(b for b in blocks if blocks[b])
    assert f.header["title"] == "bridge" and f.header["comments"] == ["é", "", "x"]
    assert f.node_ids.dtype == np.int32 and list(f.node_ids) == IDS
    assert f.units == ["KILOGRAM", "METER", "SECOND", "NEWTON"]
    np.testing.assert_allclose(f.coords, XYZ)
    np.testing.assert_allclose(np.column_stack([f.eigenvalues, f.hertz, f.radians, f.gen_mass,
                                                f.gen_stiff]), EIGEN, rtol=1e-7)
    # Mode shapes stay in the file: native doubles as its memory map, others converted per mode.
    stored, layout = getattr(f.mode_shapes, "_stored", f.mode_shapes), kb.Enc(code).f
    assert isinstance(f.mode_shapes, krx.ModeArray) == (layout != "<f8")
    assert stored.dtype == layout and not stored.flags.owndata
    np.testing.assert_array_equal(np.asarray(f.mode_shapes), SHAPE)
    np.testing.assert_array_equal(f.mode_shapes[1], SHAPE[1])
    assert f.mode_shapes[1].dtype == np.float64 and f.mode_shapes.shape == (2, 4, 6)
    np.testing.assert_array_equal(f.generalized_stiffness, [[4.0, 0.5], [0.0, 16.0]])
    # Block 5 holds the faces grouped by vertex count, block 14 as they were given.
    assert [list(face) for face in f.faces] == (FACES if 14 in blocks else sorted(FACES, key=len))
    if 14 in blocks:
        np.testing.assert_array_equal(f.invariants[21], np.arange(6.0))
        assert [(n, p, list(v)) for n, p, v in f.modal_loads] == [("gravity", True, [2.5, -1.0])]


def test_bracket_files_every_block_agrees_with_their_listings():
    xdr = krx.read(os.path.join(DATA, "bracket_xdr.krx"))
    golden = {b: listed(open(os.path.join(DATA, f"krxdump_xdr_b{b}.txt")).read()) for b in (27, 28, 31)}
    assert xdr.blocks == [1, 2, 3] + [b for b in range(4, 33) if b != 5]
    assert [(n, p) for n, p, _ in xdr.modal_loads] == [("gravity", True)]
    for block, values in ((27, xdr.preload), (28, xdr.modal_loads[0][2])):
        np.testing.assert_allclose([r[1] for r in golden[block]], values)
    np.testing.assert_allclose([r[1:] for r in golden[31]],
                               by_id(xdr.stress[0], xdr.pre_stress, [r[0] for r in golden[31]]))
    # The same model in single precision and in the 8.2 generation holds the same values.
    for other in ("bracket_single.krx", "bracket_82.krx"):
        g = krx.read(os.path.join(DATA, other))
        for name in ("coords", "hertz", "masses", "inertias", "generalized_mass",
                     "generalized_damping", "interface_nodes", "mode_shapes"):
            np.testing.assert_allclose(np.asarray(getattr(g, name)),
                                       np.asarray(getattr(xdr, name)), rtol=1e-6, err_msg=name)
        assert sorted(map(tuple, g.faces)) == sorted(map(tuple, xdr.faces))
