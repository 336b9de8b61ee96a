"""The call: how wide an input may be."""

import numpy as np
import pytest

from support.fakes import Context, make_rotation
from virtualization.daily.helpers import unallocated


@pytest.fixture
def framework_calls(siblings):
    """Replace the framework's call by one that records its arguments."""
    calls = []
    siblings.RotationBase.__call__ = lambda self, *args, context=None: calls.append(args)
    return calls


@pytest.mark.parametrize(
    "value",
    [
        np.zeros(5),
        np.zeros((2, 5)),
        [0.0] * 5,
        "abcde",
        Context(shape=(9, 5)),
        Context(shape=[5.7]),
        Context(shape=("5",)),
        range(5),
    ],
)
def test_width_beyond_the_limit_fails_without_an_allocation(base, framework_calls, value):
    rotation = unallocated(base, 4)
    with pytest.raises(ValueError, match="input width") as caught:
        rotation(value)
    assert caught.value.args == ("virtualization_base: input width must be <= 4",)
    assert framework_calls == []


def test_width_message_begins_with_the_rotations_name(base):
    with pytest.raises(ValueError, match="input width") as caught:
        unallocated(base, 4, _name="R")([0] * 5)
    assert caught.value.args == ("R: input width must be <= 4",)


def test_default_limit_of_the_width_is_a_million(base, framework_calls):
    rotation = unallocated(base)
    rotation(range(1000000))
    with pytest.raises(ValueError, match="input width must be <= 1000000"):
        rotation(range(1000001))


@pytest.mark.parametrize("value", [np.zeros(4), [0.0] * 4, np.zeros((9, 4))])
def test_width_equal_to_the_limit_is_allowed(base, framework_calls, value):
    unallocated(base, 4)(value)
    assert len(framework_calls) == 1


def test_width_error_leaves_the_context_attribute_untouched(base):
    rotation = unallocated(base, 4)
    rotation._current_parent_context = left_over = object()
    with pytest.raises(ValueError, match="input width"):
        rotation([0] * 5, context=Context())
    assert rotation._current_parent_context is left_over


def test_only_the_first_input_is_measured(base, framework_calls):
    unallocated(base, 4)([0] * 4, [0] * 5)
    assert len(framework_calls) == 1


def test_width_is_not_measured_with_an_allocation(base, framework_calls):
    value = object()
    rotation = make_rotation(base, N_alloc=4)
    base.MAX_VIRTUAL_STRUCTURES = 4
    rotation([0] * 5)
    rotation(value)
    assert framework_calls == [([0] * 5,), (value,)]


def test_width_is_not_measured_without_inputs(base, framework_calls):
    unallocated(base)()
    assert framework_calls == [()]


def test_zero_dimensional_array_is_measured_with_len_and_fails(base, framework_calls):
    with pytest.raises(TypeError, match="unsized object"):
        unallocated(base)(np.array(1.0))
    assert framework_calls == []


@pytest.mark.parametrize("shape", [None, (), []])
def test_input_with_an_empty_shape_is_measured_with_len(base, framework_calls, shape):
    class Sized:
        def __init__(self):
            self.shape = shape

        def __len__(self):
            return 5

    with pytest.raises(ValueError, match="input width"):
        unallocated(base, 4)(Sized())


def test_input_without_shape_and_len_fails(base, framework_calls):
    with pytest.raises(TypeError, match="len"):
        unallocated(base)(5.0)
    assert framework_calls == []


def test_shape_property_error_other_than_attribute_error_propagates(base):
    class Failing:
        @property
        def shape(self):
            raise LookupError("shape")

    with pytest.raises(LookupError, match="shape"):
        unallocated(base)(Failing())


def test_call_without_an_allocation_computes_a_narrow_day(base):
    rotation = unallocated(base)
    assert rotation(np.zeros(6)).shape == (6,)
