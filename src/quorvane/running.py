"""Any rotation over labelled tables."""

from __future__ import annotations

from collections.abc import Callable, Hashable, Iterable
from typing import Any, TypeVar

import numpy as np

from quorvane.baskets.progress import progress_bar
from quorvane.baskets.weights import given_names
from quorvane.functions.rotations.virtualization.base import VirtualizationBase
from quorvane.functions.rotations.virtualization.history import replay_history
from quorvane.reports import first_report_checked
from quorvane.tables import Table, read_table

T = TypeVar("T")


def run(
    rotation: VirtualizationBase | Callable[[], VirtualizationBase],
    *tables: T,
    instruments: Iterable[Hashable] | None = None,
) -> T:
    """Run a rotation of one's own over whole tables, from where it stands.

    The report of the first day is looked at closely: legs outside the instruments, and structures
    without a value, which the base class takes for inactive, are errors here. An error of the
    rotation itself comes with a note that says on which row it arose.

    Parameters
    ----------
    rotation : rotation, or callable that makes one
        A callable gives a fresh start each time.
    *tables : frames of pandas, polars or pyarrow, or array_like of days x instruments
        As many as the rotation takes inputs, with the same rows. Columns are found by name.
    instruments : iterable of names, optional
        The rotation's columns, in order. By default the rotation's own ``instruments`` where it has
        such, else the columns of the first table.

    Returns
    -------
    table
        Of the first one's kind, with the same rows; a column that is no instrument comes out
        missing.

    Raises
    ------
    TypeError
        The first argument is no rotation and makes none, or there is no table.
    ValueError
        The tables differ in their rows, an instrument is missing, or a number is infinite.
    """
    mine = _rotation_of(rotation)
    if not tables:
        raise TypeError("run() needs at least one table")
    read = [read_table(table, argument=_argument(i, len(tables))) for i, table in enumerate(tables)]
    first = read[0]
    for i, other in enumerate(read[1:], start=1):
        _refuse_other_rows(first, other, _argument(i, len(tables)))
    names = _instruments_of(mine, first, instruments)
    matrices = [table.matrix(names) for table in read]
    if first.rows == 0:
        return first.fill(np.empty((0, len(names))), names)  # type: ignore[no-any-return]
    return first.fill(_replayed(mine, matrices, first), names)  # type: ignore[no-any-return]


def _replayed(rotation: VirtualizationBase, matrices: list[Any], table: Table) -> Any:
    done = 0

    with progress_bar("quorvane") as bar:

        def progress(days_done: int, days: int) -> None:
            nonlocal done
            done = days_done
            if bar is not None:
                bar(days_done, days)

        try:
            with first_report_checked(rotation, matrices[0].shape[1]):
                return replay_history(rotation, *matrices, progress=progress)
        except Exception as error:
            error.add_note(f"in run(), on {table.label(min(done, table.rows - 1))}")
            raise


def _rotation_of(rotation: Any) -> VirtualizationBase:
    # A rotation can be called too, with a day.
    made = rotation if isinstance(rotation, VirtualizationBase) else None
    if made is None and callable(rotation):
        made = rotation()
    if not isinstance(made, VirtualizationBase):
        raise TypeError(
            f"rotation must be a rotation, or a callable that makes one, got {rotation!r}"
        )
    return made


def _instruments_of(
    rotation: VirtualizationBase, table: Table, given: Iterable[Hashable] | None
) -> tuple[Hashable, ...]:
    names = given_names(given)
    if names is not None:
        return names
    own = getattr(rotation, "instruments", None)
    if isinstance(own, tuple):
        return own
    return tuple(range(table.width)) if table.names is None else table.names


def _refuse_other_rows(first: Table, other: Table, argument: str) -> None:
    if first.rows != other.rows:
        raise ValueError(f"{argument} has {other.rows} rows, the first table has {first.rows}")
    if first.dates is None or other.dates is None:
        return
    different = np.flatnonzero(first.dates != other.dates)
    if len(different):
        row = int(different[0])
        raise ValueError(
            f"{argument}: row {row} is of {other.label(row)}, that of the first table of "
            f"{first.label(row)}"
        )


def _argument(i: int, count: int) -> str:
    return "table" if count == 1 else f"table {i + 1}"
