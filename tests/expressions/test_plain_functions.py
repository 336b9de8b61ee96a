"""A plain function in a chain: what it is given, what it may return, what is kept of it."""

import numpy as np
import pytest

from quorvane.expressions.plain_functions import PlainFunction

NAN = np.nan


def summed(values, state, keep=1.0):
    before = np.zeros(len(values)) if state is None else np.nan_to_num(state["sum"])
    total = before * keep + values
    return total, {"sum": total}


def made(function=summed, slots=3, **arguments):
    return PlainFunction("own", function, arguments, slots)


def returning(values, state=None):
    return made(lambda *_: (values, state))


def test_the_state_begins_as_none_and_comes_back():
    seen = []

    def function(values, state):
        seen.append(state)
        return values, {"last": values, "day": np.full(3, len(seen))}

    own = made(function)
    own(np.arange(3.0))
    own(np.arange(3.0))
    assert seen[0] is None
    np.testing.assert_array_equal(seen[1]["last"], [0, 1, 2])
    assert seen[1]["day"].dtype == np.float64


def test_arguments_are_keywords():
    own = made(keep=0.5)
    own(np.ones(3))
    np.testing.assert_array_equal(own(np.ones(3)), np.full(3, 1.5))


def test_what_the_function_does_with_its_arrays_reaches_nothing():
    kept = []

    def function(values, state):
        if state is not None:
            state["last"][:] = 99.0
        values += 1.0
        new = {"last": values.copy()}
        kept.extend([values, new["last"]])
        return values, new

    own, given = made(function), np.zeros(3)
    first = own(given)
    before = own.get_state()
    for array in kept:
        array[:] = 7.0
    np.testing.assert_array_equal(given, np.zeros(3))
    np.testing.assert_array_equal(first, np.ones(3))
    np.testing.assert_array_equal(own.get_state()["state"]["last"], np.ones(3))
    own(given)
    np.testing.assert_array_equal(before["state"]["last"], np.ones(3))


@pytest.mark.parametrize(
    ("values", "expected"),
    [
        ([1, 2, 3], [1, 2, 3]),
        (np.array([True, False, True]), [1, 0, 1]),
        (np.array([1, 2, 3], dtype=">i2"), [1, 2, 3]),
        (np.array([1.5, 2, 3], dtype=np.float32), [1.5, 2, 3]),
        (np.array([1.5, None, 3], dtype=object), [1.5, NAN, 3]),
        (np.broadcast_to(1.0, 3), [1, 1, 1]),
        (np.arange(6.0)[::2], [0, 2, 4]),
        (np.ma.masked_array([1.0, 2.0, 3.0], [False, True, False]), [1, NAN, 3]),
        (np.ma.masked_greater([1, 2, 3], 2), [1, 2, NAN]),
    ],
)
def test_numbers_of_any_kind_become_floats_and_what_is_masked_is_missing(values, expected):
    own = returning(values, {"s": values})
    found = own(np.zeros(3))
    np.testing.assert_array_equal(found, expected)
    assert type(found) is np.ndarray
    assert found.dtype == np.float64
    assert found.flags.writeable
    np.testing.assert_array_equal(own.get_state()["state"]["s"], expected)


@pytest.mark.parametrize(
    "values",
    [
        np.ones(3, complex),
        np.zeros(3, "M8[s]"),
        np.zeros(3, "m8[s]"),
        ["1", "2", "3"],
        np.zeros(3, "V4"),
        b"123",
    ],
)
def test_what_is_no_real_number_is_refused(values):
    with pytest.raises(TypeError, match="own: the function must return values that are real"):
        returning(values)(np.zeros(3))
    with pytest.raises(TypeError, match=r"own: state\['s'\] must hold values that are real"):
        returning(np.zeros(3), {"s": values})(np.zeros(3))


@pytest.mark.parametrize("values", [1.0, None, [], [1.0], np.zeros((1, 3)), np.zeros(4)])
def test_there_must_be_a_number_for_each_slot(values):
    with pytest.raises(ValueError, match=r"own: the function must return values of shape \(3,\)"):
        returning(values)(np.zeros(3))


@pytest.mark.parametrize("state", [1.0, 3, np.float64(1), [1.0], np.zeros(4), np.zeros((1, 3))])
def test_each_array_of_the_state_must_have_an_entry_for_each_slot(state):
    text = r"own: state\['s'\] must have an entry for each of 3 slots, got shape"
    with pytest.raises(ValueError, match=text):
        returning(np.zeros(3), {"s": state})(np.zeros(3))


@pytest.mark.parametrize("state", [0, [], (), np.zeros(3), "s", {1: np.zeros(3)}])
def test_the_state_must_be_none_or_a_dict(state):
    with pytest.raises(TypeError, match="own: the state must be None or a dict of arrays by name"):
        returning(np.zeros(3), state)(np.zeros(3))


@pytest.mark.parametrize("result", [None, np.zeros(2), [np.zeros(3), None], (1,), (1, 2, 3)])
def test_values_and_state_are_returned_as_a_pair(result):
    with pytest.raises(TypeError, match=r"own: the function must return \(values, state\), got"):
        made(lambda *_: result)(np.zeros(3))


def test_a_day_that_is_refused_leaves_the_state_as_it_was():
    own = made(lambda values, state: (values, {"s": values if state is None else 1.0}))
    own(np.arange(3.0))
    before = own.get_state()
    with pytest.raises(ValueError, match="each of 3 slots"):
        own(np.ones(3))
    np.testing.assert_array_equal(own.get_state()["state"]["s"], before["state"]["s"])


def test_forgotten_and_new_slots_are_nan_in_all_of_the_state():
    own = returning(np.zeros(3), {"a": np.arange(3), "b": np.ones((3, 2))})
    own(np.zeros(3))
    own.forget([1])
    own.resize(4)
    state = own.get_state()["state"]
    np.testing.assert_array_equal(state["a"], [0, NAN, 2, NAN])
    np.testing.assert_array_equal(state["b"], [[1, 1], [NAN] * 2, [1, 1], [NAN] * 2])
    own.resize(1)
    np.testing.assert_array_equal(own.get_state()["state"]["b"], [[1, 1]])


def test_there_is_nothing_to_forget_before_the_first_day():
    own = made()
    own.forget([0])
    own.resize(5)
    assert own.get_state() == {"state": None}
    np.testing.assert_array_equal(own(np.ones(5)), np.ones(5))


def test_a_state_comes_back_as_it_was():
    first, second = made(), made()
    first(np.arange(3.0))
    second.set_state(first.get_state())
    np.testing.assert_array_equal(second(np.ones(3)), first(np.ones(3)))
    second.set_state({"state": None})
    assert second.get_state() == {"state": None}


@pytest.mark.parametrize("state", [None, {}, {"state": None, "more": 1}, [], {"s": None}])
def test_what_is_no_state_is_refused(state):
    with pytest.raises(ValueError, match="own: state must be a dict with the key 'state'"):
        made().set_state(state)


def test_a_state_of_other_slots_is_refused_and_changes_nothing():
    own = made()
    own(np.ones(3))
    with pytest.raises(ValueError, match="for each of 3 slots, got shape"):
        own.set_state({"state": {"sum": np.ones(4)}})
    np.testing.assert_array_equal(own.get_state()["state"]["sum"], np.ones(3))
