"""Structure columns: what they accept and what they refuse."""

import numpy as np
import pytest

from quorvane.functions.rotations.virtualization.columns import StructureColumns
from virtualization.columns.helpers import NAN, PLAIN, PLAIN_LEGS, bits, make, refusal


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
