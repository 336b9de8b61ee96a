"""The rows of a CSV text: of a bounded length, with the separator that the header has."""

from __future__ import annotations

import csv
import gzip
import io
import itertools
import math
import zlib
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import TextIO

from quorvane.cli import limits
from quorvane.cli.errors import DataError, reason, shown
from quorvane.cli.separators import find_separator

MISSING = ("", "nan", "NaN", "NAN", "na", "NA", "n/a", "N/A", "null", "NULL", "none", "None")
"""Cells that mean a missing number."""

_MOST_BLANK = 1000
"""Lines at the head of a file that are looked at for its separator."""


class Rows:
    """The rows of a CSV text that are not blank; none takes more memory than the limit allows.

    A quoted cell may hold line ends, so that the lines of one row are counted together. The
    separator is the one that is found in the first two lines.
    """

    def __init__(self, path: Path, stream: TextIO) -> None:
        self._path = path
        self._read_line = stream.readline
        self._room = limits.MAX_ROW_LENGTH
        self._seen = self._first_lines()
        full = [line.rstrip("\r\n") for line in self._seen if line.strip()]
        self.separator = find_separator(*[*full, "", ""][:2])
        self._reader = csv.reader(self._lines(), delimiter=self.separator)

    @property
    def line(self) -> int:
        """The number, counted from 1, of the last line of the last row."""
        return self._reader.line_num

    @property
    def notes(self) -> tuple[str, ...]:
        """What to say of the separator, nothing when it is the comma."""
        return () if self.separator == "," else (f"found {self.separator!r} between columns",)

    def __str__(self) -> str:
        """The place of the last row, for an error text; made only when it is needed."""
        return f"{self._path}, line {self.line}"

    def __iter__(self) -> Iterator[list[str]]:
        """Go on with the next row."""
        try:
            for row in self._reader:
                self._room = limits.MAX_ROW_LENGTH
                if row:
                    yield row
        except csv.Error as error:
            raise DataError(f"{self}: not a readable CSV row: {error}") from error

    def require_width(self, row: list[str], width: int) -> None:
        """Raise DataError unless the row has as many cells as the header."""
        if len(row) != width:
            told = "; ".join(
                [f"{self}: {len(row)} cells, expected {width} as in the header", *self.notes]
            )
            raise DataError(told)

    def _first_lines(self) -> list[str]:
        """The lines up to the second that is not blank; what follows many blank ones is not met."""
        lines: list[str] = []
        full = 0
        while full < 2 and len(lines) < _MOST_BLANK and (line := self._read_line(self._room + 1)):
            if len(line) > self._room:
                raise self._too_long(len(lines) + 1)
            lines.append(line)
            full += not line.isspace()
        return lines

    def _lines(self) -> Iterator[str]:
        read = iter(lambda: self._read_line(self._room + 1), "")
        for line in itertools.chain(self._seen, read):
            self._room -= len(line)
            if self._room < 0:
                raise self._too_long(self.line + 1)
            yield line

    def _too_long(self, line: int) -> DataError:
        return DataError(
            f"{self._path}, line {line}: a row of more than {limits.MAX_ROW_LENGTH} characters, "
            f"expected no longer ones"
        )


def place_of_row(rows: Rows, number: int) -> Rows:
    """The rows, gone on to the one of a number, counted from 0 below the header."""
    next(itertools.islice(rows, number + 1, None), None)
    return rows


def read_number(where: Rows, cell: str, column: str) -> float:
    """The number in a cell, NaN where it is missing; DataError for what is neither."""
    if cell.strip() in MISSING:
        return math.nan
    if is_plain_number(cell):
        return float(cell)
    told = [
        f"{where}, column {shown(column)}: expected a number or an empty cell, got {shown(cell)}"
    ]
    raise DataError("; ".join([*told, *decimal_comma_hint(cell), *where.notes]))


def decimal_comma_hint(cell: str) -> list[str]:
    """What to say of a cell that is no number, if it is one with a decimal comma."""
    whole, comma, fraction = cell.strip().partition(",")
    is_meant = comma and is_plain_number(f"{whole}.{fraction}")
    return ["decimal commas are not read, write a point"] if is_meant else []


def is_plain_number(cell: str) -> bool:
    """Whether a cell is a number in the digits 0 to 9; Python's 1_000 is not taken as one."""
    try:
        float(cell)
    except ValueError:
        return False
    return is_plain(cell.strip())


def is_plain(text: str) -> bool:
    """Whether what Python takes for a number is one elsewhere too."""
    return text.isascii() and "_" not in text


def open_text(path: Path) -> TextIO:
    """A CSV file's text, unpacked when its name ends with .gz."""
    if path.name.lower().endswith(".gz"):
        return io.TextIOWrapper(gzip.open(path), encoding="utf-8-sig", newline="")
    return path.open(encoding="utf-8-sig", newline="")


@contextmanager
def reporting_faults(path: Path) -> Iterator[None]:
    """Turn the failures of reading, unpacking and decoding a file into DataError."""
    try:
        yield
    except UnicodeDecodeError as error:
        raise DataError(f"{path}: expected UTF-8 text, got a byte that is not: {error}") from error
    except (gzip.BadGzipFile, EOFError, zlib.error) as error:
        raise DataError(f"{path}: not a readable gzip file: {error}") from error
    except OSError as error:
        raise DataError(f"{path}: cannot be read: {error.strerror or reason(error)}") from error
