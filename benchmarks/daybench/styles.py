"""What a day costs beyond its hook, for each way in which a hook may report the same pairs.

A day goes through `__call__`, without children. In turn with it, in another process, the hook is
called alone and what it made dropped at once; a generator is exhausted and drops each item before
it makes the next. The difference is counted in units of U: what the interpreter takes in the same
turn to make and free one item, a dict of three entries, ten thousand of them in a list.
"""

import collections
import itertools
import random
import types
from collections.abc import Callable
from dataclasses import dataclass
from functools import partial
from typing import Any

import numpy as np

from daybench.goals import Line
from daybench.timing import Side, in_new_process, in_turn_apart, medians, summary
from quorvane.functions.rotations.virtualization.base import VirtualizationBase, VirtualStructure
from quorvane.functions.rotations.virtualization.baskets import FixedBaskets
from quorvane.functions.rotations.virtualization.columns import StructureColumns

STRUCTURES, INSTRUMENTS = 10_000, 2_000
HELD_DAYS = 5
CHECKED_DAYS = 3
WARM_UP_DAYS = 4


@dataclass(frozen=True)
class Day:
    """One day's inputs and the pairs' values of it, as an array and as numbers of both kinds."""

    inputs: np.ndarray
    array: np.ndarray
    values: list[float]
    scalars: list[np.float64]


class Market:
    """The pairs, their keys and legs, and some days that come again and again."""

    def __init__(self, structures=STRUCTURES, instruments=INSTRUMENTS):
        draw = random.Random(31)
        self.names = [f"I{i}" for i in range(instruments)]
        self.keys = [("pair", str(i)) for i in range(structures)]
        self.legs = [
            tuple([(i, draw.uniform(-1.0, 1.0)) for i in draw.sample(range(instruments), 2)])
            for _ in range(structures)
        ]
        self.columns = StructureColumns(
            self.keys,
            np.arange(0, 2 * structures + 1, 2),
            [i for legs in self.legs for i, _ in legs],
            [weight for legs in self.legs for _, weight in legs],
            np.full(structures, np.nan),
        )
        inputs = np.random.default_rng(31).standard_normal((HELD_DAYS, instruments))
        self._days = itertools.cycle([self._day(row) for row in inputs])
        self.next_day()

    def _day(self, inputs):
        values = self.columns.weighted_sums(inputs)
        return Day(inputs, values, values.tolist(), list(values))

    def next_day(self):
        """Go on to the next day."""
        self.today = next(self._days)


def dicts(market):
    """Dicts anew every day, their keys and legs the same objects: the plain style, and U."""
    return _with_legs(market, market.legs)


def _with_legs(market, all_legs):
    def report():
        return [
            {"key": key, "legs": legs, "value": value}
            for key, legs, value in zip(market.keys, all_legs, market.today.values, strict=True)
        ]

    return report


def scalar_values(market):
    """NumPy scalars as values."""

    def report():
        return [
            {"key": key, "legs": legs, "value": value}
            for key, legs, value in zip(market.keys, market.legs, market.today.scalars, strict=True)
        ]

    return report


def new_legs(market):
    """Tuples of legs that are made anew every day."""
    first, second = zip(*market.legs, strict=True)

    def report():
        return [
            {"key": key, "legs": ((a, x), (b, y)), "value": value}
            for key, (a, x), (b, y), value in zip(
                market.keys, first, second, market.today.values, strict=True
            )
        ]

    return report


def list_legs(market):
    """The same lists of tuples every day."""
    return _with_legs(market, [list(legs) for legs in market.legs])


def scalar_legs(market):
    """Ids and weights as NumPy scalars, in the same tuples every day."""
    scalars = [tuple([(np.int64(i), np.float64(w)) for i, w in legs]) for legs in market.legs]
    return _with_legs(market, scalars)


def metadata(market):
    """A new metadata dict of two entries for every item."""
    sectors = [f"sector {i % 11}" for i in range(len(market.keys))]

    def report():
        return [
            {"key": key, "legs": legs, "value": value, "metadata": {"sector": sector, "raw": value}}
            for key, legs, value, sector in zip(
                market.keys, market.legs, market.today.values, sectors, strict=True
            )
        ]

    return report


def generator(market):
    """The plain style's items, each made when it is asked for."""

    def report():
        for key, legs, value in zip(market.keys, market.legs, market.today.values, strict=True):
            yield {"key": key, "legs": legs, "value": value}

    return report


