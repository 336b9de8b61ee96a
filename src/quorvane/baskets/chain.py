"""The functions of an expression, with who speaks before and a gate behind each."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane.functions.rotations.virtualization import base
from quorvane.functions.rotations.virtualization.attendance import Attendance, Gate

READY_MADE = "quorvane.functions."


@dataclass(frozen=True)
class Chain:
    """What a day's values go through: ``rotations`` in order, of which ``functions`` are named.

    Each function has a gate behind it, so that what a structure that is silent gets from it
    reaches nothing that comes after.
    """

    texts: tuple[str, ...]
    functions: tuple[Any, ...]
    attendance: Attendance
    gates: tuple[Gate, ...]

    @property
    def rotations(self) -> list[Any]:
        """The attendance, then each function and its gate."""
        behind = (r for pair in zip(self.functions, self.gates, strict=True) for r in pair)
        return [self.attendance, *behind]

    @property
    def only_ready_made(self) -> bool:
        """Whether all functions are the package's own, whose days do not fail half-way."""
        return all(type(f).__module__.startswith(READY_MADE) for f in self.functions)

    def left(self) -> list[NDArray[np.float64]]:
        """What left each function on the last day, by slot; copies."""
        slots = len(self.attendance._silent_days)
        return [np.array(gate._output_buf[:slots]) for gate in self.gates]

    def forget(self, slots: list[int]) -> None:
        """Take every function's memory of the slots away."""
        for rotation in (self.attendance, *self.functions):
            if not getattr(rotation, "stateful", False):
                continue
            if not hasattr(rotation, "forget"):
                raise TypeError(f"{rotation!r} has no forget(slots), so no slot can be reclaimed")
            rotation.forget(slots)


def make_chain(expression: str, hold: int | None, capacity: int) -> Chain:
    """New functions for so many slots; the errors of the expression are the base class's own."""
    functions = _Parser(
        max_structures=capacity, transformation_expression=expression, N_alloc=1
    ).child_rotations
    attendance = Attendance(hold, N_alloc=capacity)
    gates = tuple(Gate(attendance, N_alloc=capacity) for _ in functions)
    return Chain(_texts(expression), tuple(functions), attendance, gates)


class _Parser(base.VirtualizationBase):
    """Only to have an expression read."""

    _name = "baskets"


def _texts(expression: str) -> tuple[str, ...]:
    tokens = (token.strip() for token in expression.split(";"))
    identities = base._IDENTITY_EXPRESSIONS
    return tuple(
        token for token in tokens if token and token.removesuffix("()").lower() not in identities
    )
