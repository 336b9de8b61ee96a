"""batch_reference: many days, one call each."""

import numpy as np
import pytest

from support.fakes import Context, RaisingChild, RecordingChild, make_rotation, structure
from virtualization.daily.helpers import NAN, PAIR, SINGLE, unallocated


def recording_call(base, outputs=None):
    """Make a rotation whose call records its arguments and returns rows of two."""
    calls = []

    def __call__(self, *args, context=None):
        calls.append((args, context))
        return np.array([len(calls), -1.0]) if outputs is None else outputs[len(calls) - 1]

    return make_rotation(base, attributes={"__call__": __call__}), calls


def test_batch_without_matrices_fails(base):
    with pytest.raises(ValueError, match="requires inputs") as caught:
        make_rotation(base, attributes={"_name": "R"}).batch_reference(context=Context())
    assert caught.value.args == ("R: batch_reference requires inputs",)


def test_batch_calls_once_per_row_with_that_row_of_each_matrix(base):
    rotation, calls = recording_call(base)
    first, second = np.arange(10.0).reshape(5, 2), np.arange(15.0).reshape(5, 3)
    result = rotation.batch_reference(first, second)
    assert len(calls) == 5
    for day, (args, context) in enumerate(calls):
        assert [row.tolist() for row in args] == [first[day].tolist(), second[day].tolist()]
        assert context.current_day_index == day
    assert result.tolist() == [[1, -1], [2, -1], [3, -1], [4, -1], [5, -1]]


def test_batch_rows_are_views_of_a_float64_matrix(base):
    rotation, calls = recording_call(base)
    matrix = np.zeros((2, 3))
    rotation.batch_reference(matrix)
    assert np.shares_memory(calls[1][0][0], matrix)


def test_batch_converts_matrices_to_float64(base):
    rotation, calls = recording_call(base)
    rotation.batch_reference([[1, 2], [3, 4]])
    assert calls[1][0][0].dtype == np.float64
    assert calls[1][0][0].tolist() == [3.0, 4.0]


def test_batch_of_a_matrix_that_is_no_number_passes_numpys_error_on(base):
    rotation, calls = recording_call(base)
    with pytest.raises(ValueError, match="could not convert"):
        rotation.batch_reference([["a"]])
    assert calls == []


def test_batch_day_contexts_are_new_and_of_the_modules_class(base):
    rotation, calls = recording_call(base)
    rotation.batch_reference(np.zeros((3, 2)))
    contexts = [context for _, context in calls]
    assert [type(context) for context in contexts] == [base._VirtualContext] * 3
    assert len({id(context) for context in contexts}) == 3


def test_batch_day_is_a_plain_int(base):
    rotation, calls = recording_call(base)
    rotation.batch_reference(np.zeros((2, 2)))
    assert [type(context.current_day_index) for _, context in calls] == [int, int]


def test_batch_looks_the_context_class_up_when_called(base):
    made = []

    def replacement(*args, **kwargs):
        made.append((args, kwargs))
        return "context"

    rotation, calls = recording_call(base)
    base._VirtualContext = replacement
    mask = np.ones((2, 2))
    rotation.batch_reference(np.zeros((2, 2)), context=Context(universe_mask=mask))
    assert [args[0] is mask for args, _ in made] == [True, True]
    assert [kwargs for _, kwargs in made] == [{"current_day_index": 0}, {"current_day_index": 1}]
    assert [context for _, context in calls] == ["context", "context"]


@pytest.mark.parametrize("context", [None, Context(), Context(universe_mask=None)])
def test_batch_without_a_mask_uses_ones_of_the_first_matrixs_shape(base, context):
    rotation, calls = recording_call(base)
    rotation.batch_reference(np.zeros((3, 2)), np.zeros((3, 5)), context=context)
    mask = calls[0][1].universe_mask
    assert mask.dtype == np.uint8
    assert mask.tolist() == [[1, 1]] * 3
    assert all(context.universe_mask is mask for _, context in calls)


def test_batch_passes_the_contexts_own_mask_to_every_day(base):
    rotation, calls = recording_call(base)
    mask = object()
    rotation.batch_reference(np.zeros((3, 2)), context=Context(universe_mask=mask))
    assert all(context.universe_mask is mask for _, context in calls)


