"""Ends processes in the ways that the safety tests ask for."""

import random
import sys
import threading

from safety.endings import left_behind
from safety.endings.computing import WORK
from safety.endings.forking import fork_while_threads_work
from safety.endings.interrupting import interrupt_often
from safety.endings.ways import WAYS
from support.exit_server import serve

LONGEST_WORK = 0.01


def work_in_threads(folder, seed, *, work, way, threads):
    """Let daemon threads work, the main thread as well, and end in the middle of it."""
    sys.setswitchinterval(1e-6)

    def thread(number):
        step = WORK[work](folder, number)
        while True:
            step()

    for number in range(1, threads + 1):
        threading.Thread(target=thread, args=(number,), daemon=True).start()
    WAYS[way](WORK[work](folder, 0), random.Random(seed).uniform(0.0, LONGEST_WORK))


def leave_behind(folder, seed, *, what):
    """Leave something that goes on, or starts, after the program's last line."""
    left_behind.LEFT_BEHIND[what](folder)


TASKS = [work_in_threads, leave_behind, interrupt_often, fork_while_threads_work]

if __name__ == "__main__":
    serve({task.__name__: task for task in TASKS})
