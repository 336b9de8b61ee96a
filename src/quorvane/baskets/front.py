"""Baskets over labelled tables: the class that people use."""

from __future__ import annotations

import inspect
import warnings
from collections.abc import Hashable, Iterable
from dataclasses import replace
from typing import Any, TypeVar, cast, get_args

import numpy as np

from quorvane.arguments import whole_number
from quorvane.baskets import explained, saved, shown
from quorvane.baskets._plain_row import is_plain_row
from quorvane.baskets.chain import make_chain
from quorvane.baskets.course import Course, Level, Request
from quorvane.baskets.dated import LongColumns, extended, long_book
from quorvane.baskets.listing import Book
from quorvane.baskets.misspelt import refusing_misspelt
from quorvane.baskets.progress import progress_bar
from quorvane.baskets.rotation import BasketRotation
from quorvane.baskets.settings import Labels, Policy, Settings, settings_of
from quorvane.baskets.slots import SlotUsage, usage
from quorvane.baskets.standing import Standing
from quorvane.baskets.weights import fixed_book, given_names, single_book
from quorvane.expressions import Places
from quorvane.tables import Row, Table, read_row, read_table

# The same kind of table or row comes back.
T = TypeVar("T")

# Of a capacity that was given and to which baskets may still come, when so much is taken.
NEARLY_FULL = 0.8


