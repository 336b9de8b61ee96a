"""Places in a restore where the user's code can run, and what it can do there."""

import copy
import sys

import numpy as np

from support.days import Sum, passing_method
from support.hostile import Comparing, Deleted, Hashed, Number, WatchedMap, firing, watched

CAPACITY = 4
WIDTH = 6
NAMES = ["slot_by_key", "key_by_slot", "legs_by_slot", "structure_metadata_by_slot"]
NAMES += ["structure_N_limit", "child_states"]


# Spots of the state: each is changed in place, and fires when it is looked at


class FiringList(list):
    """List that fires in the one method that `place` names."""

    trigger = None
    place = None

    def __iter__(self):
        if self.place == "iter":
            self.trigger.fire()
        return super().__iter__()

    def __len__(self):
        if self.place == "len":
            self.trigger.fire()
        return super().__len__()


class FiringInt(int):
    """Int that fires when it is converted."""

    trigger = None

    def __int__(self):
        self.trigger.fire()
        return int.__index__(self)


class FiringKey(tuple):
    """Key that fires when it is copied, that is iterated over."""

    trigger = None

    def __iter__(self):
        self.trigger.fire()
        return super().__iter__()


class Entry(dict):
    """Metadata that fires when its keys are asked for."""

    trigger = None

    def keys(self):
        self.trigger.fire()
        return super().keys()

    def __iter__(self):
        return iter(list(super().__iter__()))


class Items(dict):
    """Map that fires when its items are asked for."""

    trigger = None

    def items(self):
        self.trigger.fire()
        return super().items()


def spot_weight(state, trigger):
    every_legs(state, lambda: [(0, 1.0), (1, Number(trigger, 0.5)), (2, 1.0)])


def spot_weight_index(state, trigger):
    every_legs(state, lambda: [(0, 1.0), (1, firing(trigger, __index__=2)), (2, 1.0)])


def spot_leg_iteration(state, trigger):
    every_legs(
        state, lambda: [[0, 1.0], watched(FiringList, trigger, [1, 2.0], place="iter"), [2, 1.0]]
    )


def spot_leg_length(state, trigger):
    every_legs(
        state, lambda: [[0, 1.0], watched(FiringList, trigger, [1, 2.0], place="len"), [2, 1.0]]
    )


def spot_legs_iteration(state, trigger):
    every_legs(state, lambda: watched(FiringList, trigger, [(0, 1.0), (1, 2.0)], place="iter"))


def spot_leg_id_conversion(state, trigger):
    every_legs(state, lambda: [(0, 1.0), (watched(FiringInt, trigger, 1), 2.0), (2, 1.0)])


def every_legs(state, make):
    for slot in state["legs_by_slot"]:
        state["legs_by_slot"][slot] = make()


if sys.version_info < (3, 14):  # later tuples remember their hash

    def spot_key_hash(state, trigger):
        other_keys(state, lambda: (Hashed(trigger, "hash"),))


def spot_key_comparison(state, trigger):
    other_keys(state, lambda: (Hashed(trigger, "eq"),))


def spot_key_comparison_with_another(state, trigger):
    other_keys(state, lambda: (Hashed(trigger, "eq", equal=False),))


def spot_key_iteration(state, trigger):
    other_keys(state, lambda: watched(FiringKey, trigger, ("b",)))


def other_keys(state, make):
    """Give a slot another key in each of the two maps, made twice."""
    names = state["key_by_slot"]
    for slot in list(names)[:1]:
        state["slot_by_key"] = {
            make() if other == slot else key: other for key, other in state["slot_by_key"].items()
        }
        names[slot] = make()


def spot_slot_conversion(state, trigger):
    for key, slot in list(state["slot_by_key"].items()):
        state["slot_by_key"][key] = watched(FiringInt, trigger, slot)


def spot_key_map_slot_conversion(state, trigger):
    entries = state["key_by_slot"].items()
    state["key_by_slot"] = {watched(FiringInt, trigger, slot): key for slot, key in entries}


def spot_legs_slot_conversion(state, trigger):
    entries = state["legs_by_slot"].items()
    state["legs_by_slot"] = {watched(FiringInt, trigger, slot): legs for slot, legs in entries}


def spot_metadata_keys(state, trigger):
    state["structure_metadata_by_slot"] = [{}, watched(Entry, trigger, {"a": 1}), {"b": 2}, {}]


def spot_metadata_length(state, trigger):
    state["structure_metadata_by_slot"] = watched(
        FiringList, trigger, [{} for _ in range(CAPACITY)], place="len"
    )


def spot_metadata_iteration(state, trigger):
    state["structure_metadata_by_slot"] = watched(
        FiringList, trigger, [{} for _ in range(CAPACITY)], place="iter"
    )


