"""Rotations on the package's real siblings, which the safety tests work on, and their inputs."""

import copy
import functools

import numpy as np

from quorvane.functions.rotations._boilerplate import RotationBase
from quorvane.functions.rotations.latitudinal.normalize import ZScore
from quorvane.functions.rotations.latitudinal.rank import Rank
from quorvane.functions.rotations.longitudinal.ewma import Ewma
from quorvane.functions.rotations.numerical.transcendental import Transcendental
from quorvane.functions.rotations.virtualization import base
from quorvane.functions.rotations.virtualization.attendance import Attendance, Gate
from quorvane.functions.rotations.virtualization.columns import StructureColumns
from support import functions

N = 6
CHAIN = "ewma(3);rank;zscore;sigmoid"
NAN = float("nan")


class Item:
    """Item that is an object, with legs and numbers that need converting."""

    def __init__(self, key, legs, value):
        self.key = key
        self.legs = legs
        self.value = value


class Baskets(base.VirtualizationBase):
    """Reports the items that it was given: two that are plain and one that is not."""

    _name = "baskets"

    def __init__(self, items=None, **constructor):
        defaults = {"max_structures": 4, "N_alloc": N, "transformation_expression": CHAIN}
        super().__init__(**{**defaults, **constructor})
        self.items = usual_items() if items is None else items

    def _refresh_active_structures(
        self, space_input, structure_inputs, nan_masks, combined_nan_mask, N
    ):
        return self.items() if callable(self.items) else self.items


def usual_items():
    return [
        {"key": ("a",), "legs": ((0, 1.0), (1, -1.0)), "value": 1.5},
        {"key": ("b", 2), "legs": [(2, 1.0)], "value": 2.5, "metadata": {"note": 1}},
        Item(("c",), [[3, 1]], 1),
    ]


def columns_of(items):
    """The items as columns; their legs must be tuples of pairs."""
    legs = [item["legs"] for item in items]
    flat = [leg for each in legs for leg in each]
    return StructureColumns(
        [item["key"] for item in items],
        np.cumsum([0, *map(len, legs)]),
        [leg_id for leg_id, _ in flat],
        [weight for _, weight in flat],
        [item["value"] for item in items],
    )


def plain_columns():
    """Four structures, of which the last one is not valid."""
    return columns_of(
        [
            {"key": ("a",), "legs": ((0, 1.0), (1, -1.0)), "value": 1.5},
            {"key": ("b", 2), "legs": ((2, 1.0),), "value": 2.5},
            {"key": (), "legs": (), "value": 3.5},
            {"key": ("d",), "legs": ((3, 2.0),), "value": NAN},
        ]
    )


class Copied(RotationBase):
    """Copies its first input, or does what it was told."""

    _name = "copied"

    def __init__(self, answer=0, **constructor):
        super().__init__(**{"N_alloc": N, **constructor})
        self.answer = answer

    def compute(self, args, nan_masks, combined_nan_mask, output_buf, N):
        output_buf[:N] = args[0]
        return self.answer


class Context:
    """Context of day 1, which leaves instrument 4 out; or of another mask."""

    current_day_index = 1

    def __init__(self, universe_mask=None):
        if universe_mask is None:
            universe_mask = np.ones((3, N), dtype=bool)
            universe_mask[1, 4] = False
        self.universe_mask = universe_mask


class Store:
    """Keeps one state."""

    def __init__(self, state=None):
        self.state = state

    def write(self, name, state):
        self.state = state

    def read(self, name):
        return self.state


class Sink:
    """Takes records and forgets them."""

    def append(self, record):
        pass


class Child:
    """Child that is the identity, counts its days, and fails where it is told to."""

    def __init__(self, *, fails=()):
        self.fails = fails
        self.days = 0

    def __call__(self, values, *, context):
        self._step("call")
        self.days += 1
        return values

    def get_state(self):
        self._step("get_state")
        return {"days": self.days}

    def set_state(self, state):
        self._step("set_state")
        self.days = state["days"]

    def _step(self, name):
        if name in self.fails:
            raise LookupError(name)


def row():
    values = np.arange(float(N))
    values[5] = np.nan
    return values


def matrix():
    return np.arange(2.0 * N).reshape(2, N)


def make_ewma():
    return Ewma(window=3, N_alloc=N)


def make_transcendental():
    return Transcendental(function="tanh", N_alloc=N)


# NumPy's own np.ones leaks a reference to its dtype.
ONES = np.ones(N)


def make_attendance():
    return Attendance(1, N_alloc=N)


def make_gate():
    attendance = make_attendance()
    attendance(ONES)
    return Gate(attendance, N_alloc=N)


MAKERS = {
    "virtualization": Baskets,
    "virtualization with equal split": lambda: Baskets(
        unmap_policy="equal_split", transformation_expression="none", trace_sink=Sink()
    ),
    "rotation": Copied,
    "ewma": make_ewma,
    "zscore": lambda: ZScore(N_alloc=N),
    "rank": lambda: Rank(N_alloc=N),
    "transcendental": make_transcendental,
    "attendance": make_attendance,
    "gate": make_gate,
    **{
        name: functools.partial(make, N)
        for name, make in {**functions.OVER_TIME, **functions.ACROSS}.items()
    },
}


def used(make):
    """Make an instance that has seen two days."""
    rotation = make()
    rotation(row())
    rotation(row(), context=Context())
    return rotation


def with_children(*children):
    rotation = used(lambda: Baskets(child_rotations=children, transformation_expression="none"))
    return rotation, copy.deepcopy(rotation.get_state())


def raising(*arguments):
    raise LookupError("on purpose")
