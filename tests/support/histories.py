"""Whole histories, computed at once and day by day, and all that they leave behind."""

import tracemalloc
import warnings

import numpy as np

from quorvane.functions.rotations.virtualization.baskets import FixedBaskets
from support import frozen


class ByDays(FixedBaskets):
    """The same rotation with an override that only calls super(), which sees every day."""

    def __init__(self, *args, **options):
        super().__init__(*args, **options)
        self.seen_days = 0

    def compute(self, *args):
        self.seen_days += 1
        return super().compute(*args)


def random_baskets(rng, instruments, baskets, legs):
    """Baskets of up to `legs` legs with weights of many sizes, by name."""
    names = [f"i{column}" for column in range(instruments)]
    made = {}
    for number in range(baskets):
        chosen = rng.permutation(instruments)[: rng.integers(1, legs + 1)]
        weights = rng.normal(size=len(chosen)) * 10.0 ** rng.integers(-2, 3, size=len(chosen))
        made[f"b{number}"] = {names[i]: float(w) for i, w in zip(chosen, weights, strict=True)}
    return made, names


def leftovers(rotation):
    """Everything that the rotation and its children hold, frozen to the bit."""
    held = {name: value for name, value in vars(rotation).items() if name != "seen_days"}
    children = [vars(child) for child in rotation.child_rotations]
    return frozen.freeze((list(held), held, children, rotation.get_state()))


def replayed(rotation, *matrices, context=None):
    """The batch's outcome with its warnings, all that is left behind, and a day after it."""
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        ending = frozen.outcome(rotation.batch_reference, *matrices, context=context)
    left = leftovers(rotation)
    row = np.ones(len(rotation.instruments))
    return ending[:2], ending[-1], left, frozen.outcome(rotation, row)[:2], leftovers(rotation)


def both(make, *matrices, context=None):
    """What the history gives at once and day by day; the latter has seen all of its days."""
    at_once = replayed(make(FixedBaskets), *matrices, context=context)
    rotation = make(ByDays)
    by_days = replayed(rotation, *matrices, context=context)
    return at_once, by_days


def traced_peak(rotation, matrix):
    """How much more than its output a history needs: day by day it is twice as much."""
    rotation.batch_reference(matrix[:30])
    tracemalloc.start()
    try:
        output = rotation.batch_reference(matrix)
        return tracemalloc.get_traced_memory()[1] / output.nbytes
    finally:
        tracemalloc.stop()
