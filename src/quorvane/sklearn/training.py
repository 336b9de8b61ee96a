"""What a transformer keeps of its training: the days, their numbers and outputs, the state."""

from __future__ import annotations

from collections.abc import Callable, Hashable
from dataclasses import dataclass
from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane.baskets import Baskets
from quorvane.baskets.course import Level
from quorvane.baskets.standing import Standing
from quorvane.baskets.waypoint import Waypoint
from quorvane.sklearn.labels import Labels, labels_of
from quorvane.sklearn.same_rows import TrainingRows
from quorvane.tables import Table
from quorvane.tables.arrays import ArrayTable
from quorvane.tables.numbers import spread

Floats = NDArray[np.float64]
Positions = NDArray[np.intp]


@dataclass(frozen=True)
class Training:
    """Nothing in it changes any more.

    Attributes
    ----------
    level : str
        What the outputs are of: "instrument" or "basket".
    names : tuple or None
        The columns of the table without the one of dates; None for an array.
    positions : list of int
        Where among the columns each instrument of the baskets is.
    width : int
        How many columns there are.
    date_at : int or None
        Where the column of dates was.
    labels : Labels or None
        The days' names.
    rows : TrainingRows
        The numbers of the instruments that are in baskets.
    outputs : ndarray
        Days x instruments of the baskets, or days x baskets.
    end : Waypoint
        The baskets after the last day.
    """

    level: Level
    names: tuple[Hashable, ...] | None
    positions: list[int]
    width: int
    date_at: int | None
    labels: Labels | None
    rows: TrainingRows
    outputs: Floats
    end: Waypoint

    @classmethod
    def of(cls, baskets: Baskets, table: Table, native: Any, level: Level) -> Training:
        """Run the baskets over the table.

        Raises
        ------
        TypeError, ValueError
            As `Baskets.run` does; and the table has no days, or days in no order.
        """
        if table.rows == 0:
            raise ValueError("X has no rows, at least one day is needed to fit")
        labels = labels_of(table, native)
        book = baskets._book_for(table)
        numbers = table.matrix(book.instruments, used=book.used)
        days = _days(table, numbers, 0)
        outputs = baskets._advance(baskets._new_course(book), Standing(), days, level)
        return cls(
            level=level,
            names=table.names,
            positions=table._positions(book.instruments),
            width=table.width,
            date_at=_date_at(table, native),
            labels=labels,
            rows=TrainingRows(_kept(numbers, book.used)),
            outputs=outputs,
            end=Waypoint.of(baskets),
        )

    def given(self) -> Floats:
        """The outputs of the training's days, as a table of their own."""
        return self._as_table(self.outputs.copy())

    def outputs_of(self, table: Table, native: Any) -> Floats:
        """The outputs of some days: what they gave, and of later ones what comes from going on.

        Raises
        ------
        TypeError, ValueError
            As `Baskets.update` does; and a day is neither of the training nor after it, cannot be
            told, or has other numbers than it had.
        """
        numbers = self._numbers_of(table)
        book = self.end.apart._book
        assert book is not None
        known = self._leading(table, native, _chosen(numbers, book.used))
        given = self.outputs[known]
        if len(known) < table.rows:
            days = _days(table, numbers, len(known))
            baskets = self.end.baskets()
            assert baskets._course is not None
            later = baskets._advance(baskets._course, baskets._standing, days, self.level)
            given = np.concatenate([given, later]) if len(given) else later
        return self._as_table(given)

    def _numbers_of(self, table: Table) -> Floats:
        """The numbers in the order of the baskets' instruments."""
        book = self.end.apart._book
        assert book is not None
        if table.names is None and self.names is not None:
            # By the order of the training's columns, which an array must have.
            return table.matrix(self.names, used=self._used())[:, self.positions]
        if table.names is not None and self.names is None and self.end.apart._is_open:
            return table.matrix(table.names)
        if table.names is not None and self.names is not None and table.names != self.names:
            raise ValueError(
                f"X: its columns are {list(table.names)[:10]}, those of the training were "
                f"{list(self.names)[:10]}, and in this order"
            )
        return table.matrix(book.instruments, used=book.used)

    def _used(self) -> NDArray[np.bool_]:
        """Whether each column is an instrument of a basket."""
        book = self.end.apart._book
        assert book is not None
        used = np.zeros(self.width, dtype=bool)
        used[np.array(self.positions)[book.used]] = True
        return used

    def _leading(self, table: Table, native: Any, numbers: Floats) -> Positions:
        """The places in the training of the leading days; the others come after."""
        if table.rows == 0:
            return np.arange(0)
        labels = labels_of(table, native)
        if labels is None or self.labels is None or not labels.says_what(self.labels):
            return self.rows.leading(numbers)
        places = labels.leading(self.labels, table.label)
        self._refuse_other_numbers(
            numbers[: len(places)], places, lambda row: labels.text(row, table.label)
        )
        return places

    def _refuse_other_numbers(
        self, numbers: Floats, places: Positions, label: Callable[[int], str]
    ) -> None:
        there = self.rows.numbers[places]
        same = self.rows.are_same(numbers, there)
        if same.all():
            return
        row, column = (int(i) for i in np.argwhere(~same)[0])
        book = self.end.apart._book
        assert book is not None
        name = book.instruments[int(np.flatnonzero(book.used)[column])]
        raise ValueError(
            f"X: {label(row)} is a day of the training, where {name!r} had "
            f"{there[row, column]} and not {numbers[row, column]}: fit again; or give later days "
            f"later names, if they are meant as such"
        )

    def _as_table(self, outputs: Floats) -> Floats:
        """The columns that the table has, missing where one is no instrument."""
        if self.level == "basket":
            return outputs
        return spread(outputs, self.positions, self.width)


def _chosen(numbers: Floats, used: NDArray[np.bool_]) -> Floats:
    return numbers if used.all() else numbers[:, used]


def _kept(numbers: Floats, used: NDArray[np.bool_]) -> Floats:
    """The columns in use as an array of their own: the table's owner may write to the table's."""
    chosen = _chosen(numbers, used)
    return chosen.copy() if chosen is numbers else chosen


def _date_at(table: Table, native: Any) -> int | None:
    """The position of the column that is not among the table's names; None where there is none."""
    if table.names is None:
        return None
    columns = native.column_names if table.kind == "pyarrow" else native.columns
    if len(columns) == len(table.names):
        return None
    pairs = enumerate(zip(columns, table.names, strict=False))
    return next((i for i, (column, name) in pairs if column != name), len(table.names))


def _days(table: Table, numbers: Floats, first: int) -> ArrayTable:
    """The days from one on, as a table of the numbers with the dates that they have."""
    days = ArrayTable(numbers[first:], None, "X")
    days.kind, days.is_utc = table.kind, table.is_utc
    days.dates = None if table.dates is None else table.dates[first:]
    return days
