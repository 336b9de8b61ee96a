"""What a replay keeps of each day, as arrays whose first axis is the days."""

from __future__ import annotations

from collections.abc import Sequence
from typing import Any, Protocol

import numpy as np
from numpy.typing import NDArray

from quorvane.cli.basket_days import BasketDays

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
    """What entered and what left the expression, for some of the structures."""

    sees_each_day = True

    def __init__(self, days: BasketDays, keys: Sequence[str]) -> None:
        self._days = days
        self.keys = list(keys)
        self.entered = np.full((len(days.inputs), len(self.keys)), np.nan)
        self.left = np.full((len(days.inputs), len(self.keys)), np.nan)

    @property
    def arrays(self) -> dict[str, NDArray[Any]]:
        """The structures' values before and after the child chain."""
        return {"structures_entered": self.entered, "structures_left": self.left}

    def record(self, day: int, output: FloatArray) -> None:
        """Keep the chosen structures' values."""
        self.entered[day], self.left[day] = self._days.structure_values(self.keys)
