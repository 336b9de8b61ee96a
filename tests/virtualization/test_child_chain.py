"""One row of child inputs through the children in order."""

import numpy as np
import pytest

from support.fakes import ConstantChild, RaisingChild, RecordingChild, make_rotation, structure

NAN = float("nan")


class Named:
    """A display name that is no string: only its formatting matters."""

    def __format__(self, format_spec):
        return f"<formatted {format_spec!r}>"


def chain(base, *children, **constructor):
    return make_rotation(base, child_rotations=list(children), **constructor)


def wrong_shape_message(base, result, **constructor):
    with pytest.raises(ValueError, match="child rotation returned shape") as caught:
        chain(base, ConstantChild(result), **constructor)._run_child_chain(np.zeros(4), None)
    return caught.value.args


def test_without_children_the_values_come_back(base):
    assert chain(base)._run_child_chain(np.arange(4.0), None).tolist() == [0.0, 1.0, 2.0, 3.0]


def test_without_children_the_result_is_a_new_array(base):
    values = np.arange(4.0)
    result = chain(base)._run_child_chain(values, None)
    result[:] = 9.0
    assert values.tolist() == [0.0, 1.0, 2.0, 3.0]


@pytest.mark.parametrize("values", [[1], [[1, 2], [3, 4]], 5.0])
def test_without_children_no_shape_is_checked(base, values):
    result = chain(base)._run_child_chain(values, None)
    assert result.dtype == np.float64
    assert result.tolist() == values


def test_first_child_receives_a_float64_array_itself(base):
    child, values = RecordingChild(), np.zeros(4)
    chain(base, child)._run_child_chain(values, None)
    assert child.calls[0][0] is values


def test_first_child_receives_other_values_converted_to_float64(base):
    child = RecordingChild()
    chain(base, child)._run_child_chain([1, 2, 3, 4], None)
    received = child.calls[0][0]
    assert type(received) is np.ndarray
    assert received.dtype == np.float64
    assert received.tolist() == [1.0, 2.0, 3.0, 4.0]


def test_values_that_are_no_numbers_pass_numpys_error_on(base):
    child = RecordingChild()
    with pytest.raises(ValueError, match="could not convert"):
        chain(base, child)._run_child_chain(["a", "b"], None)
    assert child.calls == []


def test_children_run_in_list_order_each_on_the_result_before(base):
    first = RecordingChild(lambda values: values + 1.0)
    second = RecordingChild(lambda values: values * 10.0)
    result = chain(base, first, second)._run_child_chain(np.arange(4.0), None)
    assert result.tolist() == [10.0, 20.0, 30.0, 40.0]


def test_next_child_receives_a_float64_result_itself(base):
    result = np.arange(4.0)
    second = RecordingChild()
    chain(base, ConstantChild(result), second)._run_child_chain(np.zeros(4), None)
    assert second.calls[0][0] is result


def test_child_is_called_with_one_argument_and_the_context_by_name(base):
    calls = []

    def child(*args, **kwargs):
        calls.append((len(args), kwargs))
        return args[0]

    context = object()
    chain(base, child)._run_child_chain(np.zeros(4), context)
    assert calls == [(1, {"context": context})]


def test_every_child_receives_the_same_context(base):
    children = [RecordingChild(), RecordingChild()]
    context = object()
    chain(base, *children)._run_child_chain(np.zeros(4), context)
    assert [child.calls[0][2] is context for child in children] == [True, True]


@pytest.mark.parametrize(
    "result",
    [
        [1, 2, 3, 4],
        (1.0, 2.0, 3.0, 4.0),
        ["1", "2", "3", "4"],
        np.array([1, 2, 3, 4], dtype=np.int32),
        np.array([1, 2, 3, 4], dtype=np.float32),
        np.array([1, 2, 3, 4], dtype=object),
        np.array([1, 2, 3, 4], dtype=">f8"),
        np.arange(1.0, 9.0).repeat(2)[:8:2],
        np.ma.masked_array([1.0, 2.0, 3.0, 4.0], mask=[0, 1, 0, 0]),
    ],
    ids=["list", "tuple", "strings", "int32", "float32", "object", "swapped", "strided", "masked"],
)
def test_child_may_return_whatever_converts_to_the_row(base, result):
    row = chain(base, ConstantChild(result))._run_child_chain(np.zeros(4), None)
    assert type(row) is np.ndarray
    assert row.dtype == np.float64
    assert row.dtype.isnative
    assert row.tolist() == np.asarray(result, dtype=np.float64).tolist()


@pytest.mark.parametrize(
    ("result", "shape"),
    [
        (1.0, "()"),
        (np.zeros((1, 4)), "(1, 4)"),
        (np.zeros((2, 5)), "(2, 5)"),
        (np.zeros(3), "(3,)"),
        (np.zeros(5), "(5,)"),
        ([], "(0,)"),
        (np.zeros((4, 1)), "(4, 1)"),
        (None, "()"),
    ],
)
def test_child_result_of_another_shape_fails(base, result, shape):
    assert wrong_shape_message(base, result) == (
        f"virtualization_base: child rotation returned shape {shape}, expected (4,)",
    )


