from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane.functions.rotations._boilerplate import RotationBase

class AttendanceCount(RotationBase):
    hold: int | None
    _silent_days: NDArray[np.float64]

    def __init__(self, hold: int | None, *, N_alloc: int | None = None) -> None: ...
    def compute(
        self,
        args: Any,
        nan_masks: Any,
        combined_nan_mask: Any,
        output_buf: Any,
        N: int,
    ) -> int: ...

class Gate(RotationBase):
    attendance: AttendanceCount

    def __init__(self, attendance: AttendanceCount, *, N_alloc: int | None = None) -> None: ...
    def compute(
        self,
        args: Any,
        nan_masks: Any,
        combined_nan_mask: Any,
        output_buf: Any,
        N: int,
    ) -> int: ...