def test_batch_replaces_the_contexts_day(base):
    rotation, calls = recording_call(base)
    rotation.batch_reference(np.zeros((2, 2)), context=Context(current_day_index=40))
    assert [context.current_day_index for _, context in calls] == [0, 1]


def test_batch_mask_property_error_other_than_attribute_error_propagates(base):
    class Failing:
        @property
        def universe_mask(self):
            raise LookupError("mask")

    with pytest.raises(LookupError, match="mask"):
        make_rotation(base).batch_reference(np.zeros((2, 2)), context=Failing())


def test_batch_of_one_dimension_needs_a_mask(base):
    rotation, calls = recording_call(base)
    with pytest.raises(IndexError):
        rotation.batch_reference(np.zeros(3))
    rotation.batch_reference(np.arange(3.0), context=Context(universe_mask=1))
    assert [args[0] for args, _ in calls] == [0.0, 1.0, 2.0]


def test_batch_of_no_dimension_fails(base):
    rotation, calls = recording_call(base)
    with pytest.raises(IndexError):
        rotation.batch_reference(5.0)
    assert calls == []


def test_batch_of_no_days_passes_numpys_error_on(base):
    rotation, calls = recording_call(base)
    with pytest.raises(ValueError, match="at least one array"):
        rotation.batch_reference(np.zeros((0, 2)))
    assert calls == []


def test_batch_stops_at_the_end_of_a_shorter_later_matrix(base):
    rotation, calls = recording_call(base)
    with pytest.raises(IndexError):
        rotation.batch_reference(np.zeros((3, 2)), np.zeros((2, 2)))
    assert len(calls) == 2


def test_batch_ignores_the_rows_beyond_the_first_matrix(base):
    rotation, calls = recording_call(base)
    rotation.batch_reference(np.zeros((2, 2)), np.zeros((9, 2)))
    assert len(calls) == 2


def test_batch_of_outputs_of_different_widths_passes_numpys_error_on(base):
    rotation, _ = recording_call(base, outputs=[np.zeros(2), np.zeros(3)])
    with pytest.raises(ValueError, match="must match"):
        rotation.batch_reference(np.zeros((2, 2)))


def test_batch_stacks_whatever_the_calls_return(base):
    rotation, _ = recording_call(base, outputs=[[1, 2], [3, 4]])
    assert rotation.batch_reference(np.zeros((2, 2))).tolist() == [[1, 2], [3, 4]]


def test_batch_calls_the_class_not_an_instance_attribute(base):
    rotation, calls = recording_call(base)
    rotation.__call__ = None
    rotation.batch_reference(np.zeros((2, 2)))
    assert len(calls) == 2


def test_batch_is_measured_like_any_call(base):
    with pytest.raises(ValueError, match="input width must be <= 4"):
        unallocated(base, 4).batch_reference(np.zeros((2, 5)))


def test_batch_equals_a_call_per_row(base):
    def hook(space, rest, masks, combined, N):
        return [structure((leg,), [(leg, 0.5)], value) for leg, value in enumerate(space[:4])]

    matrix = np.random.default_rng(3).normal(size=(5, 6))
    matrix[1, 2] = NAN
    by_call = make_rotation(base, [hook] * 5)
    expected = np.array([by_call(row) for row in matrix])
    result = make_rotation(base, [hook] * 5).batch_reference(matrix)
    np.testing.assert_array_equal(result, expected)
    assert result.shape == (5, 6)


def test_batch_continues_from_the_state_and_leaves_the_last_day(base):
    rotation = make_rotation(base, [[SINGLE], [PAIR], [PAIR]])
    rotation(np.zeros(6))
    rotation.batch_reference(np.zeros((2, 6)))
    assert rotation.slot_by_key == {("c",): 0, ("a", "b"): 1}
    assert rotation._metadata_by_slot[0] == {"active": False}
    assert rotation._metadata_by_slot[1]["active"] is True


def test_batch_leaves_no_context(base):
    rotation = make_rotation(base)
    rotation.batch_reference(np.zeros((2, 6)))
    assert rotation._current_parent_context is None


def test_batch_stops_at_the_first_failing_day(base):
    error = LookupError("day")
    child = RecordingChild()
    rotation = make_rotation(base, child_rotations=[child, RaisingChild(error)])
    with pytest.raises(LookupError) as caught:
        rotation.batch_reference(np.zeros((3, 6)))
    assert caught.value is error
    assert len(child.calls) == 1