def records(market):
    """Records instead of dicts."""

    def report():
        return [
            VirtualStructure(key, legs, value)
            for key, legs, value in zip(market.keys, market.legs, market.today.values, strict=True)
        ]

    return report


def columns(market):
    """Arrays, of which only the values are new."""
    return lambda: market.columns.with_values(market.today.array)


@dataclass(frozen=True)
class Style:
    """How the pairs are reported, and how many U a structure may cost.

    Without a way to report it is the whole day of the baskets with two children.
    """

    name: str
    goal: float
    reporting: Callable[[Market], Callable[[], Any]] | None

    def day_and_hook(self, market):
        """A rotation, and the report of its hook."""
        if self.reporting is None:
            named = ([(market.names[i], weight) for i, weight in legs] for legs in market.legs)
            baskets = zip(market.keys, named, strict=True)
            return FixedBaskets(baskets, market.names, transformation_expression=CHILDREN), None
        report = self.reporting(market)
        return _rotation(market, report, "none"), report


CHILDREN = "ewma(20);rank"

CASES = {
    "dicts": Style("dicts, same keys and legs", 0.5, dicts),
    "scalar-values": Style("NumPy scalars as values", 0.7, scalar_values),
    "new-legs": Style("new legs every day", 2.5, new_legs),
    "list-legs": Style("legs as lists", 1.3, list_legs),
    "scalar-legs": Style("NumPy scalars as ids and weights", 1.3, scalar_legs),
    "metadata": Style("metadata of their own", 2.2, metadata),
    "generator": Style("a generator", 2.2, generator),
    "records": Style("VirtualStructure records", 1.2, records),
    "columns": Style("StructureColumns", 0.15, columns),
    "fixed-baskets": Style(f"FixedBaskets, {CHILDREN}, whole", 0.25, None),
}


def run(names, settings):
    """Yield U in nanoseconds, then a line for each chosen style."""
    if names:
        yield _unit_line(in_turn_apart([_items], settings))
    for name in names:
        style = CASES[name]
        in_new_process(_check, name)
        makers = [_items, partial(_day, name)]
        if style.reporting is not None:
            makers.append(partial(_hook, name))
        times = in_turn_apart(makers, settings)
        parts = dict(zip(("items", "day", "hook"), medians(times), strict=False))
        yield Line(
            "styles", style.name, "U", beyond_hook(times), style.goal, STRUCTURES, True, parts
        )


def beyond_hook(times):
    """What days took beyond their hooks, over what the same number of items takes.

    Each turn has the seconds of the items, of the day, and of the hook unless that is part of it.
    """
    beyond = [(day - sum(hook), items) for items, day, *hook in times]
    return summary([mine / items for mine, items in beyond], *medians(beyond))


def _unit_line(times):
    seconds = [items for (items,) in times]
    found = summary([1e9 * each / STRUCTURES for each in seconds], *medians(times), 0.0)
    return Line("styles", "U: one item made and freed", "ns", found, smaller_is_better=True)


def _items():
    """What U is measured on."""
    return Side(dicts(Market()))


def _day(name):
    market = Market()
    rotation, _ = CASES[name].day_and_hook(market)
    for _ in range(WARM_UP_DAYS):
        rotation(market.today.inputs)
        market.next_day()
    return Side(lambda: rotation(market.today.inputs), market.next_day)


def _hook(name):
    market = Market()
    _, report = CASES[name].day_and_hook(market)
    return Side(lambda: _make_and_free(report), market.next_day)


def _check(name):
    check(CASES[name], Market())


def check(style, market):
    """Live some days on which the style must return the plain style's bits."""
    rotation, _ = style.day_and_hook(market)
    plain = _rotation(market, dicts(market), rotation.transformation_expression)
    for _ in range(CHECKED_DAYS):
        market.next_day()
        inputs = market.today.inputs
        np.testing.assert_array_equal(rotation(inputs), plain(inputs))
    return rotation


def _make_and_free(report):
    made = report()
    if isinstance(made, types.GeneratorType):
        collections.deque(made, maxlen=0)


def _rotation(market, report, expression):
    class Reporting(VirtualizationBase):
        _name = "reporting"
        arity = 1

        def _refresh_active_structures(self, *_):
            return report()

    return Reporting(
        max_structures=len(market.keys),
        N_alloc=len(market.names),
        transformation_expression=expression,
    )
