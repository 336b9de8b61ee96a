"""In a sub-interpreter the package either works or is refused with an ImportError.

Which of the two is NumPy's to say: most versions of it can be loaded by one interpreter only.
"""

import subprocess
import sys

import numpy as np
import pytest

from support.exits import environment

PROGRAM = """
try:
    import _interpreters as interpreters
except ImportError:
    import _xxsubinterpreters as interpreters

WORK = '''
try:
    import numpy as np
    from quorvane.functions.rotations.virtualization.baskets import FixedBaskets
    from quorvane.functions.rotations.virtualization.columns import StructureColumns
except ImportError:
    print("refused", flush=True)
else:
    pairs = FixedBaskets(
        {"A": {"X": 1.0, "Y": -1.0}}, ["X", "Y"], transformation_expression="ewma(3);rank"
    )
    columns = StructureColumns([("a",)], [0, 1], [0], [2.0], [1.0])
    pairs.set_state(pairs.get_state())
    print(pairs(np.array([1.0, 3.0])).tolist(), columns[0]["value"], flush=True)
'''


def made():
    if hasattr(interpreters, "new_config"):
        return interpreters.create(interpreters.new_config(kind))
    return interpreters.create(isolated=kind == "isolated")


def work_in(interpreter):
    if interpreter is None:
        exec(WORK, {})
    elif hasattr(interpreters, "exec"):
        assert interpreters.exec(interpreter, WORK) is None
    else:
        interpreters.run_string(interpreter, WORK)


def work_in_new():
    interpreter = made()
    work_in(interpreter)
    interpreters.destroy(interpreter)
"""

WORKED = "[1.0, -1.0] 1.0"


@pytest.fixture(params=["legacy", "isolated"])
def run(request):
    """Run a program that may work in interpreters of some kind; the lines that it printed."""

    def run(last_lines):
        program = f"kind = {request.param!r}\n{PROGRAM}\n{last_lines}"
        done = subprocess.run(
            [sys.executable, "-X", "faulthandler", "-c", program],
            env=environment(),
            capture_output=True,
            text=True,
            timeout=120,
            check=False,
        )
        assert done.returncode == 0, done.stderr
        return done.stdout.splitlines()

    return run


def test_the_main_interpreter_goes_on_after_others_have_come_and_gone(run):
    lines = run("work_in(None)\nfor _ in range(3):\n    work_in_new()\n    work_in(None)")
    assert lines[0::2] == [WORKED] * 4
    assert set(lines[1::2]) <= {"refused", WORKED}


@pytest.mark.skipif(
    np.lib.NumpyVersion(np.__version__) < "2.0.0",
    reason="NumPy 1 itself may crash when a sub-interpreter was the first to load it",
)
def test_a_sub_interpreter_may_be_the_first(run):
    lines = run("work_in_new()\nwork_in(None)\nwork_in_new()")
    assert len(lines) == 3
    assert set(lines) <= {"refused", WORKED}


def test_an_interpreter_that_is_still_there_at_the_end_does_no_harm(run):
    lines = run("work_in(None)\nwork_in(made())")
    assert lines[0] == WORKED
    assert lines[1] in ("refused", WORKED)
