"""Numbers, and what may be taken for one, that fire when they are asked."""


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


class TruthOf:
    """Something true or false that fires when asked."""

    def __init__(self, trigger, truth):
        self.trigger = trigger
        self.truth = truth

    def __bool__(self):
        self.trigger.fire()
        return self.truth


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


class FiringInt(int):
    """Int that fires when it is converted."""

    trigger = None

    def __int__(self):
        self.trigger.fire()
        return int.__index__(self)
