"""The libraries that we are compared with, each of which some Python may be without."""

import importlib


class PeerAbsent(Exception):
    """A library that cannot be imported here, and why."""


def load(name):
    """The module of that name; PeerAbsent where it cannot be imported, for whatever reason."""
    try:
        return importlib.import_module(name)
    # A library that is too old for this Python or this NumPy may fail in any way.
    except Exception as error:
        raise PeerAbsent(f"{name} cannot be imported: {error}") from error
