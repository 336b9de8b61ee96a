"""What is done to a memory behind its rotation's back is used or refused, and never harms."""

import contextlib

import numpy as np
import pytest

from quorvane.functions.rotations.longitudinal.exponential import ExponentialStd
from quorvane.functions.rotations.longitudinal.past_values import Delay, Diff
from quorvane.functions.rotations.longitudinal.rolling import RollingMean, RollingStd, RollingZScore
from support.series import random_rows, same_bits

COLUMNS = 6
MAKERS = {
    "mean": lambda: RollingMean(4, 1, N_alloc=COLUMNS),
    "distance": lambda: RollingZScore(4, 1, N_alloc=COLUMNS),
    "exponential": lambda: ExponentialStd(0.9, N_alloc=COLUMNS),
    "delay": lambda: Delay(4, N_alloc=COLUMNS),
}
EVERY = pytest.mark.parametrize("make", MAKERS.values(), ids=MAKERS.keys())
UNUSABLE = "_memory, _derived and _position must be arrays that belong to one another"
NAMES = ["_memory", "_derived", "_position"]
ROW = np.arange(float(COLUMNS))


def same_memories(left, right):
    return all(same_bits(getattr(left, name), getattr(right, name)) for name in NAMES)


def with_days(make, count=3):
    rotation = make()
    for row in random_rows(1, days=count, columns=COLUMNS):
        rotation(row)
    return rotation


# By the size that would fit.
REPLACEMENTS = {
    "short": lambda size: np.zeros(abs(size - 1)),
    "long": lambda size: np.zeros(size + 1),
    "strided": lambda size: np.zeros((size + 2) * 2)[::2],
    "misaligned": lambda size: np.zeros(8 * size + 9, np.uint8)[1:-8].view(np.float64),
    "float32": lambda size: np.zeros(size, np.float32),
    "other bytes": lambda size: np.zeros(size, ">f8"),
    "read-only": lambda size: np.broadcast_to(0.0, size),
    "in rows": lambda size: np.zeros((1, size)),
    "list": lambda size: [0.0] * size,
    "None": lambda size: None,
}


@pytest.mark.parametrize("replace", REPLACEMENTS.values(), ids=REPLACEMENTS.keys())
@pytest.mark.parametrize("name", NAMES)
@EVERY
def test_a_replaced_array_that_does_not_fit_is_refused(make, name, replace):
    rotation = with_days(make)
    replaced = replace(getattr(rotation, name).size)
    if isinstance(replaced, np.ndarray) and (replaced.size, replaced.ndim) == (0, 1):
        replaced = None  # nothing is where nothing belongs
    setattr(rotation, name, replaced)
    with pytest.raises(ValueError, match=UNUSABLE):
        rotation(ROW)
    with pytest.raises(ValueError, match=UNUSABLE):
        rotation._derive(0, 1)


@pytest.mark.parametrize("position", [-1.0, 4.0, np.nan, np.inf, -np.inf, 1e300])
@EVERY
def test_a_position_outside_the_window_is_refused(make, position):
    rotation = with_days(make)
    rotation._position[0] = position
    with pytest.raises(ValueError, match=UNUSABLE):
        rotation(ROW)


@pytest.mark.parametrize("name", NAMES)
@EVERY
def test_an_attribute_that_was_deleted_is_missed(make, name):
    rotation = with_days(make)
    delattr(rotation, name)
    with pytest.raises(AttributeError, match=name):
        rotation(ROW)


@EVERY
def test_a_replaced_memory_that_fits_is_used(make):
    rotation, other = with_days(make), with_days(make, 2)
    for name in NAMES:
        setattr(other, name, getattr(rotation, name).copy())
    assert same_bits(rotation(ROW), other(ROW))
    assert same_memories(rotation, other)


