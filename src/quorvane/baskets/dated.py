"""Baskets from a long table, with a row for each leg: dated ones, or fixed ones."""

from __future__ import annotations

from collections.abc import Hashable, Iterable, Sequence
from dataclasses import dataclass
from itertools import pairwise
from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane.baskets.listing import NO_BASKETS, Book, Listing
from quorvane.baskets.weights import instrument_names
from quorvane.tables import LongTable, date_text, read_long

Integers = NDArray[np.int64]


@dataclass(frozen=True)
class LongColumns:
    """What the columns of a long table are called; baskets stay the same without a date."""

    date: str | None
    basket: str
    instrument: str
    weight: str


def long_book(
    table: Any, columns: LongColumns, *, complete: bool, instruments: Iterable[Hashable] | None
) -> Book:
    """The book of a long table.

    Raises
    ------
    TypeError
        The table is of another kind, or a column does not hold what it must.
    ValueError
        A column is missing, a (date, basket, instrument) comes twice, or there is no basket.
    """
    keys = [columns.basket, columns.instrument]
    rows = read_long(table, date=columns.date, keys=keys, number=columns.weight)
    return book_of_rows(rows, *keys, complete=complete, instruments=instruments)


def book_of_rows(
    rows: LongTable,
    basket: str,
    instrument: str,
    *,
    complete: bool,
    instruments: Iterable[Hashable] | None,
) -> Book:
    """The book of rows that were read, whose keys are ``basket`` and ``instrument``.

    Raises
    ------
    ValueError
        A (date, basket, instrument) comes twice, or there is no basket.
    """
    legs = _Legs(rows, basket, instrument, ())
    names = instrument_names(instruments, legs.mentioned())
    listings = legs.listings(names, complete=complete or rows.dates is None)
    if not any(listing.baskets for listing in listings):
        raise ValueError("table must hold at least one basket with a weight that is not 0")
    if rows.dates is None:
        return Book(names, (listings[0],))
    return Book(names, tuple(listings), legs.dates, legs.is_utc)


def extended(book: Book, table: Any, columns: LongColumns, *, complete: bool) -> Book:
    """The book with the listings of a table of later dates behind its own.

    Raises
    ------
    TypeError, ValueError
        As long_book does; and a date is not after those of the book.
    """
    legs = _Legs.of(table, columns, book.baskets)
    own = book.dates
    assert own is not None
    if legs.is_utc != book.is_utc:
        raise ValueError("table: its dates and those of the baskets differ in knowing a time zone")
    if len(legs.dates) == 0:
        return book
    if legs.dates[0] <= own[-1]:
        raise ValueError(
            f"table: dates must come after {date_text(own[-1])}, the last one of the baskets, "
            f"got {date_text(legs.dates[0])}"
        )
    names = tuple(dict.fromkeys([*book.instruments, *legs.mentioned()]))
    later = legs.listings(names, complete=complete, before=book.listings[-1])
    return Book(names, (*book.listings, *later), np.concatenate([own, legs.dates]), book.is_utc)


