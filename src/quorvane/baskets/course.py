"""From day to day: listings that change, slots that are given away, and the rotation's own days."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from dataclasses import dataclass
from typing import Any, Literal

import numpy as np
from numpy.typing import NDArray

from quorvane.baskets.listing import Book, Dates, Key, Listing, key_of
from quorvane.baskets.rotation import BasketRotation
from quorvane.baskets.slots import SlotKeeper, usage
from quorvane.functions.rotations.virtualization.history import replay_history
from quorvane.tables import date_text

Matrix = NDArray[np.float64]
Progress = Callable[[int, int], object]
Level = Literal["instrument", "basket"]


@dataclass(frozen=True)
class Request:
    """What is asked of a stretch of days besides the days."""

    level: Level = "instrument"
    threads: int | None = None
    progress: Progress | None = None


class Course:
    """A rotation on its way through a book: what it has seen so far is its state."""

    def __init__(self, rotation: BasketRotation, book: Book, *, reclaim: bool) -> None:
        self.rotation = rotation
        self.book = book
        self.reclaim = reclaim
        self._keeper = SlotKeeper(rotation, may_reclaim=reclaim)
        self._in_force: Listing | None = None
        # Why nobody knows what the functions remember since a day failed.
        self._spoilt: str | None = None
        # A day of such functions happens as a whole or not at all.
        self._is_safe = rotation.chain.only_ready_made
        # Whether the next day of a plain row is nothing but the rotation's own call.
        self.is_called = False
        self.width = len(book.instruments)

    def advance(self, matrix: Matrix, dates: Dates | None, request: Request) -> Matrix:
        """The outputs of some days that follow; where one fails, nothing has happened.

        Raises
        ------
        ValueError
            More structures speak on a day than there are slots.
        """
        if len(matrix) == 0:
            return np.empty((0, self._width(request.level)))
        self.refuse_spoilt()
        is_one_safe_day = len(matrix) == 1 and self._is_safe and not self.reclaim
        before = None if is_one_safe_day else self._snapshot()
        try:
            return self._days(matrix, dates, request)
        except BaseException:
            if before is not None:
                self._return_to(before)
            raise

    def day(self, row: NDArray[np.float64], dates: Dates | None) -> NDArray[np.float64]:
        """The output of the next day alone."""
        self.refuse_spoilt()
        number = int(self.book.in_force(dates, 1)[0])
        listing = self.book.listing(number)
        changes = listing is not self._in_force
        before = None if self._is_safe and not changes else self._snapshot()
        try:
            return self._one_day(row, listing, dates, "instrument")
        except BaseException:
            if before is not None:
                self._return_to(before)
            raise

    # ---- stretches ------------------------------------------------------------------------------

    def _days(self, matrix: Matrix, dates: Dates | None, request: Request) -> Matrix:
        if len(matrix) == 1:
            # No signal's handler runs between the day and its output.
            listing = self.book.listing(int(self.book.in_force(dates, 1)[0]))
            return self._one_day(matrix[0], listing, dates, request.level)[None]
        parts = [
            self._stretch(matrix, dates, first, last, plan, request)
            for first, last, plan in self._stretches(self.book.in_force(dates, len(matrix)))
        ]
        return parts[0] if len(parts) == 1 else np.concatenate(parts)

    def _stretches(
        self, in_force: NDArray[np.intp]
    ) -> Iterator[tuple[int, int, list[tuple[int, Listing]] | Listing]]:
        """Days that need no slot of another structure in between, as one plan each.

        A single listing stands for days whose structures do not all have room at once.
        """
        starts = np.flatnonzero(np.diff(in_force, prepend=in_force[0] - 1))
        ends = [*starts[1:].tolist(), len(in_force)]
        first, plan, planned = 0, list[tuple[int, Listing]](), set[Key]()
        for start, end in zip(starts.tolist(), ends, strict=True):
            listing = self.book.listing(int(in_force[start]))
            new = [key for key in self._keeper.missing(listing.keys) if key not in planned]
            if len(planned) + len(new) > self._keeper.free():
                if plan:
                    yield first, start, plan
                first, plan, planned = start, [], set()
                if not self._keeper_has_room(listing):
                    yield start, end, listing
                    first = end
                    continue
                new = self._keeper.missing(listing.keys)
            planned.update(new)
            plan.append((start - first, listing))
        if plan:
            yield first, len(in_force), plan

    def _stretch(
        self,
        matrix: Matrix,
        dates: Dates | None,
        first: int,
        last: int,
        plan: list[tuple[int, Listing]] | Listing,
        request: Request,
    ) -> Matrix:
        if isinstance(plan, Listing):
            return np.array(
                [
                    self._one_day(matrix[day], plan, _only(dates, day), request.level)
                    for day in range(first, last)
                ]
            )
        self._hold_to(plan[-1][1])
        self.rotation.expect(key for _, listing in plan for key in listing.keys)
        if len(plan) > 1:
            self.rotation._columns = tuple((day, listing.columns) for day, listing in plan)
        outputs = self._replayed(matrix[first:last], request, first, len(matrix))
        self._hold_to(plan[-1][1])
        return outputs

    def _replayed(self, days: Matrix, request: Request, done: int, total: int) -> Matrix:
        progress = request.progress
        outputs = replay_history(
            self.rotation,
            days,
            threads=request.threads,
            progress=None if progress is None else lambda so_far, _: progress(done + so_far, total),
            level="instrument" if request.level == "instrument" else "structure",
        )
        return outputs if request.level == "instrument" else self._by_basket(outputs)

    def _hold_to(self, listing: Listing | None) -> None:
        self._in_force = listing
        self.is_called = self._is_safe and listing is not None and not self.book.is_dated
        if listing is not None:
            self.rotation._columns = listing.columns

    # ---- too few slots for all that are listed --------------------------------------------------

    def _keeper_has_room(self, listing: Listing) -> bool:
        return len(self._keeper.missing(listing.keys)) <= self._keeper.free() or (
            self._keeper.make_room(listing)
        )

    def _one_day(
        self, row: NDArray[np.float64], listing: Listing, date: Dates | None, level: Level
    ) -> NDArray[np.float64]:
        if listing is self._in_force or self._keeper_has_room(listing):
            self._hold_to(listing)
            return self._computed(row, listing, level)
        return self._tight_day(row, listing, date, level)

    def _computed(
        self, row: NDArray[np.float64], listing: Listing, level: Level
    ) -> NDArray[np.float64]:
        self.rotation.expect(listing.keys)
        output = np.array(self.rotation(row))
        return (
            output if level == "instrument" else self._by_basket(self.rotation._txi_output[None])[0]
        )

    def _tight_day(
        self, row: NDArray[np.float64], listing: Listing, date: Dates | None, level: Level
    ) -> NDArray[np.float64]:
        """A day on which only what has a slot, or a value that needs one, is reported."""
        present = listing.present(row)
        speaks = {key for key, there in zip(listing.keys, present, strict=True) if there}
        known = self.rotation.slot_by_key
        homeless = [key for key in listing.keys if key in speaks and key not in known]
        homeless = homeless[self._keeper.free() :]
        ended = self._keeper.silent_slots(set(listing.keys))
        listed = [slot for slot in self._keeper.silent_slots(speaks) if slot not in set(ended)]
        slots = [*ended, *listed]
        if len(slots) < len(homeless):
            self._raise_full(len(speaks | self._keeper.held_keys()), date)
        for key, slot in zip(homeless, slots, strict=False):
            self.rotation.give_slot(slot, key)
        reported = [key in speaks or key in known for key in listing.keys]
        part = listing.part(np.array(reported, dtype=bool))
        self._hold_to(part)
        output = self._computed(row, part, level)
        # What was reported is not all that is listed: the next day has to look again.
        self._hold_to(None)
        return output

    def _raise_full(self, speaking: int, date: Dates | None) -> None:
        when = "" if date is None else f" on {date_text(date[0])}"
        now = usage(self.rotation)
        way_on = f"make it anew with capacity={2 * speaking}" if speaking else "use grow()"
        raise ValueError(
            f"{speaking} baskets speak{when} and {now.known} are known, but the capacity is "
            f"{now.capacity}; call grow({max(speaking, 2 * now.capacity)}), or {way_on}"
        )

    # ---- by basket ------------------------------------------------------------------------------

    def _width(self, level: Level) -> int:
        return len(self.book.instruments if level == "instrument" else self.book.baskets)

    def _by_basket(self, by_slot: Matrix) -> Matrix:
        """The columns of all baskets of the book, missing for one without a slot."""
        slots = [self.rotation.slot_by_key.get(key_of(basket), -1) for basket in self.book.baskets]
        chosen = np.array(slots, dtype=np.intp)
        result = np.take(by_slot, np.maximum(chosen, 0), axis=1)
        result[:, chosen < 0] = np.nan
        return result

    def refuse_spoilt(self) -> None:
        """Raise RuntimeError where a day failed that could not be taken back."""
        if self._spoilt is not None:
            raise RuntimeError(
                f"{self._spoilt}, so what the functions remember since a day failed is unknown: "
                f"begin anew with run() or reset()"
            )

    # ---- taking back ----------------------------------------------------------------------------

    def _snapshot(self) -> Any:
        return self.rotation.get_state(), self.rotation._columns, self._in_force

    def _return_to(self, snapshot: Any) -> None:
        state, columns, in_force = snapshot
        lost = self.rotation.chain.lacking("get_state", "set_state")
        self._spoilt = "a function of the expression did not take its state back"
        try:
            self.rotation.set_state(state)
        except Exception as error:
            self._spoilt += f" ({error})"
            return
        self._spoilt = lost and f"{lost[0].text!r} of the expression has no {', '.join(lost[1])}"
        self._hold_to(in_force)
        self.rotation._columns = columns


def _only(dates: Dates | None, day: int) -> Dates | None:
    return None if dates is None else dates[day : day + 1]
