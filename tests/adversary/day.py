"""Three days of a rotation, in the second of which the user's code runs once and does its worst."""

import numpy as np

from adversary.actions.in_days import ACTIONS
from adversary.places.in_days import PLACES
from adversary.places.in_items import ITEM_PLACES, item_with
from adversary.values.children import build_child
from adversary.values.triggers import Trigger
from support.days import day_rotation_class
from support.player import Player


def hostile_days(base, place, action):
    """Run three days; in the second, the place runs the action once."""
    trigger = Trigger()
    rotation = make(base)
    make_item = ITEM_PLACES.get(place, item_with)
    rotation.items = [
        {"key": ("a",), "legs": ((0, 1.0),), "value": 1.0},
        make_item(trigger),
        {"key": ("c",), "legs": ((3, 1.0), (4, -1.0)), "value": 3.0, "metadata": {"note": [1]}},
    ]
    player = Player(rotation)
    # Outside of the attributes, so that actions upon these find it all the same.
    type(rotation).log = player.log
    one_day(player)
    if place in PLACES:
        PLACES[place](rotation, trigger)
    trigger.action = lambda: ACTIONS[action](rotation)
    one_day(player)
    trigger.action = None
    one_day(player)
    player.log.append(trigger.fired)
    return player.log


def make(base, *children, **attributes):
    """Make a rotation of four slots whose last child turns NaN into something finite."""
    return day_rotation_class(base, **attributes)(
        max_structures=4,
        N_alloc=6,
        transformation_expression="none",
        child_rotations=[*children, build_child("fill", 4)],
        trace_sink=[],
    )


def one_day(player):
    """Run a day, through compute where the rotation has been given masks for it."""
    attributes = dict(vars(player.rotation))
    if "masks" in attributes:
        masks, combined = attributes["masks"]
        buffer = attributes.get("buffer", np.zeros(6))
        inputs = attributes.get("arguments", (np.zeros(6),))
        player.compute(inputs, masks, combined, buffer, attributes.get("live_count", 6))
    else:
        player.call(np.ones(6), context=attributes.get("context"))
    player.look()
