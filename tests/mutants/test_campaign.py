"""A run draws by its seed, stops in time, and goes on where it stopped."""

import pytest

from mutants.campaign import Campaign, drawn
from mutants.judging import CAUGHT, SURVIVED, Verdict, WrongVerdict
from mutants.mutant import Mutant, Source
from mutants.order import Order
from mutants.reach import Reach
from mutants.results import Results
from mutants.suite import FAILS, Answer, Test

TEST, OTHER = Test("tests/test_a.py"), Test("tests/test_b.py")
SOURCE = Source("cpp/a.cpp", b"0123456789")
MUTANTS = [Mutant(SOURCE, place, place + 1, b"x", "constant", ()) for place in range(10)]


class Judge:
    """A worker that says what it is told to."""

    def __init__(self, says):
        self.says = says
        self.judged = []

    def judge(self, mutant, tests, order, most):
        self.judged.append((mutant, tests))
        said = self.says(mutant)
        if isinstance(said, Exception):
            raise said
        return said


@pytest.fixture
def campaign(tmp_path):
    """Make a run with workers that say what they are told to; its texts are in `said`."""

    def make(*says):
        reach = Reach(ran={TEST: {"cpp/a.cpp": 1}, OTHER: {"cpp/a.cpp": 1}})
        results = Results(tmp_path / "results.jsonl")
        made = Campaign([Judge(one) for one in says], reach, Order({TEST: 1.0}), results, print)
        return made, results

    return make


def caught(mutant):
    return Verdict(CAUGHT, f"{TEST.name}::test_it", FAILS)


def survives(mutant):
    return Verdict(SURVIVED)


def test_a_seed_draws_the_same_each_time():
    assert drawn(MUTANTS, 1) == drawn(MUTANTS, 1)
    assert drawn(MUTANTS, 1) != drawn(MUTANTS, 2)
    assert sorted(drawn(MUTANTS, 1), key=MUTANTS.index) == MUTANTS


def test_each_mutant_is_judged_once_by_one_of_the_workers(campaign):
    run, results = campaign(caught, survives)
    run.run(MUTANTS, 60, 100)
    judged = [mutant for worker in run.workers for mutant, _ in worker.judged]
    assert sorted(judged, key=MUTANTS.index) == MUTANTS
    assert len(results) == 10


def test_only_tests_are_asked_that_reach_the_mutant_and_pass_without_it(campaign):
    run, _ = campaign(caught)
    run.run(MUTANTS[:1], 60, 100)
    assert run.workers[0].judged == [(MUTANTS[0], {TEST})]


def test_no_mutant_is_begun_when_the_time_is_over(campaign):
    run, results = campaign(caught)
    run.run(MUTANTS, 0, 100)
    assert len(results) == 0


def test_a_run_goes_on_where_it_was_stopped(campaign):
    def stops(mutant):
        return KeyError("stopped") if mutant is MUTANTS[4] else caught(mutant)

    run, results = campaign(stops)
    with pytest.raises(KeyError, match="stopped"):
        run.run(MUTANTS, 60, 100)
    assert len(results) == 4
    again, results = campaign(caught)
    again.run(MUTANTS, 60, 100)
    assert [mutant for mutant, _ in again.workers[0].judged] == MUTANTS[4:]
    assert again.order.of("cpp/a.cpp", [TEST]) == [TEST]
    assert len(results) == 10


def test_the_time_of_a_run_is_that_of_all_its_parts(campaign):
    run, results = campaign(caught)
    results.add(MUTANTS[0], caught(None), 100.0)
    run.run(MUTANTS, 100, 100)
    assert len(results) == 1


def test_a_test_that_fails_by_itself_has_no_say(campaign):
    doubts = iter([False, False, True])

    def doubted(mutant):
        answer = Answer(False, TEST.name, FAILS, 1.0)
        return WrongVerdict(TEST, answer) if next(doubts, False) else survives(mutant)

    def first_caught(mutant):
        return caught(mutant) if mutant is MUTANTS[0] and not run.left_out else doubted(mutant)

    run, results = campaign(first_caught)
    run.run(MUTANTS[:5], 60, 100)
    assert TEST.name in run.left_out
    # All five have a verdict in the end, and none is that of the test.
    assert results.count(SURVIVED) == len(results) == 5
    assert (MUTANTS[0], set()) in run.workers[0].judged


def test_what_a_test_caught_meanwhile_that_was_found_out_does_not_count(campaign):
    def found_out(mutant):
        if run.left_out:
            return survives(mutant)
        run.left_out[TEST.name] = "found out by another worker"
        return caught(mutant)

    run, results = campaign(found_out)
    run.run(MUTANTS[:1], 60, 100)
    assert results.count(SURVIVED) == len(results) == 1
