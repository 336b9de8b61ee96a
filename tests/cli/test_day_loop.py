"""The loop over days: in order, many at once where nobody looks at each."""

import numpy as np
import pytest

import quorvane as qv
from quorvane.cli.basket_days import BasketDays, Choices
from quorvane.cli.day_loop import Progress, replay
from quorvane.cli.recording import OutputRecorder, StructureRecorder
from quorvane.cli.structures import fixed_book
from quorvane.cli.trace import TraceRecorder
from quorvane.expressions import registered
from quorvane.functions.rotations.virtualization.baskets import FixedBaskets

NAMES = ["A", "B", "C"]


@pytest.fixture
def inputs():
    values = np.random.default_rng(3).normal(size=(30, 3))
    values[4, 1] = values[5, 0] = np.nan
    return values


BASKETS = {"A/B": {"A": 1.0, "B": -1.0}, "mix": {"A": 0.5, "C": 2.0}}


def days_of(inputs, threads=None):
    return BasketDays(fixed_book(BASKETS, NAMES), Choices("ewma(4)", threads=threads), inputs)


def same(left, right):
    return np.array_equal(left, right, equal_nan=True)


def test_the_output_is_that_of_calling_the_rotation_day_by_day(inputs):
    recorder = OutputRecorder(*inputs.shape)
    progress = replay(days_of(inputs), [recorder])
    rotation = FixedBaskets(BASKETS, NAMES, transformation_expression="ewma(4)")
    assert same(recorder.output, rotation.batch_reference(inputs))
    assert (progress.first_day, progress.next_day) == (0, 30)
    assert progress.seconds > 0.0


def test_it_stops_between_two_days_and_goes_on_from_there(inputs):
    whole, parts = OutputRecorder(*inputs.shape), OutputRecorder(*inputs.shape)
    replay(days_of(inputs), [whole])
    halting, asked = days_of(inputs), []

    def stop_before(day):
        asked.append(day)
        assert same(parts.output[:day], whole.output[:day])
        return day == 11

    progress = replay(halting, [parts], stop_before=stop_before)
    assert (progress.first_day, progress.next_day) == (0, 11)
    assert asked == list(range(1, 12))
    assert np.isnan(parts.output[11:]).all()
    replay(halting, [parts], first_day=11)
    assert same(parts.output, whole.output)


@pytest.mark.parametrize("threads", [1, 2])
@pytest.mark.parametrize("most", [1, 2, 7, 1000])
def test_days_are_computed_many_at_once_where_no_answer_is_due(most, threads):
    inputs = np.random.default_rng(3).normal(size=(500, 3))
    whole, parts = OutputRecorder(*inputs.shape), OutputRecorder(*inputs.shape)
    halting, asked = days_of(inputs, threads), []

    def stop_before(day):
        asked.append(day)
        return day >= 450

    progress = replay(
        halting,
        [parts],
        stop_before=stop_before,
        days_before_stop=lambda day: min(most, 450 - day),
    )
    assert progress.next_day == asked[-1] == 450
    assert np.diff([0, *asked]).max() <= most
    assert most < 100 or len(asked) < 20
    replay(halting, [parts], first_day=450)
    replay(days_of(inputs), [whole])
    assert same(parts.output, whole.output)


@pytest.fixture
def halved():
    qv.register("halved", lambda values, state: (values / 2.0, state))
    yield
    del registered.FUNCTIONS["halved"]


def test_functions_of_ones_own_begin_with_a_single_day(inputs, halved):
    asked = []

    def stop_before(day):
        asked.append(day)
        return False

    days = BasketDays(fixed_book(BASKETS, NAMES), Choices("halved"), inputs)
    replay(days, [], stop_before=stop_before, days_before_stop=lambda day: 1000)
    assert asked[0] == 1
    assert len(asked) < 29


def test_nothing_is_left_to_do_after_the_last_day(inputs):
    assert replay(days_of(inputs), [], first_day=30) == Progress(30, 30, 0.0)


def test_chosen_structures_are_recorded_before_and_after_the_functions(inputs):
    days = days_of(inputs)
    chosen, slots = StructureRecorder(days, ["mix"]), TraceRecorder(days)
    replay(days, [chosen, slots])
    assert same(chosen.entered[:, 0], slots.txi_input[:, 1])
    assert same(chosen.left[:, 0], slots.txi_output[:, 1])
    assert np.isnan(chosen.entered[5, 0])
    assert np.isfinite(chosen.left[5, 0])
