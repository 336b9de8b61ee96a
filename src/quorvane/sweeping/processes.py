"""The machine's cores: worker processes that are asked for one configuration after the other.

They are interpreters of their own, started afresh: neither forked, which is unsafe where there are
threads, nor made to run the user's program again, so that a program needs no guard around its
sweep, and a notebook can have one.
"""

from __future__ import annotations

import contextlib
import json
import os
import queue
import subprocess
import sys
import threading
from collections import deque
from collections.abc import Iterator, Sequence
from multiprocessing.spawn import get_executable

from quorvane.sweeping.outcome import Outcome, of_json
from quorvane.sweeping.shared import Job, Shared, as_open_files

Numbered = tuple[int, Job]
Files = tuple[int, int]

# A configuration at which so many processes ended is not tried on another.
MOST_ENDS = 3

_PROGRAM = "import json, sys; sys.path[:] = json.loads(sys.argv[1]); {}".format(
    "from quorvane.sweeping.worker import work; work(*map(int, sys.argv[2:]))"
)
_THREADS = ("OMP", "OPENBLAS", "MKL", "BLIS", "NUMEXPR", "QUORVANE")


def cores() -> int:
    """How many cores this process may use, or the machine has where no process is told."""
    try:
        return len(os.sched_getaffinity(0))
    except AttributeError:  # only Linux tells
        return os.cpu_count() or 1


def in_processes(
    shared: Shared, jobs: Sequence[Numbered], count: int | None = None
) -> Iterator[tuple[int, Outcome]]:
    """The outcomes of jobs as they come, from as many processes as there are cores.

    Raises
    ------
    RuntimeError
        A worker could not begin.
    """
    with as_open_files(shared) as files:
        crew = _Crew(files, jobs)
        try:
            crew.start(min(count or cores(), len(jobs)))
            for _ in jobs:
                yield crew.next()
        finally:
            crew.stop()


class _Crew:
    """Threads, each of which asks a process of its own; all have the same list of jobs."""

    def __init__(self, files: Files, jobs: Sequence[Numbered]) -> None:
        self._files = files
        self._jobs = deque(jobs)
        self._found: queue.SimpleQueue[tuple[int, Outcome] | Exception] = queue.SimpleQueue()
        self._threads: list[threading.Thread] = []
        self._lock = threading.Lock()
        self._running: set[_Process] = set()
        self._is_over = False

    def start(self, count: int) -> None:
        for _ in range(count):
            thread = threading.Thread(target=self._ask_on, name="quorvane-sweep", daemon=True)
            self._threads.append(thread)
            thread.start()

    def next(self) -> tuple[int, Outcome]:
        found = self._found.get()
        if isinstance(found, Exception):
            raise found
        return found

    def stop(self) -> None:
        """End all processes, also in the middle of a job: they own nothing that could be lost."""
        with self._lock:
            self._is_over = True
            for process in self._running:
                process.kill()
        for thread in self._threads:
            thread.join()

    def _ask_on(self) -> None:
        process: _Process | None = None
        try:
            while not self._is_over:
                try:
                    number, job = self._jobs.popleft()
                except IndexError:
                    return
                process, outcome = self._asked(process, job)
                self._found.put((number, outcome))
        except _OverError:
            pass
        except Exception as error:
            self._found.put(error)
        finally:
            if process is not None:
                self._ended(process)

    def _asked(self, process: _Process | None, job: Job) -> tuple[_Process | None, Outcome]:
        """The outcome of a job, and the process to go on with, None for a new one."""
        status = 0
        for _ in range(MOST_ENDS):
            if process is None:
                process = self._begun()
            outcome = process.ask(job)
            if outcome is not None:
                return process, outcome
            status, process = self._ended(process), None
            if self._is_over:
                raise _OverError
        how = f"signal {-status}" if status < 0 else f"status {status}"
        text = f"WorkerEnded: {MOST_ENDS} processes ended in this configuration, by {how}"
        return None, Outcome({}, 0.0, text)

    def _begun(self) -> _Process:
        with self._lock:
            if self._is_over:
                raise _OverError
            process = _Process(self._files)
            self._running.add(process)
        if not process.is_ready():
            status = self._ended(process)
            if self._is_over:
                raise _OverError
            raise RuntimeError(
                f"a worker process could not begin, it ended with status {status}; "
                "what it said is on standard error"
            )
        return process

    def _ended(self, process: _Process) -> int:
        with self._lock:
            self._running.discard(process)
        return process.end()


class _OverError(Exception):
    """Nobody waits for outcomes any more."""


class _Process:
    """A worker in a process of its own, and the two pipes to it."""

    def __init__(self, files: Files) -> None:
        path = [os.fspath(entry) for entry in sys.path]
        # In a group of its own: Ctrl-C is for whoever waits for the outcomes, and it ends when
        # the pipe to it does.
        self._process = subprocess.Popen(
            [os.fsdecode(get_executable()), "-c", _PROGRAM, json.dumps(path), *map(str, files)],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            env={**os.environ, **{f"{each}_NUM_THREADS": "1" for each in _THREADS}},
            pass_fds=files,
            process_group=0,
        )

    def is_ready(self) -> bool:
        return self._line() == b"ready\n"

    def ask(self, job: Job) -> Outcome | None:
        """The outcome, None where the process has ended."""
        assert self._process.stdin is not None
        try:
            self._process.stdin.write(json.dumps(job).encode() + b"\n")
            self._process.stdin.flush()
        except OSError:
            return None
        line = self._line()
        return of_json(json.loads(line)) if line.endswith(b"\n") else None

    def kill(self) -> None:
        self._process.kill()

    def end(self) -> int:
        """Let it go, and wait until it has; its exit status, negative for a signal."""
        for pipe in (self._process.stdin, self._process.stdout):
            assert pipe is not None
            # What was not written yet finds nobody.
            with contextlib.suppress(OSError):
                pipe.close()
        return self._process.wait()

    def _line(self) -> bytes:
        assert self._process.stdout is not None
        return self._process.stdout.readline()
