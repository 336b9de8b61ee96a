"""What must be the same when a replay is resumed."""

from __future__ import annotations

import hashlib
import json
from collections.abc import Mapping
from dataclasses import dataclass, field
from datetime import UTC, datetime
from functools import cached_property
from typing import Any

import numpy as np

from quorvane.baskets.listing import Book, Dates
from quorvane.cli.table import Table


@dataclass
class RunIdentity:
    """Options, structures, labels, and the days so far.

    Later days and later dates of structures may have been added, so both are identified up to a
    given day.
    """

    table: Table
    book: Book
    options: Mapping[str, Any]
    moments: Dates | None = None
    labels: Mapping[str, Mapping[str, str]] = field(default_factory=dict)
    _values: Any = field(default_factory=hashlib.sha256)
    _dates: Any = field(default_factory=hashlib.sha256)
    _hashed_days: int = 0

    def upto(self, day: int) -> dict[str, Any]:
        """The identity of a run over the days before ``day``; asked for rising days."""
        dates = self.table.dates
        fresh = slice(self._hashed_days, day)
        rows = np.array(self.table.values[fresh])
        # One NaN for all: which bits a missing cell gets depends on the reader.
        rows[np.isnan(rows)] = np.nan
        self._values.update(rows.tobytes())
        if dates is not None:
            self._dates.update("".join(json.dumps(date) for date in dates.text[fresh]).encode())
        self._hashed_days = day
        met = self._listings_met(day)
        return {
            "options": dict(self.options),
            "instruments": _digest(self.table.instruments),
            "structures": _digest(self._listings[:met]),
            "values": self._values.hexdigest(),
            "dates": self._dates.hexdigest(),
            "labels": _digest(self._labels_met(met)),
        }

    def difference(self, day: int, made_with: Mapping[str, Any]) -> str:
        """What is not as it was in a run over the days before ``day``; nothing where all is."""
        now = self.upto(day)
        for option, value in now["options"].items():
            before = made_with["options"][option]
            if before != value:
                return f"--{option} {_shown(before)}, not {_shown(value)}"
        for what, text in [
            ("instruments", "other instruments, or in another order"),
            ("structures", "other structures, or in another order"),
            ("labels", "other labels"),
            ("values", f"other values before day {day}"),
            ("dates", f"other dates before day {day}"),
        ]:
            if made_with[what] != now[what]:
                return text
        return ""

    def about(self, day: int, told: Mapping[str, str]) -> dict[str, str | int]:
        """What a person wants to know of a run that was kept after ``day`` days."""
        return {
            **told,
            "days": len(self.table.values),
            "last day": self.table.label(day - 1) if day else "",
            "saved": datetime.now(UTC).isoformat(timespec="seconds"),
        }

    def _listings_met(self, day: int) -> int:
        """How many dates of the structures a day before ``day`` can have met."""
        if self.book.dates is None or self.moments is None:
            return len(self.book.listings)
        if day == 0:
            return 0
        return int(np.searchsorted(self.book.dates, self.moments[day - 1], side="right"))

    def _labels_met(self, listings: int) -> dict[str, dict[str, str]]:
        """Others were in no group yet, and may have come to the file since."""
        met = {key for listing in self.book.listings[:listings] for key in listing.baskets}
        return {
            name: {key: label for key, label in labels.items() if key in met}
            for name, labels in self.labels.items()
        }

    @cached_property
    def _listings(self) -> list[str]:
        dates = [""] if self.book.dates is None else map(str, self.book.dates)
        return [
            f"{date} {listing.digest(self.book.instruments).hex()}"
            for date, listing in zip(dates, self.book.listings, strict=True)
        ]


def _digest(value: Any) -> str:
    return hashlib.sha256(json.dumps(value).encode()).hexdigest()


def _shown(value: Any) -> str:
    if isinstance(value, bool):
        return "given" if value else "absent"
    return repr(value)
