"""``quorvane checkpoint`` from its options to its exit status."""

from __future__ import annotations

import argparse

from quorvane.cli.checkpoint_show import described_checkpoint
from quorvane.cli.saying import say


def execute(options: argparse.Namespace) -> int:
    """Print what a checkpoint holds; CommandError where that cannot be said."""
    say(described_checkpoint(options.checkpoint))
    return 0
