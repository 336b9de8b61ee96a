"""Who speaks: a count of silent days, gates that shut the others out, and both in a history."""

import gc
import sys

import numpy as np
import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

from quorvane.functions.rotations.latitudinal.rank import Rank
from quorvane.functions.rotations.longitudinal.ewma import Ewma
from quorvane.functions.rotations.virtualization.attendance import Attendance, Gate
from quorvane.functions.rotations.virtualization.baskets import FixedBaskets
from quorvane.functions.rotations.virtualization.history import replay_history
from support.histories import ByDays, random_baskets

nan = np.nan
HOLDS = [0, 1, 3, None, 10**400]


def chain_of(hold, slots, gate=Gate):
    attendance = Attendance(hold, N_alloc=slots)
    return [
        attendance,
        Ewma(5, N_alloc=slots),
        gate(attendance, N_alloc=slots),
        Rank(N_alloc=slots),
        gate(attendance, N_alloc=slots),
    ]


def rotation_of(cls, hold, baskets, names, gate=Gate):
    children = chain_of(hold, len(baskets), gate)
    return cls(baskets, names, transformation_expression="none", child_rotations=children)


def prices(rng, days, instruments, missing):
    matrix = rng.normal(size=(days, instruments))
    matrix[rng.random(matrix.shape) < missing] = nan
    return matrix


def bits(array):
    return array.view(np.int64).tolist()


@pytest.mark.parametrize("hold", HOLDS, ids=["0", "1", "3", "None", "huge"])
def test_a_column_speaks_while_it_has_a_value_and_so_many_days_after(hold):
    attendance = Attendance(hold, N_alloc=3)
    gate = Gate(attendance, N_alloc=3)
    silent = [None, None, None]
    rng = np.random.default_rng(4)
    for _ in range(40):
        row = np.where(rng.random(3) < 0.7, nan, rng.normal(size=3))
        row[2] = nan
        assert bits(attendance(row)) == bits(row)
        for i, value in enumerate(row):
            if value == value:
                silent[i] = 0
            elif silent[i] is not None:
                silent[i] += 1
        speaks = [days is not None and (hold is None or days <= hold) for days in silent]
        assert attendance.speaking().tolist() == speaks
        through = gate(np.ones(3))
        expected = [hold is None or speaking for speaking in speaks]
        assert (through == 1.0).tolist() == expected
        assert np.isnan(through).tolist() == [not passes for passes in expected]


@settings(max_examples=60, deadline=None)
@given(
    seed=st.integers(0, 2**32 - 1),
    days=st.integers(1, 120),
    slots=st.integers(1, 40),
    hold=st.sampled_from(HOLDS),
    missing=st.sampled_from([0.0, 0.2, 0.9, 1.0]),
    threads=st.integers(1, 3),
    level=st.sampled_from(["instrument", "structure"]),
)
def test_a_history_with_gates_is_that_of_its_days(seed, days, slots, hold, missing, threads, level):
    rng = np.random.default_rng(seed)
    baskets, names = random_baskets(rng, 7, slots, 3)
    matrix = prices(rng, days, 7, missing)
    at_once = rotation_of(FixedBaskets, hold, baskets, names)
    by_days = rotation_of(ByDays, hold, baskets, names)
    history = replay_history(at_once, matrix, threads=threads, level=level)
    assert bits(history) == bits(replay_history(by_days, matrix, level=level))
    assert by_days.seen_days == days
    for mine, other in zip(at_once.child_rotations, by_days.child_rotations, strict=True):
        assert_same_memory(mine, other)


def assert_same_memory(mine, other):
    for name in ("_silent_days", "_mean", "_weight", "_output_buf"):
        if hasattr(mine, name):
            assert bits(getattr(mine, name)) == bits(getattr(other, name)), name


