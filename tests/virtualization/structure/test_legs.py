"""Normalisation: legs, and the conversion of their numbers."""

import collections
import decimal
import gc
import itertools

import numpy as np
import pytest

from support.fakes import shown, structure
from virtualization.structure.helpers import Logged, PlainInt


class PlainFloat(float):
    pass


class Converted:
    """Convertible object whose `__int__`, `__float__` and `__index__` are told apart."""

    def __init__(self, as_int=1, as_float=1.0, as_index=99):
        self.as_int, self.as_float, self.as_index = as_int, as_float, as_index

    def __int__(self):
        return self.as_int

    def __float__(self):
        return self.as_float

    def __index__(self):
        return self.as_index


class IndexOnly:
    def __init__(self, index):
        self.index = index

    def __index__(self):
        return self.index


# --- normalisation: legs ----------------------------------------------------------------------


@pytest.mark.parametrize(
    "legs",
    [
        [(1, 0.5), (2, -1.0)],
        ((1, 0.5), (2, -1.0)),
        ([1, 0.5], [2, -1.0]),
        {1: 0.5, 2: -1.0}.items(),
        np.array([[1, 0.5], [2, -1.0]]),
        collections.deque([(1, 0.5), (2, -1.0)]),
        [np.array([1, 0.5]), ("2", "-1")],
        [{1: "a", 0.5: "b"}, {2: "a", -1.0: "b"}],
    ],
    ids=lambda legs: type(legs).__name__,
)
def test_legs_may_be_any_iterable_of_any_pairs(normalize, legs):
    record = normalize(structure("a", legs))
    assert record.legs == ((1, 0.5), (2, -1.0))
    assert type(record.legs) is tuple
    assert [type(leg) for leg in record.legs] == [tuple, tuple]
    assert [(type(leg), type(weight)) for leg, weight in record.legs] == [(int, float)] * 2


def test_two_characters_or_two_bytes_make_a_leg(normalize):
    assert normalize(structure("a", ["34", b"\x01\x02"])).legs == ((3, 4.0), (1, 2.0))


def test_legs_keep_their_order_and_their_duplicates(normalize):
    legs = ((5, 1.0), (-3, float("inf")), (5, 1.0))
    assert normalize(structure("a", legs)).legs == legs


def test_no_legs_give_the_empty_tuple(normalize):
    assert normalize(structure("a", iter([]))).legs == ()


def test_legs_of_exact_numbers_are_kept_as_the_same_objects(normalize):
    leg_id, weight = 12345, 0.123
    ((new_id, new_weight),) = normalize(structure("a", [[leg_id, weight]])).legs
    assert new_id is leg_id
    assert new_weight is weight


INTEGERS = [
    (2.9, 2),
    (-0.5, 0),
    (-2.9, -2),
    ("7", 7),
    (" 7_0 ", 70),
    (b"7", 7),
    (bytearray(b"-7"), -7),
    (True, 1),
    (np.int64(3), 3),
    (np.uint8(255), 255),
    (np.float64(3.7), 3),
    (np.bool_(True), 1),
    (PlainInt(5), 5),
    (decimal.Decimal("3.7"), 3),
    (Converted(as_int=4), 4),
    (IndexOnly(6), 6),
    (2**31, 2**31),
    (-(2**63) - 1, -(2**63) - 1),
    (2**64, 2**64),
    (10**30, 10**30),
    ("9" * 40, int("9" * 40)),
    (1e300, int(1e300)),
]


@pytest.mark.parametrize(("given", "expected"), INTEGERS, ids=shown)
def test_leg_id_is_converted_by_int(normalize, given, expected):
    ((leg_id, _),) = normalize(structure("a", [(given, 1.0)])).legs
    assert type(leg_id) is int
    assert leg_id == expected


@pytest.mark.parametrize(
    ("given", "error"),
    [
        ("x", ValueError),
        ("2.5", ValueError),
        ("", ValueError),
        (float("nan"), ValueError),
        (float("inf"), OverflowError),
        (None, TypeError),
        (1j, TypeError),
        ([1], TypeError),
        (object(), TypeError),
    ],
    ids=shown,
)
def test_leg_id_that_int_refuses_is_the_error_of_int(normalize, given, error):
    with pytest.raises(error) as caught:
        normalize(structure("a", [(given, 1.0)]))
    with pytest.raises(error) as expected:
        int(given)
    assert type(caught.value) is type(expected.value)
    assert str(caught.value) == str(expected.value)


