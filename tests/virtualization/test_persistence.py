"""checkpoint, recover and resize."""

import copy
import sys

import numpy as np
import pytest

from support.fakes import (
    ConstantChild,
    MemoryStore,
    RaisingStore,
    ReadOnlyChild,
    StatefulChild,
    make_rotation,
    structure,
)

PAIR = structure(("a", "b"), [(0, 1.0), (1, -1.0)], 2.0)


def after_one_day(base, **constructor):
    rotation = make_rotation(base, [[PAIR]], **constructor)
    rotation(np.zeros(6))
    return rotation


def unchanged(rotation, before):
    assert list(vars(rotation)) == list(before)
    return all(vars(rotation)[name] is value for name, value in before.items())


class Store:
    """Storage object that keeps and returns the very objects, and logs its calls."""

    def __init__(self, stored=None):
        self.stored = stored
        self.calls = []

    def write(self, *args, **kwargs):
        self.calls.append((args, kwargs))
        return "ignored"

    def read(self, *args, **kwargs):
        self.calls.append((args, kwargs))
        return self.stored


# checkpoint


def test_checkpoint_writes_the_live_state_under_the_name(base):
    rotation, store = after_one_day(base), Store()
    rotation._name = name = "".join(["own", " name"])
    assert rotation.checkpoint(store) is None
    (((written_name, state), kwargs),) = store.calls
    assert written_name is name
    assert kwargs == {}
    assert state == rotation.get_state()
    assert state["structure_metadata_by_slot"][0] is rotation._metadata_by_slot[0]


def test_checkpoint_writes_what_the_instances_get_state_returns(base):
    state, store = object(), Store()
    make_rotation(base, attributes={"get_state": lambda self: state}).checkpoint(store)
    assert store.calls == [(("virtualization_base", state), {})]


def test_checkpoint_changes_nothing(base):
    rotation = after_one_day(base)
    before = dict(vars(rotation))
    rotation.checkpoint(Store())
    assert unchanged(rotation, before)


def test_error_of_write_propagates_as_the_same_object(base):
    error = OSError("disk full")
    with pytest.raises(OSError, match="disk full") as caught:
        make_rotation(base).checkpoint(RaisingStore(error))
    assert caught.value is error


def test_error_of_get_state_propagates_and_nothing_is_written(base):
    class Child:
        def get_state(self):
            raise LookupError("child")

    store = Store()
    with pytest.raises(LookupError, match="child"):
        make_rotation(base, child_rotations=[Child()]).checkpoint(store)
    assert store.calls == []


def test_storage_without_write_fails(base):
    with pytest.raises(AttributeError, match="write"):
        make_rotation(base).checkpoint(object())


# recover


def test_recover_reads_under_the_name(base):
    store = Store()
    rotation = make_rotation(base, attributes={"_name": "R"})
    rotation.recover(store)
    assert store.calls == [(("R",), {})]


def test_recover_from_an_empty_store_returns_false_and_changes_nothing(base):
    rotation = after_one_day(base)
    before = dict(vars(rotation))
    assert rotation.recover(MemoryStore()) is False
    assert unchanged(rotation, before)


@pytest.mark.parametrize("stored", [[], (), "x", 5, [("slot_by_key", {})]])
def test_recover_of_a_record_that_is_no_dict_returns_false(base, stored):
    rotation = after_one_day(base)
    before = dict(vars(rotation))
    assert rotation.recover(Store(stored)) is False
    assert unchanged(rotation, before)


def test_record_that_is_no_dict_never_reaches_set_state(base):
    def set_state(self, state):
        raise KeyboardInterrupt

    rotation = make_rotation(base, attributes={"set_state": set_state})
    assert rotation.recover(Store([])) is False


def test_recover_after_checkpoint_returns_true_and_restores(base):
    store = MemoryStore()
    first = after_one_day(base)
    first.checkpoint(store)
    second = make_rotation(base)
    assert second.recover(store) is True
    assert second.get_state() == first.get_state()


def test_recover_of_an_empty_dict_is_a_restore(base):
    rotation = after_one_day(base)
    assert rotation.recover(Store({})) is True
    assert rotation.slot_by_key == {}


def test_recover_calls_the_instances_set_state_with_the_stored_object(base):
    received, stored = [], {"x": 1}
    attributes = {"set_state": lambda self, state: received.append(state)}
    assert make_rotation(base, attributes=attributes).recover(Store(stored)) is True
    assert received[0] is stored


def test_result_of_set_state_is_ignored(base):
    attributes = {"set_state": lambda self, state: False}
    assert make_rotation(base, attributes=attributes).recover(Store({})) is True


def test_recover_of_a_state_that_fails_validation_returns_false_and_changes_nothing(base):
    rotation = after_one_day(base)
    before = dict(vars(rotation))
    assert rotation.recover(Store({"slot_by_key": []})) is False
    assert unchanged(rotation, before)


