"""Structure columns: what they accept, keep and give back, whatever is put into them."""

import copy
import gc
import inspect
import pickle
import re
import struct
import sys
import warnings
import weakref

import numpy as np
import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

from quorvane.functions.rotations.virtualization.columns import StructureColumns

NAN = float("nan")
INFINITY = float("inf")

PLAIN = {
    "keys": [("a",), ("b", 2), ()],
    "offsets": [0, 2, 2, 3],
    "leg_ids": [0, 3, 1],
    "weights": [1.0, -0.5, 2.0],
    "values": [1.5, NAN, -0.0],
}
PLAIN_LEGS = (((0, 1.0), (3, -0.5)), (), ((1, 2.0),))


def make(**changed):
    return StructureColumns(**{**PLAIN, **changed})


def bits(numbers):
    """The bits of floats, so that each NaN and each zero is told from the others."""
    return [struct.pack("<d", number) for number in numbers]


def refusal(error, text, operation, *arguments, **named):
    with pytest.raises(error, match=f"^{re.escape(text)}$"):
        operation(*arguments, **named)


# ---- construction --------------------------------------------------------------------------------


def test_it_gives_back_what_it_was_made_of():
    columns = make()
    assert columns.keys == (("a",), ("b", 2), ())
    assert columns.legs == PLAIN_LEGS
    assert columns.offsets.tolist() == [0, 2, 2, 3]
    assert columns.leg_ids.tolist() == [0, 3, 1]
    assert columns.weights.tolist() == [1.0, -0.5, 2.0]
    assert bits(columns.values) == bits([1.5, NAN, -0.0])
    assert repr(columns) == "<StructureColumns of 3 structures with 3 legs>"


def test_legs_are_tuples_of_exact_numbers():
    for legs in make(leg_ids=np.array([0, 3, 1], dtype=np.int8), weights=[1, 2, True]).legs:
        assert type(legs) is tuple
        for leg in legs:
            assert [type(leg), *map(type, leg)] == [tuple, int, float]


def test_arguments_may_be_given_by_position():
    assert StructureColumns(*PLAIN.values()).legs == PLAIN_LEGS


def test_no_structures_at_all():
    columns = StructureColumns([], [0], [], [], [])
    assert (len(columns), list(columns), columns.keys, columns.legs) == (0, [], (), ())
    assert not columns
    assert columns.weighted_sums([]).tolist() == []
    assert repr(columns) == "<StructureColumns of 0 structures with 0 legs>"


@pytest.mark.parametrize("dtype", [object, "U3", "S2", "M8[s]", "m8[s]", complex, bool, "u8"])
def test_an_array_without_entries_has_no_type(dtype):
    none = np.empty(0, dtype=dtype)
    assert len(StructureColumns([], [0], none, none, none)) == 0


@pytest.mark.parametrize(
    "keys",
    [
        (("a",), ("b", 2), ()),
        iter([("a",), ("b", 2), ()]),
        (key for key in [("a",), ("b", 2), ()]),
        {("a",): 1, ("b", 2): 2, (): 3},
    ],
    ids=["tuple", "iterator", "generator", "mapping"],
)
def test_keys_may_be_any_iterable(keys):
    assert make(keys=keys).keys == (("a",), ("b", 2), ())


def test_the_very_keys_are_kept():
    keys = (("a",), (object(),), ())
    kept = make(keys=keys).keys
    assert all(mine is given for mine, given in zip(kept, keys, strict=True))
    assert type(kept) is tuple


def test_keys_need_not_be_different_or_hashable():
    columns = make(keys=[("a",), ("a",), ([],)])
    assert columns.keys == (("a",), ("a",), ([],))
    assert columns[2]["key"] == ([],)


class TupleKey(tuple):
    __slots__ = ()


class OddTuple(tuple):
    """Is one thing and iterates as another."""

    __slots__ = ()

    def __iter__(self):
        return iter(["other", "parts"])

    def __len__(self):
        return 77

    def __getitem__(self, index):
        raise AssertionError


