"""Tables as CSV: a header of names, then one row per day, numbers written so as to round-trip."""

from __future__ import annotations

import csv
import gzip
import io
from array import array
from collections.abc import Iterable, Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import Any, TextIO

import numpy as np
from numpy.typing import NDArray

from quorvane.cli import csv_arrow
from quorvane.cli.csv_rows import (
    MISSING,
    Rows,
    is_plain,
    is_plain_number,
    open_text,
    place_of_row,
    read_number,
    reporting_faults,
)
from quorvane.cli.errors import DataError
from quorvane.cli.libraries import has_library
from quorvane.cli.limits import check_dated_days, check_name_length, check_table_size
from quorvane.cli.long_csv import read_long_rows
from quorvane.cli.long_table import find_long_columns, long_table_hint
from quorvane.cli.table import DATE_HEADERS, Dates, Table, check_instrument_names


def read(path: Path) -> Table:
    """Read a CSV table of days, or a long one.

    pyarrow reads 2,520 days of 3,000 instruments in 1.0 s where the csv module takes 9.4 s, and
    8,313 days of 20 in 0.02 s instead of 0.07 s: that is what a second way of reading is kept for.
    It gives up on any fault, which the csv module then names by its line.
    """
    with reporting_faults(path):
        with open_text(path) as stream:
            head = _Head(path, stream)
        if head.long is not None:
            return read_long_rows(path, head.long)
        check_table_size(path, 1, len(head.instruments))
        check_instrument_names(path, head.instruments, 2 if head.has_dates else 1)
        if has_library("pyarrow"):
            table = _read_with_arrow(path, head)
            if table is not None:
                return table
        return _read_rows(path, head)


def place_of(path: Path, day: int) -> str:
    """Where a table's day stands in the file; reads up to it again, for an error text."""
    with reporting_faults(path), open_text(path) as stream:
        return str(place_of_row(Rows(path, stream), day))


def write(path: Path, table: Table) -> None:
    """Write a CSV table; a missing number is an empty cell."""
    dates = table.dates
    with _text_output(path) as stream:
        writer = csv.writer(_Newlines(stream), lineterminator="\r\n")
        writer.writerow(([] if dates is None else [dates.name]) + list(table.instruments))
        for day, row in enumerate(table.values):
            # csv writes a float as its repr, the shortest text that reads back as the same number.
            cells: list[Any] = ["" if x != x else x for x in row.tolist()]
            writer.writerow(cells if dates is None else [dates.text[day], *cells])


class _Newlines:
    """Ends a line with a newline alone.

    The csv module quotes only the line ends that it writes itself: it is told to write both, so
    that a carriage return in a name or a date does not end the row when it is read back.
    """

    def __init__(self, stream: TextIO) -> None:
        self._stream = stream

    def write(self, line: str) -> None:
        self._stream.write(line.removesuffix("\r\n") + "\n")


class _Head:
    """What the header and the first row tell about a file."""

    def __init__(self, path: Path, stream: TextIO) -> None:
        rows = Rows(path, stream)
        header = next(iter(rows), None)
        if header is None:
            raise DataError(f"{path}: the file is empty, expected a header of instrument names")
        self.lines = rows.line
        first = next(iter(rows), None)
        if first is None:
            raise DataError(f"{path}: empty table, expected a row for each day below the header")
        self.separator = rows.separator
        self.taken = rows.notes
        self.long = find_long_columns(header)
        self.width = len(header)
        self.has_dates = header[0].strip().lower() in DATE_HEADERS or not _is_number(first[0])
        self.date_name = header[0]
        names = header[1:] if self.has_dates else header
        if self.has_dates:
            check_name_length(f"{path}, column 1", "a name", len(self.date_name))
        self.instruments = tuple(name.strip() for name in names)

    def table(self, values: NDArray[np.float64], dates: Iterable[str] | None) -> Table:
        """The table of these numbers and dates below this header."""
        named = None if dates is None else Dates(self.date_name, tuple(dates))
        return Table(values, self.instruments, named, self.taken)


def _read_with_arrow(path: Path, head: _Head) -> Table | None:
    rows = csv_arrow.read_rows(
        path, head.lines, head.width, head.has_dates, MISSING, head.separator
    )
    if rows is None:
        return None
    return head.table(*rows)


def _read_rows(path: Path, head: _Head) -> Table:
    """Read row by row, naming the line and column of the first fault."""
    instruments, skip = head.instruments, 1 if head.has_dates else 0
    dates: list[str] = []
    numbers = array("d")
    with open_text(path) as stream:
        rows = Rows(path, stream)
        next(iter(rows))
        for day, row in enumerate(rows, start=1):
            rows.require_width(row, head.width)
            if skip:
                check_name_length(rows, "a date", len(row[0]))
                check_dated_days(path, day)
                dates.append(row[0])
            check_table_size(path, day, len(instruments))
            try:
                numbers.fromlist(_numbers(rows, row[skip:], instruments))
            except DataError as error:
                raise DataError(f"{error}{long_table_hint(instruments)}") from error
    values = np.frombuffer(numbers).reshape(-1, len(instruments))
    return head.table(values, dates if head.has_dates else None)


def _numbers(where: Rows, cells: list[str], instruments: tuple[str, ...]) -> list[float]:
    try:
        if is_plain("".join(cells)):
            return list(map(float, cells))
    except ValueError:
        pass
    return [read_number(where, cell, name) for cell, name in zip(cells, instruments, strict=True)]


def _is_number(cell: str) -> bool:
    """Whether a cell is a number or marks a missing one."""
    return cell.strip() in MISSING or is_plain_number(cell)


@contextmanager
def _text_output(path: Path) -> Iterator[TextIO]:
    if not path.name.lower().endswith(".gz"):
        with path.open("w", encoding="utf-8", newline="") as stream:
            yield stream
        return
    # Without name and time in its header, the same table gives the same bytes.
    with (
        path.open("wb") as raw,
        gzip.GzipFile(filename="", mode="wb", fileobj=raw, mtime=0) as packed,
        io.TextIOWrapper(packed, encoding="utf-8", newline="") as stream,
    ):
        yield stream
