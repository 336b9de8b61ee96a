"""One day: an array, a Series, a mapping or a table of one row."""

from __future__ import annotations

import sys
from collections.abc import Hashable, Mapping
from datetime import date as calendar_date
from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane.tables.arrays import ArrayTable, as_array, float_array
from quorvane.tables.dates import as_date
from quorvane.tables.missing import is_missing
from quorvane.tables.numbers import Floats, numbers_of
from quorvane.tables.reading import frame_kind, read_frame
from quorvane.tables.row import Row
from quorvane.tables.table import Table


def read_row(row: Any, *, date: Any = None, argument: str = "row") -> Row:
    """Read one day.

    Parameters
    ----------
    row : array_like, Mapping, pandas.Series or a table of one row
    date : date, optional
        The day; else that of the table, or the name of the Series if it is a date. For a table
        it may also be the name of the column of dates.
    argument : str
        What errors call the row.

    Returns
    -------
    Row
    """
    kind = frame_kind(row, argument)
    if kind is not None:
        _check_one(len(row), argument)
        columns = row.column_names if kind == "pyarrow" else row.columns
        is_column = isinstance(date, str) and date in columns
        known = date is not None and not is_column
        column = date if is_column else None
        read: Row = TableRow(read_frame(row, kind, column, argument, optional=known), argument)
        date = None if is_column else date
    else:
        read = _plain_row(row, argument)
    if date is not None:
        read.date, read.is_utc = as_date(date)
    return read


class ArrayRow(Row):
    """A day without names."""

    kind = "array"
    names = None

    def _positions(self, wanted: tuple[Hashable, ...]) -> list[int]:
        count = len(self._native)
        if len(wanted) != count:
            raise ValueError(
                f"{self._argument}: got {count} numbers, allowed are {len(wanted)}, "
                f"one for each instrument"
            )
        return list(range(count))

    def _read(self, positions: list[int], wanted: tuple[Hashable, ...]) -> Floats:
        values: NDArray[Any] = self._native
        if values.dtype.kind == "O":
            return numbers_of(values.tolist(), self._what, lambda i: repr(wanted[i]))
        return np.ascontiguousarray(float_array(values, self._argument))

    def _write(self, vector: Floats, names: tuple[Hashable, ...] | None) -> Any:
        return vector


class MappingRow(Row):
    """A day as a mapping of names to numbers; results are dicts."""

    kind = "mapping"
    names: tuple[Hashable, ...]

    def __init__(self, native: Mapping[Hashable, Any], argument: str) -> None:
        super().__init__(native, argument)
        self.names = tuple(native)

    def _read(self, positions: list[int], wanted: tuple[Hashable, ...]) -> Floats:
        values = [self._native[name] for name in wanted]
        return numbers_of(values, self._what, lambda i: repr(wanted[i]))

    def _write(self, vector: Floats, names: tuple[Hashable, ...] | None) -> Any:
        return dict(zip(self.names if names is None else names, vector.tolist(), strict=True))


class SeriesRow(Row):
    """A day as a Series of pandas, whose name may be its date."""

    kind = "pandas"
    names: tuple[Hashable, ...]

    def __init__(self, native: Any, argument: str) -> None:
        super().__init__(native, argument)
        self.names = tuple(native.index)
        name = native.name
        is_date = isinstance(name, calendar_date | np.datetime64) or hasattr(name, "start_time")
        if is_date and not is_missing(name):
            self.date, self.is_utc = as_date(name, f"{argument}: its name")

    def _read(self, positions: list[int], wanted: tuple[Hashable, ...]) -> Floats:
        from quorvane.tables.pandas_columns import column_numbers

        chosen = self._native.iloc[positions]
        return column_numbers(chosen, self._what, lambda i: repr(wanted[i]))

    def _write(self, vector: Floats, names: tuple[Hashable, ...] | None) -> Any:
        from quorvane.tables.pandas_tables import named

        native = self._native
        index = native.index if names is None else named(names)
        result = sys.modules["pandas"].Series(vector, index=index, name=native.name)
        if names is None:
            result.attrs = dict(native.attrs)
        return result


class TableRow(Row):
    """A day as a table of one row."""

    def __init__(self, table: Table, argument: str) -> None:
        _check_one(table.rows, argument)
        super().__init__(table, argument)
        self.kind, self.names, self.is_utc = table.kind, table.names, table.is_utc
        self.date = None if table.dates is None else table.dates[0]

    @property
    def label(self) -> str:
        """What messages call the day: its date, else its index or its number."""
        label: str = self._native.label(0) if self.date is None else super().label
        return label

    def _positions(self, wanted: tuple[Hashable, ...]) -> list[int]:
        positions: list[int] = self._native._positions(wanted)
        return positions

    def _read(self, positions: list[int], wanted: tuple[Hashable, ...]) -> Floats:
        values: Floats = self._native._read(positions, wanted)[0][0]
        return values

    def _write(self, vector: Floats, names: tuple[Hashable, ...] | None) -> Any:
        return self._native._write(vector[None], names)


def _plain_row(row: Any, argument: str) -> Row:
    pandas = sys.modules.get("pandas")
    if pandas is not None and isinstance(row, pandas.Series):
        return SeriesRow(row, argument)
    if isinstance(row, Mapping):
        return MappingRow(row, argument)
    values = as_array(row, argument)
    if values.ndim == 1:
        return ArrayRow(values, argument)
    return TableRow(ArrayTable(values, None, argument), argument)


def _check_one(rows: int, argument: str) -> None:
    if rows != 1:
        raise ValueError(
            f"{argument}: one row is wanted, got a table of {rows} rows; use update() for several"
        )
