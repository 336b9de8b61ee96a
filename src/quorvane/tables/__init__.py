"""Labelled tables in, labelled tables out: NumPy, pandas, polars and pyarrow.

`read_table` takes days by instruments, `read_row` takes one day, `read_long` takes rows of date,
keys and a number. What comes back from ``fill`` is of the kind that was given, with its index or
its column of dates.

Importing this package needs NumPy only. Tables of polars and pyarrow go through narwhals, which
``pip install 'quorvane[frames]'`` brings.
"""

from quorvane.tables.dates import as_date, date_text
from quorvane.tables.long_tables import LongTable, read_long
from quorvane.tables.plain_frames import frame_of_kind
from quorvane.tables.reading import read_table
from quorvane.tables.row import Row
from quorvane.tables.rows import read_row
from quorvane.tables.table import Table

__all__ = [
    "LongTable",
    "Row",
    "Table",
    "as_date",
    "date_text",
    "frame_of_kind",
    "read_long",
    "read_row",
    "read_table",
]
