"""Threads: instances of their own give the results of one thread; a shared one does no harm."""

import copy
import os
import sys
import threading
import time

import numpy as np
import pytest

from safety.subjects import CHAIN, Baskets, N, Sink, make_ewma, used, usual_items

LONG = bool(os.environ.get("QUORVANE_LONG"))
SECONDS = 20.0 if LONG else 2.0
THREADS = 8
WIDE = 3000


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


def outputs_of_days(seed, days):
    """Run random days on an instance of its own and return the outputs."""
    random = np.random.default_rng(seed)
    rotation = Baskets(
        N_alloc=WIDE, max_structures=50, unmap_policy=["proportional", "equal_split"][seed % 2]
    )
    outputs = []
    for _ in range(days):
        ids = random.integers(0, WIDE, size=(30, 2))
        values = random.normal(size=30)
        rotation.items = [
            {
                "key": (place,),
                "legs": ((int(ids[place, 0]), 0.5), (int(ids[place, 1]), -1.0)),
                "value": values[place],
            }
            for place in random.permutation(30)
        ]
        outputs.append(rotation(random.normal(size=WIDE)))
    return np.array(outputs)


def test_instances_of_their_own_give_the_same_as_alone():
    days = 3000 if LONG else 60
    alone = [outputs_of_days(seed, days) for seed in range(THREADS)]
    together = [None] * THREADS

    def body(seed):
        def run():
            together[seed] = outputs_of_days(seed, days)

        return run

    run_together(*map(body, range(THREADS)))
    for expected, got in zip(alone, together, strict=True):
        np.testing.assert_array_equal(got, expected)


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
