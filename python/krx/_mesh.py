"""The file as a meshio mesh: nodes as points, faces as cells, mode vectors as point data."""

import numpy as np

_CELL_TYPES = {1: "vertex", 2: "line", 3: "triangle", 4: "quad"}


def von_mises(s):
    """Von Mises value of rows sigma_x, sigma_y, sigma_z, tau_xy, tau_xz, tau_yz."""
    s = np.asarray(s, dtype=np.float64)
    sx, sy, sz, txy, txz, tyz = (s[..., i] for i in range(6))
    v = sx * sx + sy * sy + sz * sz - sx * sy - sy * sz - sz * sx
    return np.sqrt(np.maximum(v + 3.0 * (txy * txy + txz * txz + tyz * tyz), 0.0))


def face_cells(f):
    """(cell type, positions) blocks of the faces, grouped by vertex count."""
    if f.faces is None or not len(f.faces):
        return []
    counts = f._face_counts
    positions = f.node_positions(f._face_vertices)
    starts = np.concatenate(([0], np.cumsum(counts)[:-1])).astype(np.int64)
    cells = []
    for n in np.unique(counts):
        if n == 0:
            continue
        first = starts[counts == n]
        block = positions[first[:, None] + np.arange(n)]
        block = block[np.all(block >= 0, axis=1)]
        if len(block):
            cells.append((_CELL_TYPES.get(int(n), "polygon"), block))
    return cells


def _selected(f, modes):
    numbers = f._mode_record_numbers
    if numbers is None:
        return []
    if modes is None:
        return list(range(len(numbers)))
    wanted = [int(m) for m in modes]
    missing = [m for m in wanted if m not in set(numbers.tolist())]
    if missing:
        raise ValueError(f"the file has no mode {missing[0]}")
    return [int(np.nonzero(numbers == m)[0][0]) for m in wanted]


def mode_vectors(f, k):
    """Translations of mode index k at every point (zeros where the mode shapes list no value)."""
    out = np.zeros((len(f.node_ids), 3))
    at = f.node_positions(f.mode_shape_node_ids)
    keep = at >= 0
    out[at[keep]] = np.asarray(f.mode_shapes[k])[keep, :3]
    return out


def to_meshio(f, modes=None):
    """A meshio.Mesh of f: points, faces, and per mode the point data mode_<number> (and
    stress_<number>, von Mises, where the file has stresses). modes: mode numbers, or all."""
    import meshio

    if f.coords is None:
        raise ValueError("the file has no nodal coordinates")
    point_data = {}
    numbers = f._mode_record_numbers
    for k in _selected(f, modes):
        point_data[f"mode_{numbers[k]}"] = mode_vectors(f, k)
        if f.stress is not None:
            ids, values = f.stress
            vm = np.zeros(len(f.node_ids))
            at = f.node_positions(ids)
            keep = at >= 0
            vm[at[keep]] = von_mises(values[k])[keep]
            point_data[f"stress_{numbers[k]}"] = vm
    point_data["node_id"] = f.node_ids.astype(np.int32)
    return meshio.Mesh(np.asarray(f.coords, dtype=np.float64), face_cells(f),
                       point_data=point_data)
