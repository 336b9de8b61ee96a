"""The child rotations through their `__call__`, one tenth of the slots NaN, against their peers."""

import itertools

import bottleneck
import numpy as np
from scipy.special import expit

from daybench.by_hand import EwmaByHand, rank_by_hand, zscore_by_hand
from daybench.goals import Line
from daybench.ours import WINDOW, rows
from daybench.ours import children as our_children
from daybench.timing import Side, compare

SIZES = {"1k": 1_000, "10k": 10_000, "100k": 100_000, "1m": 1_000_000}


def run(names, settings):
    """Yield a line for each child at each chosen size."""
    for name in names:
        slots = SIZES[name]
        for what, goal, ours, peer, timed_peer in children(slots):
            days = rows(slots)
            for row in days:
                np.testing.assert_allclose(ours(row), peer(row), rtol=1e-9, atol=1e-12)
            sides = (_over(days, child) for child in (ours, timed_peer))
            yield Line("kernels", f"{name} slots", what, compare(*sides, settings), goal, slots)


def children(slots):
    """What, least ratio, our child, the same results by the peer, and what of it is timed."""
    ewma = EwmaByHand(WINDOW, slots)
    ours = our_children(slots)
    return [
        ("ewma / NumPy", 5.0, ours["ewma"], ewma, ewma),
        # Timed without the division by the count, which the peer does not do.
        ("rank / bottleneck", 2.0, ours["rank"], rank_by_hand, bottleneck.nanrankdata),
        ("zscore / bottleneck", 2.0, ours["zscore"], zscore_by_hand, zscore_by_hand),
        ("sigmoid / SciPy", 1.0, ours["sigmoid"], expit, expit),
    ]


def _over(days, child):
    """A side that goes through the days again and again."""
    following = itertools.cycle(days)
    row = days[0]

    def prepare():
        nonlocal row
        row = next(following)

    return Side(lambda: child(row), prepare)
