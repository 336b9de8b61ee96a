"""Rows of named columns, as texts, from CSV and Parquet files: structures and labels."""

from __future__ import annotations

import io
import os
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import Any, Protocol

from quorvane.cli.csv_rows import Rows, reporting_faults
from quorvane.cli.errors import DataError, reason
from quorvane.cli.files import check_readable
from quorvane.cli.libraries import require_library
from quorvane.cli.limits import MAX_STRUCTURES_FILE_BYTES

_BATCH_ROWS = 1 << 16


class NamedRows(Protocol):
    """Rows below a header; as a text it is the place of the last one.

    ``number`` is that of its last line, or of the row where there are no lines.
    """

    header: list[str]
    notes: tuple[str, ...]

    @property
    def number(self) -> int:
        """Where the last row stands."""

    def place(self, number: int) -> str:
        """The place of a row of this number, for an error text."""

    def __iter__(self) -> Iterator[list[str]]:
        """Go on with the next row, as many cells as the header has."""


@contextmanager
def named_rows(path: Path, what: str) -> Iterator[NamedRows]:
    """The rows of a CSV or a Parquet file; DataError for one that cannot be read."""
    check_readable(path, what)
    if path.name.lower().endswith(".parquet"):
        with _parquet_rows(path) as rows:
            yield rows
        return
    with reporting_faults(path):
        # As in a table, a byte order mark does not matter.
        text = whole_file(path).decode("utf-8-sig")
        yield _CsvRows(path, text)


def whole_file(path: Path) -> bytes:
    """The bytes of a file, however large its folder says that it is."""
    with path.open("rb") as stream:
        data = stream.read(MAX_STRUCTURES_FILE_BYTES + 1)
    if len(data) > MAX_STRUCTURES_FILE_BYTES:
        raise DataError(f"{path}: the file is larger than {MAX_STRUCTURES_FILE_BYTES} bytes")
    return data


class _CsvRows:
    def __init__(self, path: Path, text: str) -> None:
        self._path = path
        self._rows = Rows(path, io.StringIO(text, newline=""))
        self.notes = self._rows.notes
        self.header = [name.strip() for name in next(iter(self._rows), [])]

    @property
    def number(self) -> int:
        return max(self._rows.line, 1)

    def place(self, number: int) -> str:
        return f"{self._path}, line {number}"

    def __str__(self) -> str:
        return self.place(self.number)

    def __iter__(self) -> Iterator[list[str]]:
        for row in self._rows:
            self._rows.require_width(row, len(self.header))
            yield [cell.strip() for cell in row]


class _ParquetRows:
    notes: tuple[str, ...] = ()

    def __init__(self, path: Path, file: Any) -> None:
        self._path, self._file, self.number = path, file, 0
        self.header = [name.strip() for name in file.schema_arrow.names]

    def place(self, number: int) -> str:
        return f"{self._path}, row {number}"

    def __str__(self) -> str:
        return self.place(self.number)

    def __iter__(self) -> Iterator[list[str]]:
        for batch in self._file.iter_batches(_BATCH_ROWS):
            columns = [_texts(column) for column in batch.columns]
            for row in zip(*columns, strict=True):
                self.number += 1
                yield list(row)


def _texts(column: Any) -> list[str]:
    """The cells as texts; a number as the shortest text that reads back as the same one."""
    types = require_library("pyarrow.types", "reading a Parquet file")
    if types.is_floating(column.type) or types.is_decimal(column.type):
        numbers = column.cast("float64", safe=False).to_pylist()
        return ["" if number is None else repr(number) for number in numbers]
    return ["" if text is None else text.strip() for text in column.cast("string").to_pylist()]


@contextmanager
def _parquet_rows(path: Path) -> Iterator[NamedRows]:
    pyarrow = require_library("pyarrow", "reading a Parquet file")
    parquet = require_library("pyarrow.parquet", "reading a Parquet file")
    try:
        # Named by its bytes, since pyarrow takes a name to be UTF-8.
        with pyarrow.OSFile(os.fsencode(path)) as source, parquet.ParquetFile(source) as file:
            if source.size() > MAX_STRUCTURES_FILE_BYTES:
                raise DataError(
                    f"{path}: the file is larger than {MAX_STRUCTURES_FILE_BYTES} bytes"
                )
            yield _ParquetRows(path, file)
    except MemoryError:
        raise
    except (pyarrow.ArrowException, OSError, UnicodeError) as error:
        raise DataError(f"{path}: not a readable Parquet file: {reason(error)}") from error
