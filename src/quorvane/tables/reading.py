"""Which kind of table is given, and its reader."""

from __future__ import annotations

import sys
from typing import Any

from quorvane.tables.arrays import KINDS, ArrayTable, as_array
from quorvane.tables.table import Table

_FRAMES = ("DataFrame", "LazyFrame", "Table")


def read_table(table: Any, *, date: Any = None, argument: str = "table") -> Table:
    """Read days by instruments.

    Parameters
    ----------
    table : array_like, pandas.DataFrame, polars.DataFrame or pyarrow.Table
        Lists of rows are arrays. Lazy tables are refused.
    date : column name or array_like of dates, optional
        The column of dates, which is found by its type unless given; for an array the dates
        themselves, one per row. The index of pandas goes first if it holds dates.
    argument : str
        What errors call the table.

    Returns
    -------
    Table
    """
    kind = frame_kind(table, argument)
    if kind is None:
        return ArrayTable(as_array(table, argument), date, argument)
    return read_frame(table, kind, date, argument, optional=False)


def read_frame(table: Any, kind: str, date: Any, argument: str, *, optional: bool) -> Table:
    """The table of a frame; several columns of dates are an error unless dates are optional."""
    if kind == "pandas":
        from quorvane.tables.pandas_tables import PandasTable

        return PandasTable(table, date, argument, optional=optional)
    from quorvane.tables.narwhals_tables import NarwhalsTable

    return NarwhalsTable(table, kind, date, argument, optional=optional)


def frame_kind(table: Any, argument: str) -> str | None:
    """The library that an eager table of rows and columns is of, None for anything else."""
    pandas = sys.modules.get("pandas")
    if pandas is not None and isinstance(table, pandas.DataFrame):
        return "pandas"
    library = type(table).__module__.partition(".")[0]
    if library in ("builtins", "numpy", "pandas"):
        return None
    try:
        import narwhals as nw
    except ImportError:
        _refuse_without_narwhals(table, library, argument)
        return None
    if library != "narwhals" and nw.dependencies.is_polars_dataframe(table):
        return "polars"
    if library != "narwhals" and nw.dependencies.is_pyarrow_table(table):
        return "pyarrow"
    frame = nw.from_native(table, pass_through=True)
    if isinstance(frame, nw.LazyFrame):
        raise TypeError(f"{argument} is lazy; collect it first, allowed are {KINDS}")
    if isinstance(frame, nw.DataFrame):
        raise TypeError(f"{argument}: got a table of {library}, allowed are {KINDS}")
    return None


def _refuse_without_narwhals(table: Any, library: str, argument: str) -> None:
    if library in ("polars", "pyarrow") and type(table).__name__ in _FRAMES:
        raise ImportError(
            f"{argument}: a table of {library} needs narwhals; "
            f"install it with: pip install 'quorvane[frames]'"
        )
