"""A class of one's own as a part of a chain, and what a function of one's own may return."""

from __future__ import annotations

from typing import Any

import numpy as np
from numpy.typing import NDArray


class OwnClass:
    """Calls a rotation of one's own on each day; all else of it is the rotation's.

    Parameters
    ----------
    name : str
        What errors call it.
    rotation : callable
        Takes the values and returns as many.
    """

    def __init__(self, name: str, rotation: Any) -> None:
        if not callable(rotation):
            raise TypeError(f"{name}: what the class makes must be callable, got {rotation!r}")
        self._name, self._rotation = name, rotation

    def __call__(self, values: NDArray[np.float64], context: Any = None) -> NDArray[np.float64]:
        """One day; what the other functions are told of it besides is not the rotation's."""
        slots = len(values)
        return checked_values(self._name, self._rotation(values, context=None), slots)

    def __getattr__(self, attribute: str) -> Any:
        # Which states and slots it can deal with shows by the methods that it has. What Python asks
        # for in a copy that is not made yet is not there.
        if attribute.startswith("_"):
            raise AttributeError(attribute)
        return getattr(self._rotation, attribute)


def checked_values(name: str, returned: Any, slots: int) -> NDArray[np.float64]:
    """A copy of what a function returned; TypeError or ValueError for what is no number a slot."""
    values = checked_numbers(f"{name}: the function must return values", returned)
    if values.shape != (slots,):
        raise ValueError(
            f"{name}: the function must return values of shape ({slots},), got {values.shape}"
        )
    return values


def checked_numbers(what: str, given: Any) -> NDArray[np.float64]:
    """A copy as float64, NaN where it is masked; TypeError for other than real numbers."""
    array = np.ma.asarray(given) if isinstance(given, np.ma.MaskedArray) else np.asarray(given)
    # Casting drops imaginary parts, and makes numbers of dates.
    if array.dtype.kind not in "biufO":
        raise TypeError(f"{what} that are real numbers, got dtype {array.dtype}")
    numbers = np.array(array, dtype=np.float64)
    numbers[np.ma.getmaskarray(array)] = np.nan
    return numbers
