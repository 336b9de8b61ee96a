"""What code that runs in the middle of a restore can do to the rotation and to the state."""

import copy

import numpy as np

from adversary.places.in_restores import WIDTH
from adversary.values.children import Sum
from support.days import passing_method

NAMES = ["slot_by_key", "key_by_slot", "legs_by_slot", "structure_metadata_by_slot"]
NAMES += ["structure_N_limit", "child_states"]


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
