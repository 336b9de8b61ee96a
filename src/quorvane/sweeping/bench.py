"""Where a worker computes: a configuration in, its outcome out."""

from __future__ import annotations

import threading
import time
import weakref
from pathlib import Path
from typing import Any

from quorvane import __version__
from quorvane.baskets import Baskets
from quorvane.baskets.progress import without_bars
from quorvane.evaluation.following import KnownReturns
from quorvane.expressions import calls_of
from quorvane.sweeping.outcome import Outcome, error_text
from quorvane.sweeping.own_functions import OwnFunction, registered_here
from quorvane.sweeping.scores import figures
from quorvane.sweeping.shared import Job, Shared, from_folder


class Bench:
    """The data of a sweep in this process, and what is known of them already."""

    def __init__(self, shared: Shared) -> None:
        self._choices, self._functions = shared.choices, shared.functions
        self._score, self._version = shared.score, shared.version
        self._frame = shared.data.frame()
        self._known = KnownReturns()

    def outcome(self, job: Job) -> Outcome:
        """Compute a configuration; what it raises is its outcome too."""
        start = time.perf_counter()
        try:
            found, error = self._figures(job), ""
        except (Exception, SystemExit) as raised:
            found, error = {}, error_text(raised)
        return Outcome(found, time.perf_counter() - start, error)

    def _figures(self, job: Job) -> dict[str, int | float]:
        if self._version != __version__:
            raise RuntimeError(
                f"this worker has quorvane {__version__}, the sweep is of {self._version}"
            )
        arguments: dict[str, Any] = {"threads": 1}
        for (name, values), number in zip(self._choices.items(), job, strict=True):
            arguments[name] = values[number]
        with registered_here(functions_in(arguments["expression"], self._functions)):
            baskets = Baskets(**arguments)
        # A function that writes into its frame spoils nobody else's.
        data = self._frame.copy(deep=False)
        with without_bars():
            signal = baskets.run(data)
        found = figures(self._score, signal, data, self._known)
        taken = [name for name in found if name in (*self._choices, "seconds", "error")]
        if taken:
            raise ValueError(f"score: the name {taken[0]!r} of a figure is taken already")
        return found


def functions_in(expression: str, known: dict[str, OwnFunction]) -> dict[str, OwnFunction]:
    """Of the known functions those that an expression names."""
    names = {call.name for call in calls_of(expression)}
    return {name: function for name, function in known.items() if name in names}


# ---- where a worker finds its bench ----------------------------------------------------------

# A process works for one sweep at a time, seldom for two.
_MOST_FOLDERS = 2
_FINDING = threading.Lock()
_BY_FOLDER: dict[str, Bench] = {}
_BY_SHARED: weakref.WeakKeyDictionary[Shared, Bench] = weakref.WeakKeyDictionary()


def compute_from_files(folder: str, job: Job) -> Outcome:
    """The outcome of a job of the sweep whose files are in a folder."""
    with _FINDING:
        bench = _BY_FOLDER.get(folder)
        if bench is None:
            bench = Bench(from_folder(Path(folder)))
            while len(_BY_FOLDER) >= _MOST_FOLDERS:
                del _BY_FOLDER[next(iter(_BY_FOLDER))]
            _BY_FOLDER[folder] = bench
    return bench.outcome(job)


def forget_files(folder: str) -> None:
    """Let go of what this process knows of a folder."""
    with _FINDING:
        _BY_FOLDER.pop(folder, None)


def compute_shared(job: Job, shared: Shared) -> Outcome:
    """The outcome of a job of a sweep that is in this process already."""
    with _FINDING:
        bench = _BY_SHARED.get(shared)
        if bench is None:
            bench = _BY_SHARED[shared] = Bench(shared)
    return bench.outcome(job)
