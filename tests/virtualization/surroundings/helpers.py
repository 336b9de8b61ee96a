"""A rotation on both modules, and a day of it."""

import numpy as np

from support import frozen
from support.fakes import make_rotation, structure
from support.siblings import Siblings, load_base

ITEMS = [
    structure(("a",), ((0, 1.0), (1, -0.3)), 1.1),
    structure(("b",), ((2, 0.7),), 2.0),
    structure(("c",), ((3, 1.0),), float("nan")),
]


def both(scenario, *arguments, **siblings):
    """Run a scenario on fresh modules of both kinds; assert equal logs and return the log."""
    logs = [
        scenario(load_base(kind, Siblings(**siblings)), *arguments) for kind in ("native", "twin")
    ]
    assert logs[0] == logs[1]
    return logs[0]


def a_day(rotation):
    """Compute one day on six live instruments; return all that came of it."""
    buffer = np.full(6, 77.0)
    result = frozen.outcome(compute, rotation, buffer)
    attributes = {name: value for name, value in vars(rotation).items() if not callable(value)}
    return result, frozen.freeze(buffer), frozen.freeze(attributes)


def compute(rotation, buffer):
    clear = np.zeros(6, dtype=np.uint8)
    return rotation.compute((np.zeros(6),), (clear,), clear, buffer, 6)


def steady(base, **constructor):
    """Make a rotation that reports ITEMS every day."""
    return make_rotation(base, [ITEMS] * 20, **constructor)


class OtherNumpy:
    """NumPy with some functions replaced; `read` lists every name that was asked for."""

    def __init__(self, **replaced):
        self.replaced = replaced
        self.read = []

    def __getattr__(self, name):
        self.read.append(name)
        return self.replaced[name] if name in self.replaced else getattr(np, name)


class Acting:
    """Number that acts when it is read: in the middle of a day."""

    def __init__(self, act):
        self.act = act

    def __float__(self):
        self.act()
        return 3.0


def made(log, maker, names):
    for name in names:
        log.append(f"make {name}")
        yield maker(log, name)
