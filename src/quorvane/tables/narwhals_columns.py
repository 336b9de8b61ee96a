"""Columns of polars and pyarrow as plain arrays, by way of narwhals."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import narwhals as nw
import numpy as np
from numpy.typing import NDArray

from quorvane.tables.dates import Dates, dates_of, to_nanoseconds
from quorvane.tables.numbers import ALLOWED, Floats, numbers_of


def column_numbers(series: Any, what: str, label: Callable[[int], str]) -> Floats:
    """A column as float64, NaN where it is missing."""
    if series.dtype == nw.Object:
        return numbers_of(series.to_list(), what, label)
    if not is_number(series):
        raise TypeError(f"{what} holds {series.dtype}, {ALLOWED}")
    dtype = series.dtype
    # NumPy rounds integers beyond 2**53, where a cast of pyarrow fails; it has none of 128 bits.
    is_plain = dtype.is_integer() and not isinstance(dtype, nw.Int128 | nw.UInt128)
    if not is_plain:
        series = series.cast(nw.Float64)
    numbers: Floats = series.to_numpy().astype(np.float64, copy=False)
    return numbers


def column_dates(series: Any, where: Callable[[int], str]) -> tuple[Dates, bool]:
    """A column as nanoseconds; and whether they are in UTC."""
    dtype = series.dtype
    is_utc = getattr(dtype, "time_zone", None) is not None
    if is_utc:
        series = series.dt.convert_time_zone("UTC").dt.replace_time_zone(None)
    if is_date(dtype):
        return to_nanoseconds(series.to_numpy(), where), is_utc
    if not _is_text(dtype):
        raise TypeError(f"{where(0)}: got {dtype}, allowed are dates")
    codes, values = column_codes(series, lambda row: f"{where(row)}: the date is missing")
    first = np.unique(codes, return_index=True)[1]
    dates, is_utc = dates_of(values, lambda i: where(int(first[i])))
    return dates[codes], is_utc


def column_codes(
    series: Any, gap: Callable[[int], str]
) -> tuple[NDArray[np.intp], tuple[Any, ...]]:
    """Number the distinct values in order of first appearance; ``gap(row)`` tells a missing one."""
    missing = series.is_null()
    if missing.any():
        raise ValueError(gap(int(missing.arg_true()[0])))
    if not len(series) or not (_is_text(series.dtype) or series.dtype.is_integer()):
        return _object_codes(series.to_list())
    if not isinstance(series.dtype, nw.String) and _is_text(series.dtype):
        series = series.cast(nw.String)
    values = series.unique(maintain_order=True)
    numbers = list(range(len(values)))
    codes = series.replace_strict(values.to_list(), numbers, return_dtype=nw.Int64)
    return codes.to_numpy().astype(np.intp, copy=False), tuple(values.to_list())


def is_number(series: Any) -> bool:
    """Whether a column holds real numbers, or nothing."""
    dtype = series.dtype
    if dtype == nw.Unknown:
        return bool(series.null_count() == len(series))
    return bool(dtype.is_numeric() or dtype == nw.Boolean)


def is_date(dtype: Any) -> bool:
    """Whether a column of this dtype holds dates."""
    return isinstance(dtype, nw.Date | nw.Datetime)


def _is_text(dtype: Any) -> bool:
    return isinstance(dtype, nw.String | nw.Categorical | nw.Enum)


def _object_codes(values: list[Any]) -> tuple[NDArray[np.intp], tuple[Any, ...]]:
    # Libraries without tuples keep them as lists.
    keys = [tuple(value) if isinstance(value, list) else value for value in values]
    seen: dict[Any, int] = {}
    codes = np.array([seen.setdefault(key, len(seen)) for key in keys], dtype=np.intp)
    return codes, tuple(seen)
