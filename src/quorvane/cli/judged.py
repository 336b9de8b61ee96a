"""A replay's signal beside the returns that follow it, for its picture and its report."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any

import numpy as np

from quorvane.cli.basket_days import BasketDays
from quorvane.cli.day_labels import Moments
from quorvane.cli.inputs import InputKind, are_prices, are_returns
from quorvane.cli.libraries import require_library
from quorvane.cli.table import Table
from quorvane.evaluation import Evaluation
from quorvane.evaluation.aligned import Aligned
from quorvane.evaluation.evaluation import evaluate_aligned
from quorvane.evaluation.following import KnownReturns
from quorvane.evaluation.report import StructureFigures, figures_of


@dataclass(frozen=True)
class Judged:
    """An evaluation and its structures; ``note`` says which returns were taken, in a sentence."""

    evaluation: Evaluation
    structures: StructureFigures
    note: str


def judge(
    days: BasketDays, table: Table, result: Table, moments: Moments | None, kind: InputKind
) -> Judged:
    """Evaluate the result of all days by the returns that the structures saw, if they are some."""
    returns = days.inputs
    if kind == "returns":
        note = "Returns are those of the table's prices from row to row."
        if not are_prices(table.values):
            note += " Many of its numbers are zero or less, and no prices."
    elif are_returns(returns):
        note = "The table's numbers were taken as daily returns, as fractions."
    else:
        note = "The table's numbers are no daily returns, so nothing is judged by them."
        returns = np.full_like(returns, np.nan)
    aligned = Aligned(
        signal=result.values,
        returns=returns,
        rows=np.arange(len(returns)),
        days=_index(result, moments),
        is_utc=False,
        instruments=result.instruments,
    )
    evaluation = evaluate_aligned(aligned, KnownReturns())
    last = None if days.dates is None else days.dates[-1]
    return Judged(evaluation, figures_of(evaluation, days.rotation, days.book, last), note)


def _index(table: Table, moments: Moments | None) -> Any:
    """The days for pandas: dates where the labels are some, otherwise as they are written."""
    pandas = require_library("pandas", "judging the output")
    if table.dates is None:
        return pandas.RangeIndex(len(table.values))
    # In several offsets no one zone has the days as they are written.
    zones = {label[-6:] for label in table.dates.text} if moments and moments.is_utc else {""}
    if moments is None or len(zones) > 1:
        return pandas.Index(list(table.dates.text), dtype=object)
    is_day = moments.values.dtype == np.dtype("datetime64[D]")
    # pandas knows no unit of days.
    index = pandas.DatetimeIndex(
        moments.values.astype("datetime64[s]") if is_day else moments.values
    )
    zone = zones.pop()
    if not moments.is_utc:
        return index
    return index.tz_localize("UTC").tz_convert(zone if zone[0] in "+-" else "UTC")
