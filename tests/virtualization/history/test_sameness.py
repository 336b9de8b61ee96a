"""A history that is computed at once is, to the bit, the one that is computed day by day."""

import types

import numpy as np
import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

from quorvane.functions.rotations._boilerplate import RotationBase
from quorvane.functions.rotations.latitudinal.rank import Rank
from quorvane.functions.rotations.longitudinal.ewma import Ewma
from quorvane.functions.rotations.numerical.transcendental import Transcendental
from quorvane.functions.rotations.virtualization.baskets import FixedBaskets
from quorvane.functions.rotations.virtualization.columns import StructureColumns
from quorvane.functions.rotations.virtualization.history import replay_history
from quorvane.functions.rotations.virtualization.planned import PlannedStructures
from support.histories import ByDays, both, leftovers, random_baskets, replayed, traced_peak

EXPRESSIONS = [
    "none", "ewma(20)", "rank", "zscore", "sigmoid", "ewma(20);rank", "rank;ewma(3)",
    "ewma(2);ewma(5);zscore;rank", "zscore;sigmoid;ewma(1)",
]  # fmt: skip


def prices(rng, days, instruments, missing=0.0, infinite=0.0):
    matrix = rng.normal(size=(days, instruments))
    matrix[rng.random(matrix.shape) < missing] = np.nan
    matrix[rng.random(matrix.shape) < infinite] = np.inf
    return matrix


def rotation_of(cls, baskets, names, expression, **options):
    return cls(baskets, names, transformation_expression=expression, **options)


@pytest.mark.parametrize("policy", ["proportional", "equal_split"])
@pytest.mark.parametrize("expression", EXPRESSIONS)
def test_every_chain_gives_the_same(expression, policy):
    rng = np.random.default_rng(1)
    baskets, names = random_baskets(rng, 13, 70, 4)
    for days in (1, 2, 9, 17, 18, 26, 200):
        matrix = prices(rng, days, 13, missing=0.1, infinite=0.01)
        at_once, by_days = both(
            lambda cls: rotation_of(cls, baskets, names, expression, unmap_policy=policy), matrix
        )
        assert at_once == by_days, days


@settings(max_examples=150, deadline=None)
@given(
    seed=st.integers(0, 2**32 - 1),
    days=st.integers(1, 90),
    instruments=st.integers(1, 24),
    baskets=st.integers(1, 140),
    legs=st.integers(1, 24),
    more_slots=st.integers(0, 9),
    more_columns=st.integers(0, 3),
    expression=st.sampled_from(EXPRESSIONS),
    policy=st.sampled_from(["proportional", "equal_split"]),
    missing=st.sampled_from([0.0, 0.1, 0.9, 1.0]),
    infinite=st.sampled_from([0.0, 0.05]),
    scale=st.sampled_from([1.0, 1e-300, 1e-308, 1e155, 1e308]),
    threads=st.integers(1, 3),
)
def test_random_histories_give_the_same(
    seed, days, instruments, baskets, legs, more_slots, more_columns, expression, policy, missing,
    infinite, scale, threads,
):  # fmt: skip
    rng = np.random.default_rng(seed)
    made, names = random_baskets(rng, instruments, baskets, min(legs, instruments))
    matrix = prices(rng, days, instruments + more_columns, missing, infinite)
    with np.errstate(over="ignore", under="ignore"):
        matrix[rng.random(days) < 0.2] *= scale
    options = {
        "unmap_policy": policy,
        "max_structures": baskets + more_slots,
        "N_alloc": instruments + more_columns,
    }
    with pytest.MonkeyPatch.context() as patch:
        patch.setenv("QUORVANE_NUM_THREADS", str(threads))
        at_once, by_days = both(
            lambda cls: rotation_of(cls, made, names, expression, **options), matrix
        )
    assert at_once == by_days


def some_baskets(count=40, instruments=11):
    return random_baskets(np.random.default_rng(5), instruments, count, 3)


