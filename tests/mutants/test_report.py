"""The report says what was found, and the command chooses what is asked for."""

from types import SimpleNamespace

import pytest

from mutants import report, survivor_list
from mutants.judging import CAUGHT, SAME_CODE, SURVIVED, UNREACHED, UNVIABLE, Verdict
from mutants.mutant import Mutant, Source
from mutants.results import Results

SOURCES = [Source(path, b"0123456789\n") for path in ("cpp/a.cpp", "src/quorvane/a.py")]
CPP, PYTHON = (
    [Mutant(source, place, place + 1, b"x", "constant", ()) for place in range(10)]
    for source in SOURCES
)
LIST = """
[reasons]
same = "It does the same."
["src/quorvane/a.py"]
"0123456789" = { "012x456789" = "same" }
"""


@pytest.fixture
def listed(tmp_path):
    path = tmp_path / "list.toml"
    path.write_text(LIST)
    return survivor_list.read(path)


@pytest.fixture
def results(tmp_path):
    results = Results(tmp_path / "results.jsonl")
    for mutant in CPP[:3]:
        results.add(mutant, Verdict(CAUGHT, "test_a", "fails"), 60.0)
    results.add(CPP[3], Verdict(UNREACHED), 60.0)
    results.add(CPP[4], Verdict(UNVIABLE), 60.0)
    results.add(CPP[5], Verdict(SAME_CODE), 60.0)
    results.add(PYTHON[0], Verdict(CAUGHT, "test_a", "hangs"), 60.0)
    results.add(PYTHON[3], Verdict(SURVIVED, tests=7), 120.0)
    return results


def test_figures_are_told_by_language_and_with_what_does_the_same_apart(results, listed):
    text = report.markdown(results, listed, 5, {})
    assert "seed 5" in text
    assert "8 drawn in 2 minutes" in text
    assert "| C++ | 4 | 3 | 0 | 1 | 75.0 % | 75.0 % |" in text
    assert "| Python | 2 | 1 | 1 | 0 | 50.0 % | 100.0 % |" in text
    assert "| all | 6 | 4 | 1 | 1 | 66.7 % | 80.0 % |" in text
    assert "1 that cannot be compiled, 1 of which the compiler makes the same code" in text
    assert "fails: 3, hangs: 1" in text


def test_survivors_are_shown_with_their_reasons(results, listed):
    text = report.markdown(results, listed, 5, {})
    assert "* 1: It does the same." in text
    assert "* 1: no reason is listed" in text
    assert "src/quorvane/a.py:1: constant, survived (7 files of tests, 0 s), same" in text
    assert "    - 0123456789\n    + 012x456789" in text


def test_tests_that_had_no_say_are_named(results, listed):
    text = report.markdown(results, listed, 5, {"tests/test_b.py": "tests/test_b.py fails"})
    assert "Left out" in text
    assert "* tests/test_b.py fails" in text


def test_sources_and_survivors_of_another_run_can_be_chosen(results):
    command = pytest.importorskip("mutants.command", reason="tree-sitter finds the places")

    def chosen(again=None, only="*"):
        return command.choose(CPP + PYTHON, SimpleNamespace(again=again, only=only))

    assert chosen() == CPP + PYTHON
    assert chosen(only="cpp/*") == CPP
    assert chosen(again=results.path) == [CPP[3], PYTHON[3]]


def test_one_run_keeps_another_out(tmp_path, monkeypatch):
    command = pytest.importorskip("mutants.command", reason="tree-sitter finds the places")
    monkeypatch.setattr(command, "PLACE", tmp_path)
    with command.alone(), pytest.raises(SystemExit, match="another run"), command.alone():
        pass
    with command.alone():
        pass


def test_runs_over_what_was_chosen_have_results_of_their_own():
    command = pytest.importorskip("mutants.command", reason="tree-sitter finds the places")

    def name(again=None, only="*"):
        return command.name_of_run(SimpleNamespace(seed=1, again=again, only=only))

    assert name() == "results-1"
    assert name(only="cpp/kernels/*") == "results-1-cpp_kernels"
    assert name(again="a.jsonl") == "again-1"
