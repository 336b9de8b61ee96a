"""What a column's last days say: their mean, their deviation, and how far today is from them."""

from __future__ import annotations

from typing import ClassVar

import numpy as np
from numpy.typing import NDArray

from quorvane.functions.rotations.longitudinal import _over_time
from quorvane.functions.rotations.longitudinal.remembering import Remembering

__all__ = ["RollingMean", "RollingStd", "RollingZScore"]


class _Rolling(Remembering):
    _arguments: ClassVar[tuple[str, ...]] = ("window", "min_periods")

    def _check(self, memory: NDArray[np.float64], position: int) -> None:
        super()._check(memory, position)
        if np.count_nonzero(np.isinf(memory)):
            raise ValueError(
                f"{self._name}: state['memory'] must hold no infinity, which is missing"
            )


class RollingMean(_Rolling, _over_time.RollingMean):
    """Mean of each column's last ``window`` days.

    sum(x) / n over the n numbers among them; missing, as NaN or an infinity is, where n is below
    ``min_periods``. As ``pandas.DataFrame.rolling(window, min_periods).mean()``. Nothing is ever
    subtracted, so that a number leaves no trace once it is out of the window. The error is at most
    n * eps times the mean of the magnitudes, where their sum does not overflow, and half the
    smallest denormal; eps is 2**-52.

    Parameters
    ----------
    window : int
        Days, at least 1.
    min_periods : int or None
        From 1 to the window, which is the default.
    N_alloc : int
        The number of columns.
    """


class RollingStd(_Rolling, _over_time.RollingStd):
    """Deviation of each column's last ``window`` days, with ddof 1.

    sqrt(sum((x - mean(x))**2) / (n - 1)) over the n numbers among them; missing where n is below
    ``min_periods`` or 2. As ``pandas.DataFrame.rolling(window, min_periods).std()``, by the steps
    of Welford (1962) and of Chan, Golub and LeVeque (1983). The relative error is at most
    2 n * eps * (1 + m / d), m being the mean of the magnitudes and d the deviation, where squares
    neither overflow nor underflow; equal numbers have a deviation of exactly 0.

    Parameters
    ----------
    window : int
        Days, at least 2.
    min_periods : int or None
        From 1 to the window, which is the default.
    N_alloc : int
        The number of columns.
    """


class RollingZScore(_Rolling, _over_time.RollingZScore):
    """How many deviations today is above the mean of the last ``window`` days, today included.

    (x - rolling mean) / rolling deviation, as `RollingMean` and `RollingStd` have them; missing
    where today is, or where the deviation is zero. The error is at most
    2 n * eps * (1 + m / d) * (1 + abs(z)), with m and d of `RollingStd`.

    Parameters
    ----------
    window : int
        Days, at least 2.
    min_periods : int or None
        From 1 to the window, which is the default.
    N_alloc : int
        The number of columns.
    """
