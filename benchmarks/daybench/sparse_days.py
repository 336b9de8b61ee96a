"""A few pairs among a million slots, which a day should hardly notice.

The peer is what a row of a million doubles costs in NumPy: to fill it, to copy it, and to look for
what is finite in it.
"""

import random
import sys
from functools import partial

import numpy as np

from daybench.goals import Line
from daybench.structures import Shape
from daybench.timing import Side, cost_apart, in_new_process
from daybench.variations import PLAIN, Variation, VariedDay, check

SHAPE = Shape(100, 2, 1_000_000, 5_000)
NOTED_SLOTS = 100
CASES = ["sparse-1m-days", "sparse-1m-notes"]

# Python 3.11 cannot be asked what became of a dict without touching it.
_JUDGED = sys.version_info >= (3, 12)


def note_in_some_slots(today):
    """What a user may put down about slots that are not reported."""
    metadata = today.rotation._metadata_by_slot
    for slot in random.Random(today.number).sample(range(len(metadata)), NOTED_SLOTS):
        metadata[slot]["note"] = today.number


_NOTES = Variation("notes", before=note_in_some_slots)


def run(names, settings):
    """Yield the chosen lines, checked and measured in processes of their own."""
    goal = 2.0 if _JUDGED else None
    for name in names:
        noting = name == "sparse-1m-notes"
        in_new_process(_check, noting)
        peer, what = _row, "rows in NumPy"
        if noting:
            peer, what = partial(_days, False), f"{NOTED_SLOTS} slots noted"
        found = cost_apart(partial(_days, noting), peer, settings)
        yield Line("variations", "100 pairs among 1M slots", what, found, goal, None, True)


def _check(noting):
    check(_NOTES if noting else PLAIN, SHAPE, transformation_expression="none")


def _days(noting):
    variation = _NOTES if noting else PLAIN
    return VariedDay(variation, SHAPE, transformation_expression="none").warm_side


def _row():
    row = np.empty(SHAPE.slots)

    def fill_copy_and_scan():
        row.fill(np.nan)
        return np.isfinite(row.copy()).any()

    return Side(fill_copy_and_scan)
