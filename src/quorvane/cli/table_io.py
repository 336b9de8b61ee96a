"""Reading and writing tables by the ending of the file's name."""

from __future__ import annotations

from pathlib import Path
from typing import Protocol

from quorvane.cli import csv_table, npy_table, parquet_table
from quorvane.cli.files import check_readable, ending_of
from quorvane.cli.table import Table


class TableFormat(Protocol):
    """A file format: a module with these two functions."""

    def read(self, path: Path) -> Table:
        """Read the table at ``path``; DataError when it does not hold one."""

    def place_of(self, path: Path, day: int) -> str:
        """Where the day's row stands in the file, for an error text."""

    def write(self, path: Path, table: Table) -> None:
        """Write the table to ``path``."""


_FORMATS: dict[str, TableFormat] = {
    ".csv": csv_table,
    ".csv.gz": csv_table,
    ".parquet": parquet_table,
    ".npy": npy_table,
}

TABLE_ENDINGS = tuple(_FORMATS)


def read_table(path: Path) -> Table:
    """Read a table; DataError names the file, the line or column, and what was expected."""
    table_format = _FORMATS[ending_of(path, TABLE_ENDINGS, "a table")]
    check_readable(path, "a table of days by instruments")
    return table_format.read(path)


def place_of(path: Path, day: int) -> str:
    """Where a day's row stands in the file at ``path``, for an error text."""
    return _FORMATS[ending_of(path, TABLE_ENDINGS, "a table")].place_of(path, day)


def write_table(path: Path, table: Table) -> None:
    """Write a table by the ending of the file's name; .npy keeps the numbers only."""
    _FORMATS[ending_of(path, TABLE_ENDINGS, "a table")].write(path, table)
