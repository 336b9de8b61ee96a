"""From a state to a tree of columns.

A column is a list of values that stand side by side: all keys of a map, all weights of all legs,
the field "slot" of all metadata dictionaries. Each kind of value has its own compact form, and
every step over a column runs in C, so the cost per value is tens of nanoseconds rather than a
Python call. The root is a column with one value.

Tuple columns that hold the same as an earlier one are written once: a key stands in two maps and
in the metadata. The reader shares those tuples, which only ``is`` can tell.
"""

from __future__ import annotations

from collections.abc import Callable, Iterable
from itertools import chain, compress
from operator import is_, itemgetter
from types import NoneType
from typing import Any

import numpy as np

from quorvane.stores.encoding._arrays import (
    array_bytes,
    array_order,
    keeps_array_dtype,
    keeps_scalar_type,
)
from quorvane.stores.encoding._envelope import MAX_PAYLOAD_BYTES, Payload
from quorvane.stores.encoding._faults import explain, has_cycle, least_values
from quorvane.stores.encoding._layout import (
    MAX_DEPTH,
    MAX_DICT_FIELDS,
    MAX_DICT_SHAPES,
    MAX_TUPLE_FIELDS,
    MAX_VALUES,
    VALUES_PER_BYTE,
    Code,
    import_msgpack,
)
from quorvane.stores.errors import StateEncodeError

Node = tuple[Any, ...]

# A state has a few dozen columns and few containers in two places. More suggests containers that
# are shared on many levels, which would be written again for every way that leads to them.
_MANY_COLUMNS = 1 << 11
_LONG_COLUMN = 1 << 16
_SAMPLE = 1 << 12

_MUTABLE = frozenset({Code.LIST, Code.DICT, Code.DICT_FIELDS, Code.ARRAY})


def pack(state: object) -> Payload:
    """Return the packed columns of `state`.

    Raises
    ------
    StateEncodeError
        A value that cannot be kept, named by its path inside the state.
    StoreDependencyError
        msgpack is not installed.
    """
    payload = _pack_once(state, compact=True)
    if payload.values > VALUES_PER_BYTE * len(payload.data):
        # A reader would take so many values in so few bytes for an attack.
        payload = _pack_once(state, compact=False)
    return payload


def _pack_once(state: object, compact: bool) -> Payload:
    msgpack = import_msgpack()
    columns = _Columns(state, compact)
    try:
        node = columns.node([state], 0)
    except CannotKeepError as fault:
        raise explain(state, str(fault)) from None
    try:
        data: bytes = msgpack.packb(node, use_bin_type=True)
    except (ValueError, OverflowError) as error:
        raise StateEncodeError("state", f"is too large to encode: {error}") from error
    if len(data) > MAX_PAYLOAD_BYTES:
        raise StateEncodeError(
            "state", f"takes {len(data)} bytes when encoded, allowed are {MAX_PAYLOAD_BYTES}"
        )
    return Payload(data, columns.values)


class CannotKeepError(Exception):
    """Something in a column cannot be kept.

    A column does not know where its values came from, so the place is looked for afterwards,
    only when there is something to report.
    """


