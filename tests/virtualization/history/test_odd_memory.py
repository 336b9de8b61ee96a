"""Odd things found in a rotation or its children count in a history as they do day by day."""

import warnings

import numpy as np
import pytest

from quorvane.functions.rotations.longitudinal.ewma import Ewma
from quorvane.functions.rotations.virtualization.baskets import FixedBaskets
from support.histories import ByDays
from virtualization.history.odd_rotations import SLOTS, played


class Text(str):
    __slots__ = ()


class Whole(int):
    pass


class Array(np.ndarray):
    pass


def strided_by_nothing(array):
    with warnings.catch_warnings():
        # NumPy 2.4 still allows it, and says that it should not be.
        warnings.simplefilter("ignore", DeprecationWarning)
        array.strides = (0,)
    return array


def replacing(name, value):
    return name, lambda owner: setattr(owner, name, value(getattr(owner, name)))


def removing(name):
    return f"no {name}", lambda owner: delattr(owner, name)


def with_a_key_that_is_no_text(owner):
    vars(owner)[1] = 2


def with_a_method_of_its_own(owner):
    owner.compute = owner.compute


def arrays_instead_of(name, short=3):
    """An attribute that holds an array, as many other things."""
    return [
        replacing(name, lambda array: array.view(Array)),
        replacing(name, lambda array: array[:]),
        replacing(name, lambda array: array[:short].copy()),
        replacing(name, lambda array: np.repeat(array, 2)[::2]),
        replacing(name, lambda array: array.astype(np.float32)),
        replacing(name, lambda array: array.tolist()),
        replacing(name, lambda array: None),
        replacing(name, lambda array: array[None].copy()),
    ]


def masks_instead_of(name):
    """An attribute that holds a tuple of one array."""
    return [
        replacing(name, list),
        replacing(name, lambda masks: ()),
        replacing(name, lambda masks: masks * 2),
        replacing(name, lambda masks: (masks[0][:3].copy(),)),
        replacing(name, lambda masks: (masks[0][:],)),
        replacing(name, lambda masks: (masks[0].astype(np.float32),)),
        replacing(name, lambda masks: (None,)),
        replacing(name, lambda masks: None),
    ]


def named(change):
    return pytest.param(change[1], id=change[0]) if isinstance(change, tuple) else change


BUFFERS = [
    *arrays_instead_of("_output_buf"),
    *arrays_instead_of("_combined_nan_buf"),
    *masks_instead_of("_nan_mask_bufs"),
    replacing("_n_alloc", lambda count: None),
    replacing("_n_alloc", np.int64),
    replacing("_n_alloc", Whole),
    replacing("_n_alloc", lambda count: 10**30),
    with_a_key_that_is_no_text,
    with_a_method_of_its_own,
]
OF_THE_ROTATION = [
    *BUFFERS,
    *arrays_instead_of("_txi_input", short=SLOTS + 1),
    *arrays_instead_of("_txi_universe_row"),
    replacing("_txi_universe_row", strided_by_nothing),
    replacing("unmap_policy", Text),
    replacing("unmap_policy", lambda policy: "none of them"),
    replacing("unmap_policy", lambda policy: None),
    replacing("_instruments", list),
    replacing("_instruments", lambda names: (*names, "one", "more")),
    replacing("child_rotations", tuple),
    replacing("trace_sink", lambda sink: []),
    replacing("_columns", lambda columns: ((99, columns),)),
    replacing("_columns", lambda columns: ([0, columns],)),
    replacing("_columns", lambda columns: ((0, columns, 1),)),
    replacing("_columns", lambda columns: ((True, columns),)),
    replacing("_columns", lambda columns: ((-1, columns),)),
    replacing("_columns", lambda columns: ()),
    replacing("_columns", lambda columns: None),
    removing("unmap_policy"),
    removing("_instruments"),
    removing("_columns"),
    removing("child_rotations"),
    removing("trace_sink"),
]


def test_a_row_without_a_place_for_every_slot_ends_a_history_on_its_day():
    _, change = replacing("_txi_input", lambda row: row[:3].copy())
    assert played(FixedBaskets, change) == played(ByDays, change)


@pytest.mark.parametrize("change", [named(change) for change in OF_THE_ROTATION])
def test_what_a_day_leaves_in_the_rotation_counts_on_the_next(change):
    assert played(FixedBaskets, change) == played(ByDays, change)


@pytest.mark.parametrize("place", range(5))
@pytest.mark.parametrize("change", [named(change) for change in BUFFERS])
def test_what_a_day_leaves_in_a_child_counts_on_the_next(change, place):
    def change_child(rotation):
        change(rotation.child_rotations[place])

    assert played(FixedBaskets, change_child) == played(ByDays, change_child)


class Shown:
    """Somebody else who holds what an attribute holds."""

    held = None


def held_by_somebody(array):
    Shown.held = array
    return array


def an_average_that_counts(attendance):
    """Not what a gate expects, but it has all that a gate asks for."""
    ewma = Ewma(2, N_alloc=SLOTS)
    ewma.hold, ewma._silent_days = 0, np.arange(SLOTS) % 2.0
    return ewma


OF_ONE_CHILD = [
    *[(0, change) for change in arrays_instead_of("_silent_days")],
    (0, replacing("_silent_days", held_by_somebody)),
    (0, replacing("hold", Whole)),
    (0, replacing("hold", lambda hold: -1)),
    (0, replacing("hold", lambda hold: None)),
    (0, removing("hold")),
    (0, removing("_silent_days")),
    *[(1, change) for change in arrays_instead_of("_mean")],
    *[(1, change) for change in arrays_instead_of("_weight")],
    (1, replacing("_mean", held_by_somebody)),
    (1, replacing("_weight", held_by_somebody)),
    *[(1, replacing("window", lambda window, new=new: new)) for new in (0, -1, 10**30, 10**400)],
    (1, replacing("window", Whole)),
    (1, replacing("window", float)),
    *[(1, removing(name)) for name in ("window", "_mean", "_weight")],
    (2, replacing("attendance", lambda attendance: None)),
    (2, removing("attendance")),
    (3, replacing("function", Text)),
    (3, replacing("function", lambda name: "none of them")),
    (3, replacing("function", lambda name: 3)),
    (3, replacing("function", lambda name: 3.0)),
    (3, removing("function")),
]


@pytest.mark.parametrize(
    ("place", "change"),
    [pytest.param(place, change, id=f"{place} {name}") for place, (name, change) in OF_ONE_CHILD],
)
def test_what_a_day_leaves_in_one_child_counts_on_the_next(place, change):
    def change_child(rotation):
        change(rotation.child_rotations[place])

    assert played(FixedBaskets, change_child) == played(ByDays, change_child)


def test_a_gate_goes_by_whatever_counts_before_it():
    def go_by_the_average(rotation):
        ewma = rotation.child_rotations[1]
        ewma.hold, ewma._silent_days = 0, np.arange(SLOTS) % 2.0
        rotation.child_rotations[2].attendance = ewma

    assert played(FixedBaskets, go_by_the_average) == played(ByDays, go_by_the_average)
