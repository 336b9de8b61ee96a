"""The command that judges mutants: see `python -m tests.mutants --help`."""

import argparse
import fcntl
import re
import signal
import sys
from concurrent.futures import ThreadPoolExecutor
from contextlib import contextmanager
from fnmatch import fnmatch
from pathlib import Path

from mutants import places, recording, report, survivor_list, usual
from mutants.campaign import Campaign, drawn
from mutants.judging import SURVIVED, UNREACHED, Worker
from mutants.order import Order
from mutants.results import Results
from mutants.suite import tests_of

ROOT = Path(__file__).parents[2]
PLACE = ROOT / "build" / "mutation"


def main():
    # Also when it runs in the background, where an interrupt cannot reach it.
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    options = parse_arguments()
    mutants = places.all_mutants(ROOT)
    chosen = choose(drawn(mutants, options.seed), options)
    if options.show:
        print(*chosen[: options.show], sep="\n")
        return 0
    with alone():
        results, left_out = judge(chosen, options)
    listed = survivor_list.read()
    text = report.markdown(results, listed, options.seed, left_out)
    results.path.with_suffix(".md").write_text(text)
    print(text)
    wrong = list(
        survivor_list.complaints(results.entries(), listed, {mutant.key for mutant in mutants})
    )
    share = results.share_caught(report.that_differ(results.entries(), listed))
    if share < options.least:
        wrong.append(
            f"less than {options.least} % of the mutants that do anything else were caught"
        )
    print(*wrong, f"results are in {results.path}", sep="\n", file=sys.stderr)
    return int(bool(wrong))


def parse_arguments():
    parser = argparse.ArgumentParser(
        prog="python -m tests.mutants",
        description="Change the C++ and the Python of the package at places drawn by chance, and "
        "see whether the tests that reach the place tell. A run that was stopped goes on where it "
        "stopped, as long as no source and no test changes.",
    )
    parser.add_argument("--seed", type=int, default=1, help="of the draw (%(default)s)")
    parser.add_argument("--minutes", type=float, default=60.0, help="of judging (%(default)s)")
    parser.add_argument("--workers", type=int, default=2, help="mutants at once (%(default)s)")
    parser.add_argument("--least", type=float, default=95.0, help="per cent caught (%(default)s)")
    parser.add_argument(
        "--test-seconds",
        type=float,
        default=120.0,
        help="that the tests asked about one mutant usually take; what the rest would catch counts "
        "as surviving (%(default)s)",
    )
    parser.add_argument(
        "--only", default="*", help='sources, such as "cpp/kernels/*" (%(default)s)'
    )
    parser.add_argument("--again", metavar="RESULTS", help="judge the survivors of another run")
    parser.add_argument("--show", type=int, default=0, help="print so many of the draw, judge none")
    options = parser.parse_args()
    if options.again and not Path(options.again).is_file():
        parser.error(f"--again: there is no file {options.again!r}")
    return options


@contextmanager
def alone():
    """Keep a second run from changing the same copies."""
    PLACE.mkdir(parents=True, exist_ok=True)
    with (PLACE / "lock").open("w") as lock:
        try:
            fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            raise SystemExit(f"another run is going on in {PLACE}") from None
        yield


def choose(mutants, options):
    """Those mutants of the draw that the options ask for."""
    if options.again:
        survivors = Results(options.again).entries(SURVIVED, UNREACHED)
        keys = {tuple(entry["key"]) for entry in survivors}
        mutants = [mutant for mutant in mutants if mutant.key in keys]
    return [mutant for mutant in mutants if fnmatch(mutant.file, options.only)]


def judge(mutants, options):
    """The results of a run, and the tests that were left out, with why."""
    reach = recording.up_to_date(ROOT, PLACE, options.workers, say)
    say("building")
    with ThreadPoolExecutor(options.workers) as threads:
        numbers = range(1, options.workers + 1)
        workers = list(threads.map(lambda number: Worker(ROOT, PLACE, number), numbers))
    seconds, failing = usual.measure(ROOT, PLACE, tests_of(ROOT), workers, say)
    results = Results(PLACE / f"{name_of_run(options)}-{usual.state_of(ROOT)}.jsonl")
    order = Order(seconds)
    campaign = Campaign(workers, reach, order, results, say)
    campaign.run(mutants, 60 * options.minutes, options.test_seconds)
    return results, failing | campaign.left_out


def name_of_run(options):
    """Runs over other mutants do not mix: what was chosen by hand is no fair draw."""
    kind = "again" if options.again else "results"
    only = "" if options.only == "*" else "-" + re.sub(r"\W+", "_", options.only).strip("_")
    return f"{kind}-{options.seed}{only}"


def say(text):
    print(text, flush=True)
