"""Tables of one number per row, below a date and keys."""

from __future__ import annotations

from collections.abc import Hashable, Sequence
from dataclasses import dataclass
from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane.tables.dates import Dates
from quorvane.tables.names import listed, positions_of
from quorvane.tables.numbers import Floats
from quorvane.tables.reading import frame_kind


@dataclass(frozen=True)
class LongTable:
    """Rows of a date, keys and a number.

    Attributes
    ----------
    dates : ndarray of datetime64[ns] or None
        One per row in any order, None where no column of dates is named.
    is_utc : bool
        Whether the dates knew their time zone, and are in UTC here.
    codes : dict of str to ndarray of intp
        For each key column the number of each row's key.
    values_of : dict of str to tuple
        For each key column its distinct keys, in order of first appearance.
    numbers : ndarray of float64
        None of them infinite, NaN where missing.
    """

    rows: int
    dates: Dates | None
    is_utc: bool
    codes: dict[str, NDArray[np.intp]]
    values_of: dict[str, tuple[Any, ...]]
    numbers: Floats


def read_long(
    table: Any, *, date: str | None, keys: Sequence[str], number: str, argument: str = "table"
) -> LongTable:
    """Read rows of a date, keys and a number.

    Parameters
    ----------
    table : pandas.DataFrame, polars.DataFrame or pyarrow.Table
    date : str or None
        The column of dates, or of ISO dates as text.
    keys : sequence of str
        The columns of keys, which hold texts, integers or tuples.
    number : str
        The column of numbers.
    argument : str
        What errors call the table.

    Returns
    -------
    LongTable
    """
    kind = frame_kind(table, argument)
    if kind is None:
        raise TypeError(
            f"{argument}: got {type(table).__name__}, allowed are pandas, polars and pyarrow tables"
        )
    wanted = [*([] if date is None else [date]), *keys, number]
    column, convert = _opened(table, kind, wanted, argument)
    dates, is_utc = None, False
    if date is not None:
        dates, is_utc = convert.column_dates(column(date), lambda row: f"{argument}, row {row}")
    codes, values_of = {}, {}
    for key in keys:
        codes[key], values_of[key] = convert.column_codes(
            column(key), lambda row, key=key: f"{argument}: column {key!r} has no key at row {row}"
        )
    what = f"{argument}: column {number!r}"
    numbers = convert.column_numbers(column(number), what, lambda row: f"row {row}")
    _check_finite(numbers, what)
    return LongTable(len(numbers), dates, is_utc, codes, values_of, numbers)


def _opened(table: Any, kind: str, wanted: Sequence[str], argument: str) -> tuple[Any, Any]:
    """What gives a column by its name, and the module that converts it."""
    if kind == "pandas":
        from quorvane.tables import pandas_columns

        places = _places(wanted, tuple(table.columns), argument)
        return lambda name: table.iloc[:, places[name]], pandas_columns
    from quorvane.tables import narwhals_columns
    from quorvane.tables.native_frames import column_names, once_named

    names = column_names(table, kind)
    _places(wanted, names, argument)
    frame = once_named(table, names)
    return lambda name: frame[name], narwhals_columns


def _places(
    wanted: Sequence[str], names: tuple[Hashable, ...], argument: str
) -> dict[Hashable, int]:
    try:
        return dict(zip(wanted, positions_of(wanted, names, argument), strict=True))
    except ValueError as error:
        raise ValueError(f"{error}; it has the columns {listed(names)}") from None


def _check_finite(numbers: Floats, what: str) -> None:
    infinite = np.isinf(numbers)
    if infinite.any():
        row = int(infinite.argmax())
        raise ValueError(
            f"{what} holds {numbers[row]} at row {row}, "
            f"allowed are finite numbers and missing values"
        )
