"""The days that are reported, pairs and baskets with seeded legs, and who reports them."""

import contextlib
import itertools
import random
from dataclasses import dataclass

import numpy as np

from support.siblings import installed_real_base


@dataclass(frozen=True)
class Shape:
    """How many structures of how many legs are reported among how many slots, and as what.

    The reporter holds some days' items and reports them in turn, or it makes every day's items
    anew and forgets them, so that what the module keeps of them is freed in its next day.
    """

    structures: int
    legs: int
    slots: int
    instruments: int
    new_legs: bool = False
    new_keys: bool = False
    records: bool = False
    held: bool = True


class Days:
    """Makes one day's items after the other: new dicts or records, with new values every day.

    Keys and legs are the same objects every day unless the shape wants new ones.
    """

    def __init__(self, shape, base):
        self.shape = shape
        self._record = base.VirtualStructure if shape.records else None
        draw = random.Random(20)
        columns = range(shape.instruments)
        self._parts = []
        for i in range(shape.structures):
            ids = draw.sample(columns, shape.legs)
            weights = [draw.uniform(-1.0, 1.0) for _ in ids]
            legs = tuple(zip(ids, weights, strict=True))
            self._parts.append((("structure", str(i)), legs))
        self._values = np.random.default_rng(20)

    def next_items(self):
        """Return a new list of new items."""
        values = self._values.standard_normal(self.shape.structures).tolist()
        parts = self._parts
        if self.shape.new_legs:
            parts = [(key, tuple([(i, w) for i, w in legs])) for key, legs in parts]
        if self.shape.new_keys:
            parts = [((*key,), legs) for key, legs in parts]
        if self._record is not None:
            make = self._record
            return [make(key, legs, v) for (key, legs), v in zip(parts, values, strict=True)]
        return [
            {"key": key, "legs": legs, "value": value}
            for (key, legs), value in zip(parts, values, strict=True)
        ]


def reporting_class(base):
    """Return a rotation class on `base` whose hook returns the attribute `today`, and no more."""

    class Reporting(base.VirtualizationBase):
        _name = "reporting"
        arity = 1
        today = ()

        def _refresh_active_structures(self, space_input, structure_inputs, nan_masks, combined, N):
            return self.today

    return Reporting


HELD_DAYS = 3


class ModuleDay:
    """A rotation of one kind of module with the arguments of its `compute`, as the framework
    would pass them: no instrument is NaN.
    """

    def __init__(self, kind, shape, **settings):
        with base_module(kind) as base:
            settings = {"transformation_expression": "none", **settings}
            self.rotation = reporting_class(base)(
                max_structures=shape.slots, N_alloc=shape.instruments, **settings
            )
            days = Days(shape, base)
        self._held = None
        if shape.held:
            self._held = itertools.cycle([days.next_items() for _ in range(HELD_DAYS)])
        self._days = days
        self.N = shape.instruments
        mask = np.zeros(self.N, dtype=np.uint8)
        inputs = np.random.default_rng(4).standard_normal(self.N)
        self._arguments = ((inputs,), (mask,), np.zeros(self.N, dtype=np.uint8))

    def new_day(self):
        """Report other items from now on."""
        if self._held is not None:
            self.rotation.today = next(self._held)
            return
        self.rotation.today = None
        self.rotation.today = self._days.next_items()

    def compute(self):
        """One day."""
        self.rotation.compute(*self._arguments, self.rotation._output_buf, self.N)

    def unmap(self):
        """The last step of a day, on what the last day's children returned."""
        self.rotation._unmap(self.rotation._txi_output, self.rotation._output_buf, self.N)

    @property
    def output(self):
        """The last day's output, as the framework would return it."""
        return self.rotation._output_buf[: self.N].copy()


@contextlib.contextmanager
def base_module(kind):
    """Yield the native module or the plain-Python twin, on the package's real siblings."""
    with installed_real_base(kind) as base:
        yield base
