"""Numbers of any sort as float64 in C order, at the cost of one copy or none."""

from __future__ import annotations

import math
from collections.abc import Callable, Hashable, Iterable, Iterator, Sequence
from decimal import Decimal
from numbers import Real
from typing import Any

import numpy as np
from numpy.typing import ArrayLike, NDArray

from quorvane.tables.missing import is_missing

Floats = NDArray[np.float64]

ALLOWED = "allowed are numbers and missing values"
# Squares of this side are transposed within the fast caches.
_SIDE = 128
# Elements looked at in one go: their flags stay in the cache.
_STRIP = 1 << 17


def numbers_of(values: Sequence[Any], what: str, label: Callable[[int], str]) -> Floats:
    """Read numbers given as objects; errors say ``what`` holds the value at ``label(i)``."""
    strange = {
        kind for kind in set(map(type, values)) if not issubclass(kind, Real | Decimal | np.bool_)
    }
    if strange:
        for i, value in enumerate(values):
            if type(value) in strange and not is_missing(value):
                raise TypeError(
                    f"{what} holds {value!r} ({type(value).__name__}) at {label(i)}, {ALLOWED}"
                )
        values = [math.nan if type(value) in strange else value for value in values]
    try:
        return np.array(values, dtype=np.float64)
    except OverflowError:
        return np.array([_float(value) for value in values])


def gathered(blocks: Iterable[Floats], rows: int, width: int) -> tuple[Floats, bool]:
    """Columns that come in blocks of columns by rows, as one matrix of rows by columns.

    The second result says whether none of them is infinite.
    """
    matrix = np.empty((rows, width))
    is_finite, start = True, 0
    for block in blocks:
        stop = start + len(block)
        is_finite = is_finite and not has_infinity(block)
        for row in range(0, rows, _SIDE):
            matrix[row : row + _SIDE, start:stop] = block[:, row : row + _SIDE].T
        start = stop
    return matrix, is_finite


def c_ordered(values: Floats) -> tuple[Floats, bool]:
    """The same values in C order, as they are if they are so already; and if none is infinite."""
    if values.flags.c_contiguous:
        return values, not has_infinity(values)
    rows, width = values.shape
    return gathered((values.T[i : i + _SIDE] for i in range(0, width, _SIDE)), rows, width)


def stacked(columns: Iterable[Floats], rows: int, width: int) -> tuple[Floats, bool]:
    """The matrix of these columns; and whether none of them is infinite."""
    return gathered(_blocks(columns, rows), rows, width)


def _blocks(columns: Iterable[Floats], rows: int) -> Iterator[Floats]:
    block, filled = np.empty((_SIDE, rows)), 0
    for column in columns:
        block[filled] = column
        filled += 1
        if filled == _SIDE:
            yield block
            filled = 0
    yield block[:filled]


def has_infinity(values: Floats) -> bool:
    """Whether any of the values is infinite."""
    rows, width = values.shape
    step = max(1, _STRIP // max(width, 1))
    flags = np.empty((min(step, rows), width), dtype=bool)
    for row in range(0, rows, step):
        strip = values[row : row + step]
        if np.isinf(strip, out=flags[: len(strip)]).any():
            return True
    return False


def check_finite(
    matrix: Floats,
    instruments: Sequence[Hashable],
    used: ArrayLike | None,
    argument: str,
    label: Callable[[int], str],
) -> None:
    """Raise ValueError that names the first infinite number of the used columns."""
    infinite = np.isinf(matrix)
    if used is not None:
        infinite &= np.asarray(used, dtype=bool)
    if infinite.any():
        row, column = (int(i) for i in np.argwhere(infinite)[0])
        raise ValueError(
            f"{argument}: {instruments[column]!r} holds {matrix[row, column]} at {label(row)}, "
            f"allowed are finite numbers and missing values"
        )


def check_used(used: ArrayLike | None, count: int) -> None:
    """Raise ValueError unless ``used`` has a flag for each of the instruments."""
    if used is not None and np.shape(used) != (count,):
        raise ValueError(
            f"used: got the shape {np.shape(used)}, allowed is a flag for each of {count} "
            f"instruments"
        )


def checked_result(result: ArrayLike, shape: tuple[int, ...], argument: str) -> Floats:
    """The result as float64 in C order, if its shape is the one wanted."""
    values = np.asarray(result, dtype=np.float64, order="C")
    if values.shape != shape:
        raise ValueError(f"{argument}: got the shape {values.shape}, allowed is {shape}")
    return values


def spread(values: Floats, positions: Sequence[int], width: int) -> Floats:
    """Put the last axis's values at their positions of ``width``, NaN elsewhere."""
    if list(positions) == list(range(width)):
        return values
    if not positions:
        return np.full((*values.shape[:-1], width), math.nan)
    # Taking is twice as fast as putting; what has no source takes the last and is written over.
    source = np.full(width, -1)
    source[list(positions)] = np.arange(len(positions))
    wide = values.take(source, axis=-1, mode="wrap")
    wide[..., source < 0] = math.nan
    return wide


def _float(value: Any) -> float:
    try:
        return float(value)
    except OverflowError:
        return math.inf if value > 0 else -math.inf
