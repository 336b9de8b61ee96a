"""Days without names, told by their numbers."""

from __future__ import annotations

import numpy as np
from numpy.typing import NDArray

Floats = NDArray[np.float64]
Positions = NDArray[np.intp]

# Numbers are the same up to rounding: steps before this one may sum in another order next time.
_RELATIVE = 1e-9
# For those that are nearly zero by cancellation: of the column's usual magnitude.
_ABSOLUTE = 1e-12
# So many rows say what is usual.
_LOOKED_AT = 32


class TrainingRows:
    """The numbers of the training's days, to find them again.

    Parameters
    ----------
    numbers : ndarray of days x instruments
        NaN where missing; none is infinite.
    """

    def __init__(self, numbers: Floats) -> None:
        self.numbers = numbers
        self._rounding = _ABSOLUTE * _magnitudes(numbers[:: len(numbers) // _LOOKED_AT + 1])

    def leading(self, rows: Floats) -> Positions:
        """The places of the leading rows that are rows of the training; the others come after.

        Either the rows begin with all of the training; or with a part of it that lies within it
        or reaches up to its end. A part counts where nothing else can be meant: no two rows of the
        training are alike, and at least two numbers tell it.

        Raises
        ------
        ValueError
            Rows of the training are there in another order or place, or cannot be told from others.
        """
        size = len(self.numbers)
        if len(rows) >= size and self._fits(rows, 0):
            return np.arange(size)
        first = _first_telling(rows)
        if first is None:
            return np.arange(0)
        starts = self._places(rows[first], self.numbers) - first
        aligned = [int(start) for start in starts if start >= 0 and self._fits(rows, int(start))]
        if not aligned:
            self._refuse_elsewhere(rows, first, bool(len(starts)))
            return np.arange(0)
        places = np.arange(aligned[0], min(aligned[0] + len(rows), size))
        if len(aligned) > 1 or not self._tell(self.numbers[places]):
            raise ValueError(
                f"X: its first rows are rows of the training (from row {aligned[0]} on), but may "
                f"be later days with the same numbers; {_WAY_ON}"
            )
        return places

    def are_same(
        self, rows: Floats, others: Floats, columns: int | slice = slice(None)
    ) -> NDArray[np.bool_]:
        """Whether each number of some rows is that of others, both missing or up to rounding."""
        same = (rows == others) | (np.isnan(rows) & np.isnan(others))
        if not same.all():
            with np.errstate(over="ignore", invalid="ignore"):
                bound = _RELATIVE * np.abs(others) + self._rounding[columns]
                same |= np.abs(rows - others) <= bound
        return np.asarray(same)

    def _places(self, row: Floats, rows: Floats) -> Positions:
        """Where among some rows this one is, which has a telling number."""
        # Most rows differ in one number already.
        column = int(np.argmax(_telling(row)))
        near = np.flatnonzero(self.are_same(rows[:, column], row[column], column))
        return near[self.are_same(rows[near], row).all(axis=1)]

    def _fits(self, rows: Floats, start: int) -> bool:
        """Whether the rows are those of the training from there, up to the end of either."""
        there = self.numbers[start : start + len(rows)]
        rows = rows[: len(there)]
        return bool(self.are_same(rows[:1], there[:1]).all() and self.are_same(rows, there).all())

    def _tell(self, rows: Floats) -> bool:
        """Whether rows of the training with these numbers can be no others."""
        if np.count_nonzero(_telling(rows)) < 2:
            return False
        telling = self.numbers[_telling(self.numbers).any(axis=1)] + 0.0
        telling[np.isnan(telling)] = np.nan
        return len({row.tobytes() for row in telling}) == len(telling)

    def _refuse_elsewhere(self, rows: Floats, first: int, is_known: bool) -> None:
        """Raise ValueError where rows of the training are there, but not where they can go on."""
        last = len(rows) - 1 - (_first_telling(rows[::-1]) or 0)
        own = _first_telling(self.numbers)
        found = {first} if is_known else set()
        if len(self._places(rows[last], self.numbers)):
            found.add(last)
        if own is not None:
            found.update(self._places(self.numbers[own], rows).tolist())
        for row in sorted(found):
            if self._tell(rows[row : row + 1]):
                raise ValueError(
                    f"X: row {row} is a row of the training, but the rows around it are others: "
                    f"allowed are all rows of the training or a part in their order, and "
                    f"behind its last row later ones; {_WAY_ON}"
                )


_WAY_ON = "an index of dates would tell the days"


def _magnitudes(rows: Floats) -> Floats:
    """The median magnitude of each column's numbers, 0 for one without any."""
    sizes = np.abs(rows)
    sizes[:, np.isnan(sizes).all(axis=0)] = 0.0
    return np.asarray(np.nanmedian(sizes, axis=0))


def _telling(rows: Floats) -> NDArray[np.bool_]:
    """Numbers that say something of a day: neither missing nor zero."""
    return ~np.isnan(rows) & (rows != 0.0)


def _first_telling(rows: Floats) -> int | None:
    found = np.flatnonzero(_telling(rows).any(axis=1))
    return int(found[0]) if len(found) else None