class _Legs:
    """The rows in the order of dates, within a date by baskets as they first come in the table."""

    @classmethod
    def of(cls, table: Any, columns: LongColumns, before: Sequence[Hashable] = ()) -> _Legs:
        keys = [columns.basket, columns.instrument]
        rows = read_long(table, date=columns.date, keys=keys, number=columns.weight)
        return cls(rows, columns.basket, columns.instrument, before)

    def __init__(
        self, rows: LongTable, basket: str, instrument: str, before: Sequence[Hashable]
    ) -> None:
        self.is_utc = rows.is_utc
        day_of_row = np.zeros(len(rows.numbers), np.int64)
        self.dates = np.empty(0, "datetime64[ns]")
        if rows.dates is not None:
            self.dates, day_of_row = np.unique(rows.dates, return_inverse=True)
        ranks = _ranks(rows.codes[basket], day_of_row, rows.values_of[basket], before)
        order = np.lexsort((ranks, day_of_row))
        self._day = day_of_row[order]
        self._basket = np.asarray(rows.codes[basket], np.int64)[order]
        self._instrument = np.asarray(rows.codes[instrument], np.int64)[order]
        self._weight = np.asarray(rows.numbers, np.float64)[order]
        self._baskets = rows.values_of[basket]
        self._instruments = rows.values_of[instrument]
        self._refuse_repeated(basket, instrument)
        self._is_leg = ~np.isnan(self._weight) & (self._weight != 0.0)
        self._ids = self._instrument

    def mentioned(self) -> list[Hashable]:
        """The instruments of all legs, in the order in which they first come by date."""
        codes = self._instrument[self._is_leg]
        _, first = np.unique(codes, return_index=True)
        return [self._instruments[code] for code in codes[np.sort(first)].tolist()]

    def listings(
        self, names: tuple[Hashable, ...], *, complete: bool, before: Listing = NO_BASKETS
    ) -> list[Listing]:
        """A listing for each date, instrument i being ``names[i]``.

        Of a date's rows alone where they are complete; else a basket keeps its legs until its own
        next date, those ``before`` as well.
        """
        number_of = {name: i for i, name in enumerate(names)}
        numbers = [number_of.get(name, -1) for name in self._instruments]
        self._ids = np.array(numbers, dtype=np.int64)[self._instrument]
        days = self._rows_of_days()
        if complete:
            return [self._listing_of(first, last) for first, last in days]
        listings = []
        for first, last in days:
            named = {self._baskets[code] for code in set(self._basket[first:last].tolist())}
            kept = before.part(np.array([b not in named for b in before.baskets], dtype=bool))
            before = joined([kept, self._listing_of(first, last)])
            listings.append(before)
        return listings

    def _rows_of_days(self) -> Iterable[tuple[int, int]]:
        days = max(len(self.dates), 1)
        bounds = np.searchsorted(self._day, np.arange(days + 1)).tolist()
        return pairwise(bounds)

    def _listing_of(self, first: int, last: int) -> Listing:
        chosen = np.flatnonzero(self._is_leg[first:last]) + first
        codes = self._basket[chosen]
        starts = np.flatnonzero(np.diff(codes, prepend=-1))
        return Listing(
            baskets=tuple(self._baskets[code] for code in codes[starts].tolist()),
            offsets=np.append(starts, len(codes)).astype(np.int64),
            leg_ids=self._ids[chosen],
            weights=self._weight[chosen],
        )

    def _refuse_repeated(self, basket: str, instrument: str) -> None:
        order = np.lexsort((self._instrument, self._basket, self._day))
        same = np.ones(max(len(order) - 1, 0), dtype=bool)
        for column in (self._day, self._basket, self._instrument):
            same &= np.diff(column[order]) == 0
        if not same.any():
            return
        row = order[np.flatnonzero(same)[0]]
        where = f"{basket} {self._baskets[self._basket[row]]!r}, "
        where += f"{instrument} {self._instruments[self._instrument[row]]!r}"
        if len(self.dates):
            where = f"{date_text(self.dates[self._day[row]])}, {where}"
        raise ValueError(f"table: a leg is given more than once: {where}")


def _ranks(
    codes: NDArray[np.intp],
    day_of_row: Integers,
    values: Sequence[Hashable],
    before: Sequence[Hashable],
) -> NDArray[np.intp]:
    """The place of each row's code among all, in the order in which they first come by date.

    Those of the values that came ``before`` have their places already, in front of all others.
    What stands at later dates, or where in the table they stand, changes nothing of it.
    """
    by_date = np.argsort(day_of_row, kind="stable")
    distinct, first = np.unique(np.asarray(codes)[by_date], return_index=True)
    ranks = np.empty(int(distinct[-1]) + 1 if len(distinct) else 0, dtype=np.intp)
    ranks[distinct[np.argsort(first)]] = np.arange(len(distinct)) + len(before)
    if before:
        place = {value: i for i, value in enumerate(before)}
        ranks[distinct] = [place.get(values[code], ranks[code]) for code in distinct.tolist()]
    return ranks[np.asarray(codes)]


def joined(parts: list[Listing]) -> Listing:
    """The baskets of all parts, one after the other."""
    sizes = np.concatenate([np.diff(part.offsets) for part in parts])
    return Listing(
        baskets=tuple(basket for part in parts for basket in part.baskets),
        offsets=np.concatenate([[0], np.cumsum(sizes)]).astype(np.int64),
        leg_ids=np.concatenate([part.leg_ids for part in parts]),
        weights=np.concatenate([part.weights for part in parts]),
    )
