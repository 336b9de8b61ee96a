"""Is a signal any good? Its correlation with what follows, by horizon, and what it would earn."""

from __future__ import annotations

import importlib
import numbers
import os
from collections.abc import Hashable, Iterable, Mapping
from dataclasses import dataclass
from functools import cached_property
from pathlib import Path
from typing import TYPE_CHECKING, Any

import numpy as np
from numpy.typing import NDArray

from quorvane.arguments import whole_number
from quorvane.evaluation import statistics
from quorvane.evaluation.aligned import Aligned, align
from quorvane.evaluation.following import FollowingReturns, KnownReturns
from quorvane.stores._files import replace_file
from quorvane.tables.names import listed

if TYPE_CHECKING:
    from quorvane.baskets import Baskets

Floats = NDArray[np.float64]


def evaluate(
    signal: Any,
    returns: Any,
    horizons: Iterable[int] = (1, 5, 20),
    quantiles: int = 5,
    lag: int = 1,
    cost: float = 0.0,
    *,
    date: str | None = None,
) -> Evaluation:
    """Judge a signal by the returns that follow it.

    The signal of day t meets the compound returns of days t + lag to t + lag + h - 1, for each
    horizon h. Days are the rows of the returns. Columns and days are found by name; only those of
    arrays, and of frames of pandas with a plain index and no dates, by their order.

    Parameters
    ----------
    signal : frame of pandas, polars or pyarrow, or array_like of days x instruments
        As `Baskets.run` gives it. What is not finite is missing.
    returns : the same
        Each day's return as a fraction, for all days and instruments of the signal at least.
    horizons : iterable of int
        Days, each at least 1.
    quantiles : int
        Into how many parts each day's instruments are divided, at least 2.
    lag : int
        Days between a signal and the first return that it can earn, at least 1: with 0 it would
        know that return.
    cost : float
        Of a turnover of 1, as a fraction; taken off the profit.
    date : str, optional
        The column of dates of both tables, where it cannot be told by its type.

    Returns
    -------
    Evaluation

    Raises
    ------
    TypeError, ValueError
        An argument is of the wrong type or out of range, or the tables do not fit together.
    ImportError
        pandas is not there.

    Examples
    --------
    >>> import numpy as np
    >>> import quorvane as qv
    >>> returns = np.random.default_rng(0).normal(size=(250, 30))
    >>> tomorrow = np.roll(returns, -1, axis=0)
    >>> round(float(qv.evaluate(tomorrow, returns, horizons=[1]).ic.iloc[0, 0]), 3)
    1.0
    """
    aligned = align(signal, returns, date)
    return evaluate_aligned(aligned, KnownReturns(), horizons, quantiles, lag, cost)


def evaluate_aligned(
    aligned: Aligned,
    known: KnownReturns,
    horizons: Iterable[int] = (1, 5, 20),
    quantiles: int = 5,
    lag: int = 1,
    cost: float = 0.0,
) -> Evaluation:
    """`evaluate` of what is aligned; what is ``known`` of these very returns is not found again."""
    days = whole_number("lag", lag, 1)
    return Evaluation(
        _aligned=aligned,
        _following=known.following(aligned, days),
        horizons=_horizons(horizons),
        quantiles=whole_number("quantiles", quantiles, 2),
        lag=days,
        cost=_cost(cost),
    )


