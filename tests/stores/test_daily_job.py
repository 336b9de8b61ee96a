"""The daily job of the examples: killed wherever it is, it is started again and nothing is lost."""

import subprocess
import sys
from pathlib import Path

import pytest

pytest.importorskip("pandas")
pytest.importorskip("msgpack")

ROOT = Path(__file__).parents[2]
JOB = ROOT / "examples/daily_job.py"
PRICES = (ROOT / "examples/prices.csv").read_text(encoding="utf-8").splitlines(keepends=True)

# Runs a program that kills itself before one of its calls that put a file in its place.
KILLED = """
import os, runpy, signal, sys

last, sys.argv = int(sys.argv[1]), sys.argv[2:]
calls = 0

def dying(call):
    def call_or_die(*arguments):
        global calls
        calls += 1
        if calls == last:
            os.kill(os.getpid(), signal.SIGKILL)
        return call(*arguments)
    return call_or_die

os.fsync, os.replace = dying(os.fsync), dying(os.replace)
runpy.run_path(sys.argv[0], run_name="__main__")
"""
CALLS_PER_DAY = 3


def table_of(folder, days):
    folder.mkdir(exist_ok=True)
    (folder / "prices.csv").write_text("".join(PRICES[: 1 + days]), encoding="utf-8")


def run(folder, *before):
    arguments = (folder / name for name in ("prices.csv", "states.db", "signals"))
    return subprocess.run(
        [sys.executable, *before, JOB, *arguments], capture_output=True, text=True, check=False
    )


def run_to_its_end(folder):
    done = run(folder)
    assert (done.returncode, done.stderr) == (0, "")
    return done.stdout


def signals(folder):
    return {path.name: path.read_text() for path in (folder / "signals").glob("*.csv")}


def test_a_job_that_is_killed_and_started_again_gives_what_an_undisturbed_one_gives(tmp_path):
    undisturbed, killed = tmp_path / "undisturbed", tmp_path / "killed"
    table_of(undisturbed, 60)
    assert run_to_its_end(undisturbed) == "60 new days\n"
    table_of(killed, 45)
    assert run_to_its_end(killed) == "45 new days\n"
    table_of(killed, 60)
    # At the first of the new days, in the middle of one, and when all are written but no state is.
    for call in (1, 8 * CALLS_PER_DAY + 2, 15 * CALLS_PER_DAY):
        assert run(killed, "-c", KILLED, str(call)).returncode == -9
    assert len(signals(killed)) == 60
    assert run_to_its_end(killed) == "15 new days\n"
    assert signals(killed) == signals(undisturbed)
    assert run_to_its_end(killed) == "0 new days\n"


def test_the_page_shows_the_job_as_it_is():
    page = (ROOT / "docs/how_to/daily_job.md").read_text(encoding="utf-8")
    assert f"```python\n{JOB.read_text(encoding='utf-8')}```\n" in page
