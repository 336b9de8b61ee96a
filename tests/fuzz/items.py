"""Item lists of a day: mutated well-formed items, in every form and way of handing them over."""

import contextlib
import copy

import numpy as np

from adversary.actions.between_days import CHANGES
from adversary.actions.in_days import ACTIONS
from adversary.places.in_days import DELETIONS, PLACES
from adversary.places.in_items import ITEM_PLACES
from adversary.values.children import build_child
from adversary.values.chosen import anything, chance, container, mapping, mutated, number, pick
from adversary.values.items import Thing, deliver, form_item
from adversary.values.triggers import Trigger
from fuzz.subjects import both_modules as subjects
from fuzz.subjects import usual_class
from support.player import Player

__all__ = ["play", "subjects"]

CAPACITY = 4
WIDTH = 6
KEYS = [("a",), ("b",), ("a", "b"), (), (1,), (1.0,), ("c", 2), ("d",), ("e",)]
LEGS = [(), ((0, 1.0),), ((0, 1.0), (1, -1.0)), ((5, 0.5), (5, 0.25)), ((2, 0.0), (3, -2.0))]
WEIGHTS = [1.0, -1.0, 0.5, 0.0, -0.0, 1e300, 1e-320, 0.1, -3.0, 1e308]
VALUES = [1.0, 2.0, -0.5, 0.0, -0.0, 1e308, 5e-324, float("nan"), float("inf"), 0.7, 1, 2**60]
METADATA = [None, {}, {"note": 1}, {"key": "mine"}, {"legs": "mine", "x": 2}, {1: 2, None: 3}]
METADATA += [{"slot": "?", "active": "?"}]
FORMS = ["dict"] * 6 + ["record"] * 3 + ["object"] * 2
ODD_FORMS = ["ordered", "subclass", "own get", "namespace", "raw"]
DELIVERIES = ["list"] * 6 + ["tuple", "iterator", "deque", "values", "generator"]
CHILDREN = ["sum", "double", "same", "list", "float32", "strided", "fill", "infinite"]
# What changes the class itself would change it for all inputs after this one.
ACTS = sorted(set(ACTIONS) - {"override_the_class", "change_the_class", "make_nothing_valid"})
SEES_THE_CONTEXT = {"lose_all_attributes", "run_a_copy"}
SPOTS = sorted(set(PLACES) - {"attribute assignment"})


def play(random, base):
    """Run the list as a day after a plain one, and then again, unless a change comes between."""
    rotation = make_rotation(random, base)
    calls = type(rotation).log
    calls.clear()
    specs = item_list(random)
    player = Player(rotation)
    if chance(random, 0.5):
        rotation.items = [form_item(base, *plain_item(random)) for _ in range(2)]
        one_day(random, player)
    trigger = Trigger()
    items = [form_item(base, *spec) for spec in specs]
    rotation.items = items if chance(random, 0.6) else deliver(items, pick(random, DELIVERIES))
    if chance(random, 0.15) and type(rotation.items) is list:
        become_hostile(random, rotation, trigger)
    one_day(random, player)
    trigger.action = None
    if chance(random, 0.3):
        player.act(pick(random, CHANGES), rotation)
    rotation.items = items
    one_day(random, player)
    player.look()
    return player.log + calls


def make_rotation(random, base):
    capacity = CAPACITY if chance(random, 0.8) else pick(random, [1, 2, 5])
    children = [pick(random, CHILDREN) for _ in range(pick(random, [0, 1, 1, 2]))]
    rotation = usual_class(base)(
        max_structures=capacity,
        N_alloc=WIDTH,
        transformation_expression=pick(random, ["none", "none", "ewma(3);rank", "zscore"]),
        unmap_policy=pick(random, ["proportional", "equal_split"]),
        child_rotations=[build_child(kind, capacity) for kind in children],
        trace_sink=[] if chance(random, 0.2) else None,
    )
    if chance(random, 0.1):
        rotation._call_child_on_empty = False
    return rotation


def become_hostile(random, rotation, trigger):
    """Let code run somewhere in the middle of the day, which does something to the rotation."""
    act = pick(random, ACTS)
    if chance(random, 0.6):
        spot = pick(random, sorted(ITEM_PLACES))
        item = ITEM_PLACES[spot](trigger)
        place = int(random.random() * (len(rotation.items) + 1))
        rotation.items.insert(place, item)
    elif rotation.max_structures >= CAPACITY:
        spot = pick(random, SPOTS)
        PLACES[spot](rotation, trigger)
    else:
        return
    # An error keeps the frames of Python code and what they hold, so there a finalizer runs after
    # the context was taken back, and here before: it must not tell.
    if spot in DELETIONS and act in SEES_THE_CONTEXT:
        return
    # What a finalizer raises reaches nobody.
    swallowed = BaseException if spot in DELETIONS else ()
    trigger.action = lambda: take_action(act, rotation, swallowed)


