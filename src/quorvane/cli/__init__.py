"""The command line: ``quorvane replay`` runs a table of days through fixed baskets."""

from __future__ import annotations

from collections.abc import Sequence

INTERRUPTED = 130
"""Exit status of a process that Ctrl-C ended: 128 and the number of SIGINT."""


def main(argv: Sequence[str] | None = None) -> int:
    """Run the command ``quorvane`` with ``argv`` (by default the process's); the exit status."""
    try:
        # Imported here, so that importing the package costs nothing and can be interrupted.
        from quorvane.cli.stopping import signals_held

        with signals_held():
            from quorvane.cli.command import run

        return run(argv)
    except KeyboardInterrupt:
        return INTERRUPTED
