"""What somebody has overridden or replaced is used in a history."""

import numpy as np
import pytest

from quorvane.functions.rotations._boilerplate import RotationBase
from quorvane.functions.rotations.latitudinal.rank import Rank
from quorvane.functions.rotations.longitudinal.ewma import Ewma
from quorvane.functions.rotations.numerical.transcendental import Transcendental
from quorvane.functions.rotations.virtualization.baskets import FixedBaskets
from support.histories import ByDays, replayed
from virtualization.history.at_once import prices, rotation_of, some_baskets

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
