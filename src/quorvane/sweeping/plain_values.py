"""Values that can go to another process and be known again: numbers, text, dates, and lists."""

from __future__ import annotations

import hashlib
import json
from collections.abc import Mapping
from datetime import date
from typing import Any

import numpy as np

_ALLOWED = "allowed are numbers, text, dates, None, and lists and mappings of them"


def plain(value: Any, where: str) -> Any:
    """The value made of Python's own types, which every process has.

    Raises
    ------
    TypeError
        It is, or holds, anything but numbers, text, dates and None; ``where`` opens the text.
    """
    if isinstance(value, Mapping):
        return {plain(name, where): plain(item, where) for name, item in value.items()}
    if isinstance(value, np.ndarray) and value.ndim == 1:
        value = value.tolist()
    if isinstance(value, (list, tuple)):
        items = [plain(item, where) for item in value]
        return tuple(items) if isinstance(value, tuple) else items
    if isinstance(value, np.generic) and not isinstance(value, np.datetime64):
        value = value.item()
    if isinstance(value, bool) or value is None or isinstance(value, (date, np.datetime64)):
        return value
    for kind in (int, float, str):
        if isinstance(value, kind):
            return kind(value)
    raise TypeError(f"{where}: got {value!r} ({type(value).__name__}), {_ALLOWED}")


def spelled(value: Any) -> Any:
    """A plain value as what JSON can tell from any other: bits of floats, order of mappings."""
    if isinstance(value, Mapping):
        return ["mapping", *([spelled(name), spelled(item)] for name, item in value.items())]
    if isinstance(value, (list, tuple)):
        return ["list", *map(spelled, value)]
    if isinstance(value, float):
        return ["float", value.hex()]
    if isinstance(value, (date, np.datetime64)):
        return [type(value).__name__, str(value)]
    return value


def digest(*parts: Any) -> str:
    """Forty hexadecimal digits that stand for plain values and bytes, different ones for others."""
    found = hashlib.blake2b(digest_size=20)
    for part in parts:
        is_raw = isinstance(part, bytes)
        data = part if is_raw else json.dumps(spelled(part)).encode()
        found.update(f"{'bytes' if is_raw else 'value'} {len(data)}:".encode() + data)
    return found.hexdigest()
