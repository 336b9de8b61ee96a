"""Several loads and writes of a store that happen together or not at all."""

from __future__ import annotations

import contextlib
import errno
import operator
from collections.abc import Iterator
from typing import Any

from quorvane.stores._place import Place
from quorvane.stores._table_records import TableRecords
from quorvane.stores.encoding import Payload, pack
from quorvane.stores.errors import StoreWriteError
from quorvane.stores.records import check_text


class StoreTransaction:
    """What ``store.transaction()`` gives: the store's records, held by this block alone.

    It belongs to the thread that began it, not to a fork of it, and ends with the block.
    """

    def __init__(self, place: Place, records: TableRecords, keep: int, store: str) -> None:
        self._place = place
        self._records = records
        self._keep = keep
        self._store = store
        self._failure: BaseException | None = None

    def load(self, name: str, version: int | None = None) -> Any:
        """Return a state of `name` as it is now, what this transaction wrote included.

        Raises
        ------
        TypeError
            `version` is neither None nor an integer.
        RecordNotFoundError, RecordDamagedError, StateVersionError, StoreReadError
            See `VersionedStore.load`.
        """
        name = check_text(name, "name")
        wanted = version_number(version)
        with self._place.reading(f"record {name!r} of {self._store}"):
            self._records.require_transaction()
            found = self._records.find(name, wanted)
        return found.state()

    def write(self, name: str, state: object) -> None:
        """Add `state` as the next version of `name` when the block ends.

        Others wait while a state is packed inside the block. What takes long to pack is better
        packed before it, with `quorvane.stores.pack`.

        Parameters
        ----------
        name : str
            As for the store's ``write``.
        state : object
            The state, or what ``pack`` made of it.

        Raises
        ------
        StateEncodeError
            The state holds something that cannot be kept; the transaction can go on.
        StoreWriteError, RecordDamagedError
            The write failed, and nothing of the transaction will happen.
        """
        name = check_text(name, "name")
        payload = state if isinstance(state, Payload) else pack(state)
        with self._whole(f"write record {name!r} of {self._store}"):
            self._records.append(name, payload, self._keep)

    def require_whole(self, what: str) -> None:
        """Refuse to go on without the transaction, or with the first half of a failed write.

        Raises
        ------
        StoreWriteError
            A write of this transaction has failed, or the database has undone it, or another
            process began it.
        """
        if self._failure is not None:
            raise StoreWriteError(
                errno.ECANCELED, f"cannot {what}: an earlier write of the transaction failed"
            ) from self._failure
        with self._place.writing(what):
            self._records.require_transaction()

    @contextlib.contextmanager
    def _whole(self, what: str) -> Iterator[None]:
        try:
            self.require_whole(what)
            with self._place.writing(what):
                yield
        except BaseException as error:
            self._failure = self._failure or error
            raise


# Its name when SQLite's store alone had transactions.
SqliteTransaction = StoreTransaction


def version_number(version: object) -> int | None:
    """Return `version` as an int or None; a bool is neither, though Python counts with it.

    Raises
    ------
    TypeError
        It is something else.
    """
    if version is None:
        return None
    if not isinstance(version, bool) and hasattr(version, "__index__"):
        return operator.index(version)
    raise TypeError(f"version must be an int, got {type(version).__name__}")
