"""Scenarios of user code that does its worst in the middle of a day.

The native module must then be where its twin is: same outcome, same attributes, same traces.
"""

import gc

import numpy as np

from adversary.day import make
from support import frozen
from support.player import Player
from support.siblings import Siblings, load_base


def fresh():
    """Load a fresh module of each kind, on the same siblings."""
    siblings = Siblings()
    return load_base("native", siblings), load_base("twin", siblings)


class Scenarios(list):
    """Scenes for one test: each is a function of a module, and returns what it saw on it."""

    def add(self, scene):
        self.append(scene)
        return scene


def assert_same_on_both(scene):
    modules = fresh()
    try:
        native, twin = (scene(base) for base in modules)
    finally:
        gc.collect()
    different = [entry for entry in zip(native, twin, strict=True) if entry[0] != entry[1]]
    assert different == []


def day_log(rotation, *, N=6, masks=None, combined=None, buffer=None):
    """Compute one day directly and return its outcome with the buffer and the attributes."""
    combined = np.zeros(6, dtype=np.uint8) if combined is None else combined
    masks = (np.zeros(6, dtype=np.uint8),) if masks is None else masks
    buffer = np.full(6, 77.0) if buffer is None else buffer
    player = Player(rotation)
    player.compute((np.zeros(6),), masks, combined, buffer, N)
    player.look()
    return tuple(player.log)


def plain_items(count=3):
    return [
        {"key": (name,), "legs": ((leg, 1.0), (leg + 1, -0.5)), "value": leg + 1.0}
        for leg, name in enumerate("abcd"[:count])
    ]


def value_logs(base, values, use):
    """Use each of the values on a fresh rotation and collect what happens."""
    return [frozen.freeze(use(make(base), value)) for value in values]