def spot_cleared_metadata_deletion(state, trigger):
    # The state is the only holder of what it clears here.
    state["structure_metadata_by_slot"] = [
        watched(Entry, Silent(), {"old": Deleted(trigger)}) for _ in range(CAPACITY)
    ]
    state["structure_metadata_by_slot"][0].trigger = Clearing(state["structure_metadata_by_slot"])


class Silent:
    def fire(self):
        pass


class Clearing:
    """Drops the entries of a list when it fires."""

    def __init__(self, entries):
        self.entries = entries

    def fire(self):
        del self.entries[1:]


def spot_slot_map_items(state, trigger):
    state["slot_by_key"] = watched(Items, trigger, state["slot_by_key"])


def spot_key_map_items(state, trigger):
    state["key_by_slot"] = watched(Items, trigger, state["key_by_slot"])


def spot_legs_items(state, trigger):
    state["legs_by_slot"] = watched(Items, trigger, state["legs_by_slot"])


def spot_slot_map_length(state, trigger):
    state["slot_by_key"] = watched(WatchedMap, trigger, state["slot_by_key"], place="len")


def spot_key_map_length(state, trigger):
    state["key_by_slot"] = watched(WatchedMap, trigger, state["key_by_slot"], place="len")


def spot_legs_length(state, trigger):
    state["legs_by_slot"] = watched(WatchedMap, trigger, state["legs_by_slot"], place="len")


def spot_limit_comparison(state, trigger):
    state["structure_N_limit"] = watched(Comparing, trigger, 6)


def spot_limit_conversion(state, trigger):
    state["structure_N_limit"] = watched(FiringInt, trigger, 6)


def spot_child_states_length(state, trigger):
    state["child_states"] = watched(FiringList, trigger, state["child_states"], place="len")


def spot_child_states_iteration(state, trigger):
    state["child_states"] = watched(FiringList, trigger, state["child_states"], place="iter")


def names_of(prefix):
    return {
        name.removeprefix(prefix).replace("_", " "): function
        for name, function in list(globals().items())
        if name.startswith(prefix)
    }


SPOTS = names_of("spot_")


# Spots of the rotation: its children, its capacity, its name


class Child:
    """Child with a state, that fires in the one method that `place` names."""

    def __init__(self, trigger, place, *, fails=False):
        self.trigger = trigger
        self.place = place
        self.fails = fails
        self.state = {"mine": [1, 2]}

    def __call__(self, values, *, context):
        return values

    def get_state(self):
        if self.place == "get_state":
            self.trigger.fire()
        return self.state

    def set_state(self, state):
        if self.place == "set_state":
            self.trigger.fire()
        if self.fails:
            raise LookupError("set_state")
        self.state = state


class LookedUpChild(Child):
    """Child that fires when its methods are looked up."""

    def __getattribute__(self, name):
        if name == object.__getattribute__(self, "place"):
            object.__getattribute__(self, "trigger").fire()
        return object.__getattribute__(self, name)


class CopiedState(dict):
    """State that fires when it is copied deeply."""

    trigger = None

    def __deepcopy__(self, memo):
        self.trigger.fire()
        return {"copied": 1}


class NotedError(LookupError):
    """Error that fires when a note is added, or when it is shown."""

    trigger = None
    place = None

    def add_note(self, note):
        if self.place == "add_note":
            self.trigger.fire()

    def __repr__(self):
        if self.place == "repr":
            self.trigger.fire()
        return "NotedError()"


def rotation_get_state(rotation, trigger):
    rotation.child_rotations[0] = Child(trigger, "get_state")


def rotation_set_state(rotation, trigger):
    rotation.child_rotations[0] = Child(trigger, "set_state")


def rotation_set_state_that_fails(rotation, trigger):
    rotation.child_rotations[1] = Child(trigger, "set_state", fails=True)


def rotation_get_state_lookup(rotation, trigger):
    rotation.child_rotations[0] = LookedUpChild(trigger, "get_state")


def rotation_set_state_lookup(rotation, trigger):
    rotation.child_rotations[0] = LookedUpChild(trigger, "set_state")


def rotation_state_copied(rotation, trigger):
    rotation.child_rotations[0] = Child(trigger, None)
    rotation.child_rotations[0].state = watched(CopiedState, trigger, {"mine": 1})


def rotation_note_added(rotation, trigger):
    fail_with(rotation, trigger, "add_note")


def rotation_error_shown_in_the_note(rotation, trigger):
    fail_with(rotation, trigger, "repr")


def fail_with(rotation, trigger, place):
    def set_state(state):
        error = NotedError("set_state")
        error.trigger, error.place = trigger, place
        raise error

    rotation.child_rotations[1].set_state = set_state


def rotation_children_iteration(rotation, trigger):
    rotation.child_rotations = watched(FiringList, trigger, rotation.child_rotations, place="iter")


def rotation_children_length(rotation, trigger):
    rotation.child_rotations = watched(FiringList, trigger, rotation.child_rotations, place="len")


