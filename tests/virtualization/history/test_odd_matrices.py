"""Odd structures, universes, matrices and outputs count in a history."""

import warnings

import numpy as np
import pytest

from quorvane.functions.rotations.numerical.transcendental import Transcendental
from quorvane.functions.rotations.virtualization.baskets import FixedBaskets
from quorvane.functions.rotations.virtualization.columns import StructureColumns
from quorvane.functions.rotations.virtualization.history import replay_history
from support import frozen
from support.histories import ByDays, both, leftovers
from virtualization.history.odd_rotations import (
    DAYS,
    INSTRUMENTS,
    SLOTS,
    played,
    prices,
    rotation_of,
)

# Structures


@pytest.mark.parametrize(
    ("leg_ids", "weights"),
    [([0, 1], [np.inf, 1.0]), ([0, 1], [np.nan, 1.0]), ([-1, 2], [1.0, 2.0])],
)
def test_columns_of_odd_weights_or_that_count_from_the_end(leg_ids, weights):
    odd = StructureColumns(
        keys=[("odd",)], offsets=[0, 2], leg_ids=leg_ids, weights=weights, values=[np.nan]
    )

    def play(cls):
        rotation = rotation_of(cls)
        rotation._columns = odd
        matrix = prices()
        with warnings.catch_warnings():
            warnings.simplefilter("ignore")
            ending = frozen.outcome(rotation.batch_reference, matrix)[:2]
        return ending, leftovers(rotation)

    assert play(FixedBaskets) == play(ByDays)


@pytest.mark.parametrize("legs", [((99, 1.0),), ((INSTRUMENTS, 1.0),), ((2, np.inf),)])
def test_legs_of_a_slot_without_a_value_are_of_no_use(legs):
    def change(rotation):
        rotation._legs_by_slot[SLOTS - 1] = legs

    assert played(FixedBaskets, change) == played(ByDays, change)


@pytest.mark.parametrize("threads", [1, 2, 3])
@pytest.mark.parametrize("slots", [100_000, 140_000, 300_000])
def test_slots_beyond_what_may_be_held_at_once(slots, threads):
    """The memory of a history does not grow with what it is given: fewer threads, or days."""
    matrix = prices(19)

    def play(cls):
        rotation = rotation_of(cls, max_structures=slots, child_rotations=[])
        return replay_history(rotation, matrix, threads=threads).tobytes()

    assert play(FixedBaskets) == play(ByDays)


def test_outputs_beyond_what_an_array_may_have_are_not_missed_before_they_end():
    """A progress that raises ends a history which could never have been kept."""
    matrix = np.broadcast_to(np.ones(INSTRUMENTS), (10**17, INSTRUMENTS))

    def stop(done, count):
        raise StopIteration

    with pytest.raises(StopIteration):
        replay_history(
            rotation_of(FixedBaskets), matrix, universe_mask=np.ones(INSTRUMENTS, dtype=bool),
            progress=stop, level="structure",
        )  # fmt: skip


# Universes and matrices


@pytest.mark.parametrize(
    "universe", [np.ones((), bool), np.ones((DAYS, INSTRUMENTS, 1), bool), np.ones(0, bool)]
)
def test_a_universe_of_too_few_or_too_many_axes_is_that_of_its_days(universe):
    context = type("Context", (), {"universe_mask": universe})
    at_once, by_days = both(rotation_of, prices(), context=context)
    assert at_once == by_days


@pytest.mark.parametrize("form", [">f8", "<i8", "<f4"])
def test_a_matrix_that_a_day_gives_another_form_counts_as_it_is_then(form):
    def play(cls):
        matrix = prices()

        def change(rotation):
            with warnings.catch_warnings():
                # NumPy 2.5 still allows it, and says that it should not be.
                warnings.simplefilter("ignore", DeprecationWarning)
                matrix.dtype = form

        return played(cls, change, matrix)

    assert play(FixedBaskets) == play(ByDays)


