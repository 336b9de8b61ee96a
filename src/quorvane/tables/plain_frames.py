"""A plain frame of a kind, where there is no table to take it from."""

from __future__ import annotations

import importlib
from collections.abc import Mapping, Sequence
from typing import Any

import numpy as np


def frame_of_kind(kind: str, columns: Mapping[str, Sequence[Any]]) -> Any:
    """A frame of these columns, of the kind that tables and rows say they are."""
    if kind == "pandas":
        return importlib.import_module("pandas").DataFrame(dict(columns))
    if kind in ("polars", "pyarrow"):
        importlib.import_module(kind)
        from quorvane.tables.native_frames import any_column, frame_of

        made = [any_column(values, name, kind) for name, values in columns.items()]
        return frame_of(made, tuple(columns), kind)
    if kind == "mapping":
        return {name: np.asarray(values).tolist() for name, values in columns.items()}
    return _structured(columns)


def _structured(columns: Mapping[str, Sequence[Any]]) -> np.ndarray[Any, Any]:
    """Plain columns as a structured array, text as objects."""
    arrays = {name: np.asarray(values) for name, values in columns.items()}
    fields = [
        (name, values.dtype if values.dtype.kind in "biufM" else np.dtype(object))
        for name, values in arrays.items()
    ]
    result = np.empty(max(map(len, arrays.values()), default=0), dtype=fields)
    for name, values in columns.items():
        result[name] = values
    return result