FLOATS = [
    ("1.5", 1.5),
    (" -1e3 ", -1000.0),
    ("1_0.5", 10.5),
    (b"2.5", 2.5),
    ("inf", float("inf")),
    ("-Infinity", float("-inf")),
    (True, 1.0),
    (10**30, 1e30),
    (2**63, 2.0**63),
    (np.float32(0.5), 0.5),
    (np.int64(-3), -3.0),
    (PlainFloat(2.5), 2.5),
    (PlainInt(2), 2.0),
    (decimal.Decimal("0.25"), 0.25),
    (Converted(as_float=4.5), 4.5),
    (IndexOnly(6), 6.0),
]


@pytest.mark.parametrize("role", ["weight", "value"])
@pytest.mark.parametrize(("given", "expected"), FLOATS, ids=shown)
def test_weight_and_value_are_converted_by_float(normalize, role, given, expected):
    item = structure("a", [(0, given)], 1.0) if role == "weight" else structure("a", [], given)
    record = normalize(item)
    number = record.legs[0][1] if role == "weight" else record.value
    assert type(number) is float
    assert number == expected


@pytest.mark.parametrize("role", ["weight", "value"])
@pytest.mark.parametrize(
    ("given", "error"),
    [
        ("x", ValueError),
        ("", ValueError),
        ("0x1", ValueError),
        (10**400, OverflowError),
        (None, TypeError),
        (1j, TypeError),
        ([1.0], TypeError),
        (object(), TypeError),
    ],
    ids=shown,
)
def test_number_that_float_refuses_is_the_error_of_float(normalize, role, given, error):
    item = structure("a", [(0, given)], 1.0) if role == "weight" else structure("a", [], given)
    with pytest.raises(error) as caught:
        normalize(item)
    with pytest.raises(error) as expected:
        float(given)
    assert type(caught.value) is type(expected.value)
    assert str(caught.value) == str(expected.value)


@pytest.mark.parametrize("role", ["weight", "value"])
def test_nan_is_a_number_like_any_other(normalize, role):
    item = structure("a", [(0, "nan")], np.nan)
    record = normalize(item)
    assert np.isnan(record.legs[0][1] if role == "weight" else record.value)


def test_exact_float_value_is_kept_as_the_same_object(normalize):
    value = 0.123
    assert normalize(structure("a", [], value)).value is value


@pytest.mark.parametrize("value", [-0.0, 5e-324, 1.7976931348623157e308])
def test_value_keeps_every_bit(normalize, value):
    assert np.float64(normalize(structure("a", [], value)).value).tobytes() == (
        np.float64(value).tobytes()
    )


@pytest.mark.parametrize("conversion", ["__int__", "__float__"])
def test_error_of_a_conversion_propagates_unchanged(normalize, conversion):
    error = LookupError("cannot convert")

    def convert(self):
        raise error

    number = type("Number", (), {conversion: convert})()
    leg = (number, 1.0) if conversion == "__int__" else (1, number)
    with pytest.raises(LookupError) as caught:
        normalize(structure("a", [leg]))
    assert caught.value is error


def test_stop_iteration_of_a_conversion_is_an_error_and_no_end(normalize):
    class Stops:
        def __int__(self):
            raise StopIteration("not an end")

    with pytest.raises((StopIteration, RuntimeError)):
        normalize(structure("a", [(Stops(), 1.0)]))


@pytest.mark.parametrize(
    ("leg", "text"),
    [
        ((), "not enough values to unpack"),
        ((1,), "not enough values to unpack"),
        ((1, 2.0, 3), "too many values to unpack"),
        ("123", "too many values to unpack"),
        ([1, 2.0, 3], "too many values to unpack"),
        ({1}, "not enough values to unpack"),
    ],
    ids=shown,
)
def test_leg_of_another_length_is_an_unpacking_error(normalize, leg, text):
    with pytest.raises(ValueError, match=text):
        normalize(structure("a", [(0, 1.0), leg]))


