"""What rotations over time do with their memory: hand it out, take it back, resize, forget."""

from __future__ import annotations

import operator
from collections.abc import Iterable
from typing import TYPE_CHECKING, Any, ClassVar

import numpy as np
from numpy.typing import NDArray

if TYPE_CHECKING:
    from quorvane.functions.rotations._boilerplate import RotationBase as _Base
else:
    _Base = object


class Remembering(_Base):
    """The states of a rotation whose memory is some numbers for each column.

    They are rows in ``_memory``, NaN for a column that has seen nothing; ``_derived`` follows from
    them, and ``_position`` says which row is the next day's, where each is a day's.
    """

    _arguments: ClassVar[tuple[str, ...]]

    _memory: NDArray[np.float64]
    _derived: NDArray[np.float64]
    _position: NDArray[np.float64]

    if TYPE_CHECKING:

        def _derive(self, first: int, last: int) -> None: ...

    @property
    def stateful(self) -> bool:
        """True, since a day's output depends on the days before."""
        return True

    def get_state(self) -> dict[str, Any]:
        """Return the arguments, and copies of what is remembered.

        Returns
        -------
        dict
            ``arguments``; ``memory``, rows by columns; and ``position``, the row of the next day.
        """
        return {
            "arguments": self._own_arguments(),
            "memory": self._rows().copy(),
            "position": int(self._position[0]),
        }

    def set_state(self, state: Any) -> None:
        """Install a state that get_state returned.

        Raises
        ------
        ValueError
            It is no such state, or of other arguments or another number of columns. Nothing
            changes.
        """
        if not isinstance(state, dict) or state.keys() != {"arguments", "memory", "position"}:
            raise ValueError(
                f"{self._name}: state must be a dict with the keys 'arguments', 'memory' and "
                f"'position', got {state!r}"
            )
        if state["arguments"] != self._own_arguments():
            raise ValueError(
                f"{self._name}: state['arguments'] must be {self._own_arguments()}, "
                f"got {state['arguments']!r}"
            )
        memory = np.array(state["memory"], dtype=np.float64)
        rows = self._rows()
        if memory.shape != rows.shape:
            raise ValueError(
                f"{self._name}: state['memory'] must have shape {rows.shape}, got {memory.shape}"
            )
        position = state["position"]
        if isinstance(position, bool) or not isinstance(position, int) or position < 0:
            raise ValueError(
                f"{self._name}: state['position'] must be an int from 0 on, got {position!r}"
            )
        self._check(memory, position)
        self._install(memory, self._derived_rows(), position)

    def resize(self, new_N_alloc: int) -> None:
        """Change the number of columns; those that stay keep what they remember."""
        rows, derived_rows = self._rows(), self._derived_rows()
        super().resize(new_N_alloc)
        memory = np.full((len(rows), new_N_alloc), np.nan)
        kept = min(new_N_alloc, rows.shape[1])
        memory[:, :kept] = rows[:, :kept]
        self._install(memory, derived_rows, int(self._position[0]))

    def forget(self, slots: Iterable[int]) -> None:
        """Make columns such as have seen nothing; the others stay.

        Raises
        ------
        IndexError
            One is negative, or not below the number of columns. Nothing changes.
        """
        rows = self._rows()
        numbers = [operator.index(slot) for slot in slots]
        for slot in numbers:
            if not 0 <= slot < rows.shape[1]:
                raise IndexError(
                    f"{self._name}: slots must be from 0 to {rows.shape[1] - 1}, got {slot}"
                )
        for slot in numbers:
            rows[:, slot] = np.nan
            self._derive(slot, slot + 1)

    def _check(self, memory: NDArray[np.float64], position: int) -> None:
        """Raise ValueError for what no history leaves behind."""
        if position >= len(memory):
            raise ValueError(
                f"{self._name}: state['position'] must be below {len(memory)}, got {position}"
            )

    def _install(self, memory: NDArray[np.float64], derived_rows: int, position: int) -> None:
        self._derived = np.full(derived_rows * memory.shape[1], np.nan)
        # A copy and no view: a history takes only arrays that share their memory with no other.
        self._memory, self._position = np.array(memory.reshape(-1)), np.array([float(position)])
        self._derive(0, memory.shape[1])

    def _rows(self) -> NDArray[np.float64]:
        return self._memory.reshape(-1, self._columns())

    def _derived_rows(self) -> int:
        return len(self._derived) // self._columns()

    def _columns(self) -> int:
        assert self._n_alloc is not None
        return self._n_alloc

    def _own_arguments(self) -> dict[str, Any]:
        return {name: getattr(self, name) for name in self._arguments}
