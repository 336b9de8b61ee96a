"""What a history meets while it is computed: signals, callbacks, other threads."""

import contextlib
import os
import signal
import subprocess
import sys
import textwrap
import threading
import time
import warnings
from pathlib import Path

import numpy as np
import pytest

from quorvane.functions.rotations.latitudinal.rank import Rank
from quorvane.functions.rotations.virtualization.baskets import FixedBaskets
from quorvane.functions.rotations.virtualization.history import replay_history
from support.histories import ByDays, leftovers, random_baskets

LONG = bool(os.environ.get("QUORVANE_LONG"))
DAYS, INSTRUMENTS, BASKETS = 30_000, 20, 500


@pytest.fixture(scope="module")
def long_matrix():
    return np.random.default_rng(1).normal(size=(DAYS, INSTRUMENTS))


def rotation_of(cls=FixedBaskets, expression="ewma(20);rank", **options):
    baskets, names = random_baskets(np.random.default_rng(2), INSTRUMENTS, BASKETS, 2)
    return cls(baskets, names, transformation_expression=expression, **options)


def days_so_far(rotation, matrix):
    """The number of days that the rotation has the state of, by the last day's values."""
    columns = rotation._columns
    return 1 + next(
        day
        for day in range(len(matrix))
        if np.array_equal(columns.weighted_sums(matrix[day]), rotation._txi_input)
    )


class Interrupted(Exception):
    pass


@pytest.mark.parametrize("threads", [1, 2])
def test_a_signal_ends_a_history_after_a_whole_number_of_days(long_matrix, threads):
    def interrupt(number, frame):
        raise Interrupted

    rotation = rotation_of()
    before = signal.signal(signal.SIGALRM, interrupt)
    try:
        signal.setitimer(signal.ITIMER_REAL, 0.01)
        with pytest.raises(Interrupted):
            replay_history(rotation, long_matrix, threads=threads)
    finally:
        signal.setitimer(signal.ITIMER_REAL, 0)
        signal.signal(signal.SIGALRM, before)
    days = days_so_far(rotation, long_matrix)
    assert 0 < days < DAYS
    expected = rotation_of()
    expected.batch_reference(long_matrix[:days])
    assert leftovers(rotation) == leftovers(expected)


def test_progress_is_told_in_days_that_rise_to_the_last(long_matrix):
    told = []
    began = time.monotonic()
    replay_history(rotation_of(), long_matrix, progress=lambda *days: told.append(days))
    taken = time.monotonic() - began
    done = [days for days, _ in told]
    assert {total for _, total in told} == {DAYS}
    assert done == sorted(set(done))
    assert done[-1] == DAYS
    assert len(told) <= taken * 20 + 1


def test_what_progress_changes_counts_from_the_next_day_on(long_matrix):
    changed = []

    def change(done, days):
        if not changed:
            changed.append(done)
            rotation.unmap_policy = "equal_split"

    rotation = rotation_of()
    output = replay_history(rotation, long_matrix, progress=change)
    expected = rotation_of()
    first = expected.batch_reference(long_matrix[: changed[0]])
    assert output[: changed[0]].tobytes() == first.tobytes()
    if changed[0] < DAYS:
        expected.unmap_policy = "equal_split"
        rest = expected.batch_reference(long_matrix[changed[0] :])
        assert output[changed[0] :].tobytes() == rest.tobytes()


@pytest.mark.parametrize("cls", [FixedBaskets, ByDays])
def test_what_progress_raises_ends_the_history(long_matrix, cls):
    def stop(done, days):
        raise Interrupted(done)

    rotation = rotation_of(cls)
    with pytest.raises(Interrupted) as raised:
        replay_history(rotation, long_matrix, progress=stop)
    assert days_so_far(rotation, long_matrix) == raised.value.args[0]


def test_a_matrix_that_progress_gives_another_form_counts_as_it_is_then():
    def read_as_integers(done, days):
        if not told:
            with warnings.catch_warnings():
                # NumPy 2.5 still allows it, and says that it should not be.
                warnings.simplefilter("ignore", DeprecationWarning)
                matrix.dtype = np.int64
        told.append(done)

    told = []
    matrix = np.random.default_rng(1).normal(size=(DAYS, INSTRUMENTS))
    numbers = matrix.copy()
    output = replay_history(rotation_of(), matrix, progress=read_as_integers)
    assert len(told) > 1
    numbers[told[0] :] = numbers[told[0] :].view(np.int64)
    expected = rotation_of().batch_reference(numbers)
    assert output.tobytes() == expected.tobytes()


