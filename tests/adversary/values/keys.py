"""Keys that fire when they are hashed, compared or copied."""


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


class Policy(str):
    __slots__ = ("trigger",)

    def __eq__(self, other):
        self.trigger.fire()
        return str.__eq__(self, other)

    __hash__ = str.__hash__


class FiringKey(tuple):
    """Key that fires when it is copied, that is iterated over."""

    trigger = None

    def __iter__(self):
        self.trigger.fire()
        return super().__iter__()
