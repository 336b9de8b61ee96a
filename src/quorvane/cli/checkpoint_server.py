"""Checkpoints on a PostgreSQL server, and telling its URL from the name of a file."""

from __future__ import annotations

import argparse
import os
import re
from dataclasses import dataclass, field
from typing import Any
from urllib.parse import quote, unquote

from quorvane.cli.checkpoint_place import NAMESPACE, CheckpointPlace

_SCHEMES = ("postgresql://", "postgres://")
# How libpq's other kind of address begins.
_WORDS = re.compile(r"\s*(host|hostaddr|port|dbname|user|password|passfile|service)\s*=")
_LONGEST_NAME = 1000


@dataclass(frozen=True)
class CheckpointServer(CheckpointPlace):
    """A database that a URL names; what follows its ``#`` tells the checkpoints in it apart.

    Attributes
    ----------
    text : str
        The URL without its password.
    dsn : str
        The URL without the name, as it was given. It is never shown.
    name : str
        Which checkpoint; empty where there is but one.
    """

    dsn: str = field(repr=False)
    name: str

    @property
    def identity(self) -> str:
        """What two names of one place have in common."""
        return self.text

    def check(self) -> None:
        """Raise DataError unless a checkpoint can be kept here; asked before anything is read."""
        with self.reporting():
            self.stores.pack({})
            self.open()

    def check_present(self) -> None:
        """Raise DataError unless there is a store to look at; makes none."""
        from quorvane.stores._postgres_address import PostgresAddress
        from quorvane.stores._postgres_server import PostgresServer

        server = PostgresServer(PostgresAddress(self.dsn), self._namespace, 30.0)
        with self.reporting(), server.reading("a checkpoint"), server.read_transaction():
            return

    def open(self) -> Any:
        """The store, made if it is missing; its errors are those of `quorvane.stores`."""
        return self.stores.PostgresStore(self.dsn, self._namespace, keep=1)

    @property
    def _namespace(self) -> str:
        return f"{NAMESPACE}, {self.name}" if self.name else NAMESPACE


def checkpoint_place(text: str) -> CheckpointPlace:
    """The file or the database that ``--checkpoint`` names.

    Raises
    ------
    argparse.ArgumentTypeError
        It cannot be meant. Nothing of it is quoted, as it may hold a password.
    """
    if text.startswith(_SCHEMES):
        try:
            return _server(text)
        except (ValueError, ImportError) as error:
            fault = str(error)
    elif _WORDS.match(text) and not os.path.exists(text):
        fault = (
            "a server is named by a URL, as in postgresql://user@host/database; "
            "a file whose name looks like an address, as in ./NAME"
        )
    else:
        return CheckpointPlace(text)
    raise argparse.ArgumentTypeError(fault)


def _server(text: str) -> CheckpointServer:
    from quorvane.stores._postgres_address import PostgresAddress
    from quorvane.stores.records import check_text

    dsn, _, name = text.rpartition("#")
    # A password may hold a "#", to which libpq has nothing against.
    if not dsn or "@" in name:
        dsn, name = text, ""
    name = check_text(unquote(name), "the checkpoint's name", may_be_empty=True)
    if len(name.encode()) > _LONGEST_NAME:
        raise ValueError(f"the checkpoint's name has more than {_LONGEST_NAME:,} bytes")
    shown = str(PostgresAddress(dsn)) + ("#" + quote(name, safe="") if name else "")
    return CheckpointServer(shown, dsn, name)
