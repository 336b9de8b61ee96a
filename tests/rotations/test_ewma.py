import copy
import pickle

import numpy as np
import pytest
from hypothesis import given
from hypothesis import strategies as st

from quorvane.functions.rotations.longitudinal.ewma import Ewma
from support.series import DELIBERATE_ROWS, random_rows, same_bits


def run(rotation, rows):
    return np.array([rotation(row) for row in rows]).reshape(np.shape(rows))


def by_the_rule(rows, window):
    """The recurrence in plain Python, one slot at a time."""
    f = 1.0 - 1.0 / (1.0 + (window - 1) / 2.0)
    out = np.empty_like(rows)
    for column in range(rows.shape[1]):
        m, W = np.nan, 1.0
        for day, x in enumerate(rows[:, column].tolist()):
            if not np.isnan(m):
                W *= f
            if np.isfinite(x):
                if np.isnan(m):
                    m = x
                else:
                    if m != x:
                        m = (W * m + x) / (W + 1.0)
                    W += 1.0
            out[day, column] = m
    return out


@pytest.mark.parametrize("window", [1, 2, 3, 20, 250, 10**6])
def test_is_pandas_ewm_to_the_bit(window):
    pandas = pytest.importorskip("pandas")
    for seed in range(30):
        rows = random_rows(seed, days=60, columns=23)
        frame = pandas.DataFrame(rows)
        expected = frame.ewm(span=window, adjust=True, ignore_na=False, min_periods=1).mean()
        assert same_bits(run(Ewma(window, N_alloc=23), rows), expected.to_numpy())


@pytest.mark.parametrize("window", [1, 7, 20])
def test_is_the_recurrence_to_the_bit(window):
    for seed in range(10):
        rows = random_rows(seed + 100, days=40, columns=9)
        assert same_bits(run(Ewma(window, N_alloc=9), rows), by_the_rule(rows, window))


@pytest.mark.parametrize("row", DELIBERATE_ROWS.values(), ids=DELIBERATE_ROWS.keys())
def test_deliberate_columns(row):
    rows = np.array(row, dtype=float).reshape(-1, 1)
    assert same_bits(run(Ewma(5, N_alloc=1), rows), by_the_rule(rows, 5))


def test_a_gap_ages_the_weights_and_holds_the_mean():
    ewma = Ewma(3, N_alloc=1)
    out = [float(ewma([x])[0]) for x in (8.0, np.nan, np.inf, 4.0)]
    assert out[:3] == [8.0, 8.0, 8.0]
    assert out[3] == (0.125 * 8.0 + 4.0) / 1.125


def test_columns_that_are_left_out_count_as_missing(make_context):
    out, left_out = Ewma(3, N_alloc=2), Ewma(3, N_alloc=2)
    mask = np.array([[1, 1], [1, 0], [1, 1]], dtype=np.uint8)
    for day, row in enumerate([[1.0, 2.0], [3.0, 4.0], [5.0, 6.0]]):
        expected = out([row[0], row[1] if mask[day, 1] else np.nan])
        assert same_bits(left_out(np.array(row), context=make_context(mask, day)), expected)


@pytest.mark.parametrize("N_alloc", [23, None])
def test_a_restored_state_goes_on_to_the_bit(N_alloc):
    rows = random_rows(7, days=50, columns=23)
    whole, first, second = (Ewma(20, N_alloc=N_alloc) for _ in range(3))
    expected = run(whole, rows)
    run(first, rows[:25])
    second.set_state(copy.deepcopy(first.get_state()))
    assert same_bits(run(second, rows[25:]), expected[25:])
    third = pickle.loads(pickle.dumps(first))
    assert same_bits(run(third, rows[25:]), expected[25:])


