"""Normalisation: items that are dicts, objects or records, the order of faults, the result."""

import collections
import types

import numpy as np
import pytest

from support.fakes import structure
from virtualization.structure.helpers import Logged

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
