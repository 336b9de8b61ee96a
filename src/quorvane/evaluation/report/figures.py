"""The figures of a report, computed from an evaluation."""

from __future__ import annotations

from collections.abc import Hashable, Mapping
from dataclasses import dataclass
from typing import TYPE_CHECKING, Any

import numpy as np
from numpy.typing import NDArray

from quorvane.evaluation import statistics

if TYPE_CHECKING:
    from quorvane.evaluation import Evaluation

Floats = NDArray[np.float64]

MOST_HELD = 10
"""Instruments on either side of what is held."""
MOST_POINTS = 400
"""Of a line; a page of decades stays small."""
MOST_ROWS, MOST_BINS = 40, 120
"""Of the heat map."""
SMOOTHED_DAYS = 250

# Beyond it the arithmetic of axes overflows, and no line would differ to the eye.
_LARGEST = 1e100


@dataclass(frozen=True)
class Holdings:
    """What the weights of one day hold.

    Attributes
    ----------
    day : int
        The row of the signal: the last one that has any; -1 for none.
    longs, shorts : list of (name, weight)
        The largest on either side, largest first.
    others : int
        Instruments that are held besides.
    """

    day: int
    longs: list[tuple[Hashable, float]]
    shorts: list[tuple[Hashable, float]]
    others: int


def holdings(evaluation: Evaluation) -> Holdings:
    """The largest weights of the last day that has a signal."""
    days = np.flatnonzero(evaluation._has_signal)
    if not len(days):
        return Holdings(-1, [], [], 0)
    weights, names = evaluation._weights[days[-1]], evaluation._aligned.instruments
    # Equal ones in the order of the columns.
    order = np.argsort(-np.abs(weights), kind="stable")
    longs = [(names[i], float(weights[i])) for i in order if weights[i] > 0.0]
    shorts = [(names[i], float(weights[i])) for i in order if weights[i] < 0.0]
    others = max(len(longs) - MOST_HELD, 0) + max(len(shorts) - MOST_HELD, 0)
    return Holdings(int(days[-1]), longs[:MOST_HELD], shorts[:MOST_HELD], others)


@dataclass(frozen=True)
class Growth:
    """What 1 has become by each chosen day, before costs.

    Attributes
    ----------
    days : ndarray of int
        Rows of the signal.
    quantiles : ndarray of days x quantiles
        Held in equal parts, made anew with each row of the signal; NaN for one that is never held.
    spread : ndarray of days
        The highest quantile less the lowest one.
    """

    days: NDArray[np.intp]
    quantiles: Floats
    spread: Floats


def growth(evaluation: Evaluation) -> Growth:
    """The compound returns of each quantile, held from a row of the signal until the next.

    What is earned counts on the first row that is not before the day of its last return; where
    nothing is known, all stays as it is.
    """
    aligned = evaluation._aligned
    held, ends = statistics.held_returns(aligned.returns, aligned.rows, evaluation.lag)
    means = statistics.mean_by_quantile(evaluation._quantile, held, evaluation.quantiles)
    both = np.column_stack([means, means[:, -1] - means[:, 0]])
    with np.errstate(over="ignore", invalid="ignore"):
        compound = np.cumprod(1.0 + np.nan_to_num(both, nan=0.0), axis=0)
    compound = np.vstack([np.ones(both.shape[1]), compound])
    compound[:, ~np.isfinite(both).any(axis=0)] = np.nan
    days = chosen_evenly(len(means), MOST_POINTS)
    over = np.searchsorted(ends, aligned.rows[days], side="right")
    grown = bounded(np.asarray(compound[over], dtype=np.float64))
    return Growth(days, grown[:, :-1], grown[:, -1])