LAYOUTS = {
    "in rows": lambda matrix: matrix,
    "in columns": np.asfortranarray,
    "backwards": lambda matrix: matrix[::-1, ::-1],
    "every second": lambda matrix: np.repeat(np.repeat(matrix, 2, axis=0), 2, axis=1)[::2, ::2],
    "one row for all days": lambda matrix: np.broadcast_to(matrix[0], matrix.shape),
    "float32": lambda matrix: matrix.astype(np.float32),
    "other bytes": lambda matrix: matrix.astype(">f8"),
    "lists": lambda matrix: matrix.tolist(),
    "read-only": lambda matrix: np.frombuffer(matrix.tobytes()).reshape(matrix.shape),
    "not aligned": lambda matrix: np.frombuffer(b"x" + matrix.tobytes(), offset=1).reshape(
        matrix.shape
    ),
}


@pytest.mark.parametrize("layout", LAYOUTS)
def test_a_matrix_may_lie_in_memory_as_it_likes(layout):
    matrix = LAYOUTS[layout](prices(np.random.default_rng(2), 60, 11, missing=0.1))
    baskets, names = some_baskets()
    at_once, by_days = both(lambda cls: rotation_of(cls, baskets, names, "ewma(9);rank"), matrix)
    assert at_once == by_days


UNIVERSES = {
    "everybody": np.ones((60, 11), dtype=np.uint8),
    "some": np.random.default_rng(3).random((60, 11)) < 0.8,
    "some as bytes": (np.random.default_rng(3).random((60, 11)) < 0.8).astype(np.uint8) * 7,
    "one row": np.array([1, 0, 1, 1, 1, 1, 1, 1, 1, 1, 0], dtype=bool),
    "more than there are": np.ones((61, 13), dtype=bool),
    "backwards": (np.random.default_rng(4).random((60, 22)) < 0.8)[::-1, ::-2],
    "as numbers": (np.random.default_rng(4).random((60, 11)) < 0.8).astype(float),
    "too few days": np.ones((30, 11), dtype=bool),
    "too few columns": np.ones((60, 10), dtype=bool),
    "nobody's": None,
}


@pytest.mark.parametrize("universe", UNIVERSES)
def test_whoever_is_left_out_is_missing(universe):
    matrix = prices(np.random.default_rng(2), 60, 11)
    baskets, names = some_baskets()
    context = types.SimpleNamespace(universe_mask=UNIVERSES[universe])
    at_once, by_days = both(
        lambda cls: rotation_of(cls, baskets, names, "ewma(9);rank"), matrix, context=context
    )
    assert at_once == by_days


def test_days_in_which_numpy_warns_are_those_days():
    """An overflow on some days, in the sums of one instrument, and infinite sums after it."""
    baskets = {f"b{i}": {"a": 1e300 * (i + 1), "b": -1e300} for i in range(5)}
    matrix = np.full((100, 2), 1e-300)
    matrix[[30, 31, 70]] = [[1e8, 1.0], [-1e8, 1.0], [1e8, -1e8]]
    for policy in ("proportional", "equal_split"):
        at_once, by_days = both(
            lambda cls, policy=policy: rotation_of(
                cls, baskets, ["a", "b"], "ewma(5)", unmap_policy=policy
            ),
            matrix,
        )
        assert at_once == by_days
        if policy == "proportional":
            assert at_once[1], "NumPy warned of nothing"


def test_a_history_stops_on_the_day_on_which_numpy_raises():
    baskets = {"x": {"a": 1e300}, "y": {"b": 1.0}}
    matrix = np.ones((100, 2))
    matrix[77, 0] = 1e8
    with np.errstate(all="raise"):
        at_once, by_days = both(
            lambda cls: rotation_of(cls, baskets, ["a", "b"], "ewma(5)"), matrix
        )
    assert at_once[0][0] == "raised"
    assert at_once == by_days


class NothingOverridden(FixedBaskets):
    _name = "nothing_overridden"
    note = "an attribute of its own"


