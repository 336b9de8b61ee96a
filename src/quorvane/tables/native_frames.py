"""What polars and pyarrow each do in their own way: building a frame, names given twice."""

from __future__ import annotations

import sys
from collections import Counter
from collections.abc import Sequence
from typing import Any

import narwhals as nw
import numpy as np
from numpy.typing import NDArray

from quorvane.tables.numbers import Floats, c_ordered


def column_names(native: Any, kind: str) -> tuple[str, ...]:
    """The columns' names, with those given twice."""
    return tuple(native.columns if kind == "polars" else native.column_names)


def once_named(native: Any, names: Sequence[str]) -> Any:
    """The frame for narwhals, without names given twice: it takes none of them."""
    if len(set(names)) < len(names):
        counts = Counter(names)
        native = native.select([i for i, name in enumerate(names) if counts[name] == 1])
    return nw.from_native(native, eager_only=True)


def column_at(native: Any, position: int, kind: str) -> Any:
    """A column in the library's own form."""
    return native.to_series(position) if kind == "polars" else native.column(position)


def number_columns(matrix: Floats, names: Sequence[str], kind: str) -> list[Any]:
    """The matrix's columns in the library's own form, null where NaN."""
    columns = c_ordered(matrix.T)[0]
    if kind == "polars":
        make = sys.modules["polars"].Series
        return [
            make(name, column, nan_to_null=True)
            for name, column in zip(names, columns, strict=True)
        ]
    gaps: NDArray[np.bool_] = np.asarray(np.isnan(columns).any(axis=1))
    # Without a gap there is nothing to convert, and pyarrow takes the memory as it is.
    make = sys.modules["pyarrow"].array
    return [make(column, from_pandas=bool(gap)) for column, gap in zip(columns, gaps, strict=True)]


def any_column(values: Sequence[Any], name: str, kind: str) -> Any:
    """A column of texts or of numbers in the library's own form, null where NaN."""
    array = np.asarray(values)
    if array.dtype.kind == "f":
        return number_columns(array.astype(np.float64).reshape(-1, 1), [name], kind)[0]
    items = [None if item != item else item for item in values]
    if kind == "polars":
        return sys.modules["polars"].Series(name, items)
    return sys.modules["pyarrow"].array(items)


def frame_of(columns: Sequence[Any], names: Sequence[str], kind: str) -> Any:
    """A frame of columns in the library's own form."""
    if kind == "polars":
        return sys.modules["polars"].DataFrame(list(columns))
    return sys.modules["pyarrow"].Table.from_arrays(list(columns), names=list(names))
