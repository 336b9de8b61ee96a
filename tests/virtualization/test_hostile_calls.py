"""Every place outside of a day and a restore where the user's code can run, meeting every harm."""

import numpy as np
import pytest

from adversary.actions.in_days import HARMS
from adversary.day import make
from adversary.places.in_calls import CALLS
from adversary.values.triggers import Trigger
from support.player import Player
from support.siblings import both_modules

pytestmark = pytest.mark.usefixtures("quick_collections")


def hostile_call(base, name, action):
    """Make the call after a plain day, the action running once in it, and another day after it."""
    trigger = Trigger()
    rotation = make(base)
    player = Player(rotation)
    type(rotation).log = player.log
    rotation.items = [
        {"key": ("a",), "legs": ((0, 1.0),), "value": 1.0},
        {"key": ("b",), "legs": ((1, 0.5), (2, -1.0)), "value": 2.0},
        {"key": ("c",), "legs": ((3, 1.0),), "value": 3.0, "metadata": {"note": [1]}},
    ]
    player.call(np.ones(6))
    call = CALLS[name](rotation, trigger)
    trigger.fired, trigger.action = 0, lambda: action(rotation)
    player.act(call)
    trigger.action = None
    settle(rotation)
    player.look()
    player.call(np.ones(6))
    player.look()
    player.log.append(trigger.fired)
    return player.log


def settle(rotation):
    """Fill a buffer that resize has made, as its contents are undefined."""
    if "_output_buf" in vars(rotation):
        rotation._output_buf.fill(77.0)


CASES = [(name, harm) for name in sorted(CALLS) for harm in HARMS]


@pytest.mark.hostile
@pytest.mark.parametrize(("name", "harm"), CASES, ids=map(" ".join, CASES))
def test_harm_in_the_middle_of_a_call(name, harm):
    different = []
    for action in HARMS[harm]:
        native, twin = (hostile_call(base, name, action) for base in both_modules())
        assert twin[-1] == 1, "the place never ran its action"
        if native != twin:
            different.append(action.__name__)
    assert different == []