def test_key_of_a_subclass_becomes_the_tuple_of_its_parts():
    columns = make(keys=[TupleKey(["a"]), OddTuple(["b", 2]), ()])
    assert columns.keys == (("a",), ("other", "parts"), ())
    assert [type(key) for key in columns.keys] == [tuple] * 3


def test_keys_of_a_subclass_of_tuple_are_iterated():
    refusal(TypeError, "keys must be tuples, got 'other'", make, keys=OddTuple([("a",)] * 3))


WRONG_KEYS = [
    ([("a",), ["b"], ()], "keys must be tuples, got ['b']"),
    (["ab", "c", ""], "keys must be tuples, got 'ab'"),
    ([("a",), ("b",), None], "keys must be tuples, got None"),
    (3, "'int' object is not iterable"),
    (None, "'NoneType' object is not iterable"),
]


@pytest.mark.parametrize(("keys", "text"), WRONG_KEYS)
def test_keys_that_are_no_tuples(keys, text):
    refusal(TypeError, text, make, keys=keys)


RISING = "offsets must rise from 0 to the number of legs, 3, got an array that does not"
WRONG_OFFSETS = [
    ([0, 3], "offsets must have 4 entries, one more than keys, got 2"),
    ([], "offsets must have 4 entries, one more than keys, got 0"),
    ([0, 1, 2, 3, 3], "offsets must have 4 entries, one more than keys, got 5"),
    ([0, 2, 1, 3], RISING),
    ([0, 5, 2, 3], RISING),
    ([0, 2**31 - 1, 2**31 - 1, 3], RISING),
    ([0, -(2**31), 2, 3], RISING),
    ([0, 2**31, 2**31, 3], "offsets must fit in 32 bits, got 2147483648"),
    ([0, -(2**63), 2, 3], "offsets must fit in 32 bits, got -9223372036854775808"),
    ([-1, 2, 2, 3], RISING),
    ([1, 2, 2, 3], RISING),
    ([0, 2, 2, 2], RISING),
    ([0, 2, 2, 4], RISING),
    ([0, 2, 2, 2**31 - 1], RISING),
    ([0, 2, 2, 2**32 + 3], "offsets must fit in 32 bits, got 4294967299"),
    ([[0, 2, 2, 3]], "offsets must have one axis, got (1, 4)"),
    (3, "offsets must have one axis, got ()"),
]


@pytest.mark.parametrize(("offsets", "text"), WRONG_OFFSETS)
def test_offsets_that_do_not_fit(offsets, text):
    refusal(ValueError, text, make, offsets=offsets)


@pytest.mark.parametrize("argument", ["offsets", "leg_ids"])
@pytest.mark.parametrize(
    ("numbers", "dtype"),
    [
        ([0.0, 2.0, 2.0], "float64"),
        ([True, False, True], "bool"),
        ([0, 1, 2**70], "object"),
        (["0", "1", "2"], "<U1"),
        (np.array([0, 1, 2], dtype=object), "object"),
        (np.array([0, 1, 2], dtype="m8[s]"), "timedelta64[s]"),
        ([None] * 3, "object"),
    ],
)
def test_integers_must_be_integers(argument, numbers, dtype):
    refusal(TypeError, f"{argument} must be integers, got {dtype}", make, **{argument: numbers})


@pytest.mark.parametrize("argument", ["weights", "values"])
@pytest.mark.parametrize(
    ("numbers", "dtype"),
    [
        ([1.0, 2.0, 3j], "complex128"),
        (["1", "2", "3"], "<U1"),
        ([1.0, None, 2.0], "object"),
        ([1, 2, 2**70], "object"),
        (np.array([0, 1, 2], dtype="m8[s]"), "timedelta64[s]"),
        (np.array([b"1"] * 3), "|S1"),
    ],
)
def test_numbers_must_be_real(argument, numbers, dtype):
    text = f"{argument} must be real numbers, got {dtype}"
    refusal(TypeError, text, make, **{argument: numbers})


