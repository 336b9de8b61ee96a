"""States, children and stores that act while a state is checked or set."""

import collections
import functools
import types

import numpy as np
import pytest

from adversary.day import make
from adversary.values.answers import ByIteration
from adversary.values.items import Thing
from adversary.values.odd_containers import FailingIterator, MissingKeys, OwnKeys
from support import frozen
from virtualization.hostile.scenarios import Scenarios, assert_same_on_both

pytestmark = pytest.mark.usefixtures("quick_collections")
SCENARIOS = Scenarios()


@pytest.mark.hostile
@pytest.mark.parametrize("scene", SCENARIOS, ids=lambda scene: scene.__name__)
def test_scenario(scene):
    assert_same_on_both(scene)


# States


class Acting:
    """Number that acts when converted."""

    def __init__(self, action, result=0.5):
        self.action = action
        self.result = result

    def __float__(self):
        self.action()
        return self.result


@SCENARIOS.add
def states_that_change_while_they_are_checked(base):
    def state_of(weight):
        return {
            "slot_by_key": {(number,): number for number in range(3)},
            "key_by_slot": {number: (number,) for number in range(3)},
            "legs_by_slot": {0: [(0, 1.0), (1, weight), (2, 1.0)], 1: ((3, 1.0),), 2: []},
            "structure_metadata_by_slot": [{}, {"x": 1}, {}, {}],
            "child_states": [1],
        }

    actions = {
        "clear legs": lambda state, rotation: state["legs_by_slot"][0].clear(),
        "grow legs": lambda state, rotation: state["legs_by_slot"][0].append((4, 2.0)),
        "drop a slot's legs": lambda state, rotation: state["legs_by_slot"].pop(2),
        "add a slot's legs": lambda state, rotation: state["legs_by_slot"].update({3: []}),
        "replace legs": lambda state, rotation: state["legs_by_slot"].update({1: "bad"}),
        "clear maps": lambda state, rotation: state["slot_by_key"].clear(),
        "shrink metadata": lambda state, rotation: state["structure_metadata_by_slot"].pop(),
        "replace metadata": lambda state, rotation: state.update(structure_metadata_by_slot=5),
        "drop child states": lambda state, rotation: state.clear(),
        "shrink capacity": lambda state, rotation: setattr(rotation, "max_structures", 1),
        "shrink width": lambda state, rotation: setattr(rotation, "_n_alloc", 1),
        "other metadata": lambda state, rotation: setattr(rotation, "_metadata_by_slot", [1]),
        "rename": lambda state, rotation: setattr(rotation, "_name", "renamed"),
        "raise": lambda state, rotation: {}["raised"],
        "restore again": lambda state, rotation: rotation.set_state({"child_states": [1]}),
    }
    log = []
    for action in actions.values():
        rotation = make(base)
        state = {}
        state.update(state_of(Acting(functools.partial(action, state, rotation))))
        log.append(frozen.outcome(rotation.set_state, state))
        log.append(frozen.freeze({**vars(rotation), "child_rotations": None}))
    return log


@SCENARIOS.add
def keys_of_a_state_that_act_when_compared(base):
    log = []

    class Loud:
        def __init__(self, result, action=None):
            self.result = result
            self.action = action

        def __hash__(self):
            return 7

        def __eq__(self, other):
            if self.action is not None:
                self.action()
            if isinstance(self.result, Exception):
                raise self.result
            return self.result

    for result in [True, False, LookupError("compared"), 0, "", np.bool_(True), np.zeros(2)]:
        first, second = Loud(result), Loud(result)
        for slot_by_key, key_by_slot in [
            ({(first,): 0}, {0: (second,)}),
            ({(first,): 0, (1,): 1}, {0: (second,), 1: (1,)}),
            ({(first,): 0, (1,): 1}, {1: (1,), 0: (first,)}),
        ]:
            state = {"slot_by_key": slot_by_key, "key_by_slot": key_by_slot}
            log.append(frozen.outcome(make(base)._validate_state_components, state))
    return log


