import copy
import gc
import inspect
import pickle
import types

import numpy as np
import pytest

from quorvane.functions.rotations._boilerplate import RotationBase
from support.series import same_bits


class Spread(RotationBase):
    """A rotation as a user writes it."""

    _name = "spread"
    arity = 2

    def compute(self, args, nan_masks, combined_nan_mask, output_buf, N):
        output_buf[:N] = args[0] - args[1]
        return 0


class Recorder(RotationBase):
    """Keeps what compute was called with and returns the first input."""

    _name = "recorder"

    def compute(self, args, nan_masks, combined_nan_mask, output_buf, N):
        self.calls = [*getattr(self, "calls", []), (args, output_buf, N)]
        self.masks = [mask.copy() for mask in nan_masks]
        self.combined = combined_nan_mask.copy()
        self.combined_itself = combined_nan_mask
        output_buf[:N] = args[0] if args[0].ndim == 1 else args[0][0]
        return 0


def test_a_rotation_of_ten_lines():
    spread = Spread(N_alloc=4)
    out = spread([3.0, np.nan, 1.0], np.array([1.0, 1.0, 2.0]))
    assert same_bits(out, [2.0, np.nan, -1.0])
    assert repr(spread) == "Spread(N_alloc=4)"


class Silent(RotationBase):
    def compute(self, *args):
        return 0


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


# ---- inputs ------------------------------------------------------------------------------------


def inputs_of(rotation):
    return rotation.calls[-1][0]


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


# ---- the universe ------------------------------------------------------------------------------


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


# ---- state, storage, size ----------------------------------------------------------------------


class Store:
    def __init__(self):
        self.records = {}

    def write(self, name, state):
        self.records[name] = copy.deepcopy(state)

    def read(self, name):
        return self.records.get(name)


class Counter(RotationBase):
    _name = "counter"
    stateful = True

    def __init__(self, **keywords):
        super().__init__(**keywords)
        self.days = 0

    def compute(self, args, nan_masks, combined_nan_mask, output_buf, N):
        self.days += 1
        output_buf[:N] = self.days
        return 0

    def get_state(self):
        return {"days": self.days}

    def set_state(self, state):
        self.days = state["days"]


def test_a_rotation_without_memory():
    rotation = Recorder(N_alloc=1)
    assert rotation.stateful is False
    assert rotation.get_state() == {}
    assert rotation.set_state({"anything": 1}) is None
    with pytest.raises(ValueError, match=r"^recorder: state must be a dict, got list$"):
        rotation.set_state([])


def test_checkpoint_and_recover():
    store, counter = Store(), Counter(N_alloc=1)
    assert counter.recover(store) is False
    counter([1.0])
    counter([1.0])
    assert counter.checkpoint(store) is None
    assert store.records == {"counter": {"days": 2}}
    other = Counter(N_alloc=1)
    assert other.recover(store) is True
    assert same_bits(other([1.0]), [3.0])


@pytest.mark.parametrize("record", [None, [], "text", {"hours": 1}])
def test_a_record_that_is_of_no_use(record):
    store, counter = Store(), Counter(N_alloc=1)
    store.records["counter"] = record
    assert counter.recover(store) is False
    assert counter.days == 0


def test_errors_of_a_store_propagate():
    class Broken:
        def write(self, name, state):
            raise OSError("full")

        def read(self, name):
            raise OSError("gone")

    with pytest.raises(OSError, match="full"):
        Counter(N_alloc=1).checkpoint(Broken())
    with pytest.raises(OSError, match="gone"):
        Counter(N_alloc=1).recover(Broken())


def test_recover_lets_an_interrupt_through():
    class Interrupted(Counter):
        def set_state(self, state):
            raise KeyboardInterrupt

    store = Store()
    store.records["counter"] = {}
    with pytest.raises(KeyboardInterrupt):
        Interrupted(N_alloc=1).recover(store)


def test_resize_makes_new_buffers():
    rotation = Recorder(N_alloc=3)
    before = rotation._output_buf
    assert rotation.resize(5) is None
    assert rotation._n_alloc == 5
    assert rotation._output_buf is not before
    assert rotation._output_buf.shape == rotation._combined_nan_buf.shape == (5,)
    assert rotation._combined_nan_buf.dtype == np.uint8
    assert rotation(np.zeros(5)).shape == (5,)


@pytest.mark.parametrize(
    ("size", "error"), [(0, ValueError), (-2, ValueError), (True, TypeError), (2.0, TypeError)]
)
def test_a_bad_resize_changes_nothing(size, error):
    rotation = Recorder(N_alloc=3)
    with pytest.raises(error, match=r"^new_N_alloc must be a positive int, got"):
        rotation.resize(size)
    assert rotation._n_alloc == 3
    assert rotation._output_buf.shape == (3,)


def test_pickles_and_copies_go_on_on_their_own():
    counter = Counter(N_alloc=2, label="x")
    counter([1.0, 2.0])
    for twin in (pickle.loads(pickle.dumps(counter)), copy.deepcopy(counter)):
        assert repr(twin) == "Counter(label='x', N_alloc=2)"
        assert same_bits(twin([1.0, 2.0]), [2.0, 2.0])
        assert twin._output_buf is not counter._output_buf
    assert counter.days == 1


@pytest.mark.parametrize("name", ["_output_buf", "_combined_nan_buf"])
@pytest.mark.parametrize("buffer", [None, np.zeros(1), np.zeros(1, dtype=np.uint8)], ids=repr)
def test_without_an_allocation_buffers_that_do_not_fit_are_made_anew(name, buffer):
    rotation = Recorder()
    rotation([1.0, 2.0, 3.0])
    setattr(rotation, name, buffer)
    assert rotation([1.0, np.nan, 3.0])[::2].tolist() == [1.0, 3.0]
    assert rotation.combined.tolist() == [0, 1, 0]
    assert (rotation._output_buf.shape, rotation._combined_nan_buf.shape) == ((3,), (3,))


@pytest.mark.parametrize("parameters", [None, 5, [("a", 1)], "text"], ids=repr)
def test_the_representation_leaves_out_parameters_that_are_no_dict(parameters):
    rotation = Silent(N_alloc=3)
    rotation.parameters = parameters
    assert repr(rotation) == "Silent(N_alloc=3)"
    del rotation.parameters, rotation._n_alloc
    assert repr(rotation) == "Silent()"


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
