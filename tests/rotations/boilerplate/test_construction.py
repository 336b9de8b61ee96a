"""The framework's rotation base: a new instance, and what it says of itself."""

import inspect

import numpy as np
import pytest

from quorvane.functions.rotations._boilerplate import RotationBase
from rotations.boilerplate.recorder import Recorder
from support.series import same_bits


class Spread(RotationBase):
    """A rotation as a user writes it."""

    _name = "spread"
    arity = 2

    def compute(self, args, nan_masks, combined_nan_mask, output_buf, N):
        output_buf[:N] = args[0] - args[1]
        return 0


def test_a_rotation_of_ten_lines():
    spread = Spread(N_alloc=4)
    out = spread([3.0, np.nan, 1.0], np.array([1.0, 1.0, 2.0]))
    assert same_bits(out, [2.0, np.nan, -1.0])
    assert repr(spread) == "Spread(N_alloc=4)"


# ---- construction ------------------------------------------------------------------------------


def test_what_an_instance_has():
    rotation = Recorder(N_alloc=3, speed="high", x=1)
    assert list(vars(rotation)) == [
        "_n_alloc",
        "_output_buf",
        "_combined_nan_buf",
        "_nan_mask_bufs",
        "parameters",
    ]
    assert rotation._n_alloc == 3
    assert type(rotation._n_alloc) is int
    assert rotation._output_buf.dtype == np.float64
    assert same_bits(rotation._output_buf, [np.nan] * 3)
    assert rotation._combined_nan_buf.dtype == np.uint8
    assert rotation._combined_nan_buf.tolist() == [0, 0, 0]
    assert rotation.parameters == {"speed": "high", "x": 1}


def test_without_an_allocation_the_buffers_are_empty():
    rotation = Recorder()
    assert rotation._n_alloc is None
    assert rotation._output_buf.shape == rotation._combined_nan_buf.shape == (0,)


@pytest.mark.parametrize("N_alloc", [True, 2.0, "3", np.int64(3), [3]])
def test_an_allocation_of_another_type(N_alloc):
    with pytest.raises(TypeError, match=r"^N_alloc must be None or a positive int, got .* of type"):
        Recorder(N_alloc=N_alloc)


@pytest.mark.parametrize("N_alloc", [0, -1, -(10**40)])
def test_an_allocation_that_is_not_positive(N_alloc):
    with pytest.raises(
        ValueError, match=rf"^N_alloc must be None or a positive int, got {N_alloc}$"
    ):
        Recorder(N_alloc=N_alloc)


def test_an_allocation_beyond_memory():
    with pytest.raises(ValueError, match="fits in memory, got 1000000000000000000000"):
        Recorder(N_alloc=10**21)


def test_an_int_subclass_is_kept_as_an_int():
    class Width(int):
        pass

    assert type(Recorder(N_alloc=Width(3))._n_alloc) is int


def test_the_class_says_what_it_is():
    assert (RotationBase._name, RotationBase.arity) == ("rotation_base", 1)
    assert str(inspect.signature(RotationBase)) == "(*, N_alloc=None, **parameters)"
    assert str(inspect.signature(RotationBase.__call__)) == "(self, *args, context=None)"
    for name, member in vars(RotationBase).items():
        if callable(member) and name != "__repr__":
            assert member.__doc__, name


def test_the_representation_holds_the_parameters():
    assert repr(Recorder(N_alloc=3, a="x", b=[1])) == "Recorder(a='x', b=[1], N_alloc=3)"
    assert repr(Recorder()) == "Recorder(N_alloc=None)"
    assert repr(Recorder.__new__(Recorder)) == "Recorder()"


def test_a_subclass_may_watch_its_attributes():
    seen = []

    class Watching(Recorder):
        def __setattr__(self, name, value):
            seen.append(name)
            super().__setattr__(name, value)

    Watching(N_alloc=1)
    assert seen == ["_n_alloc", "_output_buf", "_combined_nan_buf", "_nan_mask_bufs", "parameters"]
