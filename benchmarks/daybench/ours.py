"""Our side of the comparisons, which can be had without any of the peers."""

import random
from dataclasses import dataclass

import numpy as np

from quorvane.functions._registry import StaticFunctionRegistry
from quorvane.functions.rotations.latitudinal.normalize import ZScore
from quorvane.functions.rotations.latitudinal.rank import Rank
from quorvane.functions.rotations.longitudinal.ewma import Ewma
from quorvane.functions.rotations.numerical.transcendental import Transcendental
from quorvane.functions.rotations.virtualization.baskets import FixedBaskets

# Structures and instruments.
BASKETS = {
    "100": (100, 500),
    "1k": (1_000, 500),
    "10k": (10_000, 5_000),
    "100k": (100_000, 5_000),
    "1m": (1_000_000, 5_000),
}
WINDOW = 20
WARM_UP_DAYS = 30
DEAD_SHARE = 0.02


def children(slots):
    """The child rotations by name."""
    return {
        "ewma": Ewma(window=WINDOW, N_alloc=slots),
        "rank": Rank(N_alloc=slots),
        "zscore": ZScore(N_alloc=slots),
        "sigmoid": Transcendental(N_alloc=slots),
    }


def rows(slots):
    """Some days' values, one in ten NaN."""
    random_numbers = np.random.default_rng(11)
    values = random_numbers.standard_normal((8, slots))
    values[random_numbers.random(values.shape) < 0.1] = np.nan
    return list(values)


@dataclass(frozen=True)
class Baskets:
    """Baskets of two, what they consist of, and the days that they are fed."""

    rotation: FixedBaskets
    all_legs: list
    inputs: list


def baskets(structures, instruments, dead):
    """Make them; one input in a hundred is NaN, and with `dead` some instruments always are."""
    draw = random.Random(7)
    all_legs = [
        [(i, draw.uniform(-1.0, 1.0)) for i in draw.sample(range(instruments), 2)]
        for _ in range(structures)
    ]
    names = [f"I{i}" for i in range(instruments)]
    rotation = FixedBaskets(
        ((f"B{k}", [(names[i], w) for i, w in legs]) for k, legs in enumerate(all_legs)),
        names,
        **_chain(structures),
    )
    random_numbers = np.random.default_rng(7)
    inputs = random_numbers.standard_normal((WARM_UP_DAYS, instruments))
    inputs[random_numbers.random(inputs.shape) < 0.01] = np.nan
    if dead:
        inputs[:, random_numbers.random(instruments) < DEAD_SHARE] = np.nan
    return Baskets(rotation, all_legs, list(inputs))


def _chain(slots):
    """The children by expression, or as objects where that would ask for too many cells."""
    if 2 * slots <= 1_000_000:
        return {"transformation_expression": f"ewma({WINDOW});rank"}
    registry = StaticFunctionRegistry(N_alloc=slots)
    chain = [
        registry.create_instance("longitudinal_ewma_67301c", window=WINDOW),
        registry.create_instance("latitudinal_rank_688068"),
    ]
    return {"transformation_expression": "none", "child_rotations": chain}