@pytest.mark.parametrize("place", [None, *range(5)])
@pytest.mark.parametrize("buffer", ["_output_buf", "_combined_nan_buf", "_nan_mask_bufs"])
def test_buffers_in_the_matrix_are_written_as_its_days_are_read(buffer, place):
    def play(cls):
        matrix = np.vstack([prices(), np.zeros((10, INSTRUMENTS))])
        memory = matrix.reshape(-1)[DAYS * INSTRUMENTS :]

        def change(rotation):
            owner = rotation if place is None else rotation.child_rotations[place]
            width = INSTRUMENTS if place is None else SLOTS
            parts = {
                "_output_buf": memory[:width],
                "_combined_nan_buf": memory.view(np.uint8)[:width],
                "_nan_mask_bufs": (memory.view(np.uint8)[:width],),
            }
            setattr(owner, buffer, parts[buffer])

        return played(cls, change, matrix), matrix.tobytes()

    assert play(FixedBaskets) == play(ByDays)


@pytest.mark.parametrize("buffer", ["_output_buf", "_combined_nan_buf", "_nan_mask_bufs"])
def test_a_matrix_in_a_buffer_is_written_as_its_days_are_read(buffer):
    """The other way round: the buffer owns the memory, and the matrix is a view of it."""
    kind = float if buffer == "_output_buf" else np.uint8
    size = DAYS * INSTRUMENTS * (1 if kind is float else 8)
    if buffer == "_nan_mask_bufs":
        size = INSTRUMENTS

    def play(cls):
        memory = np.zeros(size, dtype=kind)
        count = size * memory.itemsize // (8 * INSTRUMENTS)
        whole = prices()
        if count:
            memory.view(float)[: count * INSTRUMENTS] = prices(count).reshape(-1)
            whole = memory.view(float)[: count * INSTRUMENTS].reshape(count, INSTRUMENTS)
        else:
            whole = np.ndarray((DAYS, 1), float, memory, strides=(0, 8))
            whole = np.broadcast_to(whole, (DAYS, INSTRUMENTS))

        def change(rotation):
            setattr(rotation, buffer, (memory,) if buffer == "_nan_mask_bufs" else memory)

        return played(cls, change, whole), memory.tobytes()

    assert play(FixedBaskets) == play(ByDays)


# Outputs


def of_another_kind(cls, kind):
    """A class whose first output is of another kind; its instance is then one of `cls`."""

    class Odd(cls):
        def __call__(self, *inputs, **options):
            output = super().__call__(*inputs, **options)
            self.__class__ = cls
            return kind(output)

    return Odd


ROWS = {
    "float32": lambda row: row.astype(np.float32),
    "list": lambda row: row.tolist(),
    "wider": lambda row: np.append(row, 1.0),
    "strided": lambda row: np.repeat(row, 2)[::2],
    "complex": lambda row: row + 1j,
    "text": lambda row: row.astype("U30"),
    "none": lambda row: None,
}


@pytest.mark.parametrize("kind", ROWS)
def test_a_first_output_of_another_kind_is_stacked_with_the_others(kind):
    matrix = prices()

    def play(cls):
        rotation = rotation_of(of_another_kind(cls, ROWS[kind]))
        return frozen.outcome(rotation.batch_reference, matrix)[:2]

    assert play(FixedBaskets) == play(ByDays)


class OnOverflow:
    """What NumPy calls when it overflows; the first time it acts."""

    def __init__(self, act):
        self.act = act

    def __call__(self, *what):
        act, self.act = self.act, None
        if act is not None:
            act()


STEEP = {"x": {"a": 1e10}, "y": {"a": 1e10, "b": 1.0}}


def with_an_act_on(day, cls, act, count=700, **options):
    """Replay days that are computed at once up to one that overflows, where `act(...)` is called.

    It is given the rotation and the matrix.
    """
    matrix = np.linspace(0.0, 1.0, 2 * count).reshape(count, 2)
    # Its cube is a number, and twice the cube none.
    matrix[day] = 5.5e92, 1.0
    rotation = cls(
        STEEP, ["a", "b"], N_alloc=4, transformation_expression="none",
        child_rotations=[Transcendental(function="cube", N_alloc=9)],
    )  # fmt: skip
    acting = OnOverflow(lambda: act(rotation, matrix))
    with np.errstate(over="call", call=acting):
        ending = frozen.outcome(replay_history, rotation, matrix, **options)[:2]
    assert acting.act is None, "nothing overflowed"
    return ending


