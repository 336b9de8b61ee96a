"""The records of one namespace in tables of a database, inside a transaction on it."""

from __future__ import annotations

import hashlib
import os
from abc import ABC, abstractmethod
from dataclasses import dataclass
from typing import Any

from quorvane.stores.encoding import HEADER_BYTES, Payload, header_fault, seal
from quorvane.stores.errors import RecordDamagedError, RecordNotFoundError
from quorvane.stores.records import decode_record

# The largest integer of a column.
_LAST_VERSION = 2**63 - 1


@dataclass(frozen=True)
class FoundRecord:
    """The bytes of one version, which need the database no longer to be decoded.

    Attributes
    ----------
    data : bytes
        Header and payload.
    label, what : str
        What the bytes were sealed under, and how errors call them.
    """

    data: bytes
    label: str
    what: str

    def state(self) -> Any:
        """Return the state.

        Raises
        ------
        RecordDamagedError, StateVersionError
            See `RecordStore.load`.
        """
        return decode_record(self.data, self.label, self.what)


@dataclass(frozen=True)
class Glimpse:
    """What is known of a version before its bytes are read.

    Attributes
    ----------
    row : object
        What `TableRecords._bytes_of` finds them by.
    kind : str
        The kind of value that is there; "blob" is the right one.
    size : int
        Bytes.
    header : bytes
        Their beginning.
    """

    row: Any
    kind: str
    size: int
    header: bytes


class TableRecords(ABC):
    """Reads and adds records through a connection that is inside a transaction.

    A table holds the versions, another one says of each name which version is the newest, under a
    seal that covers that version's own checksum: losing or altering either row shows, whatever
    else is still there. How both are asked is a subclass's affair.

    Parameters
    ----------
    namespace, store : str
        Whose records they are, and how errors call the store.
    """

    def __init__(self, namespace: str, store: str) -> None:
        self._namespace = namespace
        self._store = store
        self._process = os.getpid()

    @abstractmethod
    def require_transaction(self) -> None:
        """Raise one of the database's errors unless what comes next is in the transaction."""

    @abstractmethod
    def versions(self, name: str) -> list[tuple[Any, Any, Any]]:
        """Return number, time and size of the versions of `name`, the newest first."""

    @abstractmethod
    def names(self) -> list[Any]:
        """Return the names that have a record, sorted."""

    @abstractmethod
    def _last_version(self, name: str) -> int:
        """Return the largest number that either table knows, 0 when neither has one."""

    @abstractmethod
    def _insert(self, name: str, version: int, data: bytes) -> None:
        """Add a version."""

    @abstractmethod
    def _set_head(self, name: str, version: int, head_seal: bytes) -> None:
        """Let a version be the newest."""

    @abstractmethod
    def _delete_until(self, name: str, version: int) -> None:
        """Remove a version and those before it."""

    @abstractmethod
    def _find_head(self, name: str) -> tuple[Any, Any] | None:
        """Return number and seal of the newest version, None when nothing says them."""

    @abstractmethod
    def _glimpse(self, name: str, version: int) -> Glimpse | None:
        """Look at a version without reading all of it, None when it is not there."""

    @abstractmethod
    def _bytes_of(self, row: Any) -> bytes:
        """Read what a glimpse was of."""

    def append(self, name: str, payload: Payload, keep: int) -> None:
        """Add the next version of `name`, and remove those before the last `keep`."""
        # Both tables are asked, so that a write after damage to one goes on with a new number.
        version = self._last_version(name) + 1
        data = seal(payload, self._label(name, version))
        self._insert(name, version, data)
        self._set_head(name, version, self._seal_of_head(name, version, data))
        self._delete_until(name, version - keep)

    def find(self, name: str, wanted: int | None) -> FoundRecord:
        """Return one version of `name`, the newest when `wanted` is None.

        Raises
        ------
        RecordNotFoundError
            Nothing is stored under this name, or not this version.
        RecordDamagedError
            It is not what was written, as far as that shows without decoding.
        """
        what = f"record {name!r} of {self._store}"
        newest, head_seal = self._head(name, what)
        number = newest if wanted is None else wanted
        data = self._data(name, number, what, is_newest=number == newest)
        if number == newest and self._seal_of_head(name, number, data) != head_seal:
            raise RecordDamagedError(f"{what} is damaged: it is not the newest version")
        return FoundRecord(data, self._label(name, number), f"version {number} of {what}")

    def _head(self, name: str, what: str) -> tuple[int, bytes]:
        """Return the number and the seal of the newest version."""
        head = self._find_head(name)
        if head is not None:
            return head
        if self._last_version(name) > 0:
            raise RecordDamagedError(f"{what} is damaged: nothing says which version is the newest")
        raise RecordNotFoundError(f"{self._store} holds no record named {name!r}")

    def _data(self, name: str, version: int, what: str, *, is_newest: bool) -> bytes:
        """Return the bytes of one version, asking for kind, length and header before for them."""
        not_found = f"{self._store} holds no version {version} of record {name!r}"
        if not is_newest and not 1 <= version <= _LAST_VERSION:
            raise RecordNotFoundError(not_found)
        seen = self._glimpse(name, version)
        if seen is None and not is_newest:
            raise RecordNotFoundError(not_found)
        if seen is None:
            raise RecordDamagedError(f"{what} is damaged: its newest version is missing")
        is_blob = seen.kind == "blob"
        fault = header_fault(seen.header, seen.size) if is_blob else f"it is {seen.kind}"
        if fault is not None:
            raise RecordDamagedError(f"{what} is damaged: {fault}")
        return self._bytes_of(seen.row)

    def _label(self, name: str, version: int) -> str:
        return f"{self._namespace}\0{name}\0{version}"

    def _seal_of_head(self, name: str, version: int, data: bytes) -> bytes:
        # The header holds the checksum of everything else.
        sealed = data[:HEADER_BYTES] + self._label(name, version).encode()
        return hashlib.blake2b(sealed, digest_size=32, person=b"quorvane-head").digest()
