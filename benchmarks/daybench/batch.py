"""`batch_reference` over decades of days, native against the twin."""

import copy
import itertools

import numpy as np

from daybench.goals import Line
from daybench.structures import Days, Shape, base_module
from daybench.timing import Side, compare

DAYS, INSTRUMENTS, PAIRS = 8_313, 20, 60
SHAPE = Shape(PAIRS, 2, PAIRS, INSTRUMENTS)


def run(settings, days=DAYS):
    """Yield the identity, which has a goal, and two children, for information."""
    yield _compare("none", 40.0, days, settings)
    yield _compare("ewma(20);rank", None, days, settings)


def _compare(expression, goal, days, settings):
    inputs = np.random.default_rng(3).standard_normal((days, INSTRUMENTS))
    ours, peer = (replay(kind, expression, inputs) for kind in ("native", "twin"))
    np.testing.assert_array_equal(ours(), peer())
    comparison = compare(Side(ours), Side(peer), settings)
    return Line(
        "batch", f"{days} days x {INSTRUMENTS}, {PAIRS} pairs", expression, comparison, goal
    )


def replay(kind, expression, inputs):
    """A function that replays the inputs from a fresh state.

    The hook hands out lists that are ready, so that nothing but the module is timed.
    """
    with base_module(kind) as base:

        class Replaying(base.VirtualizationBase):
            _name = "replaying"
            arity = 1
            ready = iter(())

            def _refresh_active_structures(self, *_):
                return next(self.ready)

        source = Days(SHAPE, base)
        rotation = Replaying(
            max_structures=PAIRS, N_alloc=INSTRUMENTS, transformation_expression=expression
        )
    fresh = copy.deepcopy(rotation.get_state())
    ready = [source.next_items() for _ in range(64)]

    def replay():
        rotation.set_state(fresh)
        rotation.ready = itertools.cycle(ready)
        return rotation.batch_reference(inputs)

    return replay
