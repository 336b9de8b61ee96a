"""A bar for whoever watches a long run."""

from __future__ import annotations

import sys
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from typing import Any

Progress = Callable[[int, int], object]

# A shorter run is over before a bar is read.
PATIENCE = 1.0


@contextmanager
def progress_bar(title: str) -> Iterator[Progress | None]:
    """What a history tells its progress: tqdm's bar in terminals and notebooks, else None.

    It appears after a second. Without tqdm (``pip install 'quorvane[cli]'``) there is none.
    """
    if not _has_watcher():
        yield None
        return
    try:
        from tqdm.auto import tqdm
    except ImportError:
        yield None
        return
    bar: Any = None

    def tell(done: int, days: int) -> None:
        nonlocal bar
        if bar is None:
            bar = tqdm(total=days, desc=title, unit="day", delay=PATIENCE, leave=False)
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
