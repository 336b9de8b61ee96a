"""The functions of expressions as rotations, made for so many slots."""

import numpy as np

from quorvane.functions.rotations.latitudinal.cross_section import (
    CenteredRank,
    Demean,
    Scale,
    Winsorize,
    WithinGroups,
)
from quorvane.functions.rotations.longitudinal.exponential import ExponentialMean, ExponentialStd
from quorvane.functions.rotations.longitudinal.past_values import Delay, Diff
from quorvane.functions.rotations.longitudinal.rolling import (
    RollingMean,
    RollingStd,
    RollingZScore,
)
from quorvane.functions.rotations.numerical.clip import Clip

OVER_TIME = {
    "rolling mean": lambda slots: RollingMean(3, 1, N_alloc=slots),
    "rolling std": lambda slots: RollingStd(3, 2, N_alloc=slots),
    "rolling zscore": lambda slots: RollingZScore(3, N_alloc=slots),
    "exponential mean": lambda slots: ExponentialMean(0.5, N_alloc=slots),
    "exponential std": lambda slots: ExponentialStd(0.5, N_alloc=slots),
    "delay": lambda slots: Delay(2, N_alloc=slots),
    "diff": lambda slots: Diff(2, N_alloc=slots),
}

ACROSS = {
    "centered rank": lambda slots: CenteredRank(N_alloc=slots),
    "demean": lambda slots: Demean(N_alloc=slots),
    "scale": lambda slots: Scale(N_alloc=slots),
    "winsorize": lambda slots: Winsorize(0.2, N_alloc=slots),
    "within groups": lambda slots: WithinGroups("rank", np.arange(slots) % 2, N_alloc=slots),
    "clip": lambda slots: Clip(-1.0, 1.0, N_alloc=slots),
}
