"""What is divided by what, and who is timed when."""

import itertools
from functools import partial

import pytest
from daybench.styles import beyond_hook
from daybench.timing import Settings, Side, compare, cost, in_turn, in_turn_apart


def taking(clock, *nanoseconds):
    """A side whose calls take so long, in turn."""
    following = itertools.cycle(nanoseconds)
    return Side(lambda: clock.pass_time(next(following)))


def test_compare_divides_by_us_and_cost_by_the_peer(clock, settings):
    ours, peer = taking(clock, 1000), taking(clock, 4000)
    speed, multiple = compare(ours, peer, settings), cost(ours, peer, settings)
    assert (speed.ratio, multiple.ratio) == pytest.approx((4.0, 0.25))
    for found in (speed, multiple):
        assert (found.ours, found.peer) == pytest.approx((1e-6, 4e-6))
        assert found.pairs == 4


def test_what_prepares_a_call_is_not_timed(clock, settings):
    prepared = Side(lambda: clock.pass_time(2000), lambda: clock.pass_time(50_000))
    assert in_turn([prepared], settings) == [pytest.approx((2e-6,))] * 4


def test_another_side_begins_each_turn_and_the_times_keep_the_sides_order(clock, settings):
    called = []

    def side(name, nanoseconds):
        def call():
            called.append(name)
            clock.pass_time(nanoseconds)

        return Side(call)

    times = in_turn([side("a", 1000), side("b", 2000), side("c", 3000)], settings)
    assert times == [pytest.approx((1e-6, 2e-6, 3e-6))] * 4
    assert "".join(called[9:]) == "abc bca cab abc".replace(" ", "")


@pytest.mark.plain_python
def test_each_side_is_made_and_called_in_a_process_of_its_own():
    short = Settings(max_pairs=4, min_pairs=4, block_seconds=1e-6)
    makers = [partial(Side, partial(sum, range(size))) for size in (1_000, 300_000)]
    times = in_turn_apart(makers, short)
    assert len(times) == 4
    assert all(little < much for little, much in times)


@pytest.mark.plain_python
def test_a_side_that_cannot_be_made_is_an_error_and_no_endless_waiting(capfd):
    makers = [partial(Side, partial(sum, range(1_000))), partial(Side)]
    with pytest.raises(EOFError):
        in_turn_apart(makers, Settings())
    assert "missing 1 required positional argument: 'call'" in capfd.readouterr().err


def test_a_hook_is_subtracted_before_the_items_divide():
    found = beyond_hook([(2.0, 7.0, 3.0), (2.0, 9.0, 3.0), (4.0, 8.0, 4.0)])
    assert found.ratio == 2.0
    assert (found.ours, found.peer, found.pairs) == (4.0, 2.0, 3)


def test_a_whole_day_has_nothing_subtracted():
    assert beyond_hook([(2.0, 7.0), (2.0, 7.0)]).ratio == 3.5
