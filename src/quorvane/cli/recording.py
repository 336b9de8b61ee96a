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
    def sees_each_day(self) -> bool:
        """Whether it looks at the rotation, as each day has left it."""

    @property
    def arrays(self) -> dict[str, NDArray[Any]]:
        """The arrays by name, each with one row per day."""

    def record(self, day: int, output: FloatArray) -> None:
        """Keep what is wanted of the days that were just computed.

        A row of ``output`` is one of them; the first is ``day``.
        """


class OutputRecorder:
    """The instrument-space output, one row per day."""

    sees_each_day = False

    def __init__(self, days: int, instruments: int) -> None:
        self.output = np.full((days, instruments), np.nan)

    @property
    def arrays(self) -> dict[str, NDArray[Any]]:
        """The output rows."""
        return {"output": self.output}

    def record(self, day: int, output: FloatArray) -> None:
        """Keep the days' outputs."""
        self.output[day : day + len(output)] = output


class StructureRecorder:
    """What entered and what left the child chain, for some of the structures."""

    sees_each_day = True

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