@dataclass(frozen=True)
class Evaluation:
    """What `evaluate` found, as frames of pandas, each computed when it is first looked at.

    Attributes
    ----------
    horizons : tuple of int
        As given, and so are the other three.
    quantiles : int
    lag : int
    cost : float
    """

    _aligned: Aligned
    _following: FollowingReturns
    horizons: tuple[int, ...]
    quantiles: int
    lag: int
    cost: float

    @cached_property
    def ic(self) -> Any:
        """Spearman's correlation of the signal with the returns that follow, days x horizons.

        Across the instruments that have both; missing where fewer than three do.
        """
        columns = [
            statistics.rank_correlation(self._ranked, self._following[horizon])
            for horizon in self.horizons
        ]
        return self._frame(np.column_stack(columns), list(self.horizons), "horizon")

    @cached_property
    def quantile_returns(self) -> Any:
        """The mean return that follows by quantile of the signal, days x (horizon, quantile).

        Quantile 1 has the lowest signals. An instrument of rank r among n (the average of equal
        ones) is in quantile 1 + floor(quantiles (r - 1/2) / n).
        """
        parts = [
            statistics.mean_by_quantile(
                self._quantile, self._following[horizon].values, self.quantiles
            )
            for horizon in self.horizons
        ]
        names = [(h, q) for h in self.horizons for q in range(1, self.quantiles + 1)]
        columns = _pandas().MultiIndex.from_tuples(names, names=["horizon", "quantile"])
        return self._frame(np.hstack(parts), columns)

    @cached_property
    def turnover(self) -> Any:
        """The sum of the absolute changes of `weights`, by day.

        Missing up to the first day with a signal: nothing is known of what came before.
        """
        before = np.arange(len(self._weights)) - 1
        before[before < self._first] = -1
        return self._series(statistics.turnover(self._weights, before), "turnover")

    @cached_property
    def coverage(self) -> Any:
        """The share of the instruments that have a signal, by day."""
        there = np.isfinite(self._aligned.signal)
        return self._series(there.sum(axis=1) / max(there.shape[1], 1), "coverage")

    @cached_property
    def weights(self) -> Any:
        """The signal with absolute sum 1 on each day, missing as 0; days x instruments."""
        return self._frame(self._weights, list(self._aligned.instruments))

    @cached_property
    def profit(self) -> Any:
        """What the weights earn before costs, the sum of weight x forward return; days x horizons.

        A missing return counts as 0 where others are known. Missing on days without any signal.
        """
        columns = [
            statistics.profit(self._weights, self._following[horizon].values, self._has_signal)
            for horizon in self.horizons
        ]
        return self._frame(np.column_stack(columns), list(self.horizons), "horizon")

    @cached_property
    def summary(self) -> Any:
        """A row for each horizon.

        ``ic_mean``, ``ic_std`` (ddof 1), ``ic_t`` (with the correction of Newey and West, Bartlett
        weights and h - 1 lags), ``ic_positive`` (share of days above 0), ``days`` (with a
        correlation); ``profit_mean``, ``profit_std``, ``profit_ratio`` (the one over the other, not
        annualised), ``profit_t``, ``profit_days`` (with a profit); ``net_mean``, the mean of the
        profit less cost times what is traded after h days, the absolute changes of the weights
        since then; and the means of ``turnover`` and ``coverage``.
        """
        rows = {
            horizon: self._summary_of(
                self.ic[horizon].to_numpy(), self.profit[horizon].to_numpy(), horizon
            )
            for horizon in self.horizons
        }
        frame = _pandas().DataFrame.from_dict(rows, orient="index")
        frame.index.name = "horizon"
        return frame

    def to_long(self) -> Any:
        """The signal as a table of day, instrument and signal, without what is missing."""
        signal, names = self._aligned.signal.T, self._aligned.instruments
        column, day = np.nonzero(np.isfinite(signal))
        return _pandas().DataFrame(
            {
                "date": self._index[day],
                "instrument": [names[number] for number in column.tolist()],
                "signal": signal[column, day],
            }
        )

    def to_html(
        self,
        path: str | os.PathLike[str],
        baskets: Baskets | None = None,
        *,
        title: str = "What the signal does",
        groups: Mapping[Any, Any] | None = None,
    ) -> None:
        """Write a report: one file for a browser, which loads nothing from elsewhere.

        It shows what to hold by the last signal, the growth of 1 by quantile, the correlations by
        horizon and through time, turnover and coverage, and the signal through time.

        Parameters
        ----------
        path : path
            Written in one step, in the place of what is there.
        baskets : Baskets, optional
            Those that gave the signal, as they stand after its last day: the report then takes the
            largest holding apart by structure and tells of their births, ends and slots.
        title : str
        groups : mapping of instrument to group, optional
            The order of the instruments in the last chart, by group; otherwise by their mean.

        Raises
        ------
        TypeError, ValueError
            An argument is of the wrong type, the baskets stand at another day than the signal, or
            an instrument has no group.
        OSError
            The file cannot be written.
        ImportError
            pandas or matplotlib is not there.
        """
        from quorvane.evaluation import report

        target = Path(os.path.realpath(path))
        if not os.fspath(path):
            raise ValueError("path must name a file, got ''")
        structures = None if baskets is None else report.structure_figures(self, baskets)
        page = report.write_page(self, structures, str(title), self._checked_groups(groups))
        replace_file(target, page.encode())

    def __repr__(self) -> str:
        days, instruments = self._aligned.signal.shape
        return f"<Evaluation of {days} days x {instruments} instruments>\n{self.summary}"

    def _repr_html_(self) -> str:
        text: str = self.summary._repr_html_()
        return text

    def _checked_groups(self, groups: Any) -> Mapping[Any, Any] | None:
        if groups is None:
            return None
        if not isinstance(groups, Mapping):
            raise TypeError(f"groups must be a mapping of instrument to group, got {groups!r}")
        without = [name for name in self._aligned.instruments if name not in groups]
        if without:
            raise ValueError(f"groups: instruments without one: {listed(without, most=10)}")
        for name in self._aligned.instruments:
            if not isinstance(groups[name], Hashable):
                raise TypeError(f"groups: that of {name!r} must be hashable, got {groups[name]!r}")
        return groups

    @cached_property
    def _weights(self) -> Floats:
        return statistics.gross_one(self._aligned.signal)

    @cached_property
    def _has_signal(self) -> NDArray[np.bool_]:
        return np.asarray(np.isfinite(self._aligned.signal).any(axis=1))

    @property
    def _first(self) -> int:
        """The number of the first day with a signal."""
        return int(np.argmax(self._has_signal)) if self._has_signal.any() else len(self._weights)

    def _traded(self, horizon: int) -> Floats:
        """What is traded on each day when weights are held for so many; 0 where it is unknown."""
        before = statistics.rows_before(self._aligned.rows, horizon, self._first)
        return np.nan_to_num(statistics.turnover(self._weights, before))

    @cached_property
    def _quantile(self) -> Floats:
        return statistics.quantile_of(self._aligned.signal, self.quantiles)

    @cached_property
    def _ranked(self) -> statistics.Ranked:
        return statistics.Ranked(self._aligned.signal)

    def _summary_of(self, ic: Floats, profit: Floats, horizon: int) -> dict[str, float]:
        rows = self._aligned.rows
        net = profit - self.cost * self._traded(horizon)
        return {
            "ic_mean": _mean(ic),
            "ic_std": _deviation(ic),
            "ic_t": statistics.t_statistic(ic, rows, horizon),
            "ic_positive": _mean(np.where(np.isfinite(ic), ic > 0.0, np.nan)),
            "days": int(np.isfinite(ic).sum()),
            "profit_mean": _mean(profit),
            "profit_std": _deviation(profit),
            "profit_ratio": _ratio(_mean(profit), _deviation(profit)),
            "profit_t": statistics.t_statistic(profit, rows, horizon),
            "profit_days": int(np.isfinite(profit).sum()),
            "net_mean": _mean(net),
            "turnover": _mean(self.turnover.to_numpy()),
            "coverage": _mean(self.coverage.to_numpy()),
        }

    def _frame(self, values: Floats, columns: Any, axis: str | None = None) -> Any:
        frame = _pandas().DataFrame(values, index=self._index, columns=columns)
        return frame if axis is None else frame.rename_axis(columns=axis)

    def _series(self, values: Floats, name: str) -> Any:
        return _pandas().Series(values, index=self._index, name=name)

    @cached_property
    def _dates(self) -> NDArray[np.datetime64] | None:
        """The days as dates, in UTC where they have a time zone; None where they are none."""
        index = self._index
        if not isinstance(index, _pandas().DatetimeIndex):
            return None
        dates: NDArray[np.datetime64] = index.to_numpy(dtype=f"datetime64[{index.unit}]")
        return dates

    @cached_property
    def _index(self) -> Any:
        aligned, pandas = self._aligned, _pandas()
        if aligned.is_utc:
            return pandas.DatetimeIndex(aligned.days, tz="UTC", name="date")
        return pandas.Index(aligned.days).rename("date")


