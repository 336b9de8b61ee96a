"""A process that answers requests, a line of JSON each, with a line of JSON each."""

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
    return {**os.environ, "PYTHONPATH": os.pathsep.join(places), "OPENBLAS_NUM_THREADS": "1"}


class ServerProcess:
    """The interpreter with these arguments, while entered."""

    def __init__(self, *arguments, env):
        self._command = [sys.executable, *arguments]
        self._env = env

    def __enter__(self):
        self._server = subprocess.Popen(
            self._command,
            env=self._env,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            text=True,
        )
        return self

    def __exit__(self, *_):
        self._server.stdin.close()
        self._server.wait()
        self._server.stdout.close()

    def ask(self, request):
        """Send a request and wait for its answer."""
        self._server.stdin.write(json.dumps(request) + "\n")
        self._server.stdin.flush()
        return json.loads(self._server.stdout.readline())
