"""What can catch a mutant: files of tests, and the programs that test the kernels."""

import hashlib
import os
import re
import sys
import tempfile
from dataclasses import dataclass
from pathlib import Path

from mutants import judge
from mutants.running import run

# Tests of what judges here, and of other tools; none runs the package for its own sake.
OTHERS = ("tests/mutants/", "tests/branches/", "tests/benchmarks/")

# How a test tells, but for the signals that end it.
FAILS, HANGS = "fails", "hangs"

# pytest's: all passed, and nothing was left to run.
PASSING = {0, 5}

# How much longer than usual a test may take; the machine may have other things to do.
PATIENCE, SLOWNESS = 20.0, 5.0

# More than any file of tests takes, even where every line is counted.
SECONDS = 600.0

FAILURE = re.compile(r"^(?:FAILED|ERROR) (tests/\S+)", re.MULTILINE)


@dataclass(frozen=True)
class Test:
    """A file of tests, or a program, by its path in the checkout or below the build's tests."""

    name: str

    __test__ = False

    @property
    def is_program(self):
        return not self.name.endswith(".py")


@dataclass(frozen=True)
class Answer:
    """Whether tests passed; if not, the one that told and how, and how long all of it took."""

    passed: bool
    by: str
    how: str
    seconds: float


def tests_of(root):
    """All tests of the checkout, sorted by name."""
    root = Path(root)
    files = (path.relative_to(root).as_posix() for path in root.glob("tests/**/test_*.py"))
    programs = (path.stem for path in root.glob("cpp/tests/test_*.cpp"))
    names = [name for name in files if not name.startswith(OTHERS)] + list(programs)
    return [Test(name) for name in sorted(names)]


def digest(root, test):
    """What changes when the test does."""
    path = f"cpp/tests/{test.name}.cpp" if test.is_program else test.name
    return hashlib.sha256((Path(root) / path).read_bytes()).hexdigest()


def ask(folder, preset, tests, usual, *, options=(), tracer=(sys.executable,), environment=None):
    """Run files of tests, or one program, in a copy of the checkout on its build.

    `usual` has the seconds that each test takes, `options` are pytest's, `tracer` is the command
    that runs a script of Python, and `environment` is added to the tests'. Gives an `Answer`.
    """
    folder = Path(folder)
    build = folder / "build" / preset
    usually = sum(usual.get(test, PATIENCE) for test in tests)
    longest = max(usual.get(test, PATIENCE) for test in tests)
    slower = crowd()
    with tempfile.NamedTemporaryFile(prefix="qm-") as running:
        if tests[0].is_program:
            (test,) = tests
            command = [str(build / "cpp" / "tests" / test.name)]
        else:
            names = [test.name for test in tests]
            command = [*tracer, "tests/mutants/judge.py", *options, *names]
        ended = run(
            command,
            folder,
            {
                "PYTHONPATH": str(build / "python"),
                judge.LIMIT: str(slower * (PATIENCE + SLOWNESS * longest)),
                judge.RUNNING: running.name,
                **(environment or {}),
            },
            slower * (3 * PATIENCE + SLOWNESS * usually),
        )
        return answer(ended, Path(running.name).read_text(), tests[0])


def crowd():
    """How many times slower than alone everything goes, by those who wait for a processor."""
    return max(1.0, os.getloadavg()[0] / (os.cpu_count() or 1))


def answer(ended, running, first):
    """What a run says, when `running` was running at its end, or `first` if nothing was."""
    by = running or first.name
    if ended.status in PASSING:
        return Answer(True, "", "", ended.seconds)
    if ended.status is None:
        return Answer(False, by, HANGS, ended.seconds)
    if ended.status < 0:
        return Answer(False, by, f"is ended by signal {-ended.status}", ended.seconds)
    if failed := FAILURE.findall(ended.output):
        return Answer(False, failed[0], FAILS, ended.seconds)
    return Answer(False, by, "hangs" if running else FAILS, ended.seconds)
