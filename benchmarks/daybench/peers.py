"""The libraries that we are compared with, each of which some Python may be without."""

import importlib


class PeerAbsent(Exception):
    """A library that cannot be imported here, or is too old, and why."""


def load(name, member=None):
    """The module of that name, or a member of it; PeerAbsent where it cannot be had."""
    try:
        module = importlib.import_module(name)
    # A library that is too old for this Python or this NumPy may fail in any way.
    except Exception as error:
        raise PeerAbsent(f"{name} cannot be imported: {error}") from error
    if member is None:
        return module
    if not hasattr(module, member):
        version = getattr(module, "__version__", "of unknown version")
        raise PeerAbsent(f"{name} {version} has no {member}")
    return getattr(module, member)


def or_absent(measure, *arguments):
    """What is measured, or which peer is not there for it."""
    try:
        return measure(*arguments)
    except PeerAbsent as absent:
        return absent
