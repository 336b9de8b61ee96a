"""The framework's rotation base: compute, its result, and attributes that somebody replaced."""

import types

import numpy as np
import pytest

from quorvane.functions.rotations._boilerplate import RotationBase
from rotations.boilerplate.recorder import Recorder, Silent
from support.series import same_bits

# ---- compute and its result --------------------------------------------------------------------


def test_compute_is_called_once_with_the_instances_buffer():
    rotation = Recorder(N_alloc=5)
    rotation([1.0, 2.0])
    ((args, output_buf, N),) = rotation.calls
    assert output_buf is rotation._output_buf
    assert (len(args), N) == (1, 2)
    assert type(N) is int


def test_the_output_is_a_new_array():
    rotation = Recorder(N_alloc=3)
    first = rotation([1.0, 2.0])
    second = rotation([3.0, 4.0])
    assert same_bits(first, [1.0, 2.0])
    assert same_bits(second, [3.0, 4.0])
    assert first.flags.owndata
    assert first.flags.writeable
    assert first.dtype == np.float64


@pytest.mark.parametrize("result", [1, None, -1, 0.5, "0", 10**30])
def test_a_compute_that_does_not_return_0(result):
    class Failing(RotationBase):
        def compute(self, *args):
            return result

    with pytest.raises(RuntimeError, match=r"^rotation_base: compute must return 0, got "):
        Failing(N_alloc=1)([1.0])


@pytest.mark.parametrize("result", [0, 0.0, False, np.int64(0)])
def test_what_equals_0_is_0(result):
    class Fine(RotationBase):
        def compute(self, args, nan_masks, combined_nan_mask, output_buf, N):
            output_buf[:N] = 1.0
            return result

    assert same_bits(Fine(N_alloc=1)([1.0]), [1.0])


def test_compute_is_found_on_the_instance():
    rotation = Recorder(N_alloc=1)

    def compute(args, nan_masks, combined_nan_mask, output_buf, N):
        output_buf[:N] = 5.0
        return 0

    rotation.compute = compute
    assert same_bits(rotation([1.0]), [5.0])


def test_compute_must_be_defined():
    with pytest.raises(NotImplementedError, match=r"^RotationBase\.compute is abstract"):
        RotationBase(N_alloc=1)([1.0])


def test_an_error_of_compute_propagates():
    error = KeyError("mine")

    class Failing(RotationBase):
        def compute(self, *args):
            raise error

    with pytest.raises(KeyError) as caught:
        Failing(N_alloc=1)([1.0])
    assert caught.value is error


# ---- attributes that somebody replaced ---------------------------------------------------------


@pytest.mark.parametrize(
    "buffer",
    [np.zeros(6)[::2], np.zeros(3, dtype=np.float32), np.zeros(3, dtype=object)],
    ids=["strided", "float32", "object"],
)
def test_an_output_buffer_of_another_kind_is_converted(buffer):
    rotation = Recorder(N_alloc=3)
    rotation._output_buf = buffer
    out = rotation([1.0, 2.0, 3.0])
    assert same_bits(out, [1.0, 2.0, 3.0])
    assert out.dtype == np.float64
    assert not np.shares_memory(out, buffer) or buffer.dtype == object


@pytest.mark.parametrize("buffer", [np.zeros(2), np.zeros((3, 3)), [1.0]], ids=repr)
def test_an_output_buffer_that_is_too_short(buffer):
    rotation = Silent(N_alloc=3)
    rotation._output_buf = buffer
    with pytest.raises(
        ValueError, match=r"_output_buf must be a one-dimensional array of at least 3"
    ):
        rotation([1.0, 2.0, 3.0])


@pytest.mark.parametrize(
    "buffer",
    [
        np.zeros(2, dtype=np.uint8),
        np.zeros(6, dtype=np.uint8)[::2],
        np.zeros(3, dtype=bool),
        np.zeros(3),
        np.broadcast_to(np.uint8(0), 3),
        [0, 0, 0],
        None,
    ],
    ids=["short", "strided", "bool", "float", "read-only", "list", "None"],
)
def test_a_combined_mask_buffer_that_does_not_fit(buffer):
    rotation = Silent(N_alloc=3)
    rotation._combined_nan_buf = buffer
    with pytest.raises(ValueError, match=r"^rotation_base: _combined_nan_buf must be a writable"):
        rotation([1.0, 2.0, 3.0])


@pytest.mark.parametrize(
    "buffers",
    [
        (),
        None,
        [],
        (np.zeros(2, dtype=np.uint8),),
        (np.zeros(4, dtype=np.uint8),),
        (np.zeros(3, dtype=bool),),
        (np.zeros(6, dtype=np.uint8)[::2],),
        ("text",),
    ],
    ids=repr,
)
def test_mask_buffers_that_do_not_fit_are_made_anew(buffers):
    rotation = Recorder(N_alloc=3)
    rotation._nan_mask_bufs = buffers
    rotation([1.0, np.nan, 3.0])
    assert rotation.masks[0].tolist() == [0, 1, 0]


def test_buffers_are_reused_while_they_fit():
    rotation = Recorder(N_alloc=3)
    rotation([1.0, 2.0, 3.0])
    masks = rotation._nan_mask_bufs
    rotation([1.0, 2.0, np.nan])
    assert rotation._nan_mask_bufs is masks
    assert masks[0].tolist() == [0, 0, 1]


def test_an_allocation_that_was_replaced():
    rotation = Recorder(N_alloc=3)
    rotation._n_alloc = 9
    with pytest.raises(ValueError, match="_combined_nan_buf"):
        rotation(np.zeros(4))
    rotation._n_alloc = 2.5
    rotation(np.zeros(2))
    with pytest.raises(ValueError, match=r"at most N_alloc = 2\.5"):
        rotation(np.zeros(3))
    rotation._n_alloc = None
    assert rotation(np.zeros(7)).shape == (7,)


def test_a_conversion_that_replaces_everything():
    rotation = Recorder(N_alloc=3)

    class Hostile:
        def __array__(self, dtype=None, copy=None):
            rotation._output_buf = np.zeros(1)
            rotation._combined_nan_buf = np.zeros(1, dtype=np.uint8)
            return np.zeros(3)

    with pytest.raises(ValueError, match="_combined_nan_buf"):
        rotation(np.zeros(3), Hostile())


def test_an_input_that_shrinks_while_the_universe_is_asked():
    rotation = Recorder(N_alloc=1000)
    values = np.zeros(1000)

    class Mask:
        ndim = 2

        def __getitem__(self, day):
            values.resize(3, refcheck=False)
            return np.ones(1000, dtype=np.uint8)

    with pytest.raises(ValueError, match="could not broadcast"):
        rotation(values, context=types.SimpleNamespace(universe_mask=Mask()))
    assert rotation.combined.tolist() == [0] * 1000


def test_an_attribute_that_is_a_property():
    class Odd(Recorder):
        @property
        def _nan_mask_bufs(self):
            return ()

        @_nan_mask_bufs.setter
        def _nan_mask_bufs(self, value):
            value[0].resize(1, refcheck=False) if value else None

    with pytest.raises(ValueError, match="a mask buffer was changed during the call"):
        Odd(N_alloc=4)([1.0, 2.0, 3.0, np.nan])
