"""A few pairs among a million slots, which a day should hardly notice.

The peer is what a row of a million doubles costs in NumPy: to fill it, to copy it, and to look for
what is finite in it.
"""

import random
import sys

import numpy as np

from daybench.goals import Line
from daybench.structures import Shape
from daybench.timing import Side, cost, in_new_process
from daybench.variations import CHECKED_DAYS, PLAIN, Variation, VariedDay, checked

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
    """Yield the chosen lines, each measured in a process of its own."""
    for name in names:
        measure = _measure_days if name == "sparse-1m-days" else _measure_notes
        yield in_new_process(measure, settings)


def _measure_days(settings):
    ours = checked(PLAIN, SHAPE, transformation_expression="none")
    found = cost(ours.side, Side(_Row(SHAPE.slots).fill_copy_and_scan), settings)
    return _line("rows in NumPy", found)


def _measure_notes(settings):
    ours = checked(_NOTES, SHAPE, transformation_expression="none")
    plain = VariedDay(PLAIN, SHAPE, transformation_expression="none")
    plain.live(CHECKED_DAYS)
    found = cost(ours.side, plain.side, settings)
    return _line(f"{NOTED_SLOTS} slots noted", found)


def _line(what, found):
    goal = 2.0 if _JUDGED else None
    return Line("variations", "100 pairs among 1M slots", what, found, goal, None, True)


class _Row:
    def __init__(self, slots):
        self._row = np.empty(slots)

    def fill_copy_and_scan(self):
        self._row.fill(np.nan)
        return np.isfinite(self._row.copy()).any()