class _Columns:
    """Writes columns and counts their values.

    Parameters
    ----------
    state : object
        The whole state, looked through for cycles when something suggests one.
    compact : bool
        Whether containers may take no bytes of their own: equally long tuples, dicts with the
        same keys, and tuples that repeat an earlier column. If not, each has its length.
    """

    def __init__(self, state: object, compact: bool) -> None:
        self.values = 0
        self._state = state
        self._compact = compact
        self._known_acyclic = False
        self._known_to_fit = False
        self._container_columns = 0
        # Tuple columns and how many values each comes to, those inside included.
        self._tuple_columns: list[tuple[list[Any], int]] = []
        # Those that later ones may refer to, by length and last value and by how they are written.
        self._numbers_by_last: dict[tuple[int, int], list[int]] = {}
        self._number_by_node: dict[Node, int] = {}
        # The list and dict columns between the root and here: a cycle comes back to one of them.
        self._ancestors: list[_Ancestor] = []
        self._write: dict[Code, Callable[[list[Any], int], Node]] = {
            Code.NONE: lambda values, depth: (int(Code.NONE), bytes(len(values))),
            Code.BOOL: lambda values, depth: (int(Code.BOOL), bytes(values)),
            Code.INT: self._ints,
            Code.FLOAT: lambda values, depth: (int(Code.FLOAT), np.array(values, "<f8").tobytes()),
            Code.TEXT: self._texts,
            Code.BYTES: lambda values, depth: self._sized(Code.BYTES, values),
            Code.TUPLE: self._tuples,
            Code.LIST: self._lists,
            Code.DICT: self._dicts,
            Code.ARRAY: self._arrays,
            Code.SCALAR: self._scalars,
            Code.NUMPY_TEXT: self._numpy_texts,
            Code.NUMPY_BYTES: self._numpy_bytes,
        }

    def node(self, values: list[Any], depth: int) -> Node:
        """Return the node of one column whose values lie in `depth` containers."""
        self._require_room(len(values))
        types = set(map(type, values))
        kind_of = {value_type: _kind_of(value_type) for value_type in types}
        kinds = set(kind_of.values())
        if len(kinds) > 1:
            return self._union(list(map(kind_of.__getitem__, map(type, values))), values, depth)
        self.values += len(values)
        return self._write[kinds.pop() if kinds else Code.NONE](values, depth)

    def _require_room(self, count: int) -> None:
        if self.values + count > MAX_VALUES:
            raise CannotKeepError(f"holds more than {MAX_VALUES} values")

    def _require_few_shared(self, values: list[Any]) -> None:
        """Refuse containers shared so often that they never fit, before they are collected."""
        self._container_columns += 1
        if self._known_to_fit or not (
            self._container_columns > _MANY_COLUMNS
            or (len(values) > _LONG_COLUMN and 2 * len(set(map(id, values[:_SAMPLE]))) < _SAMPLE)
        ):
            return
        if has_cycle(self._state):
            raise CannotKeepError("contains itself")
        if least_values(self._state) > MAX_VALUES:
            raise CannotKeepError(f"holds more than {MAX_VALUES} values")
        self._known_to_fit = True

    def _union(self, kinds: list[Code], values: list[Any], depth: int) -> Node:
        tag_of = {kind: tag for tag, kind in enumerate(dict.fromkeys(kinds))}
        tags = bytes(map(tag_of.__getitem__, kinds))
        parts = _split(tags, len(tag_of), values)
        return (int(Code.UNION), tags, *(self.node(part, depth) for part in parts))

    def _ints(self, values: list[int], depth: int) -> Node:
        try:
            wide = np.array(values, "<i8")
        except OverflowError:
            return self._sized(Code.BIG_INT, list(map(_int_bytes, values)))
        size = _item_size(int(wide.min()), int(wide.max()))
        return (int(Code.INT), size, wide.astype(f"<i{size}").tobytes())

    def _texts(self, values: list[str], depth: int) -> Node:
        distinct = list(dict.fromkeys(values))
        if 2 * len(distinct) <= len(values):
            index_of = {text: index for index, text in enumerate(distinct)}
            indexes = list(map(index_of.__getitem__, values))
            return (int(Code.TEXT_INDEXED), self.node(distinct, depth), self.node(indexes, depth))
        joined = "\0".join(values)
        if joined.count("\0") == len(values) - 1:
            return (int(Code.TEXT), joined.encode("utf-8", "surrogatepass"))
        encoded = [value.encode("utf-8", "surrogatepass") for value in values]
        return self._sized(Code.TEXT_SIZED, encoded)

    def _sized(self, code: Code, values: list[bytes]) -> Node:
        return (int(code), self._lengths(values), b"".join(values))

    def _lengths(self, values: Iterable[Any]) -> Node:
        return self.node(list(map(len, values)), 0)

    def _tuples(self, values: list[tuple[Any, ...]], depth: int) -> Node:
        _require_depth(depth)
        self._require_few_shared(values)
        values_before = self.values - len(values)
        number = self._same_objects(values)
        if number is not None:
            # A column counts in full each time, as it does for the reader.
            _, values_inside = self._tuple_columns[number]
            self.values = values_before
            self._require_room(values_inside)
            self.values += values_inside
            return (int(Code.SAME), number)
        node = self._tuple_node(values, depth)
        number = self._number_by_node.get(node)
        if number is not None:
            return (int(Code.SAME), number)
        self._note(values, node, self.values - values_before)
        return node

    def _note(self, values: list[tuple[Any, ...]], node: Node, values_inside: int) -> None:
        """Number a column as the reader will, and remember it if others may refer to it."""
        number = len(self._tuple_columns)
        self._tuple_columns.append((values, values_inside))
        if self._compact and _is_immutable(node):
            last = (len(values), id(values[-1]))
            self._numbers_by_last.setdefault(last, []).append(number)
            self._number_by_node[node] = number

    def _tuple_node(self, values: list[tuple[Any, ...]], depth: int) -> Node:
        lengths = set(map(len, values))
        if (
            self._compact
            and len(lengths) == 1
            and 1 <= (width := lengths.pop()) <= MAX_TUPLE_FIELDS
        ):
            fields = (list(map(itemgetter(i), values)) for i in range(width))
            return (int(Code.TUPLE_FIELDS), *(self.node(field, depth + 1) for field in fields))
        return (int(Code.TUPLE), self._lengths(values), self.node(self._joined(values), depth + 1))

    def _same_objects(self, values: list[tuple[Any, ...]]) -> int | None:
        """Return the number of an immutable column of these very tuples, if there is one."""
        for number in self._numbers_by_last.get((len(values), id(values[-1])), ()):
            if all(map(is_, self._tuple_columns[number][0], values)):
                return number
        return None

    def _lists(self, values: list[list[Any]], depth: int) -> Node:
        _require_depth(depth)
        self._require_few_shared(values)
        self._enter(values)
        items = self.node(self._joined(values), depth + 1)
        self._ancestors.pop()
        return (int(Code.LIST), self._lengths(values), items)

    def _joined(self, values: list[Any]) -> list[Any]:
        self._require_room(sum(map(len, values)))
        return list(chain.from_iterable(values))

    def _dicts(self, values: list[dict[Any, Any]], depth: int) -> Node:
        _require_depth(depth)
        self._require_few_shared(values)
        self._enter(values)
        shapes = _shape_numbers(values) if self._compact else None
        if shapes is None:
            node = self._any_dicts(values, depth)
        else:
            node = self._dicts_by_shape(*shapes, values, depth)
        self._ancestors.pop()
        return node

    def _dicts_by_shape(
        self, shapes: list[tuple[str, ...]], tags: bytes, values: list[dict[Any, Any]], depth: int
    ) -> Node:
        """Return a column per field, for each set of dicts that have the same keys."""
        if len(shapes) == 1:
            return self._equal_dicts(shapes[0], values, depth)
        parts = zip(shapes, _split(tags, len(shapes), values), strict=True)
        nodes = (self._equal_dicts(shape, part, depth) for shape, part in parts)
        return (int(Code.UNION), tags, *nodes)

    def _equal_dicts(
        self, shape: tuple[str, ...], values: list[dict[Any, Any]], depth: int
    ) -> Node:
        if not 1 <= len(shape) <= MAX_DICT_FIELDS:
            return self._any_dicts(values, depth)
        fields = (list(map(itemgetter(key), values)) for key in shape)
        keys = self.node(list(shape), depth + 1)
        return (int(Code.DICT_FIELDS), keys, *(self.node(field, depth + 1) for field in fields))

    def _any_dicts(self, values: list[dict[Any, Any]], depth: int) -> Node:
        keys = self.node(self._joined(values), depth + 1)
        items = list(chain.from_iterable(value.values() for value in values))
        return (int(Code.DICT), self._lengths(values), keys, self.node(items, depth + 1))

    def _enter(self, values: list[Any]) -> None:
        """Note a column of lists or dicts on the way down, unless the way leads in a circle."""
        if not self._known_acyclic and any(above.holds_any(values) for above in self._ancestors):
            if has_cycle(self._state):
                raise CannotKeepError("contains itself")
            self._known_acyclic = True
        self._ancestors.append(_Ancestor(values))

    def _arrays(self, values: list[np.ndarray[Any, Any]], depth: int) -> Node:
        if not all(keeps_array_dtype(dtype) for dtype in {value.dtype for value in values}):
            raise CannotKeepError("holds an array whose dtype cannot be kept")
        orders = list(map(array_order, values))
        texts = self.node([value.dtype.str for value in values], depth)
        shapes = self.node([value.shape for value in values], 0)
        buffers = b"".join(map(array_bytes, values, orders))
        return (int(Code.ARRAY), texts, bytes(orders), shapes, buffers)

    def _scalars(self, values: list[np.generic], depth: int) -> Node:
        # The unit of a date is part of its dtype and not of its type.
        if not all(keeps_array_dtype(dtype) for dtype in {value.dtype for value in values}):
            raise CannotKeepError("holds a scalar whose dtype cannot be kept")
        texts = self.node([value.dtype.str for value in values], depth)
        return (int(Code.SCALAR), texts, b"".join(value.tobytes() for value in values))

    # Joining makes plain values of the same length; str() would drop zeros at the end.
    def _numpy_texts(self, values: list[np.str_], depth: int) -> Node:
        return (int(Code.NUMPY_TEXT), self.node(["".join((value,)) for value in values], depth))

    def _numpy_bytes(self, values: list[np.bytes_], depth: int) -> Node:
        return (int(Code.NUMPY_BYTES), self.node([b"".join((value,)) for value in values], depth))


