"""Forks of a process whose other threads work; the new process computes, writes and ends."""

import multiprocessing
import os
import signal
import sys
import threading
from contextlib import contextmanager

from quorvane.stores import DirectoryStore, SqliteStore
from safety.endings.computing import WORK, Pairs, ready_made, row
from safety.endings.left_behind import output_of_days

STATUS = 7
SECONDS_TO_LIVE = 60
THREADS = 3


def fork_while_threads_work(folder, seed, *, work, way, times):
    """Fork many times in some way; each new process must do its work and end with its status."""
    sys.setswitchinterval(1e-6)
    expected = output_of_days(ready_made())
    # Loads what is needed: a fork in the middle of an import leaves its lock held for ever.
    for store in stores_of(folder):
        store.write("first", {})
    with threads_at(work, folder):
        for number in range(times):
            own = folder / str(number)
            own.mkdir()
            status = FORKS[way](own, expected)
            assert status == STATUS, f"process {number} ended with {status}"
            for store in stores_of(own):
                rotation = ready_made()
                assert rotation.recover(store)
                assert rotation.get_state()["slot_by_key"] == {("KO/PEP",): 0, ("XOM/CVX",): 1}


@contextmanager
def threads_at(work, folder):
    """Some threads that work until the block ends."""
    stop = threading.Event()

    def thread(number):
        step = WORK[work](folder, number)
        while not stop.is_set():
            step()

    threads = [threading.Thread(target=thread, args=(number,)) for number in range(THREADS)]
    for each in threads:
        each.start()
    try:
        yield
    finally:
        stop.set()
        for each in threads:
            each.join()


def stores_of(folder):
    return [DirectoryStore(folder / "records"), SqliteStore(folder / "states.db")]


def work_of_the_new_process(folder, expected):
    # A process that hangs must not last longer than the test; an alarm does not pass a fork.
    signal.alarm(SECONDS_TO_LIVE)
    rotation = ready_made()
    assert output_of_days(rotation) == expected
    for store in stores_of(folder):
        rotation.checkpoint(store)


def waited_for(process):
    _, status = os.waitpid(process, 0)
    return os.waitstatus_to_exitcode(status)


# Ways to fork


def leaving_at_once(folder, expected):
    process = os.fork()
    if process == 0:
        status = 1
        try:
            work_of_the_new_process(folder, expected)
            status = STATUS
        finally:
            os._exit(status)
    return waited_for(process)


def leaving_the_interpreter(folder, expected):
    process = os.fork()
    if process == 0:
        work_of_the_new_process(folder, expected)
        sys.exit(STATUS)
    return waited_for(process)


def in_the_middle_of_a_day(folder, expected):
    """Both sides end the same day, then the new one the interpreter."""

    class Forking(Pairs):
        def _refresh_active_structures(self, *arguments):
            items = super()._refresh_active_structures(*arguments)
            yield next(items)
            self.process = os.fork()
            yield from items

    usual, rotation = Pairs(3), Forking(3)
    output = rotation(row(4))
    assert output.tobytes() == usual(row(4)).tobytes()
    if rotation.process == 0:
        work_of_the_new_process(folder, expected)
        sys.exit(STATUS)
    return waited_for(rotation.process)


def by_multiprocessing(folder, expected):
    context = multiprocessing.get_context("fork")
    process = context.Process(target=_work_and_exit, args=(folder, expected))
    process.start()
    process.join()
    return process.exitcode


def _work_and_exit(folder, expected):
    work_of_the_new_process(folder, expected)
    sys.exit(STATUS)


FORKS = {
    function.__name__: function
    for function in [
        leaving_at_once,
        leaving_the_interpreter,
        in_the_middle_of_a_day,
        by_multiprocessing,
    ]
}
