"""The calls that a writer made, as `calls.c` noted them."""

import os
import struct
from enum import IntEnum
from typing import NamedTuple

_HEAD = struct.Struct("=iiqII")
# SQLite writes this file through memory that it maps, where no call shows, and never relies on what
# is left of it after a crash.
_MAPPED = "-shm"


class Kind(IntEnum):
    """What a call does; the numbers are those of `calls.c`, but for SAY."""

    OPEN = 0
    WRITE = 1
    TRUNCATE = 2
    SYNC = 3
    CLOSE = 4
    RENAME = 5
    UNLINK = 6
    MKDIR = 7
    RMDIR = 8
    SAY = 9


class Call(NamedTuple):
    """One call.

    `number` is the flags of an open, the place of a write, or the size of a truncation; `data` is
    what was written or said, or the path that something was renamed to.
    """

    kind: Kind
    descriptor: int
    number: int
    path: str
    data: bytes


def read_calls(log, folder, notes):
    """Return the calls in a log as they concern `folder`, all paths as seen from there.

    What was written to the file `notes` is what the writer said: it stands among the calls.
    """
    calls = (_seen_from(folder, call) for call in _all_calls(log.read_bytes()))
    notes_path = os.path.relpath(notes, folder)
    paths = {}
    kept = []
    for call in calls:
        if call.kind is Kind.OPEN:
            paths[call.descriptor] = call.path
        path = call.path or paths[call.descriptor]
        if path == notes_path and call.kind is Kind.WRITE:
            kept.append(call._replace(kind=Kind.SAY))
        elif not path.startswith("..") and not path.endswith(_MAPPED):
            kept.append(call)
    return kept


def _all_calls(data):
    place = 0
    while place < len(data):
        kind, descriptor, number, first, second = _HEAD.unpack_from(data, place)
        place += _HEAD.size
        path = data[place : place + first].decode()
        yield Call(
            Kind(kind), descriptor, number, path, data[place + first : place + first + second]
        )
        place += first + second


def _seen_from(folder, call):
    if not call.path:
        return call
    data = call.data
    if call.kind is Kind.RENAME:
        data = os.path.relpath(data, os.fsencode(folder))
    return call._replace(path=os.path.relpath(call.path, folder), data=data)
