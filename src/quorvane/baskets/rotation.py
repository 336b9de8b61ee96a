"""The rotation behind the layer, and how it is moved into more room."""

from __future__ import annotations

import copy
from collections.abc import Iterable, Sequence
from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane.baskets.chain import Chain, make_chain
from quorvane.baskets.listing import NO_BASKETS, Key
from quorvane.baskets.settings import Settings
from quorvane.expressions import Places
from quorvane.functions.rotations.virtualization.planned import PlannedStructures


class BasketRotation(PlannedStructures):
    """Listings of baskets through a chain with gates; ``_columns`` is what holds."""

    _name = "baskets"

    def __init__(self, settings: Settings, *, capacity: int, instruments: int) -> None:
        places = Places(capacity, settings.labels)
        self.chain: Chain = make_chain(settings.recipes, settings.hold, places)
        super().__init__(
            max_structures=capacity,
            transformation_expression="none",
            N_alloc=max(instruments, 1),
            unmap_policy=settings.policy,
            child_rotations=self.chain.rotations,
        )
        self._settings = settings
        self._instruments = tuple(map(str, range(instruments)))
        self._columns = NO_BASKETS.columns

    def fresh(
        self, *, capacity: int | None = None, instruments: int | None = None
    ) -> BasketRotation:
        """One that has seen nothing, with room for as much or for what is asked."""
        return BasketRotation(
            self._settings,
            capacity=self.max_structures if capacity is None else capacity,
            instruments=len(self._instruments) if instruments is None else instruments,
        )

    def in_room(
        self, capacity: int, instruments: int, places: Sequence[int] | None = None
    ) -> BasketRotation:
        """One in the same state with more room, and with instrument i at ``places[i]``.

        A function that cannot be resized says so.
        """
        self.chain.require("get_state", "set_state", "resize")
        smaller = self.fresh()
        smaller.set_state(self.get_state())
        smaller.chain.resize(capacity)
        state = smaller.get_state()
        larger = self.fresh(capacity=capacity, instruments=instruments)
        state["constructor"] = larger.get_state()["constructor"]
        state["structure_N_limit"] = larger._structure_N_limit
        more = capacity - self.max_structures
        state["structure_metadata_by_slot"] += [{"active": False} for _ in range(more)]
        if places is not None:
            _renumber(state, places)
        larger.set_state(state)
        larger._columns = self._columns
        larger.show_last_rows(self.last_rows())
        return larger

    def last_rows(self) -> list[NDArray[np.float64]]:
        """What entered, left each function and left the chain on the last day; copies."""
        return [self._txi_input.copy(), *self.chain.left(), np.array(self._txi_output)]

    def show_last_rows(self, rows: Sequence[NDArray[np.float64]]) -> None:
        """Look as after a day of these rows, which may be shorter."""
        gates = [gate._output_buf for gate in self.chain.gates]
        self._txi_output = np.full(self.max_structures, np.nan)
        for shown, row in zip([self._txi_input, *gates, self._txi_output], rows, strict=True):
            shown[:] = np.nan
            shown[: len(row)] = row

    def get_state(self) -> dict[str, Any]:
        """Return a state, as the base class does; nothing in it changes any more."""
        state = super().get_state()
        if not self.chain.only_ready_made:
            # A function of one's own may hand out the very arrays that its next day writes to.
            state["child_states"] = copy.deepcopy(state["child_states"])
        return state

    def set_state(self, state: Any) -> None:
        """Install a state, as the base class does; groups follow from who has which slot."""
        super().set_state(state)
        self.label_slots()

    def label_slots(self) -> None:
        """Tell the functions that go by groups whose each slot is."""
        if self.chain.places.has_groups:
            for (basket,), slot in self.slot_by_key.items():
                self.chain.places.assign(slot, basket)

    def expect(self, keys: Iterable[Key]) -> None:
        """Tell those functions whose slots will be next, as they are given to new structures."""
        if not self.chain.places.has_groups:
            return
        new = dict.fromkeys(key for key in keys if key not in self.slot_by_key)
        for slot, (basket,) in enumerate(new, start=len(self.slot_by_key)):
            self.chain.places.assign(slot, basket)

    def give_slot(self, slot: int, key: tuple[Any, ...]) -> None:
        """The slot is another structure's from now on, and nothing of the old one is left."""
        del self.slot_by_key[self.key_by_slot[slot]]
        self.slot_by_key[key] = slot
        self.key_by_slot[slot] = key
        self.chain.forget([slot])
        self.chain.places.assign(slot, key[0])


def _renumber(state: dict[str, Any], places: Sequence[int]) -> None:
    """Let the legs of a state be of other numbers, instrument i of ``places[i]``."""

    def moved(legs: Any) -> tuple[tuple[int, float], ...]:
        return tuple((places[number], weight) for number, weight in legs)

    state["legs_by_slot"] = {slot: moved(legs) for slot, legs in state["legs_by_slot"].items()}
    state["structure_metadata_by_slot"] = [
        {**entry, "legs": moved(entry["legs"])} if "legs" in entry else entry
        for entry in state["structure_metadata_by_slot"]
    ]
