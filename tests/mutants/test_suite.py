"""What tests say of a mutant, however they end."""

from pathlib import Path

import pytest

from mutants import suite
from mutants.running import Ended
from mutants.suite import Answer, Test, answer, ask

ROOT = Path(__file__).parents[2]

FILES = {
    "good": "def test_it(): pass\n",
    "bad": "def test_fine(): pass\ndef test_it(): assert not 1\n",
    "broken": "import nowhere\n",
    "crash": "import os\ndef test_it(): os.abort()\n",
    "hang": "import time\ndef test_it(): time.sleep(600)\n",
    "marked": "import pytest\n@pytest.mark.slow\ndef test_it(): assert not 1\n",
}


@pytest.fixture
def folder(tmp_path):
    """A copy of a checkout with tests that end in many ways."""
    judging = tmp_path / "tests" / "mutants"
    judging.mkdir(parents=True)
    (judging / "judge.py").symlink_to(ROOT / "tests" / "mutants" / "judge.py")
    (tmp_path / "pytest.ini").write_text("[pytest]\nmarkers = slow\naddopts = -ra\n")
    for name, text in FILES.items():
        (tmp_path / "tests" / f"test_{name}.py").write_text(text)
    return tmp_path


@pytest.mark.parametrize(
    ("name", "by", "how"),
    [
        ("good", "", ""),
        ("bad", "tests/test_bad.py::test_it", "fails"),
        ("broken", "tests/test_broken.py", "fails"),
        ("crash", "tests/test_crash.py::test_it", "is ended by signal 6"),
        ("hang", "tests/test_hang.py", "hangs"),
    ],
)
def test_an_end_is_told_by_who_and_how(folder, monkeypatch, name, by, how):
    if name == "hang":
        monkeypatch.setattr(suite, "PATIENCE", 2.0)
        monkeypatch.setattr(suite, "crowd", lambda: 1.0)
    test = Test(f"tests/test_{name}.py")
    told = ask(folder, "mutants", [test], {test: 0.1 if name == "hang" else 10.0})
    # Where the machine is slow, it may be stopped before its first test begins.
    who = told.by.split("::")[0] if name == "hang" else told.by
    assert (told.passed, who, told.how) == (not by, by, how)


def test_others_on_the_machine_are_no_reason_to_call_a_test_hanging(monkeypatch):
    monkeypatch.setattr(suite.os, "cpu_count", lambda: 2)
    for waiting, slower in ((0.5, 1.0), (2.0, 1.0), (10.0, 5.0)):
        monkeypatch.setattr(suite.os, "getloadavg", lambda waiting=waiting: (waiting, 0.0, 0.0))
        assert suite.crowd() == slower


def test_the_first_failure_of_several_files_is_told(folder):
    tests = [Test("tests/test_good.py"), Test("tests/test_bad.py"), Test("tests/test_crash.py")]
    told = ask(folder, "mutants", tests, {}, options=("-x",))
    assert told.by == "tests/test_bad.py::test_it"


def test_tests_that_have_nothing_to_say_catch_nothing(folder):
    told = ask(folder, "mutants", [Test("tests/test_marked.py")], {}, options=("-m", "not slow"))
    assert told.passed


def test_a_program_is_run_from_its_build(folder):
    program = folder / "build" / "mutants" / "cpp" / "tests" / "test_kernel"
    program.parent.mkdir(parents=True)
    program.write_text("#!/bin/sh\nexit 1\n")
    program.chmod(0o755)
    told = ask(folder, "mutants", [Test("test_kernel")], {})
    assert (told.passed, told.by, told.how) == (False, "test_kernel", "fails")


def test_a_process_that_ends_without_a_word_was_hanging_in_the_test_that_ran():
    assert answer(Ended(1, 1.0, ""), "t.py::test", Test("t.py")) == Answer(
        False, "t.py::test", "hangs", 1.0
    )


def test_tests_are_files_and_programs_but_not_those_of_the_judging(tmp_path):
    for path in ("tests/a/test_b.py", "tests/mutants/test_c.py", "cpp/tests/test_d.cpp"):
        (tmp_path / path).parent.mkdir(parents=True, exist_ok=True)
        (tmp_path / path).write_text(path)
    tests = suite.tests_of(tmp_path)
    assert {test.name: test.is_program for test in tests} == {
        "tests/a/test_b.py": False,
        "test_d": True,
    }
    assert len({suite.digest(tmp_path, test) for test in tests}) == 2
