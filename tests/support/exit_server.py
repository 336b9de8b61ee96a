"""A server that ends processes in some way, again and again, and tells how each one ended.

Processes are forked from it, which has everything imported and no other thread. A forked one leaves
`serve` with its task and goes the whole way out of the interpreter, as any program does.
"""

import json
import os
import resource
import signal
import sys
from pathlib import Path

SECONDS_TO_LIVE = 100


def serve(tasks):
    """Answer the requests on standard input; in a forked process, do the task and return.

    A task is a function of the process's own folder, a seed, and the arguments of the request.
    """
    # An abort is an answer here, not something to look into later.
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    for line in sys.stdin:
        outcomes, task = _outcomes_or_task(tasks, json.loads(line))
        if task is not None:
            task()
            return
        sys.stdout.write(json.dumps(outcomes) + "\n")
        sys.stdout.flush()


def _outcomes_or_task(tasks, request):
    """The outcomes of all processes that were asked for; in each of these, what it has to do."""
    running, outcomes = {}, []
    for seed in request["seeds"]:
        folder = Path(request["folder"]) / str(seed)
        folder.mkdir(exist_ok=True)
        process = os.fork()
        if process == 0:
            _behave_as_if_started(folder)
            task = tasks[request["task"]]
            return None, lambda: task(folder, seed, **request["arguments"])  # noqa: B023
        running[process] = seed, folder
        if len(running) == request["at_once"]:
            outcomes.append(_ended(running))
    while running:
        outcomes.append(_ended(running))
    return outcomes, None


def _behave_as_if_started(folder):
    """Take signals and use the standard streams as a program does that was started by hand."""
    signal.signal(signal.SIGINT, signal.default_int_handler)
    signal.signal(signal.SIGTERM, signal.SIG_DFL)
    signal.alarm(SECONDS_TO_LIVE)
    flags = os.O_CREAT | os.O_TRUNC | os.O_RDWR
    for stream, path in enumerate([os.devnull, folder / "out", folder / "said"]):
        file = os.open(path, flags)
        os.dup2(file, stream)
        os.close(file)


def _ended(running):
    """Wait for one of the processes; its seed and how it ended."""
    process, status = os.wait()
    seed, folder = running.pop(process)
    said = (folder / "said").read_text()
    return {"seed": seed, "status": os.waitstatus_to_exitcode(status), "said": said}
