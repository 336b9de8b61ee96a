"""Which structure has which slot, and whose slots can be given away."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
from numpy.typing import NDArray

from quorvane.baskets.listing import Key, Listing
from quorvane.baskets.rotation import BasketRotation


@dataclass(frozen=True)
class SlotUsage:
    """How full the room for structures is.

    Attributes
    ----------
    speaking : int
        Structures that spoke on the last day.
    known : int
        Structures that have a slot.
    capacity : int
        Slots in all.
    """

    speaking: int
    known: int
    capacity: int


def usage(rotation: BasketRotation) -> SlotUsage:
    """The present usage of a rotation's slots."""
    return SlotUsage(
        speaking=int(np.count_nonzero(rotation.chain.attendance.speaking())),
        known=len(rotation.slot_by_key),
        capacity=rotation.max_structures,
    )


class SlotKeeper:
    """Finds slots for new structures, of which the silent ones give theirs."""

    def __init__(self, rotation: BasketRotation, *, may_reclaim: bool) -> None:
        self._rotation = rotation
        self._may_reclaim = may_reclaim

    def missing(self, keys: tuple[Key, ...]) -> list[Key]:
        """Those without a slot."""
        return [key for key in keys if key not in self._rotation.slot_by_key]

    def free(self) -> int:
        """Slots that no structure ever had."""
        return self._rotation.max_structures - len(self._rotation.slot_by_key)

    def make_room(self, listing: Listing) -> bool:
        """Give the slots of ended structures to the new ones that find no free one.

        False, and nothing changes, where that is not enough.
        """
        new = self.missing(listing.keys)
        homeless = new[self.free() :]
        silent = self.silent_slots(set(listing.keys))
        if len(silent) < len(homeless):
            return False
        # The free slots go to the first of the new ones, when they are reported.
        for key, slot in zip(homeless, silent, strict=False):
            self._rotation.give_slot(slot, key)
        return True

    def silent_slots(self, wanted: set[Key]) -> list[int]:
        """Slots to be had whose structure would be silent today, longest first; no wanted one's."""
        if not self._may_reclaim:
            return []
        days = self._days_without_a_value()
        slots = [
            slot
            for slot, key in self._rotation.key_by_slot.items()
            if key not in wanted and days[slot] > self._hold
        ]
        return sorted(slots, key=lambda slot: (-days[slot], slot))

    def held_keys(self) -> set[Key]:
        """The structures that would speak today without a value."""
        days = self._days_without_a_value()
        return {key for slot, key in self._rotation.key_by_slot.items() if days[slot] <= self._hold}

    @property
    def _hold(self) -> float:
        hold = self._rotation.chain.attendance.hold
        return np.inf if hold is None else hold

    def _days_without_a_value(self) -> NDArray[np.float64]:
        """By slot, with today, and more than any hold for one that never spoke."""
        days: NDArray[np.float64] = self._rotation.chain.attendance.silent_days + 1.0
        days[np.isnan(days)] = np.finfo(np.float64).max
        return days
