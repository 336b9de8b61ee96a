"""Tables as Parquet, by way of pyarrow; the dates keep their own type."""

from __future__ import annotations

import json
from pathlib import Path
from typing import Any

import numpy as np

from quorvane.cli.errors import DataError
from quorvane.cli.libraries import require_library
from quorvane.cli.limits import check_table_size
from quorvane.cli.table import DATE_HEADERS, Dates, Table, check_instrument_names


def read(path: Path) -> Table:
    """Read a Parquet table.

    The dates are the index that pandas noted in the file, or else the first column when its
    name says so or it does not hold numbers.
    """
    pyarrow = require_library("pyarrow", "reading a Parquet table")
    parquet = require_library("pyarrow.parquet", "reading a Parquet table")
    try:
        with parquet.ParquetFile(path) as file:
            shape = file.metadata.num_rows, file.metadata.num_columns
            check_table_size(path, *shape)
            columns = file.read()
    except (pyarrow.ArrowException, OSError) as error:
        raise DataError(f"{path}: not a readable Parquet file: {error}") from error
    date_column = _date_column(columns.schema)
    names = [name for i, name in enumerate(columns.schema.names) if i != date_column]
    check_instrument_names(path, names, 2 if date_column == 0 else 1)
    if columns.num_rows == 0:
        raise DataError(f"{path}: empty table, expected a row for each day")
    values = np.empty((columns.num_rows, len(names)))
    kept = [i for i in range(columns.num_columns) if i != date_column]
    for target, i in enumerate(kept):
        values[:, target] = _numbers(path, columns.column(i), columns.schema.names[i])
    return Table(values, tuple(names), _dates(columns, date_column))


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
    noted = (schema.metadata or {}).get(b"pandas")
    if noted is None:
        return None
    try:
        index = json.loads(noted)["index_columns"]
    except (ValueError, KeyError, TypeError):
        return None
    if len(index) != 1 or not isinstance(index[0], str):
        return None
    position: int = schema.get_field_index(index[0])
    return position if position >= 0 else None


def _is_numeric(types: Any, kind: Any) -> bool:
    return bool(types.is_integer(kind) or types.is_floating(kind) or types.is_decimal(kind))


def _numbers(path: Path, column: Any, name: str) -> Any:
    types = require_library("pyarrow.types", "reading a Parquet table")
    if not _is_numeric(types, column.type) and not types.is_null(column.type):
        raise DataError(f"{path}, column {name!r}: expected numbers, got {column.type}")
    return column.cast("float64", safe=False).to_numpy()


def _dates(columns: Any, date_column: int | None) -> Dates | None:
    if date_column is None:
        return None
    column = columns.column(date_column)
    name = columns.schema.names[date_column]
    # pandas gives an unnamed index a place-holder; on the way out it is an unnamed column again.
    shown = "" if name.startswith("__index_level_") else name
    text = tuple("" if item is None else item for item in column.cast("string").to_pylist())
    return Dates(shown, text, column)
