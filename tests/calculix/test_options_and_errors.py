"""The writer's options on the bracket, a deck with steps in another unit system, and the bad
inputs, which must leave no file behind."""

import os
import subprocess

import numpy as np
import pytest

import calculix_output as ccx
import krx
from conftest import run_tool
from test_against_calculix import surface

BRACKET = "bracket_c3d10"


def face_nodes(f):
    return np.unique(np.concatenate(f.faces))


def assert_valid(krxdump, e):
    listing = subprocess.run([krxdump, e.out, "-l"], capture_output=True, text=True)
    assert listing.returncode == 0, listing.stdout + listing.stderr
    return e.read()


def test_centre_of_mass_frame(export, krxdump):
    plain, shifted = export(BRACKET).read(), assert_valid(krxdump, export(BRACKET, "lbrf2cm"))
    order = np.argsort(plain.node_ids)
    assert np.array_equal(np.sort(shifted.node_ids), plain.node_ids[order])
    moved = plain.coords[order] - shifted.coords[np.argsort(shifted.node_ids)]
    np.testing.assert_allclose(moved, np.broadcast_to(plain.global_body_props["centre"],
                                                      moved.shape), atol=1e-9)
    np.testing.assert_allclose(shifted.eigenvalues, plain.eigenvalues, rtol=1e-9, atol=1e-6)


def test_full_invariants(export, krxdump):
    e = export(BRACKET, "full_invar")
    f = assert_valid(krxdump, e)
    assert set(range(19, 27)) <= set(f.blocks)
    mass = ccx.stored_total_mass(os.path.join(e.keep, "matrices"))
    assert f.invariants[19][0] == pytest.approx(mass, rel=1e-9)
    # The node set shrinks to the nodes of the faces.
    assert np.array_equal(np.sort(f.node_ids), face_nodes(f))
    assert len(f.node_ids) < len(export(BRACKET).read().node_ids)


def test_strip_and_coarsen_keep_the_outline(export, krxdump):
    plain = export(BRACKET).read()
    stripped = assert_valid(krxdump, export(BRACKET, "strip_face"))
    # The faces handed over are the outer surface already: there is nothing to strip.
    assert len(stripped.faces) == len(plain.faces)
    coarse = assert_valid(krxdump, export(BRACKET, "coarsen(0.5)"))
    assert 0 < len(coarse.faces) < len(plain.faces)
    used = coarse.coords[coarse.node_positions(face_nodes(coarse))]
    np.testing.assert_allclose(used.min(axis=0), plain.coords.min(axis=0), atol=1e-9)
    np.testing.assert_allclose(used.max(axis=0), plain.coords.max(axis=0), atol=1e-9)
    assert surface(coarse)[0] == pytest.approx(surface(plain)[0], rel=0.05)


def test_steps_are_left_out_and_units_named(export, ccx2krx, tmp_path):
    plain = export("bar_c3d8")
    deck = tmp_path / "with_steps.inp"
    with open(plain.deck) as f:
        deck.write_text(f.read() + "*STEP\n*STATIC\n*BOUNDARY\nEND1, 1, 3\n*END STEP\n")
    out = tmp_path / "with_steps.krx"
    run = run_tool(ccx2krx, [str(deck), "-o", str(out), "--modes", "12", "--units", "m-kg-s"])
    assert run.returncode == 0, run.stderr
    assert sum("*STEP" in line for line in run.stderr.splitlines()) == 1
    f, g = krx.read(out), plain.read()
    np.testing.assert_allclose(f.eigenvalues[6:], g.eigenvalues[6:], rtol=1e-9)
    assert g.units == ["MEGAGRAM", "MILLIMETER", "SECOND", "NEWTON"]
    assert f.units == ["KILOGRAM", "METER", "SECOND", "NEWTON"]


def bad_inputs(deck, where):
    """(case, deck, output, environment, a text the message must hold)."""
    good = deck("bar_c3d8")
    refused = os.path.join(where, "refused.inp")
    with open(good) as f:  # a section naming a material the deck does not define
        text = f.read().replace("MATERIAL=STEEL", "MATERIAL=STEAL")
    with open(refused, "w") as f:
        f.write(text)
    out = os.path.join(where, "out.krx")
    return [("ccx missing", good, out, {"CCX": "/nonexistent/ccx"}, "/nonexistent/ccx"),
            ("deck refused", refused, out, {}, "*ERROR"),
            ("no density", deck("bar_c3d8", density=False), out, {}, "density"),
            ("no output directory", good, os.path.join(where, "missing", "out.krx"), {},
             os.path.join(where, "missing"))]


def test_bad_input_gives_a_message_and_no_file(ccx2krx, deck, tmp_path):
    for case, model, out, env, text in bad_inputs(deck, str(tmp_path)):
        run = run_tool(ccx2krx, [model, "-o", out, "--modes", "8"], env=env)
        assert run.returncode == 1, f"{case}: exit {run.returncode}\n{run.stderr}"
        assert run.stderr.startswith("ccx2krx: "), f"{case}: {run.stderr!r}"
        assert text.lower() in run.stderr.lower(), f"{case}: {run.stderr!r}"
        assert not os.path.exists(out), f"{case}: {out} was written"
    usage = run_tool(ccx2krx, [])
    assert usage.returncode == 2 and usage.stderr
