"""Structures files: keyed, weighted legs over named instruments, as TOML or CSV."""

from __future__ import annotations

import csv
import math
import sys
from collections.abc import Sequence
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

from quorvane.cli.errors import DataError, did_you_mean
from quorvane.cli.files import check_readable, ending_of
from quorvane.cli.libraries import require_library
from quorvane.cli.limits import MAX_LEGS, MAX_STRUCTURES, MAX_STRUCTURES_FILE_BYTES

STRUCTURE_ENDINGS = (".toml", ".csv")
CSV_HEADER = ["key", "instrument", "weight"]

Structures = dict[str, dict[str, float]]
"""Key to legs, legs from instrument to weight, all in the file's order."""


def read_structures(path: Path, instruments: Sequence[str]) -> Structures:
    """Read a structures file and check it against the table's instruments."""
    ending = ending_of(path, STRUCTURE_ENDINGS, "a structures file")
    check_readable(path, "a structures file")
    if path.stat().st_size > MAX_STRUCTURES_FILE_BYTES:
        raise DataError(f"{path}: the file is larger than {MAX_STRUCTURES_FILE_BYTES} bytes")
    builder = _Builder(path, frozenset(instruments))
    if ending == ".toml":
        _read_toml(path, builder)
    else:
        _read_csv(path, builder)
    if not builder.structures:
        raise DataError(f"{path}: no structures, expected one or more")
    return builder.structures


@dataclass
class _Builder:
    """Collects legs and holds the rules that both formats share; ``where`` names the place."""

    path: Path
    instruments: frozenset[str]
    structures: Structures = field(default_factory=dict)
    legs: int = 0

    def begin(self, where: str, key: str) -> None:
        if not key:
            raise DataError(f"{where}: empty key, expected a structure's name")
        if key in self.structures:
            raise DataError(f"{where}: duplicate key {key!r}, expected each key once")
        if len(self.structures) >= MAX_STRUCTURES:
            raise DataError(f"{where}: more than {MAX_STRUCTURES} structures")
        self.structures[key] = {}

    def add_leg(self, where: str, key: str, instrument: str, weight: float) -> None:
        legs = self.structures[key]
        if instrument not in self.instruments:
            raise DataError(
                f"{where}: unknown instrument {instrument!r}, expected one of the table's columns"
                f"{did_you_mean(instrument, sorted(self.instruments))}"
            )
        if instrument in legs:
            raise DataError(f"{where}: structure {key!r} names instrument {instrument!r} twice")
        if not math.isfinite(weight):
            raise DataError(f"{where}: weight of {instrument!r} must be finite, got {weight!r}")
        self.legs += 1
        if self.legs > MAX_LEGS:
            raise DataError(f"{where}: more than {MAX_LEGS} legs")
        legs[instrument] = weight


def _read_toml(path: Path, builder: _Builder) -> None:
    """Every table at the top level is a structure: instrument = weight."""
    for key, legs in _load_toml(path).items():
        where = f"{path}, structure {key!r}"
        if not isinstance(legs, dict):
            raise DataError(f"{where}: expected a table of instrument = weight, got {legs!r}")
        if not legs:
            raise DataError(f"{where}: no legs, expected instrument = weight")
        builder.begin(where, key)
        for instrument, weight in legs.items():
            builder.add_leg(where, key, instrument, _toml_weight(where, instrument, weight))


def _load_toml(path: Path) -> dict[str, Any]:
    toml = require_library(
        "tomllib" if sys.version_info >= (3, 11) else "tomli", "reading a TOML structures file"
    )
    try:
        with path.open("rb") as stream:
            loaded: dict[str, Any] = toml.load(stream)
    except toml.TOMLDecodeError as error:
        # The parser reports a repeated table as declared twice, a repeated key as overwritten.
        repeated = any(sign in str(error) for sign in ("twice", "overwrite"))
        what = "duplicate key" if repeated else "not valid TOML"
        raise DataError(f"{path}: {what}: {error}") from error
    except UnicodeDecodeError as error:
        raise DataError(f"{path}: expected UTF-8 text, got a byte that is not: {error}") from error
    return loaded


def _toml_weight(where: str, instrument: str, weight: Any) -> float:
    if isinstance(weight, dict):
        raise DataError(
            f"{where}: weight of {instrument!r} must be a number, got a table; "
            f"a name that holds a dot must stand in quotes"
        )
    if isinstance(weight, bool) or not isinstance(weight, (int, float)):
        raise DataError(f"{where}: weight of {instrument!r} must be a number, got {weight!r}")
    try:
        return float(weight)
    except OverflowError:
        return math.inf


def _read_csv(path: Path, builder: _Builder) -> None:
    """One leg per row under the header key,instrument,weight; a key's rows stand together."""
    try:
        with path.open(encoding="utf-8-sig", newline="") as stream:
            reader = csv.reader(stream)
            header = next((row for row in reader if row), None)
            if header is None or [name.strip().lower() for name in header] != CSV_HEADER:
                raise DataError(
                    f"{path}, line {max(reader.line_num, 1)}: "
                    f"expected the header {','.join(CSV_HEADER)}, got {','.join(header or [])!r}"
                )
            last_key: str | None = None
            for row in reader:
                if row:
                    last_key = _csv_row(f"{path}, line {reader.line_num}", row, last_key, builder)
    except UnicodeDecodeError as error:
        raise DataError(f"{path}: expected UTF-8 text, got a byte that is not: {error}") from error
    except csv.Error as error:
        raise DataError(f"{path}: not a readable CSV file: {error}") from error


def _csv_row(where: str, row: list[str], last_key: str | None, builder: _Builder) -> str:
    """Add one leg; a key that differs from the row before begins a structure."""
    if len(row) != len(CSV_HEADER):
        raise DataError(f"{where}: {len(row)} cells, expected {len(CSV_HEADER)} as in the header")
    key, instrument, weight = (cell.strip() for cell in row)
    if key != last_key:
        builder.begin(where, key)
    try:
        number = float(weight)
    except ValueError:
        raise DataError(f"{where}, column 'weight': expected a number, got {weight!r}") from None
    builder.add_leg(where, key, instrument, number)
    return key
