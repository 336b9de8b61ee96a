"""The days of a replay: structures through an expression, as `quorvane.Baskets` computes them."""

from __future__ import annotations

from collections.abc import Mapping, Sequence
from dataclasses import dataclass
from typing import Any, Literal

import numpy as np
from numpy.typing import NDArray

from quorvane.baskets.course import Course, Request
from quorvane.baskets.listing import Book, key_of
from quorvane.baskets.rotation import BasketRotation
from quorvane.baskets.settings import Settings, settings_of
from quorvane.cli.errors import DataError, UsageError, reason

Matrix = NDArray[np.float64]

_THREADS_VARIABLE = "QUORVANE_NUM_THREADS"


@dataclass(frozen=True)
class Choices:
    """What a replay computes besides its structures; ``hold`` None is for ever."""

    expression: str
    policy: Literal["proportional", "equal_split"] = "proportional"
    hold: int | None = None
    threads: int | None = None

    def settings(self, book: Book | None, labels: Mapping[str, Mapping[Any, Any]]) -> Settings:
        """The settings of baskets; UsageError for an expression that makes no sense."""
        try:
            return settings_of(
                book,
                self.expression,
                self.policy,
                self.hold,
                labels,
                capacity=None,
                reclaim=False,
                threads=self.threads,
            )
        except (TypeError, ValueError) as error:
            raise _usage_error(error) from error


class BasketDays:
    """Days of instruments that run through structures, one by one or many at once.

    Parameters
    ----------
    book : Book
        The structures over all columns of ``inputs``.
    choices : Choices
    inputs : ndarray of float64, days by instruments
    dates : ndarray of datetime64[ns], optional
        The days' dates, which dated structures need.
    slots : int, optional
        Room for structures; as many as there are by default.
    labels : mapping, optional
        ``{name: {structure: label}}`` for functions that go by groups.
    """

    def __init__(
        self,
        book: Book,
        choices: Choices,
        inputs: Matrix,
        *,
        dates: NDArray[np.datetime64] | None = None,
        slots: int | None = None,
        labels: Mapping[str, Mapping[Any, Any]] | None = None,
    ) -> None:
        self.book, self.inputs, self.dates = book, inputs, dates
        self.slots = len(book.baskets) if slots is None else slots
        self._choices = choices
        settings = choices.settings(book, labels or {})
        try:
            self.rotation = BasketRotation(
                settings, capacity=self.slots, instruments=len(book.instruments)
            )
            self.rotation.chain.places.require_labels(book.baskets)
        except (TypeError, ValueError) as error:
            raise _usage_error(error) from error
        self._course = Course(self.rotation, book, reclaim=False)

    @property
    def hold(self) -> int | None:
        """For how many days a structure speaks without a value, None for ever."""
        return self._choices.hold

    @property
    def is_ready_made(self) -> bool:
        """Whether no function of the expression is one's own."""
        return self.rotation.chain.only_ready_made

    @property
    def functions(self) -> list[str]:
        """Which class or function each of the expression is, for comparing runs."""
        return [function.identity for function in self.rotation.chain.functions]

    def compute(self, first: int, last: int) -> Matrix:
        """The outputs of the days from ``first`` to before ``last``, which follow those so far.

        Raises
        ------
        UsageError
            The environment's number of threads is none.
        DataError
            A function of one's own failed.
        """
        dates = None if self.dates is None else self.dates[first:last]
        request = Request(threads=self._choices.threads)
        try:
            return self._course.advance(self.inputs[first:last], dates, request)
        except MemoryError:
            raise
        except Exception as error:
            if isinstance(error, ValueError) and str(error).startswith(_THREADS_VARIABLE):
                raise UsageError(str(error)) from error
            if self.is_ready_made:
                raise
            days = f"day {first}" if last == first + 1 else f"one of the days {first} to {last - 1}"
            raise DataError(
                f"{days}: a function of the expression failed: "
                f"{type(error).__name__}: {reason(error)}"
            ) from error

    def structure_values(self, keys: Sequence[str]) -> tuple[Matrix, Matrix]:
        """What entered and what left the expression on the last day, by structure; copies.

        NaN for a structure that had no value, or that has had no slot yet.
        """
        known = self.rotation.slot_by_key
        slots = np.array([known.get(key_of(key), -1) for key in keys], dtype=np.intp)
        entered, left = self.rotation._txi_input[slots], self.rotation._txi_output[slots]
        entered[slots < 0] = left[slots < 0] = np.nan
        return entered, left

    @property
    def slot_of(self) -> dict[str, int]:
        """The slot of each structure that has one, in the order of the slots."""
        known = self.rotation.slot_by_key
        return {str(key[0]): slot for key, slot in sorted(known.items(), key=lambda it: it[1])}

    def active(self) -> list[bool]:
        """Whether each slot had a value on the last day."""
        return [bool(entry["active"]) for entry in self.rotation._metadata_by_slot]

    def require_states(self) -> None:
        """Raise UsageError for an expression whose state cannot be kept."""
        try:
            self.rotation.chain.require("get_state", "set_state")
        except TypeError as error:
            raise UsageError(f"--checkpoint: {error}") from error


def _usage_error(error: TypeError | ValueError) -> UsageError:
    """The error of an argument as one of the option, which has the same name."""
    return UsageError(f"--{reason(error)}")
