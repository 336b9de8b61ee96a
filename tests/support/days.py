"""Random days, to be played on the native module and on its twin alike.

A scenario is plain data. `run_days` plays it on one module and returns a log of everything that
can be observed; the logs of two modules must be equal.
"""

import copy

import numpy as np

from adversary.actions.between_days import CHANGES_BY_NAME
from adversary.values.children import build_child
from adversary.values.items import Thing, build_item, deliver
from support.frozen import freeze
from support.player import Player

STEPS = [
    "_refresh_active_structures",
    "_normalize_structure",
    "_slot_for_key",
    "_structure_is_valid",
    "_make_child_context",
    "_run_child_chain",
    "_unmap",
    "_record_trace",
    "compute",
]

# Rotations, with steps overridden by methods that only call super()


def day_rotation_class(base, *, overridden=(), log=None, **attributes):
    """Make a concrete subclass whose hook returns `self.items`, called when it is callable."""

    def _refresh_active_structures(self, *args):
        return self.items(*args) if callable(self.items) else self.items

    body = {"_refresh_active_structures": _refresh_active_structures, "items": (), **attributes}
    hooked = type(base.VirtualizationBase)("Days", (base.VirtualizationBase,), body)
    if not overridden:
        return hooked
    passing = type(hooked)("Overridden", (hooked,), {})
    for name in overridden:
        setattr(passing, name, passing_method(name, passing, log))
    return passing


def passing_method(name, owner, log=None):
    """Make a method of the class `owner` that does nothing but note its call and call super()."""

    def method(self, *args, **kwargs):
        if log is not None:
            log.append((name, freeze(args), freeze(kwargs)))
        return getattr(super(owner, self), name)(*args, **kwargs)

    return method


def override_on_instance(rotation, names, log=None):
    """Set instance attributes that note their call and return what the class's method returns."""
    for name in names:

        def passing(*args, _name=name, **kwargs):
            if log is not None:
                log.append((_name, freeze(args), freeze(kwargs)))
            return getattr(type(rotation), _name)(rotation, *args, **kwargs)

        setattr(rotation, name, passing)


# Playing a scenario


def build_rotation(base, scenario, *, on_class=(), log=None):
    """Build the rotation that the scenario describes, with steps overridden on its class."""
    capacity = scenario["max_structures"]
    cls = day_rotation_class(base, overridden=on_class, log=log)
    rotation = cls(
        max_structures=capacity,
        N_alloc=scenario.get("N_alloc", 6),
        transformation_expression=scenario.get("expression", "none"),
        unmap_policy=scenario["policy"],
        child_rotations=[build_child(kind, capacity) for kind in scenario["children"]],
        trace_sink=[] if scenario["trace"] else None,
    )
    if scenario["skip_on_empty"]:
        rotation._call_child_on_empty = False
    return rotation


def run_days(base, scenario, *, on_class=(), on_instance=(), with_calls=True):
    """Play the scenario and return the log: every day's outcome and all attributes after it."""
    calls = [] if with_calls else None
    rotation = build_rotation(base, scenario, on_class=on_class, log=calls)
    override_on_instance(rotation, on_instance, calls)
    player = Player(rotation, seen=lambda rotation: visible_attributes(rotation, on_instance))
    for day in scenario["days"]:
        if day["change"] is not None:
            player.act(CHANGES_BY_NAME[day["change"]], rotation)
        items = [build_item(base, spec) for spec in day["items"]]
        rotation.items = deliver(items, day["delivery"])
        one_day(player, day)
        player.look()
        player.log.append(freeze(items))
    return player.log + (calls or [])


def one_day(player, day):
    """Run one day: through the call, or compute directly on masks of one's own."""
    if day["masks"] is None:
        context = None if day["context"] is None else Thing(**day["context"])
        player.call(*[np.array(values) for values in day["inputs"]], context=context)
    else:
        masks, combined, N, size = copy.deepcopy(day["masks"])
        player.compute((None,), masks, combined, np.full(size, 77.0), N)


def visible_attributes(rotation, overridden=()):
    """Return the instance's attributes, in order, without the overrides that a test has set."""
    return {name: value for name, value in vars(rotation).items() if name not in overridden}
