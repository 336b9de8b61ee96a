"""A table whose days are in order, and its days as pandas has them."""

from __future__ import annotations

from pathlib import Path
from typing import Any

import numpy as np

from quorvane.cli.day_labels import Moments, in_order, table_moments
from quorvane.cli.libraries import require_library
from quorvane.cli.table import Table
from quorvane.cli.table_io import place_of, read_table


def read_days(path: Path, *, sort: bool) -> tuple[Table, Moments | None]:
    """The table of a file and its dates, None where the labels are none.

    Raises
    ------
    DataError
        The file is at fault, or its dates do not ascend and are not to be sorted.
    """
    table = read_table(path)

    def place(row: int) -> str:
        return place_of(path, row)

    return in_order(table, table_moments(table, place), place, sort=sort)


def day_index(table: Table, moments: Moments | None) -> Any:
    """The days for pandas: dates where the labels are some, otherwise as they are written."""
    pandas = require_library("pandas", "judging a signal")
    if table.dates is None:
        return pandas.RangeIndex(len(table.values))
    # In several offsets no one zone has the days as they are written.
    zones = {label[-6:] for label in table.dates.text} if moments and moments.is_utc else {""}
    if moments is None or len(zones) > 1:
        return pandas.Index(list(table.dates.text), dtype=object)
    is_day = moments.values.dtype == np.dtype("datetime64[D]")
    # pandas knows no unit of days.
    index = pandas.DatetimeIndex(
        moments.values.astype("datetime64[s]") if is_day else moments.values
    )
    zone = zones.pop()
    if not moments.is_utc:
        return index
    return index.tz_localize("UTC").tz_convert(zone if zone[0] in "+-" else "UTC")
