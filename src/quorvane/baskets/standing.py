"""Up to which day the rotation has come, and what kind of table told it."""

from __future__ import annotations

import numpy as np

from quorvane.baskets.listing import Book
from quorvane.tables import Row, Table, date_text


class Standing:
    """The days so far, the last date, and of which kind the last table was."""

    def __init__(
        self,
        days: int = 0,
        last_date: np.datetime64 | None = None,
        is_utc: bool | None = None,
        kind: str = "array",
    ) -> None:
        self.days = days
        self.last_date = last_date
        self.is_utc = is_utc
        self.kind = kind

    def after(self, table: Table, book: Book) -> Standing:
        """Where it stands after a table; ValueError where its dates do not go on from here."""
        if book.is_dated and table.dates is None:
            raise ValueError(
                "the baskets are dated, and the table has no dates: give it an index or a column "
                "of dates, or an array's with date="
            )
        if table.rows == 0 or table.dates is None:
            return Standing(self.days + table.rows, self.last_date, self.is_utc, table.kind)
        self._check(table.dates[0], table.is_utc, book)
        return Standing(self.days + table.rows, table.dates[-1], table.is_utc, table.kind)

    def after_row(self, row: Row, book: Book) -> Standing:
        """Where it stands after one more day."""
        if row.date is None:
            if book.is_dated:
                raise ValueError(
                    "the baskets are dated, and the row has no date: give it with date=, as the "
                    "Series' name, or in the frame's index"
                )
            return Standing(self.days + 1, self.last_date, self.is_utc, row.kind)
        self._check(row.date, row.is_utc, book)
        return Standing(self.days + 1, row.date, row.is_utc, row.kind)

    def refuse_past(self, book: Book, *, since: Book) -> None:
        """Raise ValueError where listings that have come to a book are of days that are over."""
        assert book.dates is not None
        later = book.dates[len(since.listings) :]
        if self.last_date is not None and len(later) and later[0] <= self.last_date:
            raise ValueError(
                f"table: dates must come after {date_text(self.last_date)}, the last computed "
                f"day, got {date_text(later[0])}"
            )

    def _check(self, first: np.datetime64, is_utc: bool, book: Book) -> None:
        for whose, other in (
            ("baskets", book.is_utc if book.is_dated else is_utc),
            ("days before", is_utc if self.is_utc is None else self.is_utc),
        ):
            if other != is_utc:
                raise ValueError(
                    f"the dates {'know' if is_utc else 'do not know'} their time zone, those of "
                    f"the {whose} {'do' if other else 'do not'}"
                )
        if self.last_date is not None and first <= self.last_date:
            raise ValueError(
                f"dates must come after {date_text(self.last_date)}, the last computed day, "
                f"got {date_text(first)}"
            )
