"""The tests that tell the most for their time come first."""

import pytest

from mutants import order
from mutants.order import Order
from mutants.suite import Test

QUICK, SLOW, PROGRAM = Test("tests/test_quick.py"), Test("tests/test_slow.py"), Test("test_kernel")
FILE = "cpp/kernels/rank.cpp"


@pytest.fixture
def usual():
    return {QUICK: 1.0, SLOW: 5.0, PROGRAM: 3.0}


def batches(usual, most=100.0):
    return list(Order(usual).batches(FILE, usual, most))


def test_quick_ones_come_first(usual):
    assert Order(usual).of(FILE, usual) == [QUICK, PROGRAM, SLOW]


def test_one_that_has_caught_something_comes_earlier(usual):
    known = Order(usual)
    known.learn("cpp/kernels/rank.cpp", SLOW)
    assert known.of(FILE, usual)[0] == SLOW


def test_a_catch_nearby_says_more_than_one_elsewhere(usual):
    known = Order({QUICK: 1.0, SLOW: 1.0, PROGRAM: 1.0})
    known.learn("src/quorvane/running.py", QUICK)
    known.learn("cpp/kernels/zscore.cpp", PROGRAM)
    known.learn(FILE, SLOW)
    assert known.of(FILE, usual) == [SLOW, PROGRAM, QUICK]


def test_what_costs_the_same_has_an_order_of_its_own():
    known = Order({Test("b"): 1.0, Test("a"): 1.0})
    assert known.of(FILE, [Test("b"), Test("a")]) == [Test("a"), Test("b")]


def test_files_share_a_process_and_programs_do_not(usual):
    assert sorted(batches(usual), key=str) == sorted([[QUICK, SLOW], [PROGRAM]], key=str)


def test_the_first_process_is_short_and_those_after_it_longer(monkeypatch):
    monkeypatch.setattr(order, "FIRST_SECONDS", 2.0)
    monkeypatch.setattr(order, "NEXT_SECONDS", 3.0)
    usual = {Test(f"tests/test_{name}.py"): 1.0 for name in "abcdefg"}
    assert [len(batch) for batch in batches(usual)] == [2, 3, 2]


def test_no_more_are_asked_than_time_is_given_for_but_always_one(usual):
    assert batches(usual, most=4.0) == [[PROGRAM], [QUICK]]
    assert batches({SLOW: 5.0}, most=1.0) == [[SLOW]]
