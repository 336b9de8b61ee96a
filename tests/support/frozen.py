"""Anything that a test may look at, frozen to the bit: equal only when nothing tells two apart."""

import collections
import functools
import struct
import types
import warnings

import numpy as np

BUILTIN_COLLECTIONS = (list, tuple, set, collections.deque)
SAID_BY_NAME = (type, types.FunctionType, types.MethodType, functools.partial)
# Nothing else freezes to one of these; a float freezes to its bits, anything else to a tuple.
AS_THEY_ARE = frozenset({str, int, type(None)})
FLOAT_BITS = struct.Struct("<d").pack


def freeze(value, seen=None):
    """Return nested tuples of `value`'s types, bits, orders and sharing of mutable parts.

    Classes count by their name, since each module has its own; the same mutable object met again
    freezes to its first position, so copies and shared objects differ.
    """
    return FREEZERS.get(type(value), _freeze_other)(value, {} if seen is None else seen)


# Half the time of a test of many days goes here. So a part's function is found in a table by its
# exact class, and what needs none (names, numbers, keys, legs) is told apart where it is met.


def _freeze_parts(parts, seen):
    frozen = []
    add = frozen.append
    for part in parts:
        cls = type(part)
        if cls in AS_THEY_ARE:
            add(part)
        elif cls is float:
            add(FLOAT_BITS(part))
        elif cls is bool:
            add(TRUE if part else FALSE)
        else:
            add(FREEZERS.get(cls, _freeze_other)(part, seen))
    return frozen


def _freeze_entries(mapping, seen):
    frozen = []
    add = frozen.append
    for key, part in dict.items(mapping):
        add(key if type(key) in AS_THEY_ARE else freeze(key, seen))
        cls = type(part)
        if cls in AS_THEY_ARE:
            add(part)
        elif cls is float:
            add(FLOAT_BITS(part))
        elif cls is bool:
            add(TRUE if part else FALSE)
        else:
            add(FREEZERS.get(cls, _freeze_other)(part, seen))
    return frozen


def _freeze_tuple(value, seen):
    if len(value) == 2:
        first, second = value
        if type(first) is int and type(second) is float:
            return ("tuple", first, FLOAT_BITS(second))
    elif len(value) == 1 and type(value[0]) is str:
        return ("tuple", value[0])
    return ("tuple", *_freeze_parts(value, seen))


def _once(kind, parts):
    """Freezes an object by its parts where it is met first, and after that by where that was."""

    def freeze_once(value, seen):
        place = id(value)
        if place in seen:
            return ("again", seen[place][0])
        # The value is kept beside its position, lest a new object get the address of a dead one.
        seen[place] = (len(seen), value)
        return (kind, *parts(value, seen))

    return freeze_once


def _freeze_scalar(value, seen):
    return (type(value).__name__, _dtype(value), _bits(value))


def _freeze_by_value(value, seen):
    return (type(value).__name__, value)


def _freeze_by_name(value, seen):
    return (type(value).__name__, getattr(value, "__name__", "?"))


def _freeze_slice(value, seen):
    return ("slice", *_freeze_parts((value.start, value.stop, value.step), seen))


def _freeze_in_order(value, seen):
    return (type(value).__name__, *_freeze_parts(value, seen))


def _array_parts(value, seen):
    dtype = _dtype(value)
    content = freeze(value.tolist(), seen) if dtype == "|O" else _bits(value)
    return (dtype, value.shape, value.strides, value.flags.writeable, content)


# What NumPy takes ten times as long to say.
DTYPES = {np.dtype(char): np.dtype(char).str for char in "?bBhHiIlLefdFDO"}


def _dtype(value):
    return DTYPES.get(value.dtype) or value.dtype.str


def _bits(value):
    # A long double has bytes that are none of its bits, with anything in them.
    return repr(value) if value.dtype.char in "gG" else value.tobytes()


TRUE, FALSE = _freeze_by_value(True, None), _freeze_by_value(False, None)
FREEZERS = {
    **dict.fromkeys(AS_THEY_ARE, lambda value, seen: value),
    float: lambda value, seen: FLOAT_BITS(value),
    **dict.fromkeys([bool, bytes, type(Ellipsis)], _freeze_by_value),
    tuple: _freeze_tuple,
    list: _once("list", _freeze_parts),
    dict: _once("dict", _freeze_entries),
    np.ndarray: _once("ndarray", _array_parts),
    **dict.fromkeys(SAID_BY_NAME, _freeze_by_name),
    slice: _freeze_slice,
    **dict.fromkeys([range, frozenset], _freeze_in_order),
}


def _freeze_other(value, seen):
    # By its class and not by `isinstance`, which asks the value, and values may lie.
    cls = type(value)
    if issubclass(cls, np.generic):
        return _freeze_scalar(value, seen)
    if issubclass(cls, SAID_BY_NAME):
        return _freeze_by_name(value, seen)
    return _once(cls.__name__, _other_parts)(value, seen)


def _other_parts(value, seen):
    cls = type(value)
    if issubclass(cls, np.ndarray):
        return _array_parts(value, seen)
    if issubclass(cls, BaseException):
        return freeze_error(value, seen)
    parts = []
    if issubclass(cls, dict):
        parts = _freeze_entries(value, seen)
    elif issubclass(cls, BUILTIN_COLLECTIONS):
        iterate = next(base for base in cls.__mro__ if base in BUILTIN_COLLECTIONS).__iter__
        parts = _freeze_parts(iterate(value), seen)
    elif issubclass(cls, (int, float, str)):
        parts = [repr(value)]
    return (*parts, tuple(_freeze_entries(dict(getattr(value, "__dict__", {})), seen)))


def freeze_error(error, seen=None):
    """Return an exception's type, arguments, notes, cause and context, as nested tuples."""
    if error is None:
        return None
    seen = {} if seen is None else seen
    return (
        type(error).__name__,
        freeze(error.args, seen),
        freeze(getattr(error, "__notes__", None), seen),
        freeze(error.__cause__, seen),
        freeze(error.__context__, seen),
        error.__suppress_context__,
    )


def outcome(call, *args, **kwargs):
    """Call and return ("returned", frozen result) or ("raised", frozen exception, frames).

    What the call warned of comes last: NumPy tells of an overflow, compiled sums must do so too.
    """
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always")
        try:
            result = ("returned", freeze(call(*args, **kwargs)))
        except BaseException as error:
            result = ("raised", freeze_error(error), callers_frames(error))
    return (*result, tuple((warning.category.__name__, str(warning.message)) for warning in caught))


def callers_frames(error):
    """Return the names of the traceback's functions that belong to no module under test."""
    names = []
    traceback = error.__traceback__
    while traceback is not None:
        code = traceback.tb_frame.f_code
        if not code.co_filename.endswith("twin.py"):
            names.append(code.co_name)
        traceback = traceback.tb_next
    return tuple(names)
