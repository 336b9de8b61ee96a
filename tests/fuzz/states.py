"""State dictionaries: valid ones with parts changed, dropped, swapped and made hostile."""

import collections
import types

import numpy as np

from fuzz.items import CHILDREN, KEYS, WIDTH, one_day, plain_item, plain_legs
from fuzz.oddities import Int, Key, anything, chance, container, mutated, number, pick
from fuzz.subjects import both_modules as subjects
from fuzz.subjects import usual_class
from support import days
from support.hostile import Deleted, Hashed, Number, Parts, Trigger, TruthOf

__all__ = ["play", "subjects"]

CAPACITY = 4
NAMES = ["slot_by_key", "key_by_slot", "legs_by_slot", "structure_metadata_by_slot"]
NAMES += ["structure_N_limit", "child_states", "constructor"]


def play(random, base):
    """Install the state in a rotation that has one already, directly or from a store."""
    rotation = make_rotation(random, base)
    trigger = Trigger()
    state = odd_state(random, rotation, trigger)
    arm(random, rotation, state, trigger)
    draw = random.random()
    log = []
    if draw < 0.2:
        log.append(days.outcome(rotation._validate_state_components, state))
    elif draw < 0.9:
        log.append(days.outcome(rotation.set_state, state))
    else:
        store = types.SimpleNamespace(read=lambda name: state)
        log.append(days.outcome(rotation.recover, store))
    trigger.action = None
    log.append(trigger.fired)
    log.append(days.freeze([state, vars(rotation)]))
    if chance(random, 0.3):
        one_day(random, rotation, log)
        log.append(days.freeze(vars(rotation)))
    return log


def make_rotation(random, base):
    """Rotation of four slots with a day behind it, one child at times unable to restore."""
    rotation = usual_class(base)(
        max_structures=CAPACITY,
        N_alloc=WIDTH,
        transformation_expression=pick(random, ["none", "none", "ewma(3)"]),
        child_rotations=[make_child(random) for _ in range(pick(random, [0, 0, 1, 2]))],
    )
    rotation.items = [days.form_item(base, *plain_item(random)) for _ in range(2)]
    if chance(random, 0.7):
        days.outcome(rotation, np.ones(WIDTH))
    return rotation


class FailingChild:
    """Child whose state cannot be set, not even the one that it had."""

    def __call__(self, values, *, context):
        return values

    def get_state(self):
        return {"mine": [1]}

    def set_state(self, state):
        raise LookupError("set_state", days.freeze(state))


def make_child(random):
    if chance(random, 0.15):
        return FailingChild()
    if chance(random, 0.1):
        return days.Thing(set_state=lambda state: None)
    return days.build_child("sum" if chance(random, 0.5) else pick(random, CHILDREN), CAPACITY)


# States


def odd_state(random, rotation, trigger):
    state = valid_state(random, rotation)
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
        make_hostile(random, state, trigger)
    elif draw < 0.45:
        name = pick(random, NAMES)
        state[name] = mutated(random, state[name])
        return pick(random, [days.SubDict, days.OwnGet, collections.OrderedDict])(state)
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
            return pick(random, [dict, dict, days.SubDict, list])(entries)
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


# Parts of a state that run code


def make_hostile(random, state, trigger):
    """Put something into the state that runs the trigger's action when it is looked at."""
    spot = pick(random, sorted(SPOTS))
    SPOTS[spot](state, trigger)


def spot_weight(state, trigger):
    for slot in state["legs_by_slot"]:
        state["legs_by_slot"][slot] = [(0, 1.0), (1, Number(trigger, 0.5)), (2, 1.0)]


def spot_leg(state, trigger):
    class Leg(list):
        def __iter__(self):
            trigger.fire()
            return super().__iter__()

        def __len__(self):
            trigger.fire()
            return super().__len__()

    for slot in state["legs_by_slot"]:
        state["legs_by_slot"][slot] = [[0, 1.0], Leg([1, 2.0]), [2, 1.0]]


def spot_legs(state, trigger):
    class Legs(list):
        def __iter__(self):
            trigger.fire()
            return super().__iter__()

    for slot in state["legs_by_slot"]:
        state["legs_by_slot"][slot] = Legs([(0, 1.0), (1, 2.0)])


def spot_leg_id(state, trigger):
    class Id(int):
        def __lt__(self, other):
            trigger.fire()
            return int(self) < other

        def __int__(self):
            trigger.fire()
            return int.__index__(self)

    for slot in state["legs_by_slot"]:
        state["legs_by_slot"][slot] = [(0, 1.0), (Id(1), 2.0), (2, 1.0)]


