"""Tables of pandas: dates in the index or in a column."""

from __future__ import annotations

import sys
from collections.abc import Hashable, Sequence
from typing import Any

import numpy as np

from quorvane.tables.names import positions_of
from quorvane.tables.numbers import Floats, c_ordered, stacked
from quorvane.tables.pandas_columns import column_dates, column_numbers, is_date, is_date_index
from quorvane.tables.table import Table, date_column


class PandasTable(Table):
    """Days by instruments of a DataFrame."""

    kind = "pandas"
    names: tuple[Hashable, ...]

    def __init__(self, native: Any, date: Any, argument: str, *, optional: bool) -> None:
        super().__init__(native, len(native), argument)
        columns = tuple(native.columns.tolist())
        self._date_at = self._find_dates(columns, date, optional=optional)
        self._numbers_at = [i for i in range(len(columns)) if i != self._date_at]
        self.names = tuple(columns[i] for i in self._numbers_at)

    def _find_dates(self, columns: tuple[Hashable, ...], date: Any, *, optional: bool) -> int:
        """Take the dates from where they are: the position of their column, else -1."""
        native = self._native
        if not isinstance(date, Hashable):
            raise TypeError(f"date: got {type(date).__name__}, allowed is the name of a column")
        in_index = is_date_index(native.index)
        if date is None or (date == native.index.name and date not in columns and in_index):
            if in_index:
                self._set_dates(column_dates(native.index, self._where))
                return -1
            dated = {dtype for dtype in set(native.dtypes) if is_date(dtype)}
            at = [i for i, dtype in enumerate(native.dtypes) if dtype in dated] if dated else []
            if not date_column([columns[i] for i in at], self._argument, optional=optional):
                return -1
        else:
            at = positions_of([date], columns, self._argument)
        self._set_dates(column_dates(native.iloc[:, at[0]], self._where))
        return at[0]

    def _read(self, positions: list[int], wanted: tuple[Hashable, ...]) -> tuple[Floats, bool]:
        if not wanted:
            return np.empty((self.rows, 0)), True
        chosen = _columns(self._native, [self._numbers_at[i] for i in positions])
        if all(
            isinstance(dtype, np.dtype) and dtype.kind in "biuf" for dtype in set(chosen.dtypes)
        ):
            return c_ordered(chosen.to_numpy(dtype=np.float64))
        columns = (
            column_numbers(series, f"{self._argument}: column {name!r}", self.label)
            for name, series in chosen.items()
        )
        return stacked(columns, self.rows, len(wanted))

    def _write(self, matrix: Floats, names: tuple[Hashable, ...] | None) -> Any:
        native, at = self._native, self._date_at
        columns = native.columns
        if names is not None:
            dates = [] if at < 0 else [columns[at]]
            columns, at = named([*dates, *names]), min(at, 0)
        numbers = columns if at < 0 else named([name for i, name in enumerate(columns) if i != at])
        # A matrix in C order becomes one block as it is; pandas would copy it unless told.
        frame = sys.modules["pandas"].DataFrame
        result = frame(matrix, index=native.index, columns=numbers, copy=False)
        if at >= 0:
            dates = native.iloc[:, self._date_at]
            result.insert(at, columns[at], dates, allow_duplicates=True)
            result.columns = columns
        if names is None:
            result.attrs = dict(native.attrs)
        return result

    def _head(self, rows: int) -> Any:
        return self._native.iloc[:rows]

    def _row_label(self, row: int) -> str:
        index = self._native.index
        is_plain = isinstance(index, sys.modules["pandas"].RangeIndex)
        return super()._row_label(row) if is_plain else str(index[row])

    def _where(self, row: int) -> str:
        return f"{self._argument}, row {row}"


def named(names: Sequence[Hashable]) -> Any:
    """An index of these names, tuples as they are."""
    return sys.modules["pandas"].Index(list(names), tupleize_cols=False)


def _columns(frame: Any, positions: list[int]) -> Any:
    # A slice is a view where a list is a copy.
    start, stop = positions[0], positions[-1] + 1
    if positions == list(range(start, stop)):
        return frame.iloc[:, start:stop]
    return frame.iloc[:, positions]
