"""What both CSV readers share: rows of a bounded length, numbers, failures as errors."""

from __future__ import annotations

import csv
import gzip
import zlib
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import TextIO

from quorvane.cli import limits
from quorvane.cli.errors import DataError, reason


class Rows:
    """The rows of a CSV text that are not blank; none takes more memory than the limit allows.

    A quoted cell may hold line ends, so that the lines of one row are counted together.
    """

    def __init__(self, path: Path, stream: TextIO) -> None:
        self._path = path
        self._read_line = stream.readline
        self._room = limits.MAX_ROW_LENGTH
        self._reader = csv.reader(self._lines())

    @property
    def line(self) -> int:
        """The number, counted from 1, of the last line of the last row."""
        return self._reader.line_num

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

    def _lines(self) -> Iterator[str]:
        while line := self._read_line(self._room + 1):
            self._room -= len(line)
            if self._room < 0:
                raise DataError(
                    f"{self._path}, line {self.line + 1}: a row of more than "
                    f"{limits.MAX_ROW_LENGTH} characters, expected no longer ones"
                )
            yield line


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