def test_a_matrix_whose_memory_progress_takes_away_is_not_read():
    def take_away(done, days):
        matrix.__setstate__((1, (1, INSTRUMENTS), np.dtype("f8"), False, bytes(8 * INSTRUMENTS)))

    matrix = np.random.default_rng(1).normal(size=(DAYS, INSTRUMENTS))
    with pytest.raises(IndexError):
        replay_history(rotation_of(), matrix, progress=take_away)


FORKING = """
    import os
    import numpy as np
    from quorvane.functions.rotations.virtualization.baskets import FixedBaskets
    from quorvane.functions.rotations.virtualization.history import replay_history

    def rotation_of():
        names = [f"i{column}" for column in range(20)]
        pairs = {f"{i} {j}": {names[i]: 1.0, names[j]: -1.0} for i in range(20) for j in range(i)}
        return FixedBaskets(pairs, names, transformation_expression="ewma(20);rank")

    def fork(done, days):
        if not children:
            children.append(os.fork())

    children = []
    matrix = np.random.default_rng(1).normal(size=(40_000, 20))
    output = replay_history(rotation_of(), matrix, threads=2, progress=fork)
    same = output.tobytes() == rotation_of().batch_reference(matrix).tobytes()
    if children[0] == 0:
        os._exit(0 if same else 1)
    assert same and os.waitpid(children[0], 0)[1] == 0
"""


@pytest.mark.skipif(not hasattr(os, "fork"), reason="this system does not fork")
def test_progress_may_fork_the_history():
    """None of its threads is there to be warned of, or to be waited for in the new process."""
    alone = {**os.environ, "OPENBLAS_NUM_THREADS": "1"}
    script = [sys.executable, "-W", "error", "-c", textwrap.dedent(FORKING)]
    done = subprocess.run(script, env=alone, capture_output=True, text=True, check=False)
    assert (done.returncode, done.stderr) == (0, "")


FEWER_THREADS = """
    import resource
    import numpy as np
    from quorvane.functions.rotations.virtualization.baskets import FixedBaskets
    from quorvane.functions.rotations.virtualization.history import replay_history

    def played(threads):
        rotation = FixedBaskets({"x": {"a": 1.0}}, ["a"], transformation_expression="ewma(3);rank")
        return replay_history(rotation, matrix, threads=threads).tobytes()

    matrix = np.random.default_rng(1).normal(size=(500, 1))
    expected = played(1)
    with open("/proc/self/statm") as file:
        used = int(file.read().split()[0]) * resource.getpagesize()
    before = resource.getrlimit(resource.RLIMIT_AS)
    resource.setrlimit(resource.RLIMIT_AS, (used + 2**22, before[1]))
    output = played(8)
    resource.setrlimit(resource.RLIMIT_AS, before)
    assert output == expected
"""


@pytest.mark.skipif(not Path("/proc/self/statm").exists(), reason="does not tell of its memory")
@pytest.mark.skipif(
    "libasan" in os.environ.get("LD_PRELOAD", ""), reason="the sanitizer needs memory of its own"
)
def test_a_history_does_with_the_threads_that_it_can_have():
    """There is room for its numbers, and none for the stack of another thread."""
    alone = {**os.environ, "OPENBLAS_NUM_THREADS": "1"}
    script = [sys.executable, "-c", textwrap.dedent(FEWER_THREADS)]
    done = subprocess.run(script, env=alone, capture_output=True, text=True, check=False)
    assert (done.returncode, done.stderr) == (0, "")


def calls(rotation, matrix):
    rotation(matrix[0])


def restores(rotation, matrix):
    rotation.set_state(rotation.get_state())


def edits_the_tables(rotation, matrix):
    rotation._legs_by_slot[1] = ((0, 2.0),)
    rotation._metadata_by_slot[2]["note"] = 1
    rotation.slot_by_key = dict(rotation.slot_by_key)