class Baskets:
    """Baskets of named instruments through an expression, and back onto the instruments.

    Each day a basket's value is the sum of its legs' weights times their instruments' numbers,
    missing where one of them is. The values go through the functions of the expression, and what
    leaves them comes back onto the instruments: the sum over the baskets that speak, each times the
    instrument's weight. A basket speaks on the days on which it has a value, and on up to ``hold``
    consecutive days after; a silent one counts in no rank and reaches no instrument.

    Parameters
    ----------
    weights : mapping, frame or None
        ``{basket: {instrument: weight}}``, or a frame of instruments x baskets; with None each
        column of the first table is a basket of its own. A weight that is missing or 0 is no leg.
    expression : str
        The functions, one after the other, such as ``'ewma(20);zscore(by="sector")'``; ``"none"``
        for none. `quorvane.catalogue` lists them, `quorvane.register` adds one's own.
    policy : {"proportional", "equal_split"}
        What an instrument gets from a basket: its value times the weight, or its value divided by
        the number of legs, with the weight's sign.
    hold : int or None
        For how many days a basket goes on speaking without a value; for ever with None.
    instruments : iterable of names, optional
        The columns of arrays, in order; by default as the weights first mention them.
    labels : mapping, optional
        ``{name: {basket: label}}``, groups of baskets for functions that go ``by`` a name.
    capacity : int, optional
        Slots; as many as there are baskets by default.
    reclaim : bool
        Whether new baskets may take the slots of ended and silent ones.
    threads : int, optional
        For whole tables; by default as the environment variable ``QUORVANE_NUM_THREADS`` says.

    Raises
    ------
    TypeError
        An argument is of the wrong type, or is unknown.
    ValueError
        An argument is out of range, a basket has no legs, or there are too few slots.

    Examples
    --------
    >>> import numpy as np
    >>> import quorvane as qv
    >>> pairs = qv.Baskets(
    ...     {"KO/PEP": {"KO": 1, "PEP": -1}, "XOM/CVX": {"XOM": 1, "CVX": -1}}, "zscore"
    ... )
    >>> pairs.run(np.array([[0.03, 0.01, 0.02, 0.03]]))
    array([[ 1., -1., -1.,  1.]])
    """

    _settings: Settings
    _book: Book | None
    _course: Course | None
    _standing: Standing
    _is_open: bool
    _was_warned: bool
    _is_computing: bool = False
    _columns: LongColumns | None = None
    _complete: bool = True

    @refusing_misspelt
    def __init__(
        self,
        weights: Any,
        expression: str,
        *,
        policy: Policy = "proportional",
        hold: int | None = 0,
        instruments: Iterable[Hashable] | None = None,
        labels: Labels | None = None,
        capacity: int | None = None,
        reclaim: bool = False,
        threads: int | None = None,
    ) -> None:
        names = given_names(instruments)
        book: Book | None = None
        if weights is not None:
            book = fixed_book(weights, names)
        elif names is not None:
            book = single_book(names)
        settings = settings_of(book, expression, policy, hold, labels, capacity, reclaim, threads)
        self._set_up(book, settings)

    @classmethod
    @refusing_misspelt
    def from_long(
        cls,
        table: Any,
        expression: str,
        *,
        date: str | None = "date",
        basket: str = "basket",
        instrument: str = "instrument",
        weight: str = "weight",
        complete: bool = True,
        policy: Policy = "proportional",
        hold: int | None = 0,
        instruments: Iterable[Hashable] | None = None,
        labels: Labels | None = None,
        capacity: int | None = None,
        reclaim: bool = False,
        threads: int | None = None,
    ) -> Baskets:
        """Baskets from a table with a row for each leg, that change on given dates.

        Each date of the table is the list of all baskets from the first day on or after it, until
        the next; a basket that is not listed any more ends. One that ends and comes back has its
        slot and its memory again.

        Parameters
        ----------
        table : frame of pandas, polars or pyarrow
            Sorted or not.
        date, basket, instrument, weight : str
            The names of its columns; with ``date=None`` the baskets stay the same.
        complete : bool
            With False each basket keeps its legs until its own next date, and ends where its
            weights are all 0 or missing.
        expression, policy, hold, instruments, labels, capacity, reclaim, threads
            As of `Baskets`.

        Raises
        ------
        TypeError, ValueError
            As `Baskets` does; a (date, basket, instrument) that comes twice, and a column that is
            not there or holds something else, are a ValueError or a TypeError too.
        """
        if not isinstance(complete, bool):
            raise TypeError(f"complete must be a bool, got {complete!r}")
        columns = LongColumns(date, basket, instrument, weight)
        book = long_book(table, columns, complete=complete, instruments=given_names(instruments))
        self = cls.__new__(cls)
        self._columns, self._complete = columns, complete
        settings = settings_of(book, expression, policy, hold, labels, capacity, reclaim, threads)
        self._set_up(book, settings)
        return self

    # ---- days -----------------------------------------------------------------------------------

    def run(self, returns: T, *, level: Level = "instrument", date: Any = None) -> T:
        """Compute the whole table from a fresh start, the same every time.

        Parameters
        ----------
        returns : frame of pandas, polars or pyarrow, or array_like of days x instruments
            Columns are found by name, of an array by the order of `instruments`.
        level : {"instrument", "basket"}
            ``"basket"`` gives what left the last function, a column per basket.
        date : column name or dates, optional
            Which column has the dates, where it cannot be told by its type; of an array the dates.

        Returns
        -------
        table
            Of the same kind, with the same rows. NaN (null in polars and pyarrow) where nothing
            speaks; a column that is no instrument comes out missing.

        Raises
        ------
        TypeError
            A column that is needed holds something other than numbers.
        ValueError
            An instrument is missing or twice there, a number is infinite, the dates are not sorted
            and distinct, or more baskets speak than there are slots. Nothing has happened then.
        """
        self._refuse_meanwhile()
        table = read_table(returns, date=date, argument="returns")
        book = self._book_for(table)
        return cast(T, self._advance(self._new_course(book), Standing(), table, level))

    def update(self, rows: T, *, level: Level = "instrument", date: Any = None) -> T:
        """Go on from where it stands with more rows; otherwise as `run`.

        Raises
        ------
        ValueError
            As `run`; and the first date is not after the last one that was computed.
        """
        self._refuse_meanwhile()
        table = read_table(rows, date=date, argument="rows")
        course = self._course or self._new_course(self._book_for(table))
        return cast(T, self._advance(course, self._standing, table, level))

    def step(self, row: T, *, date: Any = None) -> T:
        """One more day, as a Series, a mapping, a one-row frame or an array; the same kind back.

        Raises
        ------
        TypeError, ValueError
            As `update`.
        """
        course = self._course
        if (
            date is None
            and course is not None
            and course.is_called
            and is_plain_row(row, course.width)
        ):
            output = course.rotation(row)
            self._standing.days += 1
            return output  # type: ignore[return-value]
        return cast(T, self._labelled_step(read_row(row, date=date, argument="row")))

    def reset(self) -> None:
        """Forget all days: as it was made, but for `grow` and `extend`."""
        self._refuse_meanwhile()
        self._standing = Standing()
        if self._is_open:
            self._book = self._course = None
        elif self._course is not None:
            self._course = self._new_course(self._course.book)

    # ---- what it is and where it stands ---------------------------------------------------------

    @property
    def expression(self) -> str:
        """The expression, as given."""
        return self._settings.expression

    @property
    def instruments(self) -> tuple[Hashable, ...]:
        """The instruments in the order of arrays; empty before the first table tells them."""
        return () if self._book is None else self._book.instruments

    @property
    def baskets(self) -> tuple[Hashable, ...]:
        """All baskets, in the order in which they are first listed."""
        return () if self._book is None else self._book.baskets

    @property
    def slots(self) -> SlotUsage:
        """How many baskets spoke on the last day, how many have a slot, and how many slots."""
        if self._course is None:
            return SlotUsage(0, 0, self._settings.capacity or 0)
        return usage(self._course.rotation)

    @property
    def last_date(self) -> np.datetime64 | None:
        """The last computed day, None where no day had a date."""
        return self._standing.last_date

    def explain(self, instrument: Hashable, date: Any = None, returns: Any = None) -> Any:
        """Where an instrument's signal comes from: a row for each basket that speaks.

        Parameters
        ----------
        instrument : name
            One of the instruments.
        date : date or index label, optional
            The last computed day by default. Any other day needs ``returns``.
        returns : table, optional
            The table that is run up to that day, from a fresh start; the state stays as it is.

        Returns
        -------
        frame
            Of the input's kind, with the columns basket, weight, value, one per function and
            contribution. The contributions add up to the signal.

        Raises
        ------
        LookupError
            There is no such instrument or day, or no day was computed yet.
        """
        return explained.explain(self, instrument, date, returns)

    # ---- keeping --------------------------------------------------------------------------------

    def save(self, store: Any, name: str = "baskets") -> None:
        """Write the state to a store, such as `quorvane.SqliteStore`, under a name."""
        self._refuse_meanwhile()
        store.write(name, saved.contents(self))

    def load(self, store: Any, name: str = "baskets") -> None:
        """Take the state over that was saved under a name.

        Raises
        ------
        LookupError
            Nothing is stored under this name.
        StateMismatch
            It is of other baskets or other arguments; the text says what differs. Nothing changes.
        """
        self._refuse_meanwhile()
        saved.restore(self, saved.read(store, name))

    def grow(self, capacity: int) -> None:
        """Make room for more baskets; every number stays as it is.

        Raises
        ------
        ValueError
            The capacity is not larger than the present one.
        TypeError
            A function of one's own cannot be resized.
        """
        self._refuse_meanwhile()
        now = self.slots.capacity
        wanted = whole_number("capacity", capacity, now + 1)
        if self._course is not None:
            self._move(self._course.book, wanted)
        self._settings = replace(self._settings, capacity=wanted)

    def extend(self, table: Any) -> None:
        """Take in later rows of a dated table, of the form that `from_long` was given.

        Raises
        ------
        TypeError
            The baskets are not dated.
        ValueError
            A date is not after those that the baskets had, or there are too few slots.
        """
        self._refuse_meanwhile()
        if self._book is None or self._columns is None or not self._book.is_dated:
            raise TypeError("extend() is of dated baskets, made with from_long(..., date=...)")
        book = extended(self._book, table, self._columns, complete=self._complete)
        self._standing.refuse_past(book, since=self._book)
        self._refuse_shortage(book, "call grow() before")
        if self._course is not None:
            self._course.rotation.chain.places.require_labels(book.baskets)
        self._move(book, max(self.slots.capacity, self._capacity_of(book)))

    def __repr__(self) -> str:
        return shown.as_text(self)

    def _repr_html_(self) -> str:
        return shown.as_html(self)

    # ---- inside ---------------------------------------------------------------------------------

    def _set_up(self, book: Book | None, settings: Settings) -> None:
        self._settings = settings
        self._book = book
        # Nobody has said yet what the baskets are: the columns of each table that is run.
        self._is_open = book is None
        self._was_warned = False
        self._standing = Standing()
        self._course = None
        chain = make_chain(settings.recipes, settings.hold, Places(1, settings.labels))
        if settings.reclaim:
            chain.require("forget")
        if book is not None:
            self._refuse_shortage(book, "give more")
            self._course = self._new_course(book)

    def _capacity_of(self, book: Book) -> int:
        return self._settings.capacity or max(len(book.baskets), 1)

    def _new_course(self, book: Book) -> Course:
        rotation = BasketRotation(
            self._settings,
            capacity=self._capacity_of(book),
            instruments=len(book.instruments),
        )
        rotation.chain.places.require_labels(book.baskets)
        return Course(rotation, book, reclaim=self._settings.reclaim)

    def _move(self, book: Book, capacity: int) -> None:
        """Let the rotation go on with another book or more room."""
        assert self._course is not None
        self._course.refuse_spoilt()
        rotation = self._course.rotation
        if (capacity, len(book.instruments)) != (
            rotation.max_structures,
            len(rotation._instruments),
        ):
            rotation = rotation.in_room(capacity, len(book.instruments))
        self._continue(book, rotation, self._standing)

    def _continue(self, book: Book, rotation: BasketRotation, standing: Standing) -> None:
        """Go on with a rotation in the state that it has."""
        self._book = book
        self._course = Course(rotation, book, reclaim=self._settings.reclaim)
        self._standing = standing

    def _refuse_shortage(self, book: Book, way_on: str) -> None:
        capacity, needed = self._settings.capacity, len(book.baskets)
        if capacity is None or self._settings.reclaim:
            return
        if capacity < needed:
            raise ValueError(
                f"capacity must be at least {needed}, the number of baskets, got {capacity}; "
                f"{way_on}, or make it with reclaim=True, which gives the slots of ended baskets "
                "to new ones"
            )
        if book.is_dated and needed >= NEARLY_FULL * capacity and not self._was_warned:
            self._was_warned = True
            warnings.warn(
                f"{needed} of {capacity} slots are taken by the baskets so far: grow() makes room, "
                "and reclaim=True gives the slots of ended baskets to new ones",
                UserWarning,
                stacklevel=_frames_inside(),
            )

    def _refuse_meanwhile(self) -> None:
        """Raise RuntimeError while days are computed: half-way there is nothing to go on from."""
        if self._is_computing:
            raise RuntimeError(
                "these baskets compute a day just now: a function of the expression, or another "
                "thread, can do nothing with them until it is over"
            )

    def _book_for(self, table: Table) -> Book:
        """The book for a fresh start; where nobody has said, each column is a basket."""
        if self._book is not None and not self._is_open:
            return self._book
        book = single_book(range(table.width) if table.names is None else table.names)
        self._refuse_shortage(book, "give more")
        return book

    def _advance(self, course: Course, standing: Standing, table: Table, level: Level) -> Any:
        """The days of a table; where they succeed, this is where the baskets stand."""
        if level not in get_args(Level):
            raise ValueError(f"level must be one of {', '.join(get_args(Level))}, got {level!r}")
        book = course.book
        matrix = table.matrix(book.instruments, used=book.used)
        after = standing.after(table, book)
        self._is_computing = True
        try:
            with progress_bar("quorvane") as progress:
                request = Request(level, self._settings.threads, progress)
                outputs = course.advance(matrix, table.dates, request)
        finally:
            self._is_computing = False
        self._book, self._course, self._standing = book, course, after
        if level == "basket":
            return table.of_columns(outputs, book.baskets)
        return table.fill(outputs, book.instruments)

    def _labelled_step(self, row: Row) -> Any:
        self._refuse_meanwhile()
        course = self._course
        if course is None:
            raise ValueError(
                "the instruments are not known yet: give instruments= or weights, or run() first"
            )
        book = course.book
        vector = row.vector(book.instruments, used=book.used)
        after = self._standing.after_row(row, book)
        dates = None if row.date is None else np.array([row.date])
        self._is_computing = True
        try:
            output = course.day(vector, dates)
        finally:
            self._is_computing = False
        self._standing = after
        return row.fill(output, book.instruments)


def _frames_inside() -> int:
    """How many frames of this package lie between its user and whoever asks."""
    frame, count = inspect.currentframe(), 0
    while frame is not None and str(frame.f_globals.get("__name__")).startswith("quorvane."):
        frame, count = frame.f_back, count + 1
    return count
