"""A signal and the returns that it is judged by, brought together by name and date."""

from __future__ import annotations

import re
from collections.abc import Hashable
from dataclasses import dataclass
from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane.tables import Table, read_table
from quorvane.tables.names import listed

Floats = NDArray[np.float64]
_ISO_DATE = re.compile(r"\d{4}-?\d\d-?\d\d")

Rows = NDArray[np.intp]


@dataclass(frozen=True)
class Aligned:
    """Days by instruments.

    Attributes
    ----------
    signal, returns : ndarray
        Of the same instruments; the returns on all days that they are known for.
    rows : ndarray of int
        The row of the returns that is each day of the signal; ascending.
    days : index of pandas, or ndarray
        The signal's own labels of its days: its index, else its dates, else the numbers of rows.
    is_utc : bool
        Whether the days are dates in UTC that have lost their word for it.
    instruments : tuple
        The columns' names.
    """

    signal: Floats
    returns: Floats
    rows: Rows
    days: Any
    is_utc: bool
    instruments: tuple[Hashable, ...]


def align(signal: Any, returns: Any, date: Any) -> Aligned:
    """Read both tables; ``date`` is the column of dates where it cannot be told by its type.

    Raises
    ------
    ValueError
        An instrument or a day of the signal is not in the returns, the two are of different sorts,
        or their days are in no order.
    """
    judged = read_table(signal, date=date, argument="signal")
    known = read_table(returns, date=date, argument="returns")
    names: tuple[Hashable, ...]
    if (judged.names is None) != (known.names is None):
        raise ValueError(
            "signal and returns: one of them is an array and the other a table with names; "
            "both must be of one sort, to be aligned"
        )
    names = tuple(range(judged.width)) if judged.names is None else judged.names
    labels, known_labels = _labels(judged, signal), _labels(known, returns)
    if judged.dates is not None or known.dates is not None:
        rows = _rows_by_date(judged, known)
    elif labels is None and known_labels is None:
        rows = _rows_in_order(judged, known)
    else:
        rows = _rows_by_label(_index(judged, signal), _index(known, returns))
    days = labels
    if days is None:
        days = np.arange(judged.rows) if judged.dates is None else judged.dates
    return Aligned(
        signal=judged.matrix(names, used=np.zeros(len(names), dtype=bool)),
        returns=known.matrix(names),
        rows=rows,
        days=days,
        is_utc=labels is None and judged.is_utc,
        instruments=names,
    )


def _index(table: Table, native: Any) -> Any:
    """The index of a pandas frame, None for another table."""
    return native.index if table.kind == "pandas" else None


def _labels(table: Table, native: Any) -> Any:
    """The index of a pandas frame that says something of its days, None for any other."""
    index = _index(table, native)
    return None if index is None or _counts_rows(index) else index


def _counts_rows(index: Any) -> bool:
    """Whether an index is 0, 1, 2, ... because nobody has given one."""
    return type(index).__name__ == "RangeIndex" and (index.start, index.step) == (0, 1)


def _rows_by_date(judged: Table, known: Table) -> Rows:
    if judged.dates is None or known.dates is None or judged.is_utc != known.is_utc:
        raise ValueError(
            "signal and returns: both must have dates of the same sort, with a time zone or without"
        )
    rows = np.searchsorted(known.dates, judged.dates)
    found = rows < len(known.dates)
    found[found] = known.dates[rows[found]] == judged.dates[found]
    _refuse_missing([judged.label(int(row)) for row in np.flatnonzero(~found)])
    return np.asarray(rows, dtype=np.intp)


def _rows_by_label(labels: Any, known: Any) -> Rows:
    """Days that have names but no dates: found by name, and in the order of the returns."""
    if known is None or labels is None or not (known.is_unique and labels.is_unique):
        raise ValueError("signal and returns: the index of both must name each day once")
    if any(_descends(index) for index in (labels, known)):
        raise ValueError("signal and returns: their days descend; allowed is the order of time")
    rows = np.asarray(known.get_indexer(labels), dtype=np.intp)
    _refuse_missing(labels[rows < 0].tolist())
    if np.count_nonzero(np.diff(rows) < 0):
        raise ValueError("signal: its days must be in the order of those of the returns")
    return rows


def _descends(index: Any) -> bool:
    """Whether days go back in time: numbers and dates do, other text has no order."""
    if len(index) < 2 or index.is_monotonic_increasing:
        return False
    ends = [label for label in (index[0], index[-1]) if isinstance(label, str)]
    are_dates = all(_ISO_DATE.match(text) for text in ends)
    # Dates as text sort as time does.
    return are_dates and (bool(ends) or bool(index.is_monotonic_decreasing))


def _rows_in_order(judged: Table, known: Table) -> Rows:
    if "polars" in (judged.kind, known.kind) or "pyarrow" in (judged.kind, known.kind):
        raise ValueError(
            "signal and returns: no column holds dates, name the one that says the days with date="
        )
    if judged.rows != known.rows:
        raise ValueError(
            f"signal and returns: without dates both must have as many rows, "
            f"got {judged.rows} and {known.rows}"
        )
    return np.arange(judged.rows)


def _refuse_missing(days: list[Any]) -> None:
    if days:
        raise ValueError(f"returns: no rows for days of the signal: {listed(days, most=10)}")
