from typing import Any

from quorvane.functions.rotations._boilerplate import RotationBase

class ZScore(RotationBase):
    def __init__(self, *, N_alloc: int | None = None) -> None: ...
    def compute(
        self,
        args: Any,
        nan_masks: Any,
        combined_nan_mask: Any,
        output_buf: Any,
        N: int,
    ) -> int: ...
