"""The command line of ``quorvane``: its subcommands, and errors as one line."""

from __future__ import annotations

import argparse
from collections.abc import Callable, Sequence
from dataclasses import dataclass
from importlib import import_module
from typing import NoReturn

from quorvane import __version__
from quorvane.cli.commands import (
    checkpoint_options,
    explain_options,
    replay_options,
    sweep_options,
)
from quorvane.cli.errors import CommandError
from quorvane.cli.passwords import without_passwords
from quorvane.cli.saying import note
from quorvane.cli.stopping import TERMINATED, Terminated, signals_held, termination_raised


@dataclass(frozen=True)
class Subcommand:
    """One subcommand.

    Attributes
    ----------
    name : str
    help : str
        What ``quorvane --help`` says of it.
    add_options : callable
        Describes and adds to the parser what ``execute`` reads.
    module : str
        In `quorvane.cli.commands`; its ``execute(options)`` gives the exit status. It is imported
        after parsing, so that --help does not wait for it.
    """

    name: str
    help: str
    add_options: Callable[[argparse.ArgumentParser], None]
    module: str


_REPLAY = "replay a table of days through structures"
_SWEEP = "run baskets over a table in every configuration of a grid"
_EXPLAIN = "say which structures make up an instrument's number on a day"
_CHECKPOINT = "look at what a checkpoint holds"

SUBCOMMANDS = (
    Subcommand("replay", _REPLAY, replay_options.add_options, "replay"),
    Subcommand("sweep", _SWEEP, sweep_options.add_options, "sweep"),
    Subcommand("explain", _EXPLAIN, explain_options.add_options, "explain"),
    Subcommand("checkpoint", _CHECKPOINT, checkpoint_options.add_options, "checkpoint"),
)


def run(argv: Sequence[str] | None = None) -> int:
    """Parse ``argv`` and run the command; a failure is one line on standard error."""
    parser = _parser()
    try:
        options = parser.parse_args(argv)
    except SystemExit as exit_request:
        return int(exit_request.code or 0)
    name = options.command
    module = next(each.module for each in SUBCOMMANDS if each.name == name)
    try:
        with termination_raised():
            with signals_held():
                execute = import_module(f"quorvane.cli.commands.{module}").execute
            status: int = execute(options)
            return status
    except Terminated:
        return TERMINATED
    except CommandError as error:
        note(f"quorvane {name}: error: {error}")
        return error.exit_status
    except MemoryError:
        note(f"quorvane {name}: error: not enough memory for these tables")
        return 1


class _Parser(argparse.ArgumentParser):
    """A parser that quotes no passwords when it does not know what to do with an argument."""

    def error(self, message: str) -> NoReturn:
        super().error(without_passwords(message))


def _parser() -> argparse.ArgumentParser:
    parser = _Parser(prog="quorvane", description="Rotations over days of data.")
    parser.add_argument("--version", action="version", version=f"quorvane {__version__}")
    commands = parser.add_subparsers(dest="command", required=True, metavar="COMMAND")
    for each in SUBCOMMANDS:
        added = commands.add_parser(
            each.name, help=each.help, formatter_class=argparse.RawDescriptionHelpFormatter
        )
        each.add_options(added)
    return parser