@pytest.mark.parametrize("dtype", "BHILQ")
@pytest.mark.parametrize("argument", ["offsets", "leg_ids"])
def test_unsigned_integers_count_by_their_value(argument, dtype):
    made = make(**{argument: np.array(PLAIN[argument], dtype=dtype)})
    assert getattr(made, argument).tolist() == PLAIN[argument]


@pytest.mark.parametrize("argument", ["offsets", "leg_ids"])
def test_unsigned_integers_too_large_are_told(argument):
    huge = np.array([0, 2**63, 2], dtype=np.uint64)
    refusal(ValueError, f"{argument} must fit in 32 bits, got {2**63}", make, **{argument: huge})


@pytest.mark.parametrize("dtype", ["?", "i1", "u2", "f2", ">f4", "f8"])
@pytest.mark.parametrize("argument", ["weights", "values"])
def test_numbers_may_be_of_any_size(argument, dtype):
    numbers = np.array([1, 0, 1], dtype=dtype)
    assert getattr(make(**{argument: numbers}), argument).tolist() == [1.0, 0.0, 1.0]


@pytest.mark.parametrize("argument", ["weights", "values"])
def test_longer_floats_are_rounded_as_float_does(argument):
    long = np.array([1, 2, 3], dtype=np.longdouble) / 3
    made = getattr(make(**{argument: long}), argument)
    assert made.tolist() == [float(number) for number in long]


@pytest.mark.parametrize("argument", ["offsets", "leg_ids", "weights", "values"])
def test_arrays_must_have_one_axis(argument):
    for array, shape in [(3, "()"), ([[1, 2, 3]], "(1, 3)"), (np.empty((0, 3)), "(0, 3)")]:
        refusal(
            ValueError, f"{argument} must have one axis, got {shape}", make, **{argument: array}
        )
    with pytest.raises(ValueError, match="inhomogeneous"):
        make(**{argument: [0, [1], 2]})


def test_arrays_must_be_of_one_length():
    refusal(
        ValueError,
        "weights must have 3 entries, one for each of leg_ids, got 2",
        make,
        weights=[1.0, 2.0],
    )
    text = "values must have 3 entries, one for each of keys, got "
    refusal(ValueError, text + "4", make, values=[1.0] * 4)
    refusal(ValueError, text + "0", make, values=[])
    refusal(ValueError, text + "4", make().with_values, np.zeros(4))
    refusal(TypeError, "values must be real numbers, got <U1", make().with_values, ["x"] * 3)
    refusal(ValueError, "values must have one axis, got ()", make().with_values, 1.0)


@pytest.mark.parametrize(
    ("arguments", "named", "text"),
    [
        ([[], [0], [], []], {}, "missing required argument 'values' (pos 5)"),
        ([[], [0], [], [], [], 1], {}, "takes at most 5 arguments (6 given)"),
        ([[], [0], [], []], {"V": []}, "missing required argument 'values' (pos 5)"),
        ([[], [0], [], []], {"keys": []}, "missing required argument 'values' (pos 5)"),
    ],
)
def test_arguments_that_are_missing_or_unknown(arguments, named, text):
    refusal(TypeError, f"StructureColumns() {text}", StructureColumns, *arguments, **named)


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


# ---- a sequence ----------------------------------------------------------------------------------


def test_items_are_new_plain_dicts():
    columns = make()
    items = list(columns)
    assert [list(item) for item in items] == [["key", "legs", "value"]] * 3
    for number, item in enumerate(items):
        assert type(item) is dict
        assert item["key"] is columns.keys[number]
        assert item["legs"] is columns.legs[number]
        assert type(item["value"]) is float
    assert bits(item["value"] for item in items) == bits(PLAIN["values"])
    items[0]["key"] = "changed"
    assert columns[0]["key"] == ("a",)
    assert columns[0] is not columns[0]