@pytest.mark.parametrize("cls", [FixedBaskets, NothingOverridden])
@pytest.mark.parametrize("expression", EXPRESSIONS)
def test_a_history_is_computed_at_once(cls, expression):
    """Day by day, each day's output is an array that lives until all are stacked."""
    baskets, names = some_baskets(instruments=50)
    matrix = prices(np.random.default_rng(2), 2_000, 50, missing=0.1)
    assert traced_peak(rotation_of(cls, baskets, names, expression), matrix) < 1.5
    assert traced_peak(rotation_of(ByDays, baskets, names, expression), matrix) > 1.9


# What somebody has overridden or replaced is used


METHODS = [
    "__call__", "compute", "_refresh_active_structures", "basket_values", "_normalize_structure",
    "_slot_for_key", "_structure_is_valid", "_make_child_context", "_run_child_chain", "_unmap",
    "_record_trace",
]  # fmt: skip


def counting(name, owner, log):
    def method(self, *args, **options):
        log.append(name)
        return getattr(super(owner, self), name)(*args, **options)

    return method


@pytest.mark.parametrize("name", METHODS)
def test_an_overridden_method_sees_every_day(name):
    matrix = prices(np.random.default_rng(2), 50, 11, missing=0.1)
    baskets, names = some_baskets()
    log = []
    cls = type("Counting", (FixedBaskets,), {})
    setattr(cls, name, counting(name, cls, log))
    made = {cls: rotation_of(cls, baskets, names, "ewma(9);rank")}
    made[FixedBaskets] = rotation_of(FixedBaskets, baskets, names, "ewma(9);rank")
    assert replayed(made[cls], matrix) == replayed(made[FixedBaskets], matrix)
    assert len(log) >= len(matrix)


@pytest.mark.parametrize("name", [name for name in METHODS if name != "__call__"])
def test_a_method_of_the_instance_sees_every_day(name):
    matrix = prices(np.random.default_rng(2), 50, 11, missing=0.1)
    baskets, names = some_baskets()
    rotation = rotation_of(FixedBaskets, baskets, names, "ewma(9);rank")
    inherited, log = getattr(rotation, name), []

    def method(*args, **options):
        log.append(name)
        return inherited(*args, **options)

    setattr(rotation, name, method)
    output = rotation.batch_reference(matrix)
    assert len(log) >= len(matrix)
    plain = rotation_of(FixedBaskets, baskets, names, "ewma(9);rank")
    assert output.tobytes() == plain.batch_reference(matrix).tobytes()


@pytest.mark.parametrize("child", [Ewma, Rank, Transcendental])
@pytest.mark.parametrize("name", ["__call__", "compute"])
def test_an_overridden_method_of_a_child_sees_every_day(child, name):
    matrix = prices(np.random.default_rng(2), 50, 11, missing=0.1)
    baskets, names = some_baskets()
    log = []
    cls = type("Counting", (child,), {})
    setattr(cls, name, counting(name, cls, log))
    arguments = (9,) if child is Ewma else ()
    outputs = [
        rotation_of(
            FixedBaskets, baskets, names, "none", child_rotations=[made(*arguments, N_alloc=40)]
        ).batch_reference(matrix)
        for made in (cls, child)
    ]
    assert outputs[0].tobytes() == outputs[1].tobytes()
    assert len(log) == len(matrix)


def float32_output(rotation):
    rotation._output_buf = np.zeros(11, dtype=np.float32)


def float32_output_of_a_child(rotation):
    rotation.child_rotations[0]._output_buf = np.zeros(40, dtype=np.float32)


def a_slot_out_of_the_universe(rotation):
    rotation._txi_universe_row[3] = 0


def another_window(rotation):
    rotation.child_rotations[0].window = 2


def one_memory_for_two(rotation):
    rotation.child_rotations.append(Ewma(3, N_alloc=40))
    rotation.child_rotations[-1]._mean = rotation.child_rotations[0]._mean