def test_structures_are_what_left_the_children():
    rng = np.random.default_rng(5)
    baskets, names = random_baskets(rng, 7, 12, 3)
    matrix = prices(rng, 50, 7, 0.2)
    history = replay_history(
        rotation_of(FixedBaskets, 0, baskets, names), matrix, level="structure"
    )
    one_by_one = rotation_of(FixedBaskets, 0, baskets, names)
    for row, day in zip(matrix, history, strict=True):
        one_by_one(row)
        assert bits(one_by_one._txi_output) == bits(day)


def test_a_level_that_is_none_is_refused():
    rotation = rotation_of(FixedBaskets, 0, {"x": {"a": 1.0}}, ["a"])
    with pytest.raises(ValueError, match="level must be one of instrument, structure, got 'slot'"):
        replay_history(rotation, np.ones((2, 1)), level="slot")


@pytest.mark.parametrize("place", range(5))
def test_an_overridden_child_gives_the_same_history(place):
    rng = np.random.default_rng(6)
    baskets, names = random_baskets(rng, 7, 12, 3)
    matrix = prices(rng, 60, 7, 0.3)
    rotation = rotation_of(FixedBaskets, 1, baskets, names)
    child, seen = rotation.child_rotations[place], []

    class Same(type(child)):
        def compute(self, *args):
            seen.append(1)
            return super().compute(*args)

    child.__class__ = Same
    plain = rotation_of(FixedBaskets, 1, baskets, names)
    assert bits(replay_history(rotation, matrix)) == bits(replay_history(plain, matrix))
    assert len(seen) == 60


def test_a_gate_that_goes_by_somebody_outside_the_chain_is_computed_day_by_day():
    rng = np.random.default_rng(7)
    baskets, names = random_baskets(rng, 7, 12, 3)
    matrix = prices(rng, 60, 7, 0.3)
    outputs = []
    for cls in (FixedBaskets, ByDays):
        rotation = rotation_of(cls, 0, baskets, names)
        outsider = Attendance(0, N_alloc=12)
        outsider(np.where(np.arange(12) % 2 == 0, 1.0, nan))
        rotation.child_rotations[2].attendance = outsider
        outputs.append(bits(replay_history(rotation, matrix)))
    assert outputs[0] == outputs[1]


def test_a_state_goes_from_one_to_another():
    rng = np.random.default_rng(8)
    baskets, names = random_baskets(rng, 7, 12, 3)
    matrix = prices(rng, 60, 7, 0.3)
    whole = replay_history(rotation_of(FixedBaskets, 2, baskets, names), matrix)
    first, second = (rotation_of(FixedBaskets, 2, baskets, names) for _ in range(2))
    replay_history(first, matrix[:31])
    second.set_state(first.get_state())
    assert bits(replay_history(second, matrix[31:])) == bits(whole[31:])


@pytest.mark.parametrize(
    ("state", "message"),
    [
        (None, "must be a dict with the keys 'hold' and 'silent_days', got None"),
        ({"hold": 1}, "must be a dict with the keys"),
        ({"hold": 2, "silent_days": np.zeros(3)}, "hold must be 1, got 2"),
        ({"hold": 1, "silent_days": np.zeros(2)}, r"must have shape \(3,\), got \(2,\)"),
        ({"hold": 1, "silent_days": -np.ones(3)}, "must not be negative"),
    ],
)
def test_a_state_of_something_else_is_refused_and_changes_nothing(state, message):
    attendance = Attendance(1, N_alloc=3)
    attendance(np.array([1.0, nan, 1.0]))
    before = attendance.silent_days
    with pytest.raises(ValueError, match=message):
        attendance.set_state(state)
    assert bits(attendance.silent_days) == bits(before)


def test_resizing_keeps_the_count_of_those_that_stay():
    attendance = Attendance(1, N_alloc=2)
    attendance(np.array([1.0, 1.0]))
    attendance(np.array([nan, 1.0]))
    attendance.resize(4)
    assert attendance.silent_days[:2].tolist() == [1.0, 0.0]
    assert np.isnan(attendance.silent_days[2:]).all()
    attendance.resize(1)
    assert attendance.silent_days.tolist() == [1.0]


