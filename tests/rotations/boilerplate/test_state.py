"""The framework's rotation base: state, storage, size and copies."""

import copy
import pickle

import numpy as np
import pytest

from quorvane.functions.rotations._boilerplate import RotationBase
from rotations.boilerplate.recorder import Recorder, Silent
from support.series import same_bits


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
