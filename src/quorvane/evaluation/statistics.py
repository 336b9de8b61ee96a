"""What an evaluation computes, on plain arrays of days by instruments."""

from __future__ import annotations

import numpy as np
from numpy.typing import NDArray

from quorvane.functions.rotations.latitudinal.rank import Rank

Floats = NDArray[np.float64]


def forward_returns(returns: Floats, rows: NDArray[np.intp], horizon: int, lag: int) -> Floats:
    """Compound returns of the ``horizon`` days that begin ``lag`` days after each row.

    prod(1 + r) - 1 over the rows t + lag to t + lag + horizon - 1; missing where one of them is, or
    lies beyond the end.
    """
    days, columns = returns.shape
    growth = np.full((days + lag + horizon, columns), np.nan)
    growth[:days] = 1.0 + returns
    compound = np.ones((len(rows), columns))
    for day in range(lag, lag + horizon):
        compound *= growth[rows + day]
    return compound - 1.0


def twice_ranks(values: Floats) -> Floats:
    """Twice the average rank of each number in its row, which is a whole number; NaN stays."""
    rank = Rank(N_alloc=max(values.shape[1], 1))
    ranks = np.empty(values.shape)
    for row, out in zip(values, ranks, strict=True):
        out[:] = rank(row)[: len(out)]
    count = np.count_nonzero(~np.isnan(values), axis=1)[:, None]
    twice: Floats = np.round(2.0 * count * ranks)
    return twice


def rank_correlation(left: Floats, right: Floats) -> Floats:
    """Spearman's correlation of each row: Pearson's of the average ranks (Spearman 1904).

    Over the columns in which both have a number; NaN where there are fewer than three, or where all
    of one are equal. Sums of whole numbers are exact, so that the order of columns does not matter.
    """
    there = np.isfinite(left) & np.isfinite(right)
    count = np.count_nonzero(there, axis=1)
    left_ranks, right_ranks = (
        np.where(there, twice_ranks(np.where(there, side, np.nan)) - (count + 1)[:, None], 0.0)
        for side in (left, right)
    )
    norms = np.sqrt((left_ranks**2).sum(axis=1) * (right_ranks**2).sum(axis=1))
    usable = (count >= 3) & (norms > 0.0)
    found = np.full(len(left), np.nan)
    found[usable] = (left_ranks * right_ranks).sum(axis=1)[usable] / norms[usable]
    clipped: Floats = np.clip(found, -1.0, 1.0)
    return clipped


def quantile_of(signal: Floats, quantiles: int) -> Floats:
    """The quantile of each number in its row, from 0 on: floor(quantiles (r - 1/2) / n).

    r is the average rank among n, so that equal numbers are in the same one.
    """
    known = np.where(np.isfinite(signal), signal, np.nan)
    count = np.maximum(np.count_nonzero(~np.isnan(known), axis=1), 1)[:, None]
    quantile: Floats = np.floor(quantiles * (twice_ranks(known) - 1.0) / (2.0 * count))
    return quantile


def mean_by_quantile(quantile: Floats, forward: Floats, quantiles: int) -> Floats:
    """The mean forward return of each row's quantiles; NaN where one has none."""
    means = np.full((len(forward), quantiles), np.nan)
    for number in range(quantiles):
        chosen = (quantile == number) & np.isfinite(forward)
        count = chosen.sum(axis=1)
        some = count > 0
        sums = np.where(chosen, forward, 0.0).sum(axis=1)
        means[some, number] = sums[some] / count[some]
    return means


def gross_one(signal: Floats) -> Floats:
    """The signal with absolute sum 1 in each row, missing numbers as 0; zeros where all are."""
    known = np.where(np.isfinite(signal), signal, 0.0)
    gross = np.abs(known).sum(axis=1, keepdims=True)
    weights: Floats = np.divide(known, gross, out=np.zeros_like(known), where=gross > 0.0)
    return weights


def turnover(weights: Floats) -> Floats:
    """The sum of the absolute changes from row to row; NaN for the first."""
    changes = np.full(len(weights), np.nan)
    changes[1:] = np.abs(np.diff(weights, axis=0)).sum(axis=1)
    return changes


def profit(weights: Floats, forward: Floats) -> Floats:
    """What the weights earn: the sum of weight times forward return.

    A missing return counts as 0 where others are known, and as missing where none is.
    """
    known = np.isfinite(forward)
    earned: Floats = (weights * np.where(known, forward, 0.0)).sum(axis=1)
    earned[~known.any(axis=1)] = np.nan
    return earned


def t_statistic(series: Floats, horizon: int) -> float:
    """The mean over its standard error, with the correction of Newey and West (1987).

    mean / sqrt(S / n), S = g(0) + 2 sum_{l=1}^{h-1} (1 - l / h) g(l), with the autocovariances
    g(l) = sum_t (x(t) - mean) (x(t - l) - mean) / n: returns over h days that begin on each day
    overlap h - 1 others. NaN with fewer than two numbers, or where S is not above zero.
    """
    numbers = series[np.isfinite(series)]
    count = len(numbers)
    if count < 2:
        return float("nan")
    mean = numbers.mean()
    apart = numbers - mean
    spread = apart @ apart / count
    for distance in range(1, min(horizon, count)):
        weight = 1.0 - distance / horizon
        spread += 2.0 * weight * (apart[distance:] @ apart[:-distance]) / count
    return float(mean / np.sqrt(spread / count)) if spread > 0.0 else float("nan")