def test_the_state_is_a_copy_both_ways():
    ewma = Ewma(20, N_alloc=2)
    ewma([1.0, np.nan])
    state = ewma.get_state()
    assert set(state) == {"window", "mean", "weight"}
    assert state["window"] == 20
    assert same_bits(state["mean"], [1.0, np.nan])
    assert same_bits(state["weight"], [1.0, 1.0])
    ewma.set_state(state)
    state["mean"][:] = 99.0
    ewma([2.0, 2.0])
    assert same_bits(state["mean"], [99.0, 99.0])
    assert ewma.get_state()["mean"][1] == 2.0


def good_state(**changes):
    return {"window": 20, "mean": np.zeros(3), "weight": np.ones(3), **changes}


@pytest.mark.parametrize(
    ("state", "message"),
    [
        ([], "must be a dict with the keys"),
        ({}, "must be a dict with the keys"),
        ({"window": 20, "mean": np.zeros(3)}, "must be a dict with the keys"),
        (good_state(window=21), r"state\['window'\] must be the rotation's own window 20, got 21"),
        (good_state(window=20.0), r"own window 20, got 20\.0"),
        (good_state(mean=np.zeros(4)), r"state\['mean'\] must have shape \(3,\), got \(4,\)"),
        (good_state(weight=np.zeros((3, 1))), r"state\['weight'\] must have shape \(3,\)"),
        (good_state(weight=1.0), r"state\['weight'\] must have shape"),
        (good_state(mean="abc"), "could not convert"),
        *(
            (
                good_state(weight=np.array([1.0, weight, 1.0])),
                rf"state\['weight'\] must hold numbers from 0 to 2\*\*53, got {weight} at column 1",
            )
            for weight in (-0.5, 2.0**53 + 2, np.nan, np.inf, -np.inf)
        ),
    ],
)
def test_a_state_that_does_not_fit_changes_nothing(state, message):
    ewma = Ewma(20, N_alloc=3)
    ewma([1.0, 2.0, np.nan])
    before = ewma.get_state()
    with pytest.raises(ValueError, match=message):
        ewma.set_state(state)
    after = ewma.get_state()
    assert same_bits(after["mean"], before["mean"])
    assert same_bits(after["weight"], before["weight"])


@given(
    window=st.integers(1, 300),
    values=st.lists(st.floats(width=64), max_size=60),
    repeats=st.integers(1, 40),
)
def test_the_state_of_any_history_is_taken_back(window, values, repeats):
    ewma = Ewma(window, N_alloc=1)
    with np.errstate(all="ignore"):
        for value in values * repeats:
            ewma([value])
    state = ewma.get_state()
    other = Ewma(window, N_alloc=1)
    other.set_state(state)
    assert same_bits(other.get_state()["weight"], state["weight"])


def test_weights_of_long_histories_and_long_gaps_are_taken_back():
    for window in (1, 2, 3, 10**3, 10**6, 2**60, 10**300):
        ewma = Ewma(window, N_alloc=2)
        for day in range(5000):
            ewma([1.0, 1.0 if day < 2500 else np.nan])
        Ewma(window, N_alloc=2).set_state(ewma.get_state())


def test_a_state_is_taken_back_after_the_window_was_replaced():
    ewma = Ewma(300, N_alloc=1)
    for _ in range(2000):
        ewma([1.0])
    ewma.window = 2
    ewma.set_state(ewma.get_state())


def test_is_stateful():
    assert Ewma(2).stateful is True
    assert isinstance(Ewma.__dict__["stateful"], property)


@pytest.mark.parametrize("window", [True, 2.0, "20", None, np.int64(20)])
def test_a_window_of_another_type(window):
    with pytest.raises(TypeError, match=r"^window must be a positive int, got .* of type"):
        Ewma(window, N_alloc=1)


@pytest.mark.parametrize("window", [0, -1, -(10**30)])
def test_a_window_that_is_not_positive(window):
    with pytest.raises(ValueError, match=rf"^window must be a positive int, got {window}$"):
        Ewma(window, N_alloc=1)


