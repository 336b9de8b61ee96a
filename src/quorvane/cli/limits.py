"""How much the command takes on; larger input is refused before memory is taken for it."""

from __future__ import annotations

from pathlib import Path

from quorvane.cli.errors import DataError

MAX_INSTRUMENTS = 1_000_000
"""Columns of a table; the width that a rotation accepts."""

MAX_STRUCTURES = 1_000_000
"""Structures of a file; the number of slots that a rotation accepts."""

MAX_LEGS = 10_000_000
"""Legs of all structures of a file together."""

MAX_CELLS = 1_000_000_000
"""Cells of any one array of days, at 8 bytes each; input and output are held in memory."""

MAX_DATED_DAYS = 10_000_000
"""Days of a table that has dates; a date is a text of its own, many times larger than a cell."""

MAX_NAME_LENGTH = 1000
"""Characters of an instrument's name, a structure's key or a date.

A trace holds names at one width, that of the longest: without a limit one long name among many
would claim the memory of as many long ones.
"""

MAX_ROW_LENGTH = 1 << 25
"""Characters of one CSV row: the header or a day of the widest table, 33 to a cell."""

MAX_STRUCTURES_FILE_BYTES = 1 << 28
"""Size of a structures file (256 MiB)."""


def check_table_size(path: Path, days: int, instruments: int) -> None:
    """Raise DataError when a table of this shape is more than the command takes on."""
    if instruments > MAX_INSTRUMENTS:
        raise DataError(f"{path}: {instruments} instruments, at most {MAX_INSTRUMENTS} are allowed")
    if days * instruments > MAX_CELLS:
        raise DataError(
            f"{path}: {days} days of {instruments} instruments are {days * instruments} cells, "
            f"at most {MAX_CELLS} are allowed"
        )


def check_dated_days(path: Path, days: int) -> None:
    """Raise DataError when a table has more dates than the command takes on."""
    if days > MAX_DATED_DAYS:
        raise DataError(f"{path}: {days} days with dates, at most {MAX_DATED_DAYS} are allowed")


def check_name_length(where: object, what: str, length: int) -> None:
    """Raise DataError when a name, key or date is too long; ``where`` and ``what`` name it."""
    if length > MAX_NAME_LENGTH:
        raise DataError(
            f"{where}: {what} of {length} characters, at most {MAX_NAME_LENGTH} are allowed"
        )