@SCENARIOS.add
def children_that_change_the_list_of_children_while_they_are_set(base):
    log = []

    class Child:
        def __init__(self, name, action=None):
            self.name = name
            self.action = action
            self.states = []

        def __call__(self, values, context):
            return values

        def get_state(self):
            return self.name

        def set_state(self, state):
            self.states.append(state)
            if self.action is not None:
                action, self.action = self.action, None
                action()

    def fail():
        raise LookupError("set")

    for change in ["clear", "append", "pop", "replace", "assign", "fail"]:
        last = Child("last")
        first = Child("first")
        rotation = make(base)
        rotation.child_rotations = [first, Child("middle"), last]
        children = rotation.child_rotations
        state = {"child_states": ["one", "two", "three"]}
        first.action = {
            "clear": children.clear,
            "append": functools.partial(children.append, Child("new")),
            "pop": children.pop,
            "replace": functools.partial(setattr, rotation, "child_rotations", []),
            "assign": functools.partial(setattr, rotation, "slot_by_key", {"lost": 1}),
            "fail": fail,
        }[change]
        log.append(frozen.outcome(rotation.set_state, state))
        log.append([child.states for child in [first, last]])
        log.append(frozen.freeze({**vars(rotation), "child_rotations": None}))
    return log


@SCENARIOS.add
def children_whose_methods_are_odd(base):
    class Raising:
        def __init__(self, error, name):
            self.error = error
            self.name = name

        def __getattr__(self, name):
            if name == self.name:
                raise self.error
            return lambda *args: "state"

    log = []
    for name in ["get_state", "set_state"]:
        for error in [AttributeError("x"), LookupError("x"), KeyboardInterrupt("x")]:
            rotation = make(base)
            rotation.child_rotations = [Raising(error, name)]
            log.append(frozen.outcome(rotation.get_state))
            log.append(frozen.outcome(rotation._snapshot_child_states))
            log.append(frozen.outcome(rotation._restore_child_snapshots, ["a"]))
            log.append(frozen.outcome(rotation.set_state, {"child_states": ["a"]}))
    rotation = make(base)
    rotation.child_rotations = [types.SimpleNamespace(get_state=5, set_state=None)]
    log.append(frozen.outcome(rotation.get_state))
    log.append(frozen.outcome(rotation.set_state, {"child_states": ["a"]}))
    return log


@SCENARIOS.add
def overridden_parts_of_a_restore(base):
    log = []
    results = [None, 5, (), (1, 2, 3, 4), (1, 2, 3, 4, 5), (1, 2, 3, 4, 5, 6), "abcde", {1, 2}]
    for result in [
        *results,
        [1] * 5,
        iter([1] * 5),
        iter([1] * 7),
        ByIteration(5),
        FailingIterator(),
    ]:
        rotation = make(base, _validate_state_components=lambda self, state, result=result: result)
        log.append(frozen.outcome(rotation.set_state, {"child_states": [1]}))
        log.append(str(rotation.slot_by_key))
    for result in [None, [], [1, 2], "ab", iter([1]), FailingIterator()]:
        for name in ["_validate_child_states", "_snapshot_child_states"]:
            rotation = make(base, **{name: lambda self, *args, result=result: result})
            log.append(frozen.outcome(rotation.set_state, {"child_states": [1]}))
    for result in [None, [], 0, "notes", {0: 1}, {1: 1}, [KeyError("x")], np.zeros(2)]:
        child = Thing()
        child.get_state = dict
        child.set_state = functools.partial(raise_error, LookupError("set"))
        rotation = make(base, _restore_child_snapshots=lambda self, *args, result=result: result)
        rotation.child_rotations = [child]
        log.append(frozen.outcome(rotation.set_state, {"child_states": [1]}))
    for snapshots in [None, 5, "ab", iter(["a"]), FailingIterator(), ByIteration(5)]:
        log.append(frozen.outcome(make(base)._restore_child_snapshots, snapshots))
    return log


def raise_error(error, *args):
    raise error


@SCENARIOS.add
def storage_objects_that_are_odd(base):
    log = []
    rotation = make(base)
    for stored in [OwnKeys(), collections.OrderedDict(), collections.UserDict(), MissingKeys(x=1)]:
        storage = types.SimpleNamespace(read=lambda name, stored=stored: stored)
        log.append(frozen.outcome(rotation.recover, storage))
    for error in [AttributeError("x"), StopIteration(), KeyboardInterrupt(), GeneratorExit()]:
        storage = types.SimpleNamespace(
            read=functools.partial(raise_error, error), write=functools.partial(raise_error, error)
        )
        log.append(frozen.outcome(rotation.recover, storage))
        log.append(frozen.outcome(rotation.checkpoint, storage))
    log.append(frozen.outcome(rotation.recover, None))
    log.append(frozen.outcome(rotation.checkpoint, None))
    return log
