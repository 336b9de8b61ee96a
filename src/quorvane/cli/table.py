"""A table of days by instruments, as read from a file and as written to one."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass
from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane.cli.errors import DataError, shown
from quorvane.cli.limits import check_name_length

DATE_HEADERS = frozenset({"", "date", "dates", "day", "days", "time", "datetime", "timestamp"})
"""Names, in lower case, that mark a first column as the days' labels."""
DATE_NAMES = DATE_HEADERS - {""}
"""Those that mark a column anywhere."""


@dataclass(frozen=True)
class Dates:
    """The days' labels, one per row, as text exactly as they stand in the file.

    ``arrow`` is the column itself when it came from a Parquet file, so that it can be written
    back with its own type.
    """

    name: str
    text: tuple[str, ...]
    arrow: Any = None


@dataclass(frozen=True)
class Table:
    """``values`` is float64, days by instruments, with NaN for a missing cell.

    ``taken`` says what was not as in the usual file: another separator, a long table.
    """

    values: NDArray[np.float64]
    instruments: tuple[str, ...]
    dates: Dates | None = None
    taken: tuple[str, ...] = ()

    def label(self, day: int) -> str:
        """The day's date, or its number counted from 0 when the table has no dates."""
        return self.dates.text[day] if self.dates is not None else str(day)


def check_instrument_names(source: object, names: Sequence[str], first_column: int) -> None:
    """Raise DataError unless there are names, none of them empty or too long, none of them twice.

    ``first_column`` is the number, counted from 1, of the first name's column in the file.
    """
    if not names:
        raise DataError(f"{source}: no instrument columns, expected one or more")
    seen: dict[str, int] = {}
    for column, name in enumerate(names, start=first_column):
        if not name.strip():
            raise DataError(f"{source}: column {column} has no name, expected an instrument's name")
        check_name_length(f"{source}, column {column}", "a name", len(name))
        if name in seen:
            raise DataError(
                f"{source}: instrument {shown(name)} names columns {seen[name]} and {column}, "
                f"expected distinct names"
            )
        seen[name] = column
