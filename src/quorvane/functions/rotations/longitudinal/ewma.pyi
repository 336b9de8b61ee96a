from typing import Any

from quorvane.functions.rotations._boilerplate import RotationBase

class Ewma(RotationBase):
    window: int

    def __init__(self, window: int, *, N_alloc: int | None = None) -> None: ...
    def compute(
        self,
        args: Any,
        nan_masks: Any,
        combined_nan_mask: Any,
        output_buf: Any,
        N: int,
    ) -> int: ...
    @property
    def stateful(self) -> bool: ...
    def get_state(self) -> dict[str, Any]: ...
    def set_state(self, state: dict[str, Any]) -> None: ...
    def resize(self, new_N_alloc: int) -> None: ...
