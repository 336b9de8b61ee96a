"""Arguments, checked: errors name the argument, what was got and what is allowed."""

from __future__ import annotations

import operator
from typing import Any


def whole_number(argument: str, value: Any, least: int, also: str = "") -> int:
    """The value as an int of at least so much; TypeError or ValueError otherwise."""
    if isinstance(value, bool) or not hasattr(value, "__index__"):
        raise TypeError(f"{argument} must be {also}an int, got {value!r}")
    number = operator.index(value)
    if number < least:
        raise ValueError(f"{argument} must be {also}at least {least}, got {number}")
    return number
