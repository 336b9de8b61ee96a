"""Where checkpoints are: the one place that knows how a store is opened."""

from __future__ import annotations

import os
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from quorvane.cli.errors import DataError
from quorvane.cli.files import check_readable, check_writable
from quorvane.cli.libraries import require_library

NAMESPACE = "quorvane replay"


@dataclass(frozen=True)
class CheckpointPlace:
    """What ``--checkpoint`` names; as a text it may be shown to everybody."""

    text: str

    def __str__(self) -> str:
        return self.text

    @property
    def identity(self) -> str:
        """What two names of one place have in common."""
        # Of realpath, since Path.resolve fails for links in a circle before Python 3.13.
        return os.path.realpath(self.text)

    def check(self) -> None:
        """Raise DataError unless a checkpoint can be kept here; asked before anything is read."""
        with self.reporting():
            # Nothing is written yet, and msgpack is wanted.
            self.stores.pack({})
        check_writable(Path(self.text), "the checkpoint")

    def check_present(self) -> None:
        """Raise DataError unless there is something to look at."""
        check_readable(Path(self.text), "a checkpoint")

    def open(self) -> Any:
        """The store, made if it is missing; its errors are those of `quorvane.stores`."""
        return self.stores.SqliteStore(Path(self.text).absolute(), namespace=NAMESPACE, keep=1)

    @property
    def stores(self) -> Any:
        """The package of the stores."""
        return require_library("quorvane.stores", "keeping a checkpoint")

    @contextmanager
    def reporting(self) -> Iterator[None]:
        """Turn the store's errors into one that names the place."""
        try:
            yield
        except self.stores.StoreError as error:
            raise DataError(f"{self}: {error}") from error
