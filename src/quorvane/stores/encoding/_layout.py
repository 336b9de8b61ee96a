"""Numbers that writer and reader share: node codes and limits.

A column is a list of values that stand side by side. A node is the MessagePack array
``[code, part, ...]`` that describes one column; its parts are buffers, numbers and nodes.
"""

from __future__ import annotations

from enum import IntEnum
from typing import Any

from quorvane.stores.errors import StoreDependencyError

MAX_DEPTH = 64
"""Most containers (tuples, lists, dicts) that may be nested in one another."""

MAX_VALUES = 2**28
"""Most values, containers included, in one state."""

VALUES_PER_BYTE = 8
"""Most values per payload byte, so that a few bytes can never ask for gigabytes.

A reader refuses more. Rotations have about one value in three bytes. Where a compact form would
have more values than this, as when the same tuples stand in very many lists, the writer takes
the plain form, in which every value costs at least a quarter of a byte.
"""

MAX_TUPLE_FIELDS = 16
"""Longest tuple whose positions become columns of their own."""

MAX_DICT_FIELDS = 64
"""Most text keys of a dictionary whose fields become columns of their own."""

MAX_DICT_SHAPES = 16
"""Most different key sets among dictionaries side by side that are told apart."""

MAX_NODE_PARTS = MAX_DICT_FIELDS + 8
"""Longest MessagePack array that a reader accepts: no node has more parts."""

MAX_NODE_DEPTH = 3 * MAX_DEPTH + 4
"""Deepest node: a container takes up to three, for its kind, its key set and its fields."""


class Code(IntEnum):
    """First part of a node: what kind of column follows, and in which parts."""

    NONE = 0  # zero bytes, one per value
    BOOL = 1  # bytes 0 or 1
    INT = 2  # item size 1, 2, 4 or 8; little-endian two's complement
    BIG_INT = 3  # node of byte lengths; little-endian two's complement
    FLOAT = 4  # little-endian binary64
    TEXT = 5  # UTF-8 joined by NUL, surrogates passed
    TEXT_SIZED = 6  # node of byte lengths; UTF-8, surrogates passed
    TEXT_INDEXED = 7  # node of distinct texts; node of indexes into them
    BYTES = 8  # node of lengths; bytes
    TUPLE_FIELDS = 9  # one node per position, all tuples being equally long
    TUPLE = 10  # node of lengths; node of items
    LIST = 11  # node of lengths; node of items
    DICT_FIELDS = 12  # node of text keys; one node per key, all dicts having the same keys
    DICT = 13  # node of lengths; node of keys; node of values
    UNION = 14  # bytes choosing the column that each value comes from; those columns
    ARRAY = 15  # node of dtypes; bytes 0 (C) or 1 (Fortran); node of shapes; buffers
    SCALAR = 16  # node of dtypes; buffers
    NUMPY_TEXT = 17  # node of texts
    NUMPY_BYTES = 18  # node of byte strings
    SAME = 19  # number of an earlier tuple column that holds the same


def import_msgpack() -> Any:
    """Return the msgpack module, imported when a state is first encoded or decoded.

    Raises
    ------
    StoreDependencyError
        It is not installed; the message says what to install.
    """
    try:
        import msgpack
    except ImportError as error:
        raise StoreDependencyError(
            "encoding a state needs the package msgpack, "
            "which is not installed: pip install 'quorvane[stores]'"
        ) from error
    return msgpack
