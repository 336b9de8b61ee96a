"""Places to keep the state of a rotation: ``rotation.checkpoint(store)``, ``recover(store)``.

`SqliteStore` is the one to start with: one file for many rotations, the last versions of each,
safe for two processes at once. `PostgresStore` keeps the same in a database that many machines
see. `DirectoryStore` keeps a file per record and works on network mounts, where SQLite's locking
does not. `MemoryStore` is for tests and notebooks.

All of them keep a state exactly as it is, or say what they cannot keep; none ever executes
anything that it reads. A damaged record is always noticed: ``recover`` then returns False and
leaves the rotation as it was, and ``load`` says what is wrong.

Importing this package needs NumPy only; the first state that is encoded needs msgpack, which
``pip install 'quorvane[stores]'`` brings; `PostgresStore` needs psycopg as well, which comes with
``pip install 'quorvane[postgres]'``.
"""

from __future__ import annotations

from importlib import import_module
from typing import TYPE_CHECKING, Any

if TYPE_CHECKING:
    from quorvane.stores.directory import DirectoryStore
    from quorvane.stores.encoding import Payload, decode, encode, pack
    from quorvane.stores.errors import (
        DamagedRecordWarning,
        RecordDamagedError,
        RecordNotFoundError,
        StateDecodeError,
        StateEncodeError,
        StateVersionError,
        StoreBusyError,
        StoreDependencyError,
        StoreError,
        StoreFormatError,
        StoreReadError,
        StoreWriteError,
    )
    from quorvane.stores.memory import MemoryStore
    from quorvane.stores.postgres import PostgresStore
    from quorvane.stores.records import DamagedRecord, RecordStore
    from quorvane.stores.sqlite import SqliteStore
    from quorvane.stores.transaction import SqliteTransaction, StoreTransaction
    from quorvane.stores.versioned import StoredVersion, VersionedStore

__all__ = [
    "DamagedRecord",
    "DamagedRecordWarning",
    "DirectoryStore",
    "MemoryStore",
    "Payload",
    "PostgresStore",
    "RecordDamagedError",
    "RecordNotFoundError",
    "RecordStore",
    "SqliteStore",
    "SqliteTransaction",
    "StateDecodeError",
    "StateEncodeError",
    "StateVersionError",
    "StoreBusyError",
    "StoreDependencyError",
    "StoreError",
    "StoreFormatError",
    "StoreReadError",
    "StoreTransaction",
    "StoreWriteError",
    "StoredVersion",
    "VersionedStore",
    "decode",
    "encode",
    "pack",
]

_MODULE_OF = {
    "DamagedRecord": "records",
    "DirectoryStore": "directory",
    "MemoryStore": "memory",
    "Payload": "encoding",
    "PostgresStore": "postgres",
    "RecordStore": "records",
    "SqliteStore": "sqlite",
    "SqliteTransaction": "transaction",
    "StoreTransaction": "transaction",
    "StoredVersion": "versioned",
    "VersionedStore": "versioned",
    "decode": "encoding",
    "encode": "encoding",
    "pack": "encoding",
}


def __getattr__(name: str) -> Any:
    """Import a public name from its module when it is first asked for."""
    if name not in __all__:
        raise AttributeError(f"module {__name__!r} has no attribute {name!r}")
    value = getattr(import_module(f"{__name__}.{_MODULE_OF.get(name, 'errors')}"), name)
    globals()[name] = value
    return value


def __dir__() -> list[str]:
    """List the public names, imported or not."""
    return sorted({*globals(), *__all__})
