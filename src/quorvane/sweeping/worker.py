"""What a worker process does: a job on each line of its input, an outcome on each of its output."""

from __future__ import annotations

import json
import os
import queue
import signal
import sys
import threading

from quorvane.sweeping.bench import Bench
from quorvane.sweeping.outcome import as_json
from quorvane.sweeping.shared import from_open_files


def work(numbers: int, rest: int) -> None:
    """Answer jobs of the sweep in two inherited files until the input ends."""
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    # What functions of one's own print is no outcome.
    with os.fdopen(os.dup(1), "wb") as output:
        os.dup2(2, 1)
        bench = Bench(from_open_files(numbers, rest))
        output.write(b"ready\n")
        output.flush()
        jobs: queue.SimpleQueue[bytes] = queue.SimpleQueue()
        threading.Thread(target=_read, args=(jobs,), daemon=True).start()
        while True:
            job = tuple(json.loads(jobs.get()))
            output.write(json.dumps(as_json(bench.outcome(job))).encode() + b"\n")
            output.flush()


def _read(jobs: queue.SimpleQueue[bytes]) -> None:
    for line in sys.stdin.buffer:
        jobs.put(line)
    # Whoever asked is gone or wants no more, also in the middle of a job.
    os._exit(0)
