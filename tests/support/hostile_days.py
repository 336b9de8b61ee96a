"""Three days of a rotation, in the second of which the user's code runs once and does its worst."""

import numpy as np

from support import frozen
from support.days import build_child, day_rotation_class
from support.hostile import Trigger
from support.hostile_actions import ACTIONS
from support.hostile_places import ITEM_PLACES, PLACES, item_with


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
    # Outside of the attributes, so that actions upon these find them all the same.
    log = type(rotation).log = []
    one_day(rotation, log)
    if place in PLACES:
        PLACES[place](rotation, trigger)
    trigger.action = lambda: ACTIONS[action](rotation)
    one_day(rotation, log)
    trigger.action = None
    one_day(rotation, log)
    log.append(trigger.fired)
    return log


def make(base, *children, **attributes):
    """Make a rotation of four slots whose last child turns NaN into something finite."""
    return day_rotation_class(base, **attributes)(
        max_structures=4,
        N_alloc=6,
        transformation_expression="none",
        child_rotations=[*children, build_child("fill", 4)],
        trace_sink=[],
    )


def one_day(rotation, log):
    """Run a day, through compute where the rotation has been given masks for it."""
    attributes = dict(vars(rotation))
    if "masks" in attributes:
        masks, combined = attributes["masks"]
        buffer = attributes.get("buffer", np.zeros(6))
        inputs = attributes.get("arguments", (np.zeros(6),))
        N = attributes.get("live_count", 6)
        log.append(frozen.outcome(rotation.compute, inputs, masks, combined, buffer, N))
        log.append(frozen.freeze(buffer))
    else:
        log.append(frozen.outcome(rotation, np.ones(6), context=attributes.get("context")))
    log.append(frozen.freeze(vars(rotation)))
