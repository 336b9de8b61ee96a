"""Structures that change on days that are known beforehand."""

import numpy as np
import pytest

from quorvane.functions.rotations.virtualization.baskets import FixedBaskets
from quorvane.functions.rotations.virtualization.columns import StructureColumns
from quorvane.functions.rotations.virtualization.planned import PlannedStructures
from support.histories import replayed
from virtualization.history.at_once import prices, some_baskets


class Planned(PlannedStructures):
    """Three reports by turns: the plan's columns hold from their day on."""

    def __init__(self, plan, instruments, **options):
        super().__init__(
            max_structures=60, N_alloc=len(instruments), transformation_expression="ewma(4);rank",
            **options,
        )  # fmt: skip
        self._instruments = tuple(instruments)
        self._columns = plan

    instruments = property(lambda self: self._instruments)


class PlannedByDays(Planned):
    def compute(self, *args):
        return super().compute(*args)


def columns_of(first, count):
    baskets, names = some_baskets(60)
    chosen = dict(list(baskets.items())[first : first + count])
    return FixedBaskets(chosen, names, transformation_expression="none")._columns


@pytest.mark.parametrize(
    "days", [(0,), (0, 50), (0, 1, 2, 3), (0, 20, 40, 41, 95), (0, 37, 60), (0, 99), (0, 200)]
)
def test_planned_structures_hold_from_their_day_on(days):
    names = some_baskets()[1]
    plan = tuple((day, columns_of(10 * i, 20)) for i, day in enumerate(days))
    matrix = prices(np.random.default_rng(2), 100, 11, missing=0.1)
    assert replayed(Planned(plan, names), matrix) == replayed(PlannedByDays(plan, names), matrix)


def columns_beyond_the_instruments():
    return StructureColumns(
        keys=[("far",)], offsets=[0, 1], leg_ids=[99], weights=[1.0], values=[np.nan]
    )


def columns_with_a_key_twice():
    return StructureColumns(
        keys=[("x",), ("x",)], offsets=[0, 1, 2], leg_ids=[0, 1], weights=[1.0, 2.0],
        values=[np.nan, np.nan],
    )  # fmt: skip


@pytest.mark.parametrize("odd", [columns_beyond_the_instruments, columns_with_a_key_twice])
def test_planned_structures_that_fail_or_are_odd_do_so_on_their_day(odd):
    names = some_baskets()[1]
    plan = ((0, columns_of(0, 20)), (50, odd()), (80, columns_of(30, 10)))
    matrix = prices(np.random.default_rng(2), 100, 11, missing=0.1)
    assert replayed(Planned(plan, names), matrix) == replayed(PlannedByDays(plan, names), matrix)


def test_a_day_before_the_plan_is_refused():
    names = some_baskets()[1]
    rotation = Planned(((3, columns_of(0, 5)),), names)
    with pytest.raises(ValueError, match="no structures for day 0, which is before the first day"):
        rotation.batch_reference(np.ones((9, 11)))
