"""Shared set-up of the CalculiX tests: the tools under test, the gmsh meshes (built once per
session) and the exports of each mesh by ccx2krx (run once per session and set of options).

CCX2KRX and KRXDUMP name the tools (CTest passes the build's); ccx and gmsh must be on PATH (or
named by CCX and GMSH): a machine without them fails these tests rather than skipping them."""

import os
import re
import shutil
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass

import pytest

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
GEOMETRY = os.path.join(ROOT, "hosts", "calculix", "geometry")
sys.path[:0] = [os.path.join(ROOT, "python"), GEOMETRY, HERE]

import calculix_output  # noqa: E402
import krx  # noqa: E402
from make_deck import make_deck  # noqa: E402

# name: geometry script, its parameters, and how close density x volume comes with this mesh
# (exact for plane-faced solids, a curved hole wall is approximated by the quadratic tetrahedra).
MODELS = {
    "bracket_c3d10": ("bracket.geo", {"h": 6}, 1e-4),
    "bar_c3d8": ("bar.geo", {"n": 6, "order": 1}, 1e-12),
    "bar_c3d20": ("bar.geo", {"n": 4, "order": 2}, 1e-12),
    "wedge_c3d6": ("wedge.geo", {"h": 5, "order": 1}, 1e-12),
    "wedge_c3d15": ("wedge.geo", {"h": 6, "order": 2}, 1e-12),
}
MODES = 12
# Element types made from another model's deck: the model, its type and the type it becomes (a
# ten-node tetrahedron keeps its corners as a four-node one).
DERIVED = {"bar_c3d8r": ("bar_c3d8", "C3D8", "C3D8R"),
           "bar_c3d20r": ("bar_c3d20", "C3D20", "C3D20R"),
           "bracket_c3d4": ("bracket_c3d10", "C3D10", "C3D4"),
           "bar_two_materials": ("bar_c3d20", "STEEL", "ALUMINIUM")}


@dataclass
class Export:
    deck: str       # the CalculiX deck handed to ccx2krx
    out: str        # the KRX file
    keep: str       # CalculiX's work directory (--keep)

    def read(self):
        return krx.read(self.out)


def built_tool(variable):
    path = os.environ.get(variable)
    if not path or not os.access(path, os.X_OK):
        pytest.fail(f"{variable} must name the built tool (got {path!r})")
    return path


@pytest.fixture(scope="session")
def ccx2krx():
    for program in (os.environ.get("CCX", "ccx"), os.environ.get("GMSH", "gmsh")):
        if not shutil.which(program):
            pytest.fail(f"{program} is not installed (scripts/install-deps.sh installs it)")
    return built_tool("CCX2KRX")


def derive_deck(path, old, new):
    """The text of the deck (one *ELEMENT block) with its elements of type old made of type new,
    with as many of their nodes as new takes; or, old being the material, with the second half
    of its elements made of material new (aluminium, with a density of its own)."""
    with open(path) as f:
        text = f.read()
    start = text.index("*ELEMENT")
    end = text.index("\n*", start) + 1
    block = text[start:end]
    if old.startswith("C3D"):
        block = block.replace(f"TYPE={old},", f"TYPE={new},")
        if new == "C3D4":  # the id and the corners of each element, one to a line
            block = re.sub(r"^(\d+(?:,\s*\d+){4}),.*$", r"\1", block, flags=re.M)
        text = text[:start] + block + text[end:]
    else:
        numbers = re.findall(r"\d+", block.split("\n", 1)[1])
        ids = numbers[::1 + int(re.search(r"C3D(\d+)", block).group(1))]  # the id, then the nodes
        half = len(ids) // 2
        section = f"*SOLID SECTION, ELSET=SOLID, MATERIAL={old}\n"
        assert section in text
        text = text.replace(section, "".join(
            f"*ELSET, ELSET={name}\n" + "".join(f"{i},\n" for i in part) +
            f"*SOLID SECTION, ELSET={name}, MATERIAL={material}\n"
            for name, part, material in (("FIRST", ids[:half], old), ("OTHER", ids[half:], new))))
        text += f"*MATERIAL, NAME={new}\n*ELASTIC\n70000, 0.34\n*DENSITY\n2.7e-9\n"
    return text


