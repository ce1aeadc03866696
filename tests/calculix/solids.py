"""Exact volume, centre and inertia of the geometries in hosts/calculix/geometry, built from
boxes, z-cylinders and right-triangular prisms. Each piece is (volume, centre, S) with S the
second-moment matrix about its centre, the integral of (x - c)(x - c)^T; holes are subtracted."""

import math

import numpy as np


def box(corner, size):
    v = float(np.prod(size))
    centre = np.asarray(corner, float) + np.asarray(size, float) / 2
    return v, centre, np.diag(v * np.square(size) / 12)


def z_cylinder(x, y, z0, radius, height):
    v = math.pi * radius**2 * height
    s = np.diag([radius**2 / 4, radius**2 / 4, height**2 / 12])
    return v, np.array([x, y, z0 + height / 2]), v * s


def right_prism(a, b, length):
    """Legs a along x and b along y from the origin, extruded from z = 0 to length."""
    v = a * b / 2 * length
    s = np.array([[a * a / 18, -a * b / 36, 0], [-a * b / 36, b * b / 18, 0],
                  [0, 0, length**2 / 12]])
    return v, np.array([a / 3, b / 3, length / 2]), v * s


def combine(pieces):
    """Volume, centre and inertia tensor per unit density about the centre of pieces given as
    (sign, piece)."""
    volume = sum(sign * p[0] for sign, p in pieces)
    centre = sum(sign * p[0] * p[1] for sign, p in pieces) / volume
    s = sum(sign * (p[2] + p[0] * np.outer(p[1] - centre, p[1] - centre)) for sign, p in pieces)
    return volume, centre, np.trace(s) * np.eye(3) - s


# The dimensions of bracket.geo, bar.geo and wedge.geo.
BRACKET = combine([(1, box((0, 0, 0), (100, 40, 5))), (1, box((0, 0, 0), (5, 40, 60))),
                   (-1, box((0, 0, 0), (5, 40, 5))),
                   (-1, z_cylinder(40, 20, 0, 5, 5)), (-1, z_cylinder(80, 20, 0, 5, 5))])
BAR = combine([(1, box((0, 0, 0), (200, 24, 16)))])
WEDGE = combine([(1, right_prism(60, 30, 80))])
