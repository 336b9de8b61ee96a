"""Numbers, keys and masks that note how they are asked, and steps on a fresh rotation."""

import collections


class PlainInt(int):
    pass


class Key(tuple):
    __slots__ = ()


NamedKey = collections.namedtuple("NamedKey", "left right")


class Logged:
    """Value of any role that writes each use into a shared list."""

    def __init__(self, log, label, iterates=()):
        self.log, self.label, self.iterates = log, label, iterates

    def __int__(self):
        self.log.append(f"int {self.label}")
        return 0

    def __float__(self):
        self.log.append(f"float {self.label}")
        return 0.0

    def __bool__(self):
        self.log.append(f"bool {self.label}")
        return True

    def __iter__(self):
        self.log.append(f"iter {self.label}")
        return iter(self.iterates)