def hold_lowest_face(path):
    """The text of the deck with its nodes at the lowest x held by *BOUNDARY (all three
    translations)."""
    ids, xyz = calculix_output.deck_nodes(path)
    face = ids[xyz[:, 0] < xyz[:, 0].min() + 1e-6]
    with open(path) as f:
        return (f.read() + "*NSET,NSET=HELDFACE\n" + "".join(f"{i},\n" for i in face) +
                "*BOUNDARY\nHELDFACE,1,3\n")


@pytest.fixture(scope="session")
def deck(tmp_path_factory):
    """deck(name, density=True, held=False) -> the path of the model's deck, meshed on first use;
    held holds its face at the lowest x."""
    made = {}
    where = tmp_path_factory.mktemp("decks")

    def get(name, density=True, held=False):
        key = (name, density, held)
        if key not in made:
            path = str(where / (name + "_no_density" * (not density) + "_held" * held + ".inp"))
            if held or name in DERIVED:
                text = (hold_lowest_face(get(name)) if held else
                        derive_deck(get(DERIVED[name][0]), *DERIVED[name][1:]))
                with open(path, "w") as f:
                    f.write(text)
            else:
                geometry, numbers, _ = MODELS[name]
                make_deck(os.path.join(GEOMETRY, geometry), path, numbers.items(), density)
            made[key] = path
        return made[key]

    return get


def run_tool(tool, args, options=None, env=None):
    environment = dict(os.environ, OMP_NUM_THREADS="1")
    environment.update(env or {})
    environment.pop("QOR_KRXWRITE_OPTIONS", None)
    if options is not None:
        environment["QOR_KRXWRITE_OPTIONS"] = options
    return subprocess.run([tool, *args], capture_output=True, text=True, env=environment,
                          timeout=300)


def export_all(ccx2krx, where, jobs):
    """{label: Export} of the jobs (label, deck, arguments[, options[, environment]]), two at a
    time, each with its file and work directory (--keep) in where."""
    def export(label, deck, args, options=None, env=None):
        out, keep = str(where / f"{label}.krx"), str(where / f"work_{label}")
        run = run_tool(ccx2krx, [deck, "-o", out, "--keep", keep, *args], options, env)
        assert run.returncode == 0, f"ccx2krx failed on {label}:\n{run.stderr}"
        return label, Export(deck, out, keep)

    with ThreadPoolExecutor(2) as pool:
        return dict(pool.map(lambda job: export(*job), jobs))


def calculix(work, **jobs):
    """Runs CalculiX on the model part that ccx2krx left in work, followed by each job's text (as
    work/job.inp), all jobs at once."""
    runs = []
    for job, text in jobs.items():
        with open(os.path.join(work, job + ".inp"), "w") as f:
            f.write("*INCLUDE,INPUT=model.inp\n" + text)
        runs.append(subprocess.Popen([os.environ.get("CCX", "ccx"), "-i", job], cwd=work,
                                     env=dict(os.environ, OMP_NUM_THREADS="1"), text=True,
                                     stdout=subprocess.PIPE, stderr=subprocess.STDOUT))
    for run in runs:
        out, _ = run.communicate(timeout=300)
        assert run.returncode == 0 and "*ERROR" not in out, out[-2000:]


@pytest.fixture(scope="session")
def export(ccx2krx, deck, tmp_path_factory):
    """export(name, options=None, solver="calculix", stress=True, held=False, interfaces=()) ->
    Export of the model with MODES modes, run once per session for each set of arguments."""
    done = {}

    def get(name, options=None, solver="calculix", stress=True, held=False, interfaces=()):
        key = (name, options, solver, stress, held, interfaces)
        if key not in done:
            args = ["--modes", str(MODES), "--solver", solver] + (["--stress"] if stress else [])
            args += [a for point in interfaces for a in ("--interface", point)]
            # CalculiX's path recovers the stresses of its eigenvectors as the own path does, on
            # two threads, so that its file's stresses hold the recovery against CalculiX's .frd
            # (the .frd reader is held against CalculiX's static stresses in
            # test_component_modes.py). CalculiX itself stays on one thread: it too reads
            # OMP_NUM_THREADS, and its threads spin against the other tests'.
            env = None
            if solver == "calculix" and stress:
                env = {"CCX2KRX_RECOVER_STRESSES": "1", "OMP_NUM_THREADS": "2"}
                env.update({f"CCX_NPROC_{part}": "1"
                            for part in ("STIFFNESS", "RESULTS", "EQUATION_SOLVER")})
            done[key] = export_all(ccx2krx, tmp_path_factory.mktemp(name),
                                   [(name, deck(name, held=held), args, options, env)])[name]
        return done[key]

    return get
