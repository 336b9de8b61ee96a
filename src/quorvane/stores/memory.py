"""A store that lives as long as its object, for tests and notebooks."""

from __future__ import annotations

from typing import Any

from quorvane.stores.encoding import encode
from quorvane.stores.errors import RecordNotFoundError
from quorvane.stores.records import RecordStore, check_text, decode_record


class MemoryStore(RecordStore):
    """Keeps the newest state of each name in memory, encoded as the durable stores do.

    Encoding is the copy that makes a record independent of the live rotation. It also means that
    a state which this store takes and gives back is one that the durable stores will.
    """

    def __init__(self) -> None:
        self._records: dict[str, bytes] = {}

    def __repr__(self) -> str:
        return "MemoryStore()"

    def write(self, name: str, state: object) -> None:
        """Keep a copy of `state` under `name`; see `RecordStore.write`."""
        key = check_text(name, "name")
        self._records[key] = encode(state, label=key)

    def load(self, name: str) -> Any:
        """Return a new copy of the state of `name`; see `RecordStore.load`."""
        key = check_text(name, "name")
        data = self._records.get(key)
        if data is None:
            raise RecordNotFoundError(f"{self!r} holds no record named {name!r}")
        return decode_record(data, key, f"record {name!r} of {self!r}")

    def names(self) -> list[str]:
        """Return the names that have a record, sorted."""
        return sorted(self._records)
