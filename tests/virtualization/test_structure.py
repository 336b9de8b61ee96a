"""Virtual structures: the hook, normalisation, permanent slots and the day's validity."""

import collections
import decimal
import gc
import itertools
import types

import numpy as np
import pytest

from support.fakes import make_rotation, rotation_class, shown, structure
from support.siblings import Siblings, load_base


class PlainInt(int):
    pass


class PlainFloat(float):
    pass


class Key(tuple):
    __slots__ = ()


NamedKey = collections.namedtuple("NamedKey", "left right")


class Formatted:
    def __format__(self, format_spec):
        return f"formatted<{format_spec}>"


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


class Logged:
    """Value of any role that writes each use into a shared list."""

    def __init__(self, log, label, iterates=()):
        self.log, self.label, self.iterates = log, label, iterates

    def __int__(self):
        self.log.append(f"int {self.label}")
        return 0

    def __float__(self):
        self.log.append(f"float {self.label}")
        return 0.0

    def __bool__(self):
        self.log.append(f"bool {self.label}")
        return True

    def __iter__(self):
        self.log.append(f"iter {self.label}")
        return iter(self.iterates)


@pytest.fixture
def rotation(base):
    return make_rotation(base)


@pytest.fixture
def normalize(rotation):
    return rotation._normalize_structure


# --- stateful and the hook --------------------------------------------------------------------


def test_rotation_is_stateful_from_the_start(base, rotation):
    assert rotation.stateful is True
    assert base.VirtualizationBase.stateful.__get__(rotation) is True


def test_stateful_is_true_whatever_the_children_say(base):
    child = types.SimpleNamespace(stateful=False)
    assert make_rotation(base, child_rotations=[child]).stateful is True


def test_stateful_cannot_be_set_or_deleted(rotation):
    with pytest.raises(AttributeError):
        rotation.stateful = False
    with pytest.raises(AttributeError):
        del rotation.stateful


def test_subclass_may_override_stateful(base):
    assert make_rotation(base, attributes={"stateful": False}).stateful is False


DAY = (np.ones(2), (), ((0, 0),), (0, 0), 2)


def test_missing_override_calls_the_abstract_hook_with_the_qualified_name(base, siblings):
    rotation = base.VirtualizationBase(
        max_structures=1, N_alloc=2, transformation_expression="none"
    )
    with pytest.raises(NotImplementedError):
        rotation._refresh_active_structures(*DAY)
    assert siblings.hook_calls == ["VirtualizationBase._refresh_active_structures"]


def test_error_of_the_abstract_hook_propagates(kind):
    error = LookupError("override me")

    def abstract_method_required(name):
        raise error

    base = load_base(kind, Siblings(abstract_method_required=abstract_method_required))
    with pytest.raises(LookupError) as caught:
        base.VirtualizationBase._refresh_active_structures(None, *DAY)
    assert caught.value is error


def test_result_of_the_abstract_hook_is_returned(base):
    answer = object()
    calls = []

    def hook(*args, **kwargs):
        calls.append((args, kwargs))
        return answer

    base.abstract_method_required = hook
    rotation = make_rotation(base)
    assert base.VirtualizationBase._refresh_active_structures(rotation, *DAY) is answer
    assert calls == [(("VirtualizationBase._refresh_active_structures",), {})]


# --- normalisation: reading a dict ------------------------------------------------------------


def test_dict_item_becomes_a_new_record(base, normalize):
    record = normalize({"key": (1, "a"), "legs": [(0, 0.5), (3, -1.0)], "value": 2.5})
    assert type(record) is base.VirtualStructure
    assert record.key == (1, "a")
    assert record.legs == ((0, 0.5), (3, -1.0))
    assert record.value == 2.5
    assert record.metadata == {"key": (1, "a"), "legs": ((0, 0.5), (3, -1.0))}


@pytest.mark.parametrize("missing", ["key", "legs"])
def test_dict_item_without_key_or_legs_is_a_key_error(normalize, missing):
    item = structure("a", [])
    del item[missing]
    with pytest.raises(KeyError) as caught:
        normalize(item)
    assert caught.value.args == (missing,)


def test_dict_item_without_value_is_nan(normalize):
    value = normalize({"key": "a", "legs": []}).value
    assert type(value) is float
    assert np.isnan(value)


def test_dict_item_with_value_none_is_a_type_error(normalize):
    with pytest.raises(TypeError):
        normalize(structure("a", [], None))


class LoggingDict(dict):
    def __init__(self, *args, **kwargs):
        super().__init__(*args, **kwargs)
        self.log = []

    def __getitem__(self, name):
        self.log.append(("item", name))
        return super().__getitem__(name)

    def get(self, *args):
        self.log.append(("get", *args))
        return super().get(*args)


def test_dict_subclass_is_read_in_order_through_its_own_methods(normalize):
    item = LoggingDict(key="a", legs=[(1, 2.0)], value=3.0)
    normalize(item)
    assert item.log == [
        ("item", "key"),
        ("item", "legs"),
        ("get", "value", np.nan),
        ("get", "metadata"),
    ]
    assert item.log[2][2] is np.nan


