"""Processes that end, each forked quickly from one that has everything imported."""

import os

from support import server_process
from support.server_process import ServerProcess


def environment():
    """The environment of an interpreter that may end in the middle of a call."""
    # A thread that is stopped there gives nothing back.
    sanitizer = os.environ.get("ASAN_OPTIONS", "") + ":detect_leaks=0"
    return {**server_process.environment(), "ASAN_OPTIONS": sanitizer}


class ExitServer(ServerProcess):
    """A process that forks those that are to end and tells how they did.

    `module` is run in it and calls `support.exit_server.serve`.
    """

    def __init__(self, module):
        super().__init__("-X", "faulthandler", "-m", module, env=environment())

    def outcomes(self, task, folder, seeds, *, at_once=2, **arguments):
        """Run the task once per seed, each in a process of its own with a folder of its own."""
        request = {
            "task": task,
            "folder": str(folder),
            "seeds": list(seeds),
            "at_once": at_once,
            "arguments": arguments,
        }
        return self.ask(request)


def ends(outcomes):
    """How the processes ended: the status, and what was said, of a traceback its last line."""
    return [(outcome["status"], _last_line(outcome["said"])) for outcome in outcomes]


def _last_line(said):
    # Whatever else is said comes after the traceback, and is the last line then.
    if said.startswith("Traceback (most recent call last):\n"):
        return said.splitlines()[-1]
    return said
