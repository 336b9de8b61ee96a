"""A replay's signal beside the returns that follow it, for its picture and its report."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from quorvane.cli.basket_days import BasketDays
from quorvane.cli.day_labels import Moments
from quorvane.cli.day_table import day_index
from quorvane.cli.inputs import InputKind, are_prices, are_returns
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
        days=day_index(result, moments),
        is_utc=False,
        instruments=result.instruments,
    )
    evaluation = evaluate_aligned(aligned, KnownReturns())
    last = None if days.dates is None else days.dates[-1]
    return Judged(evaluation, figures_of(evaluation, days.rotation, days.book, last), note)
