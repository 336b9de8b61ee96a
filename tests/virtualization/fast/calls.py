"""Rotations compared day by day, with overrides that only call super() and without."""

import functools

import numpy as np

from support import frozen
from support.fakes import structure
from support.siblings import Siblings, load_base

ITEMS = [
    structure(("a",), ((0, 1.0), (1, -0.3)), 1.1),
    structure(("b",), ((2, 0.7),), 2.0),
]


def through_super(base, name):
    """Return an override of the method that only calls the one behind it."""

    def only_super(self, *args, **kwargs):
        return getattr(base.VirtualizationBase, name)(self, *args, **kwargs)

    return only_super


def without_overrides(log):
    """Return the log without the overrides' own frames."""
    if not isinstance(log, (list, tuple)):
        return log
    return [without_overrides(part) for part in log if part != "only_super"]


OVERRIDES = ["__call__", "compute", "_make_child_context", "_run_child_chain", "_unmap"]


def same_on_both(scenario, **siblings):
    """Run scenario(base, attributes) on both modules, natively with and without overrides."""

    def log(kind, names):
        base = load_base(kind, Siblings(**{key: make() for key, make in siblings.items()}))
        return scenario(base, {name: through_super(base, name) for name in names})

    expected = log("twin", [])
    assert log("native", []) == expected
    assert without_overrides(log("native", OVERRIDES)) == without_overrides(expected)
    return expected


def a_day(rotation, *inputs, **keywords):
    """Call the rotation; return the outcome and all attributes that are no children."""
    result = frozen.outcome(rotation, *(inputs or (np.ones(6),)), **keywords)
    hidden = {"child_rotations", "child_factories"}
    kept = {name: value for name, value in vars(rotation).items() if name not in hidden}
    return result, frozen.freeze(kept)


BESIDE = {
    "function": lambda self, *args, context: ("mixin", len(args), context),
    "static": staticmethod(lambda *args, context: ("static", len(args), context)),
    "class method": classmethod(lambda cls, *args, context: (cls.__name__, len(args))),
    "partial": functools.partial(lambda *args, context: ("partial", len(args))),
    "property": property(lambda self: lambda *args, context: ("property", self._name)),
    "class": dict,
    "none": None,
}
