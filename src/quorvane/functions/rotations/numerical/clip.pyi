from typing import Any

from quorvane.functions.rotations._boilerplate import RotationBase

class Clip(RotationBase):
    low: float
    high: float
    def __init__(self, low: float, high: float, *, N_alloc: int | None = None) -> None: ...
    def compute(
        self,
        args: Any,
        nan_masks: Any,
        combined_nan_mask: Any,
        output_buf: Any,
        N: int,
    ) -> int: ...
