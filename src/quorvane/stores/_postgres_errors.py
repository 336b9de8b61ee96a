"""What PostgreSQL's errors mean, as numbers of the system and as text of one line."""

from __future__ import annotations

import errno

# By SQLSTATE, or by its class of two characters.
_NUMBERS = {
    "08": errno.ECONNRESET,
    "25006": errno.EROFS,
    "28": errno.EACCES,
    "42501": errno.EACCES,
    "53100": errno.ENOSPC,
    "53200": errno.ENOMEM,
    "54": errno.EFBIG,
    "57014": errno.ETIMEDOUT,
    "57P": errno.ECONNRESET,
}
_BUSY = frozenset({"40001", "40P01", "55P03"})
# Tables, columns or their types are not what they were a moment before.
_OTHER_TABLES = frozenset({"3F000", "42703", "42804", "42883", "42P01"})
# Damaged data, a damaged index, and a key that is there twice.
_DAMAGE = frozenset({"XX001", "XX002", "23505"})
# What a server says that has no place for one more connection.
_SIGNS_OF_CROWD = ("too many connections", "too many clients", "connection slots are reserved")


class NoConnectionError(Exception):
    """A server cannot be reached, or does not let in; the text says why.

    It stands in for psycopg's own error, which keeps the text with the password alive.

    Attributes
    ----------
    number : int
        The system's number for it.
    is_crowded : bool
        The server takes no more connections.
    """

    def __init__(self, text: str, number: int, *, is_crowded: bool = False) -> None:
        super().__init__(text)
        self.number = number
        self.is_crowded = is_crowded


def is_crowded(error: Exception) -> bool:
    """Tell whether a server refused a connection because it has too many."""
    return any(sign in str(error) for sign in _SIGNS_OF_CROWD)


def is_busy(error: Exception) -> bool:
    """Tell whether another one held what was needed for too long."""
    return _state(error) in _BUSY or (isinstance(error, NoConnectionError) and error.is_crowded)


def is_of_other_tables(error: Exception) -> bool:
    """Tell whether the store's tables have gone or changed."""
    return _state(error) in _OTHER_TABLES


def is_damage(error: Exception) -> bool:
    """Tell whether an error says that the tables no longer hold what was written.

    Whatever does not say so may pass: taken for damage, it would lose a state that is there.
    """
    # Text that cannot be read stands in a database that does not check its encoding.
    return isinstance(error, UnicodeDecodeError) or _state(error) in _DAMAGE


def number_of(error: Exception) -> int:
    """Return the system's number for an error of the server or of the connection to it."""
    if isinstance(error, NoConnectionError):
        return error.number
    state = _state(error)
    for length in (5, 3, 2):
        if state[:length] in _NUMBERS:
            return _NUMBERS[state[:length]]
    # Without a state it is libpq that speaks, and of a connection that has broken.
    return errno.EIO if state else errno.ECONNRESET


def text_of(error: Exception) -> str:
    """Return what an error says in one line."""
    said = getattr(getattr(error, "diag", None), "message_primary", None) or str(error)
    return " ".join(said.split()) or type(error).__name__


def _state(error: Exception) -> str:
    return getattr(error, "sqlstate", None) or ""
