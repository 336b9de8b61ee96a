"""The loop over days: the rotation's days in order, many at once where nobody looks at each."""

from __future__ import annotations

import sys
import time
from collections.abc import Callable, Iterator, Sequence
from contextlib import contextmanager
from dataclasses import dataclass
from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane.cli.errors import UsageError
from quorvane.cli.libraries import has_library, require_library
from quorvane.cli.recording import Recorder
from quorvane.functions.rotations.virtualization.baskets import FixedBaskets
from quorvane.functions.rotations.virtualization.history import replay_history

# How many days are computed at once to begin with, and in how many seconds later.
FIRST_DAYS = 32
MOMENT = 0.05


@dataclass
class DayContext:
    """The context of one call: who is in the universe on which day, and which day it is."""

    universe_mask: NDArray[np.uint8]
    current_day_index: int = 0


@dataclass(frozen=True)
class Progress:
    """Days first_day to next_day - 1 were computed, in ``seconds`` of the rotation's calls."""

    first_day: int
    next_day: int
    seconds: float

    @property
    def seconds_per_day(self) -> float:
        """Mean time of one call, 0.0 when no day was computed."""
        return self.seconds / max(self.next_day - self.first_day, 1)


def replay(
    rotation: FixedBaskets,
    inputs: NDArray[np.float64],
    recorders: Sequence[Recorder],
    *,
    first_day: int = 0,
    show_progress: bool = False,
    stop_before: Callable[[int], bool] = lambda day: False,
    days_before_stop: Callable[[int], int] = lambda day: 1,
    threads: int | None = None,
) -> Progress:
    """Compute the rows of ``inputs`` from ``first_day`` on.

    Every instrument is in the universe on every day; a missing value is a NaN in ``inputs``.
    ``stop_before(day)`` is asked before each day but the first one computed, when every recorder
    holds all the days before it; a true answer ends the replay there. Where the answer may wait for
    ``days_before_stop(day)`` days, or else for a moment, days are computed many at once, unless
    somebody looks at each: a recorder, or a rotation that is more than ready-made. That takes so
    many ``threads``; by default what QUORVANE_NUM_THREADS says.
    """
    days = inputs.shape[0]
    is_seen = any(recorder.sees_each_day for recorder in recorders)
    at_once = type(rotation) is FixedBaskets and not is_seen
    computed = _ManyAtOnce(rotation, inputs, threads) if at_once else _OneByOne(rotation, inputs)
    seconds, day = 0.0, first_day
    with _progress_bar(days - first_day, show_progress) as advance:
        while day < days:
            if day > first_day and stop_before(day):
                break
            started = time.perf_counter()
            output = computed(day, min(days - day, days_before_stop(day)))
            seconds += time.perf_counter() - started
            for recorder in recorders:
                recorder.record(day, output)
            day += len(output)
            advance(len(output))
    return Progress(first_day, day, seconds)


class _OneByOne:
    """A call of the rotation per day."""

    def __init__(self, rotation: FixedBaskets, inputs: NDArray[np.float64]) -> None:
        self._rotation, self._inputs = rotation, inputs
        # One stored row stands for all days.
        self._universe = np.broadcast_to(
            np.ones((1, inputs.shape[1]), dtype=np.uint8), inputs.shape
        )

    def __call__(self, day: int, most: int) -> NDArray[np.float64]:
        """The output of the day, as the only row."""
        output: NDArray[np.float64] = self._rotation(
            self._inputs[day], context=DayContext(self._universe, day)
        )
        return output[np.newaxis]


class _ManyAtOnce:
    """As many days at once as take a moment, since nobody is asked to stop meanwhile."""

    def __init__(
        self, rotation: FixedBaskets, inputs: NDArray[np.float64], threads: int | None
    ) -> None:
        self._rotation, self._inputs, self._threads = rotation, inputs, threads
        self._days = FIRST_DAYS

    def __call__(self, day: int, most: int) -> NDArray[np.float64]:
        """The outputs of the days from ``day`` on, at most so many of them."""
        rows = self._inputs[day : day + min(self._days, most)]
        started = time.perf_counter()
        try:
            output = replay_history(self._rotation, rows, threads=self._threads)
        except ValueError as error:
            # All else was checked before: it is the environment's number of threads.
            raise UsageError(str(error)) from error
        taken = time.perf_counter() - started
        if taken < MOMENT:
            self._days *= 2
        elif taken > 2 * MOMENT:
            self._days = max(self._days // 2, 1)
        return output


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
