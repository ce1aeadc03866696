"""The mode viewer page: its data against the file, and the page itself in headless Chromium.

Chromium is required: a machine without it fails these tests."""

import base64
import os
import re
import shutil
import subprocess
import tempfile

import numpy as np
import pytest

import krx
import krxbuild as kb
from krx._html import page_data
from test_pictures import run_krx

WINDOW = (900, 650)
PANEL = 270  # the side panel's width in viewer.css; the view fills the rest
BACKGROUND = np.array([0xee, 0xf0, 0xf3]) / 255.0
FLAGS = ["--headless", "--no-sandbox", "--disable-gpu", "--enable-unsafe-swiftshader",
         "--disable-quic", "--no-first-run", "--disable-background-networking",
         "--disable-component-update", "--disable-sync", "--window-size=%d,%d" % WINDOW]
HOSTILE = ('<script>document.body.dataset.pwned=1</script></textarea>'
           '<img src=x onerror="document.body.dataset.pwned=2">')


def hand_file(path, faces, stress=False, interface=()):
    """A small file laid out by hand: a 2 x 2 x 2 block of 27 nodes 10, 11, ... (x fastest), two
    modes whose values tell node and mode apart, faces given as lists of node positions. The
    mode shapes and stresses list the nodes backwards, so only their ids place them."""
    enc = kb.Enc(60)
    grid = np.array([[x, y, z] for z in range(3) for y in range(3) for x in range(3)], float)
    ids = list(range(10, 37))
    shapes = np.zeros((2, 27, 6))
    shapes[:, :, :3] = (np.arange(1, 3)[:, None, None] * 0.01 * (grid + 1.0))
    blocks = {4: kb.records(enc, [27, 3], ids, grid),
              7: kb.records(enc, [2], [7, 8], [[4.0, 3.0, 2.0, 1.0, 4.0],
                                               [9.0, 5.0, 3.0, 1.0, 9.0]]),
              8: kb.per_mode_block(enc, [7, 8], ids[::-1], shapes[:, ::-1])}
    if faces:
        blocks[14] = kb.faces_block(enc, faces)
    if stress:  # sigma_x alone, the node's position + 100 x (mode index + 1): von Mises too
        values = np.zeros((2, 27, 6))
        values[:, :, 0] = np.arange(27) + np.arange(1, 3)[:, None] * 100.0
        blocks[18] = kb.per_mode_block(enc, [7, 8], ids[::-1], values[:, ::-1])
    if interface:
        blocks[17] = enc.i(len(interface), *interface)
    path.write_bytes(kb.krx_file(enc, blocks, title=HOSTILE))
    return krx.read(path), grid, shapes


def unpack(blob, dtype, width):
    return np.frombuffer(base64.b64decode(blob), dtype=dtype).reshape(-1, width)


# The six sides of the block as quads of corner positions, outward.
CUBE = [[0, 6, 8, 2], [18, 20, 26, 24], [0, 2, 20, 18], [6, 24, 26, 8], [0, 18, 24, 6],
        [2, 8, 26, 20]]


def test_page_holds_the_face_nodes_and_their_modes(tmp_path):
    f, grid, shapes = hand_file(tmp_path / "cube.krx", CUBE + [[4, 13]], stress=True,
                                interface=(32,))
    meta, blobs = page_data(f)
    # The eight corners, the line's two nodes and the interface node 32 (position 22, on no
    # face); the other inner nodes stay out.
    shown = [0, 2, 4, 6, 8, 13, 18, 20, 22, 24, 26]
    assert meta["shown_nodes"] == len(shown) and meta["triangles"] == 12 and meta["lines"] == 1
    assert meta["interface"] == [{"id": 32, "index": shown.index(22)}]
    np.testing.assert_allclose(unpack(blobs["coords"], "<f4", 3), grid[shown] - 1.0)
    for k in range(2):
        np.testing.assert_allclose(unpack(blobs[f"mode{k}"], "<f4", 3), shapes[k][shown, :3],
                                   rtol=1e-7)
        np.testing.assert_allclose(unpack(blobs[f"stress{k}"], "<f4", 1)[:, 0],
                                   np.array(shown) + 100.0 * (k + 1))
    assert [m["number"] for m in meta["modes"]] == [7, 8]
    np.testing.assert_allclose(meta["modes"][1]["largest"], 0.02 * np.sqrt(27.0), rtol=1e-6)
    # The quads split into triangles that cover the surface once, turned outward as given.
    corners = grid[shown][unpack(blobs["triangles"], "<u4", 3)] - 1.0
    normals = np.cross(corners[:, 1] - corners[:, 0], corners[:, 2] - corners[:, 0]) / 2
    assert np.all(np.einsum("ij,ij->i", normals, corners.mean(axis=1)) > 0)
    np.testing.assert_allclose(np.linalg.norm(normals, axis=1).sum(), 24.0)
    # The outline is the block's twelve edges, no diagonal of a side.
    edges = {tuple(sorted(shown[i] for i in e)) for e in unpack(blobs["outline"], "<u4", 2)}
    assert len(edges) == 12 and all(np.sum(grid[a] != grid[b]) == 1 for a, b in edges)


