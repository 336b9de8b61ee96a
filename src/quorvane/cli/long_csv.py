"""Long tables from CSV files."""

from __future__ import annotations

from array import array
from pathlib import Path

import numpy as np

from quorvane.cli import limits
from quorvane.cli.csv_rows import Rows, is_plain, open_text, place_of_row, read_number
from quorvane.cli.errors import DataError
from quorvane.cli.limits import check_dated_days, check_name_length, check_table_size
from quorvane.cli.long_table import LongColumns, LongRows, table_of_rows
from quorvane.cli.table import Table


def read_long_rows(path: Path, columns: LongColumns) -> Table:
    """Read a row for each date and instrument."""
    labels: dict[str, int] = {}
    names: dict[str, int] = {}
    days, numbers, values = array("q"), array("q"), array("d")
    date, instrument, value = columns.date, columns.instrument, columns.value
    what, width = columns.header[value], len(columns.header)
    with open_text(path) as stream:
        rows = Rows(path, stream)
        taken = rows.notes
        next(iter(rows))
        for row in rows:
            if len(row) != width:
                rows.require_width(row, width)
            label, name, cell = row[date], row[instrument].strip(), row[value]
            if label not in labels or name not in names:
                _admit(path, rows, label, name, labels, names)
            days.append(labels[label])
            numbers.append(names[name])
            # Written out, since this is done for each row: what is no plain number is looked at.
            try:
                number = float(cell) if is_plain(cell) else read_number(rows, cell, what)
            except ValueError:
                number = read_number(rows, cell, what)
            values.append(number)
            if len(days) > limits.MAX_CELLS:
                raise DataError(f"{rows}: at most {limits.MAX_CELLS} rows are allowed")

    def place(row: int) -> str:
        with open_text(path) as stream:
            return str(place_of_row(Rows(path, stream), row))

    long = LongRows(
        days=np.frombuffer(days, dtype=np.int64),
        labels=tuple(labels),
        columns=np.frombuffer(numbers, dtype=np.int64),
        names=tuple(names),
        values=np.frombuffer(values),
    )
    return table_of_rows(path, long, columns, place, taken)


def _admit(
    path: Path, rows: Rows, label: str, name: str, labels: dict[str, int], names: dict[str, int]
) -> None:
    """Number a label or a name that is new, within the limits."""
    check_name_length(rows, "a date", len(label))
    check_name_length(rows, "a name", len(name))
    if not name:
        raise DataError(f"{rows}: no instrument, expected its name")
    labels.setdefault(label, len(labels))
    names.setdefault(name, len(names))
    check_dated_days(path, len(labels))
    check_table_size(path, len(labels), len(names))
