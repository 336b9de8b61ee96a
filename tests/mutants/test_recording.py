"""What tests reach is recorded once, and again where it may have changed."""

import subprocess

import pytest

from mutants import building
from mutants.reach import Reach, bits
from mutants.suite import Answer, Test

recording = pytest.importorskip("mutants.recording", reason="tree-sitter finds the sources")

TEST, PROGRAM = Test("tests/test_a.py"), Test("test_k")
FILES = {
    "cpp/a.cpp": "int a;\n",
    "cpp/tests/test_k.cpp": "int k;\n",
    "src/quorvane/a.py": "x = 1\n",
    "tests/test_a.py": "1\n",
}


@pytest.fixture
def root(tmp_path):
    root = tmp_path / "root"
    for path, text in FILES.items():
        (root / path).parent.mkdir(parents=True, exist_ok=True)
        (root / path).write_text(text)
    subprocess.run(["git", "init", "-q"], cwd=root, check=True)
    return root


@pytest.fixture
def up_to_date(root, tmp_path, monkeypatch):
    """Bring the map up to date; gives it, the tests that were run for it, and what was said."""
    recorded = []

    def record(checkout, place, test):
        recorded.append(test)
        known = {"cpp/a.cpp": bits([1]), "cpp/tests/test_k.cpp": bits([1])}
        return Answer(True, "", "", 1.0), {"cpp/a.cpp": bits([1])}, known

    def bring():
        recorded.clear()
        said = []
        reach = recording.up_to_date(root, tmp_path / "place", 2, said.append)
        return reach, set(recorded), said

    monkeypatch.setattr(building, "configure", lambda folder, preset, jobs: None)
    monkeypatch.setattr(recording, "record", record)
    return bring


def test_all_tests_are_recorded_at_first(up_to_date):
    reach, recorded, said = up_to_date()
    assert recorded == {TEST, PROGRAM}
    assert reach.known == {"cpp/a.cpp": bits([1]), "src/quorvane/a.py": bits([1])}
    assert reach.ran[TEST] == {"cpp/a.cpp": bits([1])}
    assert said[0] == "recording what 2 tests reach"


def test_what_is_recorded_stays(up_to_date, tmp_path):
    first, _, _ = up_to_date()
    again, recorded, said = up_to_date()
    assert (again, recorded, said) == (first, set(), [])
    assert Reach.load(tmp_path / "place" / "reach.json") == first


def test_a_test_that_has_changed_is_recorded_again(up_to_date, root):
    up_to_date()
    (root / "tests/test_a.py").write_text("2\n")
    assert up_to_date()[1] == {TEST}
    assert up_to_date()[1] == set()


def test_lines_of_a_source_that_has_changed_are_not_taken_for_those_it_had(up_to_date, root):
    up_to_date()
    (root / "cpp/a.cpp").write_text("\nint a;\n")
    reach, recorded, said = up_to_date()
    assert recorded == set()
    assert "cpp/a.cpp" not in reach.known
    assert "1 sources have changed" in said[0]
    # Not even when a test is recorded on what the source has become.
    (root / "tests/test_a.py").write_text("2\n")
    assert "cpp/a.cpp" not in up_to_date()[0].known
