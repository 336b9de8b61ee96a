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
            from quorvane.cli.command_line import run

        return run(argv)
    except KeyboardInterrupt:
        return INTERRUPTED


def program() -> int:
    """What the script ``quorvane`` runs: `main`, and after it Ctrl-C ends the process in silence.

    The interpreter's own end has no place for KeyboardInterrupt: it would print where it came.
    """
    try:
        status = main()
        _let_interrupts_end_the_process()
    except KeyboardInterrupt:
        status = INTERRUPTED
        _let_interrupts_end_the_process()
    return status


def _let_interrupts_end_the_process() -> None:
    import signal

    signal.signal(signal.SIGINT, signal.SIG_DFL)
