"""From a tree of columns back to the state.

The bytes passed their checksum, which says that they are what somebody wrote, not who that was.
So every size is still compared with what is there before memory of that size is asked for, and
nothing is ever looked up, imported or called by a name found in the bytes.
"""

from __future__ import annotations

import gc
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from itertools import accumulate, islice, repeat
from typing import Any

import numpy as np

from quorvane.stores.encoding._arrays import arrays_from_parts, scalars_from_parts
from quorvane.stores.encoding._envelope import Payload
from quorvane.stores.encoding._layout import (
    MAX_NODE_DEPTH,
    MAX_NODE_PARTS,
    Code,
    import_msgpack,
)
from quorvane.stores.errors import StateDecodeError

Column = list[Any]


def unpack(payload: Payload) -> Any:
    """Return the state whose packed columns are given.

    Raises
    ------
    StateDecodeError
        The payload does not describe a state.
    StoreDependencyError
        msgpack is not installed.
    """
    msgpack = import_msgpack()
    try:
        with _collector_paused():
            tree = _unpack_tree(msgpack, payload.data)
            return _only_value(_Columns(payload.values), tree)
    except StateDecodeError:
        raise
    # Contents that pass the checksum and still make no sense fail in many ways, none of which
    # a caller could tell apart. Too little memory or stack is not among them: sizes and depths
    # are compared with what is there first, so it is the process that ran short.
    except (
        ArithmeticError,
        LookupError,
        TypeError,
        ValueError,
        msgpack.UnpackException,
    ) as error:
        raise StateDecodeError(f"encoded state has contents that make no sense: {error}") from error


def _unpack_tree(msgpack: Any, data: bytes | memoryview) -> Any:
    # Nodes are short, so a claimed length never makes msgpack ask for much ahead of the data.
    return msgpack.unpackb(
        data,
        use_list=False,
        raw=False,
        max_array_len=MAX_NODE_PARTS,
        max_bin_len=len(data),
        max_str_len=0,
        max_map_len=0,
        max_ext_len=0,
    )


def _only_value(columns: _Columns, tree: Any) -> Any:
    values = columns.column(tree, 0)
    if len(values) != 1:
        raise StateDecodeError(f"encoded state holds {len(values)} values side by side, not 1")
    if columns.room != 0:
        raise StateDecodeError(f"encoded state holds {columns.room} values fewer than it claims")
    return values[0]


@contextmanager
def _collector_paused() -> Iterator[None]:
    """Keep the cycle collector from walking millions of new containers again and again."""
    was_enabled = gc.isenabled()
    gc.disable()
    try:
        yield
    finally:
        if was_enabled:
            gc.enable()


