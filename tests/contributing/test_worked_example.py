"""The worked example of CONTRIBUTING.md can be followed to the letter."""

import os
import shutil
import subprocess
import sys
import sysconfig
from pathlib import Path

import numpy as np
import pytest

import quorvane
from contributing.worked_example import ROOT, follow

pytestmark = pytest.mark.plain_python

STRICT = ["-std=c++20", "-Wall", "-Wextra", "-Wconversion", "-Werror", "-ffp-contract=off"]


@pytest.fixture(scope="module")
def followed(tmp_path_factory):
    """A copy of the repository in which all edits are made, and these."""
    folder = tmp_path_factory.mktemp("repository")
    return folder, follow(folder)


def run(*command, folder, **environment):
    done = subprocess.run(
        command, cwd=folder, env={**os.environ, **environment}, capture_output=True, text=True
    )
    assert done.returncode == 0, done.stdout + done.stderr


def test_it_touches_each_layer(followed):
    _, edits = followed
    layers = ["cpp/kernels", "cpp/tests", "cpp/rotations", "src/quorvane/functions"]
    layers += ["src/quorvane/expressions", "tests"]
    paths = [edit.path for edit in edits]
    assert all(any(path.startswith(layer) for path in paths) for layer in layers)
    text = (ROOT / "CONTRIBUTING.md").read_text(encoding="utf-8")
    blocks = sum(text.count(f"```{language}\n") for language in ("cpp", "cmake", "py", "pyi"))
    assert len(edits) == blocks, "a block of the page is no edit that could be followed"


def test_it_is_written_as_the_checks_want_it(followed):
    folder, edits = followed
    paths = [edit.path for edit in edits]
    sources = [path for path in paths if path.endswith((".py", ".pyi"))]
    if shutil.which("ruff"):
        run("ruff", "check", "--no-cache", *sources, folder=folder)
        run("ruff", "format", "--no-cache", "--check", *sources, folder=folder)
    if shutil.which("clang-format"):
        shutil.copy(ROOT / ".clang-format", folder)
        compiled = [path for path in paths if path.endswith((".cpp", ".hpp"))]
        run("clang-format", "--dry-run", "-Werror", *compiled, folder=folder)


def test_its_kernel_passes_its_test(followed):
    folder, _ = followed
    compiler = shutil.which("c++") or pytest.skip("there is no C++ compiler")
    sources = ["cpp/kernels/dead_zone.cpp", "cpp/tests/test_dead_zone.cpp"]
    run(compiler, *STRICT, "-Icpp", *sources, "-o", "test_dead_zone", folder=folder)
    run("./test_dead_zone", folder=folder)


def test_its_module_compiles(followed):
    folder, _ = followed
    compiler = shutil.which("c++") or pytest.skip("there is no C++ compiler")
    headers = sysconfig.get_path("include")
    if not Path(headers, "Python.h").exists():
        pytest.skip("there are no headers of Python")
    numpy_version = "NPY_1_22_API_VERSION"
    run(
        *(compiler, *STRICT, "-fsyntax-only", "-Icpp"),
        *("-isystem", headers, "-isystem", np.get_include()),
        *(f"-DNPY_NO_DEPRECATED_API={numpy_version}", f"-DNPY_TARGET_VERSION={numpy_version}"),
        "cpp/rotations/dead_zone/module.cpp",
        folder=folder,
    )


@pytest.mark.skipif("QUORVANE_LONG" not in os.environ, reason="compiles for a minute: make long")
def test_it_builds_and_passes_its_tests(followed):
    folder, _ = followed
    cmake = shutil.which("cmake") or pytest.skip("there is no CMake")
    configure = ["--preset", "dev", f"-DPython_EXECUTABLE={sys.executable}"]
    run(cmake, *configure, "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O0", folder=folder)
    targets = ["--target", "ext_dead_zone", "--target", "test_dead_zone"]
    run(cmake, "--build", "--preset", "dev", *targets, folder=folder)
    run("ctest", "--preset", "dev", "-R", "dead_zone", "--no-tests=error", folder=folder)
    importable = folder / "build" / "dev" / "python"
    # All other modules are those that are tested here, since they have not changed.
    installed = Path(quorvane.__file__).parent
    for module in installed.rglob("*.so"):
        shutil.copy(module, importable / "quorvane" / module.relative_to(installed))
    run(
        *(sys.executable, "-m", "pytest", "-q", "-p", "no:cacheprovider"),
        *("tests/rotations/test_dead_zone.py", "tests/rotations/test_wide_rows.py"),
        folder=folder,
        PYTHONPATH=str(importable),
    )
