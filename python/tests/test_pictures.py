import os
import subprocess
import sys

import numpy as np
import pytest

import krx
from test_read import by_id, read_hand_built

def run_krx(*args):
    env = dict(os.environ, MPLBACKEND="Agg",
               PYTHONPATH=os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
    return subprocess.run([sys.executable, "-m", "krx", *map(str, args)], env=env,
                          capture_output=True, text=True)


def test_vtu_of_the_example_file_reads_back_with_meshio(example_file, tmp_path):
    import meshio
    r = run_krx("vtu", example_file, tmp_path / "sample.vtu", "--modes", "7,8")
    assert r.returncode == 0, r.stderr
    mesh, f = meshio.read(tmp_path / "sample.vtu"), krx.read(example_file)
    assert len(mesh.points) == 300
    assert [c.type for c in mesh.cells] == ["line"] and len(mesh.cells[0].data) == 299
    assert sorted(k for k in mesh.point_data if k.startswith("mode_")) == ["mode_7", "mode_8"]
    np.testing.assert_allclose(mesh.point_data["mode_7"],
                               by_id(f.mode_shape_node_ids, f.mode_shapes[6][:, :3], f.node_ids))
    stress, listed = mesh.point_data["stress_7"], f.node_positions(f.stress[0])
    assert np.all(stress[np.setdiff1d(np.arange(300), listed)] == 0.0)
    np.testing.assert_allclose(stress[listed], np.abs(f.stress[1][6][:, 0]))


def test_mesh_groups_faces_by_vertex_count(tmp_path):
    mesh = krx.to_meshio(read_hand_built(tmp_path, 60)[0], modes=[2])
    assert {c.type: len(c.data) for c in mesh.cells} == {"line": 1, "triangle": 1, "quad": 1}
    assert list(mesh.point_data) == ["mode_2", "node_id"]
    with pytest.raises(ValueError, match="no mode 99"):
        krx.to_meshio(read_hand_built(tmp_path, 60)[0], modes=[2, 99])


def test_von_mises_of_uniaxial_shear_and_hydrostatic_states():
    states = [[2, 0, 0, 0, 0, 0], [0, -3, 0, 0, 0, 0], [0, 0, 0, 1, 0, 0], [0, 0, 0, 0, 1, 0],
              [0, 0, 0, 0, 0, 1], [5, 5, 5, 0, 0, 0]]
    np.testing.assert_allclose(krx.von_mises(states), [2, 3, 3**0.5, 3**0.5, 3**0.5, 0])


def test_plot_of_a_mode_is_a_picture(example_file, tmp_path):
    import matplotlib.image
    out = tmp_path / "mode7.png"
    r = run_krx("plot", example_file, "--mode", 7, "-o", out)
    assert r.returncode == 0, r.stderr
    assert out.read_bytes()[:8] == b"\x89PNG\r\n\x1a\n" and out.stat().st_size > 10000
    pixels = matplotlib.image.imread(out)
    assert pixels.shape[0] >= 400 and len(np.unique(pixels.reshape(-1, pixels.shape[2]), axis=0)) > 50


def test_info_and_refusals_on_the_command_line(example_file, tmp_path):
    r = run_krx("info", example_file)
    assert r.returncode == 0
    # A reader that has gone (| head) ends the listing without a word.
    env = dict(os.environ, PYTHONPATH=os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
    p = subprocess.Popen([sys.executable, "-m", "krx", "info", example_file], env=env,
                         stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    p.stdout.close()
    assert p.stderr.read() == b"" and p.wait() == 1
    assert "version code 316 (generation 6.0, XDR, double precision)" in r.stdout
    assert "300 nodes, 20 modes, 299 faces, 2 interface nodes" in r.stdout
    assert "1.66665905e+00" in r.stdout
    broken = tmp_path / "short.krx"
    broken.write_bytes(open(example_file, "rb").read()[:5000])
    r = run_krx("info", broken)
    assert r.returncode == 1 and r.stderr.startswith("krx: error: block 4 (nodal_coords) at byte")
    r = run_krx("plot", example_file, "--mode", 99, "-o", tmp_path / "x.png")
    assert r.returncode == 1 and "no mode 99" in r.stderr
