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
    # Whatever is longer than the table ends beyond it.
    length = min(horizon, len(returns) + 1)
    return _compound(returns, rows, np.full(len(rows), length), min(lag, len(returns) + 1))


def held_returns(returns: Floats, rows: NDArray[np.intp], lag: int) -> tuple[Floats, Floats]:
    """Compound returns of what is held from each row until the next one, and where they end.

    The returns of the rows t + lag to u + lag - 1, where u is the row after t; what the last row
    says is held for as long as the one before. The ends are rows of the returns.
    """
    lag = min(lag, len(returns) + 1)
    lengths = np.diff(rows)
    lengths = np.append(lengths, lengths[-1:] if len(lengths) else 1)
    return _compound(returns, rows, lengths, lag), rows + lengths + (lag - 1.0)


def _compound(
    returns: Floats, rows: NDArray[np.intp], lengths: NDArray[np.intp], lag: int
) -> Floats:
    compound = np.full((len(rows), returns.shape[1]), np.nan)
    # Beyond the last day nothing is known.
    whole = rows + lag + lengths <= len(returns)
    growth = 1.0 + returns
    for day in range(int(lengths[whole].max(initial=0))):
        held = whole & (lengths > day)
        factor = growth[rows[held] + lag + day]
        compound[held] = factor if day == 0 else compound[held] * factor
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


class Ranked:
    """Numbers of days by columns, and what was lately found of their ranks.

    Ranks take most of an evaluation's time, and are asked for again among nearly the same columns:
    for each horizon of a signal's, for each signal of a return's. Only days whose columns differ
    from those of a time before are ranked anew, so that no figure depends on what came before.
    """

    # Of what was found before, so many bytes at most, but for the last.
    MOST_BYTES = 1 << 26

    def __init__(self, values: Floats) -> None:
        self.values = values
        self.finite: NDArray[np.bool_] = np.isfinite(values)
        each = max(values.nbytes + self.finite.nbytes, 1)
        self._most = max(1, min(8, self.MOST_BYTES // each))
        # The columns that were there, and the ranks; the last first. Replaced as a whole: several
        # threads may ask at once.
        self._found: tuple[tuple[NDArray[np.bool_], Floats], ...] = ()

    def among(self, there: NDArray[np.bool_]) -> Floats:
        """Twice the average ranks among the columns that are ``there``; not to be written to."""
        found = self._found
        differing = [(mask != there).any(axis=1) for mask, _ in found]
        counts = [int(np.count_nonzero(days)) for days in differing]
        nearest = int(np.argmin(counts)) if counts else -1
        if nearest < 0:
            ranks = twice_ranks(np.where(there, self.values, np.nan))
        elif counts[nearest] == 0:
            _, ranks = found[nearest]
        else:
            anew, ranks = differing[nearest], found[nearest][1].copy()
            ranks[anew] = twice_ranks(np.where(there[anew], self.values[anew], np.nan))
        same = nearest if counts and counts[nearest] == 0 else len(found)
        self._found = ((there, ranks), *found[:same], *found[same + 1 :])[: self._most]
        return ranks


def rank_correlation(left: Ranked, right: Ranked) -> Floats:
    """Spearman's correlation of each row: Pearson's of the average ranks (Spearman 1904).

    Over the columns in which both have a number; NaN where there are fewer than three, or where all
    of one are equal. Sums of whole numbers are exact, so that the order of columns does not matter.
    """
    there = left.finite & right.finite
    count = np.count_nonzero(there, axis=1)
    left_ranks, right_ranks = (
        np.where(there, side.among(there) - (count + 1)[:, None], 0.0) for side in (left, right)
    )
    norms = np.sqrt((left_ranks**2).sum(axis=1) * (right_ranks**2).sum(axis=1))
    usable = (count >= 3) & (norms > 0.0)
    found = np.full(len(there), np.nan)
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
    # Divided by the largest before, so that the sum cannot overflow.
    for divisor in (np.max, np.sum):
        size = divisor(np.abs(known), axis=1, keepdims=True, initial=0.0)
        known = np.divide(known, size, out=np.zeros_like(known), where=size > 0.0)
    return known


def turnover(weights: Floats, before: NDArray[np.intp]) -> Floats:
    """The sum of the absolute changes since the row ``before`` each; NaN where that is negative."""
    changes = np.abs(weights - weights[np.maximum(before, 0)]).sum(axis=1)
    known: Floats = np.where(before >= 0, changes, np.nan)
    return known


def rows_before(rows: NDArray[np.intp], days: int, first: int) -> NDArray[np.intp]:
    """The number of the last row at least so many days before each; -1 before the ``first``."""
    # As far back as there are rows is as far as any.
    days = min(days, int(rows[-1]) + 1) if len(rows) else 0
    before = np.searchsorted(rows, rows - days, side="right") - 1
    return np.where(before >= first, before, -1)


def profit(weights: Floats, forward: Floats, has_signal: NDArray[np.bool_]) -> Floats:
    """What the weights earn: the sum of weight times forward return.

    A missing return counts as 0 where others are known. Missing where none is, and where no
    instrument has a signal.
    """
    known = np.isfinite(forward)
    earned: Floats = (weights * np.where(known, forward, 0.0)).sum(axis=1)
    earned[~known.any(axis=1) | ~has_signal] = np.nan
    return earned


def t_statistic(series: Floats, rows: NDArray[np.intp], horizon: int) -> float:
    """The mean over its standard error, with the correction of Newey and West (1987).

    mean / sqrt(S / n), S = (1 / n) sum_{s,t} max(0, 1 - |row(s) - row(t)| / h) (x(s) - mean)
    (x(t) - mean): Bartlett weights by the days that lie between, since returns over h days that
    begin d days apart have h - d days in common. NaN with fewer than two numbers, or where S is not
    above zero.
    """
    there = np.isfinite(series)
    numbers, places = series[there], rows[there]
    count = len(numbers)
    if count < 2:
        return float("nan")
    mean = numbers.mean()
    apart = numbers - mean
    # Not products of vectors: their libraries add in another order for each number of threads and
    # for each processor.
    spread = (apart * apart).sum()
    for step in range(1, min(horizon, count)):
        weight = 1.0 - (places[step:] - places[:-step]) / horizon
        spread += 2.0 * (np.maximum(weight, 0.0) * apart[step:] * apart[:-step]).sum()
    return float(mean / (np.sqrt(spread) / count)) if spread > 0.0 else float("nan")
