"""Only the tests that reach a mutant are asked, and none that may be is left out."""

import pytest

from mutants.mutant import Mutant, Source
from mutants.reach import Reach, bits
from mutants.suite import Test

NEAR, FAR, IMPORTS = Test("near"), Test("far"), Test("imports")
TEXT = b"line\n" * 20


def mutant(*ranges, file="a.cpp"):
    return Mutant(Source(file, TEXT), 0, 1, b"L", "constant", ranges)


@pytest.fixture
def reach():
    return Reach(
        ran={
            NEAR: {"a.cpp": bits([3, 4])},
            FAR: {"a.cpp": bits([9]), "b.cpp": bits([1])},
            IMPORTS: {"a.cpp": bits([1])},
        },
        known={"a.cpp": bits([1, 3, 4, 5, 9]), "b.cpp": bits([1])},
        sources={"a.cpp": "1", "b.cpp": "2"},
        tests={NEAR: "n", FAR: "f", IMPORTS: "i"},
    )


def test_the_innermost_lines_that_can_run_decide(reach):
    assert reach.of(mutant((3, 3), (1, 9))) == {NEAR}
    assert reach.of(mutant((4, 9))) == {NEAR, FAR}


def test_lines_that_cannot_run_belong_to_what_is_around_them(reach):
    assert reach.of(mutant((8, 8), (8, 9), (1, 9))) == {FAR}


def test_lines_that_could_run_and_never_do_are_not_reached(reach):
    assert reach.of(mutant((5, 5), (1, 9))) == set()


def test_a_place_outside_all_that_runs_is_reached_by_whoever_runs_the_file(reach):
    assert reach.of(mutant((15, 15))) == {NEAR, FAR, IMPORTS}
    assert reach.of(mutant((15, 15), file="b.cpp")) == {FAR}


def test_a_file_of_which_nothing_is_known_is_reached_by_all(reach):
    assert reach.of(mutant((1, 1), file="new.hpp")) == {NEAR, FAR, IMPORTS}


def test_a_source_that_has_changed_is_known_by_file(reach):
    assert reach.forget(reach.tests, {"a.cpp": "other", "b.cpp": "2"}) == ["a.cpp"]
    assert reach.of(mutant((3, 3))) == {NEAR, FAR, IMPORTS}
    assert reach.of(mutant((1, 1), file="b.cpp")) == {FAR}


def test_tests_that_have_changed_or_gone_are_forgotten(reach):
    reach.forget({NEAR: "n", FAR: "other"}, reach.sources)
    assert set(reach.ran) == {NEAR}


def test_a_map_is_the_same_when_it_is_read_again(reach, tmp_path):
    path = tmp_path / "folder" / "reach.json"
    reach.save(path)
    assert Reach.load(path) == reach
    assert Reach.load(tmp_path / "nowhere") == Reach()
