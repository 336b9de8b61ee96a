"""A day of 100,000 structures with the collection of garbage on, against the same with it off.

Several days are one call here: a full collection comes on few of them, and a median would hide it.
"""

import gc

import numpy as np

from daybench.goals import Line
from daybench.structures import Shape
from daybench.timing import Side, cost, in_new_process
from daybench.variations import WARM_UP_DAYS, Variation, VariedDay
from quorvane.functions.rotations.virtualization.columns import StructureColumns

SHAPE = Shape(100_000, 2, 100_000, 5_000)
DAYS = 10
GOAL = 1.5


class _AsColumns:
    """The items as arrays, which share keys and legs from day to day."""

    made = None

    def __call__(self, items, day):
        values = [item["value"] for item in items]
        if self.made is None:
            legs = [leg for item in items for leg in item["legs"]]
            self.made = StructureColumns(
                [item["key"] for item in items],
                np.cumsum([0, *(len(item["legs"]) for item in items)]),
                [i for i, _ in legs],
                [weight for _, weight in legs],
                values,
            )
        return self.made.with_values(values)


CASES = {
    "garbage-dicts": lambda: Variation("100k pairs, dicts"),
    "garbage-columns": lambda: Variation("100k pairs, columns", items=_AsColumns()),
}


def run(names, settings):
    """Yield the chosen lines, each measured in a process of its own."""
    for name in names:
        yield in_new_process(_measure, name, settings)


def _measure(name, settings):
    variation = CASES[name]()
    found = cost(*sides(variation, SHAPE), settings)
    return Line("variations", variation.name, "collecting / not", found, GOAL, None, True)


def sides(variation, shape):
    """The same days with the collector on, and off."""
    varied_day = VariedDay(variation, shape)
    varied_day.live(WARM_UP_DAYS)

    def days():
        varied_day.live(DAYS)

    return Side(days, gc.enable), Side(days, gc.disable)
