"""What the threads do when their process ends: each kind of work as a step to be taken for ever.

A function of `WORK` takes the folder that belongs to the process and the thread's number in it,
sets up something of the thread's own, and returns the step.
"""

import contextlib
import functools
import os

import numpy as np

from quorvane.functions.rotations.latitudinal.normalize import ZScore
from quorvane.functions.rotations.latitudinal.rank import Rank
from quorvane.functions.rotations.longitudinal.ewma import Ewma
from quorvane.functions.rotations.numerical.transcendental import Transcendental
from quorvane.functions.rotations.virtualization.base import VirtualizationBase
from quorvane.functions.rotations.virtualization.baskets import FixedBaskets
from quorvane.functions.rotations.virtualization.columns import StructureColumns
from quorvane.functions.rotations.virtualization.history import replay_history
from quorvane.stores import DirectoryStore, SqliteStore

# The stores load it when it is first used. An import that is broken off in one thread leaves half a
# module to the others.
with contextlib.suppress(ImportError):
    import msgpack  # noqa: F401

NAMES = ["CVX", "KO", "PEP", "XOM"]
PAIRS = {"KO/PEP": {"KO": 1.0, "PEP": -1.0}, "XOM/CVX": {"XOM": 1.0, "CVX": -1.0}}
SLOTS = 300


class Pairs(VirtualizationBase):
    """Reports pairs of neighbours from Python, one by one."""

    _name = "pairs"

    def __init__(self, structures=1, **constructor):
        defaults = {
            "max_structures": structures,
            "N_alloc": structures + 1,
            "transformation_expression": "none",
        }
        super().__init__(**{**defaults, **constructor})
        self.structures = structures

    def _refresh_active_structures(self, returns, *_):
        for left in range(self.structures):
            value = returns[left] - returns[left + 1]
            yield {"key": (left,), "legs": ((left, 1.0), (left + 1, -1.0)), "value": value}


class Failing(Pairs):
    """Fails in the middle of each day."""

    def _refresh_active_structures(self, returns, *_):
        yield from super()._refresh_active_structures(returns)
        raise LookupError("no more structures")


class Annotated(Pairs):
    """Reports each pair with the same metadata."""

    def __init__(self, note):
        super().__init__()
        self.note = note

    def _refresh_active_structures(self, returns, *_):
        for item in super()._refresh_active_structures(returns):
            yield {**item, "metadata": self.note}


class Doubling:
    """Child in Python."""

    def __init__(self):
        self.days = []

    def __call__(self, values, *, context):
        self.days = [*self.days[-3:], context.current_day_index]
        return values * 2

    def get_state(self):
        return {"days": list(self.days)}

    def set_state(self, state):
        self.days = list(state["days"])


class Latest:
    """Sink in Python that keeps the last record."""

    def append(self, record):
        self.record = dict(record)


class Weight:
    """Weight that is a number of its own, so that restoring it runs Python code."""

    def __init__(self, value):
        self.value = value

    def __float__(self):
        return self.value


class Lookalike:
    """Key whose hash is that of all others, so that a copy of their dict may compare them."""

    def __hash__(self):
        return 1

    def __eq__(self, other):
        for _ in range(50):
            pass
        return self is other


