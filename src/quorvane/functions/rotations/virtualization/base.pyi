import copy as copy
import re as re
from collections.abc import Callable, Iterable, Sequence
from dataclasses import dataclass
from typing import Any

import numpy as np
from numpy.typing import ArrayLike, NDArray

from quorvane.functions._abstract_hooks import abstract_method_required as abstract_method_required
from quorvane.functions.rotations._boilerplate import RotationBase as RotationBase

MAX_VIRTUAL_STRUCTURES: int
MAX_TRANSFORMATION_EXPRESSION_BYTES: int
MAX_TRANSFORMATION_CHILDREN: int
MAX_TRANSFORMATION_CHILD_ALLOCATION_CELLS: int
_IDENTITY_EXPRESSIONS: set[str]
_CHILD_ROTATION_ALIASES: dict[str, tuple[str, str | None]]
_EXPRESSION_TOKEN_RE: re.Pattern[str]

@dataclass
class VirtualStructure:
    key: tuple[Any, ...]
    legs: tuple[tuple[int, float], ...]
    value: float
    metadata: dict[Any, Any] | None = ...

class _VirtualContext:
    universe_mask: Any
    current_day_index: Any
    def __init__(self, universe_mask: Any, current_day_index: Any = 0) -> None: ...

class _AllOnesVirtualMask:
    ndim: int
    shape: tuple[int, int]
    _row: NDArray[np.uint8]
    def __init__(self, rows: Any, row: NDArray[np.uint8]) -> None: ...
    def __getitem__(self, item: Any) -> Any: ...

class VirtualizationBase(RotationBase):
    max_structures: int
    transformation_expression: str
    unmap_policy: str
    child_factories: list[Callable[..., Any]]
    child_rotations: list[Any]
    slot_by_key: dict[tuple[Any, ...], int]
    key_by_slot: dict[int, tuple[Any, ...]]
    _legs_by_slot: dict[int, tuple[tuple[int, float], ...]]
    _metadata_by_slot: list[dict[Any, Any]]
    _txi_input: NDArray[np.float64]
    _txi_output: NDArray[np.float64]
    _txi_universe_row: NDArray[np.uint8]
    _current_parent_context: Any
    _structure_N_limit: int | None
    trace_sink: Any
    def __init__(
        self,
        *,
        max_structures: int | None = None,
        transformation_expression: str | None = None,
        N_alloc: int | None = None,
        unmap_policy: str = "proportional",
        child_factories: Iterable[Callable[..., Any]] | None = None,
        child_rotations: Iterable[Any] | None = None,
        trace_sink: Any = None,
        **kwargs: Any,
    ) -> None: ...
    @staticmethod
    def _validate_constructor(
        max_structures: Any, transformation_expression: Any, N_alloc: Any, unmap_policy: Any
    ) -> None: ...
    def _parse_transformation_expression(self, expression: str) -> list[Any]: ...
    @property
    def stateful(self) -> bool: ...
    def _refresh_active_structures(
        self,
        space_input: Any,
        structure_inputs: Any,
        nan_masks: Any,
        combined_nan_mask: Any,
        N: int,
    ) -> Iterable[Any]: ...
    def _normalize_structure(self, item: Any) -> VirtualStructure: ...
    def _slot_for_key(self, key: Iterable[Any]) -> int: ...
    def _structure_is_valid(
        self, structure: VirtualStructure, nan_masks: Any, combined_nan_mask: Any, N: int
    ) -> bool | np.bool_: ...
    def _make_child_context(self, parent_context: Any, day_index: Any) -> _VirtualContext: ...
    def _run_child_chain(
        self, txi_values: ArrayLike, child_context: Any
    ) -> NDArray[np.float64]: ...
    def _unmap(self, txi_output: Any, output_buf: NDArray[np.float64], N: int) -> None: ...
    def _record_trace(self, output_buf: NDArray[np.float64], N: int) -> None: ...
    def compute(
        self,
        args: Sequence[Any],
        nan_masks: Any,
        combined_nan_mask: Any,
        output_buf: NDArray[np.float64],
        N: int,
    ) -> int: ...
    def __call__(self, *args: Any, context: Any = None) -> NDArray[np.float64]: ...
    def batch_reference(self, *matrices: ArrayLike, context: Any = None) -> NDArray[np.float64]: ...
    def get_state(self) -> dict[str, Any]: ...
    def _validate_state_components(
        self, state: Any
    ) -> tuple[
        dict[tuple[Any, ...], int],
        dict[int, tuple[Any, ...]],
        dict[int, tuple[tuple[int, float], ...]],
        list[dict[Any, Any]],
        int,
    ]: ...
    def _validate_child_states(self, state: Any) -> list[Any]: ...
    def _snapshot_child_states(self) -> list[Any]: ...
    def _restore_child_snapshots(self, snapshots: Iterable[Any]) -> list[Exception]: ...
    def set_state(self, state: Any) -> None: ...
    def checkpoint(self, utility: Any) -> None: ...
    def recover(self, utility: Any) -> bool: ...
    def resize(self, new_N_alloc: int) -> None: ...
