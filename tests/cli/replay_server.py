"""Ends runs of the command by signals, at random moments from its first line to the very end."""

import os
import random
import sys
import time

from quorvane.cli import program
from quorvane.cli.commands import replay as replay_command
from quorvane.stores import MemoryStore
from support.exit_server import serve


def replay(folder, seed, *, arguments, numbers, longest_wait):
    """Run the command, and send it the signals one after the other."""
    generator = random.Random(seed)
    waits = [generator.uniform(0.0, longest_wait / len(numbers)) for _ in numbers]
    _send_from_another_process(os.getpid(), list(zip(waits, numbers, strict=True)))
    sys.argv[1:] = [argument.format(folder=folder) for argument in arguments]
    sys.exit(program())


def _send_from_another_process(target, signals):
    if os.fork() != 0:
        return
    for seconds, number in signals:
        time.sleep(seconds)
        # Once the run has ended, its number may be somebody else's.
        if os.getppid() == target:
            os.kill(target, number)
    os._exit(0)


if __name__ == "__main__":
    # What takes long to load is there before the forks: the command's modules, and MessagePack.
    replay_command.__name__, MemoryStore().write("warm", {})
    serve({"replay": replay})
