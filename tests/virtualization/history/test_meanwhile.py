"""What another thread changes in a rotation while many of its days are computed at once.

The days at hand are then computed one by one, with what the rotation is by now. Where the change is
none of the numbers', the history is, to the bit, that of a rotation which nobody touched.
"""

import sys
import threading

import numpy as np
import pytest

from quorvane.functions.rotations.latitudinal.rank import Rank
from quorvane.functions.rotations.longitudinal.ewma import Ewma
from quorvane.functions.rotations.virtualization import base
from quorvane.functions.rotations.virtualization.attendance import Attendance, Gate
from quorvane.functions.rotations.virtualization.baskets import FixedBaskets
from quorvane.functions.rotations.virtualization.history import replay_history
from support.histories import random_baskets

DAYS, INSTRUMENTS, BASKETS = 1_000, 20, 200
NAMED_BASKETS, NAMES = random_baskets(np.random.default_rng(2), INSTRUMENTS, BASKETS, 2)


def rotation_of():
    """A rotation and children whose classes are nobody else's."""

    def own(cls):
        return type(cls.__name__, (cls,), {})

    attendance = own(Attendance)(1, N_alloc=BASKETS)
    children = [
        attendance,
        own(Ewma)(20, N_alloc=BASKETS),
        own(Gate)(attendance, N_alloc=BASKETS),
        own(Rank)(N_alloc=BASKETS),
    ]
    return own(FixedBaskets)(
        NAMED_BASKETS, NAMES, transformation_expression="none", child_rotations=children
    )


def memory_of(rotation):
    """What the children remember, to the bit."""
    attendance, ewma = rotation.child_rotations[:2]
    return [array.tobytes() for array in (attendance._silent_days, ewma._mean, ewma._weight)]


@pytest.fixture(scope="module")
def matrix():
    rng = np.random.default_rng(1)
    matrix = rng.normal(size=(DAYS, INSTRUMENTS))
    matrix[rng.random(matrix.shape) < 0.1] = np.nan
    return matrix


@pytest.fixture(scope="module")
def untouched(matrix):
    """The output and what the children then remember, when nobody touches anything."""
    rotation = rotation_of()
    return replay_history(rotation, matrix), memory_of(rotation)


def replayed_meanwhile(rotation, matrix, change):
    """The history, during which another thread changes the rotation.

    Nobody takes the interpreter from the history: the thread has it when the history lets go of it,
    which it does where many days are computed at once.
    """

    def act():
        told.wait()
        change(rotation)

    told = threading.Event()
    thread = threading.Thread(target=act)
    thread.start()
    interval = sys.getswitchinterval()
    sys.setswitchinterval(60.0)
    try:
        told.set()
        return replay_history(rotation, matrix)
    finally:
        sys.setswitchinterval(interval)
        thread.join()


def becomes_of_another_class(owner):
    owner.__class__ = type("Same", (type(owner),), {})


def gives_its_class_an_attribute(owner):
    type(owner).note = 1


def gets_a_key_that_is_no_text(owner):
    vars(owner)[1] = 2


def gets_a_compute_of_its_own(owner):
    owner.compute = owner.compute


def copies(name):
    def copy(owner):
        setattr(owner, name, getattr(owner, name).copy())

    copy.__name__ = f"copies {name}"
    return copy


def gets_a_step_of_its_own(rotation):
    rotation._slot_for_key = rotation._slot_for_key


def makes_a_leg_anew(rotation):
    rotation._legs_by_slot[0] = (*rotation._legs_by_slot[0],)


def gets_another_child_of_the_same_kind(rotation):
    rotation.child_rotations[-1] = Rank(N_alloc=BASKETS)


def ranks_the_ranks(rotation):
    rotation.child_rotations.append(Rank(N_alloc=BASKETS))


def is_traced(rotation):
    class Nowhere(list):
        def append(self, record):
            pass

    rotation.trace_sink = Nowhere()


OF_ANYBODY = [
    becomes_of_another_class, gives_its_class_an_attribute, gets_a_key_that_is_no_text,
    gets_a_compute_of_its_own,
]  # fmt: skip
OF_THE_ROTATION = [
    *OF_ANYBODY, gets_a_step_of_its_own, makes_a_leg_anew, gets_another_child_of_the_same_kind,
    ranks_the_ranks, is_traced, copies("child_rotations"), copies("_txi_input"),
    copies("_legs_by_slot"),
]  # fmt: skip
OF_A_CHILD = [
    *[(place, change) for place in range(4) for change in OF_ANYBODY],
    (0, copies("_silent_days")),
    (1, copies("_mean")),
    (1, copies("_weight")),
]


@pytest.mark.parametrize("change", OF_THE_ROTATION)
def test_a_change_of_no_number_changes_no_number(matrix, untouched, change):
    rotation = rotation_of()
    output = replayed_meanwhile(rotation, matrix, change)
    assert output.tobytes() == untouched[0].tobytes()
    assert memory_of(rotation) == untouched[1]


@pytest.mark.parametrize(("place", "change"), OF_A_CHILD)
def test_a_change_of_no_number_in_a_child_changes_no_number(matrix, untouched, place, change):
    rotation = rotation_of()
    output = replayed_meanwhile(
        rotation, matrix, lambda rotation: change(rotation.child_rotations[place])
    )
    assert output.tobytes() == untouched[0].tobytes()
    assert memory_of(rotation) == untouched[1]


@pytest.mark.parametrize("name", ["_VirtualContext", "_AllOnesVirtualMask"])
def test_contexts_of_another_class_change_no_number(matrix, untouched, monkeypatch, name):
    another = type("Another", (getattr(base, name),), {})
    rotation = rotation_of()
    output = replayed_meanwhile(
        rotation, matrix, lambda _: monkeypatch.setattr(base, name, another)
    )
    assert output.tobytes() == untouched[0].tobytes()
    assert memory_of(rotation) == untouched[1]


def cannot_be_written(array):
    array.flags.writeable = False


def gets_shorter(array):
    array.resize(3, refcheck=False)


@pytest.mark.parametrize("spoil", [cannot_be_written, gets_shorter])
@pytest.mark.parametrize(("place", "name"), [(0, "_silent_days"), (1, "_mean"), (1, "_weight")])
def test_memory_that_is_spoilt_ends_the_history_on_a_whole_day(place, name, spoil):
    """What is left of it is that of the days before the one that failed."""
    # Long enough for the other thread to wake up.
    matrix = np.random.default_rng(3).normal(size=(40 * DAYS, INSTRUMENTS))
    rotation = rotation_of()
    with pytest.raises(ValueError, match=f"{name}.* must be (a )?writable, contiguous"):
        replayed_meanwhile(
            rotation, matrix, lambda rotation: spoil(getattr(rotation.child_rotations[place], name))
        )
    failed = next(
        day
        for day in range(len(matrix))
        if np.array_equal(
            rotation._columns.weighted_sums(matrix[day]), rotation._txi_input, equal_nan=True
        )
    )
    expected = rotation_of()
    expected.batch_reference(matrix[:failed])
    left, array = (getattr(each.child_rotations[place], name) for each in (rotation, expected))
    assert left.tobytes() == array[: len(left)].tobytes()