def take_action(act, rotation, swallowed):
    with contextlib.suppress(swallowed):
        ACTIONS[act](rotation)


def one_day(random, player):
    attributes = vars(player.rotation)
    if "masks" in attributes or chance(random, 0.15):
        masks, combined = attributes.pop("masks", None) or own_masks(random)
        buffer = attributes.pop("buffer", None)
        buffer = np.full(WIDTH, 77.0) if buffer is None else buffer
        N = pick(random, [6, 6, 6, 5, 0])
        player.compute((np.zeros(6),), masks, combined, buffer, N)
    else:
        context = attributes.pop("context", None)
        if chance(random, 0.2):
            context = Thing(current_day_index=pick(random, [0, 3, "2", -4, 2.9, None]))
        player.call(row(random), context=context)


def row(random):
    values = np.ones(WIDTH)
    if chance(random, 0.3):
        values[int(random.random() * WIDTH)] = np.nan
    return values


def own_masks(random):
    masks = [mask(random) for _ in range(pick(random, [0, 1, 2]))]
    return container(random, masks) if chance(random, 0.1) else tuple(masks), mask(random)


def mask(random):
    bits = [pick(random, [0, 0, 0, 0, 1]) for _ in range(pick(random, [6, 6, 6, 6, 5, 3]))]
    draw = random.random()
    if draw < 0.6:
        return np.array(bits, dtype=np.uint8)
    if draw < 0.97:
        return pick(random, MASKS)(bits)
    return anything(random)


MASKS = [
    list,
    tuple,
    bytes,
    lambda bits: np.array(bits, dtype=bool),
    lambda bits: np.array(bits, dtype=float),
    lambda bits: np.array(bits, dtype=object),
    lambda bits: np.array(bits, dtype=">i2"),
    lambda bits: np.repeat(np.array(bits, dtype=np.uint8), 2)[::2],
    lambda bits: np.array(bits, dtype=np.uint8)[::-1],
    lambda bits: np.array([bits, bits], dtype=np.uint8).T,
    lambda bits: np.broadcast_to(np.uint8(0), (len(bits),)),
    lambda bits: memoryview(bytes(bits)),
    lambda bits: dict(enumerate(bits)),
]


# Lists of items, as plain descriptions


def item_list(random):
    specs = [plain_item(random) for _ in range(pick(random, [0, 1, 2, 3, 3, 4, 5, 9]))]
    for _ in range(pick(random, [0, 1, 1, 2])):
        if specs:
            place = int(random.random() * len(specs))
            specs[place] = odd_item(random, specs[place])
    return specs


def plain_item(random):
    fields = {"key": pick(random, KEYS), "legs": plain_legs(random), "value": pick(random, VALUES)}
    if chance(random, 0.3):
        fields["metadata"] = copy.deepcopy(pick(random, METADATA))
    return pick(random, FORMS), fields


def plain_legs(random):
    if chance(random, 0.5):
        return pick(random, LEGS)
    legs = [
        (int(random.random() * WIDTH), pick(random, WEIGHTS)) for _ in range(random.getrandbits(2))
    ]
    return tuple(legs) if chance(random, 0.5) else legs


def odd_item(random, spec):
    form, fields = spec
    draw = random.random()
    if draw < 0.1:
        form = pick(random, ODD_FORMS)
    elif draw < 0.2:
        fields.pop(pick(random, sorted(fields)))
        fields.setdefault("key", ("x",))
    elif draw < 0.35:
        fields["legs"] = odd_legs(random)
    elif draw < 0.45:
        fields["value"] = number(random)
    elif draw < 0.6:
        fields["metadata"] = mapping(random, 2) if chance(random, 0.6) else anything(random)
    elif draw < 0.65:
        fields["key"] = anything(random)
    elif draw < 0.7:
        return "raw", {"key": anything(random)}
    else:
        fields = mutated_fields(random, fields)
    return form, fields


def mutated_fields(random, fields):
    name = pick(random, sorted(fields))
    return {**fields, name: mutated(random, fields[name])}


def odd_legs(random):
    legs = []
    for _ in range(pick(random, [1, 1, 2, 3])):
        leg = [number(random) if chance(random, 0.5) else 1, number(random)]
        legs.append(container(random, leg) if chance(random, 0.3) else tuple(leg))
    return container(random, legs)
