"""Names, days and numbers as text."""

from __future__ import annotations

import re
from typing import Any

import numpy as np

# What XML, and so an SVG file, cannot hold: most control characters, lone surrogates, two others.
_NOT_DRAWN = re.compile(r"[\x00-\x08\x0b\x0c\x0e-\x1f\ud800-\udfff\ufffe\uffff]")
# The time of day of a date that is midnight, where it is.
_MIDNIGHT = re.compile(r"[T ]00:00(:00(\.0+)?)?([+-]\d\d:\d\d)?$")
_ELLIPSIS = "\N{HORIZONTAL ELLIPSIS}"
_TAIL = 4


def drawable(text: str) -> str:
    """``text`` with a replacement character for each one that no page or picture can hold."""
    return _NOT_DRAWN.sub("\N{REPLACEMENT CHARACTER}", text)


def short(name: object, length: int = 14) -> str:
    """A name that fits beside a chart, with its end, in which many differ."""
    text = str(name)
    if len(text) > length:
        text = text[: length - 1 - _TAIL] + _ELLIPSIS + text[-_TAIL:]
    return drawable(text)


def day_text(day: Any) -> str:
    """A day's label; a date without its time of day where that is midnight."""
    return drawable(_MIDNIGHT.sub("", str(day)))


def percent(number: float, digits: int = 1) -> str:
    """A fraction in percent, with its sign."""
    return f"{100.0 * number:+.{digits}f} %"


def decimal(number: float, digits: int) -> str:
    """A number, or a dash for a missing one."""
    return f"{number:.{digits}f}" if np.isfinite(number) else "\N{EN DASH}"