def test_shape_message_begins_with_the_rotations_name(base):
    message = wrong_shape_message(base, 1.0, attributes={"_name": "R"})
    assert message == ("R: child rotation returned shape (), expected (4,)",)


def test_shape_message_formats_a_name_that_is_no_string(base):
    message = wrong_shape_message(base, 1.0, attributes={"_name": Named()})
    assert message == ("<formatted ''>: child rotation returned shape (), expected (4,)",)


def test_shape_message_formats_the_current_capacity(base):
    rotation = chain(base, ConstantChild(1.0))
    rotation.max_structures = Named()
    with pytest.raises(ValueError, match="shape") as caught:
        rotation._run_child_chain(np.zeros(4), None)
    assert caught.value.args == (
        "virtualization_base: child rotation returned shape (), expected (<formatted ''>,)",
    )


def test_shape_is_compared_by_equality(base):
    rotation = chain(base, ConstantChild(np.ones(4)))
    rotation.max_structures = 4.0
    assert rotation._run_child_chain(np.zeros(4), None).tolist() == [1.0] * 4


def test_input_row_itself_is_not_checked(base):
    child = RecordingChild(lambda values: np.zeros(4))
    assert chain(base, child)._run_child_chain(np.zeros(2), None).tolist() == [0.0] * 4


def test_children_after_a_wrong_shape_are_not_called(base):
    last = RecordingChild()
    with pytest.raises(ValueError, match="shape"):
        chain(base, ConstantChild(1.0), last)._run_child_chain(np.zeros(4), None)
    assert last.calls == []


def test_every_childs_shape_is_checked_not_just_the_last(base):
    last = ConstantChild(np.zeros(4))
    with pytest.raises(ValueError, match="shape"):
        chain(base, ConstantChild(np.zeros(5)), last)._run_child_chain(np.zeros(4), None)


def test_result_is_not_the_childs_own_array(base):
    kept = np.ones(4)
    rotation = chain(base, ConstantChild(kept))
    rotation._run_child_chain(np.zeros(4), None)[:] = 5.0
    assert kept.tolist() == [1.0] * 4


def test_result_is_not_the_input_of_a_child_that_hands_it_back(base):
    values = np.zeros(4)
    result = chain(base, lambda row, context: row)._run_child_chain(values, None)
    assert not np.shares_memory(result, values)


def test_child_error_propagates_as_the_same_object(base):
    error = LookupError("child")
    with pytest.raises(LookupError) as caught:
        chain(base, RaisingChild(error))._run_child_chain(np.zeros(4), None)
    assert caught.value is error


def test_child_error_that_is_no_exception_propagates_as_the_same_object(base):
    error = KeyboardInterrupt()
    with pytest.raises(KeyboardInterrupt) as caught:
        chain(base, RaisingChild(error))._run_child_chain(np.zeros(4), None)
    assert caught.value is error


@pytest.mark.parametrize("result", [["a"] * 4, [1, [2, 3]], 1j])
def test_child_result_that_is_no_number_passes_numpys_error_on(base, result):
    with pytest.raises((TypeError, ValueError)) as caught:
        chain(base, ConstantChild(result))._run_child_chain(np.zeros(4), None)
    assert "child rotation" not in str(caught.value)


def test_child_that_is_not_callable_fails(base):
    with pytest.raises(TypeError, match="not callable"):
        chain(base, 5)._run_child_chain(np.zeros(4), None)


def test_children_are_whatever_the_attribute_holds_now(base):
    rotation = chain(base, RaisingChild(LookupError()))
    rotation.child_rotations = (lambda row, context: row + 1.0 for _ in range(3))
    assert rotation._run_child_chain(np.zeros(4), None).tolist() == [3.0] * 4


def test_child_appended_by_a_child_runs_on_the_same_day(base):
    rotation = chain(base)

    def grow(row, context):
        rotation.child_rotations.append(lambda row, context: row + 5.0)
        return row

    rotation.child_rotations.append(grow)
    assert rotation._run_child_chain(np.zeros(4), None).tolist() == [5.0] * 4


def test_child_sees_slots_without_a_structure_as_nan(base):
    child = RecordingChild()
    items = [structure(("a",), [(0, 1.0)], 2.5)]
    make_rotation(base, [items], child_rotations=[child])(np.zeros(6))
    values = child.calls[0][1]
    assert values[0] == 2.5
    assert np.isnan(values[1:]).all()


@pytest.mark.parametrize("expression", ["ewma(3);rank", "zscore;sigmoid", "identity;ewma(2)"])
def test_expression_children_run_as_the_same_children_by_hand(real_base, expression):
    rotation = make_rotation(real_base, transformation_expression=expression)
    by_hand = make_rotation(real_base, transformation_expression=expression).child_rotations
    random = np.random.default_rng(5)
    for day in range(20):
        values = random.normal(size=4)
        values[random.random(4) < 0.2] = NAN
        context = rotation._make_child_context(None, day)
        expected = values
        for child in by_hand:
            expected = child(expected, context=context)
        assert rotation._run_child_chain(values, context).tobytes() == expected.tobytes()
