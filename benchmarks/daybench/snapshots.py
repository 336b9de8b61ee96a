"""Restoring a snapshot of the same process, against the same state from a store's record.

A snapshot shares its tables' objects with the rotation, a record shares nothing; that should not
make the snapshot the slower one.
"""

from daybench.goals import Line
from daybench.peers import load
from daybench.structures import Shape
from daybench.timing import Side, cost, in_new_process
from daybench.variations import CHECKED_DAYS, PLAIN, VariedDay
from quorvane.stores import decode, encode

CASES = {
    "snapshot-10k": ("10k pairs in 10k slots", Shape(10_000, 2, 10_000, 5_000)),
    "snapshot-1m-100": ("100 pairs among 1M slots", Shape(100, 2, 1_000_000, 5_000)),
    "snapshot-1m-10k": ("10k pairs among 1M slots", Shape(10_000, 2, 1_000_000, 5_000)),
}
GOAL = 1.3


def run(names, settings):
    """Yield the chosen lines, each measured in a process of its own."""
    if names:
        # The records are encoded with it.
        load("msgpack")
    for name in names:
        yield in_new_process(_measure, name, settings)


def _measure(name, settings):
    case, shape = CASES[name]
    found = cost(*sides(shape), settings)
    return Line("variations", case, "set_state, snapshot", found, GOAL, None, True)


def sides(shape):
    """Restoring a snapshot, and restoring a record, each a day after the one before."""
    ours, peer = (VariedDay(PLAIN, shape, transformation_expression="none") for _ in range(2))
    peer.live(CHECKED_DAYS)
    record = encode(peer.rotation.get_state())
    ours.live(CHECKED_DAYS)
    if decode(record) != ours.rotation.get_state():
        raise AssertionError("the snapshot and the record are not the same state")

    def snapshot():
        ours.live(1)
        return ours.rotation.get_state()

    def stored():
        peer.live(1)
        return decode(record)

    return _restoring(ours.rotation, snapshot), _restoring(peer.rotation, stored)


def _restoring(rotation, make_state):
    state = None

    def prepare():
        nonlocal state
        state = None
        state = make_state()

    return Side(lambda: rotation.set_state(state), prepare)
