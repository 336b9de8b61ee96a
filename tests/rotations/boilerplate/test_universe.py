"""The framework's rotation base: instruments that the universe leaves out."""

import gc
import types

import numpy as np
import pytest

from rotations.boilerplate.recorder import Recorder, inputs_of
from support.series import same_bits


def left_out(mask, day=0, N=3):
    """Which columns a mask leaves out, seen through a rotation."""
    rotation = Recorder(N_alloc=N)
    context = types.SimpleNamespace(universe_mask=mask, current_day_index=day)
    values = np.arange(float(N))
    rotation(values, context=context)
    assert same_bits(values, np.arange(float(N)))
    assert (np.isnan(inputs_of(rotation)[0]) == rotation.combined.astype(bool)).all()
    return rotation.combined.tolist()


class LazyMask:
    ndim = 2

    def __init__(self, rows):
        self.rows = rows

    def __getitem__(self, item):
        return self.rows[item]


@pytest.mark.parametrize(
    "mask",
    [
        np.array([[1, 1, 1], [1, 0, 1]], dtype=np.uint8),
        np.array([[True, True, True], [True, False, True]]),
        np.array([[1, 1, 1], [2, 0, -1]]),
        np.array([[1.0, 1.0, 1.0], [0.5, 0.0, np.nan]]),
        np.asfortranarray(np.array([[1, 1, 1], [1, 0, 1]], dtype=np.uint8)),
        np.array([[1, 1, 1, 0], [1, 0, 1, 0]], dtype=np.uint8),
        [[1, 1, 1], [1, 0, 1]],
        LazyMask([np.ones(3), np.array([1, 0, 1], dtype=np.uint8)]),
        LazyMask([[1, 1, 1], [True, False, True]]),
    ],
    ids=["uint8", "bool", "int64", "float", "fortran", "wide", "lists", "lazy", "lazy lists"],
)
def test_a_mask_of_one_row_per_day(mask):
    assert left_out(mask, 0) == [0, 0, 0]
    assert left_out(mask, 1) == [0, 1, 0]


@pytest.mark.parametrize("mask", [np.array([0, 1, 1]), [False, True, True], np.array([0, 1, 1, 0])])
def test_a_mask_of_one_row_for_all_days(mask):
    assert left_out(mask, 0) == left_out(mask, 99) == [1, 0, 0]


def test_the_day_index_is_converted_and_may_be_absent():
    mask = np.array([[1, 1, 0], [0, 1, 1]])
    assert left_out(mask, 1.9) == [1, 0, 0]
    assert left_out(mask, -1) == [1, 0, 0]
    rotation = Recorder(N_alloc=3)
    rotation(np.zeros(3), context=types.SimpleNamespace(universe_mask=mask))
    assert rotation.combined.tolist() == [0, 0, 1]


@pytest.mark.parametrize(
    "context", [None, types.SimpleNamespace(), types.SimpleNamespace(universe_mask=None)]
)
def test_without_a_mask_everybody_is_in(context):
    rotation = Recorder(N_alloc=2)
    rotation(np.zeros(2), context=context)
    assert rotation.combined.tolist() == [0, 0]


def test_only_a_day_that_leaves_somebody_out_copies():
    rotation = Recorder(N_alloc=2)
    values, structures = np.array([1.0, 2.0]), np.array([3.0])
    everybody = types.SimpleNamespace(universe_mask=np.ones((1, 2)))
    rotation(values, values, structures, context=everybody)
    assert all(given is values for given in inputs_of(rotation)[:2])
    somebody = types.SimpleNamespace(universe_mask=np.array([[1, 0]]))
    rotation(values, values, structures, {"k": 1}, context=somebody)
    first, second, third, fourth = inputs_of(rotation)
    assert same_bits(first, [1.0, np.nan])
    assert same_bits(second, [1.0, np.nan])
    assert third is structures
    assert fourth == {"k": 1}
    assert same_bits(values, [1.0, 2.0])
    assert [mask.tolist() for mask in rotation.masks] == [[0, 1], [0, 1], [0, 0], [0, 0]]


def test_every_row_of_an_input_is_left_out():
    rotation = Recorder(N_alloc=2)
    context = types.SimpleNamespace(universe_mask=np.array([0, 1]))
    rotation(np.zeros((3, 2)), context=context)
    assert np.isnan(inputs_of(rotation)[0]).tolist() == [[True, False]] * 3


