"""Signals and returns that reports are made of."""

from itertools import pairwise

import numpy as np
import pandas

import quorvane as qv


def table(days=120, instruments=12, seed=0, scale=0.01):
    """Random returns by business day."""
    index = pandas.bdate_range("2020-01-01", periods=days, name="day")
    names = [f"I{i}" for i in range(instruments)]
    draw = np.random.default_rng(seed).normal(scale=scale, size=(days, instruments))
    return pandas.DataFrame(draw, index=index, columns=names)


def pairs_of(names):
    """Each instrument against the next one."""
    return {f"{a}/{b}": {a: 1.0, b: -1.0} for a, b in pairwise(names)}


def dated_pairs(returns, every=20):
    """Pairs of which another third is left out from each date on; a table with a row per leg."""
    pairs = list(pairs_of(list(returns.columns)).items())
    rows = [
        (date, name, instrument, weight)
        for turn, date in enumerate(returns.index[::every])
        for number, (name, legs) in enumerate(pairs)
        if (number + turn) % 3
        for instrument, weight in legs.items()
    ]
    return pandas.DataFrame(rows, columns=["date", "basket", "instrument", "weight"])


def judged(**shape):
    """An evaluation with the baskets that gave the signal."""
    returns = table(**shape)
    baskets = qv.Baskets(pairs_of(list(returns.columns)), "ewma(5);centered_rank")
    return qv.evaluate(baskets.run(returns), returns), baskets
