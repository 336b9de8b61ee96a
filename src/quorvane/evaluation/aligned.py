"""A signal and the returns that it is judged by, brought together by name and date."""

from __future__ import annotations

from collections.abc import Hashable
from dataclasses import dataclass
from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane.tables import Table, read_table
from quorvane.tables.names import listed

Floats = NDArray[np.float64]


@dataclass(frozen=True)
class Aligned:
    """Days by instruments.

    Attributes
    ----------
    signal, returns : ndarray
        Of the same instruments; the returns on all days that they are known for.
    rows : ndarray of int
        The row of the returns that is each day of the signal.
    days : ndarray
        The dates of the signal, or its numbers of rows.
    instruments : tuple
        The columns' names.
    """

    signal: Floats
    returns: Floats
    rows: NDArray[np.intp]
    days: NDArray[Any]
    instruments: tuple[Hashable, ...]


def align(signal: Any, returns: Any) -> Aligned:
    """Read both tables.

    Raises
    ------
    ValueError
        An instrument or a day of the signal is not in the returns, or one of the two has dates and
        the other has none.
    """
    judged = read_table(signal, argument="signal")
    known = read_table(returns, argument="returns")
    names: tuple[Hashable, ...]
    if judged.names is None and known.names is None:
        names = tuple(range(judged.width))
    elif judged.names is None or known.names is None:
        raise ValueError(
            "signal and returns: one of them is an array and the other a table with names; "
            "both must be of one sort, to be aligned"
        )
    else:
        names = judged.names
    return Aligned(
        signal=judged.matrix(names, used=np.zeros(len(names), dtype=bool)),
        returns=known.matrix(names),
        rows=_rows(judged, known),
        days=np.arange(judged.rows) if judged.dates is None else judged.dates,
        instruments=names,
    )


def _rows(judged: Table, known: Table) -> NDArray[np.intp]:
    if judged.dates is None and known.dates is None:
        if judged.rows != known.rows:
            raise ValueError(
                f"signal and returns: without dates both must have as many rows, "
                f"got {judged.rows} and {known.rows}"
            )
        return np.arange(judged.rows)
    if judged.dates is None or known.dates is None or judged.is_utc != known.is_utc:
        raise ValueError(
            "signal and returns: both must have dates of the same sort, with a time zone or without"
        )
    rows = np.searchsorted(known.dates, judged.dates)
    found = rows < len(known.dates)
    found[found] = known.dates[rows[found]] == judged.dates[found]
    if not found.all():
        missing = [judged.label(int(row)) for row in np.flatnonzero(~found)]
        raise ValueError(f"returns: no rows for days of the signal: {listed(missing, most=10)}")
    return np.asarray(rows, dtype=np.intp)
