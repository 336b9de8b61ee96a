"""Code that runs between the items of a day counts for the next one."""

import collections

import numpy as np
import pytest

from adversary.actions.tampering import N
from adversary.tampered import TABLES
from support import frozen
from virtualization.fast.styles import (
    BETWEEN,
    STEPS,
    STYLES,
    Recorded,
    in_tuples,
    passes,
    record_four_days,
)


def generated_days(module, act, style, steps):
    """Days whose hook is a generator that acts before the second and before the last item."""
    side = Recorded(module, steps, passes)
    rotation = side.rotation
    log = []
    for day in range(4):

        def report(day=day):
            yield in_tuples(0)
            if day == 2:
                act(rotation)
            yield STYLES[style](1)
            yield STYLES[style](2)
            if day == 2:
                act(rotation)
            yield in_tuples(1)

        rotation.report = report
        ending = frozen.outcome(
            rotation.compute, (np.ones(N),), side.masks, side.combined, np.ones(N), N
        )
        kept = {name: value for name, value in vars(rotation).items() if name in TABLES}
        log.append((ending[:2], frozen.freeze(kept)))
    return log


@pytest.mark.parametrize("steps", [(), ("_structure_is_valid",), ("_slot_for_key",), STEPS])
@pytest.mark.parametrize("act", BETWEEN)
def test_what_runs_between_the_items_counts_for_the_next(modules, act, steps):
    native, twin = modules
    for style in range(len(STYLES)):
        expected = generated_days(twin, act, style, steps)
        assert generated_days(native, act, style, steps) == expected, STYLES[style].__name__


def an_odd_table(rotation):
    rotation._legs_by_slot = collections.OrderedDict(rotation._legs_by_slot)


def an_odd_row(rotation):
    rotation._txi_input = rotation._txi_input.tolist()


@pytest.mark.parametrize("step", STEPS)
@pytest.mark.parametrize("act", [*BETWEEN, an_odd_table, an_odd_row])
def test_what_a_step_does_besides_counts_for_the_steps_after_it(modules, act, step):
    def scenario(module):
        side = Recorded(module, (), passes)
        rotation = side.rotation
        log = []

        def method(self, argument, *masks):
            if len(log) == 2:
                act(rotation)
            return getattr(super(type(rotation), self), step)(argument, *masks)

        setattr(type(rotation), step, method)
        record_four_days(side, log)
        return log

    native, twin = modules
    assert scenario(native) == scenario(twin)
