"""How long each test takes without a mutant, and that it passes then."""

import hashlib
import json
import queue
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from mutants.checkout import tracked
from mutants.suite import SECONDS, Test, ask

# What decides how tests go; the judging itself does not.
FOLDERS = ("cpp", "src", "tests", "cmake")
JUDGING = "tests/mutants/"


def state_of(root):
    """A digest of the sources and tests as they are, so that results of others are not mixed in."""
    said = hashlib.sha256()
    for path in sorted(tracked(Path(root))):
        if path.parts[0] in FOLDERS and not path.as_posix().startswith(JUDGING):
            said.update(f"{path}\0".encode() + hashlib.sha256((root / path).read_bytes()).digest())
    return said.hexdigest()[:16]


def measure(root, place, tests, workers, say):
    """The seconds of each test that passes on what the workers have built, and those that fail.

    Kept for as long as no source and no test changes.
    """
    path = Path(place) / "usual.json"
    state = state_of(Path(root))
    kept = json.loads(path.read_text()) if path.exists() else {}
    if kept.get("state") != state:
        kept = {"state": state, "seconds": {}, "failing": {}}
    missing = [test for test in tests if test.name not in kept["seconds"] | kept["failing"]]
    if missing:
        say(f"running {len(missing)} tests without a mutant")
    free = queue.SimpleQueue()
    for worker in workers:
        free.put(worker)

    def run(test):
        worker = free.get()
        try:
            return ask(worker.folder, worker.preset, [test], {test: SECONDS})
        finally:
            free.put(worker)

    with ThreadPoolExecutor(len(workers)) as threads:
        for test, answer in zip(missing, threads.map(run, missing), strict=True):
            if answer.passed:
                kept["seconds"][test.name] = answer.seconds
            else:
                kept["failing"][test.name] = f"{answer.by} {answer.how}"
                say(f"left out, it fails without a mutant: {test.name}: {answer.by} {answer.how}")
            path.write_text(json.dumps(kept, indent=1))
    names = {test.name for test in tests}
    seconds = {Test(name): time for name, time in kept["seconds"].items() if name in names}
    return seconds, {name: why for name, why in kept["failing"].items() if name in names}
