"""The gate of `make bench-instructions`: counts that grew fail it, of recorded Pythons only."""

import json
import subprocess
import sys
from pathlib import Path

import pytest

PROGRAM = Path(__file__).parents[1] / "benchmarks/count_instructions.py"

pytestmark = pytest.mark.plain_python


def left_by_a_run(folder, *, day, unmap, python="3.15.2"):
    """What a run leaves whose two cases take so many instructions a day, 10 and 20 days long."""
    folder.mkdir()
    for case, days, count in (("day", 10, day), ("unmap", 20, unmap)):
        for turn in (1, 2):
            # Starting and stopping costs 5,000.
            total = 5_000 + turn * days * count
            (folder / f"profile.{case}.{turn}").write_text(
                f"desc: Trigger: Client Request: {case}|{turn * days}|\n\ntotals: {total}\n"
            )
    run = {"python": python, "numpy": "2.5.5", "compiler": "GCC"}
    cases = {"day": (100, 10), "unmap": (1, 20)}
    (folder / "cases.json").write_text(json.dumps({**run, "cases": cases}))


@pytest.fixture
def gate(tmp_path):
    """Run the program, a copy with nothing recorded yet; return its status and last line."""
    program = tmp_path / "benchmarks" / PROGRAM.name
    program.parent.mkdir()
    program.write_text(PROGRAM.read_text())
    (program.parent / "instructions.json").write_text("{}")

    def run(*arguments):
        done = subprocess.run(
            [sys.executable, program, *arguments], cwd=tmp_path, capture_output=True, text=True
        )
        assert not done.stderr
        return done.returncode, done.stdout.rstrip().rpartition("\n")[2]

    return run


@pytest.mark.parametrize(
    ("day", "unmap", "grown"),
    [
        (200_000, 30_000, ""),
        (211_999, 33_499, ""),
        (100_000, 33_501, "unmap"),
        (212_001, 90_000, "day, unmap"),
    ],
)
def test_a_case_may_take_a_twentieth_and_a_little_each_day_more_than_recorded(
    tmp_path, gate, day, unmap, grown
):
    left_by_a_run(tmp_path / "before", day=200_000, unmap=30_000)
    left_by_a_run(tmp_path / "after", day=day, unmap=unmap, python="3.15.7")
    assert gate("--record", "before") == (0, "")
    status, verdict = gate("--report", "after")
    on = "on Python 3.15.7 with NumPy 2.5.5"
    if grown:
        assert (status, verdict) == (1, f"More instructions than recorded {on}: {grown}")
    else:
        assert status == 0
        assert verdict == f"None of 2 cases takes more instructions than recorded {on}"


def test_a_python_without_counts_is_compared_with_nothing(tmp_path, gate):
    left_by_a_run(tmp_path / "before", day=2000, unmap=300)
    left_by_a_run(tmp_path / "after", day=4000, unmap=600, python="3.14.1")
    gate("--record", "before")
    status, verdict = gate("--report", "after")
    assert status == 0
    assert verdict == "Nothing is recorded for Python 3.14, so nothing is compared"
