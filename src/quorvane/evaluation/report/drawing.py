"""Figures of matplotlib in one style, and their horizontal axis of days."""

from __future__ import annotations

import importlib
import io
import re
import warnings
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane.evaluation.report.text import day_text

INK, MUTED, FAINT, EMPTY = "#22262b", "#5f6773", "#c9ced6", "#e3e6ea"
LONG, MIDDLE, SHORT = "#0063a6", "#a9b0b9", "#c23b4e"
LINES = (LONG, "#2e8b57", "#b7791f", "#7b3fa0", "#c23b4e", "#3d4852")
STYLE = {
    "font.family": "sans-serif",
    "font.size": 9.5,
    "text.color": INK,
    "axes.labelcolor": MUTED,
    "axes.edgecolor": FAINT,
    "axes.linewidth": 0.8,
    "axes.spines.top": False,
    "axes.spines.right": False,
    "xtick.color": MUTED,
    "ytick.color": MUTED,
    "xtick.labelsize": 9.0,
    "ytick.labelsize": 9.0,
    "grid.color": EMPTY,
    "grid.linewidth": 0.8,
    "legend.frameon": False,
    "legend.fontsize": 9.0,
    # Names are shown as they are, a dollar sign included.
    "text.parse_math": False,
    # Text of a page is text: it can be searched, and its font is the page's.
    "svg.fonttype": "none",
}

_TAG = re.compile("<[^>]*>")
# Where an element's name, or a reference to one, begins: a page has each name once.
_ID = re.compile(r'(?<= id=")|(?<=url\(#)|(?<=href="#)')

# A picture's calendar knows the years 1 to 9999, and its axis reaches a little beyond the days.
_FIRST_DATE, _END_DATE = np.datetime64("0002-01-01", "s"), np.datetime64("9999-01-01", "s")


def matplotlib(part: str) -> Any:
    """A module of matplotlib.

    Raises
    ------
    ImportError
        It is not there.
    """
    try:
        return importlib.import_module(part)
    except ImportError as error:
        raise ImportError(
            "a report is drawn with matplotlib: pip install 'quorvane[evaluation]'"
        ) from error


@contextmanager
def style(salt: str) -> Iterator[None]:
    """The style of all figures; the salt keeps the names in a page's many pictures apart."""
    settings = {**STYLE, "svg.hashsalt": salt}
    with matplotlib("matplotlib").rc_context(settings), warnings.catch_warnings():
        # A name in a script that the font lacks is drawn as boxes; that is no fault of ours.
        warnings.filterwarnings("ignore", message="Glyph")
        yield


def new_figure(width: float, height: float) -> Any:
    """An empty figure of that many inches."""
    return matplotlib("matplotlib.figure").Figure(figsize=(width, height), facecolor="none")


def colours_between(first: str, middle: str, last: str, count: int) -> list[Any]:
    """So many colours from the first through the middle to the last one."""
    ramp = matplotlib("matplotlib.colors").LinearSegmentedColormap.from_list(
        "ramp", [first, middle, last]
    )
    return [ramp(number / (count - 1)) for number in range(count)]


def as_svg(salt: str, width: float, height: float, draw: Callable[[Any], None]) -> str:
    """What `draw` draws into a figure, as an element of a page; the same each time."""
    with style(salt):
        figure = new_figure(width, height)
        draw(figure)
        drawn = io.StringIO()
        figure.savefig(drawn, format="svg", dpi=150, metadata={"Date": None})
    text = drawn.getvalue()
    return _TAG.sub(lambda tag: _ID.sub(rf"\g<0>{salt}-", tag[0]), text[text.index("<svg") :])


class DayAxis:
    """Positions of the days: calendar dates where they have such, else their numbers.

    ``positions`` are matplotlib's date numbers or the numbers 0, 1, 2, ...
    """

    def __init__(self, index: Any, dates: NDArray[np.datetime64] | None) -> None:
        self._index = index
        # A single day has no axis of dates.
        self.is_calendar = dates is not None and len(dates) > 1 and _fit_calendar(dates)
        if self.is_calendar:
            self.positions: NDArray[np.float64] = np.asarray(
                matplotlib("matplotlib.dates").date2num(dates)
            )
        else:
            self.positions = np.arange(len(index), dtype=np.float64)

    def position_of(self, date: np.datetime64) -> float:
        """Where a date lies that is no day; only of a calendar."""
        return float(matplotlib("matplotlib.dates").date2num(date))

    def format(self, axes: Any) -> None:
        """Set the axis's range, ticks and tick labels."""
        ticker = matplotlib("matplotlib.ticker")
        if len(self.positions):
            first, last = float(self.positions[0]), float(self.positions[-1])
            axes.set_xlim(first, last if last > first else first + 1.0)
        if self.is_calendar:
            dates = matplotlib("matplotlib.dates")
            locator = dates.AutoDateLocator(minticks=3, maxticks=8)
            axes.xaxis.set_major_locator(locator)
            axes.xaxis.set_major_formatter(dates.ConciseDateFormatter(locator))
        else:
            axes.xaxis.set_major_locator(ticker.MaxNLocator(5, integer=True))
            axes.xaxis.set_major_formatter(ticker.FuncFormatter(self._label))

    def _label(self, position: float, _: int | None) -> str:
        day = round(position)
        return day_text(self._index[day]) if 0 <= day < len(self._index) else ""


def _fit_calendar(dates: NDArray[np.datetime64]) -> bool:
    # In seconds, which hold every year: nanoseconds do not, and to compare would convert to them.
    first, last = dates[[0, -1]].astype("datetime64[s]")
    return bool(first >= _FIRST_DATE and last < _END_DATE)