def the_same_child_twice(rotation):
    rotation.child_rotations.append(rotation.child_rotations[0])


def a_python_child(rotation):
    rotation.child_rotations.append(lambda values, context: values * context.current_day_index)


def another_policy(rotation):
    rotation.unmap_policy = "equal_split"


def a_weight_that_is_not_finite(rotation):
    legs = rotation._legs_by_slot[0]
    rotation._legs_by_slot[0] = ((legs[0][0], np.inf), *legs[1:])


def a_leg_that_counts_from_the_end(rotation):
    rotation._legs_by_slot[40] = ((-1, 2.0),)


def legs_of_a_slot_that_nothing_reports(rotation):
    rotation.child_rotations[0]._mean[-1] = 3.0
    rotation._legs_by_slot[rotation.max_structures - 1] = ((2, 1.5),)


def fewer_instruments(rotation):
    rotation._instruments = rotation._instruments[:4]


def other_columns(rotation):
    rotation._columns = (
        some_baskets(7)[0]
        and FixedBaskets(
            some_baskets(7)[0], some_baskets(7)[1], transformation_expression="none"
        )._columns
    )


def a_trace(rotation):
    rotation.trace_sink = []


def a_universe_that_the_days_write_to(rotation):
    rotation._txi_universe_row = rotation.child_rotations[0]._nan_mask_bufs[0]


def masks_over_the_row(rotation):
    child = rotation.child_rotations[1]
    row = rotation._txi_input.view(np.uint8)
    child._nan_mask_bufs, child._combined_nan_buf = (row[:45],), row[45:90]


def a_row_that_is_part_of_another(rotation):
    rotation._txi_input = np.full(90, np.nan)[:45]


REPLACED = [
    float32_output, float32_output_of_a_child, a_slot_out_of_the_universe, another_window,
    one_memory_for_two, the_same_child_twice, a_python_child, another_policy,
    a_weight_that_is_not_finite, a_leg_that_counts_from_the_end,
    legs_of_a_slot_that_nothing_reports, fewer_instruments, other_columns, a_trace,
    a_universe_that_the_days_write_to, masks_over_the_row, a_row_that_is_part_of_another,
]  # fmt: skip


@pytest.mark.parametrize("replace", REPLACED)
def test_whatever_is_replaced_between_two_histories_counts(replace):
    matrix = prices(np.random.default_rng(2), 60, 11, missing=0.1)
    baskets, names = some_baskets()

    def played(cls):
        rotation = rotation_of(cls, baskets, names, "ewma(9);rank", max_structures=45)
        log = [replayed(rotation, matrix)]
        replace(rotation)
        log += [replayed(rotation, matrix), replayed(rotation, matrix[::-1])]
        return log

    assert played(FixedBaskets) == played(ByDays)


def test_a_matrix_that_is_the_rotations_own_memory_changes_as_it_is_read():
    baskets, names = some_baskets()

    def played(cls):
        matrix = prices(np.random.default_rng(2), 60, 11)
        rotation = rotation_of(cls, baskets, names, "ewma(9)")
        rotation._output_buf = matrix[40]
        return replayed(rotation, matrix), matrix.tobytes()

    assert played(FixedBaskets) == played(ByDays)


def test_a_matrix_inside_the_row_changes_as_it_is_read():
    baskets = {f"{i}": {"a": 1.0 + i, "b": -2.0 * i + 0.5} for i in range(128)}

    def played(cls):
        rotation = rotation_of(cls, baskets, ["a", "b"], "rank")
        rotation(np.ones(2))
        matrix = rotation._txi_input.reshape(64, 2)
        matrix[:] = np.random.default_rng(2).normal(size=(64, 2))
        return replayed(rotation, matrix)

    assert played(FixedBaskets) == played(ByDays)


