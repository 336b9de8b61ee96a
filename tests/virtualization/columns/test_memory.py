"""Structure columns: what is copied, what is kept, and the sums of it."""

import gc
import warnings

import numpy as np
import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

from quorvane.functions.rotations.virtualization.columns import StructureColumns
from virtualization.columns.helpers import NAN, PLAIN, PLAIN_LEGS, bits, make, refusal

INFINITY = float("inf")


# ---- what is copied and what is kept -------------------------------------------------------------


def test_offsets_leg_ids_and_weights_are_copied():
    given = {
        name: np.array(PLAIN[name], dtype=dtype)
        for name, dtype in [("offsets", np.int64), ("leg_ids", np.int64), ("weights", float)]
    }
    columns = make(**given)
    for array in given.values():
        array[:] = 1
    assert columns.offsets.tolist() == PLAIN["offsets"]
    assert columns.leg_ids.tolist() == PLAIN["leg_ids"]
    assert columns.weights.tolist() == PLAIN["weights"]
    assert columns.legs == PLAIN_LEGS


def test_values_are_the_given_array():
    values = np.array([1.0, 2.0, 3.0])
    for columns in (make(values=values), make().with_values(values)):
        assert columns.values is values
        values[1] = 7.5
        assert columns[1]["value"] == 7.5


def test_no_values_are_the_given_array_too():
    values = np.zeros(0)
    assert StructureColumns([], [0], [], [], values).values is values


def test_values_that_are_read_only_stay_so():
    values = np.array([1.0, 2.0, 3.0])
    values.flags.writeable = False
    assert make(values=values).values is values


class Subarray(np.ndarray):
    def __getitem__(self, index):
        raise AssertionError

    def __array_finalize__(self, other):
        if armed:
            raise AssertionError


armed = False


def test_values_of_a_subclass_are_kept_as_a_plain_array_on_the_same_memory():
    values = np.array([1.0, 2.0, 3.0]).view(Subarray)
    columns = make(values=values)
    assert type(columns.values) is np.ndarray
    assert np.shares_memory(columns.values, np.asarray(values))
    np.asarray(values)[0] = 9.0
    assert columns[0]["value"] == 9.0


@pytest.mark.parametrize(
    "convert",
    [
        list,
        tuple,
        lambda numbers: np.repeat(numbers, 2)[::2],
        lambda numbers: numbers[::-1].copy()[::-1],
        lambda numbers: numbers.astype(">f8"),
        lambda numbers: numbers.astype(np.float32),
        lambda numbers: numbers.view(Subarray),
        lambda numbers: np.frombuffer(b"x" + numbers.tobytes(), offset=1),
        memoryview,
        lambda numbers: np.ma.array(numbers),
    ],
    ids=["list", "tuple", "strided", "reversed", "swapped", "short", "subclass", "unaligned",
         "buffer", "masked"],
)  # fmt: skip
def test_numbers_may_lie_in_any_way(convert):
    numbers = np.array([1.5, -2.0, 0.25])
    columns = make(weights=convert(numbers), values=convert(numbers))
    assert columns.weights.tolist() == columns.values.tolist() == [1.5, -2.0, 0.25]
    assert (columns.values.dtype.str, columns.values.strides) == (np.dtype(float).str, (8,))
    assert columns.values.flags.aligned
    assert columns.weighted_sums(convert(np.array([1.0, 2.0, 4.0, 8.0]))).tolist() == [
        1.5 - 16.0, 0.0, 0.5
    ]  # fmt: skip


@pytest.mark.parametrize("dtype", ["i1", "u1", ">i2", "u4", ">i4", ">i8", "i8"])
def test_integers_may_be_of_any_size(dtype):
    doubled = np.repeat(np.array(PLAIN["leg_ids"], dtype=dtype), 2)[::2]
    columns = make(leg_ids=doubled, offsets=np.array(PLAIN["offsets"], dtype=dtype))
    assert columns.legs == PLAIN_LEGS


def test_leg_ids_of_32_bits_are_kept_exactly():
    ids = [2**31 - 1, -(2**31), 2**24 + 1]
    assert [leg[0] for legs in make(leg_ids=ids).legs for leg in legs] == ids


@pytest.mark.parametrize("odd", [2**31, -(2**31) - 1, 2**32, 2**63 - 1, -(2**63)])
def test_leg_ids_of_more_bits_are_refused(odd):
    refusal(ValueError, f"leg_ids must fit in 32 bits, got {odd}", make, leg_ids=[0, odd, 2**40])


@pytest.mark.parametrize("name", ["offsets", "leg_ids", "weights"])
def test_what_was_copied_is_shown_read_only_for_good(name):
    columns = make()
    view = getattr(columns, name)
    assert not view.flags.writeable
    assert view.base is columns
    for attempt in (view, view[:], view.view(np.uint8), np.asarray(view), view.reshape(1, -1)):
        with pytest.raises(ValueError, match="WRITEABLE"):
            attempt.flags.writeable = True
        with pytest.raises(ValueError, match="WRITEABLE"):
            attempt.setflags(write=True)
    with pytest.raises(ValueError, match="read-only"):
        view[0] = 1
    with pytest.raises(TypeError):
        memoryview(columns)
    assert getattr(columns, name).tolist() == PLAIN[name]


@pytest.mark.parametrize("name", ["offsets", "leg_ids", "weights"])
def test_a_view_keeps_its_numbers_alive(name):
    view = getattr(make(), name)
    gc.collect()
    assert view.tolist() == PLAIN[name]


