"""Only tests that pass without a mutant are asked, and how long they take is measured once."""

import subprocess
from types import SimpleNamespace

import pytest

from mutants import usual
from mutants.suite import FAILS, Answer, Test

GOOD, BAD = Test("tests/test_good.py"), Test("tests/test_bad.py")


@pytest.fixture
def root(tmp_path):
    root = tmp_path / "root"
    for path in ("src/a.py", "tests/test_good.py", "tests/mutants/order.py", "docs/a.md"):
        (root / path).parent.mkdir(parents=True, exist_ok=True)
        (root / path).write_text("1")
    subprocess.run(["git", "init", "-q"], cwd=root, check=True)
    return root


@pytest.fixture
def measure(root, tmp_path, monkeypatch):
    """Measure two tests; gives what came of it, and the tests that were run for it."""
    asked = []

    def ask(folder, preset, tests, usually):
        asked.extend(tests)
        return Answer(GOOD in tests, "" if GOOD in tests else BAD.name, FAILS, 2.5)

    def measure_both():
        asked.clear()
        worker = SimpleNamespace(folder=tmp_path, preset="mutants")
        measured = usual.measure(root, tmp_path, [GOOD, BAD], [worker], print)
        return measured, list(asked)

    monkeypatch.setattr(usual, "ask", ask)
    return measure_both


def test_those_that_fail_are_left_out_and_named(measure):
    (seconds, failing), _ = measure()
    assert seconds == {GOOD: 2.5}
    assert failing == {BAD.name: f"{BAD.name} fails"}


def test_what_is_known_is_not_measured_again(measure):
    first, asked = measure()
    assert asked == [GOOD, BAD]
    assert measure() == (first, [])


def test_a_change_of_sources_or_tests_has_all_measured_again(measure, root):
    measure()
    (root / "src" / "a.py").write_text("2")
    assert measure()[1] == [GOOD, BAD]


@pytest.mark.parametrize("path", ["tests/mutants/order.py", "docs/a.md"])
def test_what_decides_nothing_about_tests_is_no_change(root, path):
    before = usual.state_of(root)
    (root / path).write_text("2")
    assert usual.state_of(root) == before