def test_dict_subclass_answers_with_its_own_get(normalize):
    class Scaled(dict):
        def get(self, name, default=None):
            return {"value": 7.0, "metadata": {"from": "get"}}[name]

    record = normalize(Scaled(key="a", legs=[], value=1.0, metadata={}))
    assert record.value == 7.0
    assert record.metadata["from"] == "get"


def test_dict_subclass_supplies_missing_key_and_legs(normalize):
    item = collections.defaultdict(list, value=1.0)
    record = normalize(item)
    assert record.key == ()
    assert record.legs == ()


def test_ordered_dict_is_read_as_a_dict(normalize):
    record = normalize(collections.OrderedDict(structure("ab", [(1, 1.0)], 4.0)))
    assert (record.key, record.legs, record.value) == (("a", "b"), ((1, 1.0),), 4.0)


def test_dict_subclass_with_attributes_is_still_read_as_a_dict(normalize):
    class Both(dict):
        key, legs, value, metadata = "x", [], 9.0, {}

    assert normalize(Both(structure("a", [], 1.0))).key == ("a",)


def test_missing_key_is_reported_before_missing_legs(normalize):
    with pytest.raises(KeyError, match="key"):
        normalize({})


# --- normalisation: reading an object ---------------------------------------------------------


def test_object_item_is_read_by_its_attributes(normalize):
    item = types.SimpleNamespace(key=[1, 2], legs=[(1, 2)], value="3", metadata={"a": 1})
    record = normalize(item)
    assert (record.key, record.legs, record.value) == ((1, 2), ((1, 2.0),), 3.0)
    assert record.metadata == {"a": 1, "key": (1, 2), "legs": ((1, 2.0),)}


@pytest.mark.parametrize("missing", ["key", "legs", "value"])
def test_object_item_without_a_field_is_an_attribute_error(normalize, missing):
    fields = structure("a", [], 1.0)
    del fields[missing]
    with pytest.raises(AttributeError, match=missing):
        normalize(types.SimpleNamespace(**fields))


def test_object_item_without_metadata_has_none(normalize):
    record = normalize(types.SimpleNamespace(**structure("a", [], 1.0)))
    assert list(record.metadata) == ["key", "legs"]


def test_object_item_is_read_in_order(normalize):
    read = []

    class Item:
        def __getattr__(self, name):
            read.append(name)
            return {"key": "a", "legs": [], "value": 1.0, "metadata": None}[name]

    normalize(Item())
    assert read == ["key", "legs", "value", "metadata"]


@pytest.mark.parametrize("error", [KeyError("x"), ValueError("x"), RuntimeError("x")])
def test_only_an_attribute_error_means_no_metadata(normalize, error):
    class Item:
        key, legs, value = "a", [], 1.0

        @property
        def metadata(self):
            raise error

    with pytest.raises(type(error)) as caught:
        normalize(Item())
    assert caught.value is error


def test_attribute_error_inside_a_metadata_property_means_none(normalize):
    class Item:
        key, legs, value = "a", [], 1.0

        @property
        def metadata(self):
            raise AttributeError("deep inside")

    assert list(normalize(Item()).metadata) == ["key", "legs"]


def test_record_item_gives_a_new_record_with_new_metadata(base, normalize):
    first = base.VirtualStructure(("a",), ((1, 2.0),), 3.0, {"note": 1})
    second = normalize(first)
    assert second is not first
    assert second.metadata is not first.metadata
    assert first.metadata == {"note": 1}
    assert second.metadata == {"note": 1, "key": ("a",), "legs": ((1, 2.0),)}


@pytest.mark.parametrize("make", [types.MappingProxyType, collections.UserDict])
def test_mapping_that_is_no_dict_has_no_fields(normalize, make):
    with pytest.raises(AttributeError, match="key"):
        normalize(make(structure("a", [], 1.0)))


@pytest.mark.parametrize("item", [None, 5, "text", ("a", [], 1.0), object()])
def test_item_of_no_known_form_is_an_attribute_error(normalize, item):
    with pytest.raises(AttributeError):
        normalize(item)


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


# --- normalisation: metadata ------------------------------------------------------------------


@pytest.mark.parametrize("metadata", [None, {}, 0, "", (), [], False, collections.UserDict()])
def test_false_metadata_gives_key_and_legs_alone(normalize, metadata):
    record = normalize(structure([1, 2], [(0, 1)], metadata=metadata))
    assert type(record.metadata) is dict
    assert list(record.metadata.items()) == [("key", (1, 2)), ("legs", ((0, 1.0),))]


def test_missing_metadata_gives_key_and_legs_alone(normalize):
    assert normalize(structure("a", [])).metadata == {"key": ("a",), "legs": ()}


@pytest.mark.parametrize(
    "metadata",
    [
        {"a": 1, "b": 2},
        [("a", 1), ("b", 2)],
        (["a", 1], ["b", 2]),
        collections.OrderedDict(a=1, b=2),
        collections.UserDict(a=1, b=2),
        types.MappingProxyType({"a": 1, "b": 2}),
    ],
    ids=lambda metadata: type(metadata).__name__,
)
def test_metadata_may_be_whatever_dict_takes(normalize, metadata):
    made = normalize(structure("k", [], metadata=metadata)).metadata
    assert type(made) is dict
    assert list(made.items()) == [("a", 1), ("b", 2), ("key", ("k",)), ("legs", ())]