class _Ancestor:
    """A column of lists or dicts, and which objects are in it."""

    def __init__(self, values: list[Any]) -> None:
        self._values = values
        self._ids: set[int] | None = None

    def holds_any(self, values: list[Any]) -> bool:
        if self._ids is None:
            self._ids = set(map(id, self._values))
        return not self._ids.isdisjoint(map(id, values))


_KINDS: dict[type, Code] = {
    NoneType: Code.NONE,
    bool: Code.BOOL,
    int: Code.INT,
    float: Code.FLOAT,
    str: Code.TEXT,
    bytes: Code.BYTES,
    tuple: Code.TUPLE,
    list: Code.LIST,
    dict: Code.DICT,
    np.ndarray: Code.ARRAY,
    np.str_: Code.NUMPY_TEXT,
    np.bytes_: Code.NUMPY_BYTES,
}


def _kind_of(value_type: type) -> Code:
    kind = _KINDS.get(value_type)
    if kind is not None:
        return kind
    if keeps_scalar_type(value_type):
        return Code.SCALAR
    raise CannotKeepError(f"holds a value of type {value_type.__name__}")


def _require_depth(depth: int) -> None:
    if depth >= MAX_DEPTH:
        raise CannotKeepError(f"has more than {MAX_DEPTH} nested containers")


