"""Which columns of a structures file hold what, found by their names."""

from __future__ import annotations

from dataclasses import dataclass

from quorvane.cli.csv_rows import decimal_comma_hint, is_plain_number
from quorvane.cli.errors import DataError, shown
from quorvane.cli.named_rows import NamedRows
from quorvane.cli.table import DATE_NAMES

# What pandas calls an index that it writes beside the columns.
_INDEX = "__index_level_"
_HEADER = "key,instrument,weight"
_KEY_NAMES = frozenset({"key", "basket", "structure"})


@dataclass(frozen=True)
class StructureColumns:
    """The numbers of the columns; ``date`` is None where the structures stay the same."""

    key: int
    instrument: int
    weight: int
    date: int | None

    @classmethod
    def of(cls, rows: NamedRows) -> StructureColumns:
        """Find them in any order; DataError where one is missing or a column is something else."""
        found: dict[str, int] = {}
        for column, name in enumerate(rows.header):
            if name.startswith(_INDEX):
                continue
            role = _role(name.lower())
            if role is None or role in found:
                raise _unexpected(rows)
            found[role] = column
        if not {"key", "instrument", "weight"} <= found.keys():
            raise _unexpected(rows)
        return cls(found["key"], found["instrument"], found["weight"], found.get("date"))


def leg_weight(where: object, cell: str) -> float:
    """The weight in a cell; DataError for what is no number."""
    if not is_plain_number(cell):
        told = f"{where}, column 'weight': expected a number, got {shown(cell)}"
        raise DataError("; ".join([told, *decimal_comma_hint(cell)]))
    return float(cell)


def _role(name: str) -> str | None:
    if name in _KEY_NAMES:
        return "key"
    if name in DATE_NAMES:
        return "date"
    return name if name in {"instrument", "weight"} else None


def _unexpected(rows: NamedRows) -> DataError:
    told = [
        f"{rows}: expected the header {_HEADER}, got {shown(','.join(rows.header))}",
        *rows.notes,
        "a column named date makes the structures dated",
    ]
    return DataError("; ".join(told[:-1] if len(rows.header) < 4 else told))
