"""The tables of several Pythons side by side."""

import json
import subprocess
import sys
from pathlib import Path

import pytest

PROGRAM = Path(__file__).parents[2] / "benchmarks/compare_pythons.py"

pytestmark = pytest.mark.plain_python


def line(case, ratio, goal, *, what="plain days", met=None, group="variations", ours=1e-3):
    return {
        "group": group,
        "case": case,
        "what": what,
        "comparison": {"ratio": ratio, "ours": ours},
        "goal": goal,
        "structures": 10_000,
        "met": met,
    }


def run_of(python, *lines, commit="abc", left_out=()):
    machine = {"python": python, "numpy": "2.5.5", "processor": "some", "commit": commit}
    return {"machine": machine, "lines": lines, "left out": left_out}


@pytest.fixture
def joined(tmp_path):
    """Run the program on these runs; return what it prints, and its tables' rows by case."""

    def join(*runs):
        files = []
        for i, run in enumerate(runs):
            files.append(tmp_path / f"{i}.json")
            files[-1].write_text(json.dumps(run))
        done = subprocess.run(
            [sys.executable, PROGRAM, *files], capture_output=True, text=True, check=True
        )
        cells = [
            [cell.strip() for cell in text.strip("|").split("|")]
            for text in done.stdout.splitlines()
            if text.startswith("|")
        ]
        return done.stdout, {case: rest for case, *rest in cells}

    return join


def test_pythons_stand_in_the_order_of_their_versions(joined):
    text, rows = joined(
        run_of("3.15.2", line("a note", 1.3, 1.5, met=True)),
        run_of("3.9.1", line("a note", 1.1, 1.5, met=True)),
    )
    assert rows["variations"] == ["in", "3.9.1", "3.15.2", "goal"]
    assert rows["a note"] == ["plain days", "1.1", "1.3", "1.5"]
    assert "Python 3.9.1, NumPy 2.5.5: 1 of 1 goals met" in text


def test_what_misses_its_goal_is_marked_and_listed(joined):
    text, rows = joined(
        run_of("3.11.7", line("a note", 1.1, 1.5, met=True), line("order", 3.0, 5.0, met=True)),
        run_of("3.12.1", line("a note", 1.75, 1.5, met=False), line("order", 3.0, 5.0, met=True)),
    )
    assert rows["a note"] == ["plain days", "1.1", "1.75 !", "1.5"]
    assert (
        "3.12.1, NumPy 2.5.5: 1 of 2 goals met\n  missed: a note, plain days: 1.75 of 1.5" in text
    )


def test_units_have_nanoseconds_in_brackets(joined):
    dicts = line("dicts", 0.3, 0.5, what="U", met=True, group="styles", ours=4.6e-4)
    _, rows = joined(run_of("3.11.7", dicts))
    assert rows["dicts"] == ["U", "0.3 (46)", "0.5"]


def test_what_one_python_has_not_and_goals_of_some_only(joined):
    text, rows = joined(
        run_of("3.11.7", line("notes", 2.5, None), left_out=["polars cannot be imported"]),
        run_of("3.12.1", line("notes", 1.5, 2.0, met=True), line("order", 4.0, 5.0, met=True)),
    )
    assert rows["notes"] == ["plain days", "2.5", "1.5", "2"]
    assert rows["order"] == ["plain days", "-", "4", "5"]
    assert "left out: polars cannot be imported" in text


def test_runs_of_different_commits_are_told(joined):
    text, _ = joined(run_of("3.11.7"), run_of("3.12.1", commit="unknown"))
    assert "NOT THE SAME" not in text
    text, _ = joined(run_of("3.11.7"), run_of("3.12.1", commit="def"))
    assert "commit: abc, def (NOT THE SAME: do not compare)" in text