@pytest.mark.parametrize("attribute", ["_n_alloc", "_current_parent_context", "_txi_output"])
def test_an_attribute_that_a_class_answers_for_is_asked_every_day(attribute):
    matrix = prices(np.random.default_rng(2), 50, 11)
    baskets, names = some_baskets()

    def played(cls):
        asked = []

        def answer(self):
            asked.append("get")
            return self.__dict__[attribute]

        def change(self, value):
            asked.append("set")
            self.__dict__[attribute] = value

        asking = type("Asking", (cls,), {attribute: property(answer, change)})
        return rotation_of(asking, baskets, names, "rank").batch_reference(matrix), asked

    (output, asked), (expected, asked_by_days) = played(FixedBaskets), played(ByDays)
    assert output.tobytes() == expected.tobytes()
    assert asked == asked_by_days


def test_a_call_that_a_class_between_answers_for_is_looked_up_every_day():
    matrix = prices(np.random.default_rng(2), 50, 11)
    baskets, names = some_baskets()
    asked = []

    class Call:
        def __get__(self, instance, owner):
            asked.append(instance)
            return RotationBase.__call__.__get__(instance, owner)

    class Between(RotationBase):
        __call__ = Call()

    class Mixed(FixedBaskets, Between):
        pass

    output = rotation_of(Mixed, baskets, names, "rank").batch_reference(matrix)
    plain = rotation_of(FixedBaskets, baskets, names, "rank").batch_reference(matrix)
    assert output.tobytes() == plain.tobytes()
    assert len(asked) == len(matrix)


def test_numpy_s_own_ones_may_be_replaced(monkeypatch):
    matrix = prices(np.random.default_rng(2), 50, 11)
    baskets, names = some_baskets()
    zeros = np.zeros
    monkeypatch.setattr(np, "ones", lambda shape, dtype: zeros(shape, dtype))
    outputs = [
        rotation_of(cls, baskets, names, "none").batch_reference(matrix)
        for cls in (FixedBaskets, ByDays)
    ]
    assert np.isnan(outputs[0]).all()
    assert outputs[0].tobytes() == outputs[1].tobytes()


def test_a_trace_sees_the_universe_as_it_is():
    baskets, names = some_baskets()

    class Sink(list):
        def append(self, record):
            mask = rotation._current_parent_context.universe_mask
            super().append((mask.shape, mask.strides, mask.flags.writeable))

    rotation = rotation_of(FixedBaskets, baskets, names, "none", trace_sink=Sink())
    rotation.batch_reference(np.ones((30, 11)))
    assert set(rotation.trace_sink) == {((30, 11), (11, 1), True)}


def test_memory_for_all_days_is_not_needed_before_they_end():
    """A progress that raises ends a history which could never have been kept."""
    baskets, names = some_baskets()
    matrix = np.broadcast_to(np.ones(11), (10**13, 11))

    def stop(done, days):
        raise StopIteration

    with pytest.raises(StopIteration):
        replay_history(
            rotation_of(FixedBaskets, baskets, names, "none"), matrix,
            universe_mask=np.ones(11, dtype=bool), progress=stop,
        )  # fmt: skip


@pytest.mark.parametrize("mask", [[1] * 10 + [0], np.arange(11), np.eye(11)[0] * 0.5])
def test_a_universe_of_numbers_is_one_of_zero_and_others(mask):
    matrix = prices(np.random.default_rng(2), 50, 11)
    baskets, names = some_baskets()
    context = types.SimpleNamespace(universe_mask=np.asarray(mask))
    expected = rotation_of(ByDays, baskets, names, "rank").batch_reference(matrix, context=context)
    output = replay_history(
        rotation_of(FixedBaskets, baskets, names, "rank"), matrix, universe_mask=mask
    )
    assert output.tobytes() == expected.tobytes()


# Structures that change on days that are known


class Planned(PlannedStructures):
    """Three reports by turns: the plan's columns hold from their day on."""

    def __init__(self, plan, instruments, **options):
        super().__init__(
            max_structures=60, N_alloc=len(instruments), transformation_expression="ewma(4);rank",
            **options,
        )  # fmt: skip
        self._instruments = tuple(instruments)
        self._columns = plan

    instruments = property(lambda self: self._instruments)


