"""Tables as a plain two-dimensional .npy array: no names, no dates."""

from __future__ import annotations

import warnings
from pathlib import Path
from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane.cli.errors import DataError, reason, shown
from quorvane.cli.limits import check_table_size
from quorvane.cli.table import Table, check_instrument_names

_NPY_MAGIC = b"\x93NUMPY"
_ZIP_MAGIC = b"PK"


def read(path: Path) -> Table:
    """Read an array of days by instruments; the instruments are named "0", "1", ... by column."""
    # Mapped first, so that the shape is known before any memory is taken.
    array = _mapped(path)
    if array.ndim != 2:
        raise DataError(
            f"{path}: expected an array of days by instruments, got shape {shown(array.shape)}"
        )
    if array.dtype.kind not in "fiu":
        raise DataError(f"{path}: expected an array of numbers, got dtype {reason(array.dtype)}")
    days, instruments = array.shape
    check_table_size(path, days, instruments)
    names = tuple(map(str, range(instruments)))
    check_instrument_names(path, names, 1)
    if days == 0:
        raise DataError(f"{path}: empty table, expected a row for each day")
    with np.errstate(all="ignore"):  # A longer float beyond the range is infinite.
        return Table(np.array(array, dtype=np.float64, order="C"), names)


def place_of(path: Path, day: int) -> str:
    """Where a day stands in the file, for an error text."""
    return f"{path}, row {day}"


def write(path: Path, table: Table) -> None:
    """Write the numbers alone."""
    values = np.ascontiguousarray(table.values)
    with path.open("wb") as stream:
        np.lib.format.write_array_header_1_0(
            stream, np.lib.format.header_data_from_array_1_0(values)
        )
        # Not by way of NumPy, which does not say why a write failed.
        stream.write(values.data)


def _mapped(path: Path) -> NDArray[Any]:
    try:
        with path.open("rb") as stream:
            magic = stream.read(len(_NPY_MAGIC))
        if magic == _NPY_MAGIC:
            with warnings.catch_warnings():
                warnings.simplefilter("ignore")
                return np.lib.format.open_memmap(path, mode="r")
    # The header is parsed as Python: a forged one may raise whatever the parser, the dtype or the
    # arithmetic with its numbers does, even MemoryError for a header that nests too deep.
    except Exception as error:
        raise _unreadable(path, reason(error)) from error
    raise _unreadable(
        path, "it is an archive" if magic.startswith(_ZIP_MAGIC) else "it does not begin as one"
    )


def _unreadable(path: Path, why: str) -> DataError:
    return DataError(f"{path}: not a readable .npy array of numbers: {why}")