def test_items_are_asked_for_by_index():
    columns = make()
    assert len(columns) == 3
    for index in (0, np.int64(0), False, -3):
        assert columns[index]["key"] == ("a",)
    assert columns[-1]["key"] == ()
    assert columns.__getitem__(-2)["key"] == ("b", 2)
    for index in (3, -4, 10**6, -(10**6)):
        refusal(IndexError, "structure index out of range", columns.__getitem__, index)
    refusal(IndexError, "cannot fit 'int' into an index-sized integer", lambda: columns[2**64])


@pytest.mark.parametrize("index", [slice(None), slice(0, 1), 1.0, "keys", None, (0,)])
def test_only_integers_are_indices(index):
    with pytest.raises(TypeError, match="must be integer"):
        make()[index]


def test_it_is_read_as_a_sequence():
    columns = make(values=[1.0, 2.0, 3.0])
    items = list(columns)
    assert list(reversed(columns)) == items[::-1]
    assert items[1] in columns
    assert {} not in columns
    first, *others = columns
    assert [first, *others] == items
    match columns:
        case [_, {"key": key}, _]:
            assert key == ("b", 2)
        case _:
            pytest.fail("it is no sequence to a pattern")


def test_it_cannot_be_changed_through_itself():
    columns = make()
    with pytest.raises(TypeError):
        columns[0] = {}
    with pytest.raises(TypeError):
        del columns[0]
    for name in ("keys", "legs", "offsets", "leg_ids", "weights", "values"):
        with pytest.raises(AttributeError):
            setattr(columns, name, ())
        with pytest.raises(AttributeError):
            delattr(columns, name)
    with pytest.raises(AttributeError):
        columns.other = 1


def test_iterators_read_the_values_when_asked():
    values = np.array([1.0, 2.0, 3.0])
    iterator = iter(make(values=values))
    assert next(iterator)["value"] == 1.0
    values[1:] = [7.0, 8.0]
    assert [item["value"] for item in iterator] == [7.0, 8.0]
    assert list(iterator) == []


def retyped(values):
    values.dtype = np.int64


def swapped(values):
    values.dtype = values.dtype.newbyteorder()


def reshaped(values):
    values.shape = (3, 1)


def shortened(values):
    values.resize(1, refcheck=False)


def emptied(values):
    values.resize(0, refcheck=False)


def halved(values):
    values.dtype = np.float32


@pytest.mark.filterwarnings("ignore:Setting the:DeprecationWarning")
@pytest.mark.parametrize("change", [retyped, swapped, reshaped, shortened, emptied, halved])
def test_values_that_were_changed_in_place_are_noticed(change):
    values = np.array([1.0, 2.0, 3.0])
    columns = make(values=values)
    iterator = iter(columns)
    next(iterator)
    change(values)
    text = "values: the array was changed in size or type"
    refusal(ValueError, text, next, iterator)
    refusal(ValueError, text, columns.__getitem__, 2)
    assert len(columns) == 3
    assert columns.with_values([1.0, 2.0, 3.0])[2]["value"] == 3.0


@pytest.mark.filterwarnings("ignore:Setting the:DeprecationWarning")
def test_values_that_grow_still_say_the_same():
    values = np.array([1.0, 2.0, 3.0])
    columns = make(values=values)
    values.resize(10**5, refcheck=False)
    assert [item["value"] for item in columns] == [1.0, 2.0, 3.0]
    values.strides = (0,)
    assert [item["value"] for item in columns] == [1.0, 1.0, 1.0]


# ---- the type ------------------------------------------------------------------------------------


def test_it_says_what_it_is():
    assert StructureColumns.__module__ == "quorvane.functions.rotations.virtualization.columns"
    assert StructureColumns.__qualname__ == StructureColumns.__name__ == "StructureColumns"


@pytest.mark.parametrize(
    ("function", "signature"),
    [
        (StructureColumns, "(keys, offsets, leg_ids, weights, values)"),
        (StructureColumns.with_values, "(self, values, /)"),
        (StructureColumns.weighted_sums, "(self, inputs, /)"),
    ],
)
def test_signatures_and_docstrings(function, signature):
    assert str(inspect.signature(function)) == signature
    doc = inspect.getdoc(function)
    for section in ("Parameters", "Raises"):
        assert f"\n{section}\n{'-' * len(section)}\n" in doc


