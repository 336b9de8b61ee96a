"""Ending in good order when the process is asked to: between two days, or leaving nothing over."""

from __future__ import annotations

import signal
import threading
from collections.abc import Iterator
from contextlib import contextmanager
from types import FrameType, TracebackType
from typing import NoReturn

TERMINATED = 128 + signal.SIGTERM
"""Exit status of a process that SIGTERM ended."""


class Terminated(BaseException):
    """SIGTERM has come; as KeyboardInterrupt does for SIGINT, it passes every ``except``."""


@contextmanager
def termination_raised() -> Iterator[None]:
    """While entered, SIGTERM raises `Terminated`, so that what is half-written is removed."""
    # Python lets only the main thread set handlers; elsewhere nothing is changed.
    if threading.current_thread() is not threading.main_thread():
        yield
        return
    before = signal.signal(signal.SIGTERM, _terminate)
    try:
        yield
    finally:
        signal.signal(signal.SIGTERM, before)


def _terminate(number: int, frame: FrameType | None) -> NoReturn:
    raise Terminated


@contextmanager
def signals_held() -> Iterator[None]:
    """While entered, SIGINT and SIGTERM wait, for what must not be broken into.

    A library that is being loaded may take what a handler raises for a failure of its own, or stay
    half loaded.
    """
    if threading.current_thread() is not threading.main_thread():
        yield
        return
    came: list[int] = []
    handlers = {number: signal.getsignal(number) for number in (signal.SIGINT, signal.SIGTERM)}
    try:
        # One may raise while the other waits already.
        for number in handlers:
            signal.signal(number, lambda number, frame: came.append(number))
        yield
    finally:
        for number, handler in handlers.items():
            signal.signal(number, handler)
        if came:
            signal.raise_signal(came[0])


class StopRequest:
    """While entered, notes SIGINT and SIGTERM instead of letting them break into a day.

    A rotation stopped inside a day would hold half of it. A second signal acts at once.
    """

    def __init__(self) -> None:
        self.signal_number: int | None = None
        self._handlers: dict[int, object] = {}

    def __enter__(self) -> StopRequest:
        # Python lets only the main thread set handlers; elsewhere nothing is noted.
        if threading.current_thread() is threading.main_thread():
            for number in (signal.SIGINT, signal.SIGTERM):
                self._handlers[number] = signal.signal(number, self._note)
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        traceback: TracebackType | None,
    ) -> None:
        self._restore()

    def _note(self, number: int, frame: FrameType | None) -> None:
        self.signal_number = number
        self._restore()

    def _restore(self) -> None:
        while self._handlers:
            number, handler = self._handlers.popitem()
            signal.signal(number, handler)  # type: ignore[arg-type]