@pytest.mark.parametrize(
    "leg",
    [(1, 2.0, 3), [1, 2.0, 3], {1: 2, 3: 4, 5: 6}, "123", {1, 2, 3}, iter(range(3)), ()],
    ids=shown,
)
def test_text_of_an_unpacking_error_is_the_interpreters(normalize, leg):
    leg, again = itertools.tee(leg) if hasattr(leg, "__next__") else (leg, leg)
    with pytest.raises(ValueError, match="values to unpack") as expected:
        _, _ = again
    with pytest.raises(ValueError, match="values to unpack") as caught:
        normalize(structure("a", [leg]))
    assert str(caught.value) == str(expected.value)


def test_leg_may_be_an_iterator(normalize):
    assert normalize(structure("a", [iter([1, 0.5])])).legs == ((1, 0.5),)
    with pytest.raises(ValueError, match="not enough values to unpack"):
        normalize(structure("a", [iter([1])]))


def test_endless_leg_is_an_unpacking_error(normalize):
    with pytest.raises(ValueError, match="too many values to unpack"):
        normalize(structure("a", [itertools.count()]))


@pytest.mark.parametrize("leg", [5, None, 2.5, object()], ids=shown)
def test_leg_that_cannot_be_iterated_is_a_type_error(normalize, leg):
    with pytest.raises(TypeError, match="cannot unpack non-iterable"):
        normalize(structure("a", [leg]))


@pytest.mark.parametrize("legs", [5, None, 2.5, object()], ids=shown)
def test_legs_that_cannot_be_iterated_are_a_type_error(normalize, legs):
    with pytest.raises(TypeError, match="iterable"):
        normalize(structure("a", legs))


def test_leg_is_unpacked_whole_before_its_numbers_are_converted(normalize):
    with pytest.raises(ValueError, match="unpack"):
        normalize(structure("a", [("not a number", 1.0, 2.0)]))


def test_legs_are_read_lazily_one_after_the_other(normalize):
    log = []

    def legs():
        for number in (1, 2):
            log.append(f"leg {number}")
            yield Logged(log, f"id {number}"), Logged(log, f"weight {number}")
        log.append("end")

    normalize(structure("a", legs()))
    assert log == [
        "leg 1",
        "int id 1",
        "float weight 1",
        "leg 2",
        "int id 2",
        "float weight 2",
        "end",
    ]


def test_leg_unpacking_reads_no_more_than_one_item_too_many(normalize):
    read = []

    def leg():
        for number in range(10):
            read.append(number)
            yield number

    with pytest.raises(ValueError, match="too many"):
        normalize(structure("a", [leg()]))
    assert read == [0, 1, 2]


def test_legs_list_may_grow_and_shrink_while_it_is_read(normalize):
    legs = []

    class Grows:
        def __int__(self):
            legs.append((9, 9.0))
            return 1

    class Clears:
        def __int__(self):
            legs.clear()
            return 2

    legs.append((Grows(), 1.0))
    assert normalize(structure("a", legs)).legs == ((1, 1.0), (9, 9.0))
    legs[:] = [(Clears(), 1.0), (3, 3.0)]
    assert normalize(structure("a", legs)).legs == ((2, 1.0),)


def test_leg_list_changed_by_its_own_id_keeps_the_weight_read_before(normalize):
    leg = []

    class Clears:
        def __int__(self):
            leg.clear()
            return 4

    leg.extend([Clears(), 2.5])
    assert normalize(structure("a", [leg])).legs == ((4, 2.5),)


def test_item_emptied_by_a_conversion_was_read_before(normalize):
    item = {}

    class Empties:
        def __int__(self):
            item.clear()
            gc.collect()
            return 4

    item.update(structure([object()], [[Empties(), 0.5 + 1]], 10.0**3, metadata={"note": [1]}))
    record = normalize(item)
    assert record.legs == ((4, 1.5),)
    assert len(record.key) == 1
    assert record.value == 1000.0
    assert record.metadata["note"] == [1]
