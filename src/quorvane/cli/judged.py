"""A replay's signal beside the returns that follow it, for its picture and its report."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane.cli.basket_days import BasketDays
from quorvane.cli.day_labels import Moments
from quorvane.cli.inputs import InputKind
from quorvane.cli.libraries import require_library
from quorvane.cli.table import Table
from quorvane.evaluation import Evaluation, evaluate
from quorvane.evaluation.report import StructureFigures, figures_of

# Daily returns are fractions: half of them beyond a half are none.
_MOST_TYPICAL = 0.5


@dataclass(frozen=True)
class Judged:
    """An evaluation and its structures; ``note`` says which returns were taken, in a sentence."""

    evaluation: Evaluation
    structures: StructureFigures
    note: str
    has_returns: bool


def judge(
    days: BasketDays,
    result: Table,
    moments: Moments | None,
    kind: InputKind,
) -> Judged:
    """Evaluate the result of all days by the returns that the structures saw, if they are some."""
    has_returns = kind == "returns" or are_returns(days.inputs)
    returns = days.inputs if has_returns else np.full_like(days.inputs, np.nan)
    evaluation = evaluate(_frame(result.values, result, moments), _frame(returns, result, moments))
    last = None if days.dates is None else days.dates[-1]
    if kind == "returns":
        note = "Returns are those of the table's prices from row to row."
    elif has_returns:
        note = "The table's numbers were taken as daily returns, as fractions."
    else:
        note = "The table's numbers are no daily returns, so nothing is judged by them."
    structures = figures_of(evaluation, days.rotation, days.book, last)
    return Judged(evaluation, structures, note, has_returns)


def are_returns(values: NDArray[np.float64]) -> bool:
    """Whether numbers can be daily returns, as fractions: none loses all, and most are small."""
    known = values[np.isfinite(values)]
    if not known.size:
        return True
    return bool(known.min() > -1.0 and np.median(np.abs(known)) < _MOST_TYPICAL)


def _frame(values: NDArray[np.float64], table: Table, moments: Moments | None) -> Any:
    """A frame of pandas, whose days are dates, other labels, or numbers."""
    pandas = require_library("pandas", "judging the output")
    index: Any = pandas.RangeIndex(len(values))
    if moments is not None:
        zone = "UTC" if moments.is_utc else None
        index = pandas.DatetimeIndex(moments.values.astype(_unit(moments)), tz=zone)
    elif table.dates is not None and len(set(table.dates.text)) == len(values):
        index = pandas.Index(list(table.dates.text), dtype=object)
    return pandas.DataFrame(
        values, index=index, columns=pandas.Index(list(table.instruments), dtype=object)
    )


def _unit(moments: Moments) -> str:
    """Days become seconds, which pandas knows."""
    is_day = moments.values.dtype == np.dtype("datetime64[D]")
    return "datetime64[s]" if is_day else str(moments.values.dtype)
