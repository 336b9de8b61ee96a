"""The whole day through `__call__`, framework and children included, against NumPy by hand."""

import random

import numpy as np

from daybench.by_hand import DayByHand
from daybench.goals import Line
from daybench.timing import Side, compare
from quorvane.functions._registry import StaticFunctionRegistry
from quorvane.functions.rotations.virtualization.baskets import FixedBaskets

# Structures and instruments.
SIZES = {
    "100": (100, 500),
    "1k": (1_000, 500),
    "10k": (10_000, 5_000),
    "100k": (100_000, 5_000),
    "1m": (1_000_000, 5_000),
}
WINDOW = 20
WARM_UP_DAYS = 30


DEAD_SHARE = 0.02


def run(names, settings):
    """Yield two lines for each chosen size: every instrument lives, and some never did.

    A structure on a dead instrument has a NaN mean for ever, and a row with NaN is what NumPy's
    fast sorting does not take, so the second line is information about the peer, not a goal.
    """
    for name in names:
        for dead, goal in ((False, 1.0), (True, None)):
            yield _compare(name, dead, goal, settings)


def _compare(name, dead, goal, settings):
    structures, instruments = SIZES[name]
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

    One in a hundred inputs is NaN; after the warm-up every structure has been seen.
    """
    draw = random.Random(7)
    all_legs = [
        [(i, draw.uniform(-1.0, 1.0)) for i in draw.sample(range(instruments), 2)]
        for _ in range(structures)
    ]
    names = [f"I{i}" for i in range(instruments)]
    ours = FixedBaskets(
        ((f"B{k}", [(names[i], w) for i, w in legs]) for k, legs in enumerate(all_legs)),
        names,
        **_children(structures),
    )
    by_hand = DayByHand(all_legs, instruments, WINDOW)
    random_numbers = np.random.default_rng(7)
    inputs = random_numbers.standard_normal((WARM_UP_DAYS, instruments))
    inputs[random_numbers.random(inputs.shape) < 0.01] = np.nan
    if dead:
        inputs[:, random_numbers.random(instruments) < DEAD_SHARE] = np.nan
    for row in inputs:
        np.testing.assert_allclose(ours(row), by_hand(row), rtol=0, atol=1e-9 * structures)
    return ours, by_hand, list(inputs)


def _children(slots):
    """The children by expression, or as objects where that would ask for too many cells."""
    if 2 * slots <= 1_000_000:
        return {"transformation_expression": f"ewma({WINDOW});rank"}
    registry = StaticFunctionRegistry(N_alloc=slots)
    children = [
        registry.create_instance("longitudinal_ewma_67301c", window=WINDOW),
        registry.create_instance("latitudinal_rank_688068"),
    ]
    return {"transformation_expression": "none", "child_rotations": children}
