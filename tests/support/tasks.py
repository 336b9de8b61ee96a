"""Processes for single functions, forked quickly from one that has everything imported."""

import json
import os
import signal
from pathlib import Path

from support.server_process import ServerProcess, environment


class TaskServer(ServerProcess):
    """A process that forks one child per task; the children answer to signals as usual.

    The tasks are the functions of a module, which also has a function `warm_up`.
    """

    def __init__(self, module):
        super().__init__("-m", "support.task_server", module, env=environment())

    def start(self, task, **arguments):
        """Start the function of that name and return its process id."""
        return self.ask({"do": "start", "task": task, "arguments": arguments})

    def wait(self, process):
        """Wait for a process and return its exit code, negative for a signal."""
        return self.ask({"do": "wait", "process": process})

    def kill(self, process):
        """Kill a process without warning."""
        os.kill(process, signal.SIGKILL)
        return self.wait(process)

    def result(self, task, answers, **arguments):
        """Run a function to its end and return what it left in the folder for answers."""
        answer = str(Path(answers) / "answer.json")
        code, left = self.outcome(self.start(task, answer=answer, **arguments), answer)
        assert code == 0
        return left

    def outcome(self, process, answer):
        """Wait for a process; return its exit code and what it left in the file for its answer."""
        code = self.wait(process)
        return code, json.loads(Path(answer).read_text()) if code == 0 else None


def state_of(process):
    """Return the letter of a process's state: "T" when it is stopped, "Z" when it has ended."""
    with open(f"/proc/{process}/stat") as file:
        return file.read().rpartition(")")[2].split()[0]
