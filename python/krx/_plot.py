"""A picture of one mode in 3D, with equal scales on the three axes: the deformed outline,
coloured by the displacement magnitude, over the undeformed one drawn thin and light."""

import numpy as np

from ._mesh import face_cells, mode_vectors


def _segments(f):
    """Edges of the faces as pairs of point positions (each polygon closed), or None."""
    pairs = []
    for _, cells in face_cells(f):
        n = cells.shape[1]
        if n == 1:
            continue
        ends = np.roll(cells, -1, axis=1) if n > 2 else cells[:, 1:]
        starts = cells if n > 2 else cells[:, :1]
        pairs.append(np.stack([starts.reshape(-1), ends.reshape(-1)], axis=1))
    if not pairs:
        return None
    edges = np.sort(np.concatenate(pairs), axis=1)
    return np.unique(edges, axis=0)


def default_scale(f, disp):
    """The scale that makes the largest displacement a tenth of the body's size."""
    size = float(np.linalg.norm(np.ptp(f.coords, axis=0))) if len(f.coords) else 0.0
    largest = float(np.max(np.linalg.norm(disp, axis=1))) if len(disp) else 0.0
    if largest == 0.0:
        return 1.0
    return 0.1 * (size if size > 0.0 else 1.0) / largest


def view_angles(disp):
    """Elevation and azimuth (degrees) of a view across the plane in which the mode moves most:
    along the axis of least displacement, from the side of matplotlib's default view, turned a
    little off that axis so that the body still reads as a solid."""
    _, axes = np.linalg.eigh(disp.T @ disp)
    towards = axes[:, 0]
    if towards @ np.array([0.43, -0.75, 0.5]) < 0.0:
        towards = -towards
    elevation = np.degrees(np.arcsin(np.clip(towards[2], -1.0, 1.0)))
    azimuth = np.degrees(np.arctan2(towards[1], towards[0]))
    return elevation + 15.0, azimuth + 15.0


def _equal_scales(ax, points):
    """Axis limits around the points and a box shaped like them, so that a millimetre is as
    long on every axis; a flat body keeps a sliver of depth."""
    lo, hi = points.min(axis=0), points.max(axis=0)
    span = hi - lo
    floor = max(float(span.max()), 1e-12) * 0.02
    margin = np.maximum(span, floor) * 0.02
    lo, hi = lo - margin, hi + margin
    for a, b, setter in zip(lo, hi, (ax.set_xlim, ax.set_ylim, ax.set_zlim)):
        setter(a, b)
    ax.set_box_aspect(hi - lo)


def plot_mode(f, number, out, scale=None):
    """Writes the picture of mode `number` of the read file f to out; returns the scale used."""
    import matplotlib
    import matplotlib.pyplot as plt
    from mpl_toolkits.mplot3d.art3d import Line3DCollection

    numbers = f._mode_record_numbers
    if f.coords is None or numbers is None or number not in set(numbers.tolist()):
        raise ValueError(f"the file has no mode {number} with node coordinates")
    k = int(np.nonzero(numbers == number)[0][0])
    disp = mode_vectors(f, k)
    scale = default_scale(f, disp) if scale is None else float(scale)
    moved = f.coords + scale * disp
    magnitude = np.linalg.norm(disp, axis=1)
    norm = matplotlib.colors.Normalize(vmin=0.0, vmax=float(magnitude.max()) or 1.0)
    cmap = matplotlib.colormaps["viridis"]

    fig = plt.figure(figsize=(8, 6), dpi=100)
    ax = fig.add_subplot(projection="3d")
    ax.computed_zorder = False  # the undeformed mesh stays behind, whatever the view
    edges = _segments(f)
    shown = np.arange(len(f.coords))
    if edges is not None:
        shown = np.unique(edges)  # the nodes on the faces: a solid's inner nodes would hide them
        ax.add_collection3d(Line3DCollection(f.coords[edges], colors="0.82", linewidths=0.4,
                                             zorder=1))
        colours = cmap(norm(magnitude[edges].mean(axis=1)))
        ax.add_collection3d(Line3DCollection(moved[edges], colors=colours, linewidths=1.5,
                                             zorder=2))
    ax.scatter(*f.coords[shown].T, s=1, c="0.82", depthshade=False, zorder=1)
    ax.scatter(*moved[shown].T, s=6, c=magnitude[shown], cmap=cmap, norm=norm, depthshade=False,
               zorder=3)
    if len(disp) > 1:
        ax.view_init(*view_angles(disp))
    _equal_scales(ax, np.concatenate([f.coords, moved]))
    ax.set_xlabel("x")
    ax.set_ylabel("y")
    ax.set_zlabel("z")
    title = f"Mode {number}"
    if f.hertz is not None and f.mode_numbers is not None and number in set(f.mode_numbers.tolist()):
        title += f"  ({f.hertz[int(np.nonzero(f.mode_numbers == number)[0][0])]:.6g} Hz)"
    ax.set_title(f"{title}, displacements x {scale:.3g}")
    fig.colorbar(matplotlib.cm.ScalarMappable(norm=norm, cmap=cmap), ax=ax, shrink=0.7,
                 label="displacement magnitude")
    fig.savefig(out)
    plt.close(fig)
    return scale
