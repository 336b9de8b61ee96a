"""The day of a context, and the call: what it holds, hands on and lets go."""

import traceback

import numpy as np
import pytest

from support.fakes import Context, RaisingChild, RecordingChild, make_rotation
from virtualization.daily.helpers import NAN, PAIR, Log, one_day

# compute: the day


def day_of_child_context(base, context):
    child = RecordingChild()
    rotation = make_rotation(base, child_rotations=[child])
    rotation._current_parent_context = context
    one_day(rotation)
    context = child.calls[0][2]
    return context.current_day_index, context.universe_mask.shape


def test_child_context_is_of_the_parents_day(base):
    assert day_of_child_context(base, Context(current_day_index=7)) == (7, (8, 4))


def test_child_context_is_of_day_zero_without_a_parent(base):
    assert day_of_child_context(base, None) == (0, (1, 4))


def test_child_context_is_of_day_zero_for_a_parent_without_a_day(base):
    assert day_of_child_context(base, Context()) == (0, (1, 4))


@pytest.mark.parametrize("day", ["7", 7.9, np.int32(7)])
def test_parents_day_is_converted_with_int(base, day):
    index, shape = day_of_child_context(base, Context(current_day_index=day))
    assert type(index) is int
    assert (index, shape) == (7, (8, 4))


def test_parents_day_that_is_no_number_fails_with_the_items_stored(base):
    rotation = make_rotation(base, [[PAIR]])
    rotation._current_parent_context = Context(current_day_index="x")
    with pytest.raises(ValueError, match="invalid literal"):
        one_day(rotation)
    assert rotation._txi_input[0] == 2.0


def test_parents_day_property_error_other_than_attribute_error_propagates(base):
    class Failing:
        @property
        def current_day_index(self):
            raise LookupError("day")

    with pytest.raises(LookupError, match="day"):
        day_of_child_context(base, Failing())


def test_parent_context_is_handed_to_the_child_context_step(base):
    parents = []

    def _make_child_context(self, parent_context, day_index):
        parents.append((parent_context, day_index))

    rotation = make_rotation(base, attributes={"_make_child_context": _make_child_context})
    context = Context(current_day_index=2)
    rotation(np.zeros(6), context=context)
    assert parents == [(context, 2)]


# The call


def test_call_returns_the_days_output(base):
    result = make_rotation(base, [[PAIR]])(np.arange(6.0))
    np.testing.assert_array_equal(result, [2.0, -2.0, NAN, NAN, NAN, NAN])


def test_call_returns_whatever_the_framework_returns(base, siblings):
    rotation = make_rotation(base)
    siblings.RotationBase.__call__ = lambda self, *args, context=None: ("result", args, context)
    assert rotation(1, 2, context=3) == ("result", (1, 2), 3)


def test_call_passes_the_context_on_by_name_even_when_none(base, siblings):
    calls = []
    siblings.RotationBase.__call__ = lambda self, *args, **kwargs: calls.append((args, kwargs))
    make_rotation(base)(1)
    assert calls == [((1,), {"context": None})]


def test_call_takes_no_other_keyword(base):
    with pytest.raises(TypeError):
        make_rotation(base)(np.zeros(6), other=1)


def test_context_is_held_while_the_framework_runs(base):
    held = []
    context = Context(current_day_index=0)
    rotation = make_rotation(base, [lambda *args: held.append(rotation._current_parent_context)])
    with pytest.raises(TypeError):
        rotation(np.zeros(6), context=context)
    assert held == [context]


def test_context_is_released_after_a_call(base):
    rotation = make_rotation(base, [[PAIR]])
    rotation(np.zeros(6), context=Context())
    assert rotation._current_parent_context is None


@pytest.mark.parametrize("error", [LookupError("x"), KeyboardInterrupt(), GeneratorExit()])
def test_context_is_released_after_a_failing_call(base, error):
    rotation = make_rotation(base, child_rotations=[RaisingChild(error)])
    with pytest.raises(type(error)) as caught:
        rotation(np.zeros(6), context=Context())
    assert caught.value is error
    assert rotation._current_parent_context is None


def test_context_left_over_is_replaced_by_none_during_a_call_without_one(base):
    held = []

    def hook(*arguments):
        held.append(rotation._current_parent_context)
        return []

    rotation = make_rotation(base, [hook])
    rotation._current_parent_context = Context()
    rotation(np.zeros(6))
    assert held == [None]


def test_inner_call_on_the_same_instance_leaves_no_context(base):
    held = []

    def outer(*arguments):
        rotation(np.zeros(6), context=Context(current_day_index=9))
        held.append(rotation._current_parent_context)
        return []

    child = RecordingChild()
    rotation = make_rotation(base, [outer], child_rotations=[child])
    rotation(np.zeros(6), context=Context(current_day_index=3))
    assert held == [None]
    assert [context.current_day_index for _, _, context in child.calls] == [9, 0]


def test_context_is_set_once_and_reset_once_through_setattr(base):
    writes = []

    def __setattr__(self, name, value):
        if name == "_current_parent_context":
            writes.append(value)
        object.__setattr__(self, name, value)

    rotation = make_rotation(base, attributes={"__setattr__": __setattr__})
    writes.clear()
    context = Context()
    rotation(np.zeros(6), context=context)
    assert writes == [context, None]


def test_failing_reset_replaces_the_error_of_the_call_and_keeps_it_as_context(base):
    first, second = LookupError("first"), OSError("second")

    def __setattr__(self, name, value):
        if name == "_current_parent_context" and value is None and vars(self).get("armed"):
            raise second
        object.__setattr__(self, name, value)

    attributes = {"__setattr__": __setattr__}
    rotation = make_rotation(base, child_rotations=[RaisingChild(first)], attributes=attributes)
    rotation.armed = True
    with pytest.raises(OSError, match="second") as caught:
        rotation(np.zeros(6), context=Context())
    assert caught.value is second
    assert second.__context__ is first


def test_hook_failure_keeps_the_hooks_frame_in_the_traceback(base):
    def failing_hook(*arguments):
        raise LookupError("hook")

    with pytest.raises(LookupError) as caught:
        make_rotation(base, [failing_hook])(np.zeros(6))
    assert "failing_hook" in [frame.name for frame in traceback.extract_tb(caught.tb)]


def test_call_computes_exactly_once(base):
    log = Log()
    make_rotation(base, attributes={"compute": log.step("compute")})(np.zeros(6))
    assert log == ["compute"]
