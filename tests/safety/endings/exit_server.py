"""Reads requests from standard input: end a process in some way, again and again, and tell how.

Processes are forked from this one, which has everything imported and no other thread. A forked one
leaves `main` with its task and goes the whole way out of the interpreter, as any program does.
"""

import json
import os
import random
import resource
import signal
import sys
import threading
from pathlib import Path

from safety.endings import left_behind
from safety.endings.computing import WORK
from safety.endings.interrupting import interrupt_often
from safety.endings.ways import WAYS

SECONDS_TO_LIVE = 100
LONGEST_WORK = 0.01


def work_in_threads(folder, seed, *, work, way, threads):
    """Let daemon threads work, the main thread as well, and end in the middle of it."""
    generator = random.Random(seed)
    sys.setswitchinterval(1e-6)

    def thread(number):
        step = WORK[work](folder, number)
        while True:
            step()

    for number in range(1, threads + 1):
        threading.Thread(target=thread, args=(number,), daemon=True).start()
    WAYS[way](WORK[work](folder, 0), generator.uniform(0.0, LONGEST_WORK))


def leave_behind(folder, seed, *, what):
    """Leave something that goes on, or starts, after the program's last line."""
    left_behind.LEFT_BEHIND[what](Path(folder))


TASKS = {task.__name__: task for task in [work_in_threads, leave_behind, interrupt_often]}


def started(folder, said):
    """Fork; 0 in the new process, which then answers to signals as a program started by hand."""
    process = os.fork()
    if process == 0:
        signal.signal(signal.SIGINT, signal.default_int_handler)
        signal.signal(signal.SIGTERM, signal.SIG_DFL)
        signal.alarm(SECONDS_TO_LIVE)
        nothing = os.open(os.devnull, os.O_RDWR)
        for stream, file in [
            (0, nothing),
            (1, nothing),
            (2, os.open(said, os.O_CREAT | os.O_WRONLY)),
        ]:
            os.dup2(file, stream)
    return process


def ended(running):
    """Wait for one of the processes; its seed and how it ended."""
    process, status = os.wait()
    seed, said = running.pop(process)
    return {"seed": seed, "status": os.waitstatus_to_exitcode(status), "said": said.read_text()}


def outcomes_or_task(request):
    """The outcomes of all processes that were asked for; in each of these, what it has to do."""
    task, running, outcomes = TASKS[request["task"]], {}, []
    for seed in request["seeds"]:
        folder = Path(request["folder"]) / str(seed)
        folder.mkdir()
        said = folder / "said"
        process = started(folder, said)
        if process == 0:
            return None, lambda: task(str(folder), seed, **request["arguments"])  # noqa: B023
        running[process] = seed, said
        if len(running) == request["at_once"]:
            outcomes.append(ended(running))
    while running:
        outcomes.append(ended(running))
    return outcomes, None


def main():
    # An abort is an answer here, not something to look into later.
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    for line in sys.stdin:
        outcomes, task = outcomes_or_task(json.loads(line))
        if task is not None:
            return task()
        sys.stdout.write(json.dumps(outcomes) + "\n")
        sys.stdout.flush()
    return None


if __name__ == "__main__":
    main()
