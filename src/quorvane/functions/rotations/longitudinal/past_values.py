"""A column's number of some days ago, and how far today is from it."""

from __future__ import annotations

from typing import ClassVar

from quorvane.functions.rotations.longitudinal import _over_time
from quorvane.functions.rotations.longitudinal.remembering import Remembering

__all__ = ["Delay", "Diff"]


class Delay(Remembering, _over_time.Delay):
    """Each column's number of ``days`` days ago, as ``pandas.DataFrame.shift(days)``.

    Parameters
    ----------
    days : int
        At least 1.
    N_alloc : int
        The number of columns.
    """

    _arguments: ClassVar[tuple[str, ...]] = ("days",)


class Diff(Remembering, _over_time.Diff):
    """How far each column is above its number of ``days`` days ago, as ``pandas``' ``diff(days)``.

    Parameters
    ----------
    days : int
        At least 1.
    N_alloc : int
        The number of columns.
    """

    _arguments: ClassVar[tuple[str, ...]] = ("days",)
