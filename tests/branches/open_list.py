"""The list of branches that no test takes, each with its reason, and how it is held to."""

import tomllib
from collections import Counter
from dataclasses import dataclass
from pathlib import Path

from branches.measured import Line

LIST = Path(__file__).with_name("open_branches.toml")


@dataclass
class OpenList:
    """The listed lines, how many branches of each are open and why."""

    reasons: dict
    branches: Counter
    reason_of: dict

    def out_of_reach(self, reason="another-processor"):
        """How many branches this machine could not take whatever ran on it."""
        return self.by_reason()[reason]

    def by_reason(self):
        """How many branches are open for each reason."""
        counts = Counter()
        for line, count in self.branches.items():
            counts[self.reason_of[line]] += count
        return counts


def read(path=LIST):
    """The list as the file has it: a table of reasons, and a table for each source file."""
    tables = tomllib.loads(Path(path).read_text())
    reasons = tables.pop("reasons")
    listed = OpenList(reasons, Counter(), {})
    for file, lines in tables.items():
        for text, entry in lines.items():
            line = Line(file, text)
            listed.branches[line] = entry["open"]
            listed.reason_of[line] = entry["reason"]
    return listed


def complaints(branches, listed):
    """What the list and the measurement say differently, as texts."""
    untaken = +branches.untaken
    for line in sorted(untaken.keys() | listed.branches.keys(), key=str):
        got, said = untaken[line], listed.branches[line]
        if line not in branches.total:
            yield f"{line}\n    is listed, but no such line decides anything"
        elif got > said:
            yield f"{line}\n    has {got} branches that no test takes, {said} are listed"
        elif got < said:
            yield f"{line}\n    has {got} branches that no test takes, but {said} are listed"
    for line, reason in listed.reason_of.items():
        if reason not in listed.reasons:
            yield f"{line}\n    is listed with the unknown reason {reason!r}"
    for reason in listed.reasons.keys() - set(listed.reason_of.values()):
        yield f"no branch is listed with the reason {reason!r}"
