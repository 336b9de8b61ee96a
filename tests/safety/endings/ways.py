"""The ways in which a process ends, its main thread at work until then."""

import _thread
import os
import signal
import sys
import time


def returning(step, seconds):
    _work(step, seconds)


def exiting(step, seconds):
    _work(step, seconds)
    sys.exit(3)


def failing(step, seconds):
    _work(step, seconds)
    raise RuntimeError("the end")


def leaving_at_once(step, seconds):
    _work(step, seconds)
    os._exit(4)


def terminated(step, seconds):
    _work_until_sent(signal.SIGTERM, step, seconds)


def interrupted(step, seconds):
    _work_until_sent(signal.SIGINT, step, seconds)


def terminated_by_handler(step, seconds):
    """SIGTERM as servers take it: the handler leaves through SystemExit."""
    signal.signal(signal.SIGTERM, lambda number, frame: sys.exit(5))
    _work_until_sent(signal.SIGTERM, step, seconds)


def _work(step, seconds):
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        step()


def _work_until_sent(number, step, seconds):
    def send():
        time.sleep(seconds)
        os.kill(os.getpid(), number)

    # Thread.start() holds locks of its own, in which a signal does harm.
    _thread.start_new_thread(send, ())
    while True:
        step()


WAYS = {
    way.__name__: way
    for way in [
        returning,
        exiting,
        failing,
        leaving_at_once,
        terminated,
        interrupted,
        terminated_by_handler,
    ]
}
