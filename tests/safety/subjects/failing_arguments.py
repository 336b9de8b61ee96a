"""Constructions and calls that fail by their arguments alone."""

import numpy as np

from quorvane.functions.rotations.latitudinal.cross_section import Winsorize, WithinGroups
from quorvane.functions.rotations.latitudinal.normalize import ZScore
from quorvane.functions.rotations.latitudinal.rank import Rank
from quorvane.functions.rotations.longitudinal.ewma import Ewma
from quorvane.functions.rotations.longitudinal.rolling import RollingMean
from quorvane.functions.rotations.numerical.transcendental import Transcendental
from quorvane.functions.rotations.virtualization import base
from quorvane.functions.rotations.virtualization.attendance import Attendance, Gate
from safety.subjects.failing import failing, rejected_arguments
from safety.subjects.rotations import Baskets, Copied, N, used

for wrong in (True, "x", 1.5):
    rejected_arguments(TypeError, Baskets, max_structures=wrong)
    rejected_arguments(TypeError, Baskets, N_alloc=wrong)
    rejected_arguments(TypeError, Rank, N_alloc=wrong)
    rejected_arguments(TypeError, Ewma, window=wrong)


for wrong in (0, -1, 10**7):
    rejected_arguments(ValueError, Baskets, max_structures=wrong)


for wrong in (0, -(10**30), 10**30):
    rejected_arguments(ValueError, Copied, N_alloc=wrong)
    rejected_arguments(ValueError, ZScore, N_alloc=wrong)


for wrong in (0, -1, 2**1100):
    rejected_arguments(ValueError, Ewma, window=wrong, N_alloc=N)


for expression in (
    "",
    " ",
    ";",
    "none;none",
    "ewma",
    "ewma()",
    "ewma(x)",
    "ewma(1,2)",
    "rank(1)",
    "rank(",
    "nothing",
    "rank;" * 5,
    "x" * 600,
    "ewma(0)",
):
    rejected_arguments(ValueError, Baskets, transformation_expression=expression)


rejected_arguments(ValueError, Baskets, transformation_expression=3)


rejected_arguments(ValueError, Baskets, unmap_policy="other")


rejected_arguments(TypeError, Baskets, child_rotations=3)


rejected_arguments(TypeError, Baskets, child_factories=[3])


rejected_arguments(TypeError, Ewma)


rejected_arguments(TypeError, Attendance, hold=1.5, N_alloc=N)


rejected_arguments(ValueError, Attendance, hold=-(10**400), N_alloc=N)


rejected_arguments(TypeError, Attendance, hold=1)


rejected_arguments(TypeError, Gate)


rejected_arguments(TypeError, RollingMean, window=1.5, N_alloc=N)


rejected_arguments(TypeError, RollingMean, window=3)


rejected_arguments(ValueError, RollingMean, window=3, min_periods=4, N_alloc=N)


rejected_arguments(ValueError, RollingMean, window=10**400, N_alloc=N)


rejected_arguments(TypeError, Winsorize, fraction="x")


rejected_arguments(ValueError, Winsorize, fraction=10**400)


rejected_arguments(TypeError, WithinGroups, function="rank", groups=[0])


rejected_arguments(ValueError, WithinGroups, function="none", groups=np.zeros(1, np.int64))


rejected_arguments(TypeError, Rank, other=1)


rejected_arguments(TypeError, Transcendental, function=3)


rejected_arguments(ValueError, Transcendental, function="nothing")


rejected_arguments(ValueError, Transcendental, function="\ud800")


@failing(TypeError)
def too_few_arguments():
    return lambda: base.VirtualizationBase.compute()


@failing(TypeError)
def too_many_arguments():
    rotation = used(Baskets)
    return lambda: rotation.resize(1, 2, 3)


@failing(TypeError)
def repeated_argument():
    rotation = used(Baskets)
    return lambda: rotation.resize(1, new_N_alloc=2)


@failing(TypeError)
def unknown_argument():
    rotation = used(Baskets)
    return lambda: rotation.resize(other=2)
