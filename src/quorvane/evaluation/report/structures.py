"""What a report says of the structures: one instrument taken apart, births and deaths, slots."""

from __future__ import annotations

from collections.abc import Hashable, Mapping
from dataclasses import dataclass
from typing import TYPE_CHECKING, Any

import numpy as np
from numpy.typing import NDArray

from quorvane.baskets.explained import last_day
from quorvane.baskets.front import Baskets
from quorvane.baskets.listing import Book
from quorvane.baskets.rotation import BasketRotation
from quorvane.baskets.slots import SlotUsage, usage
from quorvane.counting import counted
from quorvane.evaluation.report.figures import holdings
from quorvane.evaluation.report.text import day_text
from quorvane.tables.names import listed

if TYPE_CHECKING:
    from quorvane.evaluation import Evaluation

MOST_CONTRIBUTIONS = 12


@dataclass(frozen=True)
class Parts:
    """One instrument's signal on the last day, by structure.

    Attributes
    ----------
    instrument : name
    signal : float
        As it was judged.
    contributions : list of (structure, contribution)
        The largest, largest first.
    others : (int, float)
        How many there are besides, and what they contribute.
    total : float
        The sum of all.
    """

    instrument: Hashable
    signal: float
    contributions: list[tuple[Hashable, float]]
    others: tuple[int, float]
    total: float

    @property
    def is_whole(self) -> bool:
        """Whether the structures make up what was judged."""
        return bool(np.isclose(self.total, self.signal, rtol=1e-9, atol=1e-12))


@dataclass(frozen=True)
class Census:
    """How many structures are listed from each date on, and how many came and went with it."""

    dates: NDArray[np.datetime64]
    listed: NDArray[np.int64]
    born: NDArray[np.int64]
    ended: NDArray[np.int64]


@dataclass(frozen=True)
class StructureFigures:
    """What concerns structures; ``parts`` and ``census`` are None where there is nothing to tell.

    ``groups`` has the group of each instrument, where every instrument is a labelled basket.
    """

    slots: SlotUsage
    parts: Parts | None
    census: Census | None
    groups: Mapping[Any, Any] | None


def structure_figures(evaluation: Evaluation, baskets: Any) -> StructureFigures:
    """What `baskets` tell of the evaluation's last day.

    Raises
    ------
    TypeError
        They are no `Baskets`.
    ValueError
        They stand at another day than the signal, or have computed none.
    """
    if not isinstance(baskets, Baskets):
        raise TypeError(f"baskets must be Baskets, got {type(baskets).__name__}")
    _require_same_day(evaluation, baskets)
    book, course = baskets._book, baskets._course
    assert book is not None
    assert course is not None
    groups = _groups(evaluation, baskets)
    return figures_of(evaluation, course.rotation, book, baskets.last_date, groups)


def figures_of(
    evaluation: Evaluation,
    rotation: BasketRotation,
    book: Book,
    last: np.datetime64 | None,
    groups: Mapping[Any, Any] | None = None,
) -> StructureFigures:
    """The same of a rotation that has computed the days up to the last one."""
    return StructureFigures(
        slots=usage(rotation),
        parts=_largest_taken_apart(evaluation, rotation, book),
        census=_census(book, last),
        groups=groups,
    )


def _require_same_day(evaluation: Evaluation, baskets: Baskets) -> None:
    if baskets._standing.days == 0:
        raise ValueError("baskets: they have computed no day yet: run() them over the returns")
    others = _judged(evaluation) - set(baskets.instruments)
    if others:
        raise ValueError(
            f"baskets: they have no instruments {listed(sorted(others, key=str), most=10)}, for "
            "which there is a signal"
        )
    last, dates = baskets.last_date, evaluation._dates
    if last is None or dates is None or not len(dates):
        _require_as_many_days(evaluation, baskets)
    elif dates[-1] != last:
        raise ValueError(
            f"baskets: the last day that they computed is {day_text(last)}, and that of the signal "
            f"is {day_text(dates[-1])}: run() them up to that day"
        )


def _require_as_many_days(evaluation: Evaluation, baskets: Baskets) -> None:
    """Without dates that is all that can be told; a signal may be the last part of what was run."""
    computed, days = baskets._standing.days, len(evaluation._aligned.signal)
    if computed < days:
        raise ValueError(
            f"baskets: they have computed {counted(computed, 'day')}, and the signal has {days}: "
            "run() them up to its last day"
        )


def _judged(evaluation: Evaluation) -> set[Hashable]:
    """The instruments that have a signal on any day."""
    names, there = evaluation._aligned.instruments, np.isfinite(evaluation._aligned.signal)
    return {names[place] for place in np.flatnonzero(there.any(axis=0))}


def _largest_taken_apart(
    evaluation: Evaluation, rotation: BasketRotation, book: Book
) -> Parts | None:
    """The instrument of the largest weight, where the last day has a signal of these baskets."""
    held = holdings(evaluation)
    sides = [side[0] for side in (held.longs, held.shorts) if side]
    if held.day != len(evaluation._aligned.signal) - 1 or not sides:
        return None
    instrument = max(sides, key=lambda one: abs(one[1]))[0]
    if instrument not in book.instruments:
        return None
    columns = last_day(rotation, book.instruments.index(instrument))
    contributions = columns["contribution"]
    order = np.argsort(-np.abs(contributions), kind="stable").tolist()
    rest = [float(contributions[i]) for i in order[MOST_CONTRIBUTIONS:]]
    column = evaluation._aligned.instruments.index(instrument)
    return Parts(
        instrument=instrument,
        signal=float(evaluation._aligned.signal[-1, column]),
        contributions=[
            (columns["basket"][i], float(contributions[i])) for i in order[:MOST_CONTRIBUTIONS]
        ],
        others=(len(rest), sum(rest)),
        total=float(np.sum(contributions)),
    )


def _census(book: Book, last: np.datetime64 | None) -> Census | None:
    """None for baskets that are the same on all days."""
    if book.dates is None or last is None:
        return None
    known = int(np.searchsorted(book.dates, last, side="right"))
    if known == 0:
        return None
    before: set[Hashable] = set()
    rows = []
    for listing in book.listings[:known]:
        now = set(listing.baskets)
        rows.append((len(now), len(now - before), len(before - now)))
        before = now
    listed, born, ended = np.array(rows, dtype=np.int64).reshape(-1, 3).T
    return Census(book.dates[:known], listed, born, ended)


def _groups(evaluation: Evaluation, baskets: Baskets) -> Mapping[Any, Any] | None:
    """The first of the labels that all instruments have, where each is a basket of its own."""
    names = evaluation._aligned.instruments
    if not baskets._is_open:
        return None
    for by_basket in (baskets._settings.labels or {}).values():
        if all(name in by_basket for name in names):
            return dict(by_basket)
    return None
