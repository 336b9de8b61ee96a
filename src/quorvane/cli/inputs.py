"""What the structures see: the table as it is, or the daily returns of its prices."""

from __future__ import annotations

from pathlib import Path
from typing import Literal

import numpy as np
from numpy.typing import NDArray

from quorvane.cli.errors import DataError

# Half of all daily returns beyond a half are none.
_MOST_TYPICAL_RETURN = 0.5
# The share of prices that a futures' strange day may make of them.
_FEW = 0.1

InputKind = Literal["returns", "levels"]


def structure_input(values: NDArray[np.float64], kind: InputKind) -> NDArray[np.float64]:
    """The day-by-instrument input of the structures.

    ``levels`` is the table as it is. ``returns`` is the simple return ``p[t] / p[t-1] - 1`` from
    one row to the next: NaN on the first day, where either price is missing or infinite, and
    where the earlier price is not positive, since such a return has no meaning.
    """
    if kind == "levels":
        return values
    before, after = values[:-1], values[1:]
    returns = np.full_like(values, np.nan)
    usable = (before > 0.0) & np.isfinite(before) & np.isfinite(after)
    # From the smallest price to the largest, the return is infinite; that is no fault.
    with np.errstate(over="ignore"):
        np.divide(after, before, out=returns[1:], where=usable)
    returns[1:] -= 1.0
    return returns


def are_returns(values: NDArray[np.float64]) -> bool:
    """Whether numbers can be daily returns, as fractions: none loses all, and most are small."""
    known = values[np.isfinite(values)]
    if not known.size:
        return True
    return bool(known.min() > -1.0 and np.median(np.abs(known)) < _MOST_TYPICAL_RETURN)


def are_prices(values: NDArray[np.float64]) -> bool:
    """Whether numbers can be prices: hardly any is zero or less."""
    known = values[np.isfinite(values)]
    return bool(np.count_nonzero(known <= 0.0) <= _FEW * known.size)


def require_judgeable(place: Path, values: NDArray[np.float64], kind: InputKind, what: str) -> None:
    """Raise DataError for numbers that no signal can be judged by, before anything is computed."""
    if kind == "levels" and not are_returns(values):
        raise DataError(
            f"{place}: {what} with --input levels needs daily returns as fractions, all above -1 "
            "and half of them within 0.5; for a table of prices leave --input levels out"
        )
    if kind == "returns" and not are_prices(values):
        raise DataError(
            f"{place}: {what} needs prices, and many of these numbers are zero or less; "
            "for a table of daily returns say --input levels"
        )