# ---- in the browser -------------------------------------------------------------------------

@pytest.fixture(scope="session")
def chromium():
    path = shutil.which("chromium")
    if not path:
        pytest.fail("chromium is not installed (scripts/install-deps.sh installs it)")
    return path


def browse(chromium, page, *args, fragment=""):
    with tempfile.TemporaryDirectory() as profile:
        r = subprocess.run([chromium, *FLAGS, f"--user-data-dir={profile}", *args,
                            f"file://{page}{fragment}"], capture_output=True, text=True,
                           timeout=60)
    assert r.returncode == 0, r.stderr[-2000:]
    return r.stdout


def screenshot(chromium, page, budget, fragment=""):
    """The view's pixels (RGB, 0 to 1) after budget ms of page time."""
    import matplotlib.image
    with tempfile.TemporaryDirectory() as where:
        out = os.path.join(where, "shot.png")
        browse(chromium, page, f"--screenshot={out}", f"--virtual-time-budget={budget}",
               fragment=fragment)
        pixels = matplotlib.image.imread(out)[:, :, :3]
    assert pixels.shape[:2] == (WINDOW[1], WINDOW[0])
    return pixels[:, PANEL:]


def body_share(view):
    """Share of the pixels in the middle of the view that are not background."""
    h, w = view.shape[:2]
    middle = view[int(0.3 * h):int(0.7 * h), int(0.3 * w):int(0.7 * w)]
    return float(np.mean(np.abs(middle - BACKGROUND).max(axis=2) > 0.08))


@pytest.fixture(scope="session")
def pages(example_file, tmp_path_factory):
    """{name: page path} of the three files the browser opens: the example host's chain of line
    faces, the cube with stresses and an interface point, its nodes without faces."""
    where = tmp_path_factory.mktemp("pages")
    sources = {"chain": example_file,
               "cube": hand_file(where / "cube.krx", CUBE, stress=True, interface=(32,))[0].path,
               "nodes": hand_file(where / "nodes.krx", None)[0].path}
    pages = {}
    for name, source in sources.items():
        pages[name] = str(where / f"{name}.html")
        r = run_krx("html", source, "-o", pages[name])
        assert r.returncode == 0, r.stderr
    return pages


@pytest.fixture(scope="session")
def doms(chromium, pages):
    """{name: the page's DOM after 300 ms of page time}: an error in the first frames shows."""
    return {name: browse(chromium, page, "--dump-dom", "--virtual-time-budget=300")
            for name, page in pages.items()}


def status_of(dom):
    tag = re.search(r'<p id="status"([^>]*)>', dom).group(1)
    return dict(re.findall(r'data-(\w+)="([^"]*)"', tag))


# name: modes, triangles, stress colouring offered, smallest share of body pixels in the middle
CASES = {"chain": (20, 0, True, 0.01), "cube": (2, 12, True, 0.15), "nodes": (2, 0, False, 0.002)}


@pytest.mark.parametrize("name", CASES)
def test_page_is_ready_and_shows_the_body(chromium, pages, doms, name):
    modes, triangles, stress, share = CASES[name]
    dom = doms[name]
    status = status_of(dom)
    line = re.search(r'<p id="status".*?</p>', dom).group(0)
    assert status["state"] == "ready" and status["errors"] == "0", line
    assert (status["modes"], status["triangles"]) == (str(modes), str(triangles))
    assert ('id="colour-stress"' in dom) == stress
    note = re.search(r'<p id="note"( hidden="")?>', dom).group(1)
    assert (note is None) == (name == "nodes")
    assert body_share(screenshot(chromium, pages[name], 300)) > share


def test_title_that_is_markup_is_shown_and_not_run(doms):
    dom = doms["cube"]
    title = re.search(r'<h1 id="title">(.*?)</h1>', dom, re.S).group(1)
    assert title == HOSTILE.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;")
    assert re.search(r"<body[^>]*>", dom).group(0) == "<body>" and "<img" not in dom
    assert status_of(dom)["errors"] == "0"


def test_animation_moves_and_a_paused_page_holds_still(chromium, pages):
    page = pages["cube"]
    still = [screenshot(chromium, page, t, "#play=0") for t in (300, 1200)]
    np.testing.assert_array_equal(still[0], still[1])
    # A playing page's frames follow the wall clock, not the page-time budget: a capture lands at
    # whatever phase the cycle has reached, now and then the paused page's own (its first frame,
    # or a whole cycle later). Two captures of one phase are no rarer. When the view moves, one
    # of three captures differs from the paused page.
    assert any(np.mean(np.any(screenshot(chromium, page, 300) != still[0], axis=2)) > 0.005
               for _ in range(3))
    stress = screenshot(chromium, page, 300, "#play=0&colour=stress")
    assert np.mean(np.any(stress != still[0], axis=2)) > 0.01
