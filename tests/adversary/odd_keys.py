"""Keys with the hash of a name, and what may happen while they are compared.

A key that is no string but has the hash of an attribute's or a global's name is compared in every
lookup of that name. Scripts for interpreters of their own import all of this.
"""

import contextlib
import gc

import numpy as np

from support.fakes import make_rotation


class Odd:
    """Key with the hash of a name and equal to nothing; counts down to its action, if any."""

    left = -1
    action = None

    def __init__(self, name):
        self.name = name

    def __hash__(self):
        return hash(self.name)

    def __eq__(self, other):
        Odd.left -= 1
        if Odd.left == 0:
            Odd.action()
        return False


class Same(str):
    """Key of a class of its own that is equal to the plain name."""

    __slots__ = ()

    def __eq__(self, other):
        return str.__eq__(self, other)

    __hash__ = str.__hash__


def put_before(dictionary, name):
    """Put an odd key where the lookup of the name meets it first."""
    first = {name: dictionary.pop(name)} if name in dictionary else {}
    entries = dict(dictionary)
    dictionary.clear()
    dictionary.update({Odd(name): "odd", **first, **entries})


def respell(dictionary, name):
    """Put the name under an equal key of another class."""
    entries = dict(dictionary)
    dictionary.clear()
    dictionary.update((Same(key) if key == name else key, entries[key]) for key in entries)


ITEMS = [
    {"key": (name,), "legs": ((leg, 1.0), (leg + 1, -2.0)), "value": 1.0 + leg}
    for leg, name in enumerate("abc")
]


def prepared(base):
    rotation = make_rotation(base, [ITEMS] * 100, trace_sink=[])
    for _ in range(2):
        rotation(np.ones(6))
    return rotation


def day(rotation):
    rotation(np.ones(6))


def compute(rotation):
    clear = np.zeros(6, dtype=np.uint8)
    rotation.compute((clear,), (clear,), clear, np.zeros(6), 6)


def unmap(rotation):
    rotation._unmap(np.ones(4), np.zeros(6), 6)


def survive(rotation, count, act, calls=(day, compute, unmap)):
    """Make the calls; the action comes at the count-th comparison."""
    Odd.action = staticmethod(act)
    Odd.left = count
    for call in calls:
        with contextlib.suppress(AttributeError, ValueError, TypeError, LookupError, RuntimeError):
            call(rotation)
    Odd.left = -1


def shrink(array):
    if isinstance(array, np.ndarray):
        array.resize(10**5, refcheck=False)
        array.resize(0, refcheck=False)


def lose_tables(rotation):
    for name in ["slot_by_key", "key_by_slot", "_legs_by_slot", "_metadata_by_slot"]:
        vars(rotation)[name] = None
    churn()


def clear_tables(rotation):
    for name in ["slot_by_key", "key_by_slot", "_legs_by_slot", "_metadata_by_slot"]:
        vars(rotation).get(name, []).clear()
    churn()


def shrink_rows(rotation):
    # Not the masks: a day works on views of those, which nobody can resize under.
    for name in ["_txi_input", "_txi_output", "_txi_universe_row", "_output_buf"]:
        shrink(vars(rotation).get(name))
    churn()


def lose_everything(rotation):
    vars(rotation).clear()
    churn()


def compute_again(rotation):
    rotation(np.ones(6))


def churn():
    gc.collect()
    [[bytearray(200) for _ in range(50)], [{} for _ in range(50)], np.ones(4)]


ACTIONS = [lose_tables, clear_tables, shrink_rows, lose_everything, compute_again]
