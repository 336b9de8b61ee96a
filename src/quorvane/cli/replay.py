"""The replay loop: one call of the rotation per day, in order."""

from __future__ import annotations

import sys
import time
from collections.abc import Callable, Iterable, Sequence
from dataclasses import dataclass
from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane.cli.libraries import has_library, require_library
from quorvane.cli.recording import Recorder
from quorvane.functions.rotations.virtualization.baskets import FixedBaskets


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
) -> Progress:
    """Call ``rotation`` with the rows of ``inputs`` from ``first_day`` on.

    Every instrument is in the universe on every day; a missing value is a NaN in ``inputs``.
    ``stop_before(day)`` is asked before each day but the first one computed, when every recorder
    holds all the days before it; a true answer ends the replay there.
    """
    days, instruments = inputs.shape
    # One stored row stands for all days.
    universe = np.broadcast_to(np.ones((1, instruments), dtype=np.uint8), (days, instruments))
    seconds, day = 0.0, first_day
    for day in _with_progress(range(first_day, days), show_progress):
        if day > first_day and stop_before(day):
            return Progress(first_day, day, seconds)
        context = DayContext(universe, day)
        started = time.perf_counter()
        output = rotation(inputs[day], context=context)
        seconds += time.perf_counter() - started
        for recorder in recorders:
            recorder.record(day, output)
    return Progress(first_day, days, seconds)


def _with_progress(days: range, wanted: bool) -> Iterable[int]:
    """The days, with a progress bar when it is wanted, on a terminal, and tqdm is installed."""
    # There is no standard error when the process was started with it closed.
    on_terminal = sys.stderr is not None and sys.stderr.isatty()
    if not (wanted and on_terminal and has_library("tqdm")):
        return days
    tqdm: Any = require_library("tqdm", "the progress bar").tqdm
    bar: Iterable[int] = tqdm(days, unit="day", desc="replay", leave=False, file=sys.stderr)
    return bar
