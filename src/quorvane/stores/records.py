"""What all stores have in common: names, and what reading a damaged record means."""

from __future__ import annotations

import warnings
from abc import ABC, abstractmethod
from dataclasses import dataclass
from typing import Any

from quorvane.stores.encoding import decode
from quorvane.stores.errors import (
    DamagedRecordWarning,
    RecordDamagedError,
    RecordNotFoundError,
    StateDecodeError,
    StateVersionError,
    StoreFormatError,
)


@dataclass(frozen=True)
class DamagedRecord:
    """What ``read`` returns in place of a state that is no longer what was written.

    It is not a dictionary, so ``recover`` takes it for an unusable record, returns False and
    leaves the rotation as it was.

    Attributes
    ----------
    store : str
        Which store it was read from.
    name : str
        The record's name there.
    fault : str
        What is wrong with it.
    """

    store: str
    name: str
    fault: str


class RecordStore(ABC):
    """Keeps one state per name.

    A subclass writes and loads; reading for a rotation is the same for all.
    """

    @abstractmethod
    def write(self, name: str, state: object) -> None:
        """Keep `state` under `name`: entirely, or not at all.

        When it returns, the state is stored. When it raises, what was stored before is still
        there, unless the error arose after the last byte was in place, as when a folder cannot
        be flushed; the new state may then be there in its entirety.

        Parameters
        ----------
        name : str
            Any text that is not empty and holds no NUL and no lone surrogates.
        state : object
            The state, which the store does not hold on to.

        Raises
        ------
        StateEncodeError
            The state holds something that cannot be kept; the message says where.
        StoreWriteError
            The disk is full, the place cannot be written to, or it failed.
        StoreBusyError
            Another process held the store for too long.
        """

    @abstractmethod
    def load(self, name: str) -> Any:
        """Return the newest state of `name`, or say why not.

        Raises
        ------
        RecordNotFoundError
            Nothing is stored under this name.
        RecordDamagedError
            Something is stored, and it is not what was written.
        StateVersionError
            It is intact, and a newer version of this package wrote it.
        StoreFormatError
            The whole store no longer is one.
        StoreReadError
            The system refused to read.
        """

    def read(self, name: str) -> Any:
        """Return the newest state of `name` for ``recover``.

        Returns
        -------
        object
            The state; None when nothing is stored; a `DamagedRecord`, with a
            `DamagedRecordWarning`, when what is stored is not what was written, or the whole
            store no longer is one. An older version is never returned in its place.

        Raises
        ------
        StateVersionError, StoreReadError, StoreBusyError
            As ``load`` does: the record may be fine, and going on without it would lose it.
        """
        name = check_text(name, "name")
        try:
            return self.load(name)
        except RecordNotFoundError:
            return None
        except (RecordDamagedError, StoreFormatError) as error:
            warnings.warn(str(error), DamagedRecordWarning, stacklevel=2)
            return DamagedRecord(repr(self), name, str(error))


def check_text(value: object, argument: str, *, may_be_empty: bool = False) -> str:
    """Return `value`, as an exact str, if it can serve as a name in every store.

    Raises
    ------
    TypeError
        It is not a str.
    ValueError
        It is empty where it may not be, or holds a NUL or a lone surrogate.
    """
    if not isinstance(value, str):
        raise TypeError(f"{argument} must be a str, got {type(value).__name__}")
    # A subclass, such as an enumeration of names, may show itself as something else.
    text = str.__str__(value)
    if not text and not may_be_empty:
        raise ValueError(f"{argument} must not be empty")
    if "\0" in text or any("\ud800" <= character <= "\udfff" for character in text):
        raise ValueError(f"{argument} must hold no NUL and no lone surrogates, got {text!r}")
    return text


def decode_record(data: bytes, label: str, what: str) -> Any:
    """Return the state in `data`; `what` names the record in the error.

    Raises
    ------
    RecordDamagedError
        The bytes are not those that were written under `label`.
    StateVersionError
        They are intact and in a newer format.
    """
    try:
        return decode(data, label=label)
    except StateVersionError:
        raise
    except StateDecodeError as error:
        raise RecordDamagedError(f"{what} is damaged: {error}") from error
