"""Which tests reach which lines."""

import json
from dataclasses import dataclass, field
from functools import cached_property
from pathlib import Path

from mutants.suite import Test


@dataclass
class Reach:
    """What each test ran: `ran[test][file]` is a set of lines, as the bits of a number.

    `known[file]` has the lines that can run at all, and `sources` and `tests` the digest of each
    file at the time: what has changed since is known by file only, or not at all.
    """

    ran: dict = field(default_factory=dict)
    known: dict = field(default_factory=dict)
    sources: dict = field(default_factory=dict)
    tests: dict = field(default_factory=dict)

    def forget(self, tests, sources):
        """Drop tests that are not among `tests` with their digests, and lines of other sources."""
        for test in [test for test in self.ran if self.tests.get(test) != tests.get(test)]:
            del self.ran[test], self.tests[test]
        changed = [path for path in self.sources if self.sources[path] != sources.get(path)]
        for path in changed:
            self.known.pop(path, None)
        return changed

    def of(self, mutant):
        """The tests that reach a mutant.

        They go by the innermost range of lines in which anything can run, by the whole file where
        there is none, and are all tests where no line of the file is known to run.
        """
        by_test = self._by_file.get(mutant.file, {})
        known = self.known.get(mutant.file, 0)
        for first, last in mutant.ranges:
            lines = bits(range(first, last + 1))
            if known & lines:
                return {test for test, ran in by_test.items() if ran & lines}
        return set(by_test) or set(self.ran)

    @cached_property
    def _by_file(self):
        found = {}
        for test, files in self.ran.items():
            for file, lines in files.items():
                found.setdefault(file, {})[test] = lines
        return found

    def save(self, path):
        said = {
            "known": as_text(self.known),
            "sources": self.sources,
            "tests": {
                test.name: {"digest": self.tests[test], "ran": as_text(files)}
                for test, files in self.ran.items()
            },
        }
        path = Path(path)
        path.parent.mkdir(parents=True, exist_ok=True)
        unfinished = path.with_suffix(".new")
        unfinished.write_text(json.dumps(said))
        unfinished.replace(path)

    @classmethod
    def load(cls, path):
        """What was saved, or an empty map where nothing was."""
        if not Path(path).exists():
            return cls()
        said = json.loads(Path(path).read_text())
        tests = {Test(name): entry for name, entry in said["tests"].items()}
        return cls(
            {test: as_numbers(entry["ran"]) for test, entry in tests.items()},
            as_numbers(said["known"]),
            said["sources"],
            {test: entry["digest"] for test, entry in tests.items()},
        )


def bits(lines):
    """A set of lines as one number."""
    number = 0
    for line in lines:
        number |= 1 << line
    return number


def as_text(numbers):
    return {file: format(lines, "x") for file, lines in numbers.items()}


def as_numbers(texts):
    return {file: int(lines, 16) for file, lines in texts.items()}
