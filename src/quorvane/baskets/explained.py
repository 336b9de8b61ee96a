"""Where an instrument's signal comes from."""

from __future__ import annotations

from collections.abc import Hashable
from typing import TYPE_CHECKING, Any

import numpy as np

from quorvane.baskets.course import Course
from quorvane.baskets.rotation import BasketRotation
from quorvane.baskets.standing import Standing
from quorvane.tables import Table, as_date, frame_of_kind, read_table

if TYPE_CHECKING:
    from quorvane.baskets.front import Baskets


def explain(baskets: Baskets, instrument: Hashable, date: Any, returns: Any) -> Any:
    """The frame that `Baskets.explain` gives."""
    if returns is None:
        if date is not None and not _is_last(baskets, date):
            raise LookupError(
                f"date {date!r} is not the last computed day: give the returns up to it as well"
            )
        course, kind = baskets._course, baskets._standing.kind
        if course is None or baskets._standing.days == 0:
            raise LookupError("no day was computed yet: run() first, or give the returns")
    else:
        table = read_table(returns, argument="returns")
        course = _run_until(baskets, table, _row_of(table, date))
        kind = table.kind
    columns = last_day(course.rotation, _column_of(course, instrument))
    return frame_of_kind(kind, columns)


def last_day(rotation: BasketRotation, column: int) -> dict[str, Any]:
    """The columns of that frame for an instrument's number, on the rotation's last day."""
    chain = rotation.chain
    entered, left = rotation._txi_input, rotation._txi_output
    by_function = chain.left()
    speaking = chain.attendance.speaking()
    rows = []
    for slot, legs in sorted(rotation._legs_by_slot.items()):
        weight = dict(legs).get(column)
        if weight is None or not (speaking[slot] and np.isfinite(left[slot])):
            continue
        share = weight
        if rotation.unmap_policy == "equal_split":
            share = (1.0 if weight >= 0.0 else -1.0) / len(legs)
        stages = [float(row[slot]) for row in by_function]
        name = rotation.key_by_slot[slot][0]
        rows.append((name, weight, float(entered[slot]), *stages, float(left[slot]) * share))
    names = ["basket", "weight", "value", *_distinct(chain.texts), "contribution"]
    columns = list(zip(*rows, strict=True)) if rows else [()] * len(names)
    return {
        name: list(column) if name == "basket" else np.array(column, dtype=np.float64)
        for name, column in zip(names, columns, strict=True)
    }


def _distinct(texts: tuple[str, ...]) -> list[str]:
    """The functions' texts, those that come again with their number."""
    seen: dict[str, int] = {}
    names = []
    for text in texts:
        seen[text] = seen.get(text, 0) + 1
        names.append(text if seen[text] == 1 else f"{text} ({seen[text]})")
    return names


def _column_of(course: Course, instrument: Hashable) -> int:
    try:
        return course.book.instruments.index(instrument)
    except ValueError:
        raise LookupError(f"there is no instrument {instrument!r}") from None


def _run_until(baskets: Baskets, table: Table, row: int) -> Course:
    """A course of its own, on that row."""
    other = type(baskets).__new__(type(baskets))
    vars(other).update(vars(baskets))
    book = other._book_for(table)
    course = other._new_course(book)
    other._advance(course, Standing(), table.first(row + 1), "instrument")
    return course


def _row_of(table: Table, date: Any) -> int:
    if date is None:
        if table.rows == 0:
            raise LookupError("returns has no rows")
        return table.rows - 1
    if table.dates is not None:
        wanted, _ = as_date(date)
        found = np.flatnonzero(table.dates == wanted)
    else:
        labels = [table.label(row) for row in range(table.rows)]
        found = np.flatnonzero(np.isin(labels, [str(date), f"row {date}"]))
    if not len(found):
        raise LookupError(f"there is no day {date!r} in returns")
    return int(found[0])


def _is_last(baskets: Baskets, date: Any) -> bool:
    last = baskets._standing.last_date
    return last is not None and as_date(date)[0] == last
