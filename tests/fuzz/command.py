"""The command that runs very many inputs: see `python -m tests.fuzz --help`."""

import argparse
import ctypes
import multiprocessing
import random
import signal
import time
import warnings

from fuzz.campaign import TARGETS, run

# An index of a mask may have NumPy copy gigabytes, which takes its time under the sanitizers.
STUCK_SECONDS = 300.0


def main():
    options = parse_arguments()
    print(f"seed {options.seed}", flush=True)
    # Also when it runs in the background, where an interrupt cannot reach it.
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    failed = False
    for target in options.only or TARGETS:
        failed |= not run_apart(target, options)
    return int(failed)


def parse_arguments():
    parser = argparse.ArgumentParser(
        prog="python -m tests.fuzz",
        description="Play random inputs on the native module and on its plain twin, and compare. "
        "Each target runs in a process of its own, so that the input that takes it down is known.",
    )
    parser.add_argument("--inputs", type=int, default=10_000, help="per target (%(default)s)")
    parser.add_argument("--first", type=int, default=0, help="number of the first (%(default)s)")
    parser.add_argument("--seed", type=int, help="a new one is chosen and told by default")
    parser.add_argument("--seconds", type=float, help="per target at most; no limit by default")
    parser.add_argument("--only", action="append", choices=TARGETS, help="may be given repeatedly")
    options = parser.parse_args()
    if options.seed is None:
        options.seed = random.SystemRandom().getrandbits(32)
    return options


def run_apart(target, options):
    """Run one target in a process of its own; print how it went and return whether it went well."""
    context = multiprocessing.get_context("fork")
    position = context.RawValue("q", options.first)
    receiver, sender = context.Pipe(duplex=False)
    worker = context.Process(target=work, args=(target, options, position, sender))
    begun = time.monotonic()
    worker.start()
    sender.close()
    stuck = interrupted = False
    try:
        stuck = not wait_for(worker, receiver, position)
    except KeyboardInterrupt:
        interrupted = True
    seconds = time.monotonic() - begun
    if stuck or interrupted:
        worker.kill()
    worker.join()
    count, failure = position.value - options.first, None
    if not stuck and worker.exitcode == 0:
        count, failure = receiver.recv()
    elif not interrupted:
        ended = f"stuck for {STUCK_SECONDS:.0f} s" if stuck else f"ended with {worker.exitcode}"
        failure = (
            f"{target}: the process {ended}\nagain: python -m tests.fuzz --only {target} "
            f"--seed {options.seed} --first {position.value} --inputs 1"
        )
    rate = count / seconds if seconds else 0.0
    print(f"{target}: {count} inputs in {seconds:.1f} s, {rate:.0f} a second", flush=True)
    if failure is not None:
        print(f"FAILED {failure}", flush=True)
    if interrupted:
        raise SystemExit("interrupted")
    return failure is None


def wait_for(worker, receiver, position):
    """Wait for the result or the end of the worker; False when an input does not end."""
    last, since = position.value, time.monotonic()
    while worker.is_alive() and not receiver.poll(1.0):
        if position.value != last:
            last, since = position.value, time.monotonic()
        elif time.monotonic() - since > STUCK_SECONDS:
            return False
    return True


def work(target, options, position, sender):
    # An interrupt is the parent's to tell of; in an input it would pass for one of its errors.
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    signal.signal(signal.SIGTERM, signal.SIG_DFL)
    # As in the tests: nothing may warn but what a subject is called for.
    warnings.simplefilter("error")

    def started(index):
        position.value = index

    count, failure = run(
        target,
        seed=options.seed,
        first=options.first,
        inputs=options.inputs,
        seconds=options.seconds,
        started=started,
    )
    sender.send((count, None if failure is None else str(failure)))
    look_for_leaks()


def look_for_leaks():
    """Have the leak sanitizer, where there is one, report what this process has lost.

    It looks at an ordinary exit by itself, which a forked process does not make.
    """
    look = getattr(ctypes.CDLL(None), "__lsan_do_recoverable_leak_check", None)
    if look is not None:
        look()
