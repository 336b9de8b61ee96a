"""What a store with versions needs of the place where its tables are."""

from __future__ import annotations

from contextlib import AbstractContextManager
from typing import Any, Protocol


class Place(Protocol):
    """A file or a server with a store's tables, and what its errors mean."""

    def write_transaction(self, what: str) -> AbstractContextManager[Any]:
        """Run the block in one transaction that waits for other writers; gives its connection."""

    def read_transaction(self) -> AbstractContextManager[Any]:
        """Run the block on what is there at one moment; gives its connection."""

    def writing(self, what: str) -> AbstractContextManager[None]:
        """Turn what the database raises while it is to "`what`" into a store's errors."""

    def reading(self, what: str) -> AbstractContextManager[None]:
        """Turn what the database raises while it reads `what` into a store's errors."""
