"""Structures files: keyed, weighted legs over named instruments, as TOML or CSV."""

from __future__ import annotations

import io
import math
import tomllib
from collections.abc import Sequence
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

from quorvane.cli.csv_rows import Rows, is_plain_number, reporting_faults
from quorvane.cli.errors import DataError, did_you_mean, reason, shown
from quorvane.cli.files import check_readable, ending_of
from quorvane.cli.limits import (
    MAX_LEGS,
    MAX_STRUCTURES,
    MAX_STRUCTURES_FILE_BYTES,
    check_name_length,
)

STRUCTURE_ENDINGS = (".toml", ".csv")
CSV_HEADER = ["key", "instrument", "weight"]

Structures = dict[str, dict[str, float]]
"""Key to legs, legs from instrument to weight, all in the file's order."""


def read_structures(path: Path, instruments: Sequence[str]) -> Structures:
    """Read a structures file and check it against the table's instruments."""
    ending = ending_of(path, STRUCTURE_ENDINGS, "a structures file")
    check_readable(path, "a structures file")
    builder = _Builder(path, frozenset(instruments))
    with reporting_faults(path):
        # As in a table, a byte order mark does not matter.
        text = _whole(path).decode("utf-8-sig")
        if ending == ".toml":
            _read_toml(text, builder)
        else:
            _read_csv(text, builder)
    if not builder.structures:
        raise DataError(f"{path}: no structures, expected one or more")
    return builder.structures


def _whole(path: Path) -> bytes:
    """The bytes of a file, however large its folder says that it is."""
    with path.open("rb") as stream:
        data = stream.read(MAX_STRUCTURES_FILE_BYTES + 1)
    if len(data) > MAX_STRUCTURES_FILE_BYTES:
        raise DataError(f"{path}: the file is larger than {MAX_STRUCTURES_FILE_BYTES} bytes")
    return data


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


def _read_csv(text: str, builder: _Builder) -> None:
    """One leg per row under the header key,instrument,weight; a key's rows stand together."""
    rows = Rows(builder.path, io.StringIO(text, newline=""))
    header = next(iter(rows), [])
    if [name.strip().lower() for name in header] != CSV_HEADER:
        raise DataError(
            f"{builder.path}, line {max(rows.line, 1)}: "
            f"expected the header {','.join(CSV_HEADER)}, got {shown(','.join(header))}"
        )
    last_key: str | None = None
    for row in rows:
        last_key = _csv_row(rows, row, last_key, builder)


def _csv_row(where: Rows, row: list[str], last_key: str | None, builder: _Builder) -> str:
    """Add one leg; a key that differs from the row before begins a structure."""
    if len(row) != len(CSV_HEADER):
        raise DataError(f"{where}: {len(row)} cells, expected {len(CSV_HEADER)} as in the header")
    key, instrument, weight = (cell.strip() for cell in row)
    if key != last_key:
        builder.begin(where, key)
    if not is_plain_number(weight):
        raise DataError(f"{where}, column 'weight': expected a number, got {shown(weight)}")
    builder.add_leg(where, key, instrument, float(weight))
    return key
