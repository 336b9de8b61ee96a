"""Structures files: keyed, weighted legs over named instruments, as TOML, CSV or Parquet."""

from __future__ import annotations

import math
import tomllib
from collections.abc import Sequence
from dataclasses import dataclass, field
from functools import cached_property
from pathlib import Path
from typing import Any

from quorvane.baskets.listing import Book
from quorvane.baskets.weights import listing_of
from quorvane.cli.csv_rows import reporting_faults
from quorvane.cli.dated_structures import read_dated
from quorvane.cli.errors import DataError, did_you_mean, reason, shown
from quorvane.cli.files import check_readable, ending_of
from quorvane.cli.limits import MAX_LEGS, MAX_STRUCTURES, check_name_length
from quorvane.cli.named_rows import NamedRows, named_rows, whole_file
from quorvane.cli.structure_columns import StructureColumns, leg_weight

STRUCTURE_ENDINGS = (".toml", ".csv", ".parquet")

Structures = dict[str, dict[str, float]]
"""Key to legs, legs from instrument to weight, all in the file's order."""


@dataclass(frozen=True)
class StructureBook:
    """What a structures file says.

    Attributes
    ----------
    book : Book
        The structures over the table's instruments, with the dates from which they hold.
    taken : tuple of str
        What was not as in the usual file.
    """

    book: Book
    taken: tuple[str, ...] = ()

    @property
    def keys(self) -> tuple[str, ...]:
        """All structures, in the order in which they are first listed."""
        return tuple(str(key) for key in self.book.baskets)

    @cached_property
    def latest(self) -> Structures:
        """Each structure with the legs that it had last."""
        names = self.book.instruments
        latest: Structures = {key: {} for key in self.keys}
        for listing in self.book.listings:
            ends = zip(listing.baskets, listing.offsets[:-1], listing.offsets[1:], strict=True)
            for key, first, last in ends:
                legs = zip(listing.leg_ids[first:last], listing.weights[first:last], strict=True)
                latest[str(key)] = {str(names[i]): float(weight) for i, weight in legs}
        return latest


def read_structures(
    path: Path, instruments: Sequence[str], *, changes_only: bool = False
) -> StructureBook:
    """Read a structures file and check it against the table's instruments.

    A file with a column of dates holds the complete list of structures from each date on, or with
    ``changes_only`` what changes on it.
    """
    ending = ending_of(path, STRUCTURE_ENDINGS, "a structures file")
    check_readable(path, "a structures file")
    builder = _Builder(path, frozenset(instruments))
    taken: tuple[str, ...] = ()
    if ending == ".toml":
        with reporting_faults(path):
            _read_toml(whole_file(path).decode("utf-8-sig"), builder)
    else:
        with named_rows(path, "a structures file") as rows:
            columns = StructureColumns.of(rows)
            if columns.date is not None:
                book = read_dated(path, rows, columns, instruments, complete=not changes_only)
                return StructureBook(book, rows.notes)
            taken = rows.notes
            _read_fixed(rows, columns, builder)
    if changes_only:
        raise DataError(f"{path}: --changes-only is for structures with dates, it has none")
    if not builder.structures:
        raise DataError(f"{path}: no structures, expected one or more")
    return StructureBook(fixed_book(builder.structures, instruments), taken)


def fixed_book(structures: Structures, instruments: Sequence[str]) -> Book:
    """The book of structures that stay the same; a leg of weight 0 is one, too."""
    column_of = {name: column for column, name in enumerate(instruments)}
    return Book(tuple(instruments), (listing_of(structures, column_of),))


@dataclass
class _Builder:
    """Collects legs and holds the rules that both formats share; ``where`` names the place."""

    path: Path
    instruments: frozenset[str]
    structures: Structures = field(default_factory=dict)
    legs: int = 0

    def begin(self, where: object, key: str) -> None:
        if not key:
            raise DataError(f"{where}: empty key, expected a structure's name")
        check_name_length(where, "a key", len(key))
        if key in self.structures:
            raise DataError(f"{where}: duplicate key {shown(key)}, expected each key once")
        if len(self.structures) >= MAX_STRUCTURES:
            raise DataError(f"{where}: more than {MAX_STRUCTURES} structures")
        self.structures[key] = {}

    def add_leg(self, where: object, key: str, instrument: str, weight: float) -> None:
        legs = self.structures[key]
        if instrument not in self.instruments:
            raise DataError(
                f"{where}: unknown instrument {shown(instrument)}, expected one of the table's "
                f"columns{did_you_mean(instrument, self.instruments)}"
            )
        if instrument in legs:
            raise DataError(
                f"{where}: structure {shown(key)} names instrument {shown(instrument)} twice"
            )
        if not math.isfinite(weight):
            raise DataError(
                f"{where}: weight of {shown(instrument)} must be finite, got {weight!r}"
            )
        self.legs += 1
        if self.legs > MAX_LEGS:
            raise DataError(f"{where}: more than {MAX_LEGS} legs")
        legs[instrument] = weight


def _read_toml(text: str, builder: _Builder) -> None:
    """Every table at the top level is a structure: instrument = weight."""
    for key, legs in _parse_toml(builder.path, text).items():
        where = f"{builder.path}, structure {shown(key)}"
        if not isinstance(legs, dict):
            raise DataError(f"{where}: expected a table of instrument = weight, got {shown(legs)}")
        if not legs:
            raise DataError(f"{where}: no legs, expected instrument = weight")
        builder.begin(where, key)
        for instrument, weight in legs.items():
            builder.add_leg(where, key, instrument, _toml_weight(where, instrument, weight))


def _parse_toml(path: Path, text: str) -> dict[str, Any]:
    try:
        loaded: dict[str, Any] = tomllib.loads(text)
    except tomllib.TOMLDecodeError as error:
        # The parser reports a repeated table as declared twice, a repeated key as overwritten.
        repeated = any(sign in str(error) for sign in ("twice", "overwrite"))
        what = "duplicate key" if repeated else "not valid TOML"
        raise DataError(f"{path}: {what}: {reason(error)}") from error
    except RecursionError as error:
        raise DataError(f"{path}: not readable TOML: tables or arrays nest too deep") from error
    except ValueError as error:  # An impossible date, or an integer of thousands of digits.
        raise DataError(f"{path}: not readable TOML: {reason(error)}") from error
    return loaded


def _toml_weight(where: str, instrument: str, weight: Any) -> float:
    if isinstance(weight, dict):
        raise DataError(
            f"{where}: weight of {shown(instrument)} must be a number, got a table; "
            f"a name that holds a dot must stand in quotes"
        )
    if isinstance(weight, bool) or not isinstance(weight, (int, float)):
        raise DataError(
            f"{where}: weight of {shown(instrument)} must be a number, got {shown(weight)}"
        )
    try:
        return float(weight)
    except OverflowError:
        return math.inf


def _read_fixed(rows: NamedRows, columns: StructureColumns, builder: _Builder) -> None:
    """One leg per row; a key's rows stand together."""
    last_key: str | None = None
    for row in rows:
        key = row[columns.key]
        if key != last_key:
            builder.begin(rows, key)
            last_key = key
        weight = leg_weight(rows, row[columns.weight])
        builder.add_leg(rows, key, row[columns.instrument], weight)
