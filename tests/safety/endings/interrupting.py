"""Operations that a signal breaks into at a random moment, and what must hold afterwards.

A function of `INTERRUPTED` takes the process's folder and returns an operation, to be repeated
until the signal comes, and a check, which raises AssertionError.
"""

import copy
import os
import queue
import random
import signal
import sys
import threading
import time

import numpy as np

from quorvane.functions.rotations.virtualization.columns import StructureColumns
from quorvane.stores import DirectoryStore, SqliteStore
from safety.endings.computing import Doubling, Latest, Pairs, odd_state, row

STRUCTURES = 40
CHAIN = "ewma(5);rank"
TABLE = np.array([row(STRUCTURES + 1, day) for day in range(4)])


class Interrupter:
    """Breaks into the main thread by signals whose handlers raise KeyboardInterrupt."""

    def __init__(self, seed, longest_wait):
        self._random = random.Random(seed)
        self._longest_wait = longest_wait
        self._requests = queue.SimpleQueue()
        self._armed = False
        for number in (signal.SIGINT, signal.SIGTERM):
            signal.signal(number, self._raise)
        threading.Thread(target=self._send, daemon=True).start()

    def interrupt(self, operation):
        """Repeat the operation until a signal comes; tell whether the interrupt came out of it."""
        try:
            self._repeat(operation)
        except KeyboardInterrupt:
            return True
        return False

    # A function of its own: Python 3.13 leaves a loop's jump back out of the `try` around it.
    def _repeat(self, operation):
        number = self._random.choice([signal.SIGINT, signal.SIGTERM])
        seconds = self._random.uniform(0.0, self._longest_wait)
        self._armed = True
        self._requests.put((seconds, number))
        while self._armed:
            operation()

    def _send(self):
        while True:
            seconds, number = self._requests.get()
            time.sleep(seconds)
            os.kill(os.getpid(), number)

    def _raise(self, number, frame):
        if self._armed:
            self._armed = False
            raise KeyboardInterrupt


def interrupt_often(folder, seed, *, what, times):
    """Break into an operation many times, and check each time what it leaves behind."""
    # So that the thread that sends the signals need not wait for its turn.
    sys.setswitchinterval(1e-5)
    operation, check = INTERRUPTED[what](folder)
    interrupter = Interrupter(seed, 2 * seconds_of(operation))
    came_out = 0
    for _ in range(times):
        came_out += interrupter.interrupt(operation)
        check()
    assert came_out == times, f"{times - came_out} of {times} interrupts were lost"


def seconds_of(operation):
    """How long an operation takes here and now."""
    operation()
    start = time.perf_counter()
    operation()
    return time.perf_counter() - start


def output_of_days(rotation):
    """Some days' output as bytes."""
    return b"".join(rotation(values).tobytes() for values in TABLE)


def new_rotation(**constructor):
    return Pairs(STRUCTURES, **{"transformation_expression": CHAIN, **constructor})


# Operations and checks


def day(folder):
    return _as_new_after_a_restore(new_rotation(), lambda rotation: rotation(TABLE[0]))


def day_with_a_python_child_and_sink(folder):
    rotation = new_rotation(child_rotations=[Doubling(), Doubling()], trace_sink=Latest())
    return _as_new_after_a_restore(rotation, lambda rotation: rotation(TABLE[0]))


def batch(folder):
    return _as_new_after_a_restore(new_rotation(), lambda rotation: rotation.batch_reference(TABLE))


def get_state(folder):
    rotation = new_rotation(child_rotations=[Doubling(), Doubling()])
    return _as_new_after_a_restore(rotation, lambda rotation: rotation.get_state())


def _as_new_after_a_restore(rotation, act):
    """Whatever an interrupt leaves of a day, the state from before it gives the same days again."""
    rotation(TABLE[1])
    state = copy.deepcopy(rotation.get_state())
    expected = output_of_days(rotation)

    def check():
        rotation.set_state(copy.deepcopy(state))
        assert output_of_days(rotation) == expected

    return lambda: act(rotation), check