def row(width, day=0):
    """A day's input with one value missing."""
    values = np.sin(np.arange(float(width)) + day)
    values[width // 2] = np.nan
    return values


def ready_made(**constructor):
    """The rotation that needs no subclass, with a child that remembers and one that does not."""
    return FixedBaskets(PAIRS, NAMES, transformation_expression="ewma(20);rank", **constructor)


def odd_state(state):
    """A rotation's state with weights and metadata that need Python to be taken over."""
    legs = {
        slot: [[leg, Weight(weight)] for leg, weight in legs]
        for slot, legs in state["legs_by_slot"].items()
    }
    metadata = [{**entry, "note": Weight(1.0)} for entry in state["structure_metadata_by_slot"]]
    return {**state, "legs_by_slot": legs, "structure_metadata_by_slot": metadata}


# Kinds of work


def one_structure(folder, thread):
    rotation, values = Pairs(), np.ones(2)
    return lambda: rotation(values)


def baskets_and_children(folder, thread):
    rotation, values = ready_made(), row(4)
    return lambda: rotation(values)


def whole_tables(folder, thread):
    rotation = ready_made(trace_sink=Latest())
    table = np.array([row(4, day) for day in range(20)])
    return lambda: rotation.batch_reference(table)


def whole_histories(folder, thread):
    """Many days at once, without the interpreter's lock, on as many threads as the number."""
    rotation = ready_made()
    table = np.array([row(4, day) for day in range(20_000)])
    return lambda: replay_history(rotation, table, threads=thread + 1)


def columns_made_and_read(folder, thread):
    keys, offsets = [(place,) for place in range(50)], np.arange(51)

    def step():
        columns = StructureColumns(keys, offsets, offsets[:50], [1.0] * 50, np.ones(50))
        summed = columns.with_values(columns.weighted_sums(row(51)))
        return list(summed), columns.legs

    return step


def children_alone(folder, thread):
    width = 2000
    children = [
        Ewma(window=5, N_alloc=width),
        Rank(N_alloc=width),
        ZScore(N_alloc=width),
        Transcendental(function="sigmoid", N_alloc=width),
    ]
    values = row(width)
    return lambda: [child(values) for child in children]


def long_restores(folder, thread):
    rotation = Pairs(SLOTS, child_rotations=[Doubling()])
    rotation(row(SLOTS + 1))
    state = odd_state(rotation.get_state())
    return lambda: rotation.set_state(state)


def quiet_restores(folder, thread):
    rotation = Pairs(SLOTS)
    rotation(row(SLOTS + 1))
    state = rotation.get_state()
    return lambda: (rotation.set_state(state), rotation.get_state())


def python_child_and_sink(folder, thread):
    rotation = Pairs(5, child_rotations=[Doubling()], trace_sink=Latest())
    values = row(6)
    return lambda: rotation(values)


def errors_in_flight(folder, thread):
    rotation, values = Failing(5), row(6)

    def step():
        with contextlib.suppress(LookupError):
            rotation(values)

    return step


def keys_compared_in_python(folder, thread):
    metadata = {Lookalike(): number for number in range(30)}
    # A dict that has lost a key is copied key by key.
    del metadata[next(iter(metadata))]
    rotation, values = Annotated(note=metadata), row(2)
    return lambda: rotation(values)


def one_for_all(folder, thread):
    rotation, values = _shared_rotation(), row(4)
    return lambda: rotation(values)


@functools.cache
def _shared_rotation():
    return ready_made()


def directory_checkpoints(folder, thread):
    return _checkpoints(DirectoryStore(folder, namespace=str(thread)), folder, thread)


def sqlite_checkpoints(folder, thread):
    return _checkpoints(SqliteStore(folder / "s.db", namespace=str(thread)), folder, thread)


def _checkpoints(store, folder, thread):
    """Count the days in the state, and note each number once the store has acknowledged it."""
    child = Doubling()
    rotation = Pairs(20, child_rotations=[child])
    flags = os.O_WRONLY | os.O_CREAT | os.O_APPEND
    notes = os.open(folder / f"acknowledged-{thread}", flags)
    values = row(21)

    def step():
        rotation(values)
        child.days = [child.days[0] + 1 if len(child.days) == 1 else 1]
        rotation.checkpoint(store)
        os.write(notes, child.days[0].to_bytes(8, "little"))
        if not rotation.recover(store):
            raise AssertionError("what was just written is not there")

    return step


WORK = {
    step.__name__: step
    for step in [
        one_structure,
        baskets_and_children,
        whole_tables,
        whole_histories,
        columns_made_and_read,
        children_alone,
        long_restores,
        quiet_restores,
        python_child_and_sink,
        errors_in_flight,
        keys_compared_in_python,
        one_for_all,
        directory_checkpoints,
        sqlite_checkpoints,
    ]
}
