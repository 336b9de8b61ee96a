from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane.functions.rotations._boilerplate import RotationBase

class _CrossSection(RotationBase):
    def compute(
        self,
        args: Any,
        nan_masks: Any,
        combined_nan_mask: Any,
        output_buf: Any,
        N: int,
    ) -> int: ...

class CenteredRank(_CrossSection):
    def __init__(self, *, N_alloc: int | None = None) -> None: ...

class Demean(_CrossSection):
    def __init__(self, *, N_alloc: int | None = None) -> None: ...

class Scale(_CrossSection):
    def __init__(self, *, N_alloc: int | None = None) -> None: ...

class Winsorize(_CrossSection):
    fraction: float
    def __init__(self, fraction: float, *, N_alloc: int | None = None) -> None: ...

class WithinGroups(_CrossSection):
    function: str
    groups: NDArray[np.int64]
    def __init__(
        self, function: str, groups: NDArray[np.int64], *, N_alloc: int | None = None
    ) -> None: ...