class _Columns:
    """Reads columns, within the number of values that the header claims.

    Parameters
    ----------
    room : int
        How many more values may be made.
    """

    def __init__(self, room: int) -> None:
        self.room = room
        # Tuple columns and how many values each comes to, those inside included.
        self._tuple_columns: list[tuple[Column, int]] = []
        self._read: dict[Code, Callable[..., Column]] = {
            Code.NONE: self._nones,
            Code.BOOL: self._bools,
            Code.INT: self._ints,
            Code.BIG_INT: self._big_ints,
            Code.FLOAT: self._floats,
            Code.TEXT: self._texts,
            Code.TEXT_SIZED: self._sized_texts,
            Code.TEXT_INDEXED: self._indexed_texts,
            Code.BYTES: self._bytes,
            Code.TUPLE_FIELDS: self._tuples_of_fields,
            Code.TUPLE: self._tuples,
            Code.LIST: self._lists,
            Code.DICT_FIELDS: self._dicts_of_fields,
            Code.DICT: self._dicts,
            Code.UNION: self._union,
            Code.ARRAY: self._arrays,
            Code.SCALAR: self._scalars,
            Code.NUMPY_TEXT: self._numpy_texts,
            Code.NUMPY_BYTES: self._numpy_bytes,
            Code.SAME: self._same,
        }

    def column(self, node: Any, depth: int) -> Column:
        """Return the values of the column that `node` describes, `depth` nodes below the root.

        The list may be shared with other columns and is not to be changed.
        """
        if type(node) is not tuple or not node:
            raise StateDecodeError("encoded state has something else where a column belongs")
        if depth > MAX_NODE_DEPTH:
            raise StateDecodeError(f"encoded state is nested more than {MAX_NODE_DEPTH} deep")
        return self._read[Code(node[0])](depth + 1, *node[1:])

    def _take(self, count: int) -> int:
        """Return `count` after taking it off the room that is left."""
        if count > self.room:
            raise StateDecodeError("encoded state holds more values than it claims")
        self.room -= count
        return count

    def _nones(self, depth: int, data: bytes) -> Column:
        return [None] * self._take(len(data))

    def _bools(self, depth: int, data: bytes) -> Column:
        self._take(len(data))
        flags = np.frombuffer(data, np.uint8)
        if flags.size and flags.max() > 1:
            raise StateDecodeError("encoded state has a truth value that is neither 0 nor 1")
        values: Column = flags.astype(bool).tolist()
        return values

    def _ints(self, depth: int, size: int, data: bytes) -> Column:
        if size not in (1, 2, 4, 8):
            raise StateDecodeError(f"encoded state has integers of {size!r} bytes")
        self._take(len(data) // size)
        values: Column = np.frombuffer(data, f"<i{size}").tolist()
        return values

    def _big_ints(self, depth: int, lengths: Any, data: bytes) -> Column:
        pieces = self._pieces(depth, lengths, data)
        return [int.from_bytes(piece, "little", signed=True) for piece in pieces]

    def _floats(self, depth: int, data: bytes) -> Column:
        self._take(len(data) // 8)
        values: Column = np.frombuffer(data, "<f8").tolist()
        return values

    def _texts(self, depth: int, data: bytes) -> Column:
        text = _buffer(data)
        self._take(text.count(b"\0") + 1)
        return text.decode("utf-8", "surrogatepass").split("\0")

    def _sized_texts(self, depth: int, lengths: Any, data: bytes) -> Column:
        pieces = self._pieces(depth, lengths, data)
        return [piece.decode("utf-8", "surrogatepass") for piece in pieces]

    def _indexed_texts(self, depth: int, texts: Any, indexes: Any) -> Column:
        distinct = self.column(texts, depth)
        positions = self._non_negative(depth, indexes)
        self._take(len(positions))
        return list(map(distinct.__getitem__, positions))

    def _bytes(self, depth: int, lengths: Any, data: bytes) -> Column:
        return self._pieces(depth, lengths, data)

    def _pieces(self, depth: int, lengths: Any, data: bytes) -> list[bytes]:
        sizes = self._non_negative(depth, lengths)
        if sum(sizes) != len(_buffer(data)):
            raise StateDecodeError("encoded state has lengths that do not fit their buffer")
        self._take(len(sizes))
        return list(map(data.__getitem__, _slices(sizes)))

    def _non_negative(self, depth: int, node: Any) -> list[int]:
        values = self.column(node, depth)
        if values and (node[0] != Code.INT or min(values) < 0):
            raise StateDecodeError("encoded state has a length or an index that is not a count")
        return values

    def _tuples_of_fields(self, depth: int, *fields: Any) -> Column:
        room_before = self.room
        columns = self._equally_long(fields, depth)
        self._take(len(columns[0]))
        return self._noted(list(zip(*columns, strict=True)), room_before)

    def _equally_long(self, nodes: tuple[Any, ...], depth: int) -> list[Column]:
        columns = [self.column(node, depth) for node in nodes]
        if len(set(map(len, columns))) != 1:
            raise StateDecodeError("encoded state has fields that are not equally long")
        return columns

    def _noted(self, tuples: list[tuple[Any, ...]], room_before: int) -> Column:
        self._tuple_columns.append((tuples, room_before - self.room))
        return tuples

    def _tuples(self, depth: int, lengths: Any, items: Any) -> Column:
        room_before = self.room
        sizes, values = self._sized(depth, lengths, items)
        return self._noted(list(map(tuple(values).__getitem__, _slices(sizes))), room_before)

    def _lists(self, depth: int, lengths: Any, items: Any) -> Column:
        sizes, values = self._sized(depth, lengths, items)
        return list(map(values.__getitem__, _slices(sizes)))

    def _sized(self, depth: int, lengths: Any, items: Any) -> tuple[list[int], Column]:
        sizes = self._non_negative(depth, lengths)
        values = self.column(items, depth)
        if sum(sizes) != len(values):
            raise StateDecodeError("encoded state has lengths that do not fit their items")
        self._take(len(sizes))
        return sizes, values

    def _dicts_of_fields(self, depth: int, keys: Any, *fields: Any) -> Column:
        names = self.column(keys, depth)
        columns = self._equally_long(fields, depth)
        if len(set(names)) != len(columns) or len(names) != len(columns):
            raise StateDecodeError("encoded state has a dict whose keys do not fit its values")
        self._take(len(columns[0]))
        return list(map(dict, map(zip, repeat(names), zip(*columns, strict=True))))

    def _dicts(self, depth: int, lengths: Any, keys: Any, values: Any) -> Column:
        sizes, all_keys = self._sized(depth, lengths, keys)
        items = self.column(values, depth)
        if len(items) != len(all_keys):
            raise StateDecodeError("encoded state has a dict whose keys do not fit its values")
        pairs = zip(all_keys, items, strict=True)
        dicts = [dict(islice(pairs, size)) for size in sizes]
        if list(map(len, dicts)) != sizes:
            raise StateDecodeError("encoded state has a dict with a key twice")
        return dicts

    def _union(self, depth: int, tags: bytes, *parts: Any) -> Column:
        columns = [self.column(part, depth) for part in parts]
        if sum(map(len, columns)) != len(tags):
            raise StateDecodeError("encoded state has kinds that do not fit their values")
        sources = [iter(column) for column in columns]
        values = list(map(next, map(sources.__getitem__, tags)))
        # A source that ran dry ends the list early.
        if len(values) != len(tags):
            raise StateDecodeError("encoded state has kinds that do not fit their values")
        return values

    def _arrays(self, depth: int, texts: Any, orders: bytes, shapes: Any, data: bytes) -> Column:
        self._take(len(orders))
        dtypes, lengths = self.column(texts, depth), self.column(shapes, depth)
        return arrays_from_parts(dtypes, orders, lengths, memoryview(data))

    def _scalars(self, depth: int, texts: Any, data: bytes) -> Column:
        dtypes = self.column(texts, depth)
        self._take(len(dtypes))
        return scalars_from_parts(dtypes, memoryview(data))

    def _numpy_texts(self, depth: int, texts: Any) -> Column:
        values = self._all_of(str, texts, depth)
        # Texts that stand in a column many times share their memory, and so do these.
        numpy_text = {text: np.str_(text) for text in set(values)}
        return list(map(numpy_text.__getitem__, values))

    def _numpy_bytes(self, depth: int, pieces: Any) -> Column:
        values = self._all_of(bytes, pieces, depth)
        return list(map(np.bytes_, values))

    def _all_of(self, kind: type, node: Any, depth: int) -> Column:
        values = self.column(node, depth)
        self._take(len(values))
        if set(map(type, values)) != {kind}:
            raise StateDecodeError(f"encoded state has values that are no {kind.__name__}")
        return values

    def _same(self, depth: int, number: int) -> Column:
        if type(number) is not int or not 0 <= number < len(self._tuple_columns):
            raise StateDecodeError(f"encoded state refers to tuples {number!r} that are not there")
        column, values_inside = self._tuple_columns[number]
        # Counted in full although it is shared: hashing a tuple walks through all that is in it.
        self._take(values_inside)
        return column


def _buffer(part: Any) -> bytes:
    if type(part) is not bytes:
        raise StateDecodeError("encoded state has something else where a buffer belongs")
    return part


def _slices(sizes: list[int]) -> Iterator[slice]:
    ends = list(accumulate(sizes))
    return map(slice, [0, *ends], ends)
