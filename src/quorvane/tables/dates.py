"""Dates of any library as nanoseconds, in UTC where they know their time zone."""

from __future__ import annotations

import re
from collections.abc import Hashable, Iterable
from datetime import date, datetime
from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane.tables.missing import is_missing

Dates = NDArray[np.datetime64]

ALLOWED = "an ISO date as text, a date, a datetime, a pandas.Timestamp or a numpy.datetime64"
_RANGE = "dates from 1677-09-22 to 2262-04-11"
_DAY = re.compile(r"\d{4}-\d\d-\d\d", re.ASCII)
_ISO = re.compile(
    r"(\d{4}-\d\d-\d\d)(?:[T ](\d\d:\d\d(?::\d\d(?:\.\d{1,9})?)?)(Z|[+-]\d\d:?\d\d)?)?"
)


def as_date(value: Any, argument: str = "date") -> tuple[np.datetime64, bool]:
    """Read one date: its nanoseconds, and whether it knew its time zone and is now in UTC.

    Parameters
    ----------
    value : str, datetime.date, datetime.datetime, pandas.Timestamp or numpy.datetime64
        Text is an ISO date, with or without a time and an offset. A pandas.Period is its start.
    argument : str
        What errors call the value.

    Returns
    -------
    tuple of numpy.datetime64 and bool
    """
    if is_missing(value):
        raise ValueError(f"{argument}: the date is missing, allowed is {ALLOWED}")
    moment, is_utc = _moment(value, argument)
    return to_nanoseconds(np.array([moment]), lambda _: argument)[0], is_utc


def to_nanoseconds(dates: Dates, where: Any) -> Dates:
    """Convert dates of any unit, none of them missing; ``where(row)`` opens an error's text."""
    gaps = np.isnat(dates)
    if gaps.any():
        raise ValueError(f"{where(int(gaps.argmax()))}: the date is missing")
    converted = _converted(dates)
    if converted is None:
        row = next(i for i in range(len(dates)) if _converted(dates[i : i + 1]) is None)
        raise ValueError(
            f"{where(row)}: the date {dates[row]} does not fit into nanoseconds, "
            f"allowed are {_RANGE}"
        )
    return converted


def _converted(dates: Dates) -> Dates | None:
    """The dates in nanoseconds; None where one does not fit."""
    try:
        converted = dates.astype("datetime64[ns]")
        # Before its version 2.5 NumPy wraps around silently: what fits comes back as it was.
        return converted if np.array_equal(converted.astype(dates.dtype), dates) else None
    except OverflowError:
        return None


def dates_of(values: Iterable[Any], where: Any) -> tuple[Dates, bool]:
    """Read dates given as objects, each distinct one once."""
    values = list(values)
    days = _plain_days(values)
    if days is not None:
        return to_nanoseconds(days, where), False
    known: dict[Any, tuple[np.datetime64, bool]] = {}
    read = []
    for row, value in enumerate(values):
        found = known.get(value) if isinstance(value, Hashable) else None
        if found is None:
            found = known[value] = as_date(value, where(row))
        read.append(found)
    zones = [is_utc for _, is_utc in read]
    if len(set(zones)) > 1:
        row = zones.index(not zones[0])
        raise ValueError(
            f"{where(row)}: dates with and without a time zone, allowed is one sort of them"
        )
    return np.array([moment for moment, _ in read], dtype="datetime64[ns]"), any(zones)


def _plain_days(values: list[Any]) -> Dates | None:
    """The dates of texts such as "2024-01-02", all at once; None where one is anything else."""
    if not values or not all(type(text) is str and _DAY.fullmatch(text) for text in values):
        return None
    try:
        return np.array(values, dtype="datetime64[D]")
    except ValueError:
        return None


def check_ascending(dates: Dates, argument: str) -> None:
    """Raise ValueError unless every date is later than the one before it."""
    late = dates[1:] <= dates[:-1]
    if late.any():
        row = int(late.argmax()) + 1
        raise ValueError(
            f"{argument}: row {row} has the date {date_text(dates[row])} after "
            f"{date_text(dates[row - 1])} in row {row - 1}, allowed are dates that ascend"
        )


def date_text(moment: np.datetime64, is_utc: bool = False) -> str:
    """Write a date as an ISO date, with its time only if it has one."""
    text = str(np.datetime_as_string(moment, unit="auto"))
    return f"{text}Z" if is_utc and "T" in text else text


def _moment(value: Any, argument: str) -> tuple[np.datetime64, bool]:
    value = getattr(value, "start_time", value)
    if isinstance(value, str):
        return _parsed(value, argument)
    if isinstance(value, np.datetime64):
        return value, False
    if isinstance(value, datetime):
        is_utc = value.tzinfo is not None
        if hasattr(value, "to_datetime64"):
            return value.to_datetime64(), is_utc
        # Not astimezone(): it fails at both ends of the calendar.
        offset = np.timedelta64(value.utcoffset() or 0, "us")
        return np.datetime64(value.replace(tzinfo=None), "us") - offset, is_utc
    if isinstance(value, date):
        return np.datetime64(value), False
    raise TypeError(f"{argument}: got {value!r} ({type(value).__name__}), allowed is {ALLOWED}")


def _parsed(text: str, argument: str) -> tuple[np.datetime64, bool]:
    match = _ISO.fullmatch(text)
    try:
        if match is None:
            raise ValueError
        moment = np.datetime64(f"{match[1]}T{match[2]}" if match[2] else match[1])
    except ValueError:
        raise ValueError(f"{argument}: got {text!r}, allowed is {ALLOWED}") from None
    offset = match[3]
    if offset is None or offset == "Z":
        return moment, offset is not None
    minutes = int(offset[1:3]) * 60 + int(offset[-2:])
    return moment - np.timedelta64(-minutes if offset[0] == "-" else minutes, "m"), True
