"""The table of `make trust`: every check is run and counted, whatever became of those before."""

import importlib.util
import os
import subprocess
import sys
from pathlib import Path

import pytest

PROGRAM = Path(__file__).parents[1] / "tools/trust.py"
CHECKS = ["set-up", "asan", "valgrind", "refleaks", "fuzz", "long", "matrix"]

pytestmark = pytest.mark.plain_python

# Stands in for make: tells what it was asked for, and fails for one of the checks.
MAKE = """\
#!/bin/sh
echo "12 passed, 1 skipped in 0.50s"
echo "asked for $*"
[ "$1" != "$FAILING" ]
"""


@pytest.fixture(scope="module")
def trust():
    spec = importlib.util.spec_from_file_location("trust", PROGRAM)
    module = importlib.util.module_from_spec(spec)
    # A dataclass looks its module up.
    sys.modules["trust"] = module
    spec.loader.exec_module(module)
    yield module
    del sys.modules["trust"]


def run_all(folder, failing):
    """Run every check with the stand-in; return the status and the rows of the table by command."""
    stand_in = folder / "make"
    stand_in.write_text(MAKE)
    stand_in.chmod(0o755)
    environment = {**os.environ, "PATH": f"{folder}:{os.environ['PATH']}", "FAILING": failing}
    done = subprocess.run(
        [sys.executable, PROGRAM, "--inputs", "70", "--logs", folder],
        env=environment,
        capture_output=True,
        text=True,
    )
    written = (folder / "table.md").read_text()
    assert done.stdout.endswith(written)
    cells = [line.strip("| ").split(" | ") for line in written.splitlines() if "| `" in line]
    return done.returncode, {command.strip("`"): rest for command, *rest in cells}


def test_every_check_is_in_the_table_with_its_counts_and_times(tmp_path):
    status, rows = run_all(tmp_path, failing="")
    assert status == 0
    commands = [f"make {name}" for name in CHECKS]
    commands[CHECKS.index("fuzz")] += " INPUTS=70"
    assert list(rows) == [*commands, "make trust"]
    assert rows["make long"] == ["12 passed, 1 skipped", "0 min 00 s", "0 min 00 s"]
    assert rows["make asan"][0] == "12 passed, 1 skipped; asked for asan"


@pytest.mark.parametrize("failing", ["set-up", "valgrind", "fuzz"])
def test_a_check_that_fails_is_told_and_keeps_no_other_from_running(tmp_path, failing):
    status, rows = run_all(tmp_path, failing)
    assert status == 1
    failed = [command for command, (result, *_) in rows.items() if "FAILED" in result]
    assert [command.split()[1] for command in failed] == [failing]
    assert f"{failing}.log" in rows[failed[0]][0]


def test_the_runs_of_a_check_are_counted_apart(trust):
    text = (
        "...s.1051 passed, 2 skipped, 51 deselected in 30.12s\n"
        "100% tests passed, 0 tests failed out of 8\n"
        "=== 1 failed, 6923 passed, 2 errors, 4 warnings in 301.20s (0:05:01) ===\n"
    )
    assert trust.test_counts(text) == ("1,051 passed, 2 skipped + 1 failed, 6,923 passed, 2 errors")


def test_inputs_of_all_processes_are_added_up(trust):
    text = "seed 7\nseed 7\n" + "items: 500 inputs in 2.0 s, 250 a second\n" * 2
    assert trust.input_counts(text) == "seed 7, items 1,000"


def test_every_row_of_the_matrix_is_told_once(trust):
    rows = (
        "3.10.13  1.24.0   passed   10933 passed, 2 skipped in 200.00s (0:03:20)\n"
        "3.14.10  2.5.5    FAILED   1 failed, 10926 passed in 190.00s (0:03:10)\n"
        "3.12     -        -        BUILD FAILED, see build.log\n"
    )
    assert trust.matrix_rows(f"{rows}\nPython   NumPy    result   tests: tests\n{rows}") == (
        "3.10.13 with 1.24.0: 10,933 passed, 2 skipped; "
        "3.14.10 with 2.5.5: 1 failed, 10,926 passed; "
        "3.12 with -: BUILD FAILED, see build.log"
    )
