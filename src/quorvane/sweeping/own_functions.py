"""Functions of one's own, known everywhere by their import path and the file they are from."""

from __future__ import annotations

import importlib
import sys
import threading
from collections.abc import Callable, Iterator, Mapping
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path
from types import ModuleType
from typing import Any

from quorvane.expressions import registered
from quorvane.sweeping.plain_values import digest

_REGISTERING = threading.Lock()


@dataclass(frozen=True)
class OwnFunction:
    """Where a function is imported from.

    Attributes
    ----------
    path : str
        ``"module:name"``.
    source : str
        A digest of the module's file: another file is another function.
    fault : str
        Why it cannot be imported elsewhere; empty where it can.
    """

    path: str
    source: str
    fault: str = ""


def own_function(function: Callable[..., Any]) -> OwnFunction:
    """Where a class or function is to be imported from."""
    module = getattr(function, "__module__", None)
    name = getattr(function, "__qualname__", None)
    path = f"{module}:{name}"
    if module is None or name is None:
        return OwnFunction(repr(function), "", f"{function!r} has no import path")
    try:
        found, source = _looked_up(path)
    except ImportError as error:
        return OwnFunction(path, "", str(error))
    if found is not function:
        text = f"{path!r} is another object than the one that is to be used"
        return OwnFunction(path, "", text)
    return OwnFunction(path, source)


def imported(function: OwnFunction) -> Callable[..., Any]:
    """The function in this process.

    Raises
    ------
    ImportError
        It cannot be imported here, or its module is another file than where it was named.
    """
    if function.fault:
        raise ImportError(function.fault)
    found, source = _looked_up(function.path)
    if source != function.source:
        raise ImportError(
            f"{function.path!r} is of another file here than where the sweep was started"
        )
    called: Callable[..., Any] = found
    return called


@contextmanager
def registered_here(functions: Mapping[str, OwnFunction]) -> Iterator[None]:
    """While entered, expressions know these functions; ImportError where one cannot be had."""
    found = {name: imported(function) for name, function in functions.items()}
    with _REGISTERING:
        known = registered.FUNCTIONS
        before = {name: known[name] for name in found if name in known}
        known.update(found)
        try:
            yield
        finally:
            for name in found:
                known.pop(name, None)
            known.update(before)


def _looked_up(path: str) -> tuple[Any, str]:
    """What a path leads to, and the digest of its module's file; ImportError where it does not."""
    name, _, attributes = path.partition(":")
    try:
        module = importlib.import_module(name)
        found: Any = module
        for attribute in attributes.split("."):
            found = getattr(found, attribute)
    except Exception as error:
        # A module of one's own may fail in any way while it is imported.
        hint = _HINT if name == "__main__" or "<" in attributes else ""
        text = f"{path!r} cannot be imported: {type(error).__name__}: {error}{hint}"
        raise ImportError(text) from error
    return found, _source_of(module, path)


_HINT = "; put the function at the top of a module of its own"


# What each module's file was when it was first asked for: a file that is changed afterwards is not
# what the process has loaded. One that is loaded again has a new __spec__.
_SOURCES: dict[str, tuple[object, str]] = {}


def _source_of(module: ModuleType, path: str) -> str:
    known = _SOURCES.get(module.__name__)
    if known is not None and module.__spec__ is not None and known[0] is module.__spec__:
        return known[1]
    file = getattr(module, "__file__", None)
    if file is None and module.__name__ in sys.builtin_module_names:
        return digest(sys.version)
    try:
        source = digest(Path(file or "").read_bytes())
    except OSError:
        text = f"{path!r} cannot be imported elsewhere: its module is no file that can be read"
        raise ImportError(f"{text}{_HINT}") from None
    _SOURCES[module.__name__] = module.__spec__, source
    return source
