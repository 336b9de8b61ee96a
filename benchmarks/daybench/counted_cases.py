"""What `count_instructions.py` counts; few days each, since callgrind is fifty times slower."""

import itertools
import pickle
from collections.abc import Callable
from dataclasses import dataclass

import numpy as np

from daybench import batch, module_alone, ours
from daybench.structures import ModuleDay, Shape


@dataclass(frozen=True)
class Counted:
    """`run(days)` does that many days; everything else is made before."""

    run: Callable[[int], None]
    structures: int
    days: int


def cases():
    """Yield name and case, each made when it is its turn."""
    for name in ("pairs-100", "pairs-10k", "pairs-10k-new-legs", "baskets-10k"):
        yield from _module(name, days=50 if name == "pairs-100" else 3)
    yield "one structure, two children", _fixed_cost()
    for name in ("100", "10k"):
        yield f"whole day {name}", _whole_day(*ours.BASKETS[name], days=50 if name == "100" else 3)
    yield "batch, identity", _batch()
    yield "history, two children", _history(*ours.BASKETS["100"], days=600)
    for name, child in ours.children(10_000).items():
        yield f"kernel {name} 10k", Counted(_over(child, ours.rows(10_000)), 10_000, 8)


def _module(name, days):
    case = module_alone.CASES[name]
    module_day = ModuleDay("native", case.shape)
    count = case.shape.structures

    def report_and_compute():
        module_day.new_day()
        module_day.compute()

    yield f"{name} day", Counted(_times(report_and_compute), count, days)
    yield f"{name} unmap", Counted(_times(module_day.unmap), count, days)
    text = pickle.dumps(module_day.rotation.get_state())
    states = [pickle.loads(text) for _ in range(3)]
    yield f"{name} restore", Counted(_over(module_day.rotation.set_state, states), count, days)


def _fixed_cost():
    module_day = ModuleDay("native", Shape(1, 2, 1, 2), transformation_expression="ewma(20);rank")
    module_day.new_day()
    return Counted(_over(module_day.rotation, [np.array([0.01, -0.02])]), 1, 200)


def _whole_day(structures, instruments, days):
    made = ours.baskets(structures, instruments, dead=False)
    for row in made.inputs:
        made.rotation(row)
    return Counted(_over(made.rotation, made.inputs), structures, days)


def _batch():
    replay = batch.replay("native", "none", np.ones((40, batch.INSTRUMENTS)))
    return Counted(_times(replay), 40 * batch.PAIRS, 2)


def _history(structures, instruments, days):
    made = ours.baskets(structures, instruments, dead=False)
    matrix = np.resize(np.array(made.inputs), (days, instruments))
    history = _over(made.rotation.batch_reference, [matrix])
    history(1)
    return Counted(history, days * structures, 2)


def _times(action):
    def run(days):
        for _ in range(days):
            action()

    return run


def _over(action, arguments):
    """Do `action` on the arguments in turn."""
    following = itertools.cycle(arguments)

    def run(days):
        for _ in range(days):
            action(next(following))

    return run