def test_what_is_forgotten_never_spoke():
    attendance = Attendance(3, N_alloc=3)
    attendance(np.ones(3))
    attendance.forget([0, 2])
    assert attendance.speaking().tolist() == [False, True, False]


@pytest.mark.parametrize(
    ("hold", "error"), [(-1, ValueError), (1.0, TypeError), (True, TypeError), ("1", TypeError)]
)
def test_a_hold_is_none_or_an_int_from_0_on(hold, error):
    with pytest.raises(error, match="hold must be None or an int from 0 on, got"):
        Attendance(hold, N_alloc=3)


@pytest.mark.parametrize("array", [None, np.zeros(2), np.zeros(3, np.float32), np.zeros(6)[::2]])
def test_a_count_without_room_for_the_day_is_refused(array):
    attendance = Attendance(0, N_alloc=3)
    gate = Gate(attendance, N_alloc=3)
    attendance._silent_days = array
    for rotation in (attendance, gate):
        with pytest.raises(ValueError, match="_silent_days must be a writable, contiguous"):
            rotation(np.ones(3))


def test_a_day_whose_output_is_refused_is_not_counted():
    class Refusing:
        def __setitem__(self, key, value):
            raise LookupError("refused")

    attendance = Attendance(0, N_alloc=2)
    with pytest.raises(LookupError, match="refused"):
        attendance.compute((np.ones(2),), (), None, Refusing(), 2)
    assert np.isnan(attendance.silent_days).all()


@pytest.mark.parametrize("slots", [[-1], [0, 3], ["x"], [0.0]])
def test_an_average_forgets_only_slots_that_it_has(slots):
    ewma = Ewma(3, N_alloc=3)
    ewma(np.ones(3))
    with pytest.raises((IndexError, TypeError)):
        ewma.forget(slots)
    assert ewma.get_state()["mean"].tolist() == [1.0, 1.0, 1.0]


def test_a_forgotten_average_begins_anew():
    ewma, fresh = Ewma(3, N_alloc=2), Ewma(3, N_alloc=2)
    ewma(np.array([1.0, 5.0]))
    ewma.forget([1])
    fresh(np.array([1.0, nan]))
    assert bits(ewma.get_state()["weight"]) == bits(fresh.get_state()["weight"])
    assert bits(ewma(np.array([2.0, 7.0]))) == bits(fresh(np.array([2.0, 7.0])))


@pytest.mark.parametrize("name", ["_mean", "_weight"])
@pytest.mark.parametrize("spoilt", [None, np.zeros(3, np.float32), np.zeros(6)[::2]])
def test_an_average_without_its_memory_forgets_nothing(name, spoilt):
    ewma = Ewma(3, N_alloc=3)
    setattr(ewma, name, spoilt)
    with pytest.raises(ValueError, match="_mean and _weight must be writable, contiguous"):
        ewma.forget([0])


@pytest.mark.parametrize("name", ["_mean", "_weight"])
@pytest.mark.parametrize("spoilt", [None, np.zeros(1)])
def test_an_average_whose_memory_goes_as_it_is_told_what_to_forget_says_so(name, spoilt):
    class Slot:
        def __index__(self):
            setattr(ewma, name, spoilt)
            return 1

    ewma = Ewma(3, N_alloc=3)
    with pytest.raises(ValueError, match="float64 arrays of at least 2 entries"):
        ewma.forget([Slot()])


@pytest.mark.usefixtures("all_collected")
@pytest.mark.parametrize("cls", [Attendance, Gate])
def test_the_module_tells_the_collector_of_what_it_holds(cls):
    module = sys.modules["quorvane.functions.rotations.virtualization._attendance"]
    assert any(holder is module for holder in gc.get_referrers(type(cls.compute)))