@pytest.mark.parametrize("name", ["keys", "legs", "offsets", "leg_ids", "weights", "values"])
def test_attributes_have_docstrings(name):
    assert inspect.getdoc(getattr(StructureColumns, name))


def test_methods_take_one_argument_by_position():
    columns = make()
    for method in (columns.with_values, columns.weighted_sums):
        for arguments, named in [((), {}), ((1, 2), {}), ((), {"values": 1, "inputs": 1})]:
            with pytest.raises(TypeError):
                method(*arguments, **named)


def test_the_class_is_final_and_cannot_be_changed():
    with pytest.raises(TypeError, match="not an acceptable base type"):
        type("Sub", (StructureColumns,), {})
    with pytest.raises(TypeError, match="immutable type"):
        StructureColumns.other = 1
    with pytest.raises(TypeError, match="immutable type"):
        del StructureColumns.keys
    with pytest.raises(TypeError, match="assignment"):
        make().__class__ = type("Other", (), {})
    with pytest.raises(TypeError, match="not safe"):
        object.__new__(StructureColumns)
    with pytest.raises(TypeError, match="not a subtype"):
        StructureColumns.__new__(int, **PLAIN)


def test_it_is_compared_by_identity():
    columns = make()
    same = make()
    assert columns == columns
    assert columns != same
    assert hash(columns) == hash(columns)
    assert len({columns, same}) == 2


@pytest.mark.parametrize("protocol", range(pickle.HIGHEST_PROTOCOL + 1))
def test_pickling_keeps_everything(protocol):
    same_as(pickle.loads(pickle.dumps(make(), protocol)), make())


def same_as(columns, other):
    assert type(columns) is StructureColumns
    assert columns.keys == other.keys
    assert columns.legs == other.legs
    for name in ("offsets", "leg_ids", "weights", "values"):
        mine, theirs = getattr(columns, name), getattr(other, name)
        assert (mine.dtype, mine.tobytes()) == (theirs.dtype, theirs.tobytes())


def test_copies():
    columns = make(values=np.array([1.0, 2.0, 3.0]))
    shallow = copy.copy(columns)
    same_as(shallow, columns)
    assert shallow is not columns
    assert shallow.values is columns.values
    deep = copy.deepcopy(columns)
    same_as(deep, columns)
    assert not np.shares_memory(deep.values, columns.values)
    for copied in (shallow, deep):
        with pytest.raises(ValueError, match="WRITEABLE"):
            copied.leg_ids.flags.writeable = True


def test_deep_copies_copy_what_keys_hold():
    part = [1]
    columns = make(keys=[(part,), (part,), ()])
    deep = copy.deepcopy(columns)
    assert deep.keys == ((part,), (part,), ())
    assert deep.keys[0][0] is deep.keys[1][0] is not part


class Part:
    """Something that a key may hold, and that may hold something itself."""


def test_a_cycle_through_a_key_is_collected():
    part = Part()
    part.columns = make(keys=[(part,), (), ()])
    part.other = part.columns.with_values([1.0, 2.0, 3.0])
    part.iterator = iter(part.columns)
    gone = weakref.ref(part)
    del part
    assert gone() is not None
    gc.collect()
    assert gone() is None


def test_the_collector_is_told_of_all_that_is_held():
    columns = make(values=np.zeros(3))
    held = gc.get_referents(columns)
    for object_held in (StructureColumns, columns.keys, columns.legs, columns.values):
        assert any(each is object_held for each in held)
    assert gc.is_tracked(columns)


def test_what_is_held_goes_with_it():
    values = np.zeros(3)
    part = Part()
    before = sys.getrefcount(values), sys.getrefcount(StructureColumns)
    gone = weakref.ref(part)
    columns = make(values=values, keys=[(part,), (), ()])
    others = [columns.with_values(values) for _ in range(5)]
    views = [columns.offsets, columns.leg_ids, columns.weights]
    assert sys.getrefcount(values) == before[0] + 6
    del columns, others, part
    assert gone() is not None  # a view holds what it shows
    del views
    gc.collect()
    assert gone() is None
    assert (sys.getrefcount(values), sys.getrefcount(StructureColumns)) == before


