"""The loop over days: they come in order, many at once where nobody looks at each."""

from __future__ import annotations

import sys
import time
from collections.abc import Callable, Iterator, Sequence
from contextlib import contextmanager
from dataclasses import dataclass
from typing import Any

from quorvane.cli.basket_days import BasketDays
from quorvane.cli.libraries import has_library, require_library
from quorvane.cli.recording import Recorder

# How many days are computed at once to begin with, and in how many seconds later.
FIRST_DAYS = 32
MOMENT = 0.05


@dataclass(frozen=True)
class Progress:
    """Days first_day to next_day - 1 were computed and recorded, in ``seconds``."""

    first_day: int
    next_day: int
    seconds: float


def replay(
    days: BasketDays,
    recorders: Sequence[Recorder],
    *,
    first_day: int = 0,
    show_progress: bool = False,
    stop_before: Callable[[int], bool] = lambda day: False,
    days_before_stop: Callable[[int], int] = lambda day: 1,
) -> Progress:
    """Compute the days from ``first_day`` on.

    ``stop_before(day)`` is asked before each day but the first one computed, when every recorder
    holds all the days before it; a true answer ends the replay there. Where the answer may wait for
    ``days_before_stop(day)`` days, or else for a moment, days are computed many at once, unless a
    recorder looks at each.
    """
    count = len(days.inputs)
    one_by_one = any(recorder.sees_each_day for recorder in recorders)
    # How long a function of one's own takes for a day, nobody knows.
    at_once = _DaysAtOnce(FIRST_DAYS if days.is_ready_made else 1)
    seconds, day = 0.0, first_day
    with _progress_bar(count - first_day, show_progress) as advance:
        while day < count:
            if day > first_day and stop_before(day):
                break
            most = 1 if one_by_one else min(at_once.days, count - day, days_before_stop(day))
            started = time.perf_counter()
            output = days.compute(day, day + most)
            at_once.learn(time.perf_counter() - started)
            for recorder in recorders:
                recorder.record(day, output)
            seconds += time.perf_counter() - started
            day += most
            advance(most)
    return Progress(first_day, day, seconds)


class _DaysAtOnce:
    """As many days as take a moment, since nobody is asked to stop meanwhile."""

    def __init__(self, first: int) -> None:
        self.days = first

    def learn(self, seconds: float) -> None:
        """Take more or fewer days the next time."""
        if seconds < MOMENT:
            self.days *= 2
        elif seconds > 2 * MOMENT:
            self.days = max(self.days // 2, 1)


@contextmanager
def _progress_bar(days: int, wanted: bool) -> Iterator[Callable[[int], object]]:
    """A function to tell of days that are done.

    It shows them when that is wanted, on a terminal, and tqdm is installed.
    """
    # There is no standard error when the process was started with it closed.
    on_terminal = sys.stderr is not None and sys.stderr.isatty()
    if not (wanted and on_terminal and has_library("tqdm")):
        yield lambda done: None
        return
    tqdm: Any = require_library("tqdm", "the progress bar").tqdm
    with tqdm(total=days, unit="day", desc="replay", leave=False, file=sys.stderr) as bar:
        yield bar.update