@EVERY
def test_arrays_that_share_their_memory_are_refused(make):
    rotation = with_days(make)
    rotation._position = rotation._memory[:1]
    rotation._memory[0] = 0.0
    with pytest.raises(ValueError, match=UNUSABLE):
        rotation(ROW)
    if len(rotation._derived):
        rotation = with_days(make)
        shared = np.zeros(len(rotation._memory) + len(rotation._derived) - 1)
        rotation._memory = shared[: len(rotation._memory)]
        rotation._derived = shared[len(rotation._memory) - 1 :]
        with pytest.raises(ValueError, match=UNUSABLE):
            rotation(ROW)


@pytest.mark.parametrize("name", NAMES[:2])
@EVERY
def test_a_memory_that_is_the_input_is_read_as_it_was(make, name):
    rotation, plain = with_days(make), with_days(make)
    if len(getattr(rotation, name)) < COLUMNS:
        return
    row = getattr(rotation, name)[:COLUMNS]
    expected = plain(row.copy())
    assert same_bits(rotation(row), expected)
    assert same_memories(rotation, plain)


@EVERY
def test_a_memory_that_is_the_output_remembers_in_the_end(make):
    rotation, plain = with_days(make), with_days(make)
    plain(ROW)
    assert rotation.compute((ROW,), None, None, rotation._memory[:COLUMNS], COLUMNS) == 0
    assert same_memories(rotation, plain)


@pytest.mark.parametrize("window", [3, 5, 8, 10**6])
@pytest.mark.parametrize("cls", [RollingMean, RollingStd, RollingZScore, Delay, Diff])
def test_a_window_that_was_replaced_does_not_fit_the_memory(cls, window):
    rotation = cls(4, N_alloc=COLUMNS)
    rotation(ROW)
    name = "days" if cls in (Delay, Diff) else "window"
    for given in (window, 2):
        setattr(rotation, name, given)
        with pytest.raises(ValueError, match=UNUSABLE):
            rotation(ROW)
    setattr(rotation, name, 0)
    with pytest.raises(ValueError, match=f"^{name} must be an int from"):
        rotation(ROW)
    setattr(rotation, name, 4)
    assert rotation(ROW).shape == (COLUMNS,)


def test_the_fewest_numbers_may_be_replaced():
    rotation = RollingMean(4, N_alloc=1)
    assert np.isnan(rotation([1.0]))
    rotation.min_periods = 1
    assert rotation([3.0]) == 2.0


@EVERY
def test_a_number_of_columns_that_was_replaced_does_not_fit_the_memory(make):
    for allocated in (COLUMNS - 1, COLUMNS + 1, 2 * COLUMNS, 0, -1, 2**62, None, 6.0):
        rotation = with_days(make)
        rotation._n_alloc = allocated
        with pytest.raises(ValueError, match=UNUSABLE):
            rotation.compute((ROW,), None, None, np.zeros(COLUMNS), COLUMNS)


@EVERY
def test_an_empty_memory_of_a_long_window_is_refused_at_once(make):
    rotation = with_days(make)
    for name in ("window", "days"):
        setattr(rotation, name, 10**6)
    rotation._memory = rotation._derived = np.empty(0)
    with pytest.raises(ValueError, match=UNUSABLE):
        rotation.compute((ROW,), None, None, ROW.copy(), 0)


@EVERY
def test_a_day_has_at_most_as_many_columns_as_there_is_memory_for(make):
    rotation, plain = with_days(make), with_days(make)
    wide = np.ones(COLUMNS + 1)
    with pytest.raises(ValueError, match=UNUSABLE):
        rotation.compute((wide,), None, None, wide.copy(), COLUMNS + 1)
    with pytest.raises(ValueError, match="N must not be negative, got -1"):
        rotation.compute((wide,), None, None, wide.copy(), -1)
    assert same_memories(rotation, plain)


@EVERY
def test_what_follows_is_made_anew_only_for_columns_that_are_there(make):
    rotation = with_days(make)
    for first, last in ((0, COLUMNS + 1), (0, 2**40), (COLUMNS + 1, COLUMNS + 1)):
        with pytest.raises(ValueError, match=rf"must be an int from 0 to {COLUMNS}, got"):
            rotation._derive(first, last)
    with pytest.raises(ValueError, match="last must be an int from 3 to"):
        rotation._derive(3, 2)
    with pytest.raises(ValueError, match="first must be an int from 0 to"):
        rotation._derive(-1, 2)
    rotation._derive(COLUMNS, COLUMNS)


