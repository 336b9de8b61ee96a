"""Stopping processes at random moments, as a busy machine does, and killing one now and then."""

import os
import signal
import time

from support.tasks import state_of

KILLED_ROUNDS = 0.3


def preempt(processes, generator, *, longest_run, longest_stop):
    """Stop and continue the processes in turn until all have ended; perhaps kill one of them.

    Returns when none is left to continue; the caller still waits for each of them.
    """
    victim = generator.choice(processes) if generator.random() < KILLED_ROUNDS else None
    while running := [process for process in processes if state_of(process) != "Z"]:
        process = generator.choice(running)
        time.sleep(generator.uniform(0.0, longest_run))
        if process == victim and generator.random() < 0.5:
            os.kill(process, signal.SIGKILL)
            continue
        os.kill(process, signal.SIGSTOP)
        time.sleep(generator.uniform(0.0, longest_stop))
        os.kill(process, signal.SIGCONT)
