"""Columns that cannot be made or read, and days of them."""

import numpy as np

from quorvane.functions.rotations.virtualization.columns import StructureColumns
from safety.subjects.failing import FAILURES, failing, rejected_arguments
from safety.subjects.rotations import Baskets, columns_of, plain_columns, raising, row, used


def refused_columns(name, error, **changed):
    """Register columns that are as they should be but for these arguments."""
    arguments = {
        "keys": [("a",), ()],
        "offsets": [0, 1, 3],
        "leg_ids": [1, 2, 1],
        "weights": [1.0, 2.0, 3.0],
        "values": [1.0, 2.0],
    }
    arguments.update(changed)
    FAILURES[f"columns with {name}"] = (error, lambda: lambda: StructureColumns(**arguments))


class Unconvertible:
    def __array__(self, dtype=None, copy=None):
        raise LookupError("on purpose")

    __iter__ = raising


refused_columns("keys that are no tuples", TypeError, keys=[("a",), ["b"]])


refused_columns("keys that raise", LookupError, keys=Unconvertible())


refused_columns("too few offsets", ValueError, offsets=[0, 3])


refused_columns("offsets that fall", ValueError, offsets=[0, 5, 3])


refused_columns("offsets of two axes", ValueError, offsets=[[0, 1, 3]])


refused_columns("leg ids that are no integers", TypeError, leg_ids=[1.0, 2.0, 3.0])


refused_columns("leg ids that do not fit", ValueError, leg_ids=np.full(3, 2**63, dtype=np.uint64))


refused_columns("leg ids that raise", LookupError, leg_ids=Unconvertible())


refused_columns("weights that are no numbers", TypeError, weights=["a", "b", "c"])


refused_columns("too few weights", ValueError, weights=[1.0])


refused_columns("too many values", ValueError, values=[1.0, 2.0, 3.0])


refused_columns("values that raise", LookupError, values=Unconvertible())


rejected_arguments(TypeError, StructureColumns, keys=[])


@failing(IndexError)
def column_out_of_range():
    columns = plain_columns()
    return lambda: columns[4]


@failing(ValueError)
def columns_whose_values_were_changed_in_place():
    values = np.ones(4)
    columns = plain_columns().with_values(values)
    values.resize(2, refcheck=False)
    return lambda: list(columns)


@failing(ValueError)
def day_of_columns_whose_values_were_changed_in_place():
    rotation, values = used(lambda: Baskets([])), np.ones(4)
    rotation.items = plain_columns().with_values(values)
    values.resize(2, refcheck=False)
    return lambda: rotation(row())


@failing(IndexError)
def sums_of_too_few_inputs():
    columns = plain_columns()
    return lambda: columns.weighted_sums([1.0])


@failing(ValueError)
def sums_of_no_row():
    columns = plain_columns()
    return lambda: columns.weighted_sums(1.0)


@failing(TypeError)
def day_of_columns_with_a_key_that_cannot_be_hashed():
    rotation = used(lambda: Baskets([]))
    rotation.items = columns_of(
        [
            {"key": ("a",), "legs": ((0, 1.0),), "value": 1.0},
            {"key": ([],), "legs": (), "value": 1.0},
        ]
    )
    return lambda: rotation(row())


@failing(ValueError)
def too_many_columns():
    rotation = used(Baskets)
    rotation.items = columns_of(
        [{"key": (number,), "legs": (), "value": 1.0} for number in range(9)]
    )
    return lambda: rotation(row())