def test_metadata_may_be_an_iterator_of_pairs(normalize):
    made = normalize(structure("k", [], metadata=iter([("a", 1), ("b", 2)]))).metadata
    assert list(made) == ["a", "b", "key", "legs"]


def test_metadata_is_a_shallow_copy(normalize):
    inner = []
    given = {"inner": inner}
    made = normalize(structure("a", [], metadata=given)).metadata
    assert made is not given
    assert made["inner"] is inner
    assert given == {"inner": inner}


@pytest.mark.parametrize("name", ["key", "legs"])
@pytest.mark.parametrize("entry", [None, "mine", [1]])
def test_metadata_entry_of_the_caller_is_kept(normalize, name, entry):
    record = normalize(structure([1], [(0, 1)], metadata={name: entry}))
    assert record.metadata[name] is entry
    assert (record.key, record.legs) == ((1,), ((0, 1.0),))


def test_metadata_holds_the_records_own_key_and_legs(normalize):
    key = (1, 2)
    record = normalize(structure(key, [(0, 1)]))
    assert record.metadata["key"] is key
    assert record.metadata["legs"] is record.legs


def test_two_items_never_share_metadata(normalize):
    item = structure("a", [], metadata={"x": 1})
    assert normalize(item).metadata is not normalize(item).metadata


@pytest.mark.parametrize(
    ("metadata", "error"),
    [(5, TypeError), ([1], TypeError), (["abc"], ValueError), ([("a", 1, 2)], ValueError)],
)
def test_metadata_that_dict_refuses_is_the_error_of_dict(normalize, metadata, error):
    with pytest.raises(error):
        normalize(structure("a", [], metadata=metadata))


def test_error_of_the_truth_of_metadata_propagates(normalize):
    with pytest.raises(ValueError, match="ambiguous"):
        normalize(structure("a", [], metadata=np.ones(2)))


# --- normalisation: the key -------------------------------------------------------------------


@pytest.mark.parametrize(
    ("key", "expected"),
    [
        ([1, 2], (1, 2)),
        ("ab", ("a", "b")),
        ("", ()),
        (b"\x01\x02", (1, 2)),
        (range(3), (0, 1, 2)),
        ({"x": 1, "y": 2}, ("x", "y")),
        (Key((1, 2)), (1, 2)),
        (NamedKey(1, 2), (1, 2)),
    ],
    ids=shown,
)
def test_key_becomes_an_exact_tuple(normalize, key, expected):
    record = normalize(structure(key, []))
    assert type(record.key) is tuple
    assert record.key == record.metadata["key"] == expected


def test_exact_tuple_key_is_kept_as_the_same_object(normalize):
    key = (object(), [1])
    assert normalize(structure(key, [])).key is key


def test_key_is_converted_for_the_metadata_and_again_for_the_record(normalize):
    log = []
    record = normalize(structure(Logged(log, "key", (1, 2)), []))
    assert log == ["iter key", "iter key"]
    assert record.key == record.metadata["key"] == (1, 2)


@pytest.mark.parametrize("key", [5, None, 2.5], ids=shown)
def test_key_that_cannot_be_iterated_is_a_type_error(normalize, key):
    with pytest.raises(TypeError, match="not iterable"):
        normalize(structure(key, []))


def test_key_is_converted_even_where_the_metadata_has_one(normalize):
    with pytest.raises(TypeError, match="not iterable"):
        normalize(structure(5, [], metadata={"key": "mine"}))


# --- normalisation: order and result ----------------------------------------------------------

FAULTS = [
    ("key missing", KeyError, "'key'"),
    ("legs missing", KeyError, "'legs'"),
    ("legs", ValueError, "int"),
    ("metadata", TypeError, "'object'"),
    ("key", TypeError, "'complex'"),
    ("value", ValueError, "float"),
]


@pytest.mark.parametrize("first", range(len(FAULTS)))
def test_first_fault_in_order_is_reported(normalize, first):
    class Truthy:
        pass

    names = [name for name, _, _ in FAULTS[first:]]
    item = structure(
        1j if "key" in names else "a",
        [("x", 1.0)] if "legs" in names else [],
        "y" if "value" in names else 1.0,
        metadata=object() if "metadata" in names else None,
    )
    if "key missing" in names:
        del item["key"]
    if "legs missing" in names:
        del item["legs"]
    _, error, text = FAULTS[first]
    with pytest.raises(error, match=text):
        normalize(item)


def test_conversions_run_in_order(normalize):
    log = []

    class Metadata(Logged):
        def keys(self):
            log.append("keys metadata")
            return []

    normalize(
        {
            "key": Logged(log, "key"),
            "legs": Logged(log, "legs", [Logged(log, "leg", [Logged(log, "id"), 1.0])]),
            "value": Logged(log, "value"),
            "metadata": Metadata(log, "metadata"),
        }
    )
    assert log == [
        "iter legs",
        "iter leg",
        "int id",
        "bool metadata",
        "keys metadata",
        "iter key",
        "iter key",
        "float value",
    ]


def test_record_class_is_read_when_called_and_built_by_position(base, normalize):
    calls = []
    answer = object()

    def record(*args, **kwargs):
        calls.append((args, kwargs))
        return answer

    base.VirtualStructure = record
    assert normalize(structure("a", [(0, 1)], 2)) is answer
    metadata = {"key": ("a",), "legs": ((0, 1.0),)}
    assert calls == [((("a",), ((0, 1.0),), 2.0, metadata), {})]


