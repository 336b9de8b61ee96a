"""A signal, or two, at any moment of a run: a clean end, whole outputs, and the run can go on."""

import os
import random
import signal
import subprocess
import sys
import time
from concurrent.futures import ThreadPoolExecutor

import numpy as np
import pytest

from support.exits import ExitServer, environment

pytest.importorskip("msgpack")

LONG = bool(os.environ.get("QUORVANE_LONG"))
RUNS = 60 if LONG else 6
STARTS = 40 if LONG else 3
DAYS = 60

SIGNALS = {
    "SIGINT": [signal.SIGINT],
    "SIGTERM": [signal.SIGTERM],
    "SIGINT twice": [signal.SIGINT, signal.SIGINT],
    "SIGTERM twice": [signal.SIGTERM, signal.SIGTERM],
    "SIGINT, then SIGTERM": [signal.SIGINT, signal.SIGTERM],
}


@pytest.fixture(scope="module")
def runs():
    """Forks processes that run the command."""
    with ExitServer("cli.replay_server") as server:
        yield server


@pytest.fixture
def arguments(tmp_path):
    """The command's arguments, with the place of each run left open."""
    values = 100.0 + np.random.default_rng(5).normal(size=(DAYS, 4)).cumsum(axis=0)
    np.save(tmp_path / "prices.npy", values)
    (tmp_path / "structures.toml").write_text("[a]\n0 = 1.0\n1 = -1.0\n[b]\n2 = 0.5\n3 = 0.5\n")
    options = {
        "structures": tmp_path / "structures.toml",
        "expression": "ewma(5);rank",
        "output": "{folder}/o.csv",
        "trace": "{folder}/t.jsonl",
        "checkpoint": "{folder}/c.db",
        "checkpoint-every": DAYS // 2,
    }
    flat = [part for name, value in options.items() for part in (f"--{name}", str(value))]
    return ["replay", str(tmp_path / "prices.npy"), *flat]


@pytest.fixture
def whole(runs, tmp_path, arguments):
    """The outputs of a run that nothing disturbed, and how long such a run takes here and now."""
    start = time.monotonic()
    for _ in range(2):
        outcome = run(runs, tmp_path, arguments)
        assert (outcome["status"], outcome["said"]) == (0, "")
    return outputs(tmp_path / "0"), (time.monotonic() - start) / 2


def run(runs, folder, arguments, seeds=(0,)):
    """Run the command undisturbed in the folder of each seed; how the last one ended."""
    return runs.outcomes("replay", folder, seeds, arguments=arguments, numbers=[], longest_wait=0)[
        -1
    ]


def outputs(folder):
    return (folder / "o.csv").read_bytes(), (folder / "t.jsonl").read_bytes()


def folders_with_old_outputs(place, count):
    for seed in range(count):
        folder = place / str(seed)
        folder.mkdir(parents=True)
        (folder / "o.csv").write_bytes(b"old")
        (folder / "t.jsonl").write_bytes(b"old")


def check_end(folder, status, numbers, whole):
    """Each output is the old or the new one, and nothing lies about."""
    # What the signal ended before or after the command's own handlers is 128 + its number, too.
    shown = 128 - status if status < 0 else status
    assert shown in {0, *(128 + number for number in numbers)}
    for found, new in zip(outputs(folder), whole, strict=True):
        assert found == new or (shown != 0 and found == b"old")
    assert [name for name in os.listdir(folder) if name.startswith(".part-")] == []


def check_going_on(runs, place, seed, arguments, whole):
    """The run goes on from its checkpoint, or from its beginning if it had not come to one."""
    outcome = run(runs, place, [*arguments, "--resume", "--quiet"], [seed])
    assert (outcome["status"], outcome["said"]) == (0, "")
    assert outputs(place / str(seed)) == whole
    assert {"c.db", "o.csv", "t.jsonl", "out", "said"} == set(os.listdir(place / str(seed)))


