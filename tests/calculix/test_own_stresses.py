"""The stresses that ccx2krx recovers from each mode against CalculiX's nodal stresses: applied to
CalculiX's own eigenvectors for the element types that test_against_calculix.py does not mesh,
and the own path's file for each meshed type."""

import os

import numpy as np
import pytest

import calculix_output as ccx
from conftest import DERIVED, MODELS
from test_against_calculix import by_node
from test_own_solver import separated


def nodal_stresses(f, k, ids):
    """The file's stresses of mode k at the node ids, in CalculiX's order xx yy zz xy yz zx."""
    file_ids, values = f.stress
    return by_node(file_ids, np.asarray(values[k]), ids)[:, [0, 1, 2, 3, 5, 4]]


def worst_up_to_sign(ours, theirs):
    sign = 1.0 if np.sum(ours * theirs) >= 0 else -1.0
    return np.max(np.abs(ours - sign * theirs)) / np.max(np.abs(theirs))


# The types of MODELS are checked the same way by test_against_calculix.py.
@pytest.mark.parametrize("name", list(DERIVED))
def test_recovered_stresses_of_calculix_modes_are_calculix_own(export, name):
    e = export(name)  # CalculiX's path, its eigenvectors' stresses recovered by the tool
    f = e.read()
    stress = ccx.frd_results(os.path.join(e.keep, "modes.frd"), "STRESS")
    for k in range(6, 10):
        ids, theirs = stress[k + 1]
        # The .frd's five digits.
        assert worst_up_to_sign(nodal_stresses(f, k, ids), theirs) < 1e-4, f"{name} mode {k + 1}"


@pytest.mark.parametrize("name", list(MODELS) + ["bar_two_materials"])
def test_own_stresses_are_calculix_own(export, name):
    e = export(name, solver="own")
    f = e.read()
    stress = ccx.frd_results(os.path.join(e.keep, "modes.frd"), "STRESS")
    for k in separated(f.eigenvalues, 6):
        ids, theirs = stress[k + 1]
        # Eigenvectors that differ by 1e-5 to 1e-4 of their largest entry differ by more in
        # their derivatives.
        assert worst_up_to_sign(nodal_stresses(f, k, ids), theirs) < 1e-3, f"{name} mode {k + 1}"
