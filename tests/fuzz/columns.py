"""Structures reported as columns: the same day after day, with all that may change in between."""

import numpy as np

from adversary.actions.in_days import ACTIONS
from adversary.values.children import build_child
from adversary.values.chosen import anything, chance, mutated, number, pick
from fuzz.items import ACTS, CHILDREN, KEYS, WEIGHTS, WIDTH, mask, row
from fuzz.subjects import both_modules as subjects
from fuzz.subjects import usual_class
from quorvane.functions.rotations.virtualization.columns import StructureColumns
from support.player import Player

__all__ = ["play", "subjects"]

CAPACITY = 5
VALUES = [1.0, 2.0, -0.5, 0.0, -0.0, 1e308, 5e-324, float("nan"), float("inf"), 0.7]
EDITS = [np.nan, np.inf, 9.0, -0.0]


def play(random, base):
    """Report columns for some days; the twin reads them as the items that they are made of."""
    rotation = make_rotation(random, base)
    calls = type(rotation).log
    calls.clear()
    player = Player(rotation)
    made = []
    player.act(lambda: made.append(StructureColumns(**arguments(random))))
    for columns in made:
        report_for_days(random, player, columns)
    return player.log + calls


def make_rotation(random, base):
    children = [pick(random, CHILDREN) for _ in range(pick(random, [0, 0, 1]))]
    return usual_class(base)(
        max_structures=CAPACITY,
        N_alloc=WIDTH,
        transformation_expression=pick(random, ["none", "none", "ewma(3);rank", "zscore"]),
        unmap_policy=pick(random, ["proportional", "equal_split"]),
        child_rotations=[build_child(kind, CAPACITY) for kind in children],
        trace_sink=[] if chance(random, 0.1) else None,
    )


def arguments(random):
    """Arguments of columns, one of them at times of another kind or size."""
    structures = pick(random, [0, 1, 2, 3, 3, 4, 5, 6])
    counts = [pick(random, [0, 1, 2, 2, 3]) for _ in range(structures)]
    ids = [int(random.random() * WIDTH) for _ in range(sum(counts))]
    if ids and chance(random, 0.1):
        ids[-1] = pick(random, [-1, WIDTH, 2**31, 2**62, -(2**63)])
    made = {
        "keys": [pick(random, KEYS) for _ in range(structures)],
        "offsets": np.cumsum([0, *counts]),
        "leg_ids": np.array(ids, dtype=np.int64),
        "weights": np.array([pick(random, WEIGHTS) for _ in ids]),
        "values": np.array([pick(random, VALUES) for _ in range(structures)]),
    }
    if chance(random, 0.15):
        name = pick(random, sorted(made))
        listed = made[name] if name == "keys" else made[name].tolist()
        made[name] = anything(random) if chance(random, 0.3) else mutated(random, listed, number)
    return made


def report_for_days(random, player, columns):
    rotation = player.rotation
    for _ in range(pick(random, [2, 3, 5])):
        rotation.items = list(columns) if chance(random, 0.1) else columns
        one_day(random, player)
        draw = random.random()
        if draw < 0.3 and len(columns):
            columns = columns.with_values([pick(random, VALUES) for _ in range(len(columns))])
        elif draw < 0.4 and len(columns) and columns.values.flags.writeable:
            columns.values[int(random.random() * len(columns))] = pick(random, EDITS)
        elif draw < 0.55:
            player.act(ACTIONS[pick(random, ACTS)], rotation)
        elif draw < 0.58:
            player.act(columns.with_values, anything(random))
        elif draw < 0.6:
            player.act(columns.weighted_sums, anything(random))
    player.seen = lambda rotation: [vars(rotation), columns.keys, columns.legs, columns.values]
    player.look()


def one_day(random, player):
    if chance(random, 0.2):
        masks, combined, buffer = (mask(random),), mask(random), np.full(WIDTH, 77.0)
        N = pick(random, [6, 6, 5, 0])
        player.compute((np.zeros(6),), masks, combined, buffer, N)
    else:
        player.call(row(random))
