"""Run every long check, each by itself, and print a table of what each of them gave.

    python3 tools/trust.py [--python PATH] [--inputs N] [--logs FOLDER]

The table is Markdown, as docs/trust.md shows it, and also stays in FOLDER/table.md. What a check
prints goes to a file of its own beside it. A check that fails keeps no other from running.
"""

import argparse
import os
import platform
import re
import subprocess
import sys
import time
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from pathlib import Path

ROOT = Path(__file__).parents[1]

# One stage after the other, the checks of a stage side by side: those use one core each.
STAGES = [["set-up"], ["asan"], ["valgrind", "refleaks"], ["fuzz"], ["long"], ["matrix"]]

# The end of a pytest run: "6923 passed, 2 skipped in 301.20s (0:05:01)".
TEST_RUN = re.compile(r"((?:\d+ [a-z]+, )*\d+ [a-z]+) in [\d.]+s\b")
TOLD = {"passed", "failed", "skipped", "error", "errors", "xfailed"}
FUZZ_TARGET = re.compile(r"^(\w+): (\d+) inputs in ", re.MULTILINE)
FUZZ_SEED = re.compile(r"^seed \d+$", re.MULTILINE)
MATRIX_ROW = re.compile(r"^(3\.\S+) +(\S+) +(?:passed|FAILED|-) +(.+)$", re.MULTILINE)


@dataclass(frozen=True)
class Outcome:
    """How a check ended, what it printed, and the seconds it took on the clock and on the cores."""

    command: str
    passed: bool
    log: Path
    seconds: float
    core_seconds: float


def run(command, log):
    """Run one command with its output in a file, and measure it with all that it starts."""
    print(f"{' '.join(command)} ... {log}", flush=True)
    begun = time.monotonic()
    with log.open("wb") as output:
        process = subprocess.Popen(
            command, cwd=ROOT, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT
        )
        _, status, usage = os.wait4(process.pid, 0)
    process.returncode = os.waitstatus_to_exitcode(status)
    return Outcome(
        command=" ".join(command),
        passed=process.returncode == 0,
        log=log,
        seconds=time.monotonic() - begun,
        core_seconds=usage.ru_utime + usage.ru_stime,
    )


def test_counts(text):
    """The counts of each pytest run, as "1,051 passed + 6,923 passed, 2 skipped"."""
    runs = []
    for found in TEST_RUN.findall(text):
        counts = [count.split() for count in found.split(", ")]
        runs.append(", ".join(f"{int(n):,} {what}" for n, what in counts if what in TOLD))
    return " + ".join(filter(None, runs))


def input_counts(text):
    """The seed, and the inputs of each kind that all processes of the fuzzer played together."""
    totals = {}
    for target, count in FUZZ_TARGET.findall(text):
        totals[target] = totals.get(target, 0) + int(count)
    seeds = dict.fromkeys(FUZZ_SEED.findall(text))
    return ", ".join([*seeds, *(f"{target} {count:,}" for target, count in totals.items())])


def matrix_rows(text):
    """What each Python gave with each NumPy; the table is in the output twice."""
    rows = dict.fromkeys(MATRIX_ROW.findall(text))
    return "; ".join(
        f"{python} with {numpy}: {test_counts(tests) or tests}" for python, numpy, tests in rows
    )


def verdict(text):
    """The last line, in which a script says in words what it found."""
    return text.rstrip().rpartition("\n")[2]


READERS = {
    "set-up": [],
    "asan": [test_counts, verdict],
    "valgrind": [test_counts, verdict],
    "refleaks": [test_counts, verdict],
    "matrix": [matrix_rows],
    "long": [test_counts],
    "fuzz": [input_counts, verdict],
}


def result(name, outcome):
    """What a check gave, in one line; of one that failed also where to read on."""
    text = outcome.log.read_text(errors="replace")
    readers = [read for read in READERS[name] if outcome.passed or read is not verdict]
    gave = "; ".join(filter(None, (read(text) for read in readers)))
    if outcome.passed:
        return gave or "done"
    return f"**FAILED**, see {outcome.log}" + (f": {gave}" if gave else "")


def duration(seconds):
    """Minutes and seconds, as "12 min 05 s"."""
    minutes, seconds = divmod(round(seconds), 60)
    return f"{minutes} min {seconds:02} s"


def machine(python):
    """What the checks ran on."""
    versions = "import platform, numpy; print(platform.python_version(), numpy.__version__)"
    version, _, numpy = said(python, "-c", versions).partition(" ")
    return (
        f"{platform.system()}, {platform.machine()}, {os.cpu_count()} cores, "
        f"GCC {said('c++', '-dumpfullversion')}, "
        f"Python {version} and NumPy {numpy} where nothing else is said, "
        f"commit {said('git', 'rev-parse', '--short', 'HEAD')}"
    )


def said(*command):
    """The output of a command, or a question mark where it cannot be run."""
    try:
        found = subprocess.run(command, cwd=ROOT, capture_output=True, text=True, check=True)
    except (OSError, subprocess.CalledProcessError):
        return "?"
    return found.stdout.strip()


def table(outcomes, seconds, python):
    """The whole table, with the time of everything together in its last row."""
    rows = [
        f"| `{outcome.command}` | {result(name, outcome)} | {duration(outcome.seconds)} "
        f"| {duration(outcome.core_seconds)} |"
        for name, outcome in outcomes.items()
    ]
    cores = duration(sum(outcome.core_seconds for outcome in outcomes.values()))
    return "\n".join(
        [
            machine(python),
            "",
            "| command | result | time | time of the cores |",
            "|---|---|---|---|",
            *rows,
            f"| `make trust` | all of the above | {duration(seconds)} | {cores} |",
            "",
        ]
    )


def main():
    """Run what the arguments ask for; return 1 when any check failed."""
    parser = argparse.ArgumentParser(
        prog="python3 tools/trust.py",
        description="Run every long check, each by itself, and print a table of what they gave.",
    )
    parser.add_argument(
        "--python", default=ROOT / ".venv/bin/python", help="what `make` tests with"
    )
    parser.add_argument("--inputs", type=int, default=20_000, help="of each kind (%(default)s)")
    parser.add_argument("--logs", type=Path, default=ROOT / "build/trust", metavar="FOLDER")
    options = parser.parse_args()
    options.logs.mkdir(parents=True, exist_ok=True)
    arguments = {"fuzz": [f"INPUTS={options.inputs}"]}

    def check(name):
        return run(["make", name, *arguments.get(name, [])], options.logs / f"{name}.log")

    begun = time.monotonic()
    outcomes = {}
    for stage in STAGES:
        with ThreadPoolExecutor(len(stage)) as side_by_side:
            outcomes.update(zip(stage, side_by_side.map(check, stage), strict=True))
    text = table(outcomes, time.monotonic() - begun, options.python)
    (options.logs / "table.md").write_text(text)
    print(f"\n{text}", end="")
    return int(not all(outcome.passed for outcome in outcomes.values()))


if __name__ == "__main__":
    sys.exit(main())
