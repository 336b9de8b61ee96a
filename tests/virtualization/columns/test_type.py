"""Structure columns: the type, its copies, and what the collector is told."""

import copy
import gc
import inspect
import pickle
import sys
import weakref

import numpy as np
import pytest

from quorvane.functions.rotations.virtualization.columns import StructureColumns
from virtualization.columns.helpers import PLAIN, make, same_as


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
