"""What has been judged: a file with a line for each mutant, from which a stopped run goes on."""

import json
import threading
from dataclasses import asdict
from pathlib import Path

from mutants.judging import CAUGHT, COUNTED, Verdict


class Results:
    """The verdicts of one seed over one state of the sources and tests, in the order given."""

    def __init__(self, path):
        """Go on with what the file at `path` has, if there is one."""
        self.path = Path(path)
        self.seconds = 0.0
        self._verdicts = {}
        self._lock = threading.Lock()
        if self.path.exists():
            for line in self.path.read_text().splitlines():
                try:
                    entry = json.loads(line)
                except ValueError:
                    # Cut off when the machine was; what comes next begins a line of its own.
                    continue
                self._take(entry)
            self._write()

    def __len__(self):
        return len(self._verdicts)

    def __contains__(self, mutant):
        return name_of(mutant) in self._verdicts

    def add(self, mutant, verdict, seconds):
        """Keep a verdict; `seconds` are those that the run has taken so far."""
        entry = {
            "mutant": name_of(mutant),
            "key": mutant.key,
            "line": mutant.line,
            "operator": mutant.operator,
            "at": seconds,
            **asdict(verdict),
        }
        with self._lock, self.path.open("a") as file:
            file.write(json.dumps(entry) + "\n")
            self._take(entry)

    def drop_catches_of(self, test):
        """Forget what a test caught that cannot be trusted; the names of those mutants."""
        with self._lock:
            caught = {
                name
                for name, entry in self._verdicts.items()
                if entry["by"].split("::")[0] == test.name
            }
            for name in caught:
                del self._verdicts[name]
            self._write()
        return caught

    def entries(self, *statuses):
        """The entries with one of the given statuses, or all, as they came."""
        with self._lock:
            return [
                entry
                for entry in self._verdicts.values()
                if not statuses or entry["status"] in statuses
            ]

    def verdicts(self):
        """The key and the verdict of each."""
        fields = Verdict.__dataclass_fields__
        for entry in self.entries():
            yield tuple(entry["key"]), Verdict(**{name: entry[name] for name in fields})

    def count(self, *statuses):
        return len(self.entries(*statuses))

    def share_caught(self, among=None):
        """The share of the mutants caught that count, in per cent; of `among` if given."""
        entries = self.entries(*COUNTED) if among is None else among
        caught = sum(entry["status"] == CAUGHT for entry in entries)
        return 100 * caught / len(entries) if entries else 100.0

    def _write(self):
        lines = (json.dumps(entry) for entry in self._verdicts.values())
        self.path.write_text("".join(f"{line}\n" for line in lines))

    def _take(self, entry):
        self._verdicts.pop(entry["mutant"], None)
        self._verdicts[entry["mutant"]] = entry
        self.seconds = max(self.seconds, entry["at"])


def name_of(mutant):
    """What no other mutant of the same sources is called."""
    return f"{mutant.file}:{mutant.start}-{mutant.end}:{mutant.after.decode()}"
