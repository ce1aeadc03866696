"""A page that animates the modes of a file in a browser: one HTML file that holds its own code
(three.js from the installed package, the viewer's script and style from viewer/) and the data.

Only the nodes a viewer can see go into the page: those on the faces and the interface nodes,
or every node of a file without faces. Coordinates, triangles, lines and per mode the
displacements and von Mises stresses go in as little-endian float32 and uint32 in base64, one
element per mode so that the page decodes a mode when it is first shown. Texts of the file go
in as JSON that is read as text, never as markup.
"""

import base64
import hashlib
import json
import os
import re

import numpy as np

from ._mesh import mode_vectors, von_mises

HERE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "viewer")
THREE_DIR = os.environ.get("KRX_THREE_DIR", "/usr/share/javascript/three")
THREE_FILES = ("build/three.min.js", "examples/js/controls/OrbitControls.js")
# The largest displacement of a mode at the start, as a share of the body's diagonal.
START_AMPLITUDE = 0.05


def _b64(array, dtype):
    return base64.b64encode(np.ascontiguousarray(array, dtype=dtype).tobytes()).decode("ascii")


def _shown_nodes(f):
    """Positions in block 4 of the nodes the page holds, and the faces' vertex positions."""
    n = len(f.node_ids)
    if f.faces is None or not len(f._face_counts):
        return np.arange(n), None
    positions = f.node_positions(f._face_vertices)
    wanted = positions[positions >= 0]
    if f.interface_nodes is not None:
        extra = f.node_positions(f.interface_nodes)
        wanted = np.concatenate([wanted, extra[extra >= 0]])
    return np.unique(wanted), positions


def _elements(f, positions, local):
    """Triangles (polygons as fans) and lines of the faces, as indices of the page's nodes."""
    counts = f._face_counts.astype(np.int64)
    starts = np.concatenate(([0], np.cumsum(counts)[:-1]))
    triangles, lines = [], []
    for n in np.unique(counts):
        if n < 2:
            continue
        block = positions[starts[counts == n][:, None] + np.arange(n)]
        block = local[block[np.all(block >= 0, axis=1)]]
        if n == 2:
            lines.append(block)
        else:
            triangles += [block[:, [0, k, k + 1]] for k in range(1, n - 1)]
    triangles = np.concatenate(triangles) if triangles else np.zeros((0, 3), np.int64)
    lines = np.concatenate(lines) if lines else np.zeros((0, 2), np.int64)
    return triangles, lines


def _outline(coords, triangles, angle=30.0):
    """Feature edges of the triangles: edges of one triangle only, of more than two, and those
    where the faces on either side meet at more than angle degrees."""
    if not len(triangles):
        return np.zeros((0, 2), np.int64)
    t = coords[triangles]
    normals = np.cross(t[:, 1] - t[:, 0], t[:, 2] - t[:, 0])
    normals /= np.maximum(np.linalg.norm(normals, axis=1), 1e-300)[:, None]
    edges = np.sort(np.concatenate([triangles[:, [0, 1]], triangles[:, [1, 2]],
                                    triangles[:, [2, 0]]]), axis=1)
    owner = np.tile(np.arange(len(triangles)), 3)
    keys = edges[:, 0] * (int(edges.max()) + 1) + edges[:, 1]
    order = np.argsort(keys, kind="stable")
    keys, edges, owner = keys[order], edges[order], owner[order]
    starts = np.flatnonzero(np.concatenate(([True], keys[1:] != keys[:-1])))
    counts = np.diff(np.concatenate((starts, [len(keys)])))
    keep = counts != 2
    pairs = starts[counts == 2]
    bent = np.einsum("ij,ij->i", normals[owner[pairs]], normals[owner[pairs + 1]])
    keep[counts == 2] = bent < np.cos(np.radians(angle))
    return edges[starts[keep]]


def _finite(x):
    return float(x) if np.isfinite(x) else None


def _header(f):
    h = f.header
    return {"title": h["title"], "date": h["date"], "input": h["input_name"],
            "type": h["input_type"], "comments": [c for c in h["comments"] if c]}


