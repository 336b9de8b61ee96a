"""The header around an encoded state: what it is, how long it is, and whether it is intact.

====== ===== ==========================================================
offset bytes meaning
====== ===== ==========================================================
0      8     magic
8      4     format version, little-endian
12     4     zero
16     8     length of the payload in bytes, little-endian
24     8     number of values in the state, little-endian
32     32    BLAKE2b-256 of the payload, the label and the bytes 0 to 31
64           payload
====== ===== ==========================================================

Later versions keep this header and its checksum, so an intact record of a newer version can be
told from a damaged one.
"""

from __future__ import annotations

import hashlib
import struct
from dataclasses import dataclass

from quorvane.stores.encoding._layout import MAX_VALUES, VALUES_PER_BYTE
from quorvane.stores.errors import StateDecodeError, StateVersionError

# A high byte, both line ends and an end-of-file mark show transfers that were not binary.
MAGIC = b"\x8dQVS\r\n\x1a\n"
FORMAT_VERSION = 1
HEADER_BYTES = 64
MAX_PAYLOAD_BYTES = 2**32 - 1
"""Largest payload: the longest buffer that MessagePack describes."""

_FIELDS = struct.Struct("<8sIIQQ")
_DIGEST_BYTES = 32


@dataclass(frozen=True)
class Payload:
    """Packed contents of one state and the number of values in it."""

    data: bytes | memoryview
    values: int


def _digest(fields: bytes, payload: bytes | memoryview, label: str) -> bytes:
    """Return the checksum; the payload comes first and all later parts have known lengths."""
    text = label.encode("utf-8", "surrogatepass")
    hasher = hashlib.blake2b(payload, digest_size=_DIGEST_BYTES, person=b"quorvane-state")
    hasher.update(text)
    hasher.update(len(text).to_bytes(8, "little"))
    hasher.update(fields)
    return hasher.digest()


def seal(payload: Payload, label: str) -> bytes:
    """Return header and payload, the checksum covering both and `label`."""
    fields = _FIELDS.pack(MAGIC, FORMAT_VERSION, 0, len(payload.data), payload.values)
    return b"".join((fields, _digest(fields, payload.data, label), payload.data))


def header_fault(
    header: bytes | memoryview, record_bytes: int, max_bytes: int = MAX_PAYLOAD_BYTES
) -> str | None:
    """Return why nothing of `record_bytes` that begins with `header` is a record, or None."""
    if len(header) < HEADER_BYTES:
        return f"encoded state is truncated: {len(header)} bytes, the header has {HEADER_BYTES}"
    magic, _version, _zero, length, _values = _FIELDS.unpack_from(header)
    if magic != MAGIC:
        return f"not an encoded state: it begins with {magic!r}, not {MAGIC!r}"
    if length > max_bytes:
        return f"encoded state claims {length} bytes, allowed are {max_bytes}"
    if length != record_bytes - HEADER_BYTES:
        return (
            f"encoded state has {record_bytes - HEADER_BYTES} bytes after the header, "
            f"which claims {length}"
        )
    return None


def open_envelope(data: bytes | bytearray | memoryview, label: str, max_bytes: int) -> Payload:
    """Return the payload of `data` after every check that needs no look inside it.

    Raises
    ------
    StateDecodeError
        Not a record, truncated, altered, sealed under another label, or larger than allowed.
    StateVersionError
        Intact, and in a newer format.
    """
    view = memoryview(data).cast("B")
    fault = header_fault(view[:HEADER_BYTES], len(view), max_bytes)
    if fault is not None:
        raise StateDecodeError(fault)
    fields = bytes(view[: _FIELDS.size])
    _magic, version, _zero, length, values = _FIELDS.unpack(fields)
    payload = view[HEADER_BYTES:]
    if _digest(fields, payload, label) != bytes(view[_FIELDS.size : HEADER_BYTES]):
        raise StateDecodeError(
            "encoded state does not match its checksum: it was altered, or belongs to another name"
        )
    if version > FORMAT_VERSION:
        raise StateVersionError(
            f"encoded state has format version {version}, this version reads up to {FORMAT_VERSION}"
        )
    if version < 1:
        raise StateDecodeError(f"encoded state has format version {version}, the first one is 1")
    if values > min(MAX_VALUES, VALUES_PER_BYTE * length):
        raise StateDecodeError(f"encoded state claims {values} values in {length} bytes")
    return Payload(payload, values)