def set_state(folder):
    """The states are taken over in turn; each has weights that need Python."""
    rotation, states, outputs = _two_states()
    odd_states = [odd_state(state) for state in states]

    def operation():
        for state in odd_states:
            rotation.set_state(state)

    def check():
        assert output_of_days(rotation) in outputs
        rotation.set_state(states[0])

    return operation, check


def recover_from_a_directory(folder):
    return _recover(DirectoryStore(folder))


def recover_from_sqlite(folder):
    return _recover(SqliteStore(folder / "states.db"))


def _recover(store):
    rotation, states, outputs = _two_states()
    rotation.checkpoint(store)

    def operation():
        rotation.set_state(states[1])
        if not rotation.recover(store):
            raise AssertionError("what was written is not there")

    def check():
        assert output_of_days(rotation) in outputs
        rotation.set_state(states[0])

    return operation, check


def _two_states():
    """A rotation, two of its states, and what comes of each."""
    rotation, states, outputs = new_rotation(), [], []
    for values in TABLE[:2]:
        rotation(values)
        states.append(copy.deepcopy(rotation.get_state()))
    for state in states:
        rotation.set_state(state)
        outputs.append(output_of_days(rotation))
    assert outputs[0] != outputs[1]
    rotation.set_state(states[0])
    return rotation, states, outputs


def checkpoint_to_a_directory(folder):
    return _checkpoint(DirectoryStore(folder))


def checkpoint_to_sqlite(folder):
    # A lock that an interrupted write left behind would fail the next one soon.
    return _checkpoint(SqliteStore(folder / "states.db", busy_timeout=5.0))


def _checkpoint(store):
    """States are numbered; the store has the last one acknowledged, or the one in flight."""
    child = Doubling()
    rotation = new_rotation(child_rotations=[child])
    rotation(TABLE[0])
    child.days, acknowledged = [0], 0

    def operation():
        nonlocal acknowledged
        child.days = [acknowledged + 1]
        rotation.checkpoint(store)
        acknowledged = child.days[0]

    def check():
        nonlocal acknowledged
        state = store.read(rotation._name)
        found = 0 if state is None else state["child_states"][0]["days"][0]
        assert found in (acknowledged, acknowledged + 1)
        acknowledged = found

    return operation, check


class Numbers:
    """Numbers that Python code turns into an array."""

    def __init__(self, numbers):
        self.numbers = numbers

    def __array__(self, dtype=None, copy=None):
        return np.array([float(number) for number in self.numbers], dtype=dtype)


def columns_made(folder):
    """Columns are made of objects that need Python, and read item by item."""
    legs = [leg for left in range(STRUCTURES) for leg in (left, left + 1)]
    weights = Numbers([0.5, -1.0] * STRUCTURES)
    made = []

    def operation():
        keys = ((left,) for left in range(STRUCTURES))
        values = Numbers(TABLE[0][:STRUCTURES])
        columns = StructureColumns(keys, range(0, 2 * STRUCTURES + 1, 2), legs, weights, values)
        made[:] = [columns, [item["value"] for item in columns]]

    def check():
        operation()
        columns, values = made
        assert np.array(values).tobytes() == TABLE[0][:STRUCTURES].tobytes()
        expected = 0.5 * TABLE[1][:-1] - TABLE[1][1:]
        np.testing.assert_array_equal(columns.weighted_sums(TABLE[1]), expected)

    return operation, check


INTERRUPTED = {
    function.__name__: function
    for function in [
        day,
        day_with_a_python_child_and_sink,
        batch,
        get_state,
        set_state,
        recover_from_a_directory,
        recover_from_sqlite,
        checkpoint_to_a_directory,
        checkpoint_to_sqlite,
        columns_made,
    ]
}
