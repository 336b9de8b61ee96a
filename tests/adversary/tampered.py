"""Rotations whose days are compared while somebody tampers with their tables between the days."""

import numpy as np

from adversary.actions.tampering import SLOTS, WAYS, N
from support.player import Player

TABLES = [
    "slot_by_key", "key_by_slot", "_legs_by_slot", "_metadata_by_slot", "_txi_input",
    "_txi_output", "_structure_N_limit",
]  # fmt: skip


class TamperedRotation(Player):
    """One module's rotation, the masks of its days, and ways to tamper with all of it.

    The hook returns `report`. With `override`, a step is overridden by one that only calls super().
    """

    ways = WAYS

    def __init__(self, module, override, policy, **constructor):
        class Rotation(module.VirtualizationBase):
            _name = "remembering"
            report = ()

            def _refresh_active_structures(self, *args):
                return self.report() if callable(self.report) else self.report

        if override:

            def through_super(self, item):
                return super(Rotation, self)._normalize_structure(item)

            Rotation._normalize_structure = through_super
        rotation = Rotation(
            max_structures=SLOTS,
            transformation_expression="none",
            N_alloc=N,
            unmap_policy=policy,
            **constructor,
        )
        self.N = N
        self.combined = np.zeros(N, dtype=np.uint8)
        self.masks = (np.zeros(N, dtype=np.uint8),)
        self.held = []
        super().__init__(rotation, seen=self.all_of, frames=False)

    def all_of(self, rotation):
        attributes = {name: getattr(rotation, name) for name in TABLES}
        return list(vars(rotation)), attributes, self.held

    def record_day(self):
        """Compute a day and note its outcome and all that it has left behind."""
        self.compute((np.zeros(N),), self.masks, self.combined, np.full(N, 9.0), self.N)
        self.look()

    def tamper(self, way, index):
        try:
            self.ways[way](self, index)
        except (ValueError, LookupError, TypeError, AttributeError) as error:
            self.log.append(repr(error))

    def play(self, steps):
        with np.errstate(all="ignore"):
            return super().play(steps)
