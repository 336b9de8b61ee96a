"""Processes that end, each forked quickly from one that has everything imported."""

import json
import os
import subprocess
import sys
from pathlib import Path

import quorvane

TESTS = Path(__file__).parents[1]


def environment():
    """This process's environment, for an interpreter with the package and the tests' helpers."""
    # Not resolved: the files of a development tree are links into the sources.
    places = [str(Path(quorvane.__file__).absolute().parents[1]), str(TESTS)]
    added = {"PYTHONPATH": os.pathsep.join(places), "OPENBLAS_NUM_THREADS": "1"}
    # A thread that is stopped in the middle of a day gives nothing back.
    sanitizer = os.environ.get("ASAN_OPTIONS", "") + ":detect_leaks=0"
    return {**os.environ, **added, "ASAN_OPTIONS": sanitizer}


class ExitServer:
    """A process that forks those that are to end and tells how they did.

    `module` is run in it and calls `support.exit_server.serve`.
    """

    def __init__(self, module):
        self._module = module

    def __enter__(self):
        self._server = subprocess.Popen(
            [sys.executable, "-X", "faulthandler", "-m", self._module],
            env=environment(),
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            text=True,
        )
        return self

    def __exit__(self, *_):
        self._server.stdin.close()
        self._server.wait()
        self._server.stdout.close()

    def outcomes(self, task, folder, seeds, *, at_once=2, **arguments):
        """Run the task once per seed, each in a process of its own with a folder of its own."""
        request = {
            "task": task,
            "folder": str(folder),
            "seeds": list(seeds),
            "at_once": at_once,
            "arguments": arguments,
        }
        self._server.stdin.write(json.dumps(request) + "\n")
        self._server.stdin.flush()
        return json.loads(self._server.stdout.readline())


def ends(outcomes):
    """How the processes ended: the status, and what was said, of a traceback its last line."""
    return [(outcome["status"], _last_line(outcome["said"])) for outcome in outcomes]


def _last_line(said):
    # Whatever else is said comes after the traceback, and is the last line then.
    if said.startswith("Traceback (most recent call last):\n"):
        return said.splitlines()[-1]
    return said