def test_a_window_beyond_all_numbers():
    with pytest.raises(ValueError, match="below 2"):
        Ewma(10**400, N_alloc=1)


def test_a_window_that_was_replaced_is_checked_again():
    ewma = Ewma(20, N_alloc=1)
    ewma.window = 0
    with pytest.raises(ValueError, match="window must be a positive int, got 0"):
        ewma([1.0])
    ewma.window = 1
    assert ewma([5.0])[0] == 5.0


def test_resize_keeps_the_columns_that_stay():
    rows = random_rows(3, days=30, columns=6)
    ewma, narrow = Ewma(10, N_alloc=6), Ewma(10, N_alloc=4)
    run(ewma, rows[:15])
    run(narrow, rows[:15, :4])
    ewma.resize(4)
    assert same_bits(run(ewma, rows[15:, :4]), run(narrow, rows[15:, :4]))
    ewma.resize(6)
    out = ewma(np.full(6, 2.5))
    assert same_bits(out[4:], [2.5, 2.5])
    assert ewma.get_state()["mean"].shape == (6,)


@pytest.mark.parametrize(("size", "error"), [(0, ValueError), (True, TypeError), (2.0, TypeError)])
def test_a_bad_resize_changes_nothing(size, error):
    ewma = Ewma(10, N_alloc=2)
    ewma([1.0, 2.0])
    with pytest.raises(error, match="new_N_alloc must be a positive int"):
        ewma.resize(size)
    assert same_bits(ewma.get_state()["mean"], [1.0, 2.0])
    assert ewma._n_alloc == 2


def test_without_an_allocation_the_memory_grows_with_the_days():
    ewma = Ewma(3)
    ewma([1.0])
    assert same_bits(ewma([4.0, 2.0]), [(0.5 * 1.0 + 4.0) / 1.5, 2.0])
    assert same_bits(ewma([np.nan]), [(0.5 * 1.0 + 4.0) / 1.5])
    assert ewma([np.nan, np.nan])[1] == 2.0


@pytest.mark.parametrize(
    "memory",
    [
        np.zeros(2),
        np.zeros(6)[::2],
        np.zeros(3, dtype=np.float32),
        np.broadcast_to(0.0, 3),
        [0.0, 0.0, 0.0],
        None,
    ],
    ids=["short", "strided", "float32", "read-only", "list", "None"],
)
@pytest.mark.parametrize("name", ["_mean", "_weight"])
def test_a_replaced_memory_that_does_not_fit_is_refused(name, memory):
    ewma = Ewma(3, N_alloc=3)
    setattr(ewma, name, memory)
    with pytest.raises(ValueError, match="_mean and _weight must be writable, contiguous float64"):
        ewma([1.0, 2.0, 3.0])


def test_a_replaced_memory_that_fits_is_used():
    ewma = Ewma(3, N_alloc=2)
    ewma._mean = np.array([4.0, np.nan, 7.0])
    assert same_bits(ewma([1.0, 1.0]), [(0.5 * 4.0 + 1.0) / 1.5, 1.0])
    assert ewma._mean[2] == 7.0


def test_memory_that_is_also_input_or_output():
    ewma, plain = Ewma(3, N_alloc=2), Ewma(3, N_alloc=2)
    ewma([1.0, 2.0])
    plain([1.0, 2.0])
    expected = plain(plain._mean.copy())
    ewma._output_buf = ewma._mean
    assert same_bits(ewma(ewma._mean), expected)
    ewma._weight = ewma._mean
    with pytest.raises(ValueError, match="must not share memory"):
        ewma([1.0, 2.0])


def test_two_inputs_are_refused():
    with pytest.raises(TypeError, match="exactly one input is allowed, got 2"):
        Ewma(3, N_alloc=2)([1.0, 2.0], [1.0, 2.0])


def test_shows_its_window():
    assert repr(Ewma(20, N_alloc=5)) == "Ewma(window=20, N_alloc=5)"
    assert Ewma(20).parameters == {"window": 20}
    assert Ewma(20).window == 20
    assert (Ewma._name, Ewma.arity) == ("longitudinal_ewma_67301c", 1)


