"""Rotations with histories at once and day by day, and what both leave behind."""

import warnings

import numpy as np

from quorvane.functions.rotations.latitudinal.rank import Rank
from quorvane.functions.rotations.longitudinal.ewma import Ewma
from quorvane.functions.rotations.numerical.transcendental import Transcendental
from quorvane.functions.rotations.virtualization.attendance import Attendance, Gate
from support import frozen
from support.histories import random_baskets

DAYS, INSTRUMENTS, BASKETS, SLOTS = 60, 11, 40, 45
BASKETS_BY_NAME, NAMES = random_baskets(np.random.default_rng(5), INSTRUMENTS, BASKETS, 3)


def prices(count=DAYS):
    rng = np.random.default_rng(2)
    matrix = rng.normal(size=(count, INSTRUMENTS))
    matrix[rng.random(matrix.shape) < 0.1] = np.nan
    return matrix


def chain():
    attendance = Attendance(1, N_alloc=SLOTS)
    return [
        attendance,
        Ewma(9, N_alloc=SLOTS),
        Gate(attendance, N_alloc=SLOTS),
        Transcendental(function="abs", N_alloc=SLOTS),
        Rank(N_alloc=SLOTS),
    ]


def rotation_of(cls, **options):
    options = {"max_structures": SLOTS, "child_rotations": chain(), **options}
    return cls(BASKETS_BY_NAME, NAMES, transformation_expression="none", **options)


def after_the_first_day(cls, change):
    """A class whose first day makes its instance one of `cls`, changed."""

    class FirstDay(cls):
        def __call__(self, *inputs, **options):
            output = super().__call__(*inputs, **options)
            self.__class__ = cls
            change(self)
            return output

    return FirstDay


def played(cls, change, matrix=None):
    """The history of a rotation that is changed after its first day, and what it leaves behind."""
    rotation = rotation_of(after_the_first_day(cls, change))
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        ending = frozen.outcome(rotation.batch_reference, prices() if matrix is None else matrix)
    state = vars(rotation), [getattr(child, "__dict__", None) for child in chain_in(rotation)]
    for held in state[0], *filter(None, state[1]):
        held.pop("seen_days", None)
    # Errors name the class, which is not what this is about.
    told = repr(ending[:2]).replace("ByDays", "FixedBaskets")
    return told, ending[-1], frozen.freeze(state)


def chain_in(rotation):
    """The children, in whatever attribute they are."""
    return vars(rotation).get("child_rotations", [])
