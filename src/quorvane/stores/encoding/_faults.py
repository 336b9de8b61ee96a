"""Where in a state the value is that cannot be kept.

The writer sees columns, not paths. Only after it has refused a state does this slow walk look
for the place, in the order in which a reader of the state would.
"""

from __future__ import annotations

from collections.abc import Iterator
from typing import Any

import numpy as np

from quorvane.stores.encoding._arrays import keeps_array_dtype, keeps_scalar_type
from quorvane.stores.encoding._layout import MAX_DEPTH
from quorvane.stores.errors import StateEncodeError

_LEAVES = frozenset({type(None), bool, int, float, str, bytes, np.str_, np.bytes_})
_LONGEST_KEY_TEXT = 200


def explain(state: object, reason: str) -> StateEncodeError:
    """Return the error for a refused state; `reason` is used when no single place is at fault."""
    fault = _Walk().fault(state, "state", 0)
    return StateEncodeError(*fault) if fault is not None else StateEncodeError("state", reason)


def has_cycle(state: object) -> bool:
    """Tell whether a list or dict in `state` contains itself, in linear time and any depth."""
    finished: set[int] = set()
    on_path: set[int] = set()
    stack: list[tuple[Any, Iterator[Any]]] = []
    pending: Iterator[Any] = iter((state,))
    while True:
        for value in pending:
            if type(value) not in (tuple, list, dict) or id(value) in finished:
                continue
            if id(value) in on_path:
                return True
            on_path.add(id(value))
            stack.append((value, pending))
            pending = iter(value.values() if type(value) is dict else value)
            break
        else:
            if not stack:
                return False
            value, pending = stack.pop()
            on_path.discard(id(value))
            finished.add(id(value))


def least_values(state: object) -> int:
    """Return a lower bound of the values written for an acyclic `state`, each shared one in full.

    Every container is looked through once, however often it is shared.
    """
    sizes: dict[int, int] = {}
    stack: list[Any] = [[state]]
    while stack:
        container = stack[-1]
        values = list(container.values() if type(container) is dict else container)
        inner = [value for value in values if type(value) in (tuple, list, dict)]
        unknown = [value for value in inner if id(value) not in sizes]
        if unknown:
            stack += unknown
            continue
        stack.pop()
        sizes[id(container)] = len(values) + sum(sizes[id(value)] for value in inner)
    return sizes[id(container)]


class _Walk:
    """Depth-first search for the first value that cannot be kept."""

    def __init__(self) -> None:
        self._on_path: set[int] = set()
        # How deep each container was when it was found to be fine: less deep is fine as well.
        self._fine_at: dict[int, int] = {}

    def fault(self, value: Any, path: str, depth: int) -> tuple[str, str] | None:
        """Return path and reason of the first fault in `value`, or None."""
        kind = type(value)
        if kind in _LEAVES:
            return None
        if kind in (tuple, list, dict):
            return self._container_fault(value, path, depth)
        if kind is np.ndarray:
            return None if keeps_array_dtype(value.dtype) else (path, _array_reason(value))
        if not keeps_scalar_type(kind):
            return path, _type_reason(value)
        return None if keeps_array_dtype(value.dtype) else (path, _scalar_reason(value))

    def _container_fault(self, value: Any, path: str, depth: int) -> tuple[str, str] | None:
        if id(value) in self._on_path:
            return path, "is a container that contains itself, which cannot be stored"
        if depth >= MAX_DEPTH:
            return path, f"is nested in {depth} containers, allowed are {MAX_DEPTH - 1}"
        if self._fine_at.get(id(value), -1) >= depth:
            return None
        self._on_path.add(id(value))
        for inner, inner_path in _inner_values(value, path):
            fault = self.fault(inner, inner_path, depth + 1)
            if fault is not None:
                return fault
        self._on_path.discard(id(value))
        self._fine_at[id(value)] = depth
        return None


def _inner_values(value: Any, path: str) -> Iterator[tuple[Any, str]]:
    if type(value) is not dict:
        for index, item in enumerate(value):
            yield item, f"{path}[{index}]"
        return
    for index, (key, item) in enumerate(value.items()):
        # The key is checked before the path to its item is made of its text.
        yield key, f"list({path})[{index}]"
        text = _key_text(key)
        yield item, f"{path}[{text}]" if text else f"list({path}.values())[{index}]"


def _key_text(key: Any) -> str | None:
    """Return the key as it is written in Python, or None when that is too long to read."""
    try:
        text = repr(key)
    except ValueError:
        # Python refuses to write an int of more than some thousand digits.
        return None
    if type(key) is str and '"' not in key and "'" not in key:
        text = f'"{text[1:-1]}"'
    return text if len(text) <= _LONGEST_KEY_TEXT else None


def _type_reason(value: Any) -> str:
    kind = type(value)
    base = next((b for b in kind.__mro__[1:] if b in _LEAVES or b in (tuple, list, dict)), None)
    if issubclass(kind, np.ndarray):
        return f"is a {kind.__qualname__}, a kind of array that would come back as a plain one"
    if base is not None:
        return (
            f"is a {kind.__module__}.{kind.__qualname__}, "
            f"which would come back as a plain {base.__name__}"
        )
    return (
        f"is a {kind.__module__}.{kind.__qualname__}; a store keeps None, bool, int, float, str, "
        "bytes, tuple, list, dict, and NumPy arrays and scalars"
    )


def _scalar_reason(scalar: np.generic) -> str:
    return f"is a scalar of dtype {scalar.dtype!r}, which a store cannot keep"


def _array_reason(array: np.ndarray[Any, Any]) -> str:
    return (
        f"is an array of dtype {array.dtype!r}; a store keeps booleans, numbers, fixed-width text "
        "and bytes, dates and time differences, without objects, fields or dtype metadata"
    )
