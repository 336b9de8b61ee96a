"""What PostgreSQL's errors mean, as numbers of the system and as text of one line."""

from __future__ import annotations

import errno

# By SQLSTATE, or by the characters that it begins with. The one feature that a server can lack is
# writing, when it only follows another one.
_NUMBERS = {
    "08": errno.ECONNRESET,
    "0A000": errno.EROFS,
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
# What a server says that takes nobody more, or nobody for the moment. Why a connection failed libpq
# says by text only; in another language it is an error like any other, and nobody waits.
_SIGNS_OF_CROWD = ("too many connections", "too many clients", "connection slots are reserved")
_SIGNS_OF_A_MOMENT = ("the database system is",)


class NoConnectionError(Exception):
    """A server cannot be reached, or does not let in; the text says why.

    It stands in for psycopg's own error, which keeps the text with the password alive.

    Attributes
    ----------
    number : int
        The system's number for it.
    """

    def __init__(self, text: str, number: int) -> None:
        super().__init__(text)
        self.number = number

    @property
    def is_crowded(self) -> bool:
        """Whether the server refused because it has too many connections."""
        return any(sign in str(self) for sign in _SIGNS_OF_CROWD)

    @property
    def may_pass(self) -> bool:
        """Whether the server may let in before long: it starts, stops, or has too many."""
        return self.is_crowded or any(sign in str(self) for sign in _SIGNS_OF_A_MOMENT)


def is_busy(error: Exception) -> bool:
    """Tell whether another one held what was needed for too long."""
    return _state(error) in _BUSY


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
    # What libpq guesses at follows on lines that begin with a tab.
    facts = " ".join(line for line in said.splitlines() if not line.startswith("\t"))
    return " ".join(facts.split()) or type(error).__name__


def _state(error: Exception) -> str:
    return getattr(error, "sqlstate", None) or ""
