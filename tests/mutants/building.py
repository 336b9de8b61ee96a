"""The builds in copies of the checkout."""

import os
import subprocess
import sys
from pathlib import Path

# A change can have the compiler count without an end, too.
LIMIT = 600


class BuildError(Exception):
    """The unchanged sources cannot be built."""


def configure(checkout, preset, jobs=1):
    """Set up a build with the interpreter that runs this, and bring it up to date."""
    environment = {"CMAKE_GENERATOR": "Ninja", **os.environ}
    for command in (
        ["cmake", "--preset", preset, f"-DPython_EXECUTABLE={sys.executable}"],
        ["cmake", "--build", "--preset", preset, "-j", str(jobs)],
    ):
        done = subprocess.run(
            command, cwd=checkout, env=environment, capture_output=True, text=True, check=False
        )
        if done.returncode != 0:
            raise BuildError(f"{' '.join(command)} in {checkout}:\n{done.stdout}{done.stderr}")
    return Path(checkout) / "build" / preset


def builds(build):
    """Compile what has changed; tell whether that can be done."""
    command = ["cmake", "--build", str(build), "-j", "1"]
    try:
        done = subprocess.run(command, capture_output=True, timeout=LIMIT, check=False)
    except subprocess.TimeoutExpired:
        return False
    return done.returncode == 0


def products(build):
    """What is run of a build: its modules and its programs."""
    modules = sorted((build / "python").rglob("*.so"))
    programs = sorted(path for path in (build / "cpp" / "tests").glob("test_*") if path.is_file())
    return [path.relative_to(build) for path in modules + programs]


def same_products(build, store):
    """Whether a build gave the same bytes as the one that is kept in `store`."""
    return all(
        (build / path).read_bytes() == (store / path).read_bytes() for path in products(store)
    )
