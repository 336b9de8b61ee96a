"""What a hook reports, looked at closely: the base class makes the best of what makes no sense."""

from __future__ import annotations

import numbers
from collections.abc import Iterable, Iterator, Mapping
from contextlib import contextmanager
from typing import Any

from quorvane.functions.rotations.virtualization.base import VirtualizationBase, VirtualStructure
from quorvane.functions.rotations.virtualization.columns import StructureColumns
from quorvane.functions.rotations.virtualization.planned import PlannedStructures

HOOK = "_refresh_active_structures"


@contextmanager
def first_report_checked(rotation: VirtualizationBase, instruments: int) -> Iterator[None]:
    """Have the report of the rotation's next day looked at, and no other one's.

    The errors come out of that day: a TypeError for what has the wrong shape, a ValueError for a
    leg outside the instruments or a word that is missing.
    """
    if isinstance(rotation, PlannedStructures):
        yield
        return
    hook = getattr(rotation, HOOK)
    own = vars(rotation).get(HOOK)

    def look(*args: Any) -> Any:
        put_back()
        return _looked_at(hook(*args), instruments)

    def put_back() -> None:
        if vars(rotation).get(HOOK) is not look:
            return
        if own is None:
            delattr(rotation, HOOK)
        else:
            setattr(rotation, HOOK, own)

    setattr(rotation, HOOK, look)
    try:
        yield
    finally:
        put_back()


def _looked_at(report: Any, instruments: int) -> Any:
    if isinstance(report, StructureColumns):
        return report
    if isinstance(report, (str, bytes, Mapping)) or not isinstance(report, Iterable):
        raise TypeError(
            f"{HOOK} must return structures, a dict or a VirtualStructure for each, got {report!r}"
        )
    return _checked_items(report, instruments)


def _checked_items(report: Iterable[Any], instruments: int) -> Iterator[Any]:
    """The items as they come: a generator goes on running between them."""
    for place, item in enumerate(report):
        where = f"structure {place} of the report"
        legs, value = _parts(item, where)
        _check_legs(legs, instruments, where)
        if value is None or isinstance(value, str) or not isinstance(value, numbers.Real):
            raise TypeError(
                f"{where}: value must be a number, NaN for a missing one, got {value!r}"
            )
        yield item


def _parts(item: Any, where: str) -> tuple[Any, Any]:
    if isinstance(item, VirtualStructure):
        return item.legs, item.value
    if not isinstance(item, Mapping):
        raise TypeError(f"{where} must be a dict or a VirtualStructure, got {item!r}")
    missing = [word for word in ("key", "legs", "value") if word not in item]
    if missing:
        raise ValueError(f"{where} has no {' and no '.join(map(repr, missing))}, got {item!r}")
    return item["legs"], item["value"]


def _check_legs(legs: Any, instruments: int, where: str) -> None:
    # An iterator can be read once only.
    if isinstance(legs, Iterator):
        return
    for pair in legs if isinstance(legs, Iterable) else [legs]:
        if not isinstance(pair, (tuple, list)) or len(pair) != 2:
            raise TypeError(
                f"{where}: a leg is a pair of instrument number and weight, got {pair!r}"
            )
        number = pair[0]
        if not isinstance(number, numbers.Integral):
            raise TypeError(f"{where}: an instrument is named by its number, got {number!r}")
        if not 0 <= int(number) < instruments:
            raise ValueError(
                f"{where}: a leg must be one of the {instruments} instruments, 0 to "
                f"{instruments - 1}, got {number!r}"
            )
