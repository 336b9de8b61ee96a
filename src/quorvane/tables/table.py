"""What a labelled table does, whichever library it comes from."""

from __future__ import annotations

import copy
from abc import ABC, abstractmethod
from collections.abc import Hashable, Sequence
from typing import Any

from numpy.typing import ArrayLike

from quorvane.tables.dates import Dates, check_ascending, date_text
from quorvane.tables.names import listed, positions_of
from quorvane.tables.numbers import Floats, check_finite, check_used, checked_result, spread


class Table(ABC):
    """Days by instruments, with the labels that results get back.

    Attributes
    ----------
    kind : str
        "array", "pandas", "polars" or "pyarrow".
    rows, width : int
        The numbers of days, and of columns other than the one of dates.
    names : tuple or None
        The columns in order, without the one of dates; None for an array.
    dates : ndarray of datetime64[ns] or None
        A date for each row, ascending.
    is_utc : bool
        Whether the dates knew their time zone, and are in UTC here.
    """

    kind: str
    names: tuple[Hashable, ...] | None

    def __init__(self, native: Any, rows: int, argument: str) -> None:
        self._native = native
        self._argument = argument
        self.rows = rows
        self.dates: Dates | None = None
        self.is_utc = False

    @property
    def width(self) -> int:
        """The number of columns, the one of dates left out."""
        return len(self.names or ())

    def label(self, row: int) -> str:
        """What messages call a row: its date, else its index or its number."""
        if self.dates is None:
            return self._row_label(row)
        return date_text(self.dates[row], self.is_utc)

    def matrix(self, instruments: Sequence[Hashable], *, used: ArrayLike | None = None) -> Floats:
        """The instruments' numbers as float64 in C order, NaN where missing.

        Parameters
        ----------
        instruments : sequence
            Columns by name; an array has exactly these, in this order.
        used : array_like of bool, optional
            Instruments in which no number may be infinite; all unless given.

        Returns
        -------
        ndarray of float64, rows by instruments
            It may share the table's memory: not to be written to.
        """
        wanted = tuple(instruments)
        check_used(used, len(wanted))
        values, is_finite = self._read(self._positions(wanted), wanted)
        if not is_finite:
            check_finite(values, wanted, used, self._argument, self.label)
        return values

    def fill(self, matrix: ArrayLike, instruments: Sequence[Hashable]) -> Any:
        """A table of the kind given, with the same rows and columns and the matrix's numbers.

        Columns that are not instruments come out missing. Missing numbers are NaN in arrays and
        in pandas, null in polars and pyarrow. The result may share the matrix's memory.
        """
        wanted = tuple(instruments)
        values = checked_result(matrix, (self.rows, len(wanted)), "matrix")
        positions = self._positions(wanted)
        return self._write(spread(values, positions, self.width), None)

    def of_columns(self, matrix: ArrayLike, names: Sequence[Hashable]) -> Any:
        """A table of the kind given, with the same rows and dates and with columns ``names``.

        Missing numbers come out as in `fill`. In polars and pyarrow a name becomes text.
        """
        values = checked_result(matrix, (self.rows, len(names)), "matrix")
        return self._write(values, tuple(names))

    def first(self, rows: int) -> Table:
        """The table of the first rows."""
        part = copy.copy(self)
        part.rows = min(max(rows, 0), self.rows)
        part.dates = None if self.dates is None else self.dates[: part.rows]
        part._native = self._head(part.rows)
        return part

    @abstractmethod
    def _read(self, positions: list[int], wanted: tuple[Hashable, ...]) -> tuple[Floats, bool]:
        """The numbers of the columns at these positions of `names`; and if none is infinite."""

    @abstractmethod
    def _write(self, matrix: Floats, names: tuple[Hashable, ...] | None) -> Any:
        """A native table of these columns; of its own columns where ``names`` is None."""

    @abstractmethod
    def _head(self, rows: int) -> Any:
        """The first rows of the native table."""

    def _row_label(self, row: int) -> str:
        return f"row {row}"

    def _positions(self, wanted: tuple[Hashable, ...]) -> list[int]:
        return positions_of(wanted, self.names or (), self._argument, "instrument")

    def _set_dates(self, dates: tuple[Dates, bool]) -> None:
        self.dates, self.is_utc = dates
        check_ascending(self.dates, self._argument)


def date_column(found: Sequence[Hashable], argument: str, *, optional: bool) -> bool:
    """Whether there is one column of dates; several are an error unless nobody needs them."""
    if len(found) > 1 and not optional:
        raise ValueError(
            f"{argument}: {len(found)} columns hold dates ({listed(found)}), "
            f"name the one to use with date="
        )
    return len(found) == 1
