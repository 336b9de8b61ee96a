"""A worker: a copy of the checkout with a build of its own, in which mutants are judged."""

import time
from dataclasses import dataclass
from pathlib import Path

from mutants import building
from mutants.checkout import Checkout, Snapshot
from mutants.suite import HANGS, Test, ask

PRESET = "mutants"

# How a mutant ends. Only the first three count: the other two are drawn in vain.
CAUGHT, SURVIVED, UNREACHED = "caught", "survived", "unreached"
UNVIABLE, SAME_CODE = "unviable", "same code"
COUNTED = (CAUGHT, SURVIVED, UNREACHED)

# Tests of the plain twin alone can tell nothing of compiled code.
OPTIONS = {"cpp": ("-x", "-m", "not plain_python"), "python": ("-x",)}

# Each so many-th catch is looked at again without the mutant.
CHECKED = 10


class WrongVerdict(Exception):
    """A test that caught a mutant fails without it too: nothing that it said is worth a thing."""

    def __init__(self, test, answer):
        super().__init__(
            f"{test.name} is left out: without a mutant, {answer.by} {answer.how}, too"
        )
        self.test = test


@dataclass(frozen=True)
class Verdict:
    """How a mutant ended, which test told, how, and the seconds that took."""

    status: str
    by: str = ""
    how: str = ""
    seconds: float = 0.0
    tests: int = 0


class Worker:
    """Judges one mutant at a time."""

    preset = PRESET

    def __init__(self, root, place, number):
        """Bring the copy and its build up to date."""
        self.checkout = Checkout(root, Path(place) / f"worker-{number}")
        self.folder = self.checkout.folder
        self.checkout.update()
        self.build = building.configure(self.folder, PRESET)
        self.built = Snapshot(self.build, Path(place).resolve() / f"built-{number}")
        self._caught = 0

    def judge(self, mutant, tests, order, most):
        """Ask `tests` in the `order`, for usually `most` seconds at most, about a mutant."""
        begun = time.monotonic()
        with self.checkout.changed(mutant.file, mutant.text):
            try:
                if vain := self._in_vain(mutant):
                    return Verdict(vain, seconds=time.monotonic() - begun)
                if not tests:
                    return Verdict(UNREACHED, seconds=time.monotonic() - begun)
                asked, answer = self._ask(mutant, tests, order, most)
            finally:
                self.built.restore()
        if answer.passed:
            return Verdict(SURVIVED, seconds=time.monotonic() - begun, tests=asked)
        test = Test(answer.by.split("::")[0])
        self._check(test, answer.how, order)
        order.learn(mutant.file, test)
        seconds = time.monotonic() - begun
        return Verdict(CAUGHT, answer.by, answer.how, seconds, asked)

    def _in_vain(self, mutant):
        """Why there is nothing to judge, if so."""
        if mutant.source.language == "python":
            return "" if compiles(mutant) else UNVIABLE
        if not building.builds(self.build):
            return UNVIABLE
        return SAME_CODE if building.same_products(self.build, self.built.store) else ""

    def _ask(self, mutant, tests, order, most):
        options = OPTIONS[mutant.source.language]
        asked = 0
        for batch in order.batches(mutant.file, tests, most):
            asked += len(batch)
            answer = ask(self.folder, PRESET, batch, order.usual, options=options)
            if not answer.passed:
                break
        return asked, answer

    def _check(self, test, how, order):
        """Run a test that caught a mutant without it, now and then: it has to pass.

        Always where it seemed to hang: the machine may have been too slow.
        """
        self._caught += 1
        if how == HANGS or self._caught % CHECKED == 0:
            answer = ask(self.folder, PRESET, [test], order.usual)
            if not answer.passed:
                raise WrongVerdict(test, answer)


def compiles(mutant):
    """Whether Python can read the changed source; what it warns of is no matter."""
    import warnings

    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        try:
            compile(mutant.text, mutant.file, "exec", dont_inherit=True)
        except SyntaxError:
            return False
    return True
