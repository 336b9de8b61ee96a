"""State dictionaries: valid ones with parts changed, dropped, swapped and made hostile."""

import collections
import types

import numpy as np

from adversary.actions.in_restores import NAMES, RESTORE_HARMS
from adversary.places.in_states import SPOTS
from adversary.values.children import FailingChild, OneState, build_child
from adversary.values.chosen import anything, chance, container, mutated, number, pick
from adversary.values.items import OwnGet, SubDict, Thing, form_item
from adversary.values.odd_containers import Key
from adversary.values.odd_numbers import Int
from adversary.values.triggers import Trigger
from fuzz.items import CHILDREN, KEYS, WIDTH, one_day, plain_item, plain_legs
from fuzz.subjects import both_modules as subjects
from fuzz.subjects import usual_class
from support import frozen
from support.player import Player

__all__ = ["play", "subjects"]

CAPACITY = 4
# What a finalizer raises reaches nobody.
LIVE_SPOTS = sorted(spot for spot in SPOTS if "deletion" not in spot)
ACTS = [act for acts in RESTORE_HARMS.values() for act in acts]


def play(random, base):
    """Install the state in a rotation that has one already, directly or from a store."""
    rotation = make_rotation(random, base)
    held = hold(random, rotation)
    trigger = Trigger()
    state = odd_state(random, rotation, trigger)
    act = pick(random, ACTS)
    # What makes the parts of a state may have fired already.
    trigger.fired = 0
    trigger.action = lambda: act(rotation, state)
    draw = random.random()
    player = Player(rotation, seen=lambda rotation: [state, held, vars(rotation)])
    if draw < 0.2:
        player.act(rotation._validate_state_components, state)
    elif draw < 0.9:
        player.act(rotation.set_state, state)
    else:
        player.act(rotation.recover, types.SimpleNamespace(read=lambda name: state))
    trigger.action = None
    player.log.append(trigger.fired)
    player.look()
    if chance(random, 0.3):
        one_day(random, player)
        player.look()
    return player.log


def make_rotation(random, base):
    """Rotation of four slots with a day behind it, one child at times unable to restore."""
    rotation = usual_class(base)(
        max_structures=CAPACITY,
        N_alloc=WIDTH,
        transformation_expression=pick(random, ["none", "none", "ewma(3)"]),
        child_rotations=[make_child(random) for _ in range(pick(random, [0, 0, 1, 2]))],
    )
    rotation.items = [form_item(base, *plain_item(random)) for _ in range(2)]
    if chance(random, 0.7):
        frozen.outcome(rotation, np.ones(WIDTH))
    return rotation


def hold(random, rotation):
    """Hold some of what a restore replaces: whoever holds it must find it as it was."""
    entries = rotation._metadata_by_slot
    draw = random.random()
    if draw < 0.6:
        return None
    if draw < 0.7:
        return entries
    if draw < 0.8:
        return entries[int(random.random() * len(entries))]
    if draw < 0.9:
        entries[int(random.random() * len(entries))]["old"] = [1, 2]
        return vars(rotation).copy()
    entries[-1] = entries[0]
    return rotation._legs_by_slot


def make_child(random):
    if chance(random, 0.2):
        return OneState()
    if chance(random, 0.15):
        return FailingChild()
    if chance(random, 0.1):
        return Thing(set_state=lambda state: None)
    return build_child("sum" if chance(random, 0.5) else pick(random, CHILDREN), CAPACITY)


# States


def odd_state(random, rotation, trigger):
    state = rotation.get_state() if chance(random, 0.2) else valid_state(random, rotation)
    draw = random.random()
    if draw < 0.1:
        return state
    if draw < 0.12:
        return anything(random)
    if draw < 0.17:
        state.pop(pick(random, sorted(state)))
    elif draw < 0.3:
        name = pick(random, sorted(state))
        state[name] = ODD_ENTRIES[name](random)
    elif draw < 0.4:
        SPOTS[pick(random, LIVE_SPOTS)](state, trigger)
    elif draw < 0.45:
        name = pick(random, NAMES)
        state[name] = mutated(random, state[name])
        return pick(random, [SubDict, OwnGet, collections.OrderedDict])(state)
    if draw >= 0.3:
        for _ in range(pick(random, [0, 1, 1, 2])):
            name = pick(random, NAMES[:-1])
            if name in state:
                state[name] = mutated(random, state[name])
    return state


def valid_state(random, rotation):
    slots = random.sample(range(CAPACITY), int(random.random() * (CAPACITY + 1)))
    names = dict(zip(slots, random.sample(KEYS[:4] + KEYS[6:], len(slots)), strict=True))
    legs = {slot: plain_legs(random) for slot in slots if chance(random, 0.9)}
    metadata = [{"active": slot in names, "slot": slot} for slot in range(CAPACITY)]
    return {
        "constructor": {},
        "slot_by_key": {key: slot for slot, key in names.items()},
        "key_by_slot": names,
        "legs_by_slot": legs,
        "structure_metadata_by_slot": None if chance(random, 0.1) else metadata,
        "structure_N_limit": pick(random, [6, 6, 6, 6, 5, None]),
        "child_states": [child_state(child) for child in rotation.child_rotations],
    }


def child_state(child):
    return child.get_state() if hasattr(child, "get_state") else {}


def odd_map(make_key, make_value):
    def make(random):
        entries = [
            (make_key(random), make_value(random)) for _ in range(pick(random, [0, 1, 2, 5]))
        ]
        try:
            return pick(random, [dict, dict, SubDict, list])(entries)
        except BaseException:
            return entries

    return make


def odd_key(random):
    if chance(random, 0.7):
        return pick(random, KEYS)
    return pick(random, [Key("a"), "a", None, (float("nan"),), (None,), anything(random)])


def odd_slot(random):
    if chance(random, 0.7):
        return pick(random, [0, 1, 2, 3, 3, 4, -1, True, Int(1), 2**70])
    return number(random)


def odd_slot_legs(random):
    return mutated(random, pick(random, [tuple, list])(plain_legs(random)))


ODD_ENTRIES = {
    "constructor": anything,
    "slot_by_key": odd_map(odd_key, odd_slot),
    "key_by_slot": odd_map(odd_slot, odd_key),
    "legs_by_slot": odd_map(odd_slot, odd_slot_legs),
    "structure_metadata_by_slot": lambda random: container(
        random, [anything(random) for _ in range(pick(random, [0, 3, 4, 4, 5]))]
    ),
    "structure_N_limit": number,
    "child_states": anything,
}
