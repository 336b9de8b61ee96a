"""What a day must not keep, and what would take the interpreter down with it."""

import contextlib
import gc
import sys
import weakref

import numpy as np
import pytest

from adversary.day import hostile_days, make
from adversary.places.in_days import DELETIONS, PLACES
from adversary.places.in_items import ITEM_PLACES
from adversary.values.items import Thing
from support.isolated import run_isolated
from virtualization.hostile.scenarios import plain_items

# What a day must not keep, on each module alone


@pytest.mark.parametrize("fails", [False, True])
def test_day_keeps_nothing_of_what_it_was_given(base, fails):
    def child(values, context):
        if fails:
            raise LookupError("child")
        return values

    rotation = make(base, child)
    rotation.trace_sink = None
    item = Thing(key=("a",), legs=[(0, 1.0)], value=1.0, metadata={"m": 1})
    context, mask = Thing(current_day_index=1), np.zeros(6, dtype=np.uint8)
    watched = [weakref.ref(thing) for thing in [item, context, mask]]
    rotation.items = [item]
    with contextlib.suppress(LookupError):
        rotation(np.ones(6), context=context)
    with contextlib.suppress(LookupError):
        rotation.compute((np.ones(6),), (mask,), mask, np.zeros(6), 6)
    rotation.items = None
    del item, context, mask
    gc.collect()
    assert [reference() for reference in watched] == [None, None, None]


def test_rotation_that_is_dropped_goes_away_with_all_it_holds(base):
    rotation = make(base)
    rotation.items = plain_items()
    rotation(np.ones(6))
    rotation.itself = rotation
    references = [
        weakref.ref(rotation),
        weakref.ref(type(rotation)),
        weakref.ref(rotation._txi_input),
    ]
    del rotation
    gc.collect()
    assert [reference() for reference in references] == [None] * 3


def test_failing_days_leak_no_references(base):
    """Failing days at every place leave the singletons' counts and the heap as they were."""
    places = [place for place in [*ITEM_PLACES, *PLACES] if place not in DELETIONS]

    def failing_days():
        for place in places:
            hostile_days(base, place, "raise_an_error")
        base.RotationBase.init_calls.clear()
        gc.collect()

    for _ in range(2):
        failing_days()
    counted = [None, True, False, (), 0, 1]
    before = [sys.getrefcount(thing) for thing in counted]
    objects = len(gc.get_objects())
    for _ in range(5):
        failing_days()
    after = [sys.getrefcount(thing) for thing in counted]
    assert len(gc.get_objects()) - objects < 50
    assert all(abs(now - then) < 100 for now, then in zip(after, before, strict=True))


# Isolated: what would take the interpreter down with it


@pytest.mark.parametrize("kind", ["native", "twin"])
def test_row_key_nested_without_end_is_a_recursion_error(kind):
    printed = run_isolated(
        kind,
        """
        base = load_base(kind, Siblings())
        mask = base._AllOnesVirtualMask(3, np.ones(4))
        key = 0
        for _ in range(100000):
            key = (key, 0)
        try:
            mask[key]
        except RecursionError:
            print("recursion")
        """,
        allocator="default",
    )
    assert printed == "recursion\n"


@pytest.mark.parametrize("kind", ["native", "twin"])
def test_finalizers_at_any_moment_do_no_harm(kind):
    """The collector runs at nearly every allocation, and what it finds changes what is in use."""
    printed = run_isolated(
        kind,
        """
        base = load_base(kind, Siblings())
        import random

        from support.days import day_rotation_class

        random.seed(4)

        class Cycle:
            def __init__(self, action):
                self.action = action
                self.itself = self

            def __del__(self):
                self.action()

        rotation = day_rotation_class(base)(
            max_structures=4, N_alloc=6, transformation_expression="none", trace_sink=[]
        )
        items = []

        def refill():
            items[:] = [
                {"key": (name,), "legs": [(leg, 1.0), [leg + 1, -0.5]], "value": leg + 1.0,
                 "metadata": {"note": [leg]}}
                for leg, name in enumerate("abcd")
            ]

        actions = [
            refill,
            items.clear,
            lambda: items and items[-1]["legs"].clear(),
            lambda: items and items.pop(),
            lambda: rotation._metadata_by_slot.clear(),
            lambda: setattr(rotation, "_metadata_by_slot", [{} for _ in range(4)]),
            lambda: rotation._legs_by_slot.clear(),
            lambda: setattr(rotation, "_legs_by_slot", {}),
            lambda: setattr(rotation, "_txi_input", np.zeros(4)),
            lambda: setattr(rotation, "_txi_input", np.zeros(2)),
            lambda: rotation.slot_by_key.clear(),
            lambda: setattr(rotation, "trace_sink", []),
        ]
        gc.set_threshold(2, 1, 1)
        expected = (IndexError, ValueError, KeyError, RuntimeError, TypeError)
        finished = 0
        for day in range(3000):
            refill()
            rotation.items = items
            for _ in range(3):
                Cycle(random.choice(actions))
            try:
                rotation(np.ones(6))
                state = rotation.get_state()
                rotation.set_state(state)
                finished += 1
            except expected:
                rotation._txi_input = np.zeros(4)
                rotation._metadata_by_slot = [{} for _ in range(4)]
                rotation.key_by_slot = {}
                rotation.slot_by_key = {}
                rotation._legs_by_slot = {}
        print("finished", finished > 100)
        """,
        allocator="default",
    )
    assert printed == "finished True\n"