def test_other_values_share_everything_else():
    columns = make()
    other = columns.with_values([1, 2, 3])
    assert type(other) is StructureColumns
    assert other.keys is columns.keys
    assert other.legs is columns.legs
    for name in ("offsets", "leg_ids", "weights"):
        assert np.shares_memory(getattr(other, name), getattr(columns, name))
    assert other.values.tolist() == [1.0, 2.0, 3.0]
    assert bits(columns.values) == bits(PLAIN["values"])
    del columns
    gc.collect()
    assert other.leg_ids.tolist() == PLAIN["leg_ids"]
    assert other.legs == PLAIN_LEGS


# ---- sums ----------------------------------------------------------------------------------------


def sums_by_hand(columns, inputs):
    sums = []
    for legs in columns.legs:
        total = 0.0
        for leg_id, weight in legs:
            total += weight * float(inputs[leg_id])
        sums.append(total)
    return np.array(sums, dtype=np.float64)


NUMBERS = st.one_of(
    st.sampled_from([0.0, -0.0, 1.0, -1.0, 1e16, -1e16, 1e308, 5e-324, NAN, INFINITY, -INFINITY]),
    st.floats(width=64),
)


@settings(max_examples=200, deadline=None)
@given(
    inputs=st.lists(NUMBERS, min_size=1, max_size=6),
    legs=st.lists(st.lists(st.tuples(st.integers(0, 5), NUMBERS), max_size=5), max_size=5),
)
def test_sums_are_those_added_by_hand_in_leg_order(inputs, legs):
    legs = [[(leg_id % len(inputs), weight) for leg_id, weight in each] for each in legs]
    flat = [leg for each in legs for leg in each]
    columns = StructureColumns(
        [(number,) for number in range(len(legs))],
        np.cumsum([0, *map(len, legs)]),
        np.array([leg_id for leg_id, _ in flat], dtype=np.int64),
        np.array([weight for _, weight in flat], dtype=np.float64),
        np.zeros(len(legs)),
    )
    expected = sums_by_hand(columns, inputs)
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        sums = columns.weighted_sums(np.array(inputs))
    numbers = ~np.isnan(expected)
    assert np.array_equal(np.isnan(sums), ~numbers)
    assert sums[numbers].tobytes() == expected[numbers].tobytes()


def test_sums_differ_with_the_order_of_the_legs():
    def of(leg_ids):
        columns = StructureColumns([()], [0, 3], leg_ids, [1.0] * 3, [0.0])
        return columns.weighted_sums([1e16, -1e16, 1.0]).tolist()

    assert of([0, 1, 2]) == [1.0]
    assert of([2, 0, 1]) == [0.0]


def test_sums_begin_at_plus_zero():
    columns = StructureColumns([(1,), (2,)], [0, 1, 1], [0], [1.0], [0.0, 0.0])
    assert bits(columns.weighted_sums([-0.0])) == bits([0.0, 0.0])


def test_sums_say_nothing_about_infinities_whatever_numpy_is_told():
    columns = StructureColumns(
        [(1,), (2,), (3,)], [0, 1, 2, 4], [0, 1, 1, 1], [0.0, 2, 1, -1], [0] * 3
    )
    with np.errstate(all="raise"):
        sums = columns.weighted_sums([INFINITY, 1e308])
        assert np.float64(1.0) + np.float64(1.0) == 2.0  # nothing is left for the next operation
        assert (np.ones(3) + np.ones(3)).tolist() == [2.0] * 3
    assert np.isnan(sums[0])
    assert sums[1:].tolist() == [INFINITY, 0.0]


def test_sums_are_a_new_array_every_time():
    columns, inputs = make(), np.arange(4.0)
    first = columns.weighted_sums(inputs)
    second = columns.weighted_sums(inputs)
    assert not np.shares_memory(first, second)
    assert (type(first), first.flags.owndata, first.flags.writeable) == (np.ndarray, True, True)


def test_inputs_may_be_longer_than_needed_but_not_shorter():
    columns = make()
    assert columns.weighted_sums(np.arange(9.0)).tolist() == [-1.5, 0.0, 2.0]
    text = "inputs must have an entry for every leg id, got 3 entries and leg id 3"
    refusal(IndexError, text, columns.weighted_sums, [1.0, 2.0, 3.0])
    text = "inputs must have an entry for every leg id, got 0 entries and leg id 3"
    refusal(IndexError, text, columns.weighted_sums, [])


@pytest.mark.parametrize("outside", [-1, -(2**31), 2**31 - 1, 4])
def test_leg_ids_outside_the_inputs_are_not_counted_from_the_end(outside):
    text = f"inputs must have an entry for every leg id, got 4 entries and leg id {outside}"
    refusal(IndexError, text, make(leg_ids=[0, outside, 1]).weighted_sums, np.zeros(4))


@pytest.mark.parametrize(
    ("inputs", "error"),
    [
        (1.0, ValueError),
        (np.zeros((1, 4)), ValueError),
        ([[1.0, 2.0, 3.0, 4.0]], ValueError),
        ("abcd", ValueError),
        (["a"] * 4, ValueError),
        (np.zeros(4, dtype=complex), TypeError),
        (np.zeros(4, dtype=object), TypeError),
        (np.array(["1"] * 4), TypeError),
        (np.zeros(4, dtype="M8[s]"), TypeError),
    ],
)
def test_inputs_that_are_no_row_of_numbers(inputs, error):
    with pytest.raises(error):
        make().weighted_sums(inputs)
