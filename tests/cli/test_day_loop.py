"""The replay loop: one call a day, in order, with the day's context."""

import numpy as np
import pytest

from quorvane.cli.day_loop import Progress, replay
from quorvane.cli.recording import OutputRecorder, StructureRecorder
from quorvane.functions.rotations.virtualization.baskets import FixedBaskets

NAMES = ["A", "B", "C"]


@pytest.fixture
def inputs():
    values = np.random.default_rng(3).normal(size=(30, 3))
    values[4, 1] = values[5, 0] = np.nan
    return values


def rotation(**options):
    baskets = {"A/B": {"A": 1.0, "B": -1.0}, "mix": {"A": 0.5, "C": 2.0}}
    return FixedBaskets(baskets, NAMES, transformation_expression="ewma(4)", **options)


def same(left, right):
    return np.array_equal(left, right, equal_nan=True)


def test_the_output_is_that_of_calling_the_rotation_day_by_day(inputs):
    recorder = OutputRecorder(*inputs.shape)
    progress = replay(rotation(), inputs, [recorder])
    assert same(recorder.output, rotation().batch_reference(inputs))
    assert (progress.first_day, progress.next_day) == (0, 30)
    assert progress.seconds > 0.0
    assert progress.seconds_per_day == progress.seconds / 30


def test_the_context_names_the_day_and_puts_every_instrument_in_the_universe(inputs):
    contexts = []

    class Spying(FixedBaskets):
        def __call__(self, *args, context=None):
            contexts.append(context)
            return super().__call__(*args, context=context)

    spying = Spying({"A": {"A": 1.0}}, NAMES, transformation_expression="none")
    replay(spying, inputs, [], first_day=27)
    assert [context.current_day_index for context in contexts] == [27, 28, 29]
    mask = contexts[0].universe_mask
    assert (mask.shape, mask.dtype) == ((30, 3), np.uint8)
    assert mask.all()
    assert mask.base is not None
    assert mask.strides[0] == 0


def test_it_stops_between_two_days_and_goes_on_from_there(inputs):
    whole, parts = OutputRecorder(*inputs.shape), OutputRecorder(*inputs.shape)
    replay(rotation(), inputs, [whole])
    halting, asked = rotation(), []

    def stop_before(day):
        asked.append(day)
        assert same(parts.output[:day], whole.output[:day])
        return day == 11

    progress = replay(halting, inputs, [parts], stop_before=stop_before)
    assert (progress.first_day, progress.next_day) == (0, 11)
    assert asked == list(range(1, 12))
    assert np.isnan(parts.output[11:]).all()
    replay(halting, inputs, [parts], first_day=11)
    assert same(parts.output, whole.output)


@pytest.mark.parametrize("threads", [1, 2])
@pytest.mark.parametrize("most", [1, 2, 7, 1000])
def test_days_are_computed_many_at_once_where_no_answer_is_due(most, threads):
    inputs = np.random.default_rng(3).normal(size=(500, 3))
    whole, parts = OutputRecorder(*inputs.shape), OutputRecorder(*inputs.shape)
    halting, asked = rotation(), []

    def stop_before(day):
        asked.append(day)
        return day >= 450

    progress = replay(
        halting, inputs, [parts], first_day=0, stop_before=stop_before,
        days_before_stop=lambda day: min(most, 450 - day), threads=threads,
    )  # fmt: skip
    assert progress.next_day == asked[-1] == 450
    assert np.diff([0, *asked]).max() <= most
    assert most < 100 or len(asked) < 20
    replay(halting, inputs, [parts], first_day=450)
    replay(rotation(), inputs, [whole])
    assert same(parts.output, whole.output)


def test_nothing_is_left_to_do_after_the_last_day(inputs):
    assert replay(rotation(), inputs, [], first_day=30) == Progress(30, 30, 0.0)
    assert Progress(30, 30, 0.0).seconds_per_day == 0.0


def test_chosen_structures_are_recorded_before_and_after_the_children(inputs):
    records = []
    traced = rotation(trace_sink=records)
    recorder = StructureRecorder(traced, [1], len(inputs))
    replay(traced, inputs, [recorder])
    assert recorder.entered[:, 0].tolist() == pytest.approx(
        [record["txi_input"][1] for record in records], nan_ok=True, abs=0.0
    )
    assert recorder.left[:, 0].tolist() == pytest.approx(
        [record["txi_output"][1] for record in records], nan_ok=True, abs=0.0
    )
