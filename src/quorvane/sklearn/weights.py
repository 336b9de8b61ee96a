"""One argument for baskets of every sort: weights as `Baskets` takes them, or a long table."""

from __future__ import annotations

from collections.abc import Iterator
from typing import Any

from quorvane.baskets import Baskets
from quorvane.hints import did_you_mean
from quorvane.tables.names import listed
from quorvane.tables.reading import frame_kind

# The columns that make a frame a long table.
_LONG = ("basket", "instrument", "weight")


def make_baskets(weights: Any, complete: Any, settings: dict[str, Any]) -> Baskets:
    """The baskets; a frame with the columns basket, instrument and weight has a row for each leg.

    Raises
    ------
    TypeError, ValueError
        As `Baskets` and `Baskets.from_long` do; and ``complete`` is said of weights without dates.
    """
    if not isinstance(complete, bool):
        raise TypeError(f"complete must be a bool, got {complete!r}")
    if isinstance(settings["instruments"], Iterator):
        raise TypeError(
            "instruments must be a list or a tuple of names, got an iterator, which can be read "
            "only once"
        )
    columns = _columns(weights)
    is_long = set(_LONG) <= set(columns)
    date = "date" if is_long and "date" in columns else None
    if not complete and date is None:
        raise ValueError(
            "complete=False is of weights that change by date: a frame with the columns date, "
            "basket, instrument and weight"
        )
    if not is_long:
        return Baskets(weights, **settings)
    if date is None:
        _refuse_others([*columns, *_index_names(weights)])
    return Baskets.from_long(weights, date=date, complete=complete, **settings)


def _columns(weights: Any) -> list[str]:
    """The names of a frame's columns that are text; none of anything else."""
    kind = frame_kind(weights, "weights")
    if kind is None:
        return []
    names = weights.column_names if kind == "pyarrow" else list(weights.columns)
    return [name for name in names if isinstance(name, str)]


def _index_names(weights: Any) -> list[str]:
    """What the levels of an index say that they are; one of dates says it by its type."""
    if frame_kind(weights, "weights") != "pandas":
        return []
    from quorvane.tables.pandas_columns import is_date_index

    names = [str(name) for name in weights.index.names if name is not None]
    return names or (["an index of dates"] if is_date_index(weights.index) else [])


def _refuse_others(columns: list[str]) -> None:
    """Without dates baskets never change, so whatever may be meant as one is an error."""
    others = [name for name in columns if name not in _LONG]
    if others:
        near = [name for name in others if did_you_mean("date", [name.lower()])]
        meant = f"; is {near[0]!r} meant as 'date'?" if near else ""
        raise ValueError(
            f"weights: a long table without a column 'date' has the columns {listed(_LONG)} and "
            f"no other, got {listed(others)} as well{meant}"
        )
