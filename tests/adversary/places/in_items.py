"""Places in an item of a day where the user's code can run: each makes an item that fires."""

import sys

from adversary.values.containers import Mapping, Parts
from adversary.values.keys import Hashed, LikeName
from adversary.values.numbers import Number, TruthOf
from adversary.values.triggers import firing, watched

LEGS = ((1, 0.5), (2, -1.0))


def item_with(trigger, **fields):
    return {"key": ("b",), "legs": LEGS, "value": 2.0, **fields}


def item_with_property(trigger, name):
    """Make an item that is an object, one attribute of which fires."""
    fields = {"key": ("b",), "legs": LEGS, "value": 2.0, "metadata": {"note": 1}}
    result = fields.pop(name)

    def read(self):
        trigger.fire()
        return result

    return type("Item", (), {**fields, name: property(read)})()


class WatchedItem(dict):
    """Dict item that fires when it is read."""

    trigger = None

    def __getitem__(self, name):
        self.trigger.fire()
        return super().__getitem__(name)

    def get(self, name, default=None):
        self.trigger.fire()
        return super().get(name, default)


class MissingEntry(dict):
    """Dict item that fires when an entry is missing, and makes it up."""

    trigger = None

    def __missing__(self, name):
        self.trigger.fire()
        return LEGS


class FreshLegs:
    """Legs whose legs are made when they are asked for, and fire when they are dropped."""

    def __init__(self, trigger):
        self.trigger = trigger

    def __iter__(self):
        trigger = self.trigger

        class Leg(list):
            def __del__(self):
                trigger.fire()

        return (Leg(leg) for leg in LEGS)


ITEM_PLACES = {
    "key attribute": lambda trigger: item_with_property(trigger, "key"),
    "legs attribute": lambda trigger: item_with_property(trigger, "legs"),
    "value attribute": lambda trigger: item_with_property(trigger, "value"),
    "metadata attribute": lambda trigger: item_with_property(trigger, "metadata"),
    "dict access": lambda trigger: watched(WatchedItem, trigger, item_with(trigger)),
    "key iteration": lambda trigger: item_with(trigger, key=Parts(trigger, ["b"])),
    "key hash": lambda trigger: item_with(trigger, key=[Hashed(trigger, "hash")]),
    "key comparison": lambda trigger: item_with(trigger, key=(Hashed(trigger, "eq"),)),
    "key comparison with another": lambda trigger: item_with(
        trigger, key=(Hashed(trigger, "eq", equal=False),)
    ),
    "legs iteration": lambda trigger: item_with(trigger, legs=Parts(trigger, LEGS, late=True)),
    "leg unpacking": lambda trigger: item_with(trigger, legs=[(0, 1.0), Parts(trigger, (1, 0.5))]),
    "leg id": lambda trigger: item_with(trigger, legs=[(0, 1.0), (Number(trigger, 1), 0.5)]),
    "weight": lambda trigger: item_with(trigger, legs=((1, Number(trigger, 0.5)), (2, 1.0))),
    "metadata truth": lambda trigger: item_with(trigger, metadata=TruthOf(trigger, False)),
    "metadata keys": lambda trigger: item_with(trigger, metadata=Mapping(trigger)),
    "value": lambda trigger: item_with(trigger, value=Number(trigger, 2.0)),
    "attribute lookup": lambda trigger: firing(
        trigger, __getattr__={**item_with(trigger), "metadata": None}.__getitem__
    ),
    "entry comparison": lambda trigger: {LikeName(trigger, "legs"): 0, **item_with(trigger)},
    "missing entry": lambda trigger: watched(MissingEntry, trigger, {"key": ("b",), "value": 2.0}),
    "key item": lambda trigger: item_with(
        trigger, key=firing(trigger, __getitem__=("b",).__getitem__)
    ),
    "legs item": lambda trigger: item_with(
        trigger, legs=firing(trigger, __getitem__=LEGS.__getitem__)
    ),
    "leg item": lambda trigger: item_with(
        trigger, legs=[(0, 1.0), firing(trigger, __getitem__=(1, 0.5).__getitem__), (2, 1.0)]
    ),
    "leg id index": lambda trigger: item_with(
        trigger, legs=[(0, 1.0), (firing(trigger, __index__=1), 0.5), (2, 1.0)]
    ),
    "weight index": lambda trigger: item_with(
        trigger, legs=((1, firing(trigger, __index__=2)), (2, 1.0))
    ),
    "value index": lambda trigger: item_with(trigger, value=firing(trigger, __index__=2)),
    "leg deletion": lambda trigger: item_with(trigger, legs=FreshLegs(trigger)),
    "metadata length": lambda trigger: item_with(trigger, metadata=firing(trigger, __len__=0)),
    "metadata pairs": lambda trigger: item_with(
        trigger, metadata=firing(trigger, __iter__=lambda: iter([("note", 1)]))
    ),
    "metadata pair": lambda trigger: item_with(
        trigger, metadata=[("a", 1), Parts(trigger, ("note", 1)), ("b", 2)]
    ),
    "metadata keys lookup": lambda trigger: item_with(
        trigger, metadata=firing(trigger, __getattr__=lambda name: list)
    ),
    "metadata value": lambda trigger: item_with(trigger, metadata=Mapping(trigger, late=True)),
    "metadata key hash": lambda trigger: item_with(
        trigger, metadata=[("a", 1), (Hashed(trigger, "hash"), 2)]
    ),
    "metadata key comparison": lambda trigger: item_with(
        trigger, metadata={LikeName(trigger, "key"): 1}
    ),
    "slot entry comparison": lambda trigger: item_with(
        trigger, metadata={LikeName(trigger, "slot"): 1}
    ),
    "active entry comparison": lambda trigger: item_with(
        trigger, metadata={LikeName(trigger, "active"): 1}
    ),
}
if sys.version_info < (3, 14):  # later tuples remember their hash
    ITEM_PLACES["key hash of a tuple"] = lambda trigger: item_with(
        trigger, key=(Hashed(trigger, "hash"),)
    )
