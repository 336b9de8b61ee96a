"""The initialiser of the rotation base, and the attributes that a new instance has."""

import numpy as np
import pytest

from support.fakes import RecordingChild, make_rotation
from support.siblings import Siblings, load_base, plain_rotation_base
from virtualization.construction.helpers import (
    ATTRIBUTES,
    BASE_ATTRIBUTES,
    GOOD,
    Number,
    PlainInt,
    RecordingFactory,
    Text,
    construct,
    unfinished,
)


class IntConvertedOtherwise(int):
    def __int__(self):
        return 7


# --- the initialiser of the rotation base -----------------------------------------------------


def test_base_initialiser_is_called_once_with_n_alloc_and_further_keywords(base, siblings):
    note = object()
    construct(base, note=note, window=3, trace_sink=[], child_factories=[], child_rotations=[])
    assert siblings.RotationBase.init_calls == [{"N_alloc": 6, "note": note, "window": 3}]


def test_n_alloc_reaches_the_base_initialiser_as_given(base, siblings):
    width = PlainInt(6)
    construct(base, N_alloc=width)
    assert siblings.RotationBase.init_calls[0]["N_alloc"] is width


def test_base_initialiser_runs_before_any_attribute_is_set(kind):
    seen = []

    class RotationBase(plain_rotation_base()):
        def __init__(self, **kwargs):
            seen.append(dict(vars(self)))
            super().__init__(**kwargs)

    construct(load_base(kind, Siblings(RotationBase=RotationBase)))
    assert seen == [{}]


def test_error_of_the_base_initialiser_propagates_and_nothing_is_set(kind):
    error = LookupError("no room")

    class RotationBase(plain_rotation_base()):
        def __init__(self, **kwargs):
            raise error

    base = load_base(kind, Siblings(RotationBase=RotationBase))
    rotation, caught = unfinished(base)
    assert caught is error
    assert vars(rotation) == {}


def test_structure_limit_is_the_width_that_the_base_has_set(kind):
    class RotationBase(plain_rotation_base()):
        def __init__(self, *, N_alloc):
            self._n_alloc = width

    base = load_base(kind, Siblings(RotationBase=RotationBase))
    for width in (10**20, None, "any"):
        assert construct(base)._structure_N_limit is width


def test_base_that_sets_no_width_is_an_attribute_error_at_the_structure_limit(kind):
    class RotationBase:
        def __init__(self, *, N_alloc):
            pass

    base = load_base(kind, Siblings(RotationBase=RotationBase))
    rotation, error = unfinished(base)
    assert type(error) is AttributeError
    assert list(vars(rotation)) == ATTRIBUTES[:-2]


@pytest.mark.parametrize("count", [1, 3])
def test_positional_arguments_are_a_type_error(base, count):
    with pytest.raises(TypeError):
        base.VirtualizationBase(*[4, "none", 6][:count])


def test_keyword_that_the_base_does_not_take_is_its_type_error(kind):
    class RotationBase:
        def __init__(self, *, N_alloc):
            self._n_alloc = N_alloc

    base = load_base(kind, Siblings(RotationBase=RotationBase))
    with pytest.raises(TypeError, match="surplus"):
        construct(base, surplus=1)


# --- the attributes ---------------------------------------------------------------------------


def test_attributes_are_assigned_once_each_in_order(base):
    assigned = []

    def __setattr__(self, name, value):
        assigned.append(name)
        object.__setattr__(self, name, value)

    make_rotation(
        base, attributes={"__setattr__": __setattr__}, child_factories=[RecordingFactory()]
    )
    assert assigned == BASE_ATTRIBUTES + ATTRIBUTES


def test_instance_holds_its_attributes_in_order(base):
    assert list(vars(construct(base))) == BASE_ATTRIBUTES + ATTRIBUTES


def test_initialiser_returns_none(base):
    rotation = construct(base)
    assert rotation.__init__(**GOOD) is None


def test_initialising_again_starts_afresh(base):
    rotation = construct(base, child_rotations=[RecordingChild()])
    rotation._slot_for_key("a")
    rotation.__init__(**{**GOOD, "max_structures": 2})
    assert rotation.slot_by_key == {}
    assert rotation.child_rotations == []
    assert rotation._txi_input.shape == (2,)