def correlation_bars(evaluation: Evaluation) -> tuple[Floats, Floats]:
    """By horizon the mean correlation, and its standard error as its t-statistic has it."""
    means = np.array([evaluation.summary.loc[h, "ic_mean"] for h in evaluation.horizons])
    tests = np.array([evaluation.summary.loc[h, "ic_t"] for h in evaluation.horizons])
    errors = np.full(len(means), np.nan)
    tested = np.isfinite(tests) & (tests != 0.0)
    errors[tested] = np.abs(means[tested] / tests[tested])
    return means, errors


def smoothing(days: int) -> int:
    """Over how many days a line through time is averaged: a year, or a quarter of what there is."""
    return max(min(SMOOTHED_DAYS, days // 4), 1)


def smoothed(frame: Any) -> tuple[NDArray[np.intp], Floats]:
    """Running means of a frame's columns on chosen days; missing until half a window is known."""
    window = smoothing(len(frame))
    means = frame.rolling(window, min_periods=(window + 1) // 2).mean()
    days = chosen_evenly(len(frame), MOST_POINTS)
    return days, bounded(means.to_numpy(dtype=np.float64)[days])


@dataclass(frozen=True)
class HeatMap:
    """Means of the signal over runs of days.

    Attributes
    ----------
    means : ndarray of rows x runs
    starts : ndarray of int
        The first day of each run.
    names : list
        Of the rows.
    groups : list
        The group of each row, None without groups.
    silent, left_out : int
        Instruments that have no signal at all, and others that are not shown.
    """

    means: Floats
    starts: NDArray[np.intp]
    names: list[Hashable]
    groups: list[Hashable] | None
    silent: int
    left_out: int


def heat_map(evaluation: Evaluation, groups: Mapping[Any, Any] | None = None) -> HeatMap:
    """The signal, the highest mean above; by group where each instrument has one."""
    aligned = evaluation._aligned
    means, starts = means_over_runs(aligned.signal, MOST_BINS)
    overall = _column_means(aligned.signal)
    names = aligned.instruments
    shown = [i for i in np.argsort(-overall, kind="stable").tolist() if np.isfinite(overall[i])]
    known = len(shown)
    shown = [shown[place] for place in chosen_evenly(known, MOST_ROWS)]
    by_group = None
    if groups is not None:
        # Groups in the order in which the columns first have them, each by mean as before.
        numbers = {group: n for n, group in enumerate(dict.fromkeys(groups[i] for i in names))}
        shown.sort(key=lambda i: numbers[groups[names[i]]])
        by_group = [groups[names[i]] for i in shown]
    return HeatMap(
        means.T[shown],
        starts,
        [names[i] for i in shown],
        by_group,
        len(names) - known,
        known - len(shown),
    )


def chosen_evenly(count: int, most: int) -> NDArray[np.intp]:
    """At most so many of the numbers from 0 on, evenly spread, both ends included."""
    if count <= most:
        return np.arange(count)
    return np.asarray(np.linspace(0, count - 1, most).round(), dtype=np.intp)


def means_over_runs(values: Floats, most: int) -> tuple[Floats, NDArray[np.intp]]:
    """Means over runs of rows, leaving out what is not finite, and the runs' first rows."""
    length = max(-(-len(values) // most), 1)
    starts = np.arange(0, len(values), length)
    finite = np.isfinite(values)
    sums = np.add.reduceat(np.where(finite, bounded(values), 0.0), starts, axis=0)
    counts = np.add.reduceat(finite, starts, axis=0, dtype=np.int64)
    return _quotient(sums, counts), starts


def bounded(values: Floats) -> Floats:
    """The values, NaN as it is, others no larger than an axis can span."""
    return np.asarray(np.clip(values, -_LARGEST, _LARGEST))


def _column_means(values: Floats) -> Floats:
    finite = np.isfinite(values)
    sums = np.where(finite, bounded(values), 0.0).sum(axis=0)
    counts = finite.sum(axis=0)
    return _quotient(sums, counts)


def _quotient(sums: Floats, counts: NDArray[np.int64]) -> Floats:
    """Means; NaN where nothing was counted."""
    return np.divide(sums, counts, out=np.full_like(sums, np.nan), where=counts > 0)
