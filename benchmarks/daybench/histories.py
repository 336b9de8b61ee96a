"""Whole histories in one call, `ewma(20);rank`, against what people write by hand."""

import dataclasses
import random
from dataclasses import dataclass
from functools import partial

import numpy as np

from daybench.goals import Line
from daybench.history_peers import HISTORY_PEERS
from daybench.ours import WINDOW
from daybench.peers import PeerAbsent
from daybench.timing import Side, compare
from quorvane.functions.rotations.virtualization.baskets import FixedBaskets
from quorvane.functions.rotations.virtualization.history import replay_history


@dataclass(frozen=True)
class Case:
    """Days, instruments, structures, legs of each, and how many times as fast we want to be."""

    days: int
    instruments: int
    structures: int
    legs: int
    missing: float
    goals: dict[str, float]


CASES = {
    "history-decades": Case(8_313, 20, 60, 2, 0.0, {"numpy": 6.0, "pandas": 4.0, "threads": 1.6}),
    "history-1k": Case(2_520, 500, 1_000, 2, 0.0, {"numpy": 4.0, "pandas": 10.0, "threads": 1.7}),
    "history-10k": Case(
        1_000, 2_000, 10_000, 2, 0.0, {"numpy": 8.0, "pandas": 16.0, "threads": 1.7}
    ),
    "history-long-legs": Case(
        1_000, 2_000, 1_000, 20, 0.0, {"numpy": 2.8, "pandas": 5.5, "threads": 1.7}
    ),
    "history-missing": Case(
        5_000, 3_000, 3_000, 5, 0.1, {"numpy": 10.0, "pandas": 11.0, "threads": 1.7}
    ),
}


def run(names, settings):
    """Yield for each case a line per peer, and one for a second thread."""
    for name in names:
        yield from _lines(CASES[name], settings)


def _lines(case, settings):
    ours, all_legs, inputs = made(case)
    what = f"{case.days} x {case.instruments} x {case.structures} x {case.legs}"
    one_thread, two_threads = partial(ours, 1), partial(ours, 2)
    for peer_name, goal, make in HISTORY_PEERS:
        try:
            peer = make(all_legs, inputs)
        except PeerAbsent as absent:
            yield absent
            continue
        np.testing.assert_allclose(one_thread(), peer(), rtol=0, atol=1e-9 * case.structures)
        comparison = compare(Side(one_thread), Side(peer), settings)
        yield Line("histories", what, peer_name, comparison, case.goals.get(goal))
    # Threads are there to save time, not work.
    on_the_clock = dataclasses.replace(settings, clock="wall")
    np.testing.assert_array_equal(two_threads(), one_thread())
    comparison = compare(Side(two_threads), Side(one_thread), on_the_clock)
    yield Line("histories", what, "two threads", comparison, case.goals["threads"])


def made(case):
    draw = random.Random(7)
    all_legs = [
        [(i, draw.uniform(-1.0, 1.0)) for i in draw.sample(range(case.instruments), case.legs)]
        for _ in range(case.structures)
    ]
    names = [f"I{i}" for i in range(case.instruments)]
    rotation = FixedBaskets(
        ((f"B{k}", [(names[i], weight) for i, weight in legs]) for k, legs in enumerate(all_legs)),
        names,
        transformation_expression=f"ewma({WINDOW});rank",
    )
    fresh = rotation.get_state()
    random_numbers = np.random.default_rng(7)
    inputs = random_numbers.standard_normal((case.days, case.instruments))
    inputs[random_numbers.random(inputs.shape) < case.missing] = np.nan

    def history(threads, days=None):
        rotation.set_state(fresh)
        return replay_history(rotation, inputs[:days], threads=threads)

    return history, all_legs, inputs
