"""The decisions of the C++ sources, and which of their branches the tests took.

A branch here is one way out of a decision that stands in the source. The compiler also counts the
two ways out of every call, return and throw; a line without an `if` would have branches by them, so
they are left out. The counts are gcov's own: gcovr loses those of some copies of a template.
"""

import json
import re
import subprocess
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
    """The counts of a line's branches, in the compiler's order, without those of calls.

    The way back from a call stands right before the way that a throw takes.
    """
    counts = []
    for branch in line["branches"]:
        if branch["throw"]:
            counts.pop()
        else:
            counts.append(branch["count"])
    return tuple(counts)


def merged(copies):
    """Add up what a line's copies counted: one for every template instance or object file.

    Copies with another number of branches, as a constant condition makes them, stay apart.
    """
    by_size = defaultdict(list)
    for copy in copies:
        by_size[len(copy)].append(copy)
    return [sum(counts) for alike in by_size.values() for counts in zip(*alike, strict=True)]


def reports(build):
    """What gcov says of every object file below `build`, as it gives it."""
    build = Path(build).resolve()
    for data in sorted(build.rglob("*.gcda")):
        command = ["gcov", "--branch-probabilities", "--json-format", "--stdout", str(data)]
        said = subprocess.run(command, capture_output=True, text=True, check=True, cwd=build)
        yield from map(json.loads, said.stdout.splitlines())


def read(reports, root):
    """The branches of the C++ below `root`, but for that of the tests, by gcov's reports."""
    sources = Path(root).resolve() / "cpp"
    copies = defaultdict(list)
    for report in reports:
        for file in report["files"]:
            path = Path(report["current_working_directory"], file["file"]).resolve()
            if not path.is_relative_to(sources) or path.is_relative_to(sources / "tests"):
                continue
            for line in file["lines"]:
                if counts := decisions(line):
                    copies[path, line["line_number"]].append(counts)
    branches = Branches(Counter(), Counter())
    for (path, number), found in sorted(copies.items()):
        text = path.read_text().splitlines()[number - 1].strip()
        if NO_SOURCE.fullmatch(text):
            continue
        counts = merged(found)
        line = Line(path.relative_to(sources.parent).as_posix(), text)
        branches.total[line] += len(counts)
        branches.untaken[line] += counts.count(0)
    return branches