@pytest.mark.parametrize("name", ["_mean", "_weight"])
@pytest.mark.parametrize(
    "memory", [None, np.zeros(3, dtype=np.float32), np.zeros((3, 1))], ids=repr
)
def test_a_resize_of_a_memory_that_does_not_fit_is_refused_and_changes_nothing(name, memory):
    ewma = Ewma(3, N_alloc=3)
    setattr(ewma, name, memory)
    with pytest.raises(ValueError, match="_mean and _weight must be writable, contiguous float64"):
        ewma.resize(5)
    assert ewma._n_alloc == 3
    assert ewma._output_buf.shape == (3,)
    assert getattr(ewma, name) is memory


@pytest.mark.parametrize(
    ("allocated", "error", "text"),
    [
        (-1, ValueError, "_n_alloc must be None or at least 0, got -1"),
        (-7, ValueError, "_n_alloc must be None or at least 0, got -7"),
        ("3", TypeError, "an integer is required|expected int|cannot be interpreted"),
        (2**70, OverflowError, "too large"),
    ],
)
def test_a_base_that_allocates_otherwise(allocated, error, text):
    class Odd(Ewma):
        @property
        def _n_alloc(self):
            return allocated

        @_n_alloc.setter
        def _n_alloc(self, value):
            pass

    with pytest.raises(error, match=text):
        Odd(3, N_alloc=3)


def test_a_memory_that_an_assignment_cuts_short_is_refused():
    class Cutting(Ewma):
        def __setattr__(self, name, value):
            if name == "_mean" and len(value) == 4:
                value.resize(2, refcheck=False)
            super().__setattr__(name, value)

    ewma = Cutting(3)
    ewma([1.0, 2.0])
    with pytest.raises(ValueError, match="at least 4 entries"):
        ewma([1.0, 2.0, 3.0, 4.0])


@pytest.mark.parametrize("name", ["_mean", "_weight"])
@pytest.mark.parametrize("shared", ["input", "output", "both"])
def test_memory_may_lie_in_the_days_own_arrays(name, shared):
    plain, ewma = Ewma(3, N_alloc=2), Ewma(3, N_alloc=2)
    for each in (plain, ewma):
        each([1.0, 2.0])
    memory = getattr(ewma, name)
    values = memory if shared != "output" else np.array([4.0, 5.0])
    expected = plain(values.copy())
    output = memory if shared != "input" else np.empty(2)
    ewma.compute((values,), (), None, output, 2)
    assert same_bits(output, expected)


@pytest.mark.parametrize(
    ("values", "N", "error", "text"),
    [
        (np.zeros(2), 3, ValueError, r"one row of at least 3 columns, got shape \(2,\)"),
        (np.zeros((3, 3)), 3, ValueError, r"one row of at least 3 columns, got shape \(3, 3\)"),
        (5.0, 1, ValueError, r"one row of at least 1 columns, got shape \(\)"),
        ("text", 1, ValueError, "could not convert"),
        (np.zeros(2), "2", TypeError, "'str' object cannot be interpreted as an integer"),
        (np.zeros(2), 2**80, OverflowError, "cannot fit 'int' into an index-sized integer"),
        (np.zeros(2), -1, ValueError, "N must not be negative, got -1"),
    ],
    ids=repr,
)
def test_a_compute_that_is_given_no_day(values, N, error, text):
    ewma, output = Ewma(3, N_alloc=2), np.array([8.0, 9.0])
    before = ewma.get_state()
    with pytest.raises(error, match=text):
        ewma.compute((values,), (), None, output, N)
    assert output.tolist() == [8.0, 9.0]
    assert same_bits(ewma.get_state()["mean"], before["mean"])


