"""Objects that answer one question alone, with anything or by an error."""


def anew(error):
    """Return an error like it: one that stays would keep the frames of the day that it ended, and
    put off what their finalizers do."""
    return type(error)(*error.args)


class Converts:
    """Answers to one conversion alone, with the given value or by raising it."""

    def __init__(self, answer):
        self.answer = answer

    def convert(self, *_):
        if isinstance(self.answer, BaseException):
            raise anew(self.answer)
        return self.answer

    def __repr__(self):
        # Without the address, which would differ between two subjects.
        return type(self).__name__


class ByInt(Converts):
    __int__ = Converts.convert


class ByIndex(Converts):
    __index__ = Converts.convert


class ByFloat(Converts):
    __float__ = Converts.convert


class ByTruth(Converts):
    __bool__ = Converts.convert


class ByLength(Converts):
    __len__ = Converts.convert


class ByIteration(Converts):
    __iter__ = Converts.convert


class ByItem(Converts):
    left = 3

    def __getitem__(self, item):
        # Else it would be a sequence without end.
        if not self.left:
            raise IndexError(item)
        self.left -= 1
        return self.convert()


class ByHash(Converts):
    __hash__ = Converts.convert


class ByArray(Converts):
    __array__ = Converts.convert


class ByAttribute:
    """Answers every attribute with the same value, or raises it."""

    def __init__(self, answer):
        self.__dict__["answer"] = answer

    def __repr__(self):
        return type(self).__name__

    def __getattr__(self, name):
        # What copying and freezing ask for is not there.
        if name.startswith("__") or not isinstance(self.answer, BaseException):
            raise AttributeError(name)
        raise anew(self.answer)


ERRORS = [
    lambda: LookupError("odd"),
    lambda: AttributeError("odd"),
    lambda: StopIteration("odd"),
    lambda: OverflowError("odd"),
    lambda: KeyboardInterrupt("odd"),
    lambda: GeneratorExit("odd"),
    lambda: KeyError(),
    lambda: ValueError("odd", 2),
]
CONVERTERS = [
    ByInt,
    ByIndex,
    ByFloat,
    ByTruth,
    ByLength,
    ByIteration,
    ByItem,
    ByHash,
    ByArray,
    ByAttribute,
]
