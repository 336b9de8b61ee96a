"""Baskets as people write them down, made into a book: fixed ones."""

from __future__ import annotations

import functools
import math
import numbers
from collections import Counter
from collections.abc import Hashable, Iterable, Mapping, Sequence
from typing import Any

import numpy as np

from quorvane.baskets.listing import Book, Listing
from quorvane.tables import read_table
from quorvane.tables.missing import is_missing
from quorvane.tables.names import listed
from quorvane.tables.reading import frame_kind

Legs = dict[Hashable, float]

# The names in a message; of more than ten the others are counted.
_some = functools.partial(listed, most=10)


def fixed_book(weights: Any, instruments: Iterable[Hashable] | None) -> Book:
    """The book of baskets that stay the same, from a mapping or a frame of instruments x baskets.

    Raises
    ------
    TypeError
        The weights are of another kind, or one of them is no number.
    ValueError
        There is no basket, one has no legs, a weight is infinite, or ``instruments`` lacks a leg.
    """
    baskets = _of_mapping(weights) if isinstance(weights, Mapping) else _of_frame(weights)
    if not baskets:
        raise ValueError("weights must hold at least one basket")
    for basket, legs in baskets.items():
        if not legs:
            raise ValueError(
                f"weights: basket {basket!r} has no legs; a weight that is missing or 0 is none"
            )
    mentioned = dict.fromkeys(name for legs in baskets.values() for name in legs)
    names = instrument_names(instruments, mentioned)
    return Book(names, (listing_of(baskets, {name: i for i, name in enumerate(names)}),))


def single_book(instruments: Sequence[Hashable]) -> Book:
    """The book in which each instrument is a basket of its own; ValueError where there is none."""
    names = given_names(instruments)
    if not names:
        raise ValueError("weights must hold at least one basket")
    columns = np.arange(len(names), dtype=np.int64)
    offsets = np.arange(len(names) + 1, dtype=np.int64)
    return Book(names, (Listing(names, offsets, columns, np.ones(len(names))),))


def given_names(instruments: Any) -> tuple[Hashable, ...] | None:
    """The names as a tuple, None where none are given; TypeError or ValueError for what is none."""
    if instruments is None:
        return None
    if isinstance(instruments, (str, bytes)) or not isinstance(instruments, Iterable):
        raise TypeError(f"instruments must be a sequence of names, got {instruments!r}")
    names = tuple(instruments)
    repeated = _repeated(names)
    if repeated:
        raise ValueError(f"instruments must be distinct, got more than once: {_some(repeated)}")
    return names


def instrument_names(
    given: Iterable[Hashable] | None, mentioned: Iterable[Hashable]
) -> tuple[Hashable, ...]:
    """The given instruments, else those that are mentioned; ValueError where a leg is not given."""
    names = given_names(given)
    if names is None:
        return tuple(mentioned)
    known = set(names)
    unknown = [name for name in mentioned if name not in known]
    if unknown:
        raise ValueError(f"weights: not among the instruments: {_some(unknown)}")
    return names


def leg_weight(basket: Hashable, instrument: Hashable, weight: Any) -> float | None:
    """The weight as a number, None where it is missing or 0 and so no leg."""
    if is_missing(weight):
        return None
    where = f"weights: basket {basket!r}, instrument {instrument!r}"
    if isinstance(weight, (bool, np.bool_)) or not isinstance(weight, numbers.Real):
        raise TypeError(f"{where}: a weight must be a number, got {weight!r}")
    try:
        number = float(weight)
    except OverflowError:
        number = math.inf
    if not math.isfinite(number):
        raise ValueError(f"{where}: a weight must be finite, got {number!r}")
    return number or None


def _of_mapping(weights: Mapping[Any, Any]) -> dict[Hashable, Legs]:
    baskets: dict[Hashable, Legs] = {}
    for basket, legs in weights.items():
        if not isinstance(legs, Mapping):
            raise TypeError(
                f"weights: the legs of basket {basket!r} must be a mapping "
                f"{{instrument: weight}}, got {legs!r}"
            )
        baskets[basket] = _without_missing(basket, legs.items())
    return baskets


def _of_frame(weights: Any) -> dict[Hashable, Legs]:
    """Rows are the index of a pandas frame, else the one column of text."""
    instruments, frame = _rows_and_columns(weights)
    table = read_table(frame, argument="weights")
    names = table.names or ()
    matrix = table.matrix(names, used=np.zeros(len(names), dtype=bool))
    repeated = _repeated(instruments)
    if repeated:
        raise ValueError(f"weights: rows that come more than once: {_some(repeated)}")
    return {
        basket: _without_missing(basket, zip(instruments, matrix[:, i].tolist(), strict=True))
        for i, basket in enumerate(names)
    }


def _without_missing(basket: Hashable, legs: Iterable[tuple[Hashable, Any]]) -> Legs:
    weights = {name: leg_weight(basket, name, weight) for name, weight in legs}
    return {name: weight for name, weight in weights.items() if weight is not None}


def _rows_and_columns(weights: Any) -> tuple[list[Hashable], Any]:
    """The names of the rows, and the frame of the columns besides them."""
    kind = frame_kind(weights, "weights")
    if kind is None:
        raise TypeError(
            "weights must be a mapping {basket: {instrument: weight}}, a frame of instruments x "
            f"baskets, or None, got {type(weights).__name__}"
        )
    if kind == "pandas":
        return list(weights.index), weights.reset_index(drop=True)
    import narwhals as nw

    frame = nw.from_native(weights, eager_only=True)
    texts = [
        name
        for name, dtype in frame.schema.items()
        if isinstance(dtype, (nw.String, nw.Categorical, nw.Enum, nw.Object))
    ]
    if len(texts) != 1:
        raise TypeError(
            "weights: a frame without an index must have one column of text, the instruments, "
            f"got {_some(texts) or 'none'}"
        )
    return frame[texts[0]].to_list(), frame.drop(texts).to_native()


def listing_of(baskets: Mapping[Any, Mapping[Any, float]], column_of: Mapping[Any, int]) -> Listing:
    """The listing of baskets with these legs, each in its instrument's column."""
    flat = [(column_of[name], weight) for legs in baskets.values() for name, weight in legs.items()]
    return Listing(
        baskets=tuple(baskets),
        offsets=np.cumsum([0, *map(len, baskets.values())]),
        leg_ids=np.array([column for column, _ in flat], dtype=np.int64),
        weights=np.array([weight for _, weight in flat], dtype=np.float64),
    )


def _repeated(names: Iterable[Hashable]) -> list[Hashable]:
    return [name for name, count in Counter(names).items() if count > 1]