def spot_key_of(place):
    def spot(state, trigger):
        names = state["key_by_slot"]
        for slot in names:
            names[slot] = (Hashed(trigger, place),)
        state["slot_by_key"].clear()
        for slot in list(names):
            state["slot_by_key"][names[slot]] = slot
            break

    return spot


def spot_slot(state, trigger):
    class Slot(int):
        def __int__(self):
            trigger.fire()
            return int.__index__(self)

        def __eq__(self, other):
            trigger.fire()
            return int.__index__(self) == other

        __hash__ = int.__hash__

    slots = state["slot_by_key"]
    for key in slots:
        slots[key] = Slot(slots[key])
    state["key_by_slot"] = {Slot(slot): key for slot, key in state["key_by_slot"].items()}


def spot_metadata(state, trigger):
    class Entry(dict):
        def keys(self):
            trigger.fire()
            return super().keys()

        def __iter__(self):
            trigger.fire()
            return super().__iter__()

    state["structure_metadata_by_slot"] = [{}, Entry(a=1), {"b": 2}, {}]


def spot_metadata_list(state, trigger):
    class Entries(list):
        def __len__(self):
            trigger.fire()
            return super().__len__()

        def __iter__(self):
            trigger.fire()
            return super().__iter__()

    state["structure_metadata_by_slot"] = Entries({} for _ in range(CAPACITY))


def spot_map(state, trigger):
    class Map(dict):
        def items(self):
            trigger.fire()
            return super().items()

        def __len__(self):
            trigger.fire()
            return super().__len__()

    for name in NAMES[:3]:
        state[name] = Map(state[name])


def spot_limit(state, trigger):
    class Limit(int):
        def __lt__(self, other):
            trigger.fire()
            return int(self) < other

    state["structure_N_limit"] = Limit(6)


def spot_deletion(state, trigger):
    state["structure_metadata_by_slot"] = [{"old": Deleted(trigger)} for _ in range(CAPACITY)]
    state["legs_by_slot"][9] = ()


def spot_truth(state, trigger):
    state["legs_by_slot"] = {0: Parts(trigger, [(0, 1.0)]), 1: TruthOf(trigger, True)}


def spot_child_states(state, trigger):
    class States(list):
        def __len__(self):
            trigger.fire()
            return super().__len__()

    state["child_states"] = States(state["child_states"])


SPOTS = {name[5:]: spot for name, spot in list(globals().items()) if name.startswith("spot_")}
SPOTS["key hash"] = spot_key_of("hash")
SPOTS["key comparison"] = spot_key_of("eq")
del SPOTS["key_of"]


def arm(random, rotation, state, trigger):
    """Choose what the trigger does: to the state, or to the rotation."""
    act = pick(random, ACTS)
    # What makes the parts of a state may have fired already.
    trigger.fired = 0
    trigger.action = lambda: act(rotation, state)


def clear_part(name):
    def act(rotation, state):
        part = state.get(name)
        if hasattr(part, "clear"):
            part.clear()

    return act


def grow_part(name):
    def act(rotation, state):
        part = state.get(name)
        if isinstance(part, dict):
            part[("new",) if name == "slot_by_key" else 3] = 3
        elif isinstance(part, list):
            part.append({})

    return act


def clear_legs(rotation, state):
    for legs in list(state.get("legs_by_slot", {}).values()):
        if isinstance(legs, list):
            legs.clear()


def shrink_capacity(rotation, state):
    rotation.max_structures = 1


def shrink_width(rotation, state):
    rotation._n_alloc = 1


def lose_metadata(rotation, state):
    del rotation._metadata_by_slot


def no_children(rotation, state):
    rotation.child_rotations.clear()


def own_state(rotation, state):
    rotation.set_state(rotation.get_state())


def day(rotation, state):
    rotation(np.ones(WIDTH))


def clear_state(rotation, state):
    state.clear()


def fail(error):
    def act(rotation, state):
        raise error("act")

    return act


ACTS = [clear_part(name) for name in NAMES] + [grow_part(name) for name in NAMES]
ACTS += [clear_legs, shrink_capacity, shrink_width, lose_metadata, no_children, own_state, day]
ACTS += [clear_state, fail(LookupError), fail(KeyboardInterrupt), fail(AttributeError)]
