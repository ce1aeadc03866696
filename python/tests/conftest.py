import ctypes
import os
import subprocess
import sys

import pytest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.dirname(HERE))
sys.path.insert(0, HERE)

import libhost  # noqa: E402


@pytest.fixture(scope="session")
def build_dir():
    path = os.path.join(HERE, "..", "..", os.environ.get("KRX_BUILD_DIR", "build"))
    if not os.path.exists(os.path.join(path, "libkrxlib.so")):
        pytest.skip(f"no library build in {path}: build it first or set KRX_BUILD_DIR")
    return path


@pytest.fixture(scope="session")
def library_files(build_dir, tmp_path_factory):
    """{version code or option word: path} of the small model the library wrote."""
    lib = ctypes.CDLL(os.path.join(build_dir, "libkrxlib.so"))
    d = tmp_path_factory.mktemp("written")
    files = {}
    for options, code in libhost.OPTION_CODES:
        files[code] = str(d / f"small_{code}.krx")
        assert libhost.write_small(lib, files[code], options, d) == 0, options
    os.environ.pop("QOR_KRXWRITE_OPTIONS", None)
    return files


@pytest.fixture(scope="session")
def example_file(build_dir, tmp_path_factory):
    d = tmp_path_factory.mktemp("example")
    env = {k: v for k, v in os.environ.items() if k != "QOR_KRXWRITE_OPTIONS"} | {"TMP": str(d)}
    subprocess.run([os.path.join(build_dir, "examples", "example_host"), "sample.krx"], cwd=d, env=env,
                   check=True, capture_output=True)
    return str(d / "sample.krx")


@pytest.fixture(scope="session")
def krxdump(build_dir):
    tool = os.path.join(build_dir, "krxdump")
    return lambda path, block: subprocess.run([tool, path, "-b", str(block)], capture_output=True,
                                              text=True, check=True).stdout
