"""The list of mutants that no test catches, each with its reason, and how it is held to."""

import tomllib
from collections import Counter
from dataclasses import dataclass
from pathlib import Path

from mutants.judging import CAUGHT, SURVIVED, UNREACHED

LIST = Path(__file__).with_name("survivors.toml")

# The reasons of those that no test of results can tell: they do the same, at once or later.
SAME = {"same", "speed"}


@dataclass
class SurvivorList:
    """The reasons by name, and the name of each mutant's reason by its file, line and change."""

    reasons: dict
    reason_of: dict

    def is_same(self, key):
        """Whether a mutant is said to do the same as the original."""
        return self.reason_of.get(tuple(key)) in SAME

    def by_reason(self, keys):
        """How many of the mutants survive for each reason; those without one have None."""
        return Counter(self.reason_of.get(tuple(key)) for key in keys)


def read(path=LIST):
    """The list as the file has it: reasons, and for each source its lines and their mutants."""
    tables = tomllib.loads(Path(path).read_text())
    reasons = tables.pop("reasons")
    entries = {
        (file, was, now): reason
        for file, lines in tables.items()
        for was, changes in lines.items()
        for now, reason in changes.items()
    }
    return SurvivorList(reasons, entries)


def complaints(entries, listed, mutants):
    """What the list and a run's results say differently, as texts.

    `entries` are the results; `mutants` are the keys of all mutants that there are, because a run
    draws only some of them.
    """
    ended = {}
    for entry in entries:
        ended.setdefault(tuple(entry["key"]), []).append(entry)
    for key, alike in ended.items():
        survivors = [entry for entry in alike if entry["status"] in {SURVIVED, UNREACHED}]
        if survivors and key not in listed.reason_of:
            yield f"{told(key)}\n    {survivors[0]['status']}, and no reason is listed"
        if key in listed.reason_of and all(entry["status"] == CAUGHT for entry in alike):
            yield f"{told(key)}\n    is listed as a survivor, but {alike[0]['by']} catches it"
    for key, reason in listed.reason_of.items():
        if key not in mutants:
            yield f"{told(key)}\n    is listed, but there is no such mutant"
        if reason not in listed.reasons:
            yield f"{told(key)}\n    is listed with the unknown reason {reason!r}"
    for reason in listed.reasons.keys() - set(listed.reason_of.values()):
        yield f"no mutant is listed with the reason {reason!r}"


def told(key):
    file, was, now = key
    return f"{file}\n    - {was}\n    + {now}"
