"""The framework's rotation base: inputs and their masks."""

import numpy as np
import pytest

from rotations.boilerplate.recorder import Recorder, Silent, inputs_of
from support.series import same_bits


def test_a_float64_array_is_handed_on_itself():
    rotation = Recorder(N_alloc=4)
    first, second = np.arange(4.0), np.arange(8.0)[::2]
    first.flags.writeable = False
    rotation(first, second)
    assert inputs_of(rotation)[0] is first
    assert inputs_of(rotation)[1] is second
    assert type(inputs_of(rotation)) is tuple


@pytest.mark.parametrize(
    "value",
    [
        [1, 2, 3],
        (1.0, 2.0, 3.0),
        np.array([1, 2, 3], dtype=np.int32),
        np.array([1, 2, 3], dtype=np.float32),
        np.array([1.0, 2.0, 3.0], dtype=">f8"),
        np.array([1, 2, 3], dtype=object),
        np.frombuffer(b"\0" + np.array([1.0, 2.0, 3.0]).tobytes(), np.uint8)[1:].view(np.float64),
    ],
    ids=["list", "tuple", "int32", "float32", "big-endian", "object", "unaligned"],
)
def test_other_inputs_become_float64(value):
    rotation = Recorder(N_alloc=3)
    assert same_bits(rotation(value), [1.0, 2.0, 3.0])
    (given,) = inputs_of(rotation)
    assert given.dtype == np.float64
    assert given.dtype.isnative
    assert given.flags.aligned


def test_an_array_subclass_becomes_a_plain_array():
    rotation = Recorder(N_alloc=3)
    rotation(np.ma.masked_array([1.0, 2.0, 3.0]))
    assert type(inputs_of(rotation)[0]) is np.ndarray


@pytest.mark.parametrize(
    "value",
    [{"a": 1}, ["text"], [[1.0], [1.0, 2.0]], object(), [("a", "b")], [10**400]],
    ids=["dict", "text", "ragged", "object", "pairs", "too large"],
)
def test_a_later_input_without_a_float64_form_stays_itself(value):
    rotation = Recorder(N_alloc=3)
    rotation([1.0, np.nan, 3.0], value)
    assert inputs_of(rotation)[1] is value
    assert rotation.masks[1].tolist() == [0, 0, 0]
    assert rotation.combined.tolist() == [0, 1, 0]


@pytest.mark.parametrize("value", [{"a": 1}, ["text"], [[1.0], [1.0, 2.0]]])
def test_a_first_input_without_a_float64_form_is_numpys_error(value):
    with pytest.raises((TypeError, ValueError)) as ours:
        Recorder(N_alloc=3)(value)
    with pytest.raises(type(ours.value)) as numpys:
        np.asarray(value, dtype=np.float64)
    assert str(ours.value) == str(numpys.value)


def test_other_errors_of_a_conversion_propagate():
    error = KeyError("mine")

    class Failing:
        def __array__(self, dtype=None, copy=None):
            raise error

    with pytest.raises(KeyError) as caught:
        Recorder(N_alloc=3)([1.0], Failing())
    assert caught.value is error


def test_no_input():
    with pytest.raises(TypeError, match=r"^recorder: at least one input is needed, got none$"):
        Recorder(N_alloc=3)()


@pytest.mark.parametrize("value", [3.0, np.float64(3.0), np.array(3.0), None])
def test_a_scalar_first_input(value):
    with pytest.raises(
        ValueError, match=r"^recorder: the first input must have an axis of columns"
    ):
        Recorder(N_alloc=3)(value)


def test_too_many_columns():
    rotation = Recorder(N_alloc=3)
    rotation(np.zeros(3))
    text = "^recorder: the first input has 4 columns, allowed are at most N_alloc = 3$"
    with pytest.raises(ValueError, match=text):
        rotation(np.zeros(4))


def test_no_columns():
    assert Recorder(N_alloc=3)([]).shape == (0,)
    assert Recorder()([]).shape == (0,)


def test_without_an_allocation_the_buffers_grow():
    rotation = Recorder()
    assert same_bits(rotation([1.0, 2.0]), [1.0, 2.0])
    assert same_bits(rotation(np.arange(5.0)), np.arange(5.0))
    buffer = rotation._output_buf
    assert buffer.shape == (5,)
    assert same_bits(rotation([7.0]), [7.0])
    assert rotation._output_buf is buffer


# ---- masks -------------------------------------------------------------------------------------


def test_one_mask_per_input_and_the_combined_one():
    rotation = Recorder(N_alloc=5)
    rotation([1.0, np.nan, np.inf], [np.nan, 1.0, 1.0], [np.nan, np.nan], np.nan)
    assert [mask.tolist() for mask in rotation.masks] == [[0, 1, 0], [1, 0, 0], [0] * 3, [0] * 3]
    assert rotation.combined.tolist() == [1, 1, 0]
    assert rotation.combined_itself.base is rotation._combined_nan_buf
    assert all(mask.dtype == np.uint8 for mask in rotation.masks)


def test_a_day_clears_the_masks_of_the_day_before():
    rotation = Recorder(N_alloc=3)
    rotation([np.nan] * 3, [np.nan] * 3)
    rotation([1.0, 2.0, 3.0], [1.0, np.nan, 3.0])
    assert [mask.tolist() for mask in rotation.masks] == [[0, 0, 0], [0, 1, 0]]
    rotation([1.0, 2.0, 3.0], [np.nan])
    assert [mask.tolist() for mask in rotation.masks] == [[0, 0, 0], [0, 0, 0]]
    assert rotation.combined.tolist() == [0, 0, 0]


def test_an_input_of_several_rows_is_marked_where_any_row_is():
    rotation = Recorder(N_alloc=3)
    block = np.zeros((2, 4, 3))
    block[1, 2, 1] = np.nan
    block[0, 3, 2] = np.nan
    for layout in (block, np.asfortranarray(block), np.flip(block, axis=(0, 2))):
        rotation(np.zeros(3), layout)
        assert rotation.masks[1].tolist() == np.isnan(layout).any(axis=(0, 1)).tolist()
        assert rotation.combined.tolist() == rotation.masks[1].tolist()


def test_an_input_of_several_rows_may_be_the_first():
    rotation = Recorder(N_alloc=3)
    rotation([[1.0, 2.0, np.nan], [np.nan, 5.0, 6.0]])
    assert rotation.calls[-1][2] == 3
    assert rotation.combined.tolist() == [1, 0, 1]
    silent = Silent(N_alloc=3)
    silent(np.zeros((0, 3)), np.zeros((2, 0)))
    assert silent._combined_nan_buf.tolist() == [0, 0, 0]


def test_strided_inputs_are_marked():
    rotation = Recorder(N_alloc=3)
    rotation(np.array([np.nan, 0.0, 1.0, np.nan, 2.0, 0.0])[::-2])
    assert rotation.combined.tolist() == [0, 1, 0]
    rotation(np.broadcast_to(np.nan, 3))
    assert rotation.combined.tolist() == [1, 1, 1]
