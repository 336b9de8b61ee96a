"""Paired timing: both sides in turn, in one process, and the ratio of each pair.

What two runs on a shared machine have in common (frequency, neighbours, memory layout) they have
in common within a pair, so the ratios of pairs scatter less than the times do. Time is CPU time of
the process by default: on a busy machine the slow side would otherwise be charged for its waiting
and the fast side would not.
"""

import concurrent.futures
import contextlib
import gc
import itertools
import multiprocessing
import statistics
import time
from collections.abc import Callable, Sequence
from dataclasses import dataclass, field
from functools import partial

CLOCKS = {"cpu": time.process_time_ns, "wall": time.perf_counter_ns}


@dataclass
class Settings:
    """How long to measure: one comparison, and within it one turn of one side."""

    clock: str = "cpu"
    collect_garbage: bool = False
    max_pairs: int = 21
    min_pairs: int = 5
    compare_seconds: float = 8.0
    block_seconds: float = 0.02
    max_calls: int = 100
    clock_cost: float = field(init=False, default=0.0)

    def __post_init__(self):
        read = CLOCKS[self.clock]
        costs = [-read() + read() for _ in range(2001)]
        self.clock_cost = statistics.median(costs) * 1e-9


@dataclass
class Side:
    """One of the two things compared: `prepare` is not timed, `call` is. Either may be changed."""

    call: Callable[[], object]
    prepare: Callable[[], object] = lambda: None


def over_days(days, call):
    """A side that goes through the days again and again."""
    following = itertools.cycle(days)
    day = days[0]

    def prepare():
        nonlocal day
        day = next(following)

    return Side(lambda: call(day), prepare)


@dataclass
class Comparison:
    """Median ratio of all pairs with its quartiles, and the median times in seconds.

    `compare` divides the peer's time by ours, `cost` ours by the peer's.
    """

    ratio: float
    low: float
    high: float
    ours: float
    peer: float
    pairs: int


def compare(ours: Side, peer: Side, settings: Settings) -> Comparison:
    """How many times as long the peer takes, timed in turn."""
    times = in_turn((ours, peer), settings)
    our_time, peer_time = medians(times)
    return summary([slow / fast for fast, slow in times], our_time, peer_time)


def cost(ours: Side, peer: Side, settings: Settings) -> Comparison:
    """How many times as long as the peer we take, timed in turn."""
    return _cost_of(in_turn((ours, peer), settings))


def _cost_of(times):
    our_time, peer_time = medians(times)
    return summary([mine / other for mine, other in times], our_time, peer_time)


def in_turn(sides: Sequence[Side], settings: Settings) -> list[tuple[float, ...]]:
    """Seconds of one call of each side, in as many turns as the settings' time allows.

    Who begins changes from turn to turn.
    """
    with _garbage_collection(settings.collect_garbage):
        calibrated = [_calibrated(side, settings) for side in sides]
        expected = sum(seconds for _, seconds in calibrated)
        blocks = [
            partial(_block, side, calls, settings)
            for side, (calls, _) in zip(sides, calibrated, strict=True)
        ]
        return [_turn(blocks, i % len(sides)) for i in range(_turns(expected, settings))]


def medians(times: list[tuple[float, ...]]) -> list[float]:
    """The median of each side's times."""
    return [statistics.median(column) for column in zip(*times, strict=True)]


def summary(ratios: list[float], ours: float, peer: float) -> Comparison:
    """The comparison with these ratios, one of each turn."""
    low, middle, high = statistics.quantiles(ratios, n=4, method="inclusive")
    return Comparison(middle, low, high, ours, peer, len(ratios))


def in_new_process(measure, *arguments):
    """Return what the function returns in a fresh process, whose heap nothing has scattered yet."""
    fresh = multiprocessing.get_context("spawn")
    with concurrent.futures.ProcessPoolExecutor(max_workers=1, mp_context=fresh) as process:
        return process.submit(measure, *arguments).result()


def cost_apart(make_ours, make_peer, settings: Settings) -> Comparison:
    """`cost` of the sides that these functions make, each in a process of its own."""
    return _cost_of(in_turn_apart((make_ours, make_peer), settings))


def in_turn_apart(makers: Sequence[Callable[[], Side]], settings: Settings):
    """`in_turn` of sides of which each is made and called in a process of its own.

    Neither lies better in memory for being made first, nor has to do with what the other's calls
    have left of the heap.
    """
    with contextlib.ExitStack() as running:
        workers = [running.enter_context(_worker(make, settings)) for make in makers]
        expected = sum(worker.recv() for worker in workers)
        turns = [i % len(workers) for i in range(_turns(expected, settings))]
        return [_turn([partial(_ask, worker) for worker in workers], first) for first in turns]


def _ask(worker):
    worker.send("turn")
    return worker.recv()


@contextlib.contextmanager
def _worker(make, settings):
    """A process that makes a side, says what a turn takes, and takes one whenever it is asked."""
    fresh = multiprocessing.get_context("spawn")
    ours, its = fresh.Pipe()
    process = fresh.Process(target=_work, args=(its, make, settings))
    process.start()
    # So that nobody waits for an answer when it has ended with an error.
    its.close()
    try:
        yield ours
    finally:
        ours.close()
        process.join()


def _work(connection, make, settings):
    side = make()
    # When nobody asks any more, it is done.
    done = contextlib.suppress(EOFError, BrokenPipeError)
    with _garbage_collection(settings.collect_garbage), done:
        calls, expected = _calibrated(side, settings)
        connection.send(expected)
        while connection.recv():
            connection.send(_block(side, calls, settings))


def _calibrated(side, settings):
    """How many calls a turn has, and the seconds that it takes."""
    seconds = _block(side, 3, settings)
    calls = _calls(seconds, settings)
    return calls, calls * seconds


def _turns(expected, settings):
    turns = int(settings.compare_seconds / max(expected, 1e-9))
    return min(max(turns, settings.min_pairs), settings.max_pairs)


def _turn(blocks, beginner):
    """What every block returns, in the blocks' order, whichever begins."""
    order = [*range(beginner, len(blocks)), *range(beginner)]
    times = {i: blocks[i]() for i in order}
    return tuple(times[i] for i in range(len(blocks)))


def _block(side, calls, settings):
    """Median seconds of one call over a turn of `calls` calls."""
    read, prepare, call = CLOCKS[settings.clock], side.prepare, side.call
    times = []
    for _ in range(calls):
        prepare()
        start = read()
        call()
        times.append(read() - start)
    return max(statistics.median(times) * 1e-9 - settings.clock_cost, 1e-9)


def _calls(seconds, settings):
    return min(max(int(settings.block_seconds / seconds), 1), settings.max_calls)


@contextlib.contextmanager
def _garbage_collection(wanted):
    """Collect once, then leave the collector on or off while it lasts."""
    was_enabled = gc.isenabled()
    gc.collect()
    if not wanted:
        gc.disable()
    try:
        yield
    finally:
        if was_enabled:
            gc.enable()