def test_record_class_makes_its_records_as_its_initialiser_now_says(base, normalize):
    def doubled(self, key, legs, value, metadata=None):
        self.key, self.legs, self.value, self.metadata = key, legs, 2 * value, metadata

    assert normalize(structure("a", [(0, 1)], 2)).value == 2.0
    base.VirtualStructure.__init__.__code__ = doubled.__code__
    assert normalize(structure("a", [(0, 1)], 2)).value == 4.0


def test_a_record_of_a_class_that_is_bound_no_more_is_judged_all_the_same(base, rotation):
    record = base.VirtualStructure(("a",), ((0, 1.0),), 1.0, {})
    del base.VirtualStructure
    assert rotation._structure_is_valid(record, (), [0, 0, 0], 3)
    assert not rotation._structure_is_valid(record, (), [1, 0, 0], 3)


def test_normalising_changes_neither_item_nor_rotation(rotation):
    before = dict(vars(rotation))
    item = structure(["a"], [[0, 1]], 1, metadata={"x": 1})
    rotation._normalize_structure(item)
    assert item == structure(["a"], [[0, 1]], 1, metadata={"x": 1})
    assert vars(rotation) == before
    assert rotation.slot_by_key == {}


# --- slots ------------------------------------------------------------------------------------


def test_slots_are_dense_in_the_order_of_first_sight(rotation):
    assert [rotation._slot_for_key(key) for key in ["a", "b", "a", "c", "b"]] == [0, 1, 0, 2, 1]
    assert rotation.slot_by_key == {("a",): 0, ("b",): 1, ("c",): 2}
    assert rotation.key_by_slot == {0: ("a",), 1: ("b",), 2: ("c",)}


def test_slot_is_an_exact_int(rotation):
    assert type(rotation._slot_for_key("a")) is int
    assert type(rotation._slot_for_key("a")) is int


@pytest.mark.parametrize("other", [[1, 2], (1, 2), (1.0, True + 1), NamedKey(1, 2), range(1, 3)])
def test_equal_keys_have_one_slot(rotation, other):
    rotation._slot_for_key("first")
    assert rotation._slot_for_key((1, 2)) == rotation._slot_for_key(other) == 1


def test_text_key_is_the_tuple_of_its_characters(rotation):
    rotation._slot_for_key("ab")
    assert rotation.slot_by_key == {("a", "b"): 0}


def test_stored_key_is_an_exact_tuple(rotation):
    rotation._slot_for_key(Key((1,)))
    assert type(rotation.key_by_slot[0]) is tuple
    assert type(next(iter(rotation.slot_by_key))) is tuple


def test_both_maps_hold_the_same_key_object(rotation):
    key = (object(),)
    rotation._slot_for_key(key)
    assert rotation.key_by_slot[0] is key
    assert next(iter(rotation.slot_by_key)) is key


def test_iterator_key_is_read_once(rotation):
    assert rotation._slot_for_key(iter("ab")) == 0
    assert rotation.slot_by_key == {("a", "b"): 0}


def test_new_key_beyond_the_capacity_is_a_value_error(base):
    rotation = make_rotation(base, max_structures=3)
    for key in "abc":
        rotation._slot_for_key(key)
    with pytest.raises(ValueError) as caught:  # noqa: PT011
        rotation._slot_for_key("d")
    assert str(caught.value) == (
        "virtualization_base: active structure count exceeds max_structures=3"
    )
    assert rotation.slot_by_key == {("a",): 0, ("b",): 1, ("c",): 2}
    assert rotation.key_by_slot == {0: ("a",), 1: ("b",), 2: ("c",)}


def test_known_key_is_found_when_all_slots_are_taken(base):
    rotation = make_rotation(base, max_structures=1)
    rotation._slot_for_key("a")
    with pytest.raises(ValueError, match="exceeds"):
        rotation._slot_for_key("b")
    assert rotation._slot_for_key("a") == 0


def test_known_key_is_found_even_under_a_lowered_capacity(rotation):
    rotation._slot_for_key("a")
    rotation.max_structures = 0
    assert rotation._slot_for_key("a") == 0


def test_capacity_message_formats_name_and_capacity(rotation):
    rotation._name = Formatted()
    rotation.max_structures = -0.5
    with pytest.raises(ValueError) as caught:  # noqa: PT011
        rotation._slot_for_key("a")
    assert str(caught.value) == ("formatted<>: active structure count exceeds max_structures=-0.5")


@pytest.mark.parametrize("key", [5, None, 1.5], ids=shown)
def test_slot_key_that_cannot_be_iterated_is_a_type_error(rotation, key):
    with pytest.raises(TypeError, match="not iterable"):
        rotation._slot_for_key(key)


def test_slot_key_that_cannot_be_hashed_is_a_type_error(rotation):
    with pytest.raises(TypeError, match="unhashable"):
        rotation._slot_for_key([[1]])
    assert rotation.slot_by_key == rotation.key_by_slot == {}


