"""The map of what reaches what: each test by itself, on an instrumented build, once."""

import shutil
import sys
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from mutants import building
from mutants.checkout import Checkout
from mutants.places import sources_of
from mutants.reach import Reach
from mutants.suite import SECONDS, ask, digest, tests_of
from mutants.tracing import Trace, lines_of_code

PRESET = "coverage"


def up_to_date(root, place, workers, say):
    """The map of the checkout's tests, with those that are new or changed run again.

    Those that are as they were are not: lines of sources that have changed since are known by file.
    """
    path = Path(place) / "reach.json"
    reach = Reach.load(path)
    sources = sources_of(root)
    digests = {source.path: source.digest for source in sources}
    tests = {test: digest(root, test) for test in tests_of(root)}
    if changed := reach.forget(tests, digests):
        say(f"{len(changed)} sources have changed since the map was made: known by file")
    missing = [test for test in tests if test not in reach.ran]
    if missing:
        say(f"recording what {len(missing)} tests reach")
        checkout = Checkout(root, Path(place) / "recording")
        checkout.update()
        building.configure(checkout.folder, PRESET, workers)
        if not reach.sources:
            reach.sources = digests
            python = [source for source in sources if source.language == "python"]
            reach.known = {source.path: lines_of_code(source) for source in python}
        with ThreadPoolExecutor(workers) as threads:
            recorded = threads.map(lambda test: record(checkout, place, test), missing)
            for test, (answer, ran, known) in zip(missing, recorded, strict=True):
                reach.ran[test], reach.tests[test] = ran, tests[test]
                for file, lines in known.items():
                    if file in digests and reach.sources.get(file) == digests[file]:
                        reach.known[file] = reach.known.get(file, 0) | lines
                how = "" if answer.passed else f", though {answer.by} {answer.how}"
                say(f"{answer.seconds:7.1f} s  {test.name}{how}")
                reach.save(path)
    return reach


def record(checkout, place, test):
    """Run one test; give how it ended, the lines it ran by file, and those of C++ that can run."""
    folder = Path(place).resolve() / "traces" / test.name
    shutil.rmtree(folder, ignore_errors=True)
    trace = Trace(checkout.folder, folder)
    answer = ask(
        checkout.folder,
        PRESET,
        [test],
        {test: SECONDS},
        tracer=(sys.executable, *trace.tracer),
        environment=trace.environment,
    )
    ran, known = trace.ran()
    shutil.rmtree(folder)
    return answer, ran, known
