"""Every place in a restore where the user's code can run, meeting every harm it can do there."""

import types

import numpy as np
import pytest

from adversary.actions.in_restores import OVERRIDES, RESTORE_HARMS
from adversary.places.in_restores import ROTATION_SPOTS, WIDTH
from adversary.places.in_states import CAPACITY, SPOTS
from adversary.values.children import Sum
from adversary.values.triggers import Trigger
from support import frozen
from support.days import day_rotation_class
from support.player import Player
from support.siblings import both_modules

HARMS = {**RESTORE_HARMS, "overrides": OVERRIDES}


def hostile_restore(base, spot, act, *, way, children=2):
    """Install a state in a rotation, while a spot of either runs the act once."""
    trigger = Trigger()
    rotation = make(base, children)
    state = {
        "slot_by_key": {("x",): 2, ("b",): 0},
        "key_by_slot": {0: ("b",), 2: ("x",)},
        "legs_by_slot": {2: [(0, 1.0), [3, -1.0]], 0: ((1, 2.0),)},
        "structure_metadata_by_slot": [{"slot": slot} for slot in range(CAPACITY)],
        "structure_N_limit": 6,
        "child_states": [{"total": 1.0 + child, "days": []} for child in range(children)],
    }
    if spot in SPOTS:
        SPOTS[spot](state, trigger)
    else:
        ROTATION_SPOTS[spot](rotation, trigger)
    acted = []

    def take_action():
        if "deletion" in spot:
            # What a finalizer raises reaches nobody but the hook for unraisable errors.
            acted.append(frozen.outcome(act, rotation, state))
        else:
            act(rotation, state)

    player = Player(rotation, seen=lambda rotation: [state, vars(rotation)])
    trigger.fired, trigger.action = 0, take_action
    player.act(way, rotation, state)
    trigger.action = None
    player.look()
    player.log.append((trigger.fired, acted))
    player.call(np.ones(WIDTH))
    player.look()
    return trigger.fired, player.log


def make(base, children):
    """Make a rotation with some children and a day behind it."""
    rotation = day_rotation_class(base)(
        max_structures=CAPACITY,
        N_alloc=WIDTH,
        transformation_expression="none",
        child_rotations=[Sum() for _ in range(children)],
    )
    rotation.items = [
        {"key": (name,), "legs": ((leg, 1.0),), "value": 1.0} for leg, name in enumerate("ab")
    ]
    rotation(np.ones(WIDTH))
    return rotation


def set_the_state(rotation, state):
    return rotation.set_state(state)


def recover_it_from_a_store(rotation, state):
    return rotation.recover(types.SimpleNamespace(read=lambda name: state))


CASES = [(spot, harm) for spot in sorted([*SPOTS, *ROTATION_SPOTS]) for harm in HARMS]


# A restore without children does not come to these.
OF_CHILDREN = {spot for spot in ROTATION_SPOTS if "state" in spot or "note" in spot}


@pytest.mark.hostile
@pytest.mark.parametrize("way", [set_the_state, recover_it_from_a_store])
@pytest.mark.parametrize(("spot", "harm"), CASES, ids=map(" ".join, CASES))
def test_harm_in_the_middle_of_a_restore(spot, harm, way):
    assert acts_that_differ(spot, harm, way=way) == []


CHILDLESS_CASES = [case for case in CASES if case[0] not in OF_CHILDREN]


@pytest.mark.hostile
@pytest.mark.parametrize(("spot", "harm"), CHILDLESS_CASES, ids=map(" ".join, CHILDLESS_CASES))
def test_harm_in_the_middle_of_a_restore_without_children(spot, harm):
    assert acts_that_differ(spot, harm, way=set_the_state, children=0) == []


def acts_that_differ(spot, harm, **options):
    different = []
    for act in HARMS[harm]:
        native, twin = (hostile_restore(base, spot, act, **options) for base in both_modules())
        assert twin[0] == 1, "the place never ran its action"
        if native != twin:
            different.append(act.__name__)
    return different