class PlannedByDays(Planned):
    def compute(self, *args):
        return super().compute(*args)


def columns_of(first, count):
    baskets, names = some_baskets(60)
    chosen = dict(list(baskets.items())[first : first + count])
    return FixedBaskets(chosen, names, transformation_expression="none")._columns


@pytest.mark.parametrize(
    "days", [(0,), (0, 50), (0, 1, 2, 3), (0, 20, 40, 41, 95), (0, 37, 60), (0, 99), (0, 200)]
)
def test_planned_structures_hold_from_their_day_on(days):
    names = some_baskets()[1]
    plan = tuple((day, columns_of(10 * i, 20)) for i, day in enumerate(days))
    matrix = prices(np.random.default_rng(2), 100, 11, missing=0.1)
    assert replayed(Planned(plan, names), matrix) == replayed(PlannedByDays(plan, names), matrix)


def columns_beyond_the_instruments():
    return StructureColumns(
        keys=[("far",)], offsets=[0, 1], leg_ids=[99], weights=[1.0], values=[np.nan]
    )


def columns_with_a_key_twice():
    return StructureColumns(
        keys=[("x",), ("x",)], offsets=[0, 1, 2], leg_ids=[0, 1], weights=[1.0, 2.0],
        values=[np.nan, np.nan],
    )  # fmt: skip


@pytest.mark.parametrize("odd", [columns_beyond_the_instruments, columns_with_a_key_twice])
def test_planned_structures_that_fail_or_are_odd_do_so_on_their_day(odd):
    names = some_baskets()[1]
    plan = ((0, columns_of(0, 20)), (50, odd()), (80, columns_of(30, 10)))
    matrix = prices(np.random.default_rng(2), 100, 11, missing=0.1)
    assert replayed(Planned(plan, names), matrix) == replayed(PlannedByDays(plan, names), matrix)


def test_a_day_before_the_plan_is_refused():
    names = some_baskets()[1]
    rotation = Planned(((3, columns_of(0, 5)),), names)
    with pytest.raises(ValueError, match="no structures for day 0, which is before the first day"):
        rotation.batch_reference(np.ones((9, 11)))


# Threads


@pytest.mark.parametrize("threads", ["1", "2", "3", "7"])
@pytest.mark.parametrize("expression", EXPRESSIONS)
def test_any_number_of_threads_gives_the_same(monkeypatch, expression, threads):
    rng = np.random.default_rng(8)
    baskets, names = random_baskets(rng, 30, 500, 4)
    matrix = prices(rng, 300, 30, missing=0.1)
    expected = replayed(rotation_of(FixedBaskets, baskets, names, expression), matrix)
    monkeypatch.setenv("QUORVANE_NUM_THREADS", threads)
    assert replayed(rotation_of(FixedBaskets, baskets, names, expression), matrix) == expected


@pytest.mark.parametrize("text", ["0", "-1", "two", "1.5", "257", " 2", "99999999999999999999"])
def test_a_number_of_threads_that_is_none_is_refused(monkeypatch, text):
    baskets, names = some_baskets()
    rotation = rotation_of(FixedBaskets, baskets, names, "none")
    before = leftovers(rotation)
    monkeypatch.setenv("QUORVANE_NUM_THREADS", text)
    with pytest.raises(ValueError, match="QUORVANE_NUM_THREADS must be a whole number from 1 to"):
        rotation.batch_reference(np.ones((3, 11)))
    assert leftovers(rotation) == before


def test_no_number_of_threads_is_one(monkeypatch):
    baskets, names = some_baskets()
    rotation = rotation_of(FixedBaskets, baskets, names, "none")
    monkeypatch.setenv("QUORVANE_NUM_THREADS", "")
    assert rotation.batch_reference(np.ones((3, 11))).shape == (3, 11)
