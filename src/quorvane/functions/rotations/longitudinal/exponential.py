"""Exponentially weighted mean and deviation, for any decay."""

from __future__ import annotations

from typing import ClassVar

import numpy as np
from numpy.typing import NDArray

from quorvane.functions.rotations.longitudinal import _over_time
from quorvane.functions.rotations.longitudinal.remembering import Remembering

__all__ = ["ExponentialMean", "ExponentialStd"]

# Adding 1 to 2**53 gives 2**53: no sum of weights comes to more.
_LARGEST_WEIGHT = 2.0**53


class _Weighted(Remembering):
    _arguments: ClassVar[tuple[str, ...]] = ("decay",)

    def _check(self, memory: NDArray[np.float64], position: int) -> None:
        if position:
            raise ValueError(f"{self._name}: state['position'] must be 0, got {position}")
        not_begun = np.isnan(memory[0])
        for weights in memory[1:3]:
            fits = (weights >= 0.0) & (weights <= _LARGEST_WEIGHT)
            if np.count_nonzero(fits | not_begun) != weights.size:
                raise ValueError(
                    f"{self._name}: state['memory'] holds weights that no history gives, which are "
                    f"from 0 to 2**53"
                )
        # Squares of numbers as large as 1e200 overflow, and then there is no variance.
        if np.count_nonzero(memory[3:] < 0.0):
            raise ValueError(f"{self._name}: state['memory'] holds variances below 0")


class ExponentialMean(_Weighted, _over_time.ExponentialMean):
    """Exponentially weighted mean of each column.

    The weight of a number that is k days old is ``decay**k``; the mean is the weighted mean of all
    numbers so far. A day without one, as NaN or an infinity is, leaves the mean as it is and ages
    the weights. To the bit ``pandas.DataFrame.ewm(com).mean()`` where decay is
    ``1 - 1 / (1 + com)``, as pandas has it.

    Parameters
    ----------
    decay : float
        From 0 on and below 1.
    N_alloc : int
        The number of columns.
    """


class ExponentialStd(_Weighted, _over_time.ExponentialStd):
    """Exponentially weighted deviation of each column, without bias.

    The square root of sum(w)**2 / (sum(w)**2 - sum(w**2)) times the weighted variance, with the
    weights of `ExponentialMean`; missing before the second number, where the rounding of the
    weights does not make it 0. To the bit ``pandas.DataFrame.ewm(com).std()`` where decay is
    ``1 - 1 / (1 + com)``.

    Parameters
    ----------
    decay : float
        From 0 on and below 1.
    N_alloc : int
        The number of columns.
    """
