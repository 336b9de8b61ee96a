"""Long tables, with a row for each date and instrument, as days by instruments."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass
from pathlib import Path

import numpy as np
from numpy.typing import NDArray

from quorvane.cli.day_labels import Place, moments_of
from quorvane.cli.errors import DataError, shown
from quorvane.cli.limits import check_dated_days, check_table_size
from quorvane.cli.table import DATE_NAMES, Dates, Table, check_instrument_names
from quorvane.counting import counted

_LIKE_LONG = frozenset({"instrument", "ticker", "symbol", "asset", "value"})


@dataclass(frozen=True)
class LongColumns:
    """Where a long table has what, by the numbers of columns, and what its header says."""

    date: int
    instrument: int
    value: int
    header: tuple[str, ...]

    @property
    def taken(self) -> str:
        """What the summary says of the columns."""
        used = [self.header[i] for i in (self.date, self.instrument, self.value)]
        others = [name for i, name in enumerate(self.header) if i not in self._used]
        text = f"a long table, rows of {', '.join(used)}"
        return f"{text}; left out {', '.join(map(shown, others))}" if others else text

    @property
    def _used(self) -> tuple[int, int, int]:
        return self.date, self.instrument, self.value


def find_long_columns(header: Sequence[str]) -> LongColumns | None:
    """The columns of a long table, None for a table of days.

    A long table has one column each that is named date (or as a table's dates may be named),
    instrument and value, in any order and any case, among others.
    """
    names = [name.strip().lower() for name in header]
    dates = [i for i, name in enumerate(names) if name in DATE_NAMES]
    if len(dates) != 1 or names.count("instrument") != 1 or names.count("value") != 1:
        return None
    stripped = tuple(name.strip() for name in header)
    return LongColumns(dates[0], names.index("instrument"), names.index("value"), stripped)


def long_table_hint(header: Sequence[str]) -> str:
    """What to say of a table of days that fails and may be meant as a long one, or nothing."""
    names = {name.strip().lower() for name in header}
    if names.isdisjoint(_LIKE_LONG):
        return ""
    return "; a long table has columns named date, instrument and value"


@dataclass(frozen=True)
class LongRows:
    """The rows of a long table: numbers of labels and of names, and the values."""

    days: NDArray[np.int64]
    labels: Sequence[str]
    columns: NDArray[np.int64]
    names: Sequence[str]
    values: NDArray[np.float64]


def table_of_rows(
    path: Path, rows: LongRows, columns: LongColumns, place: Place, taken: tuple[str, ...]
) -> Table:
    """The days in the order of their dates, the instruments as they first come.

    Raises
    ------
    DataError
        A label is no date, or a date and instrument come twice.
    """
    check_instrument_names(path, rows.names, 1)
    check_dated_days(path, len(rows.labels))
    check_table_size(path, len(rows.labels), len(rows.names))
    first = np.full(len(rows.labels), len(rows.days))
    np.minimum.at(first, rows.days, np.arange(len(rows.days)))
    moments = moments_of(rows.labels, lambda number: place(int(first[number])))
    order = np.argsort(moments.values, kind="stable")
    same = np.flatnonzero(moments.values[order][1:] == moments.values[order][:-1])
    if len(same):
        one, other = order[same[0]], order[same[0] + 1]
        raise DataError(
            f"{place(int(first[other]))}: the date {shown(rows.labels[other])} is written "
            f"{shown(rows.labels[one])} elsewhere, expected one way of writing it"
        )
    day_of_label = np.empty(len(order), dtype=np.int64)
    day_of_label[order] = np.arange(len(order))
    cells = day_of_label[rows.days] * len(rows.names) + rows.columns
    values = np.full((len(order), len(rows.names)), np.nan)
    values.reshape(-1)[cells] = rows.values
    _refuse_repeated(rows, cells, values.size, place)
    text = tuple(rows.labels[number] for number in order.tolist())
    told = (*taken, f"{columns.taken} ({counted(len(cells), 'row')})")
    return Table(values, tuple(rows.names), Dates(columns.header[columns.date], text), told)


def _refuse_repeated(rows: LongRows, cells: NDArray[np.int64], size: int, place: Place) -> None:
    seen = np.zeros(size, dtype=np.bool_)
    seen[cells] = True
    if np.count_nonzero(seen) == len(cells):
        return
    order = np.argsort(cells, kind="stable")
    repeated = order[1:][cells[order][1:] == cells[order][:-1]]
    row = int(repeated.min())
    label, name = rows.labels[rows.days[row]], rows.names[rows.columns[row]]
    raise DataError(
        f"{place(row)}: {shown(name)} comes twice on {shown(label)}, expected one row for each "
        f"date and instrument"
    )
