"""A trace has the lines that ran, of both languages and of processes that were started."""

import shutil
import subprocess
import sys

import pytest

from mutants.mutant import Source
from mutants.reach import bits
from mutants.running import run
from mutants.tracing import Trace, lines_of_code

pytest.importorskip("coverage", reason="coverage.py sees which lines run")

CPP = """\
inline int never() {
    return 1;
}
int main(int count, char**) {
    if (count > 1) {
        return never();
    }
    return 0;
}
"""

PYTHON = """\
import subprocess, sys
if len(sys.argv) > 1:
    inner = 1
else:
    done = subprocess.run([sys.executable, __file__, "again"])
"""


@pytest.fixture
def checkout(tmp_path):
    checkout = tmp_path / "checkout"
    for path, text in {"cpp/a.cpp": CPP, "src/quorvane/a.py": PYTHON}.items():
        (checkout / path).parent.mkdir(parents=True)
        (checkout / path).write_text(text)
    (checkout / "build").mkdir()
    return checkout


@pytest.mark.skipif(
    not (shutil.which("g++") and shutil.which("gcov")), reason="g++ and gcov count the lines"
)
def test_lines_of_cpp_are_those_that_ran_and_those_that_can(checkout, tmp_path):
    build = ["g++", "--coverage", "-O0", "-o", "a", "../cpp/a.cpp"]
    subprocess.run(build, cwd=checkout / "build", check=True)
    trace = Trace(checkout, tmp_path / "trace")
    ended = run([str(checkout / "build" / "a")], checkout, trace.environment, 60)
    assert ended.status == 0, ended.output
    ran, known = trace.ran()
    assert ran == {"cpp/a.cpp": bits([4, 5, 8])}
    assert known == {"cpp/a.cpp": bits([1, 2, 4, 5, 6, 8])}
    assert not list((checkout / "build").rglob("*.gcda"))


def test_lines_of_python_are_those_of_all_processes(checkout, tmp_path):
    trace = Trace(checkout, tmp_path / "trace")
    command = [sys.executable, *trace.tracer, "src/quorvane/a.py"]
    ended = run(command, checkout, trace.environment, 60)
    assert ended.status == 0, ended.output
    assert trace.ran() == ({"src/quorvane/a.py": bits([1, 2, 3, 5])}, {})


def test_lines_of_code_are_those_of_functions_too():
    source = Source("a.py", b"def f():\n    # said\n    return (\n        1 + g\n    )\n")
    assert lines_of_code(source) == bits([1, 3, 4])
