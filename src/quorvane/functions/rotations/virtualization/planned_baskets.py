"""Keyed baskets over named instruments that change on days which are known beforehand."""

from __future__ import annotations

from collections.abc import Callable, Hashable, Iterable, Mapping
from typing import Any

from quorvane.functions.rotations.virtualization._named_baskets import (
    Baskets,
    NamedBaskets,
    columns_of,
    instrument_names,
    resolve_baskets,
)


class PlannedBaskets(NamedBaskets):
    """Baskets of which others hold from some days on: a rebalancing that is known beforehand.

    The day is the context's ``current_day_index``: ``batch_reference`` counts from 0, a call
    without a context is of day 0. A key keeps its slot on all days. One whose basket is gone is
    missing from then on, which a child such as ``ewma`` answers with its last average: that goes on
    reaching the basket's instruments, as it does for any structure that is reported no more.

    Parameters
    ----------
    plan:
        First day to baskets, as a mapping or as an iterable of pairs. They hold until the next
        first day. The days are distinct ints from 0 on, and the earliest must be 0; baskets are as
        ``FixedBaskets`` takes them.
    instruments:
        The names of the input's columns, in column order, each once.
    transformation_expression:
        The child rotations, for example ``"ewma(20);rank"``, or ``"none"``.
    max_structures:
        Number of slots, at least the number of keys of all days, which is the default.
    unmap_policy, N_alloc, child_factories, child_rotations, trace_sink, **parameters:
        As ``FixedBaskets`` takes them.

    Raises
    ------
    TypeError
        A day, a key, a name, a weight or a whole argument is of the wrong type.
    ValueError
        A day below 0 or twice, no baskets for day 0, or what ``FixedBaskets`` refuses.

    Examples
    --------
    >>> import numpy as np
    >>> from quorvane.functions.rotations.virtualization.planned_baskets import PlannedBaskets
    >>> pairs = PlannedBaskets(
    ...     {0: {"a": {"KO": 1.0}}, 2: {"a": {"PEP": 1.0}, "b": {"KO": 1.0, "PEP": -1.0}}},
    ...     ["KO", "PEP"],
    ...     transformation_expression="none",
    ... )
    >>> pairs.batch_reference(np.ones((3, 2)))
    array([[ 1., nan],
           [ 1., nan],
           [ 0.,  1.]])
    """

    _name = "planned_baskets"

    def __init__(
        self,
        plan: Mapping[int, Baskets] | Iterable[tuple[int, Baskets]],
        instruments: Iterable[str],
        *,
        transformation_expression: str,
        max_structures: int | None = None,
        unmap_policy: str = "proportional",
        N_alloc: int | None = None,
        child_factories: Iterable[Callable[..., Any]] | None = None,
        child_rotations: Iterable[Any] | None = None,
        trace_sink: Any = None,
        **parameters: Any,
    ) -> None:
        names = instrument_names(instruments)
        by_name = {name: column for column, name in enumerate(names)}
        resolved = {
            day: resolve_baskets(baskets, by_name) for day, baskets in _days_of(plan).items()
        }
        keys = tuple(dict.fromkeys(key for baskets in resolved.values() for key in baskets))
        super().__init__(
            names,
            len(keys),
            "keys",
            max_structures=max_structures,
            transformation_expression=transformation_expression,
            N_alloc=N_alloc,
            unmap_policy=unmap_policy,
            child_factories=child_factories,
            child_rotations=child_rotations,
            trace_sink=trace_sink,
            **parameters,
        )
        self._keys = keys
        self._columns = tuple((day, columns_of(baskets)) for day, baskets in resolved.items())

    @property
    def keys(self) -> tuple[tuple[Hashable, ...], ...]:
        """The keys of all days as tuples, in the order in which they first come."""
        return self._keys


def _days_of(plan: Any) -> dict[int, Baskets]:
    """The baskets by day, the days in order."""
    if isinstance(plan, (str, bytes)) or not isinstance(plan, Iterable):
        raise TypeError(f"plan must be a mapping or pairs of first day and baskets, got {plan!r}")
    days: dict[int, Baskets] = {}
    for day, baskets in plan.items() if isinstance(plan, Mapping) else plan:
        if isinstance(day, bool) or not isinstance(day, int):
            raise TypeError(f"plan: a first day must be an int, got {day!r}")
        if day < 0:
            raise ValueError(f"plan: a first day must be at least 0, got {day!r}")
        if day in days:
            raise ValueError(f"plan: first day {day!r} is given twice")
        days[int(day)] = baskets
    if 0 not in days:
        raise ValueError("plan must have baskets for day 0")
    return dict(sorted(days.items()))
