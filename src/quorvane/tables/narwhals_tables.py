"""Tables of polars and pyarrow: dates in a column, missing numbers null."""

from __future__ import annotations

from collections import Counter
from collections.abc import Hashable
from typing import Any

import narwhals as nw
import numpy as np

from quorvane.tables.names import listed, positions_of
from quorvane.tables.narwhals_columns import column_dates, column_numbers, is_date
from quorvane.tables.native_frames import (
    column_at,
    column_names,
    frame_of,
    number_columns,
    once_named,
)
from quorvane.tables.numbers import Floats, stacked
from quorvane.tables.table import Table, date_column


class NarwhalsTable(Table):
    """Days by instruments of a frame of polars or pyarrow."""

    names: tuple[Hashable, ...]

    def __init__(self, native: Any, kind: str, date: Any, argument: str, *, optional: bool) -> None:
        super().__init__(native, len(native), argument)
        self.kind = kind
        self._columns = column_names(native, kind)
        self._schema = dict(self._frame.schema)
        self._date = self._find_dates(date, optional=optional)
        self.names = tuple(name for name in self._columns if name != self._date)

    @property
    def _frame(self) -> Any:
        return once_named(self._native, self._columns)

    def _find_dates(self, date: Any, *, optional: bool) -> str | None:
        """Take the dates from their column and return its name, if there is one."""
        if date is None:
            found = [name for name, dtype in self._schema.items() if is_date(dtype)]
            if not date_column(found, self._argument, optional=optional):
                return None
            date = found[0]
        elif not isinstance(date, str):
            raise TypeError(f"date: got {type(date).__name__}, allowed is the name of a column")
        positions_of([date], self._columns, self._argument)
        self._set_dates(column_dates(self._frame[date], lambda row: f"{self._argument}, row {row}"))
        return str(date)

    def _read(self, positions: list[int], wanted: tuple[Hashable, ...]) -> tuple[Floats, bool]:
        if not wanted:
            return np.empty((self.rows, 0)), True
        places = dict(zip(self._columns, range(len(self._columns)), strict=True))
        columns = (self._numbers(str(name), places[str(name)]) for name in wanted)
        return stacked(columns, self.rows, len(wanted))

    def _numbers(self, name: str, position: int) -> Floats:
        if isinstance(self._schema[name], nw.Float64):
            # Most columns are of this sort, and narwhals would take the most time of all.
            numbers: Floats = column_at(self._native, position, self.kind).to_numpy()
            return numbers
        what = f"{self._argument}: column {name!r}"
        return column_numbers(self._frame[name], what, self.label)

    def _write(self, matrix: Floats, names: tuple[Hashable, ...] | None) -> Any:
        if names is None:
            order = self._columns
        else:
            dates = () if self._date is None else (self._date,)
            order = (*dates, *map(str, names))
            doubled = [name for name, count in Counter(order).items() if count > 1]
            if doubled:
                raise ValueError(
                    f"names: {listed(doubled)} more than once as text, allowed are distinct names"
                )
        texts = [name for name in order if name != self._date]
        columns = number_columns(matrix, texts, self.kind)
        if self._date is not None:
            given = column_at(self._native, self._columns.index(self._date), self.kind)
            columns.insert(order.index(self._date), given)
        return frame_of(columns, order, self.kind)

    def _head(self, rows: int) -> Any:
        return self._native[:rows]
