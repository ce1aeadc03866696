import os
import subprocess
import sys

import pytest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.dirname(HERE))
sys.path.insert(0, HERE)

import libhost  # noqa: E402

REPO = os.path.dirname(os.path.dirname(HERE))


@pytest.fixture(scope="session")
def build_dir():
    """The C++ build (KRX_BUILD_DIR, default build/ of the repository)."""
    path = os.path.join(REPO, os.environ.get("KRX_BUILD_DIR", "build"))
    if not os.path.exists(os.path.join(path, "libkrxlib.so")):
        pytest.skip(f"no library build in {path}: build it first or set KRX_BUILD_DIR")
    return path


@pytest.fixture(scope="session")
def library_files(build_dir, tmp_path_factory):
    """{version code: path} of the small model written by the library for every option set,
    plus 'no_ortho' and 'full_invar'."""
    lib = libhost.library(build_dir)
    d = tmp_path_factory.mktemp("written")
    files = {}
    for options, code in libhost.OPTION_CODES + [("no_ortho", "no_ortho"),
                                                  ("full_invar", "full_invar")]:
        path = d / f"small_{code}.krx"
        assert libhost.write_small(lib, path, options, d) == 0, options
        files[code] = str(path)
    os.environ.pop("QOR_KRXWRITE_OPTIONS", None)
    return files


@pytest.fixture(scope="session")
def example_file(build_dir, tmp_path_factory):
    d = tmp_path_factory.mktemp("example")
    host = os.path.join(build_dir, "examples", "example_host")
    env = dict(os.environ, TMP=str(d))
    env.pop("QOR_KRXWRITE_OPTIONS", None)
    subprocess.run([host, "sample.krx"], cwd=d, env=env, check=True, capture_output=True)
    return str(d / "sample.krx")


@pytest.fixture(scope="session")
def krxdump(build_dir):
    def run(path, block):
        r = subprocess.run([os.path.join(build_dir, "krxdump"), path, "-b", str(block)],
                           capture_output=True, text=True, check=True)
        return r.stdout
    return run
