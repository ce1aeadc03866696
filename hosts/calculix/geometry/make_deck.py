#!/usr/bin/python3
"""Meshes a gmsh geometry script and turns gmsh's .inp into a CalculiX model deck.

    make_deck.py GEOMETRY.geo DECK.inp [-setnumber NAME VALUE]... [--no-density]
                 [--shell THICKNESS]

The deck holds *HEADING, the nodes, the solid elements in one element set SOLID (SHELLS), a node set for
every physical group, steel in mm-t-s (N, mm, tonne, s) and a *SOLID SECTION; gmsh's surface
elements and its element sets are dropped. --no-density leaves *DENSITY out (a deck that cannot
give a mass). With --shell, gmsh meshes the surfaces only and they become shells of that
thickness (CPS8 as S8R, CPS4 as S4R, CPS6 as S6, CPS3 as S3) under a *SHELL SECTION.
GMSH names the gmsh executable (default: gmsh on PATH).
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


SHELLS = {"CPS8": "S8R", "CPS4": "S4R", "CPS6": "S6", "CPS3": "S3"}


def deck_from_gmsh(lines, title, density=True, shell=None):
    """The CalculiX model deck, as text, from the lines of gmsh's .inp; with shell (a
    thickness), its surface elements as shells."""
    out = ["*HEADING", title]
    solids = 0
    for keyword, data in cards(lines):
        word = keyword.split(",")[0].strip().upper()
        if word == "*NODE":
            out += ["*NODE"] + data
        elif word == "*ELEMENT":
            kind = (parameter(keyword, "TYPE") or "").upper()
            if shell is None and kind.startswith("C3D"):  # gmsh adds physical surfaces as CPS*
                out += [f"*ELEMENT, TYPE={kind}, ELSET=SOLID"] + data
                solids += len(data)
            elif shell is not None and kind in SHELLS:
                out += [f"*ELEMENT, TYPE={SHELLS[kind]}, ELSET=SHELLS"] + data
                solids += len(data)
        elif word == "*NSET":
            out += [f"*NSET, NSET={parameter(keyword, 'NSET')}"] + data
    if not solids:
        raise ValueError("the mesh holds no " + ("shell" if shell else "solid") + " element")
    out += ["*MATERIAL, NAME=STEEL", "*ELASTIC", f"{STEEL['E']:g}, {STEEL['nu']:g}"]
    if density:
        out += ["*DENSITY", f"{STEEL['rho']:g}"]
    if shell is None:
        out += ["*SOLID SECTION, ELSET=SOLID, MATERIAL=STEEL"]
    else:
        out += ["*SHELL SECTION, ELSET=SHELLS, MATERIAL=STEEL", f"{shell:g}"]
    return "\n".join(out) + "\n"


def mesh(geometry, numbers, gmsh=None, dimension=3):
    """Lines of the .inp that gmsh writes for geometry, with -setnumber NAME VALUE pairs."""
    gmsh = gmsh or os.environ.get("GMSH", "gmsh")
    with tempfile.TemporaryDirectory() as work:
        raw = os.path.join(work, "mesh.inp")
        command = [gmsh, f"-{dimension}", os.path.abspath(geometry), "-format", "inp", "-o", raw]
        for name, value in numbers:
            command += ["-setnumber", name, str(value)]
        run = subprocess.run(command, capture_output=True, text=True, cwd=work)
        if run.returncode != 0 or not os.path.exists(raw):
            raise RuntimeError(f"gmsh failed on {geometry}:\n{run.stdout}{run.stderr}")
        with open(raw) as f:
            return f.readlines()


def make_deck(geometry, deck, numbers=(), density=True, shell=None):
    """Meshes geometry and writes the deck (of shells of thickness shell, if given); returns the
    deck's path."""
    name = os.path.splitext(os.path.basename(geometry))[0]
    settings = " ".join(f"{k}={v}" for k, v in numbers)
    title = f"{name} meshed by gmsh" + (f" ({settings})" if settings else "")
    lines = mesh(geometry, numbers, dimension=3 if shell is None else 2)
    text = deck_from_gmsh(lines, title, density, shell)
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
    parser.add_argument("--shell", type=float, metavar="THICKNESS",
                        help="mesh the surfaces as shells of this thickness")
    args = parser.parse_args(argv)
    try:
        make_deck(args.geometry, args.deck, args.setnumber, not args.no_density, args.shell)
    except (RuntimeError, ValueError, OSError) as e:
        print(f"make_deck: {e}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