@pytest.mark.parametrize("name", SIGNALS)
def test_a_run_ends_cleanly_and_can_go_on(runs, tmp_path, arguments, whole, name):
    whole, seconds = whole
    place, numbers = tmp_path / "runs", SIGNALS[name]
    folders_with_old_outputs(place, RUNS)
    outcomes = runs.outcomes(
        "replay",
        place,
        range(RUNS),
        arguments=arguments,
        numbers=numbers,
        longest_wait=1.2 * seconds * len(numbers),
    )
    for outcome in outcomes:
        assert outcome["said"] == ""
        check_end(place / str(outcome["seed"]), outcome["status"], numbers, whole)
        check_going_on(runs, place, outcome["seed"], arguments, whole)


# The interpreter's own start is over, and the command's begins.
PROGRAM = "import sys; from quorvane.cli import program; print(flush=True); sys.exit(program())"


def start(arguments, folder):
    """Start the command in an interpreter of its own, which takes an interrupt as usual."""
    return subprocess.Popen(
        [sys.executable, "-X", "faulthandler", "-c", PROGRAM, *arguments],
        cwd=folder,
        env=environment(),
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
        # What a shell starts in the background ignores it.
        preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL),
    )


def seconds_of_a_start(arguments, folder):
    begin = time.monotonic()
    with start(arguments, folder) as process:
        _, said = process.communicate(timeout=120)
    assert (process.returncode, said) == (0, "")
    return time.monotonic() - begin


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_a_signal_while_the_command_is_loaded_ends_it_without_a_word(tmp_path, number):
    """A table and structures as text: the libraries that read them are loaded while it runs."""
    days = np.datetime_as_string(np.datetime64("2000-01-01") + np.arange(DAYS))
    rows = "".join(f"{day},1.5,2.5\n" for day in days)
    (tmp_path / "prices.csv").write_text(f"Date,A,B\n{rows}")
    (tmp_path / "s.toml").write_text("[a]\nA = 1.0\nB = -1.0\n")
    (tmp_path / "o.csv").write_text("old")
    arguments = ["replay", "prices.csv", "--structures", "s.toml", "--output", "o.csv"]
    longest = 1.2 * seconds_of_a_start(arguments, tmp_path)
    whole = (tmp_path / "o.csv").read_text()

    def ended(seed):
        folder = tmp_path / str(seed)
        folder.mkdir()
        for name in ("prices.csv", "s.toml"):
            (folder / name).hardlink_to(tmp_path / name)
        (folder / "o.csv").write_text("old")
        with start(arguments, folder) as process:
            assert process.stdout.readline() == "\n"
            time.sleep(random.Random(seed).uniform(0.0, longest))
            process.send_signal(number)
            _, said = process.communicate(timeout=120)
        found = (folder / "o.csv").read_text()
        return process.returncode, said, found, sorted(os.listdir(folder))

    usual = ["o.csv", "prices.csv", "s.toml"]
    possible = [(0, "", whole, usual)]
    possible += [
        (status, "", found, usual) for status in (-number, 128 + number) for found in ("old", whole)
    ]
    with ThreadPoolExecutor(2) as two:
        for end in two.map(ended, range(STARTS)):
            assert end in possible


# A function of the interpreter's end, in which somebody presses Ctrl-C.
INTERRUPTED_AT_THE_END = """
import atexit, signal, sys
from quorvane.cli import program
atexit.register(signal.raise_signal, signal.SIGINT)
sys.argv[1:] = ["--version"]
sys.exit(program())
"""


def test_an_interrupt_after_the_run_ends_the_process_without_a_word():
    end = subprocess.run(
        [sys.executable, "-c", INTERRUPTED_AT_THE_END],
        capture_output=True,
        env=environment(),
        preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL),
    )
    assert (end.returncode, end.stderr) == (-signal.SIGINT, b"")
