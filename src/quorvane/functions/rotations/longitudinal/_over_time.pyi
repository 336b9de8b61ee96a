from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane.functions.rotations._boilerplate import RotationBase

class _OverTime(RotationBase):
    _memory: NDArray[np.float64]
    _derived: NDArray[np.float64]
    _position: NDArray[np.float64]

    def compute(
        self,
        args: Any,
        nan_masks: Any,
        combined_nan_mask: Any,
        output_buf: Any,
        N: int,
    ) -> int: ...
    def _derive(self, first: int, last: int) -> None: ...

class RollingMean(_OverTime):
    window: int
    min_periods: int | None
    def __init__(
        self, window: int, min_periods: int | None = None, *, N_alloc: int | None = None
    ) -> None: ...

class RollingStd(_OverTime):
    window: int
    min_periods: int | None
    def __init__(
        self, window: int, min_periods: int | None = None, *, N_alloc: int | None = None
    ) -> None: ...

class RollingZScore(_OverTime):
    window: int
    min_periods: int | None
    def __init__(
        self, window: int, min_periods: int | None = None, *, N_alloc: int | None = None
    ) -> None: ...

class ExponentialMean(_OverTime):
    decay: float
    def __init__(self, decay: float, *, N_alloc: int | None = None) -> None: ...

class ExponentialStd(_OverTime):
    decay: float
    def __init__(self, decay: float, *, N_alloc: int | None = None) -> None: ...

class Delay(_OverTime):
    days: int
    def __init__(self, days: int, *, N_alloc: int | None = None) -> None: ...

class Diff(_OverTime):
    days: int
    def __init__(self, days: int, *, N_alloc: int | None = None) -> None: ...
