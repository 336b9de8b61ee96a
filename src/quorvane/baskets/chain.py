"""The functions of an expression, with who speaks before and a gate behind each."""

from __future__ import annotations

from collections.abc import Iterable
from dataclasses import dataclass
from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane.expressions import Made, Places, Recipe
from quorvane.functions.rotations.virtualization.attendance import Attendance, Gate


@dataclass(frozen=True)
class Chain:
    """What a day's values go through: ``rotations`` in order, of which ``functions`` are named.

    Each function has a gate behind it, so that what a structure that is silent gets from it, or a
    result that is not finite, reaches nothing that comes after.
    """

    functions: tuple[Made, ...]
    places: Places
    attendance: Attendance
    gates: tuple[Gate, ...]

    @property
    def rotations(self) -> list[Any]:
        """The attendance, then each function and its gate."""
        made = [function.rotation for function in self.functions]
        behind = (r for pair in zip(made, self.gates, strict=True) for r in pair)
        return [self.attendance, *behind]

    @property
    def texts(self) -> tuple[str, ...]:
        """The functions as the expression has them."""
        return tuple(function.text for function in self.functions)

    @property
    def only_ready_made(self) -> bool:
        """Whether all functions are the package's own, whose days do not fail half-way."""
        return all(function.is_ready_made for function in self.functions)

    def left(self) -> list[NDArray[np.float64]]:
        """What left each function on the last day, by slot; copies."""
        slots = len(self.attendance._silent_days)
        return [np.array(gate._output_buf[:slots]) for gate in self.gates]

    def forget(self, slots: list[int]) -> None:
        """Take every function's memory of the slots away."""
        self.require("forget")
        self.attendance.forget(slots)
        for function in self.functions:
            if _remembers(function.rotation):
                function.rotation.forget(slots)

    def resize(self, capacity: int) -> None:
        """Let every function have so many slots."""
        self.require("get_state", "set_state", "resize")
        for rotation in self.rotations:
            if hasattr(rotation, "resize"):
                rotation.resize(capacity)

    def require(self, *methods: str) -> None:
        """Raise TypeError for a function that remembers days and lacks one of the methods."""
        lacking = self.lacking(*methods)
        if lacking is not None:
            function, names = lacking
            raise TypeError(
                f"{function.text!r} of the expression has no {', '.join(names)}; one that "
                f"remembers nothing from day to day says stateful = False"
            )

    def lacking(self, *methods: str) -> tuple[Made, list[str]] | None:
        """The first function that remembers days and lacks some of the methods, and which."""
        for function in self.functions:
            names = [name for name in methods if not hasattr(function.rotation, name)]
            if names and _remembers(function.rotation):
                return function, names
        return None


def _remembers(rotation: Any) -> bool:
    # Who says nothing may remember: losing that would give wrong numbers without a word.
    return bool(getattr(rotation, "stateful", True))


def make_chain(recipes: Iterable[Recipe], hold: int | None, places: Places) -> Chain:
    """New functions for so many slots; ValueError or TypeError for what cannot be made."""
    functions = tuple(recipe.make(places) for recipe in recipes)
    attendance = Attendance(hold, N_alloc=places.count)
    gates = tuple(Gate(attendance, N_alloc=places.count) for _ in functions)
    return Chain(functions, places, attendance, gates)
