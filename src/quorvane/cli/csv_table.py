"""Tables as CSV: a header of names, then one row per day, numbers written so as to round-trip."""

from __future__ import annotations

import csv
import gzip
import io
import math
import zlib
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import Any, TextIO

import numpy as np
from numpy.typing import NDArray

from quorvane.cli.errors import DataError
from quorvane.cli.libraries import has_library
from quorvane.cli.limits import check_table_size
from quorvane.cli.table import DATE_HEADERS, Dates, Table, check_instrument_names

MISSING = ("", "nan", "NaN", "NAN", "na", "NA", "n/a", "N/A", "null", "NULL", "none", "None")
"""Cells that mean a missing number."""

_MISSING = frozenset(MISSING)
_ARROW_BLOCK_BYTES = 1 << 26


def read(path: Path) -> Table:
    """Read a CSV table, with pyarrow when it is installed, else with the csv module."""
    with _reporting_bad_text(path), _open_text(path) as stream:
        head = _Head(path, stream)
    check_instrument_names(path, head.instruments, 2 if head.has_dates else 1)
    if has_library("pyarrow"):
        table = _read_with_arrow(path, head)
        if table is not None:
            return table
    return _read_rows(path, head)


def write(path: Path, table: Table) -> None:
    """Write a CSV table; a missing number is an empty cell."""
    dates = table.dates
    with _text_output(path) as stream:
        writer = csv.writer(stream, lineterminator="\n")
        writer.writerow(([] if dates is None else [dates.name]) + list(table.instruments))
        for day, row in enumerate(table.values):
            # csv writes a float as its repr, the shortest text that reads back as the same number.
            cells: list[Any] = ["" if x != x else x for x in row.tolist()]
            writer.writerow(cells if dates is None else [dates.text[day], *cells])


class _Head:
    """What the header and the first row tell about a file."""

    def __init__(self, path: Path, stream: TextIO) -> None:
        reader = csv.reader(stream)
        header = next((row for row in reader if row), None)
        if header is None:
            raise DataError(f"{path}: the file is empty, expected a header of instrument names")
        self.lines = reader.line_num
        first = next((row for row in reader if row), None)
        if first is None:
            raise DataError(f"{path}: empty table, expected a row for each day below the header")
        self.width = len(header)
        self.has_dates = header[0].strip().lower() in DATE_HEADERS or not _is_number(first[0])
        self.date_name = header[0]
        names = header[1:] if self.has_dates else header
        self.instruments = tuple(name.strip() for name in names)


def _read_rows(path: Path, head: _Head) -> Table:
    """Read row by row, naming the line and column of the first fault."""
    width, skip = len(head.instruments), 1 if head.has_dates else 0
    labels: list[str] = []
    rows: list[NDArray[np.float64]] = []
    with _reporting_bad_text(path), _open_text(path) as stream:
        reader = csv.reader(stream)
        next(row for row in reader if row)
        for row in reader:
            if not row:
                continue
            if len(row) != head.width:
                raise DataError(
                    f"{path}, line {reader.line_num}: {len(row)} cells, "
                    f"expected {head.width} as in the header"
                )
            if skip:
                labels.append(row[0])
            rows.append(_numbers(path, reader.line_num, row[skip:], head.instruments))
            check_table_size(path, len(rows), width)
    dates = Dates(head.date_name, tuple(labels)) if head.has_dates else None
    return Table(np.stack(rows), head.instruments, dates)


def _numbers(
    path: Path, line: int, cells: list[str], instruments: tuple[str, ...]
) -> NDArray[np.float64]:
    try:
        row = np.array(list(map(float, cells)), dtype=np.float64)
        if not any("_" in cell for cell in cells):
            return row
    except ValueError:
        pass
    return np.array(
        [_number(path, line, cell, name) for cell, name in zip(cells, instruments, strict=True)],
        dtype=np.float64,
    )


def _number(path: Path, line: int, cell: str, instrument: str) -> float:
    if cell.strip() in _MISSING:
        return math.nan
    if not _is_number(cell):
        raise DataError(
            f"{path}, line {line}, column {instrument!r}: expected a number or an empty cell, "
            f"got {cell!r}"
        )
    return float(cell)


def _is_number(cell: str) -> bool:
    """Whether a cell is a number or marks a missing one; Python's 1_000 is not taken as one."""
    if cell.strip() in _MISSING:
        return True
    try:
        float(cell)
    except ValueError:
        return False
    return "_" not in cell


def _read_with_arrow(path: Path, head: _Head) -> Table | None:
    """Read with pyarrow's parallel parser; None when it finds any fault, to be named by line."""
    import pyarrow
    from pyarrow import csv as arrow_csv

    types = {f"f{column}": pyarrow.float64() for column in range(head.width)}
    if head.has_dates:
        types["f0"] = pyarrow.string()
    try:
        columns = arrow_csv.read_csv(
            str(path),
            read_options=arrow_csv.ReadOptions(
                skip_rows=head.lines, autogenerate_column_names=True, block_size=_ARROW_BLOCK_BYTES
            ),
            convert_options=arrow_csv.ConvertOptions(
                column_types=types, null_values=list(MISSING), strings_can_be_null=False
            ),
        )
    except (pyarrow.ArrowException, OSError):
        return None
    if columns.num_columns != head.width:
        return None
    check_table_size(path, columns.num_rows, len(head.instruments))
    skip = 1 if head.has_dates else 0
    values = np.empty((columns.num_rows, len(head.instruments)))
    for column in range(values.shape[1]):
        values[:, column] = columns.column(column + skip).to_numpy()
    dates = Dates(head.date_name, tuple(columns.column(0).to_pylist())) if skip else None
    return Table(values, head.instruments, dates)


def _open_text(path: Path) -> TextIO:
    if path.name.lower().endswith(".gz"):
        return io.TextIOWrapper(gzip.open(path), encoding="utf-8-sig", newline="")
    return path.open(encoding="utf-8-sig", newline="")


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


@contextmanager
def _reporting_bad_text(path: Path) -> Iterator[None]:
    """Turn the failures of decoding and of the csv module into an error that names the file."""
    try:
        yield
    except UnicodeDecodeError as error:
        raise DataError(f"{path}: expected UTF-8 text, got a byte that is not: {error}") from error
    except csv.Error as error:
        raise DataError(f"{path}: not a readable CSV file: {error}") from error
    except (gzip.BadGzipFile, EOFError, zlib.error) as error:
        raise DataError(f"{path}: not a readable gzip file: {error}") from error
