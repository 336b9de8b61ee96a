"""The days of a table on a picture's horizontal axis."""

from __future__ import annotations

import re
from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane.cli.drawn_text import drawable
from quorvane.cli.libraries import require_library
from quorvane.cli.table import Table

_ISO_DATE = re.compile(r"\d{4}-\d{2}-\d{2}([T ].*)?")
_COMPACT_DATE = re.compile(r"\d{8}")
# A picture's calendar knows the years 1 to 9999, and its axis reaches a little beyond the days.
_FIRST_DATE, _END_DATE = np.datetime64("0002-01-01"), np.datetime64("9999-01-01")
_SECONDS_LENGTH = len("2000-01-01T00:00:00")


class TimeAxis:
    """Positions of the days: calendar dates when the labels are dates in order, else day numbers.

    ``positions`` are matplotlib's date numbers or the numbers 0, 1, 2, ...
    """

    def __init__(self, table: Table) -> None:
        self._labels = None if table.dates is None else table.dates.text
        calendar = None if table.dates is None else parse_dates(table.dates.text)
        self.is_calendar = calendar is not None
        if calendar is not None:
            dates = require_library("matplotlib.dates", "drawing a picture")
            self.positions: NDArray[np.float64] = np.asarray(dates.date2num(calendar))
        else:
            self.positions = np.arange(table.values.shape[0], dtype=np.float64)

    def format(self, axes: Any) -> None:
        """Set the axis's range, ticks and tick labels."""
        ticker = require_library("matplotlib.ticker", "drawing a picture")
        first, last = float(self.positions[0]), float(self.positions[-1])
        axes.set_xlim(first, last if last > first else first + 1.0)
        if self.is_calendar:
            dates = require_library("matplotlib.dates", "drawing a picture")
            locator = dates.AutoDateLocator(minticks=6, maxticks=14)
            axes.xaxis.set_major_locator(locator)
            axes.xaxis.set_major_formatter(dates.ConciseDateFormatter(locator))
        else:
            axes.xaxis.set_major_locator(ticker.MaxNLocator(10, integer=True))
            axes.xaxis.set_major_formatter(ticker.FuncFormatter(self._day_label))

    def _day_label(self, position: float, _: int | None) -> str:
        day = round(position)
        if self._labels is None:
            return f"day {day}"
        return drawable(self._labels[day]) if 0 <= day < len(self._labels) else ""


def parse_dates(text: tuple[str, ...]) -> NDArray[np.datetime64] | None:
    """The labels as dates when all are ISO dates (2000-01-31 or 20000131) in order, else None."""
    if all(_COMPACT_DATE.fullmatch(label) for label in text):
        text = tuple(f"{label[:4]}-{label[4:6]}-{label[6:]}" for label in text)
    if not all(_ISO_DATE.fullmatch(label) for label in text):
        return None
    try:
        # A time zone is left out; it shifts every day alike.
        dates = np.array([label[:_SECONDS_LENGTH] for label in text], dtype="datetime64[s]")
    except ValueError:
        return None
    if dates[0] < _FIRST_DATE or dates[-1] >= _END_DATE:
        return None
    return dates if bool(np.all(dates[1:] > dates[:-1])) else None
