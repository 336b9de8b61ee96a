"""Optional libraries, imported when they are first needed."""

from __future__ import annotations

import importlib
from types import ModuleType

from quorvane.cli.errors import DataError
from quorvane.cli.stopping import signals_held


def has_library(name: str) -> bool:
    """Whether the library ``name`` can be imported: some are there and want a newer NumPy."""
    try:
        _loaded(name)
    except ImportError:
        return False
    return True


def require_library(name: str, purpose: str, *, extra: str = "cli") -> ModuleType:
    """Import ``name``, or say which extra brings it."""
    try:
        return _loaded(name)
    except ImportError as error:
        raise DataError(
            f"{purpose} needs the library {name.partition('.')[0]}, which cannot be imported "
            f'({error}); install it with: pip install "quorvane[{extra}]"'
        ) from error


def _loaded(name: str) -> ModuleType:
    with signals_held():
        return importlib.import_module(name)
