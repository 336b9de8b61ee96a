"""Fixed, keyed baskets over named instruments: a rotation that is ready to use."""

from __future__ import annotations

import difflib
import math
import numbers
from collections.abc import Callable, Hashable, Iterable, Mapping, Sequence
from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane.functions.rotations.virtualization.base import VirtualizationBase
from quorvane.functions.rotations.virtualization.columns import StructureColumns

BasketKey = str | tuple[Hashable, ...]
BasketLegs = Mapping[str, float] | Iterable[tuple[str, float]]
Baskets = (
    Mapping[str, BasketLegs]
    | Mapping[tuple[Hashable, ...], BasketLegs]
    | Iterable[tuple[BasketKey, BasketLegs]]
)

_Legs = tuple[tuple[int, float], ...]


class FixedBaskets(VirtualizationBase):
    """Baskets that stay the same from day to day, each a weighted sum of named instruments.

    Every day each basket's value is ``sum(weight * input[instrument])`` over its legs, added in
    leg order; it is NaN when any leg is NaN. The values run through the child rotations, and
    their output is brought back onto the instruments by ``unmap_policy``.

    Parameters
    ----------
    baskets:
        Key to legs, as a mapping or as an iterable of (key, legs) pairs. Legs are a mapping
        ``{instrument: weight}`` or an iterable of (instrument, weight) pairs. A key is a tuple
        or a string; the string ``"KO/PEP"`` stands for the one-element tuple ``("KO/PEP",)``.
        Baskets keep their order: basket i takes slot i on the first day.
    instruments:
        The names of the input's columns, in column order, each once.
    transformation_expression:
        The child rotations, for example ``"ewma(20);rank"``, or ``"none"``.
    max_structures:
        Number of slots, at least the number of baskets, which is the default.
    unmap_policy:
        ``"proportional"`` (an instrument gets the slot's value times its weight) or
        ``"equal_split"`` (every leg gets the value divided by the number of legs, with the
        weight's sign).
    N_alloc:
        Number of instruments to allocate, at least ``len(instruments)``, which is the default.
    child_factories, child_rotations, trace_sink, **parameters:
        Handed on to ``VirtualizationBase``.

    Raises
    ------
    TypeError
        A key, a name, a weight or a whole argument is of the wrong type.
    ValueError
        No basket, a duplicate key, a basket without legs or with an instrument twice or unknown,
        a weight that is not finite, a duplicate instrument, or a capacity that is too small.

    Examples
    --------
    >>> import numpy as np
    >>> from quorvane.functions.rotations.virtualization.baskets import FixedBaskets
    >>> pairs = FixedBaskets(
    ...     {"KO/PEP": {"KO": 1.0, "PEP": -1.0}, "XOM/CVX": {"XOM": 1.0, "CVX": -1.0}},
    ...     ["CVX", "KO", "PEP", "XOM"],
    ...     transformation_expression="rank",
    ... )
    >>> pairs(np.array([0.01, 0.03, 0.01, 0.02]))
    array([-0.5,  1. , -1. ,  0.5])
    """

    _name = "fixed_baskets"
    arity = 1

    def __init__(
        self,
        baskets: Baskets,
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
        names = _instrument_names(instruments)
        resolved = _resolve_baskets(baskets, {name: i for i, name in enumerate(names)})
        _require_capacity("max_structures", max_structures, len(resolved), "baskets")
        _require_capacity("N_alloc", N_alloc, len(names), "instruments")
        super().__init__(
            max_structures=len(resolved) if max_structures is None else max_structures,
            transformation_expression=transformation_expression,
            N_alloc=len(names) if N_alloc is None else N_alloc,
            unmap_policy=unmap_policy,
            child_factories=child_factories,
            child_rotations=child_rotations,
            trace_sink=trace_sink,
            **parameters,
        )
        self._instruments = names
        self._columns = _columns_of(resolved)

    @property
    def instruments(self) -> tuple[str, ...]:
        """The names of the input's columns, in column order."""
        return self._instruments

    @property
    def keys(self) -> tuple[tuple[Hashable, ...], ...]:
        """The baskets' keys as tuples, in basket order."""
        return self._columns.keys

    def basket_values(self, inputs: NDArray[np.float64]) -> NDArray[np.float64]:
        """Weighted sum of each basket over one day's input.

        ``inputs`` is a float64 vector with at least one entry per named instrument, in column
        order; the result is a float64 vector with one entry per basket, in basket order.
        """
        return self._columns.weighted_sums(inputs)

    def structure_values(
        self, baskets: Sequence[int] | None = None
    ) -> tuple[NDArray[np.float64], NDArray[np.float64]]:
        """What entered and what left the child chain on the last computed day.

        ``baskets`` are positions in basket order, all of them by default. The result is two new
        float64 vectors with one entry per position: the value that went in (NaN when the basket
        was not valid) and the child output. Both are NaN before the first day.
        """
        wanted = self.keys if baskets is None else [self.keys[i] for i in baskets]
        slots = np.array([self.slot_by_key.get(key, -1) for key in wanted], dtype=np.intp)
        unseen = slots < 0
        entered, left = self._txi_input[slots], self._txi_output[slots]
        entered[unseen] = left[unseen] = np.nan
        return entered, left

    def _refresh_active_structures(
        self,
        space_input: NDArray[np.float64],
        structure_inputs: Sequence[Any],
        nan_masks: Sequence[NDArray[np.uint8]],
        combined_nan_mask: NDArray[np.uint8],
        N: int,
    ) -> StructureColumns:
        """All baskets with the day's values; the same keys and legs every day."""
        if N < len(self._instruments):
            raise ValueError(
                f"{self._name}: input has {N} columns, expected at least "
                f"{len(self._instruments)}, one for each named instrument"
            )
        return self._columns.with_values(self.basket_values(space_input))


def _columns_of(resolved: dict[tuple[Hashable, ...], _Legs]) -> StructureColumns:
    flat = [leg for legs in resolved.values() for leg in legs]
    return StructureColumns(
        keys=tuple(resolved),
        offsets=np.cumsum([0, *map(len, resolved.values())]),
        leg_ids=np.array([column for column, _ in flat], dtype=np.int64),
        weights=np.array([weight for _, weight in flat], dtype=np.float64),
        values=np.full(len(resolved), math.nan),
    )


def _instrument_names(instruments: Iterable[str]) -> tuple[str, ...]:
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


def _resolve_baskets(
    baskets: Baskets, columns: dict[str, int]
) -> dict[tuple[Hashable, ...], _Legs]:
    resolved: dict[tuple[Hashable, ...], _Legs] = {}
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


def _resolve_legs(key: BasketKey, legs: BasketLegs, columns: dict[str, int]) -> _Legs:
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
    # Wrong types are left to the base class, whose texts are fixed.
    if isinstance(given, int) and not isinstance(given, bool) and 0 < given < needed:
        raise ValueError(f"{argument} must be at least {needed}, the number of {what}, got {given}")
