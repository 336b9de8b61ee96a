"""Containers that fire when they are asked, read or written."""


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


class WatchedMask(list):
    """Mask that fires when it is read."""

    trigger = None

    def __getitem__(self, item):
        self.trigger.fire()
        return super().__getitem__(item)


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


class FiringList(list):
    """List that fires in the one method that `place` names."""

    trigger = None
    place = None

    def __iter__(self):
        if self.place == "iter":
            self.trigger.fire()
        return super().__iter__()

    def __len__(self):
        if self.place == "len":
            self.trigger.fire()
        return super().__len__()


class Entry(dict):
    """Metadata that fires when its keys are asked for."""

    trigger = None

    def keys(self):
        self.trigger.fire()
        return super().keys()

    def __iter__(self):
        return iter(list(super().__iter__()))


class Items(dict):
    """Map that fires when its items are asked for."""

    trigger = None

    def items(self):
        self.trigger.fire()
        return super().items()
