"""Functions of one's own for the command: a module that registers them."""

from __future__ import annotations

import importlib
import os
import sys

from quorvane.cli.errors import UsageError, reason
from quorvane.cli.stopping import signals_held


def import_functions(name: str) -> None:
    """Import a module, also from the working folder; UsageError where that fails."""
    folder = os.getcwd()
    # Behind everything else: a file there must not stand in for a library.
    if folder not in sys.path:
        sys.path.append(folder)
    try:
        with signals_held():
            importlib.import_module(name)
    except Exception as error:  # A module may raise anything.
        raise UsageError(
            f"--functions {name}: cannot be imported: {type(error).__name__}: {reason(error)}"
        ) from error
