"""How baskets show themselves."""

from __future__ import annotations

import html
from typing import TYPE_CHECKING

from quorvane.tables import date_text

if TYPE_CHECKING:
    from quorvane.baskets.front import Baskets


def as_text(baskets: Baskets) -> str:
    """One line: what they are, and where they stand."""
    facts = ", ".join(f"{name} {value}" for name, value in _facts(baskets).items())
    return f"<Baskets {baskets.expression!r}: {facts}>"


def as_html(baskets: Baskets) -> str:
    """The same as a table."""
    facts = {"expression": baskets.expression, **_facts(baskets)}
    rows = "".join(
        f"<tr><th style='text-align:left'>{html.escape(name)}</th>"
        f"<td style='text-align:left'>{html.escape(value)}</td></tr>"
        for name, value in facts.items()
    )
    return f"<table><caption>Baskets</caption>{rows}</table>"


def _facts(baskets: Baskets) -> dict[str, str]:
    slots = baskets.slots
    standing = baskets._standing
    last = standing.last_date
    day = f"{standing.days} days so far" if standing.days else "none yet"
    if last is not None:
        day = f"{date_text(last)} ({day})"
    listed = f"{len(baskets.baskets)} of {len(baskets.instruments)} instruments"
    return {
        "baskets": listed if baskets.baskets else "a column each",
        "slots": f"{slots.speaking} speaking, {slots.known} known, {slots.capacity} in all",
        "last day": day,
    }
