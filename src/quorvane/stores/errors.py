"""What can go wrong with a stored state, one class per thing the caller can do about it."""

from __future__ import annotations

__all__ = [
    "DamagedRecordWarning",
    "RecordDamagedError",
    "RecordNotFoundError",
    "StateDecodeError",
    "StateEncodeError",
    "StateVersionError",
    "StoreBusyError",
    "StoreDependencyError",
    "StoreError",
    "StoreFormatError",
    "StoreReadError",
    "StoreWriteError",
]


class StoreError(Exception):
    """Base of every error that the stores and their encoding raise on their own account."""


class StateEncodeError(StoreError, ValueError):
    """A state holds something that could not be brought back exactly.

    Attributes
    ----------
    path : str
        Where it is, as a Python expression on the state, for example
        ``state["structure_metadata_by_slot"][3]["x"]``.
    """

    def __init__(self, path: str, reason: str) -> None:
        super().__init__(f"{path} {reason}")
        self.path = path
        self.reason = reason

    def __reduce__(self) -> tuple[type[StateEncodeError], tuple[str, str]]:
        """Rebuild from both arguments, so that the error survives a process pool."""
        return type(self), (self.path, self.reason)


class StateDecodeError(StoreError, ValueError):
    """Bytes that are not an intact encoded state: truncated, altered, foreign or oversized."""


class StateVersionError(StateDecodeError):
    """An intact encoded state whose format is newer than this version can read."""


class RecordNotFoundError(StoreError, LookupError):
    """``load`` was asked for a record or a version that the store does not hold."""


class RecordDamagedError(StoreError, ValueError):
    """A record is there, and what is there is not what was written."""


class StoreFormatError(StoreError, ValueError):
    """The file or folder at the given path is not a store of ours, or a newer version made it."""


class StoreReadError(StoreError, OSError):
    """The system refused to read: permissions, an I/O error. The record itself may be fine."""


class StoreWriteError(StoreError, OSError):
    """A write failed: disk full, unwritable folder. What was stored before is still there."""


class StoreBusyError(StoreError, TimeoutError):
    """Another process held the store for longer than the busy timeout."""


class StoreDependencyError(StoreError, ImportError):
    """An optional package that the encoding needs is not installed."""


class DamagedRecordWarning(UserWarning):
    """``read`` met a damaged record and answered with a `DamagedRecord` instead of a state."""