def test_error_of_a_key_hash_propagates(rotation):
    error = LookupError("no hash")

    class Element:
        def __hash__(self):
            raise error

    with pytest.raises(LookupError) as caught:
        rotation._slot_for_key([Element()])
    assert caught.value is error


def test_known_slot_is_returned_as_it_is_stored(rotation):
    marker = object()
    rotation.slot_by_key[("a",)] = marker
    assert rotation._slot_for_key("a") is marker


def test_new_slot_is_the_number_of_entries_without_a_search(rotation):
    for key in "abc":
        rotation._slot_for_key(key)
    del rotation.slot_by_key[("a",)]
    assert rotation._slot_for_key("d") == 2
    assert rotation.key_by_slot == {0: ("a",), 1: ("b",), 2: ("d",)}


class LoggingMap(dict):
    """Dict subclass that writes membership tests, reads, sizes and stores into `log`."""

    def __init__(self, log, label):
        super().__init__()
        self.log, self.label = log, label

    def __contains__(self, key):
        self.log.append((self.label, "contains", key))
        return super().__contains__(key)

    def __getitem__(self, key):
        self.log.append((self.label, "get", key))
        return super().__getitem__(key)

    def __len__(self):
        self.log.append((self.label, "len"))
        return super().__len__()

    def __setitem__(self, key, value):
        self.log.append((self.label, "set", key, value))
        super().__setitem__(key, value)


def test_slot_maps_are_used_through_their_own_methods_in_order(rotation):
    log = []
    rotation.slot_by_key = LoggingMap(log, "slots")
    rotation.key_by_slot = LoggingMap(log, "keys")
    rotation._slot_for_key("a")
    assert log == [
        ("slots", "contains", ("a",)),
        ("slots", "len"),
        ("slots", "len"),
        ("slots", "set", ("a",), 0),
        ("keys", "set", 0, ("a",)),
    ]
    del log[:]
    rotation._slot_for_key("a")
    assert log == [("slots", "contains", ("a",)), ("slots", "get", ("a",))]


def test_membership_is_what_the_map_says(rotation):
    class Everything(dict):
        def __contains__(self, key):
            return True

        def __missing__(self, key):
            return 17

    rotation.slot_by_key = Everything()
    assert rotation._slot_for_key("new") == 17
    assert rotation.slot_by_key == {}


def test_failing_second_store_leaves_the_first(rotation):
    error = LookupError("full")

    class Full(dict):
        def __setitem__(self, key, value):
            raise error

    rotation.key_by_slot = Full()
    with pytest.raises(LookupError) as caught:
        rotation._slot_for_key("a")
    assert caught.value is error
    assert rotation.slot_by_key == {("a",): 0}


def test_maps_replaced_by_the_user_are_the_ones_used(rotation):
    rotation._slot_for_key("a")
    rotation.slot_by_key, rotation.key_by_slot = {}, {}
    assert rotation._slot_for_key("b") == 0
    assert rotation.key_by_slot == {0: ("b",)}


def test_map_swapped_by_a_key_hash_is_read_anew(rotation):
    old = rotation.slot_by_key
    swapped = {("x",): 0}

    class Swaps:
        def __hash__(self):
            rotation.slot_by_key = swapped
            return 1

    assert rotation._slot_for_key([Swaps()]) == 1
    assert old == {}
    assert list(swapped.values()) == [0, 1]
    assert list(rotation.key_by_slot) == [1]


def test_slot_attributes_may_be_properties_of_a_subclass(base):
    slots, keys = {}, {}
    attributes = {
        "slot_by_key": property(lambda self: slots, lambda self, value: None),
        "key_by_slot": property(lambda self: keys, lambda self, value: None),
        "_name": property(lambda self: "computed"),
    }
    rotation = make_rotation(base, attributes=attributes, max_structures=1)
    assert rotation._slot_for_key("a") == 0
    assert (slots, keys) == ({("a",): 0}, {0: ("a",)})
    with pytest.raises(ValueError, match=r"^computed: active structure count exceeds"):
        rotation._slot_for_key("b")


# --- validity ---------------------------------------------------------------------------------


def valid(rotation, legs, value=1.0, nan_masks=(), combined=(0, 0, 0), N=3):
    record = types.SimpleNamespace(legs=legs, value=value)
    return rotation._structure_is_valid(record, nan_masks, combined, N)


def test_legs_on_live_instruments_and_a_finite_value_are_valid(rotation):
    result = valid(rotation, ((0, 1.0), (2, -1.0)), nan_masks=[[0, 0, 0], [0, 0, 0]])
    assert result is np.True_ or (type(result) is np.bool_ and bool(result))


@pytest.mark.parametrize("leg_id", [-1, 3, 4, -(10**30), 10**30, 2**63, -(2**63) - 1])
def test_leg_outside_the_live_instruments_is_invalid(rotation, leg_id):
    assert valid(rotation, ((0, 1.0), (leg_id, 1.0))) is False


def test_leg_flagged_in_the_combined_mask_is_invalid(rotation):
    assert valid(rotation, ((0, 1.0), (1, 1.0)), combined=[0, 1, 0]) is False
    assert valid(rotation, ((0, 1.0), (2, 1.0)), combined=[0, 1, 0])


