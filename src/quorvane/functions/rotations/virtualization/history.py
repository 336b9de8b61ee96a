"""A whole history in one call, on several threads, with a report of its progress."""

from __future__ import annotations

import operator
from collections.abc import Callable
from dataclasses import dataclass
from typing import ClassVar, Literal, get_args

import numpy as np
from numpy.typing import ArrayLike, NDArray

from quorvane.functions.rotations.virtualization.base import VirtualizationBase

MOST_THREADS = 256

Level = Literal["instrument", "structure"]


@dataclass(frozen=True)
class _HistoryContext:
    """What ``batch_reference`` is told besides the matrices."""

    _has_history_options: ClassVar[bool] = True

    universe_mask: NDArray[np.uint8] | NDArray[np.bool_] | None
    threads: int | None
    progress: Callable[[int, int], object] | None
    ends_with_children: bool


def replay_history(
    rotation: VirtualizationBase,
    *matrices: ArrayLike,
    universe_mask: ArrayLike | None = None,
    threads: int | None = None,
    progress: Callable[[int, int], object] | None = None,
    level: Level = "instrument",
) -> NDArray[np.float64]:
    """Compute a whole history: ``rotation.batch_reference`` with options.

    Goes on from the rotation's present state and leaves the state of the last day behind. A
    ready-made rotation whose children are the package's own computes many days at once; the numbers
    are those of the days one by one, to the bit, with any number of threads.

    Parameters
    ----------
    rotation:
        Any rotation of structures.
    *matrices:
        Days by instruments, as many as the rotation takes inputs.
    universe_mask:
        Not 0 where an instrument takes part: a row per day, or one for all days. Everybody by
        default.
    threads:
        From 1 to 256. By default what the environment variable ``QUORVANE_NUM_THREADS`` says, and 1
        where it says nothing.
    progress:
        Called as ``progress(days_done, days)`` at most twenty times a second, at the end, and
        before the error of a day. What it raises ends the history after a whole number of days.
    level:
        ``"instrument"`` for the outputs, ``"structure"`` for what left the children, before it goes
        back onto the instruments: a column per slot. NumPy does not warn of the way back then.

    Returns
    -------
    ndarray of float64, shape (T, N) or (T, max_structures)
        The days' outputs.

    Raises
    ------
    TypeError
        ``threads`` is not an int, or ``progress`` cannot be called.
    ValueError
        ``threads`` is out of range, ``level`` is neither of the two, or there is no matrix.
    """
    if level not in get_args(Level):
        raise ValueError(f"level must be one of {', '.join(get_args(Level))}, got {level!r}")
    if threads is not None:
        if isinstance(threads, bool) or not hasattr(threads, "__index__"):
            raise TypeError(f"threads must be an int or None, got {threads!r}")
        threads = operator.index(threads)
    if progress is not None and not callable(progress):
        raise TypeError(f"progress must be callable or None, got {progress!r}")
    mask = None if universe_mask is None else _as_mask(universe_mask)
    context = _HistoryContext(mask, threads, progress, level == "structure")
    return rotation.batch_reference(*matrices, context=context)


def _as_mask(universe_mask: ArrayLike) -> NDArray[np.uint8] | NDArray[np.bool_]:
    """The mask as bytes, themselves where they are that already."""
    mask = np.asarray(universe_mask)
    return mask if mask.dtype in (np.bool_, np.uint8) else mask.astype(np.bool_)
