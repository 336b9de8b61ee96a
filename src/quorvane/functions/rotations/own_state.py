"""Attributes of one's own, saved with a rotation's state."""

from __future__ import annotations

import copy
from typing import TYPE_CHECKING, Any

if TYPE_CHECKING:
    from quorvane.functions.rotations._boilerplate import RotationBase as _Base
else:
    _Base = object


class OwnState(_Base):
    """Saves attributes of one's own with a rotation's state; it stands before the rotation's class.

    A subclass says with two hooks what that is: `get_own_state` gives it, `set_own_state` takes it
    back. Snapshots, stores, ``checkpoint`` and ``recover`` then keep both.

    Examples
    --------
    >>> import numpy as np
    >>> import quorvane as qv
    >>> class Counting(qv.OwnState, qv.FixedBaskets):
    ...     days = 0
    ...
    ...     def __call__(self, *inputs, context=None):
    ...         self.days += 1
    ...         return super().__call__(*inputs, context=context)
    ...
    ...     def get_own_state(self):
    ...         return {"days": self.days}
    ...
    ...     def set_own_state(self, state):
    ...         self.days = state["days"]
    >>> counting = Counting({"a": {"KO": 1.0}}, ["KO"], transformation_expression="none")
    >>> counting(np.ones(1))
    array([1.])
    >>> counting.get_state()["own"]
    {'days': 1}
    """

    def __init_subclass__(cls, **keywords: Any) -> None:
        """Refuse a class in which the rotation's class stands before this one.

        Its methods would be found first, and what is one's own would be lost without a word.
        """
        super().__init_subclass__(**keywords)
        for each in cls.__mro__[: cls.__mro__.index(OwnState)]:
            if not issubclass(each, OwnState) and "get_state" in vars(each):
                raise TypeError(f"{cls.__name__}: OwnState must stand before {each.__name__}")

    def get_own_state(self) -> Any:
        """Return what is to be saved: plain Python objects and arrays."""
        raise NotImplementedError(f"{type(self).__name__} must define get_own_state()")

    def set_own_state(self, state: Any) -> None:
        """Take back what get_own_state returned; a copy, which may be kept."""
        raise NotImplementedError(f"{type(self).__name__} must define set_own_state(state)")

    def get_state(self) -> dict[str, Any]:
        """Return the rotation's state, with one's own under ``"own"``."""
        return {**super().get_state(), "own": self.get_own_state()}

    def set_state(self, state: Any) -> None:
        """Install a state that get_state returned; where either part fails, neither changes.

        Raises
        ------
        ValueError
            Nothing of one's own is in it, or the rotation refuses it. What `set_own_state` raises
            comes out as well.
        """
        if not isinstance(state, dict) or "own" not in state:
            raise ValueError(f"{self._name}: state must be a dict with the key 'own'")
        own_before = copy.deepcopy(self.get_own_state())
        before = copy.deepcopy(super().get_state())
        super().set_state({key: value for key, value in state.items() if key != "own"})
        try:
            self.set_own_state(copy.deepcopy(state["own"]))
        except BaseException:
            super().set_state(before)
            self.set_own_state(own_before)
            raise
