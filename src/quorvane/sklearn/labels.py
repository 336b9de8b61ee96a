"""Days by their names: dates, numbers and times that ascend, or any other index."""

from __future__ import annotations

from collections.abc import Callable, Hashable
from dataclasses import dataclass
from typing import Any, Literal

import numpy as np
from numpy.typing import NDArray

from quorvane.tables import Table
from quorvane.tables.dates import dates_of

Positions = NDArray[np.intp]
Sort = Literal["dates", "dates with a time zone", "elapsed times", "numbers", "names"]


@dataclass(frozen=True)
class Labels:
    """A name for each day.

    Attributes
    ----------
    sort : str
        All but names ascend, which is the order of time.
    keys : ndarray or tuple
        Dates are nanoseconds.
    is_plain : bool
        Whether they are 0, 1, 2, ..., what an index is that nobody has given.
    """

    sort: Sort
    keys: NDArray[Any] | tuple[Hashable, ...]
    is_plain: bool = False

    def says_what(self, other: Labels) -> bool:
        """Whether the two tell which days of one are days of the other.

        Raises
        ------
        ValueError
            They are of different sorts.
        """
        if self.is_plain and (other.is_plain or other.sort != "numbers"):
            return False
        if other.is_plain and self.sort != "numbers":
            return False
        if self.sort != other.sort:
            raise ValueError(
                f"X: its days are {self.sort}, those of the training were {other.sort}"
            )
        return True

    def leading(self, training: Labels, label: Callable[[int], str]) -> Positions:
        """The places in the training of the leading days; the others come after all of it.

        Raises
        ------
        ValueError
            A day that was not trained on comes before one that was.
        """
        places = self._places(training)
        new = np.flatnonzero(places < 0)
        if len(new) == 0:
            return places
        first = int(new[0])
        comes_before = bool((places[first:] >= 0).any())
        if not isinstance(self.keys, tuple) and not isinstance(training.keys, tuple):
            comes_before = comes_before or bool(self.keys[first] < training.keys[-1])
        if comes_before:
            raise ValueError(
                f"X: {self.text(first, label)} is not among the days of the training, and comes "
                f"before the last of them; allowed are days of the training and, behind them, "
                f"later ones"
            )
        return places[:first]

    def text(self, row: int, label: Callable[[int], str]) -> str:
        """What messages call a day: a plain index has no label in tables."""
        return f"day {self.keys[row]}" if self.sort == "numbers" else label(row)

    def _places(self, training: Labels) -> Positions:
        """The place of each day in the training, -1 for one that is not there."""
        if isinstance(self.keys, tuple) or isinstance(training.keys, tuple):
            place = {key: i for i, key in enumerate(training.keys)}
            return np.array([place.get(key, -1) for key in self.keys], dtype=np.intp)
        places = np.searchsorted(training.keys, self.keys)
        inside = np.minimum(places, len(training.keys) - 1)
        return np.where(training.keys[inside] == self.keys, inside, -1)


def labels_of(table: Table, native: Any) -> Labels | None:
    """The names of a table's days; None where they have none.

    Raises
    ------
    ValueError
        An index of numbers does not ascend, or one of names has a name twice.
    """
    if table.dates is not None:
        return _dates(table.dates, table.is_utc)
    if table.kind != "pandas":
        return None
    index = _as_it_is_meant(native.index)
    if index.dtype.kind == "M":
        is_utc = index.tz is not None
        dates = (index.tz_convert(None) if is_utc else index).to_numpy(dtype="datetime64[ns]")
        return _ascending(_dates(dates, is_utc), table)
    if index.dtype.kind == "m":
        return _ascending(Labels("elapsed times", index.to_numpy()), table)
    if index.nlevels == 1 and index.dtype.kind in "iuf":
        return _numbers(index.to_numpy(), table)
    read = _dates_as_text(index)
    if read is not None:
        return _ascending(read, table)
    if not index.is_unique:
        row = int(np.argmax(index.duplicated()))
        raise ValueError(f"X: its index has {table.label(row)} twice; each day needs a name")
    return Labels("names", tuple(index.tolist()))


def _as_it_is_meant(index: Any) -> Any:
    """An index whose dates or numbers are kept as categories or as objects, as these."""
    if index.nlevels > 1:
        return index
    if hasattr(index, "categories"):
        index = index.astype(index.categories.dtype)
    return index.infer_objects()


def _numbers(keys: NDArray[Any], table: Table) -> Labels:
    is_plain = keys.dtype.kind in "iu" and np.array_equal(keys, np.arange(len(keys)))
    return _ascending(Labels("numbers", keys, is_plain), table)


def _dates(dates: NDArray[np.datetime64], is_utc: bool) -> Labels:
    return Labels("dates with a time zone" if is_utc else "dates", dates.astype(np.int64))


def _dates_as_text(index: Any) -> Labels | None:
    """Dates that were read from a file as text; None for anything else."""
    if index.nlevels > 1 or not len(index):
        return None
    values = index.tolist()
    if not all(isinstance(value, str) for value in values):
        return None
    try:
        return _dates(*dates_of(values, str))
    except ValueError:
        return None


def _ascending(labels: Labels, table: Table) -> Labels:
    """The labels, if each is later than the one before it."""
    assert not isinstance(labels.keys, tuple)
    late = ~(labels.keys[1:] > labels.keys[:-1])
    if late.any():
        row = int(late.argmax())
        before, after = (labels.text(i, table.label) for i in (row, row + 1))
        raise ValueError(
            f"X: {after} stands behind {before}, days must be in the order of time: an index "
            f"that ascends, and shuffle=False where days are split"
        )
    return labels
