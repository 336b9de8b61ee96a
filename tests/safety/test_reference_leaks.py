"""Calling anything again and again leaves nothing behind, whether it succeeds or raises."""

import array
import gc
import os
import sys

import numpy as np
import pytest

from quorvane.functions.rotations._boilerplate import RotationBase
from quorvane.functions.rotations.latitudinal.normalize import ZScore
from quorvane.functions.rotations.latitudinal.rank import Rank
from quorvane.functions.rotations.longitudinal.ewma import Ewma
from quorvane.functions.rotations.numerical.transcendental import Transcendental
from quorvane.functions.rotations.virtualization import base
from quorvane.functions.rotations.virtualization.columns import StructureColumns
from safety.subjects.failures import FAILURES
from safety.subjects.operations import OPERATIONS

pytestmark = pytest.mark.usefixtures("quick_collections")

REPEATS = int(
    os.environ.get("QUORVANE_REPEATS", "1000" if os.environ.get("QUORVANE_LONG") else "400")
)
# What others let go of meanwhile shows in a round or two; of few repeats there are more rounds.
MOST_ROUNDS = max(5, 14 // REPEATS)
# Readings and caches take a few blocks, and each of the interpreter's free lists up to 80, filled
# little by little; a leak takes one in every repeat at least.
FEW = REPEATS // 4

# Objects that are used everywhere, so that a reference too many or too few shows in their counts.
SHARED = {
    "None": None,
    "True": True,
    "0": 0,
    "1": 1,
    "''": "",
    "()": (),
    "NumPy's float64": np.dtype(np.float64),
    "NumPy's uint8": np.dtype(np.uint8),
    "NumPy's bool": np.dtype(np.bool_),
    "ndarray": np.ndarray,
    "numpy": np,
    "the key 'active'": sys.intern("active"),
    "the module": base,
    **{
        kind.__name__: kind
        for kind in (
            base.VirtualizationBase,
            base.VirtualStructure,
            base._VirtualContext,
            base._AllOnesVirtualMask,
            RotationBase,
            Ewma,
            Rank,
            ZScore,
            Transcendental,
            StructureColumns,
            dict,
            tuple,
            list,
            ValueError,
            TypeError,
        )
    },
}
# Only a debug build of the interpreter counts all references; its NumPy must be one too.
count_references = getattr(sys, "gettotalrefcount", lambda: 0)
MEASURES = ["allocated blocks", "all references", *SHARED]


def measure():
    """Read every measure, into an array, which holds no references."""
    gc.collect()
    return array.array(
        "q", [sys.getallocatedblocks(), count_references(), *map(sys.getrefcount, SHARED.values())]
    )


def repeat(operation):
    for _ in range(REPEATS):
        operation()


def growth_per_round(operation):
    """What each measure grew by in every round, by its name, where it grew in all rounds.

    A leak takes its part of each round, so nothing leaks that a round has shown not to grow, and
    there are no more rounds once that is said of all measures.
    """
    repeat(operation)  # fills what caches and free lists there are
    growths = {name: [] for name in MEASURES}
    before = measure()
    for _ in range(MOST_ROUNDS):
        repeat(operation)
        after = measure()
        for name, then, now in zip(MEASURES, before, after, strict=True):
            if name in growths:
                growths[name].append(now - then)
            if abs(now - then) <= FEW:
                growths.pop(name, None)
        if not growths:
            break
        before = after
    return {
        name: growth for name, growth in growths.items() if min(growth) > FEW or max(growth) < -FEW
    }


def expecting(error, operation):
    def expected():
        try:
            operation()
        except error:
            return
        pytest.fail(f"{error.__name__} was not raised")

    return expected


@pytest.mark.parametrize("name", OPERATIONS)
def test_repeating_what_succeeds_leaves_nothing_behind(name):
    assert growth_per_round(OPERATIONS[name]()) == {}


@pytest.mark.parametrize("name", FAILURES)
def test_repeating_what_fails_leaves_nothing_behind(name):
    error, setup = FAILURES[name]
    assert growth_per_round(expecting(error, setup())) == {}


def test_a_leak_would_be_seen():
    kept = []
    if sys.getallocatedblocks() > 0:  # without the interpreter's own allocator none are counted
        assert "allocated blocks" in growth_per_round(lambda: kept.append(object()))
    if sys.version_info < (3, 12):  # later ones do not count references to builtin types
        assert "ValueError" in growth_per_round(lambda: kept.append(ValueError))


def test_instances_are_freed_with_all_that_they_remember():
    def operation():
        OPERATIONS["call of virtualization"]()()

    assert growth_per_round(operation) == {}
