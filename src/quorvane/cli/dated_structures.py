"""Structures that change on given dates, from rows of a date, a key, an instrument and a weight."""

from __future__ import annotations

import math
from array import array
from collections.abc import Sequence
from pathlib import Path

import numpy as np
from numpy.typing import NDArray

from quorvane.baskets.dated import book_of_rows
from quorvane.baskets.listing import Book
from quorvane.cli.csv_rows import MISSING
from quorvane.cli.day_labels import looks_like_date, moments_of
from quorvane.cli.errors import DataError, did_you_mean, shown
from quorvane.cli.limits import MAX_LEGS, MAX_STRUCTURES, check_name_length
from quorvane.cli.named_rows import NamedRows
from quorvane.cli.structure_columns import StructureColumns, leg_weight
from quorvane.tables import LongTable


def read_dated(
    path: Path,
    rows: NamedRows,
    columns: StructureColumns,
    instruments: Sequence[str],
    *,
    complete: bool,
) -> Book:
    """The book of the rows, which may stand in any order.

    As in `quorvane.Baskets.from_long`: each date is the complete list of structures from the first
    day on or after it until the next, or what changes; a weight that is missing or 0 is no leg.

    Raises
    ------
    DataError
        A cell does not hold what it must, a leg comes twice for a date, or there is no structure.
    """
    legs = _Legs(instruments)
    for row in rows:
        cells = row[columns.date or 0], row[columns.key], row[columns.instrument]
        legs.add(rows, *cells, row[columns.weight])
    if not legs.places:
        raise DataError(f"{path}: no structures, expected one or more")
    first = [rows.place(number) for number in legs.dates.values()]
    moments = moments_of(tuple(legs.dates), first.__getitem__)
    long = LongTable(
        rows=len(legs.places),
        dates=moments.nanoseconds(first.__getitem__)[_integers(legs.date_of)],
        is_utc=moments.is_utc,
        codes={"key": _integers(legs.key_of), "instrument": _integers(legs.instrument_of)},
        values_of={"key": tuple(legs.keys), "instrument": tuple(instruments)},
        numbers=np.frombuffer(legs.weights),
    )
    _refuse_repeated(rows, legs, long)
    try:
        return book_of_rows(long, "key", "instrument", complete=complete, instruments=instruments)
    except ValueError as error:
        raise DataError(f"{path}: {error}") from error


class _Legs:
    """The rows as numbers of dates, keys and instruments; ``places`` says where each stands."""

    def __init__(self, instruments: Sequence[str]) -> None:
        self._columns = {name: number for number, name in enumerate(instruments)}
        # Of each date the place of the row in which it first comes.
        self.dates: dict[str, int] = {}
        self._date_numbers: dict[str, int] = {}
        self.keys: dict[str, int] = {}
        self.date_of, self.key_of, self.instrument_of = array("q"), array("q"), array("q")
        self.weights, self.places = array("d"), array("q")

    def add(self, rows: NamedRows, date: str, key: str, instrument: str, weight: str) -> None:
        """Take one row; DataError for a cell that does not hold what it must."""
        if date not in self.dates:
            self._admit_date(rows, date)
        if key not in self.keys:
            self._admit_key(rows, key)
        column = self._columns.get(instrument)
        if column is None:
            raise DataError(
                f"{rows}: unknown instrument {shown(instrument)}, expected one of the table's "
                f"columns{did_you_mean(instrument, self._columns.keys())}"
            )
        number = math.nan if weight in MISSING else leg_weight(rows, weight)
        if math.isinf(number):
            raise DataError(f"{rows}: weight of {shown(instrument)} must be finite, got {number!r}")
        if len(self.places) >= MAX_LEGS:
            raise DataError(f"{rows}: more than {MAX_LEGS} legs")
        self.date_of.append(self._date_numbers[date])
        self.key_of.append(self.keys[key])
        self.instrument_of.append(column)
        self.weights.append(number)
        self.places.append(rows.number)

    def _admit_date(self, rows: NamedRows, date: str) -> None:
        check_name_length(rows, "a date", len(date))
        if not looks_like_date(date):
            raise DataError(f"{rows}: expected a date such as 2000-01-31, got {shown(date)}")
        self._date_numbers[date] = len(self.dates)
        self.dates[date] = rows.number

    def _admit_key(self, rows: NamedRows, key: str) -> None:
        if not key:
            raise DataError(f"{rows}: empty key, expected a structure's name")
        check_name_length(rows, "a key", len(key))
        if len(self.keys) >= MAX_STRUCTURES:
            raise DataError(f"{rows}: more than {MAX_STRUCTURES} structures")
        self.keys[key] = len(self.keys)


def _refuse_repeated(rows: NamedRows, legs: _Legs, long: LongTable) -> None:
    """Raise DataError with the place of the first leg that comes again."""
    columns = [long.codes["instrument"], long.codes["key"], long.dates]
    order = np.lexsort([np.asarray(column) for column in columns])
    same = np.ones(max(len(order) - 1, 0), dtype=np.bool_)
    for column in columns:
        ordered = np.asarray(column)[order]
        same &= ordered[1:] == ordered[:-1]
    if same.any():
        # Of equal rows lexsort keeps the order.
        row = int(order[1:][same].min())
        key = long.values_of["key"][legs.key_of[row]]
        instrument = long.values_of["instrument"][legs.instrument_of[row]]
        raise DataError(
            f"{rows.place(legs.places[row])}: structure {shown(key)} names instrument "
            f"{shown(instrument)} twice on one date"
        )


def _integers(numbers: array[int]) -> NDArray[np.int64]:
    return np.frombuffer(numbers, dtype=np.int64)
