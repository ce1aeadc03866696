#!/usr/bin/python3
"""Meshes a gmsh geometry script and turns gmsh's .inp into a CalculiX model deck.

    make_deck.py GEOMETRY.geo DECK.inp [-setnumber NAME VALUE]... [--no-density]

The deck holds *HEADING, the nodes, the solid elements in one element set SOLID, a node set for
every physical group, steel in mm-t-s (N, mm, tonne, s) and a *SOLID SECTION; gmsh's surface
elements and its element sets are dropped. --no-density leaves *DENSITY out (a deck that cannot
give a mass). GMSH names the gmsh executable (default: gmsh on PATH).
"""

import argparse
import os
import subprocess
import sys
import tempfile

STEEL = {"E": 210000.0, "nu": 0.3, "rho": 7.85e-9}  # N/mm^2, -, t/mm^3


def cards(lines):
    """(keyword line, data lines) per card; comment lines (**) are dropped."""
    out = []
    for line in lines:
        line = line.rstrip("\n")
        if line.startswith("**") or not line.strip():
            continue
        if line.startswith("*"):
            out.append((line, []))
        elif out:
            out[-1][1].append(line)
    return out


def parameter(keyword, name):
    for part in keyword.split(",")[1:]:
        key, _, value = part.partition("=")
        if key.strip().upper() == name:
            return value.strip()
    return None


def deck_from_gmsh(lines, title, density=True):
    """The CalculiX model deck, as text, from the lines of gmsh's .inp."""
    out = ["*HEADING", title]
    solids = 0
    for keyword, data in cards(lines):
        word = keyword.split(",")[0].strip().upper()
        if word == "*NODE":
            out += ["*NODE"] + data
        elif word == "*ELEMENT":
            kind = (parameter(keyword, "TYPE") or "").upper()
            if kind.startswith("C3D"):  # solids only: gmsh adds the physical surfaces as CPS*
                out += [f"*ELEMENT, TYPE={kind}, ELSET=SOLID"] + data
                solids += len(data)
        elif word == "*NSET":
            out += [f"*NSET, NSET={parameter(keyword, 'NSET')}"] + data
    if not solids:
        raise ValueError("the mesh holds no solid element")
    out += ["*MATERIAL, NAME=STEEL", "*ELASTIC", f"{STEEL['E']:g}, {STEEL['nu']:g}"]
    if density:
        out += ["*DENSITY", f"{STEEL['rho']:g}"]
    out += ["*SOLID SECTION, ELSET=SOLID, MATERIAL=STEEL"]
    return "\n".join(out) + "\n"


def mesh(geometry, numbers, gmsh=None):
    """Lines of the .inp that gmsh writes for geometry, with -setnumber NAME VALUE pairs."""
    gmsh = gmsh or os.environ.get("GMSH", "gmsh")
    with tempfile.TemporaryDirectory() as work:
        raw = os.path.join(work, "mesh.inp")
        command = [gmsh, "-3", os.path.abspath(geometry), "-format", "inp", "-o", raw]
        for name, value in numbers:
            command += ["-setnumber", name, str(value)]
        run = subprocess.run(command, capture_output=True, text=True, cwd=work)
        if run.returncode != 0 or not os.path.exists(raw):
            raise RuntimeError(f"gmsh failed on {geometry}:\n{run.stdout}{run.stderr}")
        with open(raw) as f:
            return f.readlines()


def make_deck(geometry, deck, numbers=(), density=True):
    """Meshes geometry and writes the deck; returns the deck's path."""
    name = os.path.splitext(os.path.basename(geometry))[0]
    settings = " ".join(f"{k}={v}" for k, v in numbers)
    title = f"{name} meshed by gmsh" + (f" ({settings})" if settings else "")
    text = deck_from_gmsh(mesh(geometry, numbers), title, density)
    with open(deck, "w") as f:
        f.write(text)
    return deck


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("geometry")
    parser.add_argument("deck")
    parser.add_argument("-setnumber", nargs=2, action="append", default=[],
                        metavar=("NAME", "VALUE"), help="a parameter of the geometry script")
    parser.add_argument("--no-density", action="store_true")
    args = parser.parse_args(argv)
    try:
        make_deck(args.geometry, args.deck, args.setnumber, not args.no_density)
    except (RuntimeError, ValueError, OSError) as e:
        print(f"make_deck: {e}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
