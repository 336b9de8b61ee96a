"""Rotations and states for restores that run no Python code in between."""

import pickle

import numpy as np

from support.fakes import through_super

N = 6
SLOTS = 5
OWN = ["slot_by_key", "key_by_slot", "_legs_by_slot", "_metadata_by_slot", "_structure_N_limit"]
STEPS = ["_validate_state_components", "_validate_child_states", "_snapshot_child_states"]


def rotation_of(module, *overridden, **attributes):
    namespace = {name: through_super(name) for name in overridden}

    def _refresh_active_structures(self, *day):
        return self.items

    namespace |= {"_refresh_active_structures": _refresh_active_structures, **attributes}
    Rotation = type("Rotation", (module.VirtualizationBase,), namespace)
    rotation = Rotation(max_structures=SLOTS, transformation_expression="none", N_alloc=N)
    rotation.items = []
    return rotation


def item(number, **more):
    legs = ((number % N, 1.0 + number), ((number + 2) % N, -0.5))
    return {"key": ("pair", number), "legs": legs, "value": float(number), **more}


def day(rotation, *items):
    rotation.items = list(items)
    clear = np.zeros(N, dtype=np.uint8)
    rotation.compute((np.zeros(N),), (clear,), clear, np.empty(N), N)


def from_a_store(rotation):
    """The state as new objects, down to the words."""
    return pickle.loads(pickle.dumps(rotation.get_state()))


def contents(rotation):
    return [
        list(rotation.slot_by_key.items()),
        list(rotation.key_by_slot.items()),
        list(rotation._legs_by_slot.items()),
        [(type(entry), list(entry.items())) for entry in rotation._metadata_by_slot],
        rotation._structure_N_limit,
    ]


def outcome(function, *arguments):
    try:
        return function(*arguments)
    except Exception as error:
        return type(error), str(error)


def compare(modules, scenario):
    """Run the scenario on every side; it gets a maker of rotations and returns what it saw."""
    native, twin = modules
    expected = scenario(lambda **attributes: rotation_of(twin, **attributes))
    assert scenario(lambda **attributes: rotation_of(native, **attributes)) == expected
    for name in STEPS:
        assert scenario(lambda **attributes: rotation_of(native, name, **attributes)) == expected  # noqa: B023
    return expected