@pytest.mark.parametrize("which", [0, 1, 2])
def test_leg_flagged_in_any_single_mask_is_invalid(rotation, which):
    masks = [[0, 0, 0] for _ in range(3)]
    masks[which][1] = 1
    assert valid(rotation, ((1, 1.0),), nan_masks=masks) is False
    assert valid(rotation, ((0, 1.0),), nan_masks=masks)


@pytest.mark.parametrize("value", [np.nan, np.inf, -np.inf])
def test_value_that_is_not_finite_gives_numpy_false(rotation, value):
    result = valid(rotation, ((0, 1.0),), value)
    assert type(result) is np.bool_
    assert not result


@pytest.mark.parametrize("value", [0.0, -0.0, 1e308, 5e-324, 3, True, np.float32(1), 2**62])
def test_finite_value_gives_numpy_true(rotation, value):
    result = valid(rotation, (), value)
    assert type(result) is np.bool_
    assert result


@pytest.mark.parametrize("value", ["1.0", None, [None], 10**30, object(), {}], ids=shown)
def test_value_that_numpy_refuses_is_the_error_of_numpy(rotation, value):
    with pytest.raises(TypeError) as caught:
        valid(rotation, (), value)
    with pytest.raises(TypeError) as expected:
        np.isfinite(value)
    assert str(caught.value) == str(expected.value)


def test_result_is_what_numpy_returns_for_any_value(rotation):
    result = valid(rotation, (), np.array([1.0, np.nan]))
    assert type(result) is np.ndarray
    assert result.tolist() == [True, False]
    assert valid(rotation, (), 1j) == np.True_


def test_structure_without_legs_is_valid_by_its_value_alone(rotation):
    masks = [[1, 1, 1]]
    assert valid(rotation, (), 1.0, masks, [1, 1, 1], 0)
    assert not valid(rotation, (), np.inf, masks, [1, 1, 1], 0)


@pytest.mark.parametrize("weight", [0.0, np.nan, None, "text", object()], ids=shown)
def test_weight_plays_no_part(rotation, weight):
    assert valid(rotation, ((0, weight),))


def test_value_is_not_read_for_an_invalid_leg(rotation):
    class Record:
        legs = ((3, 1.0),)

        @property
        def value(self):
            raise AssertionError("value was read")

    assert rotation._structure_is_valid(Record(), (), [0, 0, 0], 3) is False


@pytest.mark.parametrize("field", ["key", "metadata"])
def test_a_record_is_judged_without_what_is_not_asked_of_it(base, rotation, field):
    record = base.VirtualStructure(("a",), ((0, 1.0),), 1.0, {})
    delattr(record, field)
    assert rotation._structure_is_valid(record, (), [0, 0, 0], 3)


@pytest.mark.parametrize("field", ["legs", "value"])
def test_a_record_without_legs_or_value_is_an_attribute_error(base, rotation, field):
    record = base.VirtualStructure(("a",), ((0, 1.0),), 1.0, {})
    delattr(record, field)
    with pytest.raises(AttributeError, match=field):
        rotation._structure_is_valid(record, (), [0, 0, 0], 3)
    with pytest.raises(AttributeError, match=field):
        rotation._normalize_structure(record)


@pytest.mark.parametrize("legs", [((0, 1.0),), [(0, 1.0)], ([0, 1.0],), ((np.int64(0), 1),)])
@pytest.mark.parametrize("value", [1.0, 1, np.float64(1.0), True, np.inf, -1])
def test_a_record_is_judged_by_what_it_has_become(base, rotation, legs, value):
    record = base.VirtualStructure(("a",), ((0, 1.0),), 1.0, {})
    record.legs, record.value = legs, value
    verdict = rotation._structure_is_valid(record, (), [0, 0, 0], 3)
    assert type(verdict) is np.bool_
    assert bool(verdict) == (value != np.inf)
    assert rotation._structure_is_valid(record, (), [1, 0, 0], 3) is False


def test_a_record_class_with_another_initialiser_is_called(base, rotation, monkeypatch):
    def initialise(self, key, legs, value, metadata=None):
        self.key, self.legs, self.value, self.metadata = key, legs, 2.0 * value, metadata

    monkeypatch.setattr(base.VirtualStructure, "__init__", initialise)
    record = rotation._normalize_structure(structure(("a",), ((0, 1.0),), 1.5))
    assert record.value == 3.0
    assert rotation._structure_is_valid(record, (), [0, 0, 0], 3)


def test_legs_after_an_invalid_one_are_not_looked_at(rotation):
    def legs():
        yield (3, 1.0)
        raise AssertionError("read on")

    assert valid(rotation, legs()) is False
    assert valid(rotation, ((-1, 1.0), "not a pair")) is False


@pytest.mark.parametrize("legs", [((0,),), ((0, 1.0, 2),), ("123",)], ids=shown)
def test_stored_leg_that_is_no_pair_is_an_unpacking_error(rotation, legs):
    with pytest.raises(ValueError, match="unpack"):
        valid(rotation, legs)


@pytest.mark.parametrize("legs", [5, None, (5,)], ids=shown)
def test_stored_legs_that_cannot_be_iterated_are_a_type_error(rotation, legs):
    with pytest.raises(TypeError):
        valid(rotation, legs)


