"""A plain function as a part of a chain: its state is kept for it."""

from __future__ import annotations

from collections.abc import Callable, Sequence
from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane.expressions.own_classes import checked_numbers, checked_values

Floats = NDArray[np.float64]


class PlainFunction:
    """Calls ``function(values, state, **arguments)`` on each day, and keeps what it returns.

    Parameters
    ----------
    name : str
        What errors call it.
    function : callable
        Returns the new values and the new state.
    arguments : dict
        Its keywords.
    N_alloc : int
        The number of slots.
    """

    stateful = True

    def __init__(
        self, name: str, function: Callable[..., Any], arguments: dict[str, Any], N_alloc: int
    ) -> None:
        self._name, self._function, self._arguments = name, function, arguments
        self._slots = N_alloc
        self._state: dict[str, Floats] | None = None

    def __call__(self, values: Floats, context: Any = None) -> Floats:
        """One day; the function may do with both what it likes."""
        result = self._function(np.array(values), _copied(self._state), **self._arguments)
        if not isinstance(result, tuple) or len(result) != 2:
            raise TypeError(
                f"{self._name}: the function must return (values, state), "
                f"got {type(result).__name__}"
            )
        output = checked_values(self._name, result[0], self._slots)
        self._state = self._checked(result[1])
        return output

    def get_state(self) -> dict[str, Any]:
        """Return a copy of the function's state."""
        return {"state": _copied(self._state)}

    def set_state(self, state: Any) -> None:
        """Install a state that get_state returned; ValueError for anything else."""
        if not isinstance(state, dict) or state.keys() != {"state"}:
            raise ValueError(f"{self._name}: state must be a dict with the key 'state'")
        self._state = self._checked(state["state"])

    def resize(self, new_N_alloc: int) -> None:
        """Change the number of slots; new ones are NaN in the state."""
        kept = min(self._slots, new_N_alloc)
        self._slots = new_N_alloc
        for key, old in (self._state or {}).items():
            array = np.full((new_N_alloc, *old.shape[1:]), np.nan)
            array[:kept] = old[:kept]
            assert self._state is not None
            self._state[key] = array

    def forget(self, slots: Sequence[int]) -> None:
        """Make some slots NaN in the state."""
        for array in (self._state or {}).values():
            array[list(slots)] = np.nan

    def _checked(self, state: Any) -> dict[str, Floats] | None:
        if state is None:
            return None
        if not isinstance(state, dict) or not all(isinstance(key, str) for key in state):
            raise TypeError(
                f"{self._name}: the state must be None or a dict of arrays by name, got {state!r}"
            )
        arrays = {
            key: checked_numbers(f"{self._name}: state[{key!r}] must hold values", value)
            for key, value in state.items()
        }
        for key, array in arrays.items():
            if array.shape[:1] != (self._slots,):
                raise ValueError(
                    f"{self._name}: state[{key!r}] must have an entry for each of {self._slots} "
                    f"slots, got shape {array.shape}"
                )
        return arrays


def _copied(state: dict[str, Floats] | None) -> dict[str, Floats] | None:
    return None if state is None else {key: array.copy() for key, array in state.items()}
