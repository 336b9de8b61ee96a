"""Tables as a plain two-dimensional .npy array: no names, no dates."""

from __future__ import annotations

from pathlib import Path

import numpy as np

from quorvane.cli.errors import DataError
from quorvane.cli.limits import check_table_size
from quorvane.cli.table import Table, check_instrument_names


def read(path: Path) -> Table:
    """Read an array of days by instruments; the instruments are named "0", "1", ... by column."""
    try:
        # Mapped first, so that the shape is known before any memory is taken.
        array = np.load(path, mmap_mode="r", allow_pickle=False)
    except (ValueError, EOFError, OSError) as error:
        raise DataError(f"{path}: not a readable .npy array of numbers: {error}") from error
    if not isinstance(array, np.ndarray):
        raise DataError(f"{path}: not a readable .npy array of numbers: it is an archive")
    if array.ndim != 2:
        raise DataError(
            f"{path}: expected an array of days by instruments, got shape {array.shape}"
        )
    if array.dtype.kind not in "fiu":
        raise DataError(f"{path}: expected an array of numbers, got dtype {array.dtype}")
    days, instruments = array.shape
    check_table_size(path, days, instruments)
    names = tuple(map(str, range(instruments)))
    check_instrument_names(path, names, 1)
    if days == 0:
        raise DataError(f"{path}: empty table, expected a row for each day")
    return Table(np.array(array, dtype=np.float64, order="C"), names)


def write(path: Path, table: Table) -> None:
    """Write the numbers alone."""
    values = np.ascontiguousarray(table.values)
    with path.open("wb") as stream:
        np.lib.format.write_array_header_1_0(
            stream, np.lib.format.header_data_from_array_1_0(values)
        )
        # Not by way of NumPy, which does not say why a write failed.
        stream.write(values.data)
