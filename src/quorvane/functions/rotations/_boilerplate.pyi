from typing import Any

import numpy as np
from numpy.typing import NDArray

class RotationBase:
    _name: str
    arity: int
    _n_alloc: int | None
    _output_buf: NDArray[np.float64]
    _combined_nan_buf: NDArray[np.uint8]
    _nan_mask_bufs: tuple[NDArray[np.uint8], ...]
    parameters: dict[str, Any]

    def __init__(self, *, N_alloc: int | None = None, **parameters: Any) -> None: ...
    def __call__(self, *args: Any, context: Any = None) -> NDArray[np.float64]: ...
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
    def checkpoint(self, utility: Any) -> None: ...
    def recover(self, utility: Any) -> bool: ...
    def resize(self, new_N_alloc: int) -> None: ...
