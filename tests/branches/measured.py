"""The decisions of the C++ sources, and which of their branches the tests took.

A branch here is one way out of a decision that stands in the source. The compiler also counts the
two ways out of every call, return and throw; a line without an `if` would have branches by them, so
they are left out.
"""

import json
import re
from collections import Counter, defaultdict
from dataclasses import dataclass
from pathlib import Path

# Braces alone: what is decided there is the compiler's own, such as whether to destroy something.
NO_SOURCE = re.compile(r"[\s{}();]*")


@dataclass(frozen=True)
class Line:
    """A source line by what it says, so that edits elsewhere do not change it."""

    file: str
    text: str

    def __str__(self):
        return f"{self.file}: {self.text}"


@dataclass
class Branches:
    """How many branches each line has, and how many of them were never taken."""

    total: Counter
    untaken: Counter

    def share_taken(self, file=None):
        """The branches taken, in per cent, of one file or of all."""
        total = sum(self._of(self.total, file))
        return 100 * (total - sum(self._of(self.untaken, file))) / total if total else 100.0

    def files(self):
        """Every file with a decision, sorted."""
        return sorted({line.file for line in self.total})

    @staticmethod
    def _of(counts, file):
        return (count for line, count in counts.items() if file in (None, line.file))


def decisions(line):
    """The counts of each decision of a line as gcovr tells it, in the compiler's order."""
    blocks = defaultdict(list)
    for branch in line.get("branches", ()):
        blocks[branch.get("source_block_id")].append(branch)
    for block in blocks.values():
        if len(block) > 1 and not any(branch["throw"] for branch in block):
            yield tuple(branch["count"] for branch in block)


def merged(instances):
    """Add up what a line's copies counted: one for every template instance or processor version.

    Copies with other decisions, as a constant condition makes them, are not comparable.
    """
    sums = {}
    for instance in instances:
        shape = tuple(map(len, instance))
        known = sums.get(shape, [[0] * size for size in shape])
        sums[shape] = [
            [a + b for a, b in zip(left, right, strict=True)]
            for left, right in zip(known, instance, strict=True)
        ]
    return [decision for decisions_of_shape in sums.values() for decision in decisions_of_shape]


def read(report, root):
    """The branches of a gcovr JSON report over the sources below `root`."""
    branches = Branches(Counter(), Counter())
    for file in json.loads(Path(report).read_text())["files"]:
        source = (Path(root) / file["file"]).read_text().splitlines()
        instances = defaultdict(list)
        for line in file["lines"]:
            found = list(decisions(line))
            if found:
                instances[line["line_number"]].append(found)
        for number, copies in instances.items():
            text = source[number - 1].strip()
            if NO_SOURCE.fullmatch(text):
                continue
            counts = [count for decision in merged(copies) for count in decision]
            line = Line(file["file"], text)
            branches.total[line] += len(counts)
            branches.untaken[line] += counts.count(0)
    return branches
