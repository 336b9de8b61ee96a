"""A CSV table's rows by pyarrow's parallel parser, when they hold no fault."""

from __future__ import annotations

import io
import os
from collections.abc import Sequence
from pathlib import Path
from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane.cli import limits

_BLOCK_BYTES = 1 << 26
_CELL_BYTES = 33
_CHARACTER_BYTES = 4


def read_rows(
    path: Path,
    head_lines: int,
    width: int,
    has_dates: bool,
    missing: Sequence[str],
    separator: str = ",",
) -> tuple[NDArray[np.float64], tuple[str, ...] | None] | None:
    """The numbers and the dates below the header, or None.

    None stands for any fault, and for what might take more memory than the limits allow: then
    the rows must be read one by one, which names the fault by its line.
    """
    import pyarrow

    try:
        with _open(path, width - has_dates, has_dates) as stream:
            columns = _parse(stream, head_lines, width, has_dates, missing, separator)
    except MemoryError:
        raise
    except (pyarrow.ArrowException, OSError, _BeyondLimitsError):
        return None
    max_days = _max_days(width - has_dates, has_dates)
    if columns.num_columns != width or columns.num_rows > max_days:
        return None
    values = _numbers(columns, has_dates)
    if values is None:
        return None
    if not has_dates:
        return values, None
    dates = tuple(columns.column(0).to_pylist())
    return None if max(map(len, dates), default=0) > limits.MAX_NAME_LENGTH else (values, dates)


def _max_days(instruments: int, has_dates: bool) -> int:
    days = limits.MAX_CELLS // instruments
    return min(days, limits.MAX_DATED_DAYS) if has_dates else days


def _parse(
    stream: Any,
    head_lines: int,
    width: int,
    has_dates: bool,
    missing: Sequence[str],
    separator: str,
) -> Any:
    import pyarrow
    from pyarrow import csv as arrow_csv

    types = {f"f{column}": pyarrow.float64() for column in range(width)}
    if has_dates:
        types["f0"] = pyarrow.string()
    return arrow_csv.read_csv(
        stream,
        read_options=arrow_csv.ReadOptions(
            skip_rows=head_lines, autogenerate_column_names=True, block_size=_BLOCK_BYTES
        ),
        parse_options=arrow_csv.ParseOptions(delimiter=separator),
        convert_options=arrow_csv.ConvertOptions(
            column_types=types, null_values=list(missing), strings_can_be_null=False
        ),
    )


def _numbers(columns: Any, has_dates: bool) -> NDArray[np.float64] | None:
    """The columns side by side; None when pyarrow took a cell for NaN that marks nothing missing.

    Such a cell may be ``-nan``, which is a number, or ``nan(1)``, which is none elsewhere.
    """
    skip = 1 if has_dates else 0
    values = np.empty((columns.num_rows, columns.num_columns - skip))
    for target in range(values.shape[1]):
        column = columns.column(target + skip)
        numbers = column.to_numpy()
        if np.count_nonzero(numbers != numbers) != column.null_count:
            return None
        values[:, target] = numbers
    return values


def _open(path: Path, instruments: int, has_dates: bool) -> Any:
    """The file's text for pyarrow, counted unless it is too short to hold too many cells."""
    import pyarrow

    # Named by its bytes, since pyarrow takes a name to be UTF-8.
    file = pyarrow.OSFile(os.fsencode(path))
    if path.name.lower().endswith(".gz"):
        return _Counted(pyarrow.CompressedInputStream(file, "gzip"), instruments, has_dates)
    return file if file.size() <= limits.MAX_CELLS else _Counted(file, instruments, has_dates)


class _BeyondLimitsError(Exception):
    """The rows read so far may be more than the command takes on."""


class _Counted(io.BufferedIOBase):
    """A stream for pyarrow, which holds all rows before anyone can count them.

    The lines are counted as they pass, and their average length: a line is at most a row, and
    holds at most a date of the longest kind and 33 characters a cell.
    """

    def __init__(self, stream: Any, instruments: int, has_dates: bool) -> None:
        self._stream = stream
        self._max_lines = _max_days(instruments, has_dates)
        self._line_bytes = _CELL_BYTES * instruments
        if has_dates:
            self._line_bytes += _CHARACTER_BYTES * limits.MAX_NAME_LENGTH
        self._spare = _CHARACTER_BYTES * limits.MAX_ROW_LENGTH
        self._lines = 0

    def readable(self) -> bool:
        """Say so to pyarrow."""
        return True

    def read(self, size: int | None = -1) -> bytes:
        """Read on, or raise when the limits may have been passed."""
        block: bytes = self._stream.read(size)
        # Lines may end with either character, or with both.
        lines = max(block.count(b"\n"), block.count(b"\r"))
        self._lines += lines
        self._spare += self._line_bytes * lines - len(block)
        if self._lines > self._max_lines or self._spare < 0:
            raise _BeyondLimitsError
        return block
