"""Days without names, told by their numbers."""

from __future__ import annotations

from collections.abc import Iterator
from functools import cached_property
from itertools import islice

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
        # What rounding makes of a zero, by column.
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
        places = self._begins_with(rows)
        self._refuse_elsewhere(rows, len(places))
        return places

    def _begins_with(self, rows: Floats) -> Positions:
        """The places of the leading rows; none where the first is no row of the training."""
        size = len(self.numbers)
        if len(rows) >= size and self._fits(rows, 0):
            return np.arange(size)
        first = _first_telling(rows)
        if first is None:
            return np.arange(0)
        fitting = (start for start in self._starts(rows, first) if self._fits(rows, start))
        aligned = list(islice(fitting, 2))
        if not aligned:
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

    def _starts(self, rows: Floats, first: int) -> list[int]:
        """Where in the training rows may begin, by some of them from the first telling one on."""
        starts = self._places(rows[first], self.numbers) - first
        starts = starts[starts >= 0]
        for row in range(first + 1, min(first + _LOOKED_AT, len(rows))):
            if len(starts) < 2:
                break
            # Behind the training's end there is nothing to differ from.
            differs = starts + row < len(self.numbers)
            there = self.numbers[starts[differs] + row]
            differs[differs] = ~self.are_same(there, rows[row]).all(axis=1)
            starts = starts[~differs]
        return [int(start) for start in starts]

    def _fits(self, rows: Floats, start: int) -> bool:
        """Whether the rows are those of the training from there, up to the end of either."""
        there = self.numbers[start : start + len(rows)]
        rows = rows[: len(there)]
        return bool(self.are_same(rows[:1], there[:1]).all() and self.are_same(rows, there).all())

    def _tell(self, rows: Floats) -> bool:
        """Whether rows of the training with these numbers can be no others."""
        return bool(np.count_nonzero(_telling(rows)) >= 2) and self._are_distinct

    @cached_property
    def _are_distinct(self) -> bool:
        """Whether no two rows of the training that say something are alike."""
        return len(self._known) == np.count_nonzero(_telling(self.numbers).any(axis=1))

    @cached_property
    def _known(self) -> set[bytes]:
        """The rows of the training that say something."""
        return set(_as_bytes(self.numbers[_telling(self.numbers).any(axis=1)]))

    def _refuse_elsewhere(self, rows: Floats, start: int) -> None:
        """Raise ValueError where rows of the training are among those that are to be later ones.

        Looked for are all of these to the bit, and up to rounding the first and the last of them in
        the training and the training's first.
        """
        later = rows[start:]
        first, own = _first_telling(later), _first_telling(self.numbers)
        if first is None or own is None:
            return
        last = len(later) - 1 - (_first_telling(later[::-1]) or 0)
        found = {row for row in (first, last) if len(self._places(later[row], self.numbers))}
        found.update(self._places(self.numbers[own], later).tolist())
        if self._are_distinct:
            known = self._known
            found.update(row for row, each in enumerate(_as_bytes(later)) if each in known)
        for row in sorted(found):
            if self._tell(later[row : row + 1]):
                raise ValueError(
                    f"X: row {start + row} is a row of the training, but the rows around it are "
                    f"others: allowed are all rows of the training or a part in their order, and "
                    f"behind its last row later ones; {_WAY_ON}"
                )


_WAY_ON = "an index of dates would tell the days"


def _magnitudes(rows: Floats) -> Floats:
    """The (lower) median magnitude of each column's numbers, 0 for one without any."""
    ordered = np.sort(np.abs(rows), axis=0)
    counts = np.count_nonzero(~np.isnan(rows), axis=0)
    middle = ordered[np.maximum(counts - 1, 0) // 2, np.arange(rows.shape[1])]
    return np.where(counts > 0, middle, 0.0)


def _as_bytes(rows: Floats) -> Iterator[bytes]:
    """Each row, as bytes that are the same where the numbers are."""
    plain = rows + 0.0
    plain[np.isnan(plain)] = np.nan
    return map(bytes, np.ascontiguousarray(plain))


def _telling(rows: Floats) -> NDArray[np.bool_]:
    """Numbers that say something of a day: neither missing nor zero."""
    return np.asarray(~np.isnan(rows) & (rows != 0.0))


def _first_telling(rows: Floats) -> int | None:
    """The first row with a telling number; nearly always one of the first."""
    for some, start in ((rows[:_LOOKED_AT], 0), (rows[_LOOKED_AT:], _LOOKED_AT)):
        found = np.flatnonzero(_telling(some).any(axis=1))
        if len(found):
            return start + int(found[0])
    return None
