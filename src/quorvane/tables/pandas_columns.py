"""Columns of pandas as plain arrays. Whoever gives one has imported pandas."""

from __future__ import annotations

import sys
from collections.abc import Callable
from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane.tables.dates import Dates, dates_of, to_nanoseconds
from quorvane.tables.numbers import ALLOWED, Floats, numbers_of


def column_numbers(series: Any, what: str, label: Callable[[int], str]) -> Floats:
    """A column as float64, NaN where it is missing."""
    dtype = series.dtype
    if dtype.kind == "O" and isinstance(dtype, np.dtype):
        return numbers_of(series.tolist(), what, label)
    if not is_number(dtype):
        raise TypeError(f"{what} holds {dtype}, {ALLOWED}")
    if isinstance(dtype, np.dtype):
        numbers: Floats = series.to_numpy(dtype=np.float64)
    else:
        numbers = series.to_numpy(dtype=np.float64, na_value=np.nan)
    return numbers


def column_dates(series: Any, where: Callable[[int], str]) -> tuple[Dates, bool]:
    """A column or an index as nanoseconds; and whether they are in UTC."""
    dtype = series.dtype
    if not is_date(dtype):
        if dtype.type not in (np.object_, str):
            raise TypeError(f"{where(0)}: got {dtype}, allowed are dates")
        codes, values = column_codes(series, lambda row: f"{where(row)}: the date is missing")
        first = np.unique(codes, return_index=True)[1]
        dates, is_utc = dates_of(values, lambda i: where(int(first[i])))
        return dates[codes], is_utc
    series = series.to_series() if hasattr(series, "to_series") else series
    if hasattr(dtype, "freq"):
        series = series.dt.to_timestamp(how="start")
    elif hasattr(dtype, "pyarrow_dtype"):
        series = series.astype(_plain_dates(dtype.pyarrow_dtype))
    is_utc = getattr(series.dtype, "tz", None) is not None
    if is_utc:
        series = series.dt.tz_convert("UTC").dt.tz_localize(None)
    return to_nanoseconds(series.to_numpy(), where), is_utc


def column_codes(
    series: Any, gap: Callable[[int], str]
) -> tuple[NDArray[np.intp], tuple[Any, ...]]:
    """Number the distinct values in order of first appearance; ``gap(row)`` tells a missing one."""
    codes, values = sys.modules["pandas"].factorize(series)
    if (codes < 0).any():
        raise ValueError(gap(int((codes < 0).argmax())))
    return codes.astype(np.intp, copy=False), tuple(values.tolist())


def is_number(dtype: Any) -> bool:
    """Whether a column of this dtype holds real numbers, or nothing."""
    is_numeric = sys.modules["pandas"].api.types.is_numeric_dtype
    return bool(is_numeric(dtype) and dtype.kind != "c") or str(dtype) == "null[pyarrow]"


def is_date(dtype: Any) -> bool:
    """Whether a column of this dtype holds dates or periods."""
    return bool(dtype.kind == "M" or isinstance(dtype, sys.modules["pandas"].PeriodDtype))


def is_date_index(index: Any) -> bool:
    """Whether an index holds dates, be it as objects."""
    if index.nlevels > 1 or is_date(index.dtype):
        return bool(index.nlevels == 1)
    infer = sys.modules["pandas"].api.types.infer_dtype
    return index.dtype.kind == "O" and infer(index, skipna=True) in ("date", "datetime", "period")


def _plain_dates(arrow_type: Any) -> str:
    # Days of arrow have no unit; milliseconds hold all of them.
    zone = ", UTC" if getattr(arrow_type, "tz", None) else ""
    return f"datetime64[{getattr(arrow_type, 'unit', 'ms')}{zone}]"
