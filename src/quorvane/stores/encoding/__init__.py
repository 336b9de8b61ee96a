"""States as bytes, exactly, without ever executing anything.

`encode` and `decode` keep every value as it is: tuples apart from lists, dictionary keys of any
kept type and in their order, None, bool, int of any size, float bit for bit (NaN payloads,
infinities and the sign of zero included), str (lone surrogates included), bytes, NumPy arrays
with dtype and shape, NumPy scalars with dtype. What would come back different is refused with
the path inside the state: subclasses (OrderedDict, namedtuple, IntEnum, masked arrays), arrays of
objects or structures, sets, and any other class.

Three things are normalised. An array that is neither C nor Fortran contiguous comes back C
contiguous. Every array comes back writable and owning its memory. A C alias of a dtype comes back
as the equal dtype with the standard name, ``longlong`` as ``int64``, in arrays and scalars.

The container is MessagePack inside a checked header. MessagePack alone hands every tuple to a
Python callback: the nine million tuples of a million slots take eight to ten seconds and 200 MB.
So values that stand side by side are stored as columns, and MessagePack carries the tree of
columns, a few dozen nodes and their buffers, in a fifth of the time and a third of the size.
`quorvane.stores.encoding._writer` describes the columns, `_envelope` the header.
"""

from __future__ import annotations

from typing import Any

from quorvane.stores.encoding._envelope import (
    HEADER_BYTES,
    MAX_PAYLOAD_BYTES,
    Payload,
    header_fault,
    open_envelope,
    seal,
)
from quorvane.stores.encoding._layout import MAX_DEPTH, MAX_VALUES
from quorvane.stores.encoding._reader import unpack
from quorvane.stores.encoding._writer import pack

__all__ = [
    "HEADER_BYTES",
    "MAX_DEPTH",
    "MAX_PAYLOAD_BYTES",
    "MAX_VALUES",
    "Payload",
    "decode",
    "encode",
    "header_fault",
    "pack",
    "seal",
]


def encode(state: object, *, label: str = "") -> bytes:
    """Return the bytes that `decode` turns back into an exactly equal value.

    Parameters
    ----------
    state : object
        The value to keep, usually the dictionary of a rotation's ``get_state``.
    label : str
        Text that enters the checksum without being stored. A record sealed under one label
        does not open under another, so a record that was moved to another name is noticed.

    Raises
    ------
    StateEncodeError
        A value that cannot be kept, a container that contains itself, or more than `MAX_DEPTH`
        nested containers; the message names the path inside the state.
    StoreDependencyError
        msgpack is not installed.
    """
    return seal(pack(state), label)


def decode(
    data: bytes | bytearray | memoryview,
    *,
    label: str = "",
    max_bytes: int = MAX_PAYLOAD_BYTES,
) -> Any:
    """Return the state that `encode` was given.

    The header, the length and the checksum are verified before the contents are looked at, and
    every size inside them before memory of that size is asked for. At most eight values are made
    per byte, so memory stays in proportion to ``len(data)``; a forger who makes every value a
    dictionary gets some 700 bytes of it per byte. Time does not: as in any Python dictionary,
    int keys chosen to have equal hashes cost the square of their number. Give `max_bytes` when
    the bytes come from somebody who is not trusted.

    Parameters
    ----------
    data : bytes-like
        What `encode` returned.
    label : str
        The label given to `encode`.
    max_bytes : int
        Largest payload to accept, in bytes.

    Raises
    ------
    StateDecodeError
        The bytes are truncated, altered, sealed under another label, or not an encoded state.
    StateVersionError
        They are intact and in a newer format.
    StoreDependencyError
        msgpack is not installed.
    """
    return unpack(open_envelope(data, label, max_bytes))