@pytest.mark.parametrize(
    "values", [[1.0, 2.0, 9.0], (3, 4), np.arange(6.0)[::2], np.float32([1, 2])]
)
def test_a_compute_takes_any_row_and_its_first_columns(values):
    ewma, plain = Ewma(3, N_alloc=2), Ewma(3, N_alloc=2)
    output = np.full(3, 7.0)
    assert ewma.compute([values], (), None, output, 2) == 0
    assert same_bits(output[:2], plain(np.asarray(values, dtype=float)[:2]))
    assert output[2] == 7.0


@pytest.mark.parametrize("output", [np.zeros(3)[:2], np.zeros(6)[::3], np.zeros(2, np.float32)])
def test_a_compute_writes_to_any_output(output):
    ewma, plain = Ewma(3, N_alloc=2), Ewma(3, N_alloc=2)
    ewma.compute((np.array([1.5, 2.5]),), (), None, output, 2)
    assert same_bits(output.astype(float), plain([1.5, 2.5]))


@pytest.mark.parametrize("changed", ["input", "output"])
def test_an_array_that_changes_while_the_rotation_is_asked_is_refused(changed):
    values, output = np.zeros(2000), np.zeros(2000)

    class Odd(Ewma):
        def __getattribute__(self, name):
            if name == "_mean" and hunting:
                (values if changed == "input" else output).resize(3, refcheck=False)
            return super().__getattribute__(name)

    hunting = []
    ewma = Odd(3, N_alloc=2000)
    hunting.append(True)
    with pytest.raises(ValueError, match="an array of the day was changed during the call"):
        ewma.compute((values,), (), None, output, 2000)


@pytest.mark.parametrize("name", ["_mean", "_weight"])
def test_a_memory_that_is_none_cannot_grow(name):
    ewma = Ewma(3)
    setattr(ewma, name, None)
    with pytest.raises(ValueError, match="_mean and _weight must be writable, contiguous float64"):
        ewma([1.0, 2.0])
    assert getattr(ewma, name) is None


def test_a_resize_that_finds_no_room_changes_nothing():
    ewma, plain = Ewma(3, N_alloc=2), Ewma(3, N_alloc=2)
    for each in (ewma, plain):
        each([1.0, 2.0])
    with pytest.raises(MemoryError):
        ewma.resize(2**56)
    with pytest.raises(
        ValueError, match=f"new_N_alloc must be .* that fits in memory, got {2**62}"
    ):
        ewma.resize(2**62)
    ewma.set_state(ewma.get_state())
    assert same_bits(ewma([3.0, 4.0]), plain([3.0, 4.0]))


def read_only(size):
    array = np.zeros(size)
    array.flags.writeable = False
    return array


@pytest.mark.parametrize(
    "output", [read_only(2), None, np.zeros(1), np.zeros((2, 3)), "text"], ids=repr
)
def test_a_day_whose_output_is_refused_is_not_remembered(output):
    ewma = Ewma(3, N_alloc=2)
    ewma([1.0, 2.0])
    before = ewma.get_state()
    with pytest.raises((TypeError, ValueError)):
        ewma.compute((np.array([5.0, 6.0]),), (), None, output, 2)
    assert same_bits(ewma.get_state()["mean"], before["mean"])
    assert same_bits(ewma.get_state()["weight"], before["weight"])


@pytest.mark.parametrize(
    "spoil",
    [
        lambda ewma: ewma._mean.resize(0, refcheck=False),
        lambda ewma: ewma._weight.setflags(write=False),
    ],
    ids=["emptied", "closed"],
)
def test_an_output_that_spoils_the_memory_and_then_refuses_gets_its_own_error(spoil):
    class Refusing:
        def __setitem__(self, place, values):
            spoil(ewma)
            raise LookupError("refused")

    ewma = Ewma(3, N_alloc=2)
    ewma([1.0, 2.0])
    with pytest.raises(LookupError, match="refused"):
        ewma.compute((np.array([5.0, 6.0]),), (), None, Refusing(), 2)
