"""Values at the limits of what is allowed and beyond them, chosen by a random generator.

Everything is made anew on every call, so that two subjects never share an object.
"""

import collections
import types
from decimal import Decimal
from fractions import Fraction

import numpy as np

from support.days import OwnGet, Pairing, SubDict

NAN = float("nan")
INF = float("inf")


class Int(int):
    """Int of another class."""


class Float(float):
    """Float of another class."""


class Key(tuple):
    """Tuple of another class."""

    __slots__ = ()


class OtherInt(int):
    """Int whose conversions and comparisons are not those of its value."""

    def __int__(self):
        return 2

    def __index__(self):
        return 1

    def __float__(self):
        return 0.5

    def __lt__(self, other):
        return False

    __ge__ = __gt__ = __le__ = __lt__

    def __eq__(self, other):
        return True

    def __hash__(self):
        return 0


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

INTEGERS = [0, 1, 2, 3, 4, 5, 6, 7, -1, -2, -7, 255, 256, 2**31 - 1, 2**31, 2**32, -(2**31) - 1]
INTEGERS += [2**53 + 1, 2**62, 2**63 - 1, 2**63, -(2**63), -(2**63) - 1, 2**64, 2**1023, 10**400]
FLOATS = [
    0.0,
    -0.0,
    1.0,
    -1.0,
    0.5,
    2.9,
    -0.5,
    1e308,
    -1e308,
    5e-324,
    2.0**63,
    NAN,
    -NAN,
    INF,
    -INF,
]
NUMBERS = [
    lambda: True,
    lambda: False,
    lambda: None,
    lambda: 1j,
    lambda: Int(2),
    lambda: OtherInt(3),
    lambda: Float(0.25),
    lambda: Decimal("2.5"),
    lambda: Decimal("sNaN"),
    lambda: Fraction(7, 2),
    lambda: np.int64(1),
    lambda: np.int8(-1),
    lambda: np.uint8(5),
    lambda: np.uint64(2**64 - 1),
    lambda: np.float32(0.1),
    lambda: np.float16(2.5),
    lambda: np.float64(3.7),
    lambda: np.longdouble(2.5),
    lambda: np.bool_(True),
    lambda: np.complex128(1.0),
    lambda: np.datetime64("2020-01-01"),
    lambda: np.array(2),
    lambda: np.array([1.5]),
    lambda: np.array("3"),
    lambda: np.str_("3"),
]
TEXTS = ["", "0", "3", " 4\n", "1_0", "٣", "0x3", "2.9", "1e3", "nan", "-inf", "x", "ab", "a\0b"]
TEXTS += ["\ud800", "é", "key", "legs", "value", "metadata", "active", "9" * 400, "9" * 5000]
BYTES = [b"", b"2", b"ab", b"\x00\xff"]
CONTAINERS = [
    tuple,
    list,
    collections.deque,
    iter,
    Key,
    lambda parts: (part for part in parts),
    lambda parts: dict.fromkeys(range(len(parts)), 0),
    lambda parts: dict(enumerate(parts)).values(),
    lambda parts: types.MappingProxyType(dict(enumerate(parts))),
    lambda parts: np.array(parts, dtype=object),
]


def pick(random, options):
    """Return one of a sequence's entries."""
    return options[int(random.random() * len(options))]


def chance(random, probability):
    """Whether something of this probability happens."""
    return random.random() < probability


def number(random):
    """Any number, or what may be taken for one."""
    draw = random.random()
    if draw < 0.35:
        return pick(random, INTEGERS)
    if draw < 0.6:
        return pick(random, FLOATS)
    if draw < 0.85:
        return pick(random, NUMBERS)()
    if draw < 0.92:
        return pick(random, TEXTS)
    return converter(random)


def converter(random):
    """Object that answers one question with anything, an error included."""
    kind = pick(random, CONVERTERS)
    if chance(random, 0.4):
        return kind(pick(random, ERRORS)())
    answers = [1, 2.5, True, None, "3", Int(4), -1, 2**70, [1, 2], iter([(0, 1.0)]), np.arange(4.0)]
    return kind(pick(random, answers))


def anything(random, depth=2):
    """Any value at all, in containers nested up to `depth` deep."""
    draw = random.random()
    if draw < 0.4:
        return number(random)
    if draw < 0.5:
        return pick(random, TEXTS)
    if draw < 0.55:
        return pick(random, BYTES)
    if draw < 0.62:
        return converter(random)
    if draw < 0.66:
        return pick(random, [object, Ellipsis, NotImplemented, slice(1), range(3), type])
    if depth == 0:
        return ()
    if draw < 0.9:
        return container(random, [anything(random, depth - 1) for _ in range(length(random))])
    return mapping(random, depth)


def length(random):
    """Length of a container: mostly short, now and then odd."""
    return pick(random, [0, 1, 1, 2, 2, 2, 3, 5])


def container(random, parts):
    """Put the parts into a container of one of many kinds."""
    try:
        return pick(random, CONTAINERS)(parts)
    except BaseException:
        # NumPy looks into the parts, some of which raise then.
        return parts


def mapping(random, depth):
    """Dict, or what may pass for one, of anything that can be hashed."""
    entries = {}
    for _ in range(length(random)):
        try:
            entries[anything(random, 1)] = anything(random, depth - 1)
        except BaseException:
            continue
    kinds = [dict, dict, collections.OrderedDict, SubDict, Pairing, collections.UserDict]
    return pick(random, kinds)(entries)


def mutated(random, value, make=anything):
    """Return the value with one of its parts, found at random depth, changed.

    Tuples, lists and dicts are gone into; they are made anew on the way, so `value` stays as it is.
    """
    inner = type(value) in (tuple, list, dict) and len(value)
    if not inner or chance(random, 0.25):
        return replaced(random, value, make)
    if type(value) is dict:
        return mutated_entries(random, value, make)
    parts = list(value)
    place = int(random.random() * len(parts))
    parts[place] = mutated(random, parts[place], make)
    return type(value)(parts)


def mutated_entries(random, value, make):
    entries = list(value.items())
    place = int(random.random() * len(entries))
    key, entry = entries[place]
    draw = random.random()
    if draw < 0.1:
        del entries[place]
    elif draw < 0.25:
        entries[place] = (mutated(random, key, make), entry)
    else:
        entries[place] = (key, mutated(random, entry, make))
    try:
        return dict(entries)
    except BaseException:
        # The new key cannot be hashed.
        return value


def replaced(random, value, make):
    """Return something else in the value's place, often something like it."""
    draw = random.random()
    if type(value) in (tuple, list) and draw < 0.5:
        parts = list(value)
        if draw < 0.1:
            return container(random, parts)
        if draw < 0.2:
            return type(value)(parts[:-1])
        if draw < 0.3:
            return type(value)([*parts, make(random)])
        if draw < 0.4:
            return type(value)(parts * 2)
        return (list if type(value) is tuple else tuple)(reversed(parts))
    if type(value) is dict and draw < 0.4:
        # No OrderedDict: a key that empties it while it is iterated takes the interpreter down.
        return pick(random, [SubDict, OwnGet, dict, list])(value)
    if draw < 0.7 and type(value) in (int, float):
        return pick(random, NEIGHBOURS)(value)
    return make(random)


NEIGHBOURS = [
    lambda number: number + 1,
    lambda number: number - 1,
    lambda number: number * 2,
    lambda number: -number,
    str,
    Decimal,
]
