"""Tables as Parquet, by way of pyarrow; the dates keep their own type."""

from __future__ import annotations

import json
import os
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import Any

import numpy as np

from quorvane.cli.errors import DataError, reason, shown
from quorvane.cli.libraries import require_library
from quorvane.cli.limits import check_dated_days, check_name_length, check_table_size
from quorvane.cli.long_parquet import read_long_columns
from quorvane.cli.long_table import find_long_columns
from quorvane.cli.table import DATE_HEADERS, Dates, Table, check_instrument_names

_BATCH_DAYS = 1 << 16


def read(path: Path) -> Table:
    """Read a Parquet table.

    The dates are the index that pandas noted in the file, or else the first column when its
    name says so or it does not hold numbers.
    """
    pyarrow = require_library("pyarrow", "reading a Parquet table")
    parquet = require_library("pyarrow.parquet", "reading a Parquet table")
    # Named by its bytes, since pyarrow takes a name to be UTF-8.
    with (
        _reporting_faults(path),
        pyarrow.OSFile(os.fsencode(path)) as source,
        parquet.ParquetFile(source) as file,
    ):
        long = find_long_columns(file.schema_arrow.names)
        if long is not None:
            for column in (long.date, long.instrument):
                _check_dates(path, source, file.schema_arrow.field(column))
            return read_long_columns(path, file, long)
        date_column = _check_shape(path, file.metadata, file.schema_arrow)
        if date_column is not None:
            _check_dates(path, source, file.schema_arrow.field(date_column))
        return _table(file.read(), date_column)


def place_of(path: Path, day: int) -> str:
    """Where a day stands in the file, for an error text; rows count from 1."""
    return f"{path}, row {day + 1}"


def write(path: Path, table: Table) -> None:
    """Write a Parquet table, dates first; a missing number is NaN."""
    pyarrow = require_library("pyarrow", "writing a Parquet table")
    parquet = require_library("pyarrow.parquet", "writing a Parquet table")
    names, columns = list(table.instruments), list(table.values.T)
    arrays = [pyarrow.array(np.ascontiguousarray(column)) for column in columns]
    if table.dates is not None:
        dates = table.dates
        names.insert(0, dates.name)
        arrays.insert(0, pyarrow.array(dates.text) if dates.arrow is None else dates.arrow)
    with path.open("wb") as stream:
        parquet.write_table(pyarrow.Table.from_arrays(arrays, names=names), stream)


def _check_shape(path: Path, metadata: Any, schema: Any) -> int | None:
    """Check all that is known before a column is read; the position of the dates, if any."""
    check_table_size(path, metadata.num_rows, metadata.num_columns)
    date_column = _date_column(schema)
    names = [name for i, name in enumerate(schema.names) if i != date_column]
    check_instrument_names(path, names, 2 if date_column == 0 else 1)
    if metadata.num_rows == 0:
        raise DataError(f"{path}: empty table, expected a row for each day")
    types = require_library("pyarrow.types", "reading a Parquet table")
    for i, field in enumerate(schema):
        if i == date_column:
            if types.is_nested(field.type):
                raise DataError(
                    f"{path}, column {shown(field.name)}: expected the days' dates, "
                    f"got {reason(field.type)}"
                )
            check_dated_days(path, metadata.num_rows)
        elif not _is_numeric(types, field.type) and not types.is_null(field.type):
            raise DataError(
                f"{path}, column {shown(field.name)}: expected numbers, got {reason(field.type)}"
            )
    return date_column


def _check_dates(path: Path, source: Any, dates: Any) -> None:
    """Check the lengths of dates that are text.

    A file stores a text once for many days: each is looked at once, before all days have a copy.
    """
    types = require_library("pyarrow.types", "reading a Parquet table")
    if types.is_fixed_size_binary(dates.type):
        check_name_length(path, "a date", dates.type.byte_width)
    if types.is_primitive(dates.type):
        return
    parquet = require_library("pyarrow.parquet", "reading a Parquet table")
    compute = require_library("pyarrow.compute", "reading a Parquet table")
    with parquet.ParquetFile(source, read_dictionary=[dates.name]) as file:
        for batch in file.iter_batches(_BATCH_DAYS, columns=[dates.name]):
            if types.is_dictionary(batch.column(0).type):
                lengths = compute.utf8_length(batch.column(0).dictionary.cast("string"))
                check_name_length(path, "a date", compute.max(lengths).as_py() or 0)


def _table(columns: Any, date_column: int | None) -> Table:
    kept = [i for i in range(columns.num_columns) if i != date_column]
    values = np.empty((columns.num_rows, len(kept)))
    for target, i in enumerate(kept):
        values[:, target] = columns.column(i).cast("float64", safe=False).to_numpy()
    names = columns.schema.names
    return Table(values, tuple(names[i] for i in kept), _dates(columns, date_column))


def _date_column(schema: Any) -> int | None:
    index = _pandas_index(schema)
    if index is not None:
        return index
    types = require_library("pyarrow.types", "reading a Parquet table")
    if len(schema) == 0:
        return None
    first = schema.field(0)
    if first.name.strip().lower() in DATE_HEADERS or not _is_numeric(types, first.type):
        return 0
    return None


def _pandas_index(schema: Any) -> int | None:
    """The column that pandas noted as its one index; pandas puts it last in the file."""
    try:
        noted = json.loads((schema.metadata or {}).get(b"pandas", b"{}"))
    except (ValueError, RecursionError):
        return None
    index = noted.get("index_columns") if isinstance(noted, dict) else None
    if not isinstance(index, list) or len(index) != 1 or not isinstance(index[0], str):
        return None
    return schema.names.index(index[0]) if schema.names.count(index[0]) == 1 else None


def _is_numeric(types: Any, kind: Any) -> bool:
    return bool(types.is_integer(kind) or types.is_floating(kind) or types.is_decimal(kind))


def _dates(columns: Any, date_column: int | None) -> Dates | None:
    if date_column is None:
        return None
    column = columns.column(date_column)
    name = columns.schema.names[date_column]
    # pandas gives an unnamed index a place-holder; on the way out it is an unnamed column again.
    header = "" if name.startswith("__index_level_") else name
    text = tuple("" if item is None else item for item in column.cast("string").to_pylist())
    return Dates(header, text, column)


@contextmanager
def _reporting_faults(path: Path) -> Iterator[None]:
    """Turn pyarrow's failures into DataError, except that memory ran out."""
    pyarrow = require_library("pyarrow", "reading a Parquet table")
    try:
        yield
    except MemoryError:
        raise
    except (pyarrow.ArrowException, OSError, UnicodeError) as error:
        raise DataError(f"{path}: not a readable Parquet file: {reason(error)}") from error
