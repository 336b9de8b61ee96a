"""Threads: instances of their own give the results of one thread; a shared one does no harm."""

import copy
import os
import sys
import threading
import time

import numpy as np
import pytest

from quorvane.functions.rotations.latitudinal.normalize import ZScore
from quorvane.functions.rotations.latitudinal.rank import Rank
from quorvane.functions.rotations.numerical.transcendental import Transcendental
from quorvane.functions.rotations.virtualization.columns import StructureColumns
from safety.subjects.rotations import CHAIN, Baskets, N, Sink, Store, make_ewma, used, usual_items

LONG = bool(os.environ.get("QUORVANE_LONG"))
SECONDS = 60.0 if LONG else 2.0
THREADS = 8
WIDE = 3000
DAYS = 12


@pytest.fixture(autouse=True)
def frequent_switches():
    """Threads take turns far more often than usual."""
    usual = sys.getswitchinterval()
    sys.setswitchinterval(1e-6)
    yield
    sys.setswitchinterval(usual)


def run_together(*bodies):
    """Run the bodies in threads, each once; what any of them raises is raised here."""
    errors = []
    start = threading.Barrier(len(bodies))

    def guarded(body):
        start.wait()
        try:
            body()
        except BaseException as error:
            errors.append(error)

    threads = [threading.Thread(target=guarded, args=(body,)) for body in bodies]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    if errors:
        raise errors[0]


def results_of_days(seed):
    """Run some random days on an instance of its own, in all ways; return all that came of them."""
    random = np.random.default_rng(seed)
    rotation = Baskets(
        N_alloc=WIDE,
        max_structures=50,
        unmap_policy=["proportional", "equal_split"][seed % 2],
        transformation_expression=["none", CHAIN, "ewma(20);rank", "zscore"][seed % 4],
        trace_sink=[],
    )
    ids = random.integers(0, WIDE, size=(30, 2))
    columns = StructureColumns(
        [(place,) for place in range(30)], range(0, 61, 2), ids.ravel(), [0.5, -1.0] * 30, ids[:, 0]
    )
    results = []
    for day in range(DAYS):
        values = random.normal(size=30)
        rotation.items = [
            {"key": key, "legs": legs, "value": value}
            for key, legs, value in zip(columns.keys, columns.legs, values.tolist(), strict=True)
        ]
        if day % 3 == 0:
            rotation.items = columns.with_values(values)
        elif day % 3 == 1:
            random.shuffle(rotation.items)
        inputs = random.normal(size=WIDE)
        inputs[random.integers(0, WIDE, size=20)] = np.nan
        results.append(rotation(inputs))
        if day % 5 == 0:
            store = Store()
            rotation.checkpoint(store)
            store.state = copy.deepcopy(store.state)
            assert rotation.recover(store)
    results.append(rotation.batch_reference(random.normal(size=(3, WIDE))))
    results += [record["txi_output"] for record in rotation.trace_sink]
    return np.concatenate([result.ravel() for result in results])


def test_instances_of_their_own_give_the_same_as_alone():
    alone = [results_of_days(seed) for seed in range(THREADS)]
    deadline = time.monotonic() + SECONDS

    def body(seed):
        def run():
            rounds = 0
            while not rounds or time.monotonic() < deadline:
                np.testing.assert_array_equal(results_of_days(seed), alone[seed])
                rounds += 1

        return run

    run_together(*map(body, range(THREADS)))


def until(deadline, *steps):
    """Take the steps again and again; a step may fail because of what the others did meanwhile."""

    def body():
        turns = 0
        while time.monotonic() < deadline:
            for step in steps:
                try:
                    step()
                except (ValueError, RuntimeError, LookupError, TypeError):
                    continue
            turns += 1
        assert turns > 10

    return body


def test_two_threads_on_one_virtualization_do_not_crash():
    rotation = used(lambda: Baskets(transformation_expression=CHAIN, trace_sink=Sink()))
    state = copy.deepcopy(rotation.get_state())
    values = np.ones(N)
    numbers = iter(range(10**9))

    def other_items():
        number = next(numbers)
        rotation.items = [
            {"key": (number % 5,), "legs": ((number % N, 1.0),), "value": 1.0},
            *rotation.items[:2],
        ]

    def replaced_tables():
        rotation._legs_by_slot = dict(rotation._legs_by_slot)
        rotation._metadata_by_slot = [dict(entry) for entry in rotation._metadata_by_slot]
        rotation.slot_by_key, rotation.key_by_slot = {}, {}

    def restore():
        rotation.set_state(state)

    def widen():
        rotation.resize(N + next(numbers) % 3)

    def day():
        rotation(values)

    deadline = time.monotonic() + SECONDS
    run_together(
        until(deadline, day, other_items, day, restore),
        until(deadline, day, widen, day, replaced_tables, rotation.get_state),
    )
    rotation.resize(N)
    rotation.set_state(state)
    rotation.items = usual_items()
    assert rotation(values).shape == (N,)


def test_two_threads_on_one_average_do_not_crash():
    rotation = used(make_ewma)
    narrow, wide = np.ones(3), np.ones(WIDE)
    state = rotation.get_state()
    numbers = iter(range(10**9))

    def resize():
        rotation.resize([N, WIDE][next(numbers) % 2])

    deadline = time.monotonic() + SECONDS
    run_together(
        until(deadline, lambda: rotation(wide), resize, lambda: rotation(narrow)),
        until(deadline, lambda: rotation(wide), lambda: rotation.set_state(state), resize),
    )
    rotation.resize(N)
    rotation.set_state(state)
    assert rotation(narrow).shape == (3,)


@pytest.mark.parametrize("kind", [Rank, ZScore, Transcendental])
def test_two_threads_on_one_child_do_not_crash(kind):
    rotation = kind()
    narrow, wide = np.ones(3), np.arange(float(WIDE))

    def call_wide():
        rotation(wide)

    def call_narrow():
        rotation(narrow)

    deadline = time.monotonic() + SECONDS / 4
    run_together(
        until(
            deadline, lambda: rotation(wide), lambda: rotation.resize(N), lambda: rotation(narrow)
        ),
        until(
            deadline, lambda: rotation(narrow), lambda: rotation.resize(WIDE), rotation.get_state
        ),
    )
    rotation.resize(N)
    assert rotation(narrow).shape == (3,)


def test_two_threads_on_the_same_columns_do_not_crash():
    values = np.ones(3)
    shared = StructureColumns(
        [("a",), ("b",), ("c",)], [0, 1, 2, 4], [0, 1, 2, 3], [1.0] * 4, values
    )
    rotations = [Baskets(), Baskets(transformation_expression="none")]
    for rotation in rotations:
        rotation.items = shared
    numbers = iter(range(10**9))
    row = np.ones(N)

    def edit():
        values[next(numbers) % 3] = np.nan if next(numbers) % 2 else 2.0

    def resize():
        # The columns hold on to the array, so it can only be resized without being asked.
        values.resize(1 + next(numbers) % 3, refcheck=False)

    deadline = time.monotonic() + SECONDS
    run_together(
        until(deadline, lambda: rotations[0](row), edit, lambda: shared.weighted_sums(row)),
        until(deadline, lambda: rotations[1](row), resize, lambda: shared.with_values([1.0] * 3)),
    )
    values.resize(3, refcheck=False)
    values[:] = 1.0
    assert rotations[0](row).shape == (N,)
