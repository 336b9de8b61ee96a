"""Structure columns: a sequence of items, whatever happens to the values."""

import numpy as np
import pytest

from virtualization.columns.helpers import PLAIN, bits, make, refusal


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