def page_data(f):
    """(meta, blobs): the page's JSON facts and its named base64 blobs."""
    if f.coords is None or f._mode_record_numbers is None:
        raise ValueError("the file has no nodal coordinates or no mode shapes")
    shown, positions = _shown_nodes(f)
    local = np.full(len(f.node_ids), -1, dtype=np.int64)
    local[shown] = np.arange(len(shown))
    coords = f.coords[shown]
    lo, hi = (coords.min(axis=0), coords.max(axis=0)) if len(coords) else (np.zeros(3),) * 2
    centre = (lo + hi) / 2.0
    blobs = {"coords": _b64(coords - centre, "<f4")}
    triangles = lines = np.zeros((0, 3))
    if positions is not None:
        triangles, lines = _elements(f, positions, local)
        blobs["triangles"] = _b64(triangles, "<u4")
        blobs["lines"] = _b64(lines, "<u4")
        blobs["outline"] = _b64(_outline(coords, triangles), "<u4")

    stress_at = None
    if f.stress is not None:
        at = f.node_positions(f.stress[0])
        keep = (at >= 0) & (local[np.maximum(at, 0)] >= 0)
        stress_at = (np.nonzero(keep)[0], local[at[keep]])
    hertz = dict(zip(f.mode_numbers.tolist(), f.hertz.tolist())) if f.hertz is not None else {}
    modes = []
    for k, number in enumerate(f._mode_record_numbers.tolist()):
        disp = mode_vectors(f, k)[shown]
        largest = np.sqrt((disp * disp).sum(axis=1)).max() if len(disp) else 0.0
        mode = {"number": number, "hertz": _finite(hertz.get(number, np.nan)),
                "largest": _finite(largest) or 0.0}
        blobs[f"mode{k}"] = _b64(disp, "<f4")
        if stress_at is not None:
            vm = np.zeros(len(shown))
            vm[stress_at[1]] = von_mises(f.stress[1][k][stress_at[0]])
            mode["largest_stress"] = (_finite(vm.max()) or 0.0) if len(vm) else 0.0
            blobs[f"stress{k}"] = _b64(vm, "<f4")
        modes.append(mode)

    interface = []
    if f.interface_nodes is not None:
        at = f.node_positions(f.interface_nodes)
        interface = [{"id": int(i), "index": int(local[p])}
                     for i, p in zip(f.interface_nodes.tolist(), at.tolist()) if p >= 0]
    meta = {"header": _header(f), "units": f.units, "node_count": len(f.node_ids),
            "mode_count": len(modes), "face_count": len(f.faces) if f.faces is not None else 0,
            "shown_nodes": len(shown), "triangles": len(triangles), "lines": len(lines),
            "size": _finite(np.linalg.norm(hi - lo)) or 0.0, "start_amplitude": START_AMPLITUDE,
            "stress": stress_at is not None, "modes": modes, "interface": interface}
    return meta, blobs


def _json_for_script(value):
    """JSON that cannot end its script element or open a comment inside it."""
    text = json.dumps(value, ensure_ascii=False, allow_nan=False)
    return text.replace("<", "\\u003c").replace(">", "\\u003e").replace("&", "\\u0026")


def _script_source(path):
    with open(path, encoding="utf-8") as fh:
        return fh.read().replace("</script", "<\\/script")


def _sha256(text):
    digest = hashlib.sha256(text.encode("utf-8")).digest()
    return "'sha256-" + base64.b64encode(digest).decode("ascii") + "'"


def render_page(f):
    """The page of the read file f, as text, and its facts (the page's JSON part)."""
    meta, blobs = page_data(f)
    try:
        libraries = [_script_source(os.path.join(THREE_DIR, name)) for name in THREE_FILES]
    except OSError as e:
        raise OSError(f"three.js is not installed ({e.filename}): install libjs-three") from None
    guard = _script_source(os.path.join(HERE, "guard.js"))
    viewer = _script_source(os.path.join(HERE, "viewer.js"))
    with open(os.path.join(HERE, "viewer.css"), encoding="utf-8") as fh:
        style = fh.read()
    with open(os.path.join(HERE, "page.html"), encoding="utf-8") as fh:
        template = fh.read()
    scripts = [guard] + libraries + [viewer]
    policy = ("default-src 'none'; script-src " + " ".join(_sha256(s) for s in scripts)
              + "; style-src " + _sha256(style))
    data = "\n".join(f'<script type="application/octet-stream" id="krx-{name}">{text}</script>'
                     for name, text in blobs.items())
    parts = {"policy": policy, "style": style, "guard": guard, "three": libraries[0],
             "controls": libraries[1], "viewer": viewer, "meta": _json_for_script(meta),
             "data": data}
    # One pass, so that nothing filled in is searched for markers again.
    return re.sub(r"@@(\w+)@@", lambda m: parts[m.group(1)], template), meta


def write_page(f, out):
    """Writes the page of the read file f to out; returns its facts."""
    text, meta = render_page(f)
    with open(out, "w", encoding="utf-8") as fh:
        fh.write(text)
    return meta
