"""Normalisation: metadata and keys."""

import collections
import types

import numpy as np
import pytest

from support.fakes import shown, structure
from virtualization.structure.helpers import Key, Logged, NamedKey

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
