"""What a call costs before any structure does: one structure, two children, no trace."""

import numpy as np

from daybench.goals import Line
from daybench.structures import ModuleDay, Shape
from daybench.timing import Comparison, Side, compare

CALLS = 1_000
GOAL_MICROSECONDS = 3.0


def run(settings):
    """Yield the call's time in microseconds, and the same in bare Python method calls."""
    module_day = ModuleDay("native", Shape(1, 2, 1, 2), transformation_expression="ewma(20);rank")
    module_day.new_day()
    rotation = module_day.rotation
    inputs = np.array([0.01, -0.02])
    bare = _Bare()

    def many_days():
        for _ in range(CALLS):
            rotation(inputs)

    def many_bare_calls():
        for _ in range(CALLS):
            bare.method(inputs)

    comparison = compare(Side(many_bare_calls), Side(many_days), settings)
    per_call = comparison.peer / CALLS * 1e6
    spread = [per_call * side / comparison.ratio for side in (comparison.low, comparison.high)]
    absolute = Comparison(
        per_call, *spread, comparison.peer / CALLS, comparison.ours / CALLS, comparison.pairs
    )
    yield Line(
        "fixed cost",
        "1 structure, 2 children",
        "microseconds",
        absolute,
        GOAL_MICROSECONDS,
        smaller_is_better=True,
    )
    relative = Comparison(
        comparison.ratio,
        comparison.low,
        comparison.high,
        absolute.ours,
        absolute.peer,
        comparison.pairs,
    )
    yield Line(
        "fixed cost",
        "1 structure, 2 children",
        "bare method calls",
        relative,
        smaller_is_better=True,
    )


class _Bare:
    def method(self, inputs):
        return inputs
