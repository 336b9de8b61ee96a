from collections.abc import Sequence
from typing import Any

import numpy as np
from numpy.typing import ArrayLike, NDArray

from quorvane.functions.rotations.virtualization.base import VirtualizationBase
from quorvane.functions.rotations.virtualization.columns import StructureColumns

class PlannedStructures(VirtualizationBase):
    # StructureColumns, or a tuple of pairs of a first day and them.
    _columns: Any
    _instruments: tuple[str, ...]
    def basket_values(self, inputs: ArrayLike) -> NDArray[np.float64]: ...
    def _refresh_active_structures(
        self,
        space_input: NDArray[np.float64],
        structure_inputs: Sequence[Any],
        nan_masks: Sequence[NDArray[np.uint8]],
        combined_nan_mask: NDArray[np.uint8],
        N: int,
    ) -> StructureColumns: ...
