"""The module alone, native against the plain-Python twin: a day, unmapping, and restoring.

The expression is the identity and the hook returns a list that is ready, so that nothing but the
module's own work is timed. Restores, which are mostly the making and freeing of objects, run in a
process of their own each: as in the morning, not in what many days have left of the heap.
"""

import pickle
from dataclasses import dataclass, replace

import numpy as np

from daybench.goals import Line
from daybench.structures import ModuleDay, Shape
from daybench.timing import Side, compare, in_new_process


@dataclass(frozen=True)
class Case:
    """A shape and the least ratios wanted of its day, unmapping and restoring."""

    name: str
    shape: Shape
    day: float | None = None
    unmap: float | None = None
    restore: float | None = None


_TEN_THOUSAND = Shape(10_000, 2, 10_000, 5_000)

CASES = {
    "pairs-100": Case("100 pairs in 100 slots", Shape(100, 2, 100, 500), 30, 80, 10),
    "pairs-10k": Case("10k pairs, same legs objects", _TEN_THOUSAND, 35, 150, 10),
    "pairs-10k-new-legs": Case(
        "10k pairs, new legs objects", replace(_TEN_THOUSAND, new_legs=True), 22, 40, 10
    ),
    "baskets-10k": Case("10k baskets of 20 legs", replace(_TEN_THOUSAND, legs=20), 80, 250, 20),
    "sparse-1m": Case("100 pairs among 1M slots", Shape(100, 2, 1_000_000, 5_000), 35, 400, 2),
    "pairs-1m": Case("1M pairs in 1M slots", Shape(1_000_000, 2, 1_000_000, 5_000), 18, 60, 6),
}

# Other ways to report the same day, without a goal.
VARIANTS = {
    "pairs-10k-forgotten": Case(
        "10k pairs, new legs, forgotten", replace(_TEN_THOUSAND, new_legs=True, held=False)
    ),
    "pairs-10k-all-new": Case(
        "10k pairs, new keys and legs", replace(_TEN_THOUSAND, new_legs=True, new_keys=True)
    ),
    "pairs-10k-records": Case("10k pairs, as records", replace(_TEN_THOUSAND, records=True)),
}


def run(names, settings):
    """Yield the lines of the chosen cases."""
    for name in names:
        yield from _run_case({**CASES, **VARIANTS}[name], settings)


def _run_case(case, settings):
    ours, peer = (ModuleDay(kind, case.shape) for kind in ("native", "twin"))
    _require_same_days(ours, peer)

    def line(what, goal, *sides):
        count = case.shape.structures
        return Line("module", case.name, what, compare(*sides, settings), goal, count)

    yield line("day", case.day, *(Side(m.compute, m.new_day) for m in (ours, peer)))
    if case.shape.new_legs:
        # Unmapping after a day that brought new legs, since that is when it happens.
        yield line("unmap", case.unmap, *(Side(m.unmap, _a_day(m)) for m in (ours, peer)))
    else:
        yield line("unmap", case.unmap, *(Side(m.unmap) for m in (ours, peer)))
    restoring = in_new_process(_compare_restores, case.shape, settings)
    yield Line("module", case.name, "restore", restoring, case.restore, case.shape.structures)


def _compare_restores(shape, settings):
    ours, peer = (ModuleDay(kind, shape) for kind in ("native", "twin"))
    _require_same_days(ours, peer)
    states = pickle.dumps(peer.rotation.get_state())
    return compare(*(_restoring(m, states) for m in (ours, peer)), settings)


def _a_day(module_day):
    def prepare():
        module_day.new_day()
        module_day.compute()

    return prepare


def _restoring(module_day, states):
    """A state whose objects are new to the rotation, as they are when it comes from a store."""
    state = None

    def prepare():
        nonlocal state
        state = None
        state = pickle.loads(states)

    return Side(lambda: module_day.rotation.set_state(state), prepare)


def _require_same_days(ours, peer):
    """Both modules must return the same bits, or comparing their times says nothing."""
    for _ in range(2):
        for module_day in (ours, peer):
            module_day.new_day()
            module_day.compute()
        np.testing.assert_array_equal(ours.output, peer.output)
