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
