"""Who speaks today: a count of silent days that a rotation keeps with its state."""

from __future__ import annotations

from collections.abc import Sequence
from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane.functions.rotations.virtualization._attendance import AttendanceCount, Gate

# A double counts no further; a longer hold is for ever.
MOST_DAYS = 2**53

__all__ = ["Attendance", "Gate"]


class Attendance(AttendanceCount):
    """Counts for each structure the days since it last had a value; values go through as they are.

    It stands first in a chain of child rotations, and a `Gate` behind each of the others. A
    structure speaks on the days on which it has a value and on up to ``hold`` days after; what a
    gate finds of the others it makes missing.

    Parameters
    ----------
    hold : int or None
        Consecutive days; for ever with None.
    N_alloc : int
        The number of slots.
    """

    @property
    def stateful(self) -> bool:
        """True, since who speaks depends on the days before."""
        return True

    @property
    def silent_days(self) -> NDArray[np.float64]:
        """Days without a value by slot, NaN for one that never had one; a copy."""
        return self._silent_days.copy()

    def speaking(self) -> NDArray[np.bool_]:
        """Whether each slot spoke on the last day."""
        seen = ~np.isnan(self._silent_days)
        return (
            seen if self.hold is None else seen & (self._silent_days <= min(self.hold, MOST_DAYS))
        )

    def get_state(self) -> dict[str, Any]:
        """Return the hold and a copy of the count."""
        return {"hold": self.hold, "silent_days": self.silent_days}

    def set_state(self, state: Any) -> None:
        """Install a state that get_state returned.

        Raises
        ------
        ValueError
            It is of another hold or number of slots, or holds what is no count. Nothing changes.
        """
        if not isinstance(state, dict) or state.keys() != {"hold", "silent_days"}:
            raise ValueError(
                f"attendance: state must be a dict with the keys 'hold' and 'silent_days', "
                f"got {state!r}"
            )
        if state["hold"] != self.hold:
            raise ValueError(f"attendance: hold must be {self.hold!r}, got {state['hold']!r}")
        silent_days = np.array(state["silent_days"], dtype=np.float64)
        if silent_days.shape != self._silent_days.shape:
            raise ValueError(
                f"attendance: silent_days must have shape {self._silent_days.shape}, "
                f"got {silent_days.shape}"
            )
        if np.count_nonzero(silent_days < 0.0):
            raise ValueError("attendance: silent_days must not be negative")
        self._silent_days = silent_days

    def resize(self, new_N_alloc: int) -> None:
        """Change the number of slots; those that stay keep their count."""
        super().resize(new_N_alloc)
        silent_days = np.full(new_N_alloc, np.nan)
        kept = min(new_N_alloc, len(self._silent_days))
        silent_days[:kept] = self._silent_days[:kept]
        self._silent_days = silent_days

    def forget(self, slots: Sequence[int]) -> None:
        """Make the slots such as never had a value."""
        self._silent_days[list(slots)] = np.nan