def _mean(numbers: Floats) -> float:
    known = numbers[np.isfinite(numbers)]
    return float(known.mean()) if len(known) else float("nan")


def _deviation(numbers: Floats) -> float:
    known = numbers[np.isfinite(numbers)]
    return float(known.std(ddof=1)) if len(known) > 1 else float("nan")


def _ratio(mean: float, deviation: float) -> float:
    return mean / deviation if deviation > 0.0 else float("nan")


def _pandas() -> Any:
    try:
        return importlib.import_module("pandas")
    except ImportError as error:
        raise ImportError(
            "evaluate() gives frames of pandas: pip install 'quorvane[evaluation]'"
        ) from error


def _horizons(horizons: Any) -> tuple[int, ...]:
    if isinstance(horizons, (str, bytes)) or not isinstance(horizons, Iterable):
        raise TypeError(f"horizons must be several ints, got {horizons!r}")
    days = tuple(whole_number("horizons", horizon, 1) for horizon in horizons)
    if not days or len(set(days)) < len(days):
        raise ValueError(f"horizons must be at least one, each once, got {days}")
    return days


def _cost(cost: Any) -> float:
    if isinstance(cost, bool) or not isinstance(cost, numbers.Real):
        raise TypeError(f"cost must be a number, got {cost!r}")
    number = float(cost)
    if not (np.isfinite(number) and number >= 0.0):
        raise ValueError(f"cost must be finite and at least 0, got {cost!r}")
    return number
