"""The days' labels as dates: whether they are some, in which order, and which day is which."""

from __future__ import annotations

import re
from collections.abc import Callable, Sequence
from dataclasses import dataclass, replace

import numpy as np
from numpy.typing import NDArray

from quorvane.cli.errors import DataError, shown
from quorvane.cli.table import Table
from quorvane.counting import counted
from quorvane.tables.dates import as_date, dates_of, to_nanoseconds

_COMPACT = re.compile(r"\d{8}", re.ASCII)
_ISO_START = re.compile(r"\d{4}-\d\d-\d\d([T ]|$)", re.ASCII)
_CENTURIES = ("17", "18", "19", "20", "21")
# Dates with times fit into nanoseconds in these years.
_FIRST_YEAR, _LAST_YEAR = "1678", "2261"
_TIMED = re.compile(r"\d{4}-\d\d-\d\d[T ]\d\d:\d\d(:\d\d(\.\d{1,9})?)?", re.ASCII)
_MIDNIGHT = re.compile(r"(?<=\d{4}-\d\d-\d\d) 00:00(:00(\.0+)?)?$", re.ASCII)

Place = Callable[[int], str]
"""Where in its file a label stands, for an error text."""


@dataclass(frozen=True)
class Moments:
    """Dates of one sort: ``values`` in days or nanoseconds, in UTC when ``is_utc``."""

    values: NDArray[np.datetime64]
    is_utc: bool

    def nanoseconds(self, place: Place) -> NDArray[np.datetime64]:
        """The dates as datetime64[ns]; DataError for one that does not fit."""
        try:
            return to_nanoseconds(self.values, place)
        except ValueError as error:
            raise DataError(str(error)) from error


def looks_like_date(label: str) -> bool:
    """Whether a label is written as dates are: 2000-01-31, with or without a time, or 20000131."""
    text = label.strip()
    return bool(_ISO_START.match(text) or _is_compact(text))


def canonical(label: str) -> str:
    """One way of writing a day, so that 20000131 and 2000-01-31 00:00:00 are the same one."""
    return _MIDNIGHT.sub("", _expanded(label.strip()).replace("T", " "))


def moments_of(labels: Sequence[str], place: Place) -> Moments:
    """The labels as dates; DataError with the place of the first that is none."""
    texts = [_expanded(label.strip()) for label in labels]
    plain = _plain_moments(texts)
    if plain is not None:
        return Moments(plain, False)
    try:
        return Moments(*dates_of(texts, place))
    except ValueError as error:
        for row, text in enumerate(texts):
            if not _is_date(text):
                told = f"expected a date such as 2000-01-31, got {shown(labels[row])}"
                raise DataError(f"{place(row)}: {told}") from error
        raise DataError(str(error)) from error


def table_moments(table: Table, place: Place) -> Moments | None:
    """The days' dates, None where the table has labels that are none, or no labels.

    Raises
    ------
    DataError
        Some labels are dates and others are not.
    """
    if table.dates is None or not any(map(looks_like_date, table.dates.text)):
        return None
    return moments_of(table.dates.text, place)


def in_order(
    table: Table, moments: Moments | None, place: Place, *, sort: bool
) -> tuple[Table, Moments | None]:
    """The table and its dates, which ascend: checked, or sorted when that is wanted.

    Raises
    ------
    DataError
        A date comes before the one above it, or twice; there is nothing to sort by.
    """
    if moments is None:
        if sort:
            what = "no dates" if table.dates is None else f"{shown(table.dates.text[0])}, no date"
            raise DataError(f"{place(0)}: --sort sorts days by their dates, got {what}")
        return table, None
    order: NDArray[np.intp] = np.arange(len(moments.values))
    if sort:
        order = np.argsort(moments.values, kind="stable")
    values = moments.values[order]
    late = np.flatnonzero(values[1:] <= values[:-1])
    if len(late):
        before, row = int(order[late[0]]), int(order[late[0] + 1])
        _refuse(table, place, before, row, is_same=values[late[0]] == values[late[0] + 1])
    if not sort or bool(np.all(order[1:] > order[:-1])):
        return table, moments
    return _taken(table, order), Moments(values, moments.is_utc)


def _refuse(table: Table, place: Place, before: int, row: int, *, is_same: bool) -> None:
    label, other = shown(table.label(row)), shown(table.label(before))
    # Only the rows of the day itself are named by their places: finding one means reading again.
    if is_same:
        raise DataError(f"{place(row)}: the date {label} comes twice, expected each date once")
    raise DataError(
        f"{place(row)}: the date {label} comes after {other}, expected dates that ascend; "
        f"--sort sorts the days"
    )


def _taken(table: Table, order: NDArray[np.intp]) -> Table:
    dates = table.dates
    assert dates is not None
    text = tuple(dates.text[row] for row in order.tolist())
    arrow = None if dates.arrow is None else dates.arrow.take(order)
    moved = int(np.count_nonzero(order != np.arange(len(order))))
    return replace(
        table,
        values=table.values[order],
        dates=replace(dates, text=text, arrow=arrow),
        taken=(*table.taken, f"sorted by date, {counted(moved, 'day')} moved"),
    )


def _is_date(text: str) -> bool:
    """Whether a text is a date, in whatever year."""
    try:
        # The time and its offset as in the year 2000, which fits into nanoseconds.
        as_date(f"2000{text[4:]}")
        np.datetime64(text[:10], "D")
    except ValueError:
        return False
    return _ISO_START.match(text) is not None


def _is_compact(text: str) -> bool:
    if _COMPACT.fullmatch(text) is None:
        return False
    # Numbers of eight digits may count something else.
    return text[:2] in _CENTURIES and "01" <= text[4:6] <= "12" and "01" <= text[6:] <= "31"


def _expanded(text: str) -> str:
    return f"{text[:4]}-{text[4:6]}-{text[6:]}" if _COMPACT.fullmatch(text) else text


def _plain_moments(texts: list[str]) -> NDArray[np.datetime64] | None:
    """The dates of texts without an offset, all at once; None where one is anything else."""
    unit = None
    if all(_ISO_START.match(text) and len(text) == 10 for text in texts):
        unit = "D"
    elif all(_TIMED.fullmatch(text) for text in texts):
        years = [text[:4] for text in texts]
        unit = "ns" if _FIRST_YEAR <= min(years) and max(years) <= _LAST_YEAR else None
    if unit is None:
        return None
    try:
        return np.array(texts, dtype=f"datetime64[{unit}]")
    except ValueError:
        return None
