"""What is stored of baskets, and whether it fits those that are to go on with it."""

from __future__ import annotations

from collections.abc import Hashable
from typing import TYPE_CHECKING, Any

import numpy as np

from quorvane.baskets.chain import make_chain
from quorvane.baskets.listing import Book
from quorvane.baskets.standing import Standing
from quorvane.expressions import Places
from quorvane.tables import date_text

if TYPE_CHECKING:
    from quorvane.baskets.front import Baskets

FORMAT = 1

# Of labels that differ, in a message.
_LABELS_SHOWN = 5


class StateMismatch(ValueError):
    """What is stored is of other baskets, or of the same with other arguments."""


def contents(baskets: Baskets) -> dict[str, Any]:
    """What a store keeps."""
    course = baskets._course
    if course is None:
        raise ValueError("there is nothing to save: no day was computed, and no baskets are known")
    course.refuse_spoilt()
    course.rotation.chain.require("get_state", "set_state")
    standing = baskets._standing
    return {
        "format": FORMAT,
        "arguments": _arguments(baskets),
        "capacity": course.rotation.max_structures,
        "instruments": list(course.book.instruments),
        "listings": _listings_until(course.book, standing.last_date),
        "days": standing.days,
        "last_date": _as_int(standing.last_date),
        "is_utc": standing.is_utc,
        "kind": standing.kind,
        "rotation": course.rotation.get_state(),
        "last_rows": course.rotation.last_rows(),
    }


def read(store: Any, name: str) -> Any:
    """The stored contents; LookupError where there are none, the store's own error for damage."""
    return store.load(name) if hasattr(store, "load") else _present(store.read(name), name)


def restore(baskets: Baskets, stored: Any) -> None:
    """Let the baskets go on from what was stored; StateMismatch, and nothing changes, otherwise."""
    if not isinstance(stored, dict) or stored.get("format") != FORMAT:
        raise StateMismatch(f"record format: this is not what save() writes in format {FORMAT}")
    book = baskets._book
    if baskets._is_open:
        from quorvane.baskets.weights import single_book

        book = single_book(stored["instruments"])
    assert book is not None
    met = {key[0] for key in stored["rotation"]["slot_by_key"]}
    own = _with_labels_of(met, _arguments(baskets))
    theirs = _with_labels_of(met, stored["arguments"])
    differences = [
        _labels_that_differ(theirs.get(name, {}), own[name])
        if name == "labels"
        else f"{name}: {theirs.get(name)!r} stored, {own[name]!r} here"
        for name in own
        if theirs.get(name) != own[name]
        # Another expression has other functions.
        and (name != "functions" or theirs.get("expression") == own["expression"])
    ]
    differences += _differences_of_baskets(stored, book)
    capacity = baskets._capacity_of(book)
    if baskets._settings.capacity is None:
        capacity = max(capacity, stored["capacity"])
    elif stored["capacity"] != capacity:
        differences.append(f"capacity: {stored['capacity']} stored, {capacity} here")
    if differences:
        raise StateMismatch("; ".join(differences))
    _take_over(baskets, book, stored, capacity)


def _arguments(baskets: Baskets) -> dict[str, Any]:
    settings = baskets._settings
    course = baskets._course
    chain = (
        make_chain(settings.recipes, settings.hold, Places(1, settings.labels))
        if course is None
        else course.rotation.chain
    )
    return {
        "expression": settings.expression,
        "functions": [function.identity for function in chain.functions],
        "hold": settings.hold,
        "policy": settings.policy,
        "labels": settings.labels,
    }


def _with_labels_of(met: set[Hashable], arguments: dict[str, Any]) -> dict[str, Any]:
    """The arguments with the labels of those baskets alone: others were in no group yet."""
    kept = {
        name: {basket: label for basket, label in of_basket.items() if basket in met}
        for name, of_basket in arguments["labels"].items()
    }
    return {**arguments, "labels": {name: labels for name, labels in kept.items() if labels}}


def _labels_that_differ(theirs: dict[str, Any], own: dict[str, Any]) -> str:
    """The first of them, with both labels."""
    missing: dict[Hashable, Any] = {}
    texts = [
        f"{name!r} of {basket!r} is {stored.get(basket)!r} stored, {here.get(basket)!r} here"
        for name in {**theirs, **own}
        for stored, here in [(theirs.get(name, missing), own.get(name, missing))]
        for basket in {**stored, **here}
        if stored.get(basket) != here.get(basket)
    ]
    more = len(texts) - _LABELS_SHOWN
    shown = ", ".join(texts[:_LABELS_SHOWN])
    return f"labels: {shown}" + (f" and {more} more" if more > 0 else "")


def _listings_until(book: Book, last: np.datetime64 | None) -> list[list[Any]]:
    """The date and digest of each listing that a computed day can have met."""
    if book.dates is None:
        return [[None, book.listings[0].digest(book.instruments)]]
    count = 0 if last is None else int(np.searchsorted(book.dates, last, side="right"))
    return [
        [_as_int(date), listing.digest(book.instruments)]
        for date, listing in zip(book.dates[:count], book.listings[:count], strict=True)
    ]


def _differences_of_baskets(stored: dict[str, Any], book: Book) -> list[str]:
    last = None if stored["last_date"] is None else np.datetime64(stored["last_date"], "ns")
    own = _listings_until(book, last)
    if [list(each) for each in stored["listings"]] != own:
        pairs = zip(stored["listings"], own, strict=False)
        first = next((b[0] for a, b in pairs if list(a) != b), None)
        where = "" if first is None else f" from {date_text(np.datetime64(first, 'ns'))} on"
        return [f"baskets: others are stored{where}"]
    return []


def _take_over(baskets: Baskets, book: Book, stored: dict[str, Any], capacity: int) -> None:
    rotation = baskets._new_course(book).rotation.fresh(
        capacity=stored["capacity"], instruments=len(stored["instruments"])
    )
    rotation.set_state(stored["rotation"])
    rotation.show_last_rows(stored["last_rows"])
    if capacity != stored["capacity"] or list(book.instruments) != stored["instruments"]:
        # Instruments of later listings, which are no legs yet, may be others.
        place = {name: i for i, name in enumerate(book.instruments)}
        places = [place.get(name, -1) for name in stored["instruments"]]
        rotation = rotation.in_room(capacity, len(book.instruments), places)
    last = stored["last_date"]
    baskets._continue(
        book,
        rotation,
        Standing(
            stored["days"],
            None if last is None else np.datetime64(last, "ns"),
            stored["is_utc"],
            stored["kind"],
        ),
    )


def _as_int(date: np.datetime64 | None) -> int | None:
    return None if date is None else int(date.astype("datetime64[ns]").astype(np.int64))


def _present(stored: Any, name: str) -> Any:
    if stored is None:
        raise LookupError(f"nothing is stored as {name!r}")
    return stored
