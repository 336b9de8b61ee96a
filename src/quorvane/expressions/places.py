"""What functions are made for: so many slots, and the groups of the structures that have them."""

from __future__ import annotations

from collections.abc import Hashable, Iterable, Mapping
from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane.hints import did_you_mean
from quorvane.tables.names import listed

Labels = Mapping[str, Mapping[Hashable, Any]]


class Places:
    """A number of slots, and for each function that goes by groups the group of each slot.

    Parameters
    ----------
    count : int
        Slots.
    labels : mapping
        ``{name: {structure: label}}``.
    """

    def __init__(self, count: int, labels: Labels) -> None:
        self.count = count
        self._labels = labels
        self._codes: dict[str, dict[Hashable, int]] = {}
        self._groups: dict[str, NDArray[np.int64]] = {}

    def groups(self, by: object) -> NDArray[np.int64]:
        """The group of each slot by a label, -1 for none: one array, which is kept up to date.

        Raises
        ------
        TypeError
            ``by`` is not a str.
        ValueError
            There are no labels of that name.
        """
        if not isinstance(by, str):
            raise TypeError(f"by must be the name of a label, got {by!r}")
        if by not in self._labels:
            known = f"known are {listed(self._labels)}" if self._labels else "none are given"
            hint = did_you_mean(by, self._labels) or known
            raise ValueError(f"labels: there is no {by!r}; {hint}")
        if by not in self._groups:
            numbers: dict[Any, int] = {}
            self._codes[by] = {
                structure: numbers.setdefault(label, len(numbers))
                for structure, label in self._labels[by].items()
            }
            self._groups[by] = np.full(self.count, -1, dtype=np.int64)
        return self._groups[by]

    @property
    def has_groups(self) -> bool:
        """Whether any function goes by groups."""
        return bool(self._groups)

    def require_labels(self, structures: Iterable[Hashable]) -> None:
        """Raise ValueError for structures without a label that some function goes by."""
        if not self._codes:
            return
        structures = tuple(structures)
        for by, codes in self._codes.items():
            missing = [each for each in structures if each not in codes]
            if missing:
                raise ValueError(f"labels: {by!r} has none for {listed(missing, most=10)}")

    def assign(self, slot: int, structure: Hashable) -> None:
        """Let a slot be a structure's."""
        for by, codes in self._codes.items():
            self._groups[by][slot] = codes.get(structure, -1)
