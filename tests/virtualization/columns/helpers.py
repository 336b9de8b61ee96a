"""Columns that most tests are about, and how to look at their bits."""

import re
import struct

import pytest

from quorvane.functions.rotations.virtualization.columns import StructureColumns

NAN = float("nan")
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


def same_as(columns, other):
    assert type(columns) is StructureColumns
    assert columns.keys == other.keys
    assert columns.legs == other.legs
    for name in ("offsets", "leg_ids", "weights", "values"):
        mine, theirs = getattr(columns, name), getattr(other, name)
        assert (mine.dtype, mine.tobytes()) == (theirs.dtype, theirs.tobytes())
