"""Two replays at once, stopped at any moment or killed: the later one wins, the earlier says so.

QUORVANE_LONG=1 runs many more rounds.
"""

import os
import random
import shutil
import signal
import time
from dataclasses import dataclass, field
from pathlib import Path

import numpy as np
import pytest

from cli.replay_tasks import replay
from quorvane.cli.table import Dates, Table
from quorvane.cli.table_io import write_table
from support.preemption import preempt
from support.tasks import TaskServer, state_of

pytest.importorskip("msgpack")

ROUNDS = 130 if os.environ.get("QUORVANE_LONG") else 4
DAYS = 40
STRUCTURES = '["A/B"]\nA = 1.0\nB = -1.0\n[mix]\nA = 0.3\nC = 0.7\n[late]\nD = 1.0\n'
TAKEN_OVER = "another replay has taken the checkpoint over\n"
RUN_SECONDS = 0.15


@dataclass
class Wish:
    """What a process is to do, and what must come of it."""

    table: Path
    whole: dict = field(repr=False)
    flags: tuple = ()


@pytest.fixture(scope="module")
def replays():
    """Runs replays in processes of their own."""
    with TaskServer("cli.replay_tasks") as server:
        yield server


@pytest.fixture(scope="module")
def shared(tmp_path_factory):
    """A folder with two tables, and what comes of each when nobody disturbs the run."""
    folder = tmp_path_factory.mktemp("shared")
    (folder / "structures.toml").write_text(STRUCTURES)
    for seed, name in enumerate(("one", "two")):
        values = 100.0 * np.exp(np.random.default_rng(seed).normal(0.0, 0.02, (DAYS, 4)).cumsum(0))
        labels = tuple(f"day {day}" for day in range(DAYS))
        write_table(folder / f"{name}.csv", Table(values, tuple("ABCD"), Dates("Date", labels)))
        assert replay(arguments(folder, folder / f"{name}.csv", name, folder))["status"] == 0
    half = arguments(folder, folder / "one.csv", "half", folder, "--stop-after", "20")
    assert replay(half)["status"] == 0
    return folder


def arguments(shared, table, name, folder, *more, output=None):
    """The arguments of a replay with the checkpoint, the output and the trace of that name."""
    options = {
        "structures": shared / "structures.toml",
        "expression": "ewma(5);zscore",
        "output": output or folder / f"{name}.out.csv",
        "trace": folder / f"{name}.npz",
        "checkpoint": folder / f"{name}.db",
        "checkpoint-every": 3,
    }
    given = [text for name, value in options.items() for text in (f"--{name}", str(value))]
    return [str(table), *given, *more]


def wish(shared, table, *flags):
    whole = {
        "output": (shared / f"{table}.out.csv").read_bytes(),
        "trace": (shared / f"{table}.npz").read_bytes(),
    }
    return Wish(shared / f"{table}.csv", whole, flags)


@pytest.fixture
def start(replays, shared, tmp_path):
    """Start the replay that is wished, all with the same output."""

    def start(who, wish, *more, **options):
        given = arguments(shared, wish.table, who, tmp_path, output=tmp_path / "out.csv")
        given += [*wish.flags, *more]
        answer = str(tmp_path / f"{who}.json")
        return replays.start("replay", answer=answer, arguments=given, writer=who, **options)

    return start


@pytest.fixture
def ended(replays, tmp_path):
    """Wait for processes by name and return the outcomes of those that were not killed."""

    def ended(processes):
        outcomes = {}
        for who, process in processes.items():
            code, outcome = replays.outcome(process, tmp_path / f"{who}.json")
            assert code in (0, -signal.SIGKILL)
            if code == 0:
                outcomes[who] = outcome
        return outcomes

    return ended


@pytest.fixture
def at_once(start, ended):
    """Start two replays at random moments and preempt both; the outcomes of the survivors."""

    def at_once(generator, wishes, *more):
        processes = {}
        for who, wished in wishes.items():
            processes[who] = start(who, wished, *more)
            time.sleep(generator.uniform(0.0, RUN_SECONDS))
        preempt([*processes.values()], generator, longest_run=0.05, longest_stop=RUN_SECONDS)
        return ended(processes)

    return at_once


def owner_of(path):
    """Who took the checkpoint over last."""
    from quorvane.stores import SqliteStore

    return SqliteStore(path, namespace="quorvane replay").read("writer")


