"""Items in all the forms in which a hook may report them, and all the ways of handing them over."""

import collections
import copy
import types

import numpy as np


class Thing:
    """Plain object as an item: it has just the attributes that it is given."""

    def __init__(self, **attributes):
        self.__dict__.update(attributes)


class SubDict(dict):
    """Dict with nothing of its own."""


class OwnGet(dict):
    """Dict that answers `get` in its own way, and subscription in the plain one."""

    def get(self, key, default=None):
        if key == "value":
            return 0.5
        return super().get(key, default)


class Pairing:
    """Mapping that is no dict, as metadata."""

    def __init__(self, entries):
        self.entries = entries

    def keys(self):
        return list(self.entries)

    def __getitem__(self, key):
        return self.entries[key]


def build_item(base, spec):
    """Build one raw item from its plain description (form, fields)."""
    form, fields = spec
    return form_item(
        base, form, {name: build_value(value) for name, value in copy.deepcopy(fields).items()}
    )


def form_item(base, form, fields):
    """Put the fields of an item into one of the forms that an item may have."""
    if form == "record":
        fields = {"key": (), "legs": (), "value": 0.0, "metadata": None, **fields}
        return base.VirtualStructure(**fields)
    makers = {
        "dict": dict,
        "ordered": collections.OrderedDict,
        "subclass": SubDict,
        "own get": OwnGet,
        "object": lambda entries: Thing(**entries),
        "namespace": lambda entries: types.SimpleNamespace(**entries),
        "raw": lambda entries: entries["key"],
    }
    return makers[form](fields)


def build_value(value):
    """Turn the marks ("iter", parts), ("generator", parts) and ("pairing", dict) into objects."""
    if type(value) is not tuple or not value or not isinstance(value[0], str):
        return value
    mark, *parts = value
    if mark == "iter":
        return iter(parts[0])
    if mark == "generator":
        return (part for part in parts[0])
    if mark == "pairing":
        return Pairing(parts[0])
    if mark == "array":
        return np.array(parts[0])
    return value


def deliver(items, way):
    """Hand the list of items over in one of the ways in which a hook may report them."""
    ways = {
        "list": list,
        "tuple": tuple,
        "iterator": iter,
        "deque": collections.deque,
        "values": lambda parts: dict(enumerate(parts)).values(),
        "generator": lambda parts: (part for part in parts),
    }
    return ways[way](items)
