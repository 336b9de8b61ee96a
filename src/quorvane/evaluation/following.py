"""The returns that follow each day, found once for all that is judged by them."""

from __future__ import annotations

from quorvane.evaluation.aligned import Aligned, Rows
from quorvane.evaluation.statistics import Floats, Ranked, forward_returns


class FollowingReturns:
    """By horizon, the returns that follow the days of a signal, each computed when asked for."""

    def __init__(self, returns: Floats, rows: Rows, lag: int) -> None:
        self._returns, self._rows, self._lag = returns, rows, lag
        self._by_horizon: dict[int, Ranked] = {}

    def __getitem__(self, horizon: int) -> Ranked:
        """The compound returns of so many days, days x instruments."""
        found = self._by_horizon.get(horizon)
        if found is None:
            found = Ranked(forward_returns(self._returns, self._rows, horizon, self._lag))
            self._by_horizon[horizon] = found
        return found


class KnownReturns:
    """What was last found of one table of returns, for signals of the same days and instruments."""

    def __init__(self) -> None:
        self._last: tuple[object, FollowingReturns] | None = None

    def following(self, aligned: Aligned, lag: int) -> FollowingReturns:
        """What follows the signal's days, found before where they are the same."""
        key = aligned.instruments, aligned.rows.tobytes(), lag
        last = self._last
        if last is not None and last[0] == key:
            return last[1]
        found = FollowingReturns(aligned.returns, aligned.rows, lag)
        self._last = key, found
        return found
