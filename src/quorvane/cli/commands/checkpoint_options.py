"""The options of ``quorvane checkpoint``."""

from __future__ import annotations

import argparse

from quorvane.cli.checkpoint_server import checkpoint_place

_TEXT = "Look at what `quorvane replay --checkpoint` kept; nothing is changed."

_SHOW_TEXT = """\
Say of which run a checkpoint is, how far it has come, with which options, when it was kept,
and how large it is.
"""

_NOTES = """\
Exit status: 0 done, 1 there is no checkpoint, or it cannot be read.
"""


def add_options(parser: argparse.ArgumentParser) -> None:
    """Describe the subcommand and add its options."""
    parser.description = _TEXT
    actions = parser.add_subparsers(dest="action", required=True, metavar="ACTION")
    show = actions.add_parser(
        "show",
        help="say what a checkpoint holds",
        description=_SHOW_TEXT,
        epilog=_NOTES,
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    show.add_argument(
        "checkpoint", type=checkpoint_place, metavar="FILE", help="the checkpoint of a replay"
    )