# ---- others' code in the middle of a day --------------------------------------------------------


class Refusing:
    """An output that runs `change` and then takes nothing."""

    def __init__(self, change=lambda: None):
        self.change = change

    def __setitem__(self, key, value):
        self.change()
        raise KeyError("refused")


@EVERY
def test_a_day_whose_output_is_refused_is_not_remembered(make):
    rotation, plain = with_days(make), with_days(make)
    read_only = np.zeros(COLUMNS)
    read_only.flags.writeable = False
    for output in (Refusing(), np.zeros(COLUMNS - 1), read_only, None, ()):
        with pytest.raises((KeyError, ValueError, TypeError)):
            rotation.compute((ROW,), None, None, output, COLUMNS)
        assert same_memories(rotation, plain)
    assert same_bits(rotation(ROW), plain(ROW))


class Meddling(Refusing):
    """The same, but nothing is refused."""

    def __setitem__(self, key, value):
        self.change()
        self.value = value.copy()


@contextlib.contextmanager
def refused_or_not():
    """Lets a memory be refused, and nothing else."""
    try:
        yield
    except ValueError as error:
        if UNUSABLE not in str(error):
            raise


CHANGES = {
    "resize": lambda rotation: rotation.resize(2 * COLUMNS),
    "narrow": lambda rotation: rotation.resize(1),
    "no memory": lambda rotation: setattr(rotation, "_memory", None),
    "short memory": lambda rotation: rotation._memory.resize(3, refcheck=False),
    "another day": lambda rotation: rotation(ROW),
    "forget": lambda rotation: rotation.forget([0, 1]),
    "read-only": lambda rotation: setattr(rotation._memory.flags, "writeable", False),
    "bad position": lambda rotation: rotation._position.fill(np.nan),
}


@pytest.mark.parametrize("change", CHANGES.values(), ids=CHANGES.keys())
@EVERY
def test_an_output_that_changes_the_rotation_does_no_harm(make, change):
    rotation, expected = with_days(make), with_days(make)(ROW)
    output = Meddling(lambda: change(rotation))
    with refused_or_not():
        rotation.compute((ROW,), None, None, output, COLUMNS)
    assert same_bits(output.value, expected)


@pytest.mark.parametrize("change", CHANGES.values(), ids=CHANGES.keys())
@EVERY
def test_an_input_that_changes_the_rotation_does_no_harm(make, change):
    rotation = with_days(make)

    class Input:
        def __array__(self, dtype=None, copy=None):
            change(rotation)
            return ROW.copy()

    with refused_or_not():
        rotation.compute((Input(),), None, None, np.zeros(COLUMNS), COLUMNS)


@EVERY
def test_a_number_of_threads_that_is_none_is_refused_before_anything_is_remembered(
    make, monkeypatch
):
    rotation = make()
    rotation.resize(100_000)
    before = rotation.get_state()
    monkeypatch.setenv("QUORVANE_NUM_THREADS", "no")
    with pytest.raises(ValueError, match="QUORVANE_NUM_THREADS must be a whole number"):
        rotation(np.ones(100_000))
    after = rotation.get_state()
    assert before["position"] == after["position"]
    assert same_bits(before["memory"], after["memory"])


@EVERY
def test_threads_change_no_number_of_a_row(make, monkeypatch):
    rows = np.random.default_rng(1).normal(size=(6, 100_003))
    rows[np.random.default_rng(2).random(rows.shape) < 0.1] = np.nan
    outputs = []
    for threads in ("1", "2", "5"):
        monkeypatch.setenv("QUORVANE_NUM_THREADS", threads)
        rotation = make()
        rotation.resize(100_003)
        outputs.append([rotation(row).tobytes() for row in rows])
    assert outputs[1:] == outputs[:1] * 2
