"""Processes for single functions, forked quickly from one that has everything imported."""

import json
import os
import signal
import subprocess
import sys
from pathlib import Path

import quorvane

TESTS = Path(__file__).parents[1]


class TaskServer:
    """A process that forks one child per task; the children answer to signals as usual.

    The tasks are the functions of a module, which also has a function `warm_up`.
    """

    def __init__(self, module):
        self._module = module

    def __enter__(self):
        places = [str(Path(quorvane.__file__).parents[1]), str(TESTS)]
        self._server = subprocess.Popen(
            [sys.executable, "-m", "support.task_server", self._module],
            env={**os.environ, "PYTHONPATH": os.pathsep.join(places), "OPENBLAS_NUM_THREADS": "1"},
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            text=True,
        )
        return self

    def __exit__(self, *_):
        self._server.stdin.close()
        self._server.wait()
        self._server.stdout.close()

    def start(self, task, **arguments):
        """Start the function of that name and return its process id."""
        return self._ask({"do": "start", "task": task, "arguments": arguments})

    def wait(self, process):
        """Wait for a process and return its exit code, negative for a signal."""
        return self._ask({"do": "wait", "process": process})

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

    def _ask(self, request):
        self._server.stdin.write(json.dumps(request) + "\n")
        self._server.stdin.flush()
        return json.loads(self._server.stdout.readline())


def state_of(process):
    """Return the letter of a process's state: "T" when it is stopped, "Z" when it has ended."""
    with open(f"/proc/{process}/stat") as file:
        return file.read().rpartition(")")[2].split()[0]