def test_max_structures_of_an_exact_int_is_kept(base):
    size = 1234
    assert construct(base, max_structures=size).max_structures is size


@pytest.mark.parametrize(
    ("value", "size"), [(PlainInt(3), 3), (Number.THREE, 3), (IntConvertedOtherwise(2), 7)]
)
def test_max_structures_of_an_int_subclass_is_converted_by_int(base, value, size):
    rotation = construct(base, max_structures=value)
    assert type(rotation.max_structures) is int
    assert rotation.max_structures == size
    assert len(rotation._metadata_by_slot) == size


@pytest.mark.parametrize("expression", ["  none\t", Text("none")])
def test_expression_is_kept_as_given(base, expression):
    rotation = construct(base, transformation_expression=expression)
    assert rotation.transformation_expression is expression


@pytest.mark.parametrize("sink", [None, [], 5])
def test_trace_sink_is_kept_as_given(base, sink):
    assert construct(base, trace_sink=sink).trace_sink is sink


def test_slot_maps_are_distinct_empty_dicts(base):
    rotation = construct(base)
    maps = [rotation.slot_by_key, rotation.key_by_slot, rotation._legs_by_slot]
    assert [type(table) for table in maps] == [dict] * 3
    assert maps == [{}, {}, {}]
    assert len({id(table) for table in maps}) == 3


def test_metadata_is_one_inactive_dict_per_slot(base):
    rotation = construct(base, max_structures=3)
    assert type(rotation._metadata_by_slot) is list
    assert rotation._metadata_by_slot == [{"active": False}] * 3
    assert all(entry["active"] is False for entry in rotation._metadata_by_slot)


def test_metadata_dicts_are_distinct(base):
    rotation = construct(base, max_structures=3)
    rotation._metadata_by_slot[0]["note"] = 1
    assert rotation._metadata_by_slot[1:] == [{"active": False}] * 2
    assert all(type(entry) is dict for entry in rotation._metadata_by_slot)


@pytest.mark.parametrize("name", ["_txi_input", "_txi_output"])
def test_txi_buffer_is_a_writable_nan_vector(base, name):
    buffer = getattr(construct(base, max_structures=3), name)
    assert type(buffer) is np.ndarray
    assert buffer.dtype == np.float64
    assert buffer.shape == (3,)
    assert np.isnan(buffer).all()
    assert buffer.flags.writeable
    assert buffer.flags.c_contiguous


def test_txi_buffers_share_no_memory(base):
    rotation = construct(base)
    assert not np.shares_memory(rotation._txi_input, rotation._txi_output)


def test_txi_universe_row_is_a_vector_of_ones(base):
    row = construct(base, max_structures=3)._txi_universe_row
    assert row.dtype == np.uint8
    assert row.tolist() == [1, 1, 1]
    assert row.shape == (3,)


def test_parent_context_starts_as_none(base):
    assert construct(base)._current_parent_context is None


def test_structure_limit_starts_at_the_width(base):
    rotation = construct(base, N_alloc=9)
    assert rotation._structure_N_limit is rotation._n_alloc


def test_instances_share_nothing(base):
    first, second = construct(base), construct(base)
    for name in [*ATTRIBUTES[5:12], "child_factories", "child_rotations"]:
        assert getattr(first, name) is not getattr(second, name)


def test_buffers_take_their_size_from_the_attribute(base):
    def __setattr__(self, name, value):
        object.__setattr__(self, name, value * 2 if name == "max_structures" else value)

    factory = RecordingFactory()
    rotation = make_rotation(
        base, attributes={"__setattr__": __setattr__}, max_structures=3, child_factories=[factory]
    )
    assert rotation.max_structures == 6
    assert factory.calls == [((), {"N_alloc": 6})]
    assert len(rotation._metadata_by_slot) == 6
    assert rotation._txi_input.shape == rotation._txi_output.shape == (6,)
    assert rotation._txi_universe_row.shape == (6,)


def test_attribute_that_refuses_assignment_stops_the_construction(base):
    error = PermissionError("read only")

    def refuse(self, value):
        raise error

    policy = property(lambda self: "proportional", refuse)
    rotation, caught = unfinished(base, {"unmap_policy": policy})
    assert caught is error
    assert list(vars(rotation)) == BASE_ATTRIBUTES + ATTRIBUTES[:2]