def edits_the_children(rotation, matrix):
    rotation.child_rotations.append(Rank(N_alloc=BASKETS))
    rotation.child_rotations.pop()
    rotation.child_rotations[0].window = 7


def replaces_the_memory(rotation, matrix):
    child = rotation.child_rotations[0]
    child._mean, child._weight = child._mean.copy(), child._weight.copy()


def resizes_the_memory(rotation, matrix):
    child = rotation.child_rotations[0]
    child._mean.resize(3, refcheck=False)
    child._mean = np.full(BASKETS, np.nan)


def overrides_a_method(rotation, matrix):
    rotation.compute = rotation.compute
    del rotation.compute


def shortens_the_row(rotation, matrix):
    rotation._txi_input = np.zeros(1)
    rotation._txi_input = np.zeros(BASKETS)


# What either thread may be told of what the other does.
REFUSALS = (ValueError, LookupError, AttributeError, TypeError, RuntimeError)
HARM = [
    calls, restores, edits_the_tables, edits_the_children, replaces_the_memory,
    resizes_the_memory, overrides_a_method, shortens_the_row,
]  # fmt: skip


@pytest.mark.parametrize("threads", [1, 2])
@pytest.mark.parametrize("harm", HARM)
def test_another_thread_may_do_its_worst(harm, threads):
    """The numbers are then anybody's; nothing else is lost, and a new rotation's are right."""
    days = 12_000 if LONG else 5_000
    matrix = np.random.default_rng(1).normal(size=(days, INSTRUMENTS))
    rotation, over, done = rotation_of(), threading.Event(), []

    def act():
        while not over.is_set():
            with contextlib.suppress(*REFUSALS):
                harm(rotation, matrix)
            done.append(True)

    interval = sys.getswitchinterval()
    sys.setswitchinterval(1e-5)
    thread = threading.Thread(target=act)
    thread.start()
    try:
        for _ in range(3):
            with contextlib.suppress(*REFUSALS):
                output = replay_history(rotation, matrix, threads=threads)
                assert output.shape == matrix.shape
    finally:
        over.set()
        thread.join()
        sys.setswitchinterval(interval)
    assert done
    fresh, expected = rotation_of(), rotation_of(ByDays)
    output = fresh.batch_reference(matrix[:300])
    assert output.tobytes() == expected.batch_reference(matrix[:300]).tobytes()


def test_a_matrix_and_what_it_is_a_part_of_cannot_be_resized_meanwhile(long_matrix):
    whole = np.concatenate([long_matrix, long_matrix], axis=1)
    refused = []

    def resize(done, days):
        for array in (whole, matrix):
            with pytest.raises(ValueError, match="resize"):
                array.resize((2, 2), refcheck=False)
            refused.append(done)

    matrix = whole[:, :INSTRUMENTS]
    output = replay_history(rotation_of(), matrix, progress=resize)
    assert refused
    assert output.tobytes() == rotation_of().batch_reference(long_matrix).tobytes()


@pytest.mark.parametrize(
    ("options", "error", "text"),
    [
        ({"threads": 0}, ValueError, "threads must be a whole number from 1 to 256, got 0"),
        ({"threads": 257}, ValueError, "threads must be a whole number from 1 to 256, got 257"),
        ({"threads": 2.0}, TypeError, "threads must be an int or None, got 2.0"),
        ({"threads": True}, TypeError, "threads must be an int or None, got True"),
        ({"progress": 3}, TypeError, "progress must be callable or None, got 3"),
    ],
)
def test_options_that_are_none_are_refused(options, error, text):
    with pytest.raises(error, match=f"^{text}$"):
        replay_history(rotation_of(), np.ones((2, INSTRUMENTS)), **options)


def test_a_universe_is_handed_on():
    matrix = np.random.default_rng(1).normal(size=(60, INSTRUMENTS))
    universe = np.random.default_rng(3).random(matrix.shape) < 0.9
    left_out = np.where(universe, matrix, np.nan)
    output = replay_history(rotation_of(), matrix, universe_mask=universe.tolist())
    assert output.tobytes() == rotation_of().batch_reference(left_out).tobytes()
