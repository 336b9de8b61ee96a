"""What a rotation is made of, and numbers and texts of other classes."""

import enum

import pytest

from support.fakes import rotation_class

GOOD = {"max_structures": 4, "transformation_expression": "none", "N_alloc": 6}
ATTRIBUTES = [
    "max_structures",
    "transformation_expression",
    "unmap_policy",
    "child_factories",
    "child_rotations",
    "slot_by_key",
    "key_by_slot",
    "_legs_by_slot",
    "_metadata_by_slot",
    "_txi_input",
    "_txi_output",
    "_txi_universe_row",
    "_current_parent_context",
    "_structure_N_limit",
    "trace_sink",
]
BASE_ATTRIBUTES = ["_n_alloc", "_output_buf", "_combined_nan_buf", "parameters"]


class Number(enum.IntEnum):
    THREE = 3


class PlainInt(int):
    pass


class Text(str):
    pass


def construct(base, **arguments):
    return base.VirtualizationBase(**{**GOOD, **arguments})


def unfinished(base, attributes=None, **arguments):
    """Return an instance whose initialiser has failed, and the error."""
    cls = rotation_class(base, **(attributes or {}))
    rotation = cls.__new__(cls)
    with pytest.raises(Exception) as caught:  # noqa: PT011
        rotation.__init__(**{**GOOD, **arguments})
    return rotation, caught.value


class RecordingFactory:
    """Factory that records its calls and returns what it was given to return."""

    def __init__(self, child=None, error=None):
        self.child = child
        self.error = error
        self.calls = []

    def __call__(self, *args, **kwargs):
        self.calls.append((args, kwargs))
        if self.error is not None:
            raise self.error
        return self.child