def _split(tags: bytes, count: int, values: list[Any]) -> list[list[Any]]:
    """Return the values of each tag from 0 to `count` - 1, in their order."""
    tag_array = np.frombuffer(tags, np.uint8)
    return [list(compress(values, (tag_array == tag).tolist())) for tag in range(count)]


def _item_size(low: int, high: int) -> int:
    """Return how many bytes hold every integer from `low` to `high`, both within 8 bytes."""
    for size in (1, 2, 4):
        bound = 1 << (8 * size - 1)
        if -bound <= low and high < bound:
            return size
    return 8


def _int_bytes(value: int) -> bytes:
    return value.to_bytes(value.bit_length() // 8 + 1, "little", signed=True)


class _TooManyShapesError(Exception):
    """Dictionaries side by side have more than `MAX_DICT_SHAPES` different key sets."""


class _ShapeNumbers(dict[tuple[str, ...], int]):
    """Numbers key sets from 0 in the order in which they are first looked up."""

    def __missing__(self, shape: tuple[str, ...]) -> int:
        if len(self) == MAX_DICT_SHAPES:
            raise _TooManyShapesError
        self[shape] = number = len(self)
        return number


def _shape_numbers(values: list[dict[Any, Any]]) -> tuple[list[tuple[str, ...]], bytes] | None:
    """Return the different key sets and which one each dict has; None unless few and all text.

    Only exact text makes equal keys the same keys: 1, True and 1.0 are equal too.
    """
    if len(values[0]) > MAX_DICT_FIELDS or set(map(type, chain.from_iterable(values))) - {str}:
        return None
    numbers = _ShapeNumbers()
    try:
        tags = bytes(map(numbers.__getitem__, map(tuple, values)))
    except _TooManyShapesError:
        return None
    return list(numbers), tags


def _is_immutable(node: Node) -> bool:
    """Tell whether nothing in the column that `node` describes can be changed in place."""
    return node[0] not in _MUTABLE and all(
        _is_immutable(part) for part in node[1:] if type(part) is tuple
    )
