"""States, stores and memories that fail."""

import copy

import numpy as np

from quorvane.functions.rotations.longitudinal.ewma import Ewma
from safety.subjects.failing import FAILURES, failing
from safety.subjects.rotations import (
    MAKERS,
    NAN,
    ONES,
    Baskets,
    Child,
    Copied,
    N,
    make_attendance,
    make_ewma,
    make_gate,
    raising,
    used,
    with_children,
)


def refused_state(name, **entries):
    """Register a state that is as it should be but for these entries."""

    def setup():
        rotation = used(Baskets)
        state = {**copy.deepcopy(rotation.get_state()), **entries}
        return lambda: rotation.set_state(state)

    FAILURES[f"state with {name}"] = (ValueError, setup)


refused_state("slots of another type", slot_by_key=[])


refused_state("inverse slots of another type", key_by_slot=[])


refused_state("legs of another type", legs_by_slot=[])


refused_state("too many slots", slot_by_key={(number,): number for number in range(9)})


refused_state("a slot twice", slot_by_key={(1,): 0, (2,): 0})


refused_state("a slot that is too high", slot_by_key={(1,): 7})


refused_state("a key that is no tuple", slot_by_key={"a": 0})


refused_state("maps that do not fit", key_by_slot={})


refused_state("legs of an unknown slot", legs_by_slot={3: ()})


refused_state("a leg that is no pair", legs_by_slot={0: [(1,)]})


refused_state("a leg that is too high", legs_by_slot={0: [(N, 1.0)]})


refused_state("a weight that is not finite", legs_by_slot={0: [(0, NAN)]})


refused_state("too little metadata", structure_metadata_by_slot=[])


refused_state("metadata that are no dicts", structure_metadata_by_slot=[1, 2, 3, 4])


refused_state("a limit that is too high", structure_N_limit=N + 1)


refused_state("a limit that is no integer", structure_N_limit=1.5)


refused_state("too few children", child_states=[])


refused_state("children of another type", child_states=3)


@failing(ValueError)
def state_that_is_no_dict():
    rotation = used(Baskets)
    return lambda: rotation.set_state([])


@failing(LookupError)
def child_that_refuses_its_state():
    failing_child = Child()
    rotation, state = with_children(Child(), failing_child)
    failing_child.fails = ["set_state"]
    return lambda: rotation.set_state(state)


@failing(LookupError)
def child_without_a_snapshot():
    failing_child = Child()
    rotation, state = with_children(Child(), failing_child)
    failing_child.fails = ["get_state"]
    return lambda: rotation.set_state(state)


@failing(LookupError)
def state_of_a_child_that_raises():
    failing_child = Child()
    rotation, _ = with_children(failing_child)
    failing_child.fails = ["get_state"]
    return rotation.get_state


@failing(ValueError)
def state_of_another_window():
    rotation = used(make_ewma)
    state = {**rotation.get_state(), "window": 4}
    return lambda: rotation.set_state(state)


@failing(ValueError)
def state_of_another_width():
    rotation = used(make_ewma)
    state = {**rotation.get_state(), "weight": np.ones(2)}
    return lambda: rotation.set_state(state)


@failing(ValueError)
def state_without_entries():
    rotation = used(make_ewma)
    return lambda: rotation.set_state({})


@failing(ValueError)
def state_of_a_rotation_that_is_no_dict():
    rotation = used(Copied)
    return lambda: rotation.set_state(3)


@failing(LookupError)
def store_that_cannot_write():
    rotation = used(Baskets)
    store = type("Store", (), {"write": raising})()
    return lambda: rotation.checkpoint(store)


@failing(LookupError)
def store_that_cannot_read():
    rotation = used(Copied)
    store = type("Store", (), {"read": raising})()
    return lambda: rotation.recover(store)


@failing(AttributeError)
def store_that_is_none():
    rotation = used(Baskets)
    return lambda: rotation.recover(3)


for _make in (Baskets, Copied, Ewma):
    for _error, _wrong in ((TypeError, True), (TypeError, "x"), (ValueError, 0), (ValueError, -3)):
        FAILURES[f"resize of {_make.__name__} to {_wrong!r}"] = (
            _error,
            lambda make=_make, wrong=_wrong: (lambda rotation: lambda: rotation.resize(wrong))(
                used(make_ewma if make is Ewma else make)
            ),
        )


@failing(IndexError)
def slot_that_is_not_there_to_be_forgotten():
    ewma = used(make_ewma)
    return lambda: ewma.forget([0, N])


@failing(TypeError)
def slots_that_are_no_numbers():
    ewma = used(make_ewma)
    return lambda: ewma.forget(["x"])


@failing(ValueError)
def memory_without_room():
    rotation = used(MAKERS["rolling mean"])
    rotation._memory = np.zeros(1)
    return lambda: rotation(ONES)


@failing(ValueError)
def groups_by_no_known_function():
    rotation = used(MAKERS["within groups"])
    rotation.function = "median"
    return lambda: rotation(ONES)


@failing(IndexError)
def column_that_is_not_there_to_be_forgotten():
    rotation = used(MAKERS["delay"])
    return lambda: rotation.forget([N])


@failing(ValueError)
def attendance_without_room():
    attendance = used(make_attendance)
    attendance._silent_days = np.zeros(1)
    return lambda: attendance(ONES)


@failing(AttributeError)
def gate_that_goes_by_nobody():
    gate = used(make_gate)
    gate.attendance = None
    return lambda: gate(ONES)
