"""What one labelled day does, whichever library it comes from."""

from __future__ import annotations

from abc import ABC, abstractmethod
from collections.abc import Hashable, Sequence
from typing import Any

import numpy as np
from numpy.typing import ArrayLike

from quorvane.tables.dates import date_text
from quorvane.tables.names import positions_of
from quorvane.tables.numbers import (
    Floats,
    check_finite,
    check_used,
    checked_result,
    has_infinity,
    spread,
)


class Row(ABC):
    """One day of instruments, with the labels that results get back.

    Attributes
    ----------
    kind : str
        "array", "pandas", "polars", "pyarrow" or "mapping".
    names : tuple or None
        The instruments in order; None for an array.
    date : numpy.datetime64 or None
        The day in nanoseconds, if it is known.
    is_utc : bool
        Whether the date knew its time zone, and is in UTC here.
    """

    kind: str
    names: tuple[Hashable, ...] | None

    def __init__(self, native: Any, argument: str) -> None:
        self._native = native
        self._argument = argument
        self.date: np.datetime64 | None = None
        self.is_utc = False

    @property
    def label(self) -> str:
        """What messages call the day: its date, else "the row"."""
        return "the row" if self.date is None else date_text(self.date, self.is_utc)

    def vector(self, instruments: Sequence[Hashable], *, used: ArrayLike | None = None) -> Floats:
        """The instruments' numbers as float64, NaN where missing; as `Table.matrix` has them."""
        wanted = tuple(instruments)
        check_used(used, len(wanted))
        values = self._read(self._positions(wanted), wanted)
        if has_infinity(values[None]):
            check_finite(values[None], wanted, used, self._argument, lambda _: self.label)
        return values

    def fill(self, vector: ArrayLike, instruments: Sequence[Hashable]) -> Any:
        """A row of the kind given with the vector's numbers; as `Table.fill` has them."""
        wanted = tuple(instruments)
        values = checked_result(vector, (len(wanted),), "vector")
        positions = self._positions(wanted)
        width = len(wanted) if self.names is None else len(self.names)
        return self._write(spread(values, positions, width), None)

    def of_columns(self, vector: ArrayLike, names: Sequence[Hashable]) -> Any:
        """A row of the kind given with these names and the vector's numbers."""
        return self._write(checked_result(vector, (len(names),), "vector"), tuple(names))

    @abstractmethod
    def _read(self, positions: list[int], wanted: tuple[Hashable, ...]) -> Floats:
        """The numbers at these positions of `names`."""

    @abstractmethod
    def _write(self, vector: Floats, names: tuple[Hashable, ...] | None) -> Any:
        """A native row of these names; of its own names where ``names`` is None."""

    def _positions(self, wanted: tuple[Hashable, ...]) -> list[int]:
        return positions_of(wanted, self.names or (), self._argument, "instrument")

    @property
    def _what(self) -> str:
        return self._argument if self.date is None else f"{self._argument} of {self.label}"