@pytest.mark.parametrize("error", [LookupError(), MemoryError(), RecursionError(), StopIteration()])
def test_recover_discards_any_exception_of_set_state(base, error):
    def set_state(self, state):
        raise error

    assert make_rotation(base, attributes={"set_state": set_state}).recover(Store({})) is False


@pytest.mark.parametrize("error", [KeyboardInterrupt(), SystemExit(), GeneratorExit()])
def test_recover_lets_what_is_no_exception_through(base, error):
    def set_state(self, state):
        raise error

    with pytest.raises(type(error)) as caught:
        make_rotation(base, attributes={"set_state": set_state}).recover(Store({}))
    assert caught.value is error


def test_recover_with_a_failing_child_leaves_the_children_put_back(base):
    children = [StatefulChild(1.0), StatefulChild(2.0, set_errors=[LookupError()])]
    rotation = make_rotation(base, child_rotations=children)
    state = copy.deepcopy(rotation.get_state())
    state["child_states"] = ["a", "b"]
    assert rotation.recover(Store(state)) is False
    assert [child.state["total"] for child in children] == [1.0, 2.0]


def test_recover_leaves_no_error_behind(base):
    make_rotation(base).recover(Store({"slot_by_key": []}))
    assert sys.exc_info() == (None, None, None)


@pytest.mark.parametrize("error", [OSError("unreadable"), KeyboardInterrupt()])
def test_error_of_read_propagates_as_the_same_object(base, error):
    with pytest.raises(type(error)) as caught:
        make_rotation(base).recover(RaisingStore(error))
    assert caught.value is error


def test_storage_without_read_fails(base):
    with pytest.raises(AttributeError, match="read"):
        make_rotation(base).recover(object())


def test_checkpoint_in_a_store_that_keeps_the_object_shows_later_days(base):
    rotation, store = after_one_day(base), Store()
    rotation.checkpoint(store)
    rotation(np.zeros(6))
    assert store.calls[0][0][1]["structure_metadata_by_slot"][0] == {"active": False}


# resize: what is refused


@pytest.mark.parametrize("width", [True, False, 2.0, "4", None, np.int64(4), [4]])
def test_width_that_is_no_int_raises_type_error(base, width):
    rotation = make_rotation(base, attributes={"_name": "R"})
    before = dict(vars(rotation))
    with pytest.raises(TypeError) as caught:
        rotation.resize(width)
    assert caught.value.args == ("new_N_alloc must be a positive integer",)
    assert unchanged(rotation, before)


@pytest.mark.parametrize("width", [0, -1, -(10**30)])
def test_width_that_is_not_positive_raises_value_error(base, width):
    rotation = make_rotation(base, attributes={"_name": "R"})
    before = dict(vars(rotation))
    with pytest.raises(ValueError, match="positive") as caught:
        rotation.resize(width)
    assert caught.value.args == ("new_N_alloc must be a positive integer",)
    assert unchanged(rotation, before)


# resize: what it does


@pytest.mark.parametrize("width", [1, 4, 6, 20, 1000001])
def test_resize_sets_the_width_and_returns_none(base, width):
    rotation = make_rotation(base)
    assert rotation.resize(width) is None
    assert rotation._n_alloc == width


def test_resize_stores_an_exact_int(base):
    class Int(int):
        pass

    rotation = make_rotation(base)
    rotation.resize(Int(5))
    assert type(rotation._n_alloc) is int


@pytest.mark.parametrize("width", [4, 20])
def test_resize_makes_a_new_float64_output_buffer(base, width):
    rotation = make_rotation(base)
    before = rotation._output_buf
    rotation.resize(width)
    assert rotation._output_buf is not before
    assert rotation._output_buf.shape == (width,)
    assert rotation._output_buf.dtype == np.float64
    assert rotation._output_buf.flags.owndata
    assert rotation._output_buf.flags.writeable


@pytest.mark.parametrize("width", [4, 20])
def test_resize_makes_a_new_clear_uint8_mask_buffer(base, width):
    rotation = make_rotation(base)
    before = rotation._combined_nan_buf
    before[:] = 1
    rotation.resize(width)
    assert rotation._combined_nan_buf is not before
    assert rotation._combined_nan_buf.dtype == np.uint8
    assert rotation._combined_nan_buf.tolist() == [0] * width


def test_resize_to_the_same_width_makes_new_buffers_too(base):
    rotation = make_rotation(base)
    before = rotation._output_buf
    rotation.resize(6)
    assert rotation._output_buf is not before


@pytest.mark.parametrize(("width", "limit"), [(20, 6), (6, 6), (4, 4), (1, 1)])
def test_limit_never_rises_and_a_shrink_clamps_it(base, width, limit):
    rotation = make_rotation(base)
    rotation.resize(width)
    assert rotation._structure_N_limit == limit


def test_growing_after_a_shrink_keeps_the_shrunk_limit(base):
    rotation = make_rotation(base)
    rotation.resize(4)
    rotation.resize(10)
    assert rotation._structure_N_limit == 4


