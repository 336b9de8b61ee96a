"""Fixed, keyed baskets over named instruments: a rotation that is ready to use."""

from __future__ import annotations

from collections.abc import Callable, Hashable, Iterable, Sequence
from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane.functions.rotations.virtualization._named_baskets import (
    Baskets,
    NamedBaskets,
    columns_of,
    instrument_names,
    resolve_baskets,
)


class FixedBaskets(NamedBaskets):
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
        names = instrument_names(instruments)
        resolved = resolve_baskets(baskets, {name: i for i, name in enumerate(names)})
        super().__init__(
            names,
            len(resolved),
            "baskets",
            max_structures=max_structures,
            transformation_expression=transformation_expression,
            N_alloc=N_alloc,
            unmap_policy=unmap_policy,
            child_factories=child_factories,
            child_rotations=child_rotations,
            trace_sink=trace_sink,
            **parameters,
        )
        self._columns = columns_of(resolved)

    @property
    def keys(self) -> tuple[tuple[Hashable, ...], ...]:
        """The baskets' keys as tuples, in basket order."""
        keys: tuple[tuple[Hashable, ...], ...] = self._columns.keys
        return keys

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
