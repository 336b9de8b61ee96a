"""What a user chooses besides the baskets, checked."""

from __future__ import annotations

from collections.abc import Hashable, Mapping
from dataclasses import dataclass
from typing import Any, Literal, cast, get_args

from quorvane.arguments import whole_number
from quorvane.baskets.listing import Book
from quorvane.expressions import Recipe, recipes_of
from quorvane.tables.missing import is_missing

Policy = Literal["proportional", "equal_split"]
Labels = Mapping[str, Mapping[Hashable, Any]]


@dataclass(frozen=True)
class Settings:
    """The arguments of `Baskets` other than the baskets.

    Attributes
    ----------
    recipes : tuple of Recipe
        What the expression's functions are made by.
    capacity : int or None
        None for as many slots as there are baskets.
    """

    expression: str
    recipes: tuple[Recipe, ...]
    policy: Policy
    hold: int | None
    labels: dict[str, dict[Hashable, Any]]
    capacity: int | None
    reclaim: bool
    threads: int | None


def settings_of(
    book: Book | None,
    expression: object,
    policy: object,
    hold: object,
    labels: Labels | None,
    capacity: object,
    reclaim: object,
    threads: object,
) -> Settings:
    """The settings, of baskets that may not be known yet; TypeError or ValueError for others."""
    if not isinstance(expression, str):
        raise TypeError(f"expression must be a str such as 'ewma(20);rank', got {expression!r}")
    if policy not in get_args(Policy):
        raise ValueError(f"policy must be one of {', '.join(get_args(Policy))}, got {policy!r}")
    if not isinstance(reclaim, bool):
        raise TypeError(f"reclaim must be a bool, got {reclaim!r}")
    days = _none_or_whole("hold", hold, 0)
    if reclaim and days is None:
        raise ValueError("reclaim=True needs a hold: with hold=None no structure ever falls silent")
    return Settings(
        expression=expression,
        recipes=recipes_of(expression),
        policy=cast(Policy, policy),
        hold=days,
        labels=_checked_labels(labels, book),
        capacity=_none_or_whole("capacity", capacity, 1),
        reclaim=reclaim,
        threads=_none_or_whole("threads", threads, 1),
    )


def _none_or_whole(argument: str, value: Any, least: int) -> int | None:
    return None if value is None else whole_number(argument, value, least, "None or ")


def _checked_labels(labels: Labels | None, book: Book | None) -> dict[str, dict[Hashable, Any]]:
    if labels is None:
        return {}
    if not isinstance(labels, Mapping):
        raise TypeError(f"labels must be a mapping {{name: {{basket: label}}}}, got {labels!r}")
    # To dated baskets others may still come.
    known = None if book is None or book.is_dated else set(book.baskets)
    checked: dict[str, dict[Hashable, Any]] = {}
    for name, of_basket in labels.items():
        if not isinstance(name, str):
            raise TypeError(f"labels must be a mapping with names that are str, got {name!r}")
        if not isinstance(of_basket, Mapping):
            raise TypeError(f"labels: {name!r} must be a mapping {{basket: label}}")
        unknown = [b for b in of_basket if known is not None and b not in known]
        if unknown:
            raise ValueError(f"labels: {name!r} names baskets that are not there: {unknown[:10]}")
        for basket, label in of_basket.items():
            if not isinstance(label, Hashable):
                raise TypeError(
                    f"labels: {name!r} must have labels that can be compared by hash, "
                    f"got {label!r} for {basket!r}"
                )
        # A label that is missing is none, so that it makes no group.
        checked[name] = {b: label for b, label in of_basket.items() if not is_missing(label)}
    return checked
