"""Lists of baskets, and the days from which each holds."""

from __future__ import annotations

import hashlib
from collections.abc import Hashable, Sequence
from dataclasses import dataclass
from functools import cached_property

import numpy as np
from numpy.typing import NDArray

from quorvane.functions.rotations.virtualization.columns import StructureColumns

Key = tuple[Hashable, ...]
Dates = NDArray[np.datetime64]


def key_of(basket: Hashable) -> Key:
    """The key of a basket's slot: a tuple of its name alone, whatever that is."""
    return (basket,)


@dataclass(frozen=True, eq=False)
class Listing:
    """Baskets and their legs over numbered instruments; those of basket i begin at offset i."""

    baskets: tuple[Hashable, ...]
    offsets: NDArray[np.int64]
    leg_ids: NDArray[np.int64]
    weights: NDArray[np.float64]

    @cached_property
    def keys(self) -> tuple[Key, ...]:
        """The keys of the baskets' slots."""
        return tuple(map(key_of, self.baskets))

    @cached_property
    def columns(self) -> StructureColumns:
        """What is reported on each day, with other values."""
        return StructureColumns(
            keys=self.keys,
            offsets=self.offsets,
            leg_ids=self.leg_ids,
            weights=self.weights,
            values=np.full(len(self.keys), np.nan),
        )

    def present(self, row: NDArray[np.float64]) -> NDArray[np.bool_]:
        """Whether no leg of each basket is missing on a day."""
        missing = np.add.reduceat(np.isnan(row[self.leg_ids]), self.offsets[:-1])
        return np.equal(missing, 0)

    def part(self, chosen: NDArray[np.bool_]) -> Listing:
        """Some of the baskets, in the same order."""
        sizes = np.diff(self.offsets)
        legs = np.repeat(chosen, sizes)
        return Listing(
            baskets=tuple(b for b, wanted in zip(self.baskets, chosen, strict=True) if wanted),
            offsets=np.concatenate([[0], np.cumsum(sizes[chosen])]).astype(np.int64),
            leg_ids=self.leg_ids[legs],
            weights=self.weights[legs],
        )

    def digest(self, instruments: Sequence[Hashable]) -> bytes:
        """What two listings have in common only when they are the same."""
        named = [repr(instruments[i]) for i in self.leg_ids.tolist()]
        content = repr((self.baskets, self.offsets.tolist(), named)).encode()
        return hashlib.blake2b(content + self.weights.tobytes(), digest_size=16).digest()


NO_BASKETS = Listing((), np.zeros(1, np.int64), np.empty(0, np.int64), np.empty(0))


@dataclass(frozen=True, eq=False)
class Book:
    """The listings in order, each from the first day on or after its date until the next.

    Without dates there is one listing, which always holds.
    """

    instruments: tuple[Hashable, ...]
    listings: tuple[Listing, ...]
    dates: Dates | None = None
    is_utc: bool = False

    @cached_property
    def baskets(self) -> tuple[Hashable, ...]:
        """All baskets, in the order in which they first come."""
        return tuple(dict.fromkeys(b for listing in self.listings for b in listing.baskets))

    @property
    def is_dated(self) -> bool:
        """Whether other baskets hold on other days."""
        return self.dates is not None

    @cached_property
    def used(self) -> NDArray[np.bool_]:
        """Whether each instrument is a leg of any basket."""
        used = np.zeros(len(self.instruments), dtype=bool)
        for listing in self.listings:
            used[listing.leg_ids] = True
        return used

    def in_force(self, dates: Dates | None, rows: int) -> NDArray[np.intp]:
        """The number of the listing that holds on each day, -1 for none yet."""
        if self.dates is None or dates is None:
            return np.zeros(rows, dtype=np.intp)
        return np.asarray(np.searchsorted(self.dates, dates, side="right") - 1, dtype=np.intp)

    def listing(self, number: int) -> Listing:
        """The listing of a number that in_force gave."""
        return NO_BASKETS if number < 0 else self.listings[number]
