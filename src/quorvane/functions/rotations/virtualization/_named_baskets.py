"""Baskets by name: checked, and laid out over the columns of a table."""

from __future__ import annotations

import difflib
import math
import numbers
from collections.abc import Hashable, Iterable, Mapping
from typing import Any

import numpy as np

from quorvane.functions.rotations.virtualization.columns import StructureColumns
from quorvane.functions.rotations.virtualization.planned import PlannedStructures

BasketKey = str | tuple[Hashable, ...]
BasketLegs = Mapping[str, float] | Iterable[tuple[str, float]]
Baskets = (
    Mapping[str, BasketLegs]
    | Mapping[tuple[Hashable, ...], BasketLegs]
    | Iterable[tuple[BasketKey, BasketLegs]]
)

Legs = tuple[tuple[int, float], ...]


class NamedBaskets(PlannedStructures):
    """A rotation over named instruments, with room for as many structures as are known."""

    arity = 1

    def __init__(
        self,
        names: tuple[str, ...],
        known: int,
        what: str,
        *,
        max_structures: int | None,
        N_alloc: int | None,
        **others: Any,
    ) -> None:
        _require_capacity("max_structures", max_structures, known, what)
        _require_capacity("N_alloc", N_alloc, len(names), "instruments")
        super().__init__(
            max_structures=known if max_structures is None else max_structures,
            N_alloc=len(names) if N_alloc is None else N_alloc,
            **others,
        )
        self._instruments = names

    @property
    def instruments(self) -> tuple[str, ...]:
        """The names of the input's columns, in column order."""
        return self._instruments


def columns_of(resolved: dict[tuple[Hashable, ...], Legs]) -> StructureColumns:
    """The baskets as columns, whose values are not there yet."""
    flat = [leg for legs in resolved.values() for leg in legs]
    return StructureColumns(
        keys=tuple(resolved),
        offsets=np.cumsum([0, *map(len, resolved.values())]),
        leg_ids=np.array([column for column, _ in flat], dtype=np.int64),
        weights=np.array([weight for _, weight in flat], dtype=np.float64),
        values=np.full(len(resolved), math.nan),
    )


def instrument_names(instruments: Iterable[str]) -> tuple[str, ...]:
    """The names, each once and at least one; TypeError or ValueError for anything else."""
    if isinstance(instruments, str):
        raise TypeError("instruments must be a sequence of names, got one string")
    names = tuple(instruments)
    seen: set[str] = set()
    for name in names:
        if not isinstance(name, str):
            raise TypeError(f"instruments must be strings, got {name!r}")
        if name in seen:
            raise ValueError(f"instruments must be distinct, got {name!r} twice")
        seen.add(name)
    if not names:
        raise ValueError("instruments must name at least one instrument")
    return names


def resolve_baskets(baskets: Baskets, columns: dict[str, int]) -> dict[tuple[Hashable, ...], Legs]:
    """Each basket's legs by column; TypeError or ValueError for what makes no sense."""
    resolved: dict[tuple[Hashable, ...], Legs] = {}
    for key, legs in _pairs(baskets, "baskets"):
        exact_key = _resolve_key(key)
        if exact_key in resolved:
            raise ValueError(f"baskets: duplicate key {key!r}")
        resolved[exact_key] = _resolve_legs(key, legs, columns)
    if not resolved:
        raise ValueError("baskets must hold at least one basket")
    return resolved


def _resolve_key(key: BasketKey) -> tuple[Hashable, ...]:
    # A bare string would be taken apart into its characters by the base class.
    if isinstance(key, str):
        return (str(key),)
    if not isinstance(key, tuple):
        raise TypeError(f"a basket key must be a string or a tuple, got {key!r}")
    try:
        hash(key)
    except TypeError:
        raise TypeError(f"a basket key must be hashable, got {key!r}") from None
    return tuple(key)


def _resolve_legs(key: BasketKey, legs: BasketLegs, columns: dict[str, int]) -> Legs:
    where = f"basket {key!r}"
    resolved: dict[int, float] = {}
    for name, weight in _pairs(legs, where):
        if not isinstance(name, str):
            raise TypeError(f"{where}: an instrument is named by a string, got {name!r}")
        column = columns.get(name)
        if column is None:
            raise ValueError(f"{where}: unknown instrument {name!r}{_did_you_mean(name, columns)}")
        if column in resolved:
            raise ValueError(f"{where}: instrument {name!r} is given twice")
        resolved[column] = _finite_weight(where, name, weight)
    if not resolved:
        raise ValueError(f"{where}: a basket needs at least one leg")
    return tuple(resolved.items())


def _finite_weight(where: str, name: str, weight: Any) -> float:
    if isinstance(weight, bool) or not isinstance(weight, numbers.Real):
        raise TypeError(f"{where}: weight of {name!r} must be a number, got {weight!r}")
    try:
        number = float(weight)
    except OverflowError:
        number = math.inf
    if not math.isfinite(number):
        raise ValueError(f"{where}: weight of {name!r} must be finite, got {number!r}")
    return number


def _pairs(source: Any, where: str) -> Iterable[tuple[Any, Any]]:
    """The pairs of a mapping or of an iterable of pairs."""
    if isinstance(source, Mapping):
        yield from source.items()
        return
    if isinstance(source, (str, bytes)) or not isinstance(source, Iterable):
        raise TypeError(f"{where}: expected a mapping or pairs, got {source!r}")
    for pair in source:
        if not isinstance(pair, (tuple, list)) or len(pair) != 2:
            raise TypeError(f"{where}: expected a pair, got {pair!r}")
        yield pair[0], pair[1]


def _did_you_mean(name: str, names: Iterable[str]) -> str:
    close = difflib.get_close_matches(name, names, n=3)
    return f"; did you mean {' or '.join(map(repr, close))}?" if close else ""


def _require_capacity(argument: str, given: int | None, needed: int, what: str) -> None:
    """Refuse a capacity with less room than is needed."""
    # Wrong types are left to the base class, whose texts are fixed.
    if isinstance(given, int) and not isinstance(given, bool) and 0 < given < needed:
        raise ValueError(f"{argument} must be at least {needed}, the number of {what}, got {given}")