@pytest.mark.parametrize("mask", [np.ones((2, 2)), np.ones(2), np.ones((1, 1, 3)), np.ones((2, 0))])
def test_a_row_that_is_too_short(mask):
    with pytest.raises(
        ValueError, match=r"^recorder: a row of universe_mask must have at least one"
    ):
        left_out(mask)


def test_a_day_that_the_mask_does_not_have():
    with pytest.raises(IndexError):
        left_out(np.ones((2, 3)), day=2)


def test_only_a_missing_attribute_is_absence():
    class Context:
        @property
        def universe_mask(self):
            raise RuntimeError("mine")

    with pytest.raises(RuntimeError, match="mine"):
        Recorder(N_alloc=1)([1.0], context=Context())


class Axes:
    """Mask that says of itself how many axes it has."""

    def __init__(self, ndim, rows):
        self.ndim = ndim
        self.rows = np.asarray(rows)

    def __getitem__(self, day):
        return self.rows[day]

    def __array__(self, dtype=None, copy=None):
        return self.rows


@pytest.mark.parametrize("one", [1, 1.0, True, np.int64(1)], ids=repr)
def test_a_mask_whose_axes_equal_one_is_a_row(one):
    context = types.SimpleNamespace(universe_mask=Axes(one, [1, 0, 1]), current_day_index=2)
    rotation = Recorder(N_alloc=3)
    rotation([1.0, 2.0, 3.0], context=context)
    assert rotation.combined.tolist() == [0, 1, 0]


@pytest.mark.parametrize("two", [2, 2.0, "two", None, 2**70], ids=repr)
def test_a_mask_whose_axes_do_not_equal_one_is_asked_for_the_days_row(two):
    rows = [[1, 1, 1], [1, 0, 1]]
    context = types.SimpleNamespace(universe_mask=Axes(two, rows), current_day_index=1)
    rotation = Recorder(N_alloc=3)
    rotation([1.0, 2.0, 3.0], context=context)
    assert rotation.combined.tolist() == [0, 1, 0]


def test_a_universe_that_leaves_out_scalars_and_other_shapes_leaves_them_as_they_are():
    rotation = Recorder(N_alloc=3)
    context = types.SimpleNamespace(universe_mask=np.array([1, 0, 1], dtype=np.uint8))
    others = [np.float64(7.0), np.zeros(2), "text", np.zeros((0, 3)), np.ones((2, 3))]
    rotation([1.0, 2.0, 3.0], *others, context=context)
    inputs = rotation.calls[-1][0]
    assert np.isnan(inputs[0]).tolist() == [False, True, False]
    assert (float(inputs[1]), inputs[2].tolist(), inputs[3]) == (7.0, [0.0, 0.0], "text")
    assert np.isnan(inputs[5]).tolist() == [[False, True, False]] * 2
    assert [mask.tolist() for mask in rotation.masks[1:5]] == [[0, 0, 0]] * 4


def test_a_combined_mask_that_shrinks_when_the_output_is_read_is_refused():
    class Odd(Recorder):
        @property
        def _output_buf(self):
            if hasattr(self, "armed"):
                self._combined_nan_buf.resize(1, refcheck=False)
            return self.__dict__["_output_buf"]

        @_output_buf.setter
        def _output_buf(self, value):
            self.__dict__["_output_buf"] = value

    rotation = Odd(N_alloc=2000)
    rotation.armed = True
    with pytest.raises(ValueError, match="a mask buffer was changed during the call"):
        rotation(np.zeros(2000))


@pytest.mark.parametrize("size", [2000, 5])
def test_a_universe_that_shrinks_in_a_collection_is_refused_or_was_read_before(size):
    row = np.ones(2000, dtype=np.uint8)
    row[1] = 0

    class Shrinking:
        def __init__(self):
            self.itself = self

        def __del__(self):
            row.resize(size, refcheck=False)

    class Mask:
        ndim = 2

        def __getitem__(self, day):
            gc.set_threshold(1)
            Shrinking()
            return row

    rotation = Recorder(N_alloc=2000)
    kept = gc.get_threshold()
    gc.collect()
    out = refused = None
    try:
        out = rotation(np.zeros(2000), context=types.SimpleNamespace(universe_mask=Mask()))
    except ValueError as error:
        refused = str(error)
    finally:
        gc.set_threshold(*kept)
    if refused is None:
        assert np.isnan(out).tolist() == [False, True] + [False] * 1998
    else:
        assert size == 5
        assert "universe_mask was changed" in refused or "a row of universe_mask" in refused
