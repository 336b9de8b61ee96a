"""The functions that every expression knows.

Each is a plain function: its parameters are those of the expression, and ``places`` says what the
rotation that it returns is made for. The first line of its docstring is its line in the catalogue.
In all of them a missing number stays missing, and a result that is not finite is missing.
"""

from __future__ import annotations

import math
from collections.abc import Callable
from typing import Any

from quorvane.expressions.places import Places
from quorvane.functions.rotations.latitudinal.cross_section import (
    CenteredRank,
    Demean,
    Scale,
    Winsorize,
    WithinGroups,
)
from quorvane.functions.rotations.latitudinal.normalize import ZScore
from quorvane.functions.rotations.latitudinal.rank import Rank
from quorvane.functions.rotations.longitudinal.ewma import Ewma
from quorvane.functions.rotations.longitudinal.exponential import ExponentialMean, ExponentialStd
from quorvane.functions.rotations.longitudinal.past_values import Delay, Diff
from quorvane.functions.rotations.longitudinal.rolling import (
    RollingMean,
    RollingStd,
    RollingZScore,
)
from quorvane.functions.rotations.numerical.clip import Clip
from quorvane.functions.rotations.numerical.transcendental import Transcendental

# ---- over time ----------------------------------------------------------------------------------


def ewma(
    window: int | None = None,
    *,
    span: float | None = None,
    halflife: float | None = None,
    places: Places,
) -> Any:
    """Exponentially weighted mean of all days so far.

    The weight of a number that is k days old is (1 - alpha)**k, with alpha = 2 / (span + 1), or
    1 - exp(log(0.5) / halflife); ``window`` is another word for ``span``. On a day without a number
    the mean is held. To the bit ``pandas.DataFrame.ewm(span=span).mean()``, or with ``halflife``.
    """
    if isinstance(window, int) and span is None and halflife is None:
        return Ewma(window, N_alloc=places.count)
    return ExponentialMean(_decay(window, span, halflife), N_alloc=places.count)


def ewm_std(
    window: float | None = None,
    *,
    span: float | None = None,
    halflife: float | None = None,
    places: Places,
) -> Any:
    """Exponentially weighted standard deviation of all days so far, without bias.

    sqrt(sum(w)**2 / (sum(w)**2 - sum(w**2)) * var) with the weights of ``ewma`` and the variance
    that they give; missing before the second number. To the bit
    ``pandas.DataFrame.ewm(span=span).std()``, or with ``halflife``.
    """
    return ExponentialStd(_decay(window, span, halflife), N_alloc=places.count)


def rolling_mean(window: int, min_periods: int | None = None, *, places: Places) -> Any:
    """Mean of the last days.

    sum(x) / n over the n numbers of the last ``window`` days; missing where n is below
    ``min_periods``, by default all days of the window. As
    ``pandas.DataFrame.rolling(window, min_periods).mean()``, with an error of at most n * eps times
    the mean of the magnitudes.
    """
    return RollingMean(window, min_periods, N_alloc=places.count)


def rolling_std(window: int, min_periods: int | None = None, *, places: Places) -> Any:
    """Standard deviation of the last days, with ddof 1.

    sqrt(sum((x - mean)**2) / (n - 1)) over the n numbers of the last ``window`` days; missing where
    n is below ``min_periods`` or 2. As ``pandas.DataFrame.rolling(window, min_periods).std()``,
    with an error of at most 2 n * eps * (1 + m / d) times the result d, m being the mean of the
    magnitudes.
    """
    return RollingStd(window, min_periods, N_alloc=places.count)


def rolling_zscore(window: int, min_periods: int | None = None, *, places: Places) -> Any:
    """Distance from the mean of the last days, today included, in deviations.

    (x - rolling_mean) / rolling_std; missing where the deviation is zero.
    """
    return RollingZScore(window, min_periods, N_alloc=places.count)


def delay(days: int, *, places: Places) -> Any:
    """Number of some days ago.

    As ``pandas.DataFrame.shift(days)``.
    """
    return Delay(days, N_alloc=places.count)


def diff(days: int, *, places: Places) -> Any:
    """Change since some days ago.

    x - delay(days), as ``pandas.DataFrame.diff(days)``.
    """
    return Diff(days, N_alloc=places.count)


# ---- across structures --------------------------------------------------------------------------


def rank(*, by: str | None = None, places: Places) -> Any:
    """Rank among the structures of the day, in (0, 1].

    r / n with the average rank r of n: to the bit ``pandas.Series.rank(pct=True)``; within each
    group with ``by``, the name of a label.
    """
    return _across(Rank, "rank", by, places)


def centered_rank(*, by: str | None = None, places: Places) -> Any:
    """Rank among the structures of the day, around zero, in (-1, 1).

    (2 r - n - 1) / n with the average rank r of n, to the bit as ``scipy.stats.rankdata`` gives it;
    within each group with ``by``. Values of the opposite sign give the opposite sign.
    """
    return _across(CenteredRank, "centered_rank", by, places)