def rotation_capacity_comparison(rotation, trigger):
    rotation.max_structures = watched(Comparing, trigger, CAPACITY)


def rotation_width_comparison(rotation, trigger):
    rotation._n_alloc = watched(Comparing, trigger, WIDTH)


def rotation_name_formatting(rotation, trigger):
    rotation._name = firing(trigger, __format__="name")
    rotation.max_structures = 0


def rotation_old_metadata_deletion(rotation, trigger):
    rotation._metadata_by_slot[1]["old"] = Deleted(trigger)


def rotation_old_legs_deletion(rotation, trigger):
    rotation._legs_by_slot[0] = [Deleted(trigger)]


def rotation_old_key_deletion(rotation, trigger):
    rotation.key_by_slot[0] = Deleted(trigger)


def rotation_assignment(rotation, trigger):
    def __setattr__(self, name, value):
        object.__setattr__(self, name, value)
        if name == "key_by_slot":
            trigger.fire()

    type(rotation).__setattr__ = __setattr__


ROTATION_SPOTS = names_of("rotation_")


# Harms


def clear_part(name):
    def act(rotation, state):
        part = state.get(name)
        if hasattr(part, "clear"):
            part.clear()

    act.__name__ = f"clear_{name}"
    return act


def grow_part(name):
    def act(rotation, state):
        part = state.get(name)
        if isinstance(part, dict):
            part[("new",) if name == "slot_by_key" else 3] = 3
        elif isinstance(part, list):
            part.append({})

    act.__name__ = f"grow_{name}"
    return act


def replace_part(name):
    def act(rotation, state):
        state[name] = {("other",): 0}

    act.__name__ = f"replace_{name}"
    return act


def clear_state(rotation, state):
    state.clear()


def clear_legs(rotation, state):
    for legs in list(dict(state.get("legs_by_slot") or {}).values()):
        if isinstance(legs, list):
            legs.clear()


def grow_legs(rotation, state):
    for legs in list(dict(state.get("legs_by_slot") or {}).values()):
        if isinstance(legs, list) and len(legs) < 100:
            legs.append((0, 9.0))


def clear_a_leg(rotation, state):
    for legs in list(dict(state.get("legs_by_slot") or {}).values()):
        for leg in legs if isinstance(legs, list) else ():
            if isinstance(leg, list):
                leg.clear()


def shrink_capacity(rotation, state):
    rotation.max_structures = 1


def shrink_width(rotation, state):
    rotation._n_alloc = 1


def lose_metadata(rotation, state):
    del rotation._metadata_by_slot


def lose_everything(rotation, state):
    vars(rotation).clear()


def no_children(rotation, state):
    rotation.child_rotations.clear()


def more_children(rotation, state):
    rotation.child_rotations.append(Sum())


def other_children(rotation, state):
    rotation.child_rotations = [Sum()]


def other_tables(rotation, state):
    rotation.slot_by_key, rotation.key_by_slot = {("mine",): 0}, {0: ("mine",)}
    rotation._metadata_by_slot = [{"other": 1}]
    rotation._legs_by_slot = {0: ((0, 2.0),)}


def own_state(rotation, state):
    rotation.set_state(rotation.get_state())


def copied_state(rotation, state):
    rotation.set_state(copy.copy(state))


def day(rotation, state):
    rotation(np.ones(WIDTH))


def wider(rotation, state):
    rotation.resize(WIDTH + 1)
    # The new buffer's contents are undefined, so two runs agree only once they are set.
    rotation._output_buf.fill(77.0)


def override_the_steps(rotation, state):
    for name in ["_validate_child_states", "_snapshot_child_states", "_restore_child_snapshots"]:
        setattr(rotation, name, lambda *args: [{}, {}])


def override_the_class(rotation, state):
    cls = type(rotation)
    for name in ["_validate_child_states", "_snapshot_child_states", "_restore_child_snapshots"]:
        setattr(cls, name, passing_method(name, cls))


def fail(error):
    def act(rotation, state):
        raise error("act")

    act.__name__ = f"fail_with_{error.__name__}"
    return act


RESTORE_HARMS = {
    "empties": [
        *[clear_part(name) for name in NAMES],
        clear_legs,
        clear_a_leg,
        clear_state,
        no_children,
        lose_metadata,
        lose_everything,
    ],
    "replaces": [*[replace_part(name) for name in NAMES], other_children, other_tables],
    "resizes": [
        *[grow_part(name) for name in NAMES],
        grow_legs,
        shrink_capacity,
        shrink_width,
        more_children,
        wider,
    ],
    "enters again": [own_state, copied_state, day],
    "raises": [fail(LookupError), fail(AttributeError), fail(StopIteration)],
    "raises what is no exception": [fail(KeyboardInterrupt), fail(GeneratorExit)],
}
OVERRIDES = [override_the_steps, override_the_class]
