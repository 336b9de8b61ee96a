"""What a replay keeps of each day, as arrays whose first axis is the days."""

from __future__ import annotations

from collections.abc import Sequence
from typing import TYPE_CHECKING, Any, Protocol

import numpy as np
from numpy.typing import NDArray

if TYPE_CHECKING:
    from quorvane.functions.rotations.virtualization.baskets import FixedBaskets

FloatArray = NDArray[np.float64]


class Recorder(Protocol):
    """Keeps something of each day in named arrays, which a checkpoint can store and refill."""

    @property
    def arrays(self) -> dict[str, NDArray[Any]]:
        """The arrays by name, each with one row per day."""

    def record(self, day: int, output: FloatArray) -> None:
        """Keep what is wanted of the day that was just computed."""


class OutputRecorder:
    """The instrument-space output, one row per day."""

    def __init__(self, days: int, instruments: int) -> None:
        self.output = np.full((days, instruments), np.nan)

    @property
    def arrays(self) -> dict[str, NDArray[Any]]:
        """The output rows."""
        return {"output": self.output}

    def record(self, day: int, output: FloatArray) -> None:
        """Keep the day's output."""
        self.output[day] = output


class StructureRecorder:
    """What entered and what left the child chain, for some of the structures."""

    def __init__(self, rotation: FixedBaskets, baskets: Sequence[int], days: int) -> None:
        self._rotation = rotation
        self.baskets = list(baskets)
        self.entered = np.full((days, len(self.baskets)), np.nan)
        self.left = np.full((days, len(self.baskets)), np.nan)

    @property
    def arrays(self) -> dict[str, NDArray[Any]]:
        """The structures' values before and after the child chain."""
        return {"structures_entered": self.entered, "structures_left": self.left}

    def record(self, day: int, output: FloatArray) -> None:
        """Keep the chosen structures' values."""
        self.entered[day], self.left[day] = self._rotation.structure_values(self.baskets)
