"""The command line: ``quorvane replay`` runs a table of days through fixed baskets."""

from __future__ import annotations

import signal
from collections.abc import Sequence


def main(argv: Sequence[str] | None = None) -> int:
    """Run the command ``quorvane`` with ``argv`` (by default the process's); the exit status."""
    try:
        # Imported here, so that importing the package costs nothing.
        from quorvane.cli.command import run

        return run(argv)
    except KeyboardInterrupt:
        return 128 + signal.SIGINT
