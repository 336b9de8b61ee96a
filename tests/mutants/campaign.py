"""A run: mutants in the order of the draw, two at once, until the time is over."""

import random
import threading
import time
from collections import deque
from concurrent.futures import ThreadPoolExecutor

from mutants.judging import CAUGHT, WrongVerdict
from mutants.results import name_of
from mutants.suite import Test


def drawn(mutants, seed):
    """All mutants in the order in which a seed draws them."""
    order = list(mutants)
    random.Random(seed).shuffle(order)
    return order


class Campaign:
    """Judges mutants with workers, and keeps the results as they come."""

    def __init__(self, workers, reach, order, results, say):
        self.workers = workers
        self.reach = reach
        self.order = order
        self.results = results
        self.say = say
        self.left_out = {}
        self._lock = threading.Lock()
        for entry in results.entries(CAUGHT):
            order.learn(entry["key"][0], Test(entry["by"].split("::")[0]))

    def run(self, mutants, seconds, most_of_tests):
        """Judge those of `mutants` that have no result yet, for `seconds` of all the run's time."""
        begun = time.monotonic() - self.results.seconds
        waiting = deque(mutant for mutant in mutants if mutant not in self.results)
        stopped = threading.Event()

        def elapsed():
            return time.monotonic() - begun

        def work(worker):
            while waiting and not stopped.is_set() and elapsed() < seconds:
                with self._lock:
                    mutant = waiting.popleft() if waiting else None
                if mutant is None:
                    return
                try:
                    verdict = worker.judge(mutant, self._asked(mutant), self.order, most_of_tests)
                except WrongVerdict as wrong:
                    names = self._leave_out(wrong) | {name_of(mutant)}
                    waiting.extendleft(one for one in mutants if name_of(one) in names)
                    continue
                if not self._keep(mutant, verdict, elapsed()):
                    waiting.appendleft(mutant)

        with ThreadPoolExecutor(len(self.workers)) as threads:
            try:
                for done in [threads.submit(work, worker) for worker in self.workers]:
                    done.result()
            finally:
                stopped.set()

    def _asked(self, mutant):
        """The tests that reach a mutant, pass without it and can be trusted."""
        return {
            test
            for test in self.reach.of(mutant)
            if test in self.order.usual and test.name not in self.left_out
        }

    def _keep(self, mutant, verdict, seconds):
        """Keep a verdict, unless it is that of a test which another worker has found out."""
        with self._lock:
            if verdict.by.split("::")[0] in self.left_out:
                return False
            self.results.add(mutant, verdict, seconds)
        by = f", by {verdict.by}, which {verdict.how}" if verdict.by else ""
        self.say(
            f"{len(self.results):5}  {verdict.status:9} {verdict.seconds:6.1f} s  "
            f"{mutant.file}:{mutant.line} {mutant.operator}{by}"
        )
        return True

    def _leave_out(self, wrong):
        """Ask a test no more that cannot be trusted; the names of what it caught until now."""
        self.say(str(wrong))
        with self._lock:
            self.left_out[wrong.test.name] = str(wrong)
            return self.results.drop_catches_of(wrong.test)
