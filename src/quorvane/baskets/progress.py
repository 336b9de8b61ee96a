"""A bar for whoever watches a long run."""

from __future__ import annotations

import sys
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from contextvars import ContextVar
from typing import Any

Progress = Callable[[int, int], object]

# A shorter run is over before a bar is read.
PATIENCE = 1.0


_is_part = ContextVar("_is_part", default=False)


@contextmanager
def without_bars() -> Iterator[None]:
    """While entered, this thread shows no bar: what it does is part of what has one already."""
    before = _is_part.set(True)
    try:
        yield
    finally:
        _is_part.reset(before)


@contextmanager
def progress_bar(title: str, unit: str = "day") -> Iterator[Progress | None]:
    """What a history tells its progress: tqdm's bar in terminals and notebooks, else None.

    It appears after a second. Without tqdm (``pip install 'quorvane[cli]'``) there is none.
    """
    if _is_part.get() or not _has_watcher():
        yield None
        return
    try:
        from tqdm.auto import tqdm
    except ImportError:
        yield None
        return
    bar: Any = None

    def tell(done: int, total: int) -> None:
        nonlocal bar
        if bar is None:
            bar = tqdm(total=total, desc=title, unit=unit, delay=PATIENCE, leave=False)
        bar.update(done - bar.n)

    try:
        yield tell
    finally:
        if bar is not None:
            bar.close()


def _has_watcher() -> bool:
    shell = sys.modules.get("IPython")
    if shell is not None and shell.get_ipython() is not None:
        return True
    return sys.stderr is not None and sys.stderr.isatty()
