"""A point on the way of baskets, from which others go on as often as wanted."""

from __future__ import annotations

import copy
from dataclasses import dataclass
from typing import TYPE_CHECKING, Any

import numpy as np
from numpy.typing import NDArray

if TYPE_CHECKING:
    from quorvane.baskets.front import Baskets


@dataclass(frozen=True)
class Waypoint:
    """Where baskets stood: plain data that nothing changes any more, and that can be pickled.

    Attributes
    ----------
    apart : Baskets
        The baskets without their rotation.
    state : dict
        What the rotation remembers.
    last_rows : list of ndarray
        What went through the functions on the last day, for explanations.
    """

    apart: Baskets
    state: Any
    last_rows: list[NDArray[np.float64]]
    capacity: int

    @classmethod
    def of(cls, baskets: Baskets) -> Waypoint:
        """Where these baskets stand now.

        Raises
        ------
        TypeError
            A function of one's own remembers days and cannot say what.
        """
        course = baskets._course
        assert course is not None
        course.refuse_spoilt()
        rotation = course.rotation
        rotation.chain.require("get_state", "set_state")
        apart = _other(baskets)
        apart._course = None
        return cls(apart, rotation.get_state(), rotation.last_rows(), rotation.max_structures)

    def baskets(self) -> Baskets:
        """New baskets that go on from here by themselves."""
        baskets = _other(self.apart)
        book = baskets._book
        assert book is not None
        rotation = baskets._new_course(book).rotation
        if rotation.max_structures != self.capacity:
            rotation = rotation.fresh(capacity=self.capacity)
        # A function of one's own may keep the very arrays that it is given.
        rotation.set_state(
            self.state if rotation.chain.only_ready_made else copy.deepcopy(self.state)
        )
        rotation.show_last_rows(self.last_rows)
        baskets._continue(book, rotation, baskets._standing)
        return baskets


def _other(baskets: Baskets) -> Baskets:
    """A shallow copy with a standing of its own, which a day would change in place."""
    other = copy.copy(baskets)
    other._standing = copy.copy(baskets._standing)
    return other
