"""Which tests are asked first: those that catch the most for their time."""

import threading
from collections import Counter
from pathlib import PurePosixPath

# What a catch says of the next mutant: in the same file, in the same folder, anywhere.
SAME_FILE, SAME_FOLDER, ANYWHERE = 16, 4, 1

# A process for some files at a time, because each has to begin by importing everything.
FIRST_SECONDS, NEXT_SECONDS = 6.0, 40.0


class Order:
    """Remembers what has caught what; workers share it."""

    def __init__(self, usual):
        """Order the tests of `usual`, which has the seconds of each."""
        self.usual = usual
        self._caught = Counter()
        self._lock = threading.Lock()

    def learn(self, file, test):
        """`test` has caught a mutant of `file`."""
        with self._lock:
            self._caught[test, file] += SAME_FILE
            self._caught[test, str(PurePosixPath(file).parent)] += SAME_FOLDER
            self._caught[test, None] += ANYWHERE

    def of(self, file, tests):
        """Tests in the order in which they are worth asking about a mutant of `file`."""
        folder = str(PurePosixPath(file).parent)
        with self._lock:
            caught = dict(self._caught)

        def cost(test):
            worth = sum(caught.get((test, place), 0) for place in (file, folder, None))
            return self.usual[test] / (1 + worth), test.name

        return sorted(tests, key=cost)

    def batches(self, file, tests, most):
        """Groups of tests to run in one process each, until they usually take `most` seconds."""
        limit, seconds, total = FIRST_SECONDS, 0.0, 0.0
        batch = []
        for test in self.of(file, tests):
            if total and total + self.usual[test] > most:
                continue
            total += self.usual[test]
            if test.is_program:
                yield [test]
                continue
            if batch and seconds + self.usual[test] > limit:
                yield batch
                batch, seconds, limit = [], 0.0, NEXT_SECONDS
            batch.append(test)
            seconds += self.usual[test]
        if batch:
            yield batch
