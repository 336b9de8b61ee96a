"""What computes the same numbers as the child rotations, each as its library does it best.

A peer may have its own form of a row, and its own scale of a result: into the one and from the
other it is converted untimed.
"""

from collections.abc import Callable
from dataclasses import dataclass
from typing import Any

import numpy as np

from daybench.ewma_by_hand import EwmaByHand
from daybench.ours import WINDOW
from daybench.peers import load


def _as_it_is(row):
    return row


def _result_as_it_is(result, row):
    return result


@dataclass(frozen=True)
class Peer:
    """`timed(form(row))` is what is timed, `ours(result, row)` are our numbers of its result."""

    timed: Callable[[Any], Any]
    form: Callable[[np.ndarray], Any] = _as_it_is
    ours: Callable[[Any, np.ndarray], np.ndarray] = _result_as_it_is


def numpy_ewma(slots):
    return Peer(EwmaByHand(WINDOW, slots))


def bottleneck_rank(slots):
    return Peer(load("bottleneck").nanrankdata, ours=_over_the_count)


def polars_rank(slots):
    return Peer(lambda row: row.rank("average"), _polars_row, _polars_ranks)


def screamer_rank(slots):
    # From 0 to 1 where ours begin above 0.
    return Peer(load("screamer", "CrossRank")("unit"), ours=_from_unit_ranks)


def bottleneck_zscore(slots):
    nanmean, nanstd = load("bottleneck").nanmean, load("bottleneck").nanstd
    return Peer(lambda row: (row - nanmean(row)) / nanstd(row))


def polars_zscore(slots):
    return Peer(lambda row: (row - row.mean()) / row.std(ddof=0), _polars_row, _to_numpy)


def screamer_zscore(slots):
    # By the deviation of a sample where ours is the population's.
    return Peer(load("screamer", "CrossZscore")(), ours=_from_sample_scores)


def scipy_sigmoid(slots):
    return Peer(load("scipy.special").expit)


def screamer_sigmoid(slots):
    return Peer(load("screamer", "Sigmoid")())


# By child: the name of the comparison, the least ratio wanted, and the peer.
ROW_PEERS = {
    "ewma": [("NumPy", 5.0, numpy_ewma)],
    "rank": [
        ("bottleneck", 2.0, bottleneck_rank),
        ("polars", None, polars_rank),
        ("screamer", None, screamer_rank),
    ],
    "zscore": [
        ("bottleneck", 2.0, bottleneck_zscore),
        ("polars", None, polars_zscore),
        ("screamer", None, screamer_zscore),
    ],
    "sigmoid": [("SciPy", 1.0, scipy_sigmoid), ("screamer", None, screamer_sigmoid)],
}


def numbagg_history(table):
    """Over the whole table at once; a slot's days lie side by side, which suits it best."""
    move_exp_nanmean = load("numbagg", "move_exp_nanmean")
    columns = np.ascontiguousarray(table.T)
    alpha = 2.0 / (WINDOW + 1.0)
    return lambda: move_exp_nanmean(columns, alpha=alpha, min_weight=0.0).T


def polars_history(table):
    """Over a frame with a column for each slot; the mean is held where a value is missing."""
    polars = load("polars")
    frame = polars.DataFrame(table).fill_nan(None)
    mean = polars.all().ewm_mean(span=WINDOW, adjust=True, ignore_nulls=False)
    return lambda: frame.select(mean.forward_fill())


def screamer_history(table):
    """Over the whole table; it leaves missing days out, so it is given none."""
    mean = load("screamer", "EwMean")(span=WINDOW)
    return lambda: mean(table)


# The name of the comparison, whether values are missing, and the peer.
HISTORY_PEERS = [
    ("numbagg", True, numbagg_history),
    ("polars", True, polars_history),
    ("screamer", False, screamer_history),
]


def _count(row):
    return np.count_nonzero(~np.isnan(row))


def _over_the_count(ranks, row):
    return ranks / _count(row)


def _from_unit_ranks(ranks, row):
    count = _count(row)
    return (ranks * (count - 1) + 1) / count


def _from_sample_scores(scores, row):
    count = _count(row)
    return scores * np.sqrt(count / (count - 1))


def _polars_row(row):
    return load("polars").Series(row).fill_nan(None)


def _to_numpy(result, row):
    return result.to_numpy()


def _polars_ranks(ranks, row):
    return _over_the_count(ranks.to_numpy(), row)
