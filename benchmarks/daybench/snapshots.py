"""Restoring a snapshot of the same process, against the same state from a store's record.

A snapshot shares its tables' objects with the rotation, a record shares nothing; that should not
make the snapshot the slower one.
"""

from functools import partial

from daybench.goals import Line
from daybench.peers import load
from daybench.structures import Shape
from daybench.timing import Side, cost_apart
from daybench.variations import PLAIN, WARM_UP_DAYS, VariedDay
from quorvane.stores import decode, encode

CASES = {
    "snapshot-10k": ("10k pairs in 10k slots", Shape(10_000, 2, 10_000, 5_000)),
    "snapshot-1m-100": ("100 pairs among 1M slots", Shape(100, 2, 1_000_000, 5_000)),
    "snapshot-1m-10k": ("10k pairs among 1M slots", Shape(10_000, 2, 1_000_000, 5_000)),
}
GOAL = 1.3


def run(names, settings):
    """Yield the chosen lines, measured in processes of their own."""
    if names:
        # The records are encoded with it.
        load("msgpack")
    for name in names:
        case, shape = CASES[name]
        sides = partial(from_snapshots, shape), partial(from_records, shape)
        found = cost_apart(*sides, settings)
        yield Line("variations", case, "set_state, snapshot", found, GOAL, None, True)


def from_snapshots(shape):
    """Restoring the rotation's own snapshot."""
    today = _lived(shape)
    return _restoring(today, today.rotation.get_state)


def from_records(shape):
    """Restoring what a store would give of it."""
    today = _lived(shape)
    record = encode(today.rotation.get_state())
    if decode(record) != today.rotation.get_state():
        raise AssertionError("the snapshot and the record are not the same state")
    return _restoring(today, lambda: decode(record))


def _lived(shape):
    today = VariedDay(PLAIN, shape, transformation_expression="none")
    today.live(WARM_UP_DAYS)
    return today


def _restoring(today, make_state):
    """Restores, each after a day and the making of a state, which are not timed."""
    state = None

    def prepare():
        nonlocal state
        state = None
        today.live(1)
        state = make_state()

    return Side(lambda: today.rotation.set_state(state), prepare)