@pytest.mark.parametrize(
    "make", [list, tuple, iter, lambda legs: [list(leg) for leg in legs], np.array]
)
def test_stored_legs_may_be_any_iterable(rotation, make):
    masks = {0: 0, 2: 0, 1: 1}
    assert valid(rotation, make([(0, 1), (2, 1)]), combined=masks)
    assert valid(rotation, make([(0, 1), (1, 1)]), combined=masks) is False


def test_object_without_the_record_fields_is_an_attribute_error(rotation):
    with pytest.raises(AttributeError, match="legs"):
        rotation._structure_is_valid({"legs": (), "value": 1.0}, (), [0], 1)
    with pytest.raises(AttributeError, match="value"):
        rotation._structure_is_valid(types.SimpleNamespace(legs=()), (), [0], 1)


class GetItemMask:
    def __init__(self, flags):
        self.flags = flags
        self.asked = []

    def __getitem__(self, leg_id):
        self.asked.append(leg_id)
        return self.flags[leg_id]


MASKS = [
    lambda flags: flags,
    tuple,
    bytes,
    bytearray,
    lambda flags: memoryview(bytes(flags)),
    lambda flags: np.array(flags, dtype=np.uint8),
    lambda flags: np.array(flags, dtype=bool),
    lambda flags: np.array(flags, dtype=np.int64),
    lambda flags: np.array(flags, dtype=np.float64),
    lambda flags: np.array(flags, dtype=object),
    lambda flags: np.array([flags, flags], dtype=np.uint8).T.copy().T[0],
    lambda flags: np.array(flags[::-1], dtype=np.uint8)[::-1],
    lambda flags: np.array([flag * 7 for flag in flags], dtype=np.uint8),
    lambda flags: dict(enumerate(flags)),
    GetItemMask,
]


@pytest.mark.parametrize("make", MASKS)
@pytest.mark.parametrize("role", ["combined", "single"])
def test_mask_may_be_anything_that_is_indexed(rotation, make, role):
    mask = make([0, 1, 0])
    masks = {"combined": mask} if role == "combined" else {"nan_masks": [mask]}
    assert valid(rotation, ((0, 1.0), (2, 1.0)), **masks)
    assert valid(rotation, ((0, 1.0), (1, 1.0)), **masks) is False


def test_mask_is_asked_with_the_leg_id_itself(rotation):
    leg_id = PlainInt(1)
    mask = GetItemMask([0, 0, 0])
    valid(rotation, ((leg_id, 1.0),), combined=mask)
    assert mask.asked == [leg_id]
    assert mask.asked[0] is leg_id


@pytest.mark.parametrize("flag", [np.nan, "x", [0], -1, 0.1])
def test_flag_counts_by_its_truth(rotation, flag):
    assert valid(rotation, ((0, 1.0),), combined=[flag]) is False


@pytest.mark.parametrize("flag", [0.0, "", [], None, np.False_])
def test_false_flag_is_clear(rotation, flag):
    assert valid(rotation, ((0, 1.0),), combined=[flag], nan_masks=[[flag]])


def test_error_of_the_truth_of_a_flag_propagates(rotation):
    with pytest.raises(ValueError, match="ambiguous"):
        valid(rotation, ((0, 1.0),), combined=np.ones((3, 2)))


@pytest.mark.parametrize("make", MASKS[:13])
@pytest.mark.parametrize("role", ["combined", "single"])
def test_mask_shorter_than_n_is_an_index_error(rotation, make, role):
    mask = make([0, 0, 0])
    masks = {"combined": mask} if role == "combined" else {"nan_masks": [mask]}
    masks.setdefault("combined", np.zeros(9, dtype=np.uint8))
    with pytest.raises(IndexError):
        valid(rotation, ((3, 1.0),), N=9, **masks)
    assert valid(rotation, ((2, 1.0),), N=9, **masks)


@pytest.mark.parametrize("make", [list, lambda flags: np.array(flags, dtype=np.uint8)])
def test_leg_id_beyond_any_index_is_an_index_error_below_a_huge_n(rotation, make):
    with pytest.raises(IndexError):
        valid(rotation, ((10**30, 1.0),), N=10**40, combined=make([0, 0, 0]))


def test_leg_id_of_a_wrong_type_is_the_error_of_the_mask(rotation):
    with pytest.raises(TypeError):
        valid(rotation, ((1.0, 1.0),), combined=[0, 0, 0])
    with pytest.raises(IndexError):
        valid(rotation, ((1.0, 1.0),), combined=np.zeros(3))


def test_leg_id_that_does_not_compare_is_a_type_error(rotation):
    with pytest.raises(TypeError):
        valid(rotation, (("1", 1.0),))
    with pytest.raises(TypeError):
        valid(rotation, ((None, 1.0),))


@pytest.mark.parametrize("N", [2.5, np.int64(3), np.float64(2.5), PlainInt(3), 10**30])
def test_n_may_be_any_number(rotation, N):
    assert valid(rotation, ((2, 1.0),), N=N)


def test_n_that_does_not_compare_is_a_type_error(rotation):
    with pytest.raises(TypeError):
        valid(rotation, ((0, 1.0),), N="3")
    assert valid(rotation, ((-1, 1.0),), N="3") is False


def test_leg_id_is_compared_by_its_own_operators_in_order(rotation):
    log = []

    class LegId(int):
        def __lt__(self, other):
            log.append(("<", other))
            return False

        def __ge__(self, other):
            log.append((">=", other))
            return False

    assert valid(rotation, ((LegId(1), 1.0),))
    assert log == [("<", 0), (">=", 3)]


