#!/usr/bin/python3
"""The mode viewer page: its size, the time to write it, and the time until headless Chromium
reports it ready, for the demo's bracket and for a 100,000-node plate with 30 modes.

    /usr/bin/python3 bench/viewer_bench.py [BUILD_DIR] [BRACKET.krx]

BRACKET.krx defaults to out/bracket.krx (bash scripts/demo.sh makes it). The plate is a host of
its own through the library's exported entries (BUILD_DIR/libkrxlib.so): 317 x 316 nodes on a
400 x 250 x 0 mm plate, one quadrilateral face per cell (every node on a face: the page holds
them all), 30 bending modes with stresses, two interface nodes. The page writes into its status
line when it has drawn its first frame, by the clock and as its own time since the navigation
started; "start to ready" counts from Chromium's launch. The runs are whole Chromium runs to
their end, one taking a screenshot and one dumping the page (--dump-dom: the dump of a 70 MB page
itself takes seconds), beside the dump run of an empty page.
"""

import ctypes
import os
import re
import statistics
import subprocess
import sys
import tempfile
import time

import numpy as np

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "python"))

import krx  # noqa: E402
from krx._html import render_page  # noqa: E402

FLAGS = ["--headless", "--no-sandbox", "--disable-gpu", "--enable-unsafe-swiftshader",
         "--disable-quic", "--no-first-run", "--disable-background-networking",
         "--disable-component-update", "--disable-sync", "--window-size=900,650"]
RUNS = 3