def zscore(*, by: str | None = None, places: Places) -> Any:
    """Distance from the day's mean, in deviations.

    (x - mean) / std with ddof 0, as ``scipy.stats.zscore``; missing where the deviation is zero;
    within each group with ``by``.
    """
    return _across(ZScore, "zscore", by, places)


def demean(*, by: str | None = None, places: Places) -> Any:
    """Distance from the day's mean.

    x - mean(x), as ``x - np.nanmean(x)`` with an error of the mean of at most 2 eps of it; equal
    numbers give zeros; within each group with ``by``.
    """
    return _across(Demean, "demean", by, places)


def scale(*, places: Places) -> Any:
    """Share of the day's sum of absolute values.

    x / sum(abs(x)), as ``x / np.nansum(np.abs(x))`` with a relative error of at most 50 eps;
    missing where the sum is zero.
    """
    return Scale(N_alloc=places.count)


def clip(low: float, high: float, *, places: Places) -> Any:
    """Number within two bounds.

    To the bit ``np.clip(x, low, high)``.
    """
    return Clip(low, high, N_alloc=places.count)


def winsorize(fraction: float, *, places: Places) -> Any:
    """Number within the day's quantiles of fraction and 1 - fraction.

    To the bit ``np.clip(x, *np.nanquantile(x, [fraction, 1 - fraction]))``: the quantiles lie
    linearly between two numbers.
    """
    return Winsorize(fraction, N_alloc=places.count)


# ---- each number by itself ----------------------------------------------------------------------


def sigmoid(*, places: Places) -> Any:
    """1 / (1 + exp(-x)), in (0, 1).

    Within 4 units in the last place of ``scipy.special.expit``.
    """
    return Transcendental(function="sigmoid", N_alloc=places.count)


def tanh(*, places: Places) -> Any:
    """Hyperbolic tangent, in (-1, 1).

    Within 2 units in the last place of ``np.tanh``.
    """
    return Transcendental(function="tanh", N_alloc=places.count)


def sign(*, places: Places) -> Any:
    """-1, 0 or 1.

    To the bit ``np.sign``.
    """
    return Transcendental(function="sign", N_alloc=places.count)


def absolute(*, places: Places) -> Any:
    """Absolute value.

    To the bit ``np.abs``.
    """
    return Transcendental(function="abs", N_alloc=places.count)


def log(*, places: Places) -> Any:
    """Natural logarithm; missing for what is not positive.

    Within 2 units in the last place of ``np.log``.
    """
    return Transcendental(function="log", N_alloc=places.count)


READY_MADE: dict[str, Callable[..., Any]] = {
    "ewma": ewma,
    "ewm_std": ewm_std,
    "rolling_mean": rolling_mean,
    "rolling_std": rolling_std,
    "rolling_zscore": rolling_zscore,
    "delay": delay,
    "diff": diff,
    "rank": rank,
    "centered_rank": centered_rank,
    "zscore": zscore,
    "demean": demean,
    "scale": scale,
    "clip": clip,
    "winsorize": winsorize,
    "sigmoid": sigmoid,
    "tanh": tanh,
    "sign": sign,
    "abs": absolute,
    "log": log,
}

# Names that expressions of the base class know besides.
ALIASES = {
    "longitudinal_ewma_67301c": "ewma",
    "latitudinal_normalize_092871": "zscore",
    "latitudinal_rank_688068": "rank",
    "numerical_transcendental_2f4f61": "sigmoid",
}

# Beyond it the weights of a day and of the day before are the same number.
_LONGEST = 2**53


def _across(rotation: Callable[..., Any], function: str, by: str | None, places: Places) -> Any:
    """A rotation over all slots, or the function of that name within each group."""
    if by is None:
        return rotation(N_alloc=places.count)
    return WithinGroups(function, places.groups(by), N_alloc=places.count)


def _decay(window: object, span: object, halflife: object) -> float:
    """By how much weights shrink from day to day, by the very steps of pandas."""
    given = {"window": window, "span": span, "halflife": halflife}
    named = {name: value for name, value in given.items() if value is not None}
    if len(named) != 1:
        got = ", ".join(named) or "none of them"
        raise ValueError(f"exactly one of window, span and halflife is wanted, got {got}")
    ((name, value),) = named.items()
    if isinstance(value, bool) or not isinstance(value, int | float):
        raise TypeError(f"{name} must be a number, got {value!r}")
    least = 0.0 if name == "halflife" else 1.0
    if not (least < value <= _LONGEST or (name != "halflife" and value == least)):
        wanted = "above 0" if name == "halflife" else "at least 1"
        raise ValueError(f"{name} must be {wanted} and at most 2**53, got {value!r}")
    if name == "halflife":
        com = 1.0 / (1.0 - math.exp(math.log(0.5) / value)) - 1.0
    else:
        com = (value - 1.0) / 2.0
    return 1.0 - 1.0 / (1.0 + com)
