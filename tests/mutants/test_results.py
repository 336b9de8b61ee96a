"""Results outlive the run that had them."""

import pytest

from mutants.judging import CAUGHT, SAME_CODE, SURVIVED, UNREACHED, UNVIABLE, Verdict
from mutants.mutant import Mutant, Source
from mutants.results import Results
from mutants.suite import Test

SOURCE = Source("cpp/a.cpp", b"if (a < b) c();\n" * 9)
FINISHED = Verdict(CAUGHT, "tests/test_a.py::test_it", "fails", 2.5, 3)


def mutant(place):
    return Mutant(SOURCE, 6 + 16 * place, 7 + 16 * place, b"<=", "boundary", ())


@pytest.fixture
def results(tmp_path):
    return Results(tmp_path / "results.jsonl")


def test_what_was_judged_is_known_to_the_next_run(results):
    results.add(mutant(0), FINISHED, 12.0)
    again = Results(results.path)
    assert mutant(0) in again
    assert mutant(1) not in again
    assert again.seconds == 12.0
    assert list(again.verdicts()) == [
        (("cpp/a.cpp", "if (a < b) c();", "if (a <= b) c();"), FINISHED)
    ]


def test_a_line_that_was_cut_off_is_no_result(results):
    results.add(mutant(0), FINISHED, 1.0)
    results.add(mutant(1), FINISHED, 2.0)
    results.path.write_text(results.path.read_text()[:-20])
    again = Results(results.path)
    assert len(again) == 1
    again.add(mutant(1), FINISHED, 3.0)
    assert len(Results(results.path)) == 2


def test_only_what_can_be_told_counts(results):
    for place, status in enumerate([CAUGHT, CAUGHT, CAUGHT, SURVIVED, UNREACHED]):
        results.add(mutant(place), Verdict(status), 1.0)
    for place, status in enumerate([UNVIABLE, SAME_CODE], start=5):
        results.add(mutant(place), Verdict(status), 1.0)
    assert results.share_caught() == 60.0
    assert results.count(SURVIVED, UNREACHED) == 2
    assert len(results) == 7


def test_nothing_judged_is_nothing_missed(results):
    assert results.share_caught() == 100.0


def test_catches_of_a_test_that_cannot_be_trusted_are_judged_again(results):
    results.add(mutant(0), FINISHED, 1.0)
    results.add(mutant(1), Verdict(CAUGHT, "test_kernel", "fails"), 2.0)
    results.drop_catches_of(Test("tests/test_a.py"))
    for read in (results, Results(results.path)):
        assert mutant(0) not in read
        assert mutant(1) in read
