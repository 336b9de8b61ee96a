"""What a day lets go, and when."""

import sys
import types

import numpy as np
import pytest

from support.fakes import make_rotation, structure
from virtualization.surroundings.helpers import made


class Dropped:
    """Item that tells when it goes away."""

    def __init__(self, log, name, key):
        self.log = log
        self.name = name
        self.key = (key,)
        self.legs = ((0, 1.0),)
        self.value = 1.0

    def __del__(self):
        self.log.append(f"drop {self.name}")


def drawn(log, names):
    for name in names:
        log.append(f"yield {name}")
        yield Dropped(log, name, name)
    log.append("end")


class Saying:
    def __init__(self, log):
        self.log = log

    def __call__(self, values, context):
        self.log.append("child")
        return values


def test_items_of_a_generator_go_when_the_next_one_is_there(base):
    log = []
    rotation = make_rotation(
        base, [lambda *day: drawn(log, "abc")] * 2, child_rotations=[Saying(log)]
    )
    rotation(np.ones(6))
    log.append("after")
    assert log == [
        "yield a",
        "yield b",
        "drop a",
        "yield c",
        "drop b",
        "end",
        "child",
        "drop c",
        "after",
    ]


@pytest.mark.parametrize("days_before", [0, 1, 3])
def test_list_that_the_hook_lets_go_lives_until_the_day_is_over(base, days_before):
    log = []
    steps = [lambda *day: [Dropped(log, "x", "a")]] * days_before
    steps.append(lambda *day: [Dropped(log, "y", "a"), Dropped(log, "z", "b")])
    rotation = make_rotation(base, steps, child_rotations=[Saying(log)])
    for _ in steps:
        rotation(np.ones(6))
        log.append("after")
    assert log[:-4] == ["child", "drop x", "after"] * days_before
    assert (log[-4], sorted(log[-3:-1])) == ("child", ["drop y", "drop z"])


class Watched:
    """Something that an override hands out; `log` tells when it goes."""

    def __init__(self, log, name):
        self.log = log
        self.name = name

    def __del__(self):
        self.log.append(f"drop {self.name}")


class Inputs:
    """The day's inputs, made when they are asked for."""

    def __init__(self, log):
        self.log = log

    def __getitem__(self, index):
        return Watched(self.log, "first input" if index == 0 else "further inputs")


def test_what_a_day_was_made_of_goes_when_the_day_is_over(base):
    log = []

    class Report(Watched):
        def __iter__(self):
            return drawn(log, "ab")

    class Record(base.VirtualStructure, Watched):
        def __init__(self, made):
            super().__init__(made.key, made.legs, made.value, made.metadata)
            self.log, self.name = log, f"record {made.key[0]}"

    class Sink:
        def append(self, record):
            log.append("trace")

    def _refresh_active_structures(self, *day):
        return Report(log, "report")

    def _normalize_structure(self, item):
        return Record(base.VirtualizationBase._normalize_structure(self, item))

    def _structure_is_valid(self, record, *day):
        return Verdict(log, f"verdict on {record.key[0]}")

    def _make_child_context(self, parent_context, day_index):
        return Watched(log, "child context")

    class Verdict(Watched):
        pass

    overrides = (
        _refresh_active_structures,
        _normalize_structure,
        _structure_is_valid,
        _make_child_context,
    )
    rotation = make_rotation(
        base,
        attributes={override.__name__: override for override in overrides},
        child_rotations=[Saying(log)],
        trace_sink=Sink(),
    )
    clear = np.zeros(6, dtype=np.uint8)
    rotation.compute(Inputs(log), (clear,), clear, np.zeros(6), 6)
    during = ["yield a", "yield b", "drop a", "drop record a", "drop verdict on a", "end"]
    after = ["drop first input", "drop further inputs", "drop report"]
    after += ["drop b", "drop record b", "drop verdict on b", "drop child context"]
    if sys.version_info >= (3, 14) and isinstance(
        base.VirtualizationBase.compute, types.FunctionType
    ):
        # There a frame written in Python drops the last of its variables first.
        after.reverse()
    assert log == [*during, "child", "trace", *after]


class Leg(Watched):
    """Leg that is unpacked like a pair."""

    def __iter__(self):
        return iter((0, 1.0))


def test_legs_go_when_the_next_one_is_there_and_the_last_with_the_step(base):
    class Key:
        def __iter__(self):
            log.append("key")
            return iter("k")

    log = []
    rotation = make_rotation(base)
    rotation._normalize_structure(structure(Key(), made(log, Leg, "ab")))
    assert log == ["make a", "make b", "drop a", "key", "key", "drop b"]


class Child(Watched):
    """Child that tells what is asked of it."""

    def __call__(self, values, context):
        self.log.append(f"call {self.name}")
        return values

    def get_state(self):
        self.log.append(f"get {self.name}")
        return self.name

    def set_state(self, state):
        self.log.append(f"set {self.name}")


CHILD_STEPS = {
    "call": lambda rotation: rotation._run_child_chain(np.ones(4), None),
    "get": lambda rotation: rotation.get_state(),
    "get again": lambda rotation: rotation._snapshot_child_states(),
    "set": lambda rotation: rotation._restore_child_snapshots(["x", "y"]),
}


@pytest.mark.parametrize("step", CHILD_STEPS)
def test_children_that_are_made_as_they_are_asked_for_go_when_the_next_one_is_there(base, step):
    log = []
    rotation = make_rotation(base)
    rotation.child_rotations = made(log, Child, "ab")
    CHILD_STEPS[step](rotation)
    verb = step.split()[0]
    assert log == ["make a", f"{verb} a", "make b", "drop a", f"{verb} b", "drop b"]