@pytest.mark.parametrize("day", [600, 699])
@pytest.mark.parametrize("kind", ROWS)
def test_a_later_output_of_another_kind_is_stacked_with_the_others(kind, day):
    def play(cls):
        def act(rotation, matrix):
            rotation.__class__ = of_another_kind(cls, ROWS[kind])

        return with_an_act_on(day, cls, act)

    assert play(FixedBaskets) == play(ByDays)


@pytest.mark.parametrize("day", [0, 600, 699])
def test_a_stack_that_somebody_replaces_meanwhile_is_used(monkeypatch, day):
    stack, stacked = np.vstack, []

    def own_stack(rows, *args, **options):
        stacked.append(len(list(rows)))
        return stack(rows, *args, **options) + 1.0

    def play(cls):
        with monkeypatch.context() as patch:
            return with_an_act_on(day, cls, lambda *_: patch.setattr(np, "vstack", own_stack))

    assert play(FixedBaskets) == play(ByDays)
    assert stacked == [700, 700]


@pytest.mark.parametrize("day", [100, 600])
def test_slots_that_change_meanwhile_are_those_of_their_days(day):
    def act(rotation, matrix):
        rotation.max_structures += 1
        rotation._txi_input = np.full(rotation.max_structures, np.nan)
        rotation._txi_universe_row = np.ones(rotation.max_structures, np.uint8)
        rotation._metadata_by_slot.append({"active": False})

    assert with_an_act_on(day, FixedBaskets, act) == with_an_act_on(day, ByDays, act)


@pytest.mark.parametrize("day", [600, 1024])
@pytest.mark.parametrize("shape", [(1200, 3), (1200, 4), (1200, 1), (1000, 2), (1500, 2)])
def test_a_matrix_that_a_day_gives_another_shape_counts_as_it_is_then(shape, day):
    def act(rotation, matrix):
        memory = np.arange(float(np.prod(shape))).tobytes()
        matrix.__setstate__((1, shape, np.dtype("f8"), False, memory))
        # As if the rotation had been called with such a row before.
        rotation._nan_mask_bufs = (np.zeros(shape[1], dtype=np.uint8),)

    everybody = np.ones(4, dtype=bool)
    outcomes = [
        with_an_act_on(day, cls, act, 1200, universe_mask=everybody)
        for cls in (FixedBaskets, ByDays)
    ]
    assert outcomes[0] == outcomes[1]


def test_a_stack_that_is_replaced_after_the_last_day_is_used(monkeypatch):
    stack, matrix = np.vstack, prices()

    def play(cls):
        with monkeypatch.context() as patch:

            def replace(done, count):
                if done == count:
                    patch.setattr(np, "vstack", lambda rows: stack(rows) + 1.0)

            return replay_history(rotation_of(cls), matrix, progress=replace)

    at_once, by_days = play(FixedBaskets), play(ByDays)
    assert at_once.tobytes() == by_days.tobytes()
    plain = replay_history(rotation_of(ByDays), matrix) + 1.0
    assert at_once.tobytes() == plain.tobytes()


def test_a_matrix_that_a_day_gives_another_form_has_the_error_of_that_day():
    def play(cls):
        matrix = np.ones((DAYS, 1))

        class Flattening(cls):
            def __call__(self, *args, **options):
                output = super().__call__(*args, **options)
                self.__class__ = cls
                matrix.shape = (DAYS,)
                return output

        rotation = Flattening({"x": {"a": 1.0}}, ["a"], transformation_expression="none")
        return frozen.outcome(rotation.batch_reference, matrix)[:2]

    assert play(FixedBaskets) == play(ByDays)
