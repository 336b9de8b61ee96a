"""Long tables from Parquet files, by way of pyarrow."""

from __future__ import annotations

from pathlib import Path
from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane.cli import limits
from quorvane.cli.errors import DataError, reason, shown
from quorvane.cli.libraries import require_library
from quorvane.cli.long_table import LongColumns, LongRows, table_of_rows
from quorvane.cli.table import Table


def read_long_columns(path: Path, file: Any, columns: LongColumns) -> Table:
    """Read a row for each date and instrument from an open Parquet file."""
    rows = file.metadata.num_rows
    if rows == 0:
        raise DataError(f"{path}: empty table, expected a row for each date and instrument")
    if rows > limits.MAX_CELLS:
        raise DataError(f"{path}: {rows} rows, at most {limits.MAX_CELLS} are allowed")
    wanted = [columns.date, columns.instrument, columns.value]
    written = [file.schema_arrow.names[i] for i in wanted]
    table = file.read(columns=written)
    header = [columns.header[i] for i in wanted]
    days, labels = _numbered(path, table.column(written[0]), header[0])
    numbers, names = _numbered(path, table.column(written[1]), header[1])
    values = _values(path, table.column(written[2]), header[2])
    long = LongRows(days, labels, numbers, names, values)
    return table_of_rows(path, long, columns, lambda row: f"{path}, row {row + 1}", ())


def _numbered(path: Path, column: Any, name: str) -> tuple[NDArray[np.int64], tuple[str, ...]]:
    """The column as numbers of its distinct texts, in the order in which they first come."""
    if column.null_count:
        row = column.is_null().to_pylist().index(True) + 1
        raise DataError(f"{path}, row {row}, column {shown(name)}: missing, expected a name")
    coded = column.cast("string").combine_chunks().dictionary_encode()
    texts = tuple(text.strip() for text in coded.dictionary.to_pylist())
    first: dict[str, int] = {}
    number_of = [first.setdefault(text, len(first)) for text in texts]
    codes = np.asarray(coded.indices.to_numpy(zero_copy_only=False), dtype=np.int64)
    return np.array(number_of, dtype=np.int64)[codes], tuple(first)


def _values(path: Path, column: Any, name: str) -> NDArray[np.float64]:
    types = require_library("pyarrow.types", "reading a Parquet table")
    kind = column.type
    if not (types.is_integer(kind) or types.is_floating(kind) or types.is_decimal(kind)):
        raise DataError(f"{path}, column {shown(name)}: expected numbers, got {reason(kind)}")
    return np.array(column.cast("float64", safe=False).to_numpy(), dtype=np.float64)
