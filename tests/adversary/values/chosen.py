"""Values chosen by a random generator.

Everything is made anew on every call, so that two subjects never share an object.
"""

import collections

import numpy as np

from adversary.values.answers import CONVERTERS, ERRORS
from adversary.values.items import OwnGet, Pairing, SubDict
from adversary.values.odd_containers import BYTES, CONTAINERS, TEXTS
from adversary.values.odd_numbers import FLOATS, INTEGERS, NEIGHBOURS, NUMBERS, Int


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