def write_plate(lib, path, nx=317, ny=316, modes=30):
    """The plate through KRX_* entries; every pointer argument is an address into numpy data."""
    for name, count in (("NODE_COORDINATES_VEC", 3), ("NODAL_MASS", 3), ("MODE_SHAPE_VEC", 4),
                        ("MODAL_STRESS_VEC", 4), ("FACE", 3), ("GENERALIZED_MASS", 4),
                        ("GENERALIZED_STIFFNESS", 4), ("INTERFACE_NODE", 2)):
        getattr(lib, "KRX_SET_" + name).argtypes = [ctypes.c_void_p] * count
    a, b = 400.0, 250.0
    x, y = np.meshgrid(np.linspace(0, a, nx), np.linspace(0, b, ny))
    x, y = x.ravel(), y.ravel()
    n = len(x)
    ids = np.arange(1, n + 1, dtype=np.int32)
    xyz = np.column_stack([x, y, np.zeros(n)])
    pairs = sorted(((i / a) ** 2 + (j / b) ** 2, i, j) for i in range(1, 9) for j in range(1, 9))
    status = ctypes.c_int(0)
    s = ctypes.addressof(status)
    p = lambda array, k=0: array.ctypes.data + k * array.itemsize * (array.size // len(array))
    lib.KRX_CREATE(ctypes.byref(ctypes.c_int(n)), ctypes.byref(ctypes.c_int(modes)),
                   ctypes.byref(status))
    texts = [t.encode() for t in ("Plate of 100,172 nodes, 30 bending modes", "plate.dat", "BENCH",
                                  "", "", "")]
    lib.KRX_SET_HEADER(*texts, ctypes.byref(status), *[ctypes.c_int(len(t)) for t in texts])
    mm = [ctypes.byref(ctypes.c_double(v)) for v in (1000.0, 0.001, 1.0, 1.0)]  # N, mm, t, s
    lib.KRX_UNITS_SI_MULTIPLIERS(*mm, ctypes.byref(status))
    mass = np.full(n, 1e-8)
    for k in range(n):
        lib.KRX_SET_NODE_COORDINATES_VEC(p(ids, k), p(xyz, k), s)
        lib.KRX_SET_NODAL_MASS(p(ids, k), p(mass, k), s)
    for m, (_, i, j) in enumerate(pairs[:modes]):
        sx, sy = np.sin(i * np.pi * x / a), np.sin(j * np.pi * y / b)
        shape = np.zeros((n, 6))
        shape[:, 2] = sx * sy
        stress = np.zeros((n, 6))
        stress[:, 0], stress[:, 1] = 1e3 * i * i * sx * sy, 1e3 * j * j * sx * sy
        stress[:, 3] = 1e3 * i * j * np.cos(i * np.pi * x / a) * np.cos(j * np.pi * y / b)
        number = np.array([m + 1], dtype=np.int32)
        for k in range(n):
            lib.KRX_SET_MODE_SHAPE_VEC(p(number), p(ids, k), p(shape, k), s)
            lib.KRX_SET_MODAL_STRESS_VEC(p(number), p(ids, k), p(stress, k), s)
        hertz = 20.0 * (i * i + (j * a / b) ** 2)
        one, stiff = np.ones(1), np.array([(2.0 * np.pi * hertz) ** 2])
        lib.KRX_SET_GENERALIZED_MASS(p(number), p(number), p(one), s)
        lib.KRX_SET_GENERALIZED_STIFFNESS(p(number), p(number), p(stiff), s)
    cells = (np.arange(nx - 1)[None, :] + nx * np.arange(ny - 1)[:, None]).ravel()
    quads = (np.column_stack([cells, cells + 1, cells + nx + 1, cells + nx]) + 1).astype(np.int32)
    four = np.array([4], dtype=np.int32)
    for k in range(len(quads)):
        lib.KRX_SET_FACE(p(four), p(quads, k), s)
    interface = np.array([nx * (ny // 2) + 1, nx * (ny // 2 + 1)], dtype=np.int32)
    for k in range(len(interface)):
        lib.KRX_SET_INTERFACE_NODE(p(interface, k), s)
    name = os.fspath(path).encode()
    lib.KRX_WRITE_KRX(name, ctypes.byref(status), ctypes.c_int(len(name)))
    written = status.value
    lib.KRX_TERMINATE(ctypes.byref(status))
    if written:
        raise RuntimeError("the library did not write the plate")


def write_times(path, out):
    """Seconds to read the file and write its page (best of RUNS), the page's size in bytes
    and its facts."""
    times = []
    for _ in range(RUNS):
        start = time.perf_counter()
        text, meta = render_page(krx.read(path))
        with open(out, "w", encoding="utf-8") as fh:
            fh.write(text)
        times.append(time.perf_counter() - start)
    return min(times), os.path.getsize(out), meta


def run_chromium(page, *args):
    with tempfile.TemporaryDirectory() as profile:
        start = time.perf_counter()
        r = subprocess.run(["chromium", *FLAGS, f"--user-data-dir={profile}", *args,
                            f"file://{page}"], capture_output=True, text=True, timeout=120)
        return r.stdout, time.perf_counter() - start


def chromium(page):
    """Seconds from Chromium's start to the page's ready (None if it never was), from the
    navigation's start to ready (the page's own clock), of a whole run that takes a screenshot
    and of one that dumps the page."""
    with tempfile.TemporaryDirectory() as where:
        shot = run_chromium(page, f"--screenshot={where}/shot.png")[1]
    launched = time.time()
    dom, wall = run_chromium(page, "--dump-dom")
    tag = re.search(r'<p id="status"[^>]*>', dom)
    if not tag or 'data-state="ready"' not in tag.group(0):
        return None, None, shot, wall
    value = lambda name: float(re.search(f'data-{name}="(\\d+)"', tag.group(0)).group(1))
    return value("at") / 1000.0 - launched, value("ms") / 1000.0, shot, wall


def ready_times(page, blank):
    """Medians of RUNS runs: chromium()'s four figures, and the dump of an empty page."""
    runs = [chromium(page) for _ in range(RUNS)]
    if any(r[0] is None for r in runs):
        raise RuntimeError(f"{page} did not report itself ready")
    base = statistics.median(run_chromium(blank, "--dump-dom")[1] for _ in range(RUNS))
    return [statistics.median(r[i] for r in runs) for i in range(4)] + [base]


def main():
    build = sys.argv[1] if len(sys.argv) > 1 else "build"
    bracket = sys.argv[2] if len(sys.argv) > 2 else os.path.join(ROOT, "out", "bracket.krx")
    print(f"load average at start: {os.getloadavg()[0]:.2f}")
    with tempfile.TemporaryDirectory() as work:
        blank = os.path.join(work, "blank.html")
        with open(blank, "w") as fh:
            fh.write("<!DOCTYPE html><title>blank</title>")
        plate = os.path.join(work, "plate.krx")
        start = time.perf_counter()
        lib = ctypes.CDLL(os.path.join(ROOT, build, "libkrxlib.so"))
        os.environ["TMP"] = work
        os.environ.pop("QOR_KRXWRITE_OPTIONS", None)
        write_plate(lib, plate)
        print(f"plate written by the library in {time.perf_counter() - start:.1f} s, "
              f"{os.path.getsize(plate) / 1e6:.1f} MB")
        print("| file | nodes | modes | triangles | page [MB] | write [s] | start to ready [s] | "
              "navigation to ready [s] | screenshot run [s] | dump run [s] | empty page's dump "
              "run [s] |")
        print("|---|---|---|---|---|---|---|---|---|---|---|")
        for name, path in (("demo bracket", bracket), ("plate", plate)):
            f = krx.read(path)
            page = os.path.join(work, name.replace(" ", "_") + ".html")
            seconds, size, meta = write_times(path, page)
            times = " | ".join(f"{t:.2f}" for t in ready_times(page, blank))
            print(f"| {name} | {len(f.node_ids):,} | {meta['mode_count']} | "
                  f"{meta['triangles']:,} | {size / 1e6:.2f} | {seconds:.2f} | {times} |")


if __name__ == "__main__":
    main()
