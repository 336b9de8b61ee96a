"""What became of a configuration, and how it is written as JSON without losing a bit."""

from __future__ import annotations

import math
from dataclasses import dataclass
from typing import Any

from quorvane.sweeping.scores import Figures, Number

# JSON has no such numbers.
_ODD = {"nan": math.nan, "inf": math.inf, "-inf": -math.inf}

_LONGEST_ERROR = 2000


@dataclass(frozen=True)
class Outcome:
    """A configuration's figures, or its error.

    Attributes
    ----------
    figures : dict
        Numbers by name; empty where it failed.
    seconds : float
        What it took.
    error : str
        The error's type and text; empty where there is none.
    """

    figures: Figures
    seconds: float
    error: str = ""


def error_text(error: BaseException) -> str:
    """An error's type and text, with the middle of a long one left out."""
    try:
        text = f"{type(error).__name__}: {error}"
    except Exception:
        # An error of one's own may not even know what to say.
        text = type(error).__name__
    half = _LONGEST_ERROR // 2
    return text if len(text) <= _LONGEST_ERROR else f"{text[:half]} ... {text[-half:]}"


def as_json(outcome: Outcome) -> dict[str, Any]:
    """What JSON can hold of it, which `of_json` takes back to the bit."""
    figures = {name: _written(number) for name, number in outcome.figures.items()}
    return {"figures": figures, "seconds": outcome.seconds, "error": outcome.error}


def of_json(found: Any) -> Outcome:
    """The outcome that was written; ValueError for anything else."""
    if not isinstance(found, dict) or not {"figures", "seconds", "error"} <= found.keys():
        raise ValueError("no outcome")
    figures, seconds, error = found["figures"], found["seconds"], found["error"]
    if not isinstance(figures, dict) or not isinstance(error, str) or not _is_number(seconds):
        raise ValueError("no outcome")
    return Outcome({name: _read(item) for name, item in figures.items()}, float(seconds), error)


def _written(number: Number) -> Number | str:
    if isinstance(number, float) and not math.isfinite(number):
        return "nan" if math.isnan(number) else "inf" if number > 0.0 else "-inf"
    return number


def _read(item: Any) -> Number:
    if isinstance(item, str) and item in _ODD:
        return _ODD[item]
    if not _is_number(item):
        raise ValueError("no number")
    number: Number = item
    return number


def _is_number(item: Any) -> bool:
    return isinstance(item, (int, float)) and not isinstance(item, bool)