@pytest.mark.parametrize("leg_id", [np.int64(1), np.uint8(1), True, PlainInt(1)])
def test_leg_id_may_be_any_integer_that_indexes(rotation, leg_id):
    assert valid(rotation, ((leg_id, 1.0),), combined=[1, 0, 1])
    assert valid(rotation, ((leg_id, 1.0),), combined=[0, 1, 0]) is False


def test_combined_mask_is_asked_before_the_single_masks(rotation):
    order = []

    class Mask:
        def __init__(self, label, flag):
            self.label, self.flag = label, flag

        def __getitem__(self, leg_id):
            order.append((self.label, leg_id))
            return self.flag

    masks = [Mask("first", 0), Mask("second", 0)]
    valid(rotation, ((0, 1.0), (2, 1.0)), nan_masks=masks, combined=Mask("combined", 0))
    assert order == [(label, leg) for leg in (0, 2) for label in ("combined", "first", "second")]
    del order[:]
    valid(rotation, ((0, 1.0),), nan_masks=[Mask("first", 1), *masks], combined=Mask("c", 0))
    assert order == [("c", 0), ("first", 0)]
    del order[:]
    assert valid(rotation, ((0, 1.0),), nan_masks=masks, combined=Mask("c", 1)) is False
    assert order == [("c", 0)]


@pytest.mark.parametrize(
    "make",
    [list, tuple, np.array, lambda masks: {tuple(mask): 1 for mask in masks}, collections.deque],
)
def test_single_masks_may_be_any_iterable(rotation, make):
    masks = make([[0, 0, 1], [0, 1, 0]])
    assert valid(rotation, ((0, 1.0),), nan_masks=masks)
    assert valid(rotation, ((1, 1.0),), nan_masks=masks) is False
    assert valid(rotation, ((2, 1.0),), nan_masks=masks) is False


def test_iterator_of_masks_is_used_up_by_the_first_leg(rotation):
    masks = iter([[0, 1, 0]])
    assert valid(rotation, ((0, 1.0), (1, 1.0)), nan_masks=masks)


def test_single_masks_are_read_lazily(rotation):
    def masks():
        yield [0, 1, 0]
        raise AssertionError("read on")

    assert valid(rotation, ((1, 1.0),), nan_masks=masks()) is False


def test_single_masks_are_not_touched_without_legs(rotation):
    assert valid(rotation, (), nan_masks=None, combined=None, N=None)
    with pytest.raises(TypeError):
        valid(rotation, ((0, 1.0),), nan_masks=None)


def test_mask_may_change_the_legs_while_they_are_read(rotation):
    legs = [(0, 1.0), (1, 1.0)]

    class Mask:
        def __getitem__(self, leg_id):
            legs.clear()
            return 0

    assert valid(rotation, legs, combined=Mask())


def test_mask_may_drop_the_legs_and_the_masks_while_they_are_read(rotation):
    record = types.SimpleNamespace(legs=((int("1000"), [1.0]), (0, [1.0])), value=1.0)
    masks = []
    asked = []

    class Mask:
        def __getitem__(self, leg_id):
            asked.append(leg_id)
            record.legs = None
            masks.clear()
            gc.collect()
            return 0

    masks.extend([Mask(), Mask()])
    assert rotation._structure_is_valid(record, masks, Mask(), 2000)
    assert asked == [1000, 0]


def test_validity_changes_nothing(rotation):
    before = dict(vars(rotation))
    mask = np.array([0, 1, 0], dtype=np.uint8)
    valid(rotation, ((1, 1.0),), combined=mask)
    assert vars(rotation) == before
    assert mask.tolist() == [0, 1, 0]


# --- the three steps inside a day -------------------------------------------------------------


def test_dict_item_without_value_is_invalid_on_its_day(base):
    rotation = make_rotation(base, [[{"key": "a", "legs": [(0, 1.0)]}]])
    rotation(np.ones(3))
    assert rotation._metadata_by_slot[0]["active"] is False
    assert rotation.slot_by_key == {("a",): 0}


def test_hook_may_yield_its_items_lazily(base):
    log = []

    def items(*arguments):
        for key in "ab":
            log.append(f"yield {key}")
            yield structure(key, Logged(log, f"legs {key}"))

    rotation = make_rotation(base, [items])
    rotation(np.ones(3))
    assert log == ["yield a", "iter legs a", "yield b", "iter legs b"]


def test_hook_receives_the_day(base):
    cls = rotation_class(base)
    rotation = cls(max_structures=1, N_alloc=3, transformation_expression="none")
    args = (np.ones(3), np.zeros(3), np.zeros(2))
    masks, combined = ([0, 0, 0],), [0, 0, 0]
    rotation.compute(args, masks, combined, np.zeros(3), 3)
    ((space_input, structure_inputs, nan_masks, combined_nan_mask, N),) = cls.hook_calls
    assert space_input is args[0]
    assert [one is other for one, other in zip(structure_inputs, args[1:], strict=True)] == [
        True,
        True,
    ]
    assert nan_masks is masks
    assert combined_nan_mask is combined
    assert N == 3
