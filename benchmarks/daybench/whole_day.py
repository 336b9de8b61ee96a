"""The whole day through `__call__`, framework and children included, against NumPy by hand."""

import numpy as np

from daybench.goals import Line
from daybench.ours import BASKETS, WINDOW, baskets
from daybench.peers import load
from daybench.timing import Side, compare


def run(names, settings):
    """Yield two lines for each chosen size: every instrument lives, and some never did.

    A structure on a dead instrument has a NaN mean for ever, and a row with NaN is what NumPy's
    fast sorting does not take, so the second line is information about the peer, not a goal.
    """
    for name in names:
        for dead, goal in ((False, 1.0), (True, None)):
            yield _compare(name, dead, goal, settings)


def _compare(name, dead, goal, settings):
    structures, instruments = BASKETS[name]
    ours, by_hand, inputs = both(structures, instruments, dead)
    feeds = (_Feed(ours, inputs), _Feed(by_hand, inputs))
    sides = (Side(feed.call, feed.prepare) for feed in feeds)
    what = "some dead" if dead else "all alive"
    return Line(
        "whole day", f"{name} baskets of 2", what, compare(*sides, settings), goal, structures
    )


class _Feed:
    """Goes through the days again and again."""

    def __init__(self, day, inputs):
        self._day, self._inputs, self._next, self._today = day, inputs, 0, inputs[0]

    def prepare(self):
        """Take the next day's input."""
        self._today = self._inputs[self._next]
        self._next = (self._next + 1) % len(self._inputs)

    def call(self):
        """One day."""
        self._day(self._today)


def both(structures, instruments, dead):
    """Both ways, warm, after a check that they return the same numbers within rounding.

    After these days every structure has been seen.
    """
    ours = baskets(structures, instruments, dead)
    by_hand = load("daybench.by_hand").DayByHand(ours.all_legs, instruments, WINDOW)
    for row in ours.inputs:
        np.testing.assert_allclose(ours.rotation(row), by_hand(row), rtol=0, atol=1e-9 * structures)
    return ours.rotation, by_hand, ours.inputs
