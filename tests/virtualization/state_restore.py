"""Rotations with a day behind them, and states for them."""

import numpy as np

from support.fakes import make_rotation, structure

PAIR = structure(("a", "b"), [(0, 1.0), (1, -1.0)], 2.0)
OWN = ["slot_by_key", "key_by_slot", "_legs_by_slot", "_metadata_by_slot", "_structure_N_limit"]


def after_one_day(base, *children, **constructor):
    rotation = make_rotation(base, [[PAIR]], child_rotations=list(children), **constructor)
    rotation(np.zeros(6))
    return rotation


def own_attributes(rotation):
    return {name: getattr(rotation, name) for name in OWN}


def assert_own_attributes_untouched(rotation, before):
    assert all(getattr(rotation, name) is value for name, value in before.items())


def state_for(*child_states):
    """Make a valid state of one structure, with the given states of the children."""
    return {
        "slot_by_key": {("z",): 1},
        "key_by_slot": {1: ("z",)},
        "legs_by_slot": {1: [[2, 1]]},
        "structure_metadata_by_slot": [{}, {"active": True}, {}, {}],
        "structure_N_limit": 5,
        "child_states": list(child_states),
    }