# ---- hostile arguments ---------------------------------------------------------------------------


class Raising:
    """Raises wherever it is asked."""

    def raises(self, *arguments, **named):
        raise LookupError("on purpose")

    __iter__ = __array__ = __len__ = __getitem__ = __float__ = __index__ = __repr__ = raises


@pytest.mark.parametrize("argument", PLAIN)
def test_errors_of_arguments_come_through(argument):
    refusal(LookupError, "on purpose", make, **{argument: Raising()})


def test_errors_of_inputs_come_through():
    refusal(LookupError, "on purpose", make().weighted_sums, Raising())
    refusal(LookupError, "on purpose", make().with_values, Raising())


def test_errors_of_parts_of_the_keys_come_through():
    class RaisingTuple(tuple):
        __slots__ = ()

        def __iter__(self):
            raise LookupError("on purpose")

    def keys():
        yield ("a",)
        raise LookupError("on purpose")

    refusal(LookupError, "on purpose", make, keys=keys())
    refusal(LookupError, "on purpose", make, keys=[("a",), RaisingTuple(), ()])
    refusal(LookupError, "on purpose", make, keys=[("a",), Raising(), ()])  # while it is shown


class Converted:
    """Answers __array__ with whatever it was given, after running something."""

    def __init__(self, answer, action=lambda: None):
        self.answer = answer
        self.action = action

    def __array__(self, dtype=None, copy=None):
        self.action()
        return self.answer


@pytest.mark.parametrize("argument", ["offsets", "leg_ids", "weights", "values"])
@pytest.mark.parametrize("junk", [None, 3, [0, 2, 3], "text", np.float64(3.0)])
def test_conversions_to_junk_are_refused(argument, junk):
    with pytest.raises((ValueError, TypeError)):
        make(**{argument: Converted(junk)})


def test_conversions_to_arrays_are_taken():
    columns = make(**{name: Converted(np.array(PLAIN[name])) for name in list(PLAIN)[1:]})
    same_as(columns, make())


def test_code_that_runs_while_one_argument_is_read_cannot_change_those_before_it():
    keys = [("a",), ("b", 2), ()]
    offsets = np.array(PLAIN["offsets"])
    leg_ids = np.array(PLAIN["leg_ids"])
    weights = np.array(PLAIN["weights"])

    def spoil(*arrays):
        keys.clear()
        for array in arrays:
            array.resize(0, refcheck=False)
            array.resize(10**5, refcheck=False)

    columns = StructureColumns(
        keys,
        Converted(offsets, spoil),
        Converted(leg_ids, lambda: spoil(offsets)),
        Converted(weights, lambda: spoil(leg_ids)),
        Converted(np.array(PLAIN["values"]), lambda: spoil(weights)),
    )
    same_as(columns, make())


def test_values_may_change_while_the_object_is_made():
    """Where a collection comes as the legs are made, it finds something to run."""
    values = np.ones(2000)

    class Shrinking:
        def __init__(self):
            self.cycle = self

        def __del__(self):
            values.resize(1, refcheck=False)

    gc.collect()
    columns = StructureColumns(
        [()] * 2000, np.arange(2001), [0] * 2000, [1.0] * 2000, Converted(values, Shrinking)
    )
    gc.collect()
    assert values.shape == (1,)
    assert columns[0]["value"] == 1.0
    refusal(ValueError, "values: the array was changed in size or type", lambda: columns[1])


def test_what_runs_when_it_goes_finds_the_others_whole():
    seen = []

    class Last:
        def __del__(self):
            seen.append([item["key"] for item in other])
            gc.collect()

    other = make()
    columns = make(keys=[(Last(),), (), ()])
    del columns
    assert seen == [[("a",), ("b", 2), ()]]