@pytest.mark.parametrize(("old_limit", "width", "limit"), [(3, 20, 3), (3, 4, 3), (3, 2, 2)])
def test_lower_limit_is_kept_until_a_shrink_passes_it(base, old_limit, width, limit):
    rotation = make_rotation(base)
    rotation._structure_N_limit = old_limit
    rotation.resize(width)
    assert rotation._structure_N_limit == limit


def test_limit_above_the_old_width_falls_to_the_old_width(base):
    rotation = make_rotation(base)
    rotation._structure_N_limit = 50
    rotation.resize(20)
    assert rotation._structure_N_limit == 6


@pytest.mark.parametrize(("width", "limit"), [(20, 6), (4, 4)])
def test_limit_of_none_becomes_the_old_width(base, width, limit):
    rotation = make_rotation(base)
    rotation._structure_N_limit = None
    rotation.resize(width)
    assert rotation._structure_N_limit == limit


@pytest.mark.parametrize(("old_limit", "limit"), [(None, None), (3, 3), (50, 20)])
def test_without_an_old_width_the_limit_is_only_clamped(base, old_limit, limit):
    rotation = make_rotation(base)
    rotation._n_alloc = None
    rotation._structure_N_limit = old_limit
    rotation.resize(20)
    assert rotation._structure_N_limit == limit


@pytest.mark.parametrize("old_limit", ["3", 3.9, np.int64(3)])
def test_limit_is_converted_with_int(base, old_limit):
    rotation = make_rotation(base)
    rotation._structure_N_limit = old_limit
    rotation.resize(20)
    assert rotation._structure_N_limit == 3
    assert type(rotation._structure_N_limit) is int


@pytest.mark.parametrize("old_width", ["6", 6.9, np.int64(6)])
def test_old_width_is_converted_with_int(base, old_width):
    rotation = make_rotation(base)
    rotation._n_alloc = old_width
    rotation._structure_N_limit = 9
    rotation.resize(20)
    assert rotation._structure_N_limit == 6
    assert type(rotation._structure_N_limit) is int


def test_attributes_are_assigned_in_the_documented_order(base):
    written = []

    def __setattr__(self, name, value):
        written.append(name)
        object.__setattr__(self, name, value)

    rotation = make_rotation(base, attributes={"__setattr__": __setattr__})
    written.clear()
    rotation.resize(20)
    assert written == ["_n_alloc", "_output_buf", "_combined_nan_buf", "_structure_N_limit"]
    written.clear()
    rotation.resize(6)
    assert written == ["_n_alloc", "_output_buf", "_combined_nan_buf", "_structure_N_limit"]
    written.clear()
    rotation.resize(4)
    assert written == [
        "_n_alloc",
        "_output_buf",
        "_combined_nan_buf",
        "_structure_N_limit",
        "_structure_N_limit",
    ]


def test_nothing_else_changes(base):
    child = ReadOnlyChild("x")
    rotation = after_one_day(base, child_rotations=[child], trace_sink=[])
    touched = {"_n_alloc", "_output_buf", "_combined_nan_buf", "_structure_N_limit"}
    before = {name: value for name, value in vars(rotation).items() if name not in touched}
    contents = copy.deepcopy({name: before[name] for name in before if name != "child_rotations"})
    rotation.resize(3)
    assert all(vars(rotation)[name] is value for name, value in before.items())
    np.testing.assert_equal({name: before[name] for name in contents}, contents)


def test_children_are_not_resized(base):
    class Child(ReadOnlyChild):
        def resize(self, width):
            raise AssertionError("resized")

    make_rotation(base, child_rotations=[Child("x")]).resize(3)


def test_stored_legs_may_name_instruments_beyond_the_new_width(base):
    items = [structure(("far",), [(5, 1.0)], 2.0)]
    rotation = make_rotation(base, [items, []], child_rotations=[ConstantChild([1.0] * 4)])
    rotation(np.zeros(6))
    rotation.resize(3)
    assert rotation._legs_by_slot == {0: ((5, 1.0),)}
    with pytest.raises(IndexError):
        rotation(np.zeros(3))


def test_resized_rotation_computes_days_of_the_new_width(base):
    items = [structure(("far",), [(15, 1.0)], 2.0)]
    rotation = make_rotation(base, [items])
    rotation.resize(20)
    assert rotation(np.zeros(20))[15] == 2.0


def test_state_taken_before_a_growth_is_valid_after_it(base):
    rotation = after_one_day(base)
    state = rotation.get_state()
    rotation.resize(20)
    rotation.set_state(state)
    assert rotation._structure_N_limit == 6


def test_state_taken_before_a_shrink_is_refused_after_it(base):
    rotation = after_one_day(base)
    state = rotation.get_state()
    rotation.resize(3)
    with pytest.raises(ValueError, match="structure_N_limit must be between 0 and N_alloc"):
        rotation.set_state(state)
