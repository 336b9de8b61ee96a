"""Running very many inputs, each made from a seed of its own, so that any one can be made again.

A target is a module with two functions. `play(random, subject)` makes one input from the random
generator, uses it on the subject and returns what could be seen of it; `subjects()` returns what
to play on. An input is in order when nothing but the target's own assertions could stop it, and
when all subjects let the same be seen.
"""

import importlib
import random
import re
import time
import traceback
from dataclasses import dataclass

TARGETS = ["expressions", "items", "states", "records", "masks", "columns"]

# Objects are shown with their addresses, which two subjects cannot have in common.
ADDRESS = re.compile(r" at 0x[0-9a-f]+")
# Of two NaNs an addition returns one, and which one is the choice of whoever compiled it.
NEGATIVE_NAN, NAN = r"\x00\xf8\xff", r"\x00\xf8\x7f"
SHOWN = 300


@dataclass(frozen=True)
class Failure:
    """An input on which the subjects differ, or on which one fails in a way that none may."""

    target: str
    seed: int
    index: int
    what: str

    def __str__(self):
        return (
            f"{self.what}\n"
            f"again: python -m tests.fuzz --only {self.target} --seed {self.seed} "
            f"--first {self.index} --inputs 1"
        )


def module_of(target):
    """Import the target: not all of them can run everywhere."""
    return importlib.import_module(f"fuzz.{target}")


def random_of(target, seed, index):
    """Return the generator that one input is made from."""
    return random.Random(((seed << 8) + TARGETS.index(target) << 64) + index)


def check_input(target, seed, index):
    """Play one input on every subject; return the failure, or None."""
    module = module_of(target)
    seen = []
    for subject in module.subjects():
        try:
            seen.append(module.play(random_of(target, seed, index), subject))
        except Exception:
            return Failure(target, seed, index, traceback.format_exc())
    difference = first_difference(seen)
    return None if difference is None else Failure(target, seed, index, difference)


def first_difference(seen):
    """Describe where the second subject's log leaves the first's, or return None."""
    if all(log == seen[0] for log in seen):
        return None
    native, twin = (ADDRESS.sub("", repr(log)).replace(NEGATIVE_NAN, NAN) for log in seen)
    if native == twin:
        return None
    places = enumerate(zip(native, twin, strict=False))
    first = next((place for place, (one, other) in places if one != other), 0)
    shown = slice(max(0, first - SHOWN), first + SHOWN)
    return f"native: ...{native[shown]}...\ntwin:   ...{twin[shown]}..."


def run(target, *, seed, inputs, first=0, seconds=None, started=None):
    """Check inputs until their number, the time or a failure ends it; return (count, failure).

    `started(index)` is told of every input before it is played.
    """
    deadline = None if seconds is None else time.monotonic() + seconds
    for index in range(first, first + inputs):
        if deadline is not None and time.monotonic() >= deadline:
            return index - first, None
        if started is not None:
            started(index)
        failure = check_input(target, seed, index)
        if failure is not None:
            return index - first, failure
    return inputs, None
