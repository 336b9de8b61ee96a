"""Tables that are arrays: anything that NumPy makes two axes of."""

from __future__ import annotations

from collections.abc import Hashable
from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane.tables.dates import dates_of, to_nanoseconds
from quorvane.tables.numbers import ALLOWED, Floats, c_ordered, numbers_of
from quorvane.tables.table import Table

KINDS = "a NumPy array, a pandas, polars or pyarrow table"


class ArrayTable(Table):
    """Days by instruments without names; its dates, if any, are given beside it."""

    kind = "array"
    names = None

    def __init__(self, values: NDArray[Any], date: Any, argument: str) -> None:
        if values.ndim != 2:
            raise ValueError(
                f"{argument}: a table of days by instruments has two axes, got shape "
                f"{values.shape}, use step() for one day"
            )
        super().__init__(values, len(values), argument)
        if date is not None:
            self._set_dates(_dates(date, self.rows))

    @property
    def width(self) -> int:
        """The number of columns."""
        return int(self._native.shape[1])

    def _positions(self, wanted: tuple[Hashable, ...]) -> list[int]:
        if len(wanted) != self.width:
            raise ValueError(
                f"{self._argument}: got {self.width} columns, allowed are {len(wanted)}, "
                f"one for each instrument"
            )
        return list(range(self.width))

    def _read(self, positions: list[int], wanted: tuple[Hashable, ...]) -> tuple[Floats, bool]:
        values = self._native
        if values.dtype.kind != "O":
            return c_ordered(float_array(values, self._argument))
        columns = [
            numbers_of(values[:, i].tolist(), f"{self._argument}: column {wanted[i]!r}", self.label)
            for i in positions
        ]
        return c_ordered(np.array(columns).reshape(self.width, self.rows).T)

    def _write(self, matrix: Floats, names: tuple[Hashable, ...] | None) -> Any:
        return matrix

    def _head(self, rows: int) -> Any:
        return self._native[:rows]


def as_array(value: Any, argument: str) -> NDArray[Any]:
    """The array that NumPy makes of ``value``, whatever its number of axes."""
    if isinstance(value, np.ma.MaskedArray):
        return np.ma.filled(value.astype(np.float64), np.nan)
    try:
        array = np.asarray(value)
        if array.dtype.kind in "SU" and not isinstance(value, np.ndarray):
            # NumPy wrote the numbers as text: errors shall show what was given.
            array = np.asarray(value, dtype=object)
    except ValueError as error:
        raise ValueError(f"{argument}: rows of different lengths ({error})") from None
    if array.ndim == 0:
        raise TypeError(f"{argument}: got {type(value).__name__}, allowed are {KINDS}")
    return array


def float_array(values: NDArray[Any], argument: str) -> Floats:
    """The array as float64 if its numbers are real, itself if it is float64."""
    if values.dtype.kind not in "biuf":
        raise TypeError(f"{argument}: got an array of {values.dtype}, {ALLOWED}")
    # Longer floats may become infinite, which the check of infinities tells better.
    with np.errstate(over="ignore"):
        return values.astype(np.float64, copy=False)


def _dates(date: Any, rows: int) -> Any:
    values = np.asarray(date)
    if values.shape != (rows,):
        raise ValueError(
            f"date: got the shape {values.shape}, allowed is a date for each of {rows} rows"
        )
    if values.dtype.kind == "M":
        return to_nanoseconds(values, _where), False
    return dates_of(values.tolist(), _where)


def _where(row: int) -> str:
    return f"date, row {row}"