def assert_the_later_one_won(folder, wishes, outcomes):
    """Return the name of the run that has the checkpoint now, after a look at what all left."""
    owner = owner_of(folder / "c.db")
    assert owner in wishes or not outcomes
    for who, outcome in outcomes.items():
        trace = folder / f"{who}.npz"
        if outcome["status"] == 0:
            assert trace.read_bytes() == wishes[who].whole["trace"]
        else:
            assert who != owner
            assert outcome["status"] == 1
            assert outcome["err"] == f"quorvane replay: error: {folder / 'c.db'}: {TAKEN_OVER}"
            assert not trace.exists()
    if (folder / "out.csv").exists():
        left = (folder / "out.csv").read_bytes()
        assert left in [wished.whole["output"] for wished in wishes.values()]
        assert owner not in outcomes or left == wishes[owner].whole["output"]
    assert (folder / "out.csv").exists() or owner not in outcomes
    return owner


def assert_nothing_needs_mending(shared, folder, wished):
    """Whoever has the checkpoint can be resumed, and gives what it would have given alone."""
    resuming = arguments(shared, wished.table, "resumed", folder, "--resume")
    outcome = replay([*resuming, "--checkpoint", str(folder / "c.db")])
    assert outcome["status"] == 0, outcome
    assert (folder / "resumed.out.csv").read_bytes() == wished.whole["output"]
    assert (folder / "resumed.npz").read_bytes() == wished.whole["trace"]


KINDS = {
    "start and start": [("one", []), ("two", [])],
    "start and resume": [("one", []), ("one", ["--resume"])],
    "resume and resume": [("one", ["--resume"]), ("one", ["--resume"])],
}


@pytest.mark.parametrize("seed", range(ROUNDS))
@pytest.mark.parametrize("kind", KINDS.values(), ids=KINDS)
def test_of_two_runs_on_one_checkpoint_the_later_one_wins(shared, tmp_path, at_once, kind, seed):
    if kind[-1][1]:
        shutil.copy(shared / "half.db", tmp_path / "c.db")
    generator = random.Random(seed)
    wishes = {
        who: wish(shared, table, *flags)
        for who, (table, flags) in zip("ab", generator.sample(kind, 2), strict=True)
    }
    outcomes = at_once(generator, wishes, "--checkpoint", str(tmp_path / "c.db"))
    owner = assert_the_later_one_won(tmp_path, wishes, outcomes)
    assert_nothing_needs_mending(shared, tmp_path, wishes.get(owner, wishes["a"]))


@pytest.mark.parametrize("seed", range(ROUNDS))
def test_an_output_of_two_runs_is_one_of_theirs(shared, tmp_path, at_once, seed):
    wishes = {"a": wish(shared, "one"), "b": wish(shared, "two")}
    outcomes = at_once(random.Random(seed), wishes)
    assert [outcome["status"] for outcome in outcomes.values()] == [0] * len(outcomes)
    assert (tmp_path / "out.csv").exists() or not outcomes
    if (tmp_path / "out.csv").exists():
        left = (tmp_path / "out.csv").read_bytes()
        assert left in [wished.whole["output"] for wished in wishes.values()]


@pytest.mark.parametrize("seed", range(ROUNDS))
def test_a_run_that_is_killed_at_any_moment_is_resumed(shared, tmp_path, replays, start, seed):
    process = start("a", wish(shared, "one"), "--checkpoint", str(tmp_path / "c.db"))
    time.sleep(random.Random(seed).uniform(0.0, RUN_SECONDS / 2))
    replays.kill(process)
    assert_nothing_needs_mending(shared, tmp_path, wish(shared, "one"))


def wait_until(holds, seconds):
    """Wait until something holds, but not forever, and return whether it does."""
    end = time.monotonic() + seconds
    while not (held := holds()) and time.monotonic() < end:
        time.sleep(0.01)
    return held


@pytest.mark.parametrize("place", ["between check and write", "before an output takes its place"])
def test_a_run_that_is_stopped_at_its_worst_moment_overwrites_nothing(
    shared, tmp_path, start, ended, place
):
    wishes = {"a": wish(shared, "one"), "b": wish(shared, "two")}
    more = ["--checkpoint", str(tmp_path / "c.db")]
    processes = {"a": start("a", wishes["a"], *more, stop_at=place)}
    assert wait_until(lambda: state_of(processes["a"]) == "T", seconds=60)
    processes["b"] = start("b", wishes["b"], *more)
    # The later one either waits for the earlier one now, or is through with everything.
    wait_until(lambda: state_of(processes["b"]) == "Z", seconds=1)
    os.kill(processes["a"], signal.SIGCONT)
    outcomes = ended(processes)
    assert assert_the_later_one_won(tmp_path, wishes, outcomes) == "b"
    assert_nothing_needs_mending(shared, tmp_path, wishes["b"])
