"""Objects that run code of the test's choice when the interpreter asks them something."""

import numpy as np


class Trigger:
    """One-shot: `fire()` runs the action the first time after it was armed."""

    def __init__(self):
        self.action = None
        self.fired = 0

    def fire(self):
        action, self.action = self.action, None
        if action is not None:
            self.fired += 1
            action()


class Number:
    """Converts by int() and float(), firing first."""

    def __init__(self, trigger, number):
        self.trigger = trigger
        self.number = number

    def __int__(self):
        self.trigger.fire()
        return int(self.number)

    def __float__(self):
        self.trigger.fire()
        return float(self.number)


class Parts:
    """Iterable that fires before and between its parts, and as a mapping when asked for keys."""

    def __init__(self, trigger, parts, *, late=False):
        self.trigger = trigger
        self.parts = parts
        self.late = late

    def __iter__(self):
        for position, part in enumerate(self.parts):
            if not self.late or position:
                self.trigger.fire()
            yield part


class Mapping:
    """Mapping that is no dict, and fires when asked for its keys or, if late, for a value."""

    def __init__(self, trigger, *, late=False):
        self.trigger = trigger
        self.late = late

    def keys(self):
        if not self.late:
            self.trigger.fire()
        return ["note"]

    def __getitem__(self, key):
        if self.late:
            self.trigger.fire()
        return 1


class TruthOf:
    """Something true or false that fires when asked."""

    def __init__(self, trigger, truth):
        self.trigger = trigger
        self.truth = truth

    def __bool__(self):
        self.trigger.fire()
        return self.truth


class Hashed:
    """Part of a key: fires when hashed or compared, and is equal to its like or to nothing."""

    def __init__(self, trigger, place, *, equal=True):
        self.trigger = trigger
        self.place = place
        self.equal = equal

    def __hash__(self):
        if self.place == "hash":
            self.trigger.fire()
        return hash("a")

    def __eq__(self, other):
        if self.place == "eq":
            self.trigger.fire()
        return self.equal and isinstance(other, Hashed)


class LikeName:
    """Has the hash of a name, and fires when compared with it, to which it is not equal."""

    def __init__(self, trigger, name):
        self.trigger = trigger
        self.name = name

    def __hash__(self):
        return hash(self.name)

    def __eq__(self, other):
        self.trigger.fire()
        return False


class Comparing(int):
    """Int that fires when it is compared."""

    trigger = None

    def __lt__(self, other):
        self.trigger.fire()
        return int(self) < other

    def __le__(self, other):
        self.trigger.fire()
        return int(self) <= other

    def __ge__(self, other):
        self.trigger.fire()
        return int(self) >= other

    def __gt__(self, other):
        self.trigger.fire()
        return int(self) > other


class Deleted:
    """Fires when it is thrown away."""

    def __init__(self, trigger):
        self.trigger = trigger

    def __del__(self):
        self.trigger.fire()


class Weight:
    """Weight that fires when it is compared or multiplied."""

    __array_ufunc__ = None

    def __init__(self, trigger):
        self.trigger = trigger

    def __ge__(self, other):
        self.trigger.fire()
        return False

    def __rmul__(self, value):
        self.trigger.fire()
        return value * 2.0


class Policy(str):
    __slots__ = ("trigger",)

    def __eq__(self, other):
        self.trigger.fire()
        return str.__eq__(self, other)

    __hash__ = str.__hash__


class WatchedArray(np.ndarray):
    """Array that fires when it is filled, written or read at an integer index."""

    trigger = None

    def fill(self, value):
        super().fill(value)
        self.trigger.fire()

    def __setitem__(self, item, value):
        super().__setitem__(item, value)
        self.trigger.fire()


class WatchedView(np.ndarray):
    """Array that fires when it is sliced."""

    trigger = None

    def __getitem__(self, item):
        if self.trigger is not None:
            self.trigger.fire()
        return super().__getitem__(item)


class WatchedMask(list):
    """Mask that fires when it is read."""

    trigger = None

    def __getitem__(self, item):
        self.trigger.fire()
        return super().__getitem__(item)


class WatchedTable(dict):
    """Legs table that fires when it is written, or read with get."""

    trigger = None
    place = None

    def __setitem__(self, slot, legs):
        super().__setitem__(slot, legs)
        if self.place == "set":
            self.trigger.fire()

    def get(self, slot, default=None):
        if self.place == "get":
            self.trigger.fire()
        return super().get(slot, default)


class WatchedMap(dict):
    """Slot map that fires in the one method that `place` names."""

    trigger = None
    place = None

    def _watch(self, place):
        if self.place == place:
            self.trigger.fire()

    def __contains__(self, key):
        self._watch("contains")
        return super().__contains__(key)

    def __getitem__(self, key):
        self._watch("getitem")
        return super().__getitem__(key)

    def __setitem__(self, key, slot):
        super().__setitem__(key, slot)
        self._watch("setitem")

    def __len__(self):
        self._watch("len")
        return super().__len__()

    def __iter__(self):
        self._watch("iter")
        return super().__iter__()

    def keys(self):
        self._watch("keys")
        return super().keys()


class WatchedItems(list):
    """Reported items that fire when asked whether there are any."""

    trigger = None

    def __bool__(self):
        self.trigger.fire()
        return len(self) > 0


class MeasuredItems(list):
    """The same, asked for their number."""

    trigger = None

    def __len__(self):
        self.trigger.fire()
        return super().__len__()


class WatchedList(list):
    """Metadata list that fires when an entry is replaced."""

    trigger = None

    def __setitem__(self, slot, entry):
        super().__setitem__(slot, entry)
        self.trigger.fire()


class WatchedEntry(dict):
    trigger = None

    def clear(self):
        self.trigger.fire()
        super().clear()


def watched(kind, trigger, *args, **attributes):
    """Make an instance of a watching container."""
    container = np.array(*args).view(kind) if issubclass(kind, np.ndarray) else kind(*args)
    container.trigger = trigger
    for name, value in attributes.items():
        setattr(container, name, value)
    return container


def firing(trigger, **answers):
    """Make an object whose special methods fire before they answer.

    An answer that can be called is asked with the method's own arguments.
    """

    def method(answer):
        def answering(self, *args, **kwargs):
            trigger.fire()
            return answer(*args, **kwargs) if callable(answer) else answer

        return answering

    methods = {name: method(answer) for name, answer in answers.items()}
    # Shown without the address, which would differ between the modules.
    return type("Firing", (), {"__repr__": lambda self: "Firing", **methods})()
