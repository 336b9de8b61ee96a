"""What is said of each signal: figures by name."""

from __future__ import annotations

import inspect
import math
import numbers
from collections.abc import Mapping
from dataclasses import dataclass
from typing import Any

from quorvane.evaluation.aligned import align
from quorvane.evaluation.evaluation import evaluate, evaluate_aligned
from quorvane.evaluation.following import KnownReturns
from quorvane.hints import did_you_mean
from quorvane.sweeping.own_functions import OwnFunction, imported, own_function

Number = int | float
Figures = dict[str, Number]

_DEFAULTS = {
    name: parameter.default
    for name, parameter in inspect.signature(evaluate).parameters.items()
    if name not in ("signal", "returns", "date")
}

# Of the summary, what is the same for every horizon.
_ONCE = ("turnover", "coverage")


@dataclass(frozen=True)
class Score:
    """How signals are judged: by `evaluate` with these arguments, or by a function.

    Attributes
    ----------
    arguments : dict
        Of `evaluate`, all of them; plain.
    function : OwnFunction or None
        Called as ``function(signal, data)`` instead.
    """

    arguments: dict[str, Any]
    function: OwnFunction | None = None


def score_of(score: Any) -> Score:
    """Read the argument: None, arguments of `evaluate`, or a function with an import path.

    Raises
    ------
    TypeError
        It is none of them, or an argument is unknown or wrong.
    ValueError
        An argument is out of range, or the function has no import path.
    """
    if score is None or isinstance(score, Mapping):
        return _by_evaluation(score or {})
    if not callable(score):
        raise TypeError(
            f"score must be a function, a mapping of arguments of evaluate, or None, got {score!r}"
        )
    function = own_function(score)
    if function.fault:
        raise ValueError(f"score: {function.fault}; it is imported by its path in each worker")
    return Score({}, function)


def _by_evaluation(given: Mapping[str, Any]) -> Score:
    for name in given:
        if name not in _DEFAULTS:
            hint = did_you_mean(str(name), _DEFAULTS) or f"known are {', '.join(_DEFAULTS)}"
            raise TypeError(f"score: evaluate has no argument {name!r}; {hint}")
    arguments = {**_DEFAULTS, **given}
    # Checked now: a wrong one would be wrong in every row.
    checked = evaluate([[0.0]], [[0.0]], **arguments)
    return Score(
        {
            "horizons": checked.horizons,
            "quantiles": checked.quantiles,
            "lag": checked.lag,
            "cost": checked.cost,
        }
    )


def figures(score: Score, signal: Any, data: Any, known: KnownReturns) -> Figures:
    """The figures of a signal of the data; whatever the function raises, and TypeError for others.

    Those of `evaluate` are the summary's, ``ic_mean_5`` for ``ic_mean`` of the horizon 5.
    """
    if score.function is None:
        summary = evaluate_aligned(align(signal, data, None), known, **score.arguments).summary
        return _flat(summary)
    returned = imported(score.function)(signal, data)
    if not isinstance(returned, Mapping):
        raise TypeError(
            f"score: {score.function.path} must return a mapping {{name: number}}, "
            f"got {type(returned).__name__}"
        )
    return {_name(name): _number(name, value) for name, value in returned.items()}


def _flat(summary: Any) -> Figures:
    flat: Figures = {}
    for horizon, row in summary.to_dict(orient="index").items():
        for name, value in row.items():
            flat[name if name in _ONCE else f"{name}_{horizon}"] = _number(name, value)
    for name in _ONCE:
        flat[name] = flat.pop(name)
    return flat


def _name(name: Any) -> str:
    if not isinstance(name, str):
        raise TypeError(f"score: names of figures must be text, got {name!r}")
    return str(name)


def _number(name: str, value: Any) -> Number:
    if hasattr(value, "item") and getattr(value, "shape", None) == ():
        value = value.item()
    if isinstance(value, numbers.Integral):
        return int(value)
    if isinstance(value, numbers.Real):
        number = float(value)
        # One kind of NaN, so that what was stored is what was computed, to the bit.
        return math.nan if math.isnan(number) else number
    raise TypeError(f"score: the figure {name!r} must be a number, got {value!r}")
