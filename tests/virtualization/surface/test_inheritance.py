"""Subclasses, mixins, and methods that are found on self when they are called."""

import inspect

import numpy as np
import pytest

from support.fakes import Context, MemoryStore, StatefulChild, make_rotation, structure
from support.siblings import Siblings, load_base, plain_rotation_base

# --- inheritance ------------------------------------------------------------------------------


def test_subclass_reaches_methods_through_super(base):
    class Doubling(base.VirtualizationBase):
        def _normalize_structure(self, item):
            record = super()._normalize_structure(item)
            record.value *= 2
            return record

    rotation = Doubling(max_structures=1, N_alloc=1, transformation_expression="none")
    assert rotation._normalize_structure(structure("a", [], 4.0)).value == 8.0


def test_mixin_after_the_class_is_next_in_line_for_super(base, siblings):
    seen = []

    class Mixin(siblings.RotationBase):
        def __init__(self, **kwargs):
            seen.append(("init", kwargs["N_alloc"]))
            super().__init__(**kwargs)

        def __call__(self, *args, context=None):
            seen.append(("call", context))
            return super().__call__(*args, context=context)

    class Both(base.VirtualizationBase, Mixin):
        def _refresh_active_structures(self, *day):
            return []

    rotation = Both(max_structures=1, N_alloc=3, transformation_expression="none")
    rotation(np.ones(3))
    assert seen == [("init", 3), ("call", None)]


def test_rebinding_the_class_names_does_not_change_super(base):
    rotation = make_rotation(base)
    base.VirtualizationBase = base.RotationBase = int
    rotation.__init__(max_structures=2, N_alloc=3, transformation_expression="none")
    assert rotation(np.ones(3)).shape == (3,)


@pytest.mark.parametrize("name", ["__init__", "__call__"])
def test_super_needs_an_instance_of_the_class(base, name):
    stranger = Context(
        _n_alloc=1, _validate_constructor=lambda *arguments: None, _current_parent_context=None
    )
    with pytest.raises(TypeError, match="super"):
        getattr(base.VirtualizationBase, name)(stranger)


def test_subclass_sees_further_class_attributes_of_the_rotation_base(kind):
    RotationBase = plain_rotation_base()
    RotationBase.registry_group = "virtual"
    base = load_base(kind, Siblings(RotationBase=RotationBase))
    assert base.VirtualizationBase.registry_group == "virtual"
    assert "registry_group" not in vars(base.VirtualizationBase)


def test_rotation_base_may_use_slots(kind):
    class RotationBase:
        __slots__ = ("_combined_nan_buf", "_n_alloc", "_output_buf")

        def __init__(self, *, N_alloc=None):
            self._n_alloc = N_alloc

    base = load_base(kind, Siblings(RotationBase=RotationBase))
    rotation = make_rotation(base, N_alloc=5)
    assert rotation._n_alloc == rotation._structure_N_limit == 5
    assert "_n_alloc" not in vars(rotation)
    assert "max_structures" in vars(rotation)


def test_rotation_base_may_make_its_instances_itself(kind):
    RotationBase = plain_rotation_base()

    def __new__(cls, **kwargs):
        made = object.__new__(cls)
        made.made_with = kwargs
        return made

    RotationBase.__new__ = __new__
    base = load_base(kind, Siblings(RotationBase=RotationBase))
    rotation = make_rotation(base, N_alloc=7)
    assert rotation.made_with["N_alloc"] == 7


# --- every method is found on self when it is called ------------------------------------------


def run_day(rotation):
    rotation.compute((np.ones(3),), ((0, 0, 0),), (0, 0, 0), np.zeros(3), 3)


def run_call(rotation):
    rotation(np.ones(3))


def run_failing_restore(rotation):
    rotation.child_rotations[0].set_errors = [ValueError("refused")]
    with pytest.raises(ValueError, match="refused"):
        rotation.set_state(rotation.get_state())


def run_restore(rotation):
    rotation.set_state(rotation.get_state())


def run_checkpoint(rotation):
    rotation.checkpoint(MemoryStore())


def run_recover(rotation):
    rotation.recover(MemoryStore({rotation._name: {}}))


OVERRIDES = {
    "_refresh_active_structures": run_day,
    "_normalize_structure": run_day,
    "_slot_for_key": run_day,
    "_structure_is_valid": run_day,
    "_make_child_context": run_day,
    "_run_child_chain": run_day,
    "_unmap": run_day,
    "_record_trace": run_day,
    "compute": run_call,
    "get_state": run_checkpoint,
    "set_state": run_recover,
    "_validate_state_components": run_restore,
    "_validate_child_states": run_restore,
    "_snapshot_child_states": run_restore,
    "_restore_child_snapshots": run_failing_restore,
}


def rotation_with_a_day(base, attributes=None):
    days = [[structure("a", [(0, 1.0)], 2.0)]]
    return make_rotation(base, days, attributes=attributes, child_rotations=[StatefulChild()])


@pytest.mark.parametrize("name", OVERRIDES)
def test_override_on_the_class_is_used_with_positional_arguments(base, name):
    calls = []

    def override(self, *args, **kwargs):
        calls.append((self, len(args), kwargs))
        if name == "_refresh_active_structures":
            return []
        return getattr(base.VirtualizationBase, name)(self, *args, **kwargs)

    rotation = rotation_with_a_day(base, {name: override})
    OVERRIDES[name](rotation)
    arity = len(inspect.signature(getattr(base.VirtualizationBase, name)).parameters) - 1
    assert calls == [(rotation, arity, {})]


@pytest.mark.parametrize("name", OVERRIDES)
def test_override_on_the_instance_is_used_with_positional_arguments(base, name):
    calls = []
    rotation = rotation_with_a_day(base)
    original = getattr(rotation, name)

    def override(*args, **kwargs):
        calls.append((len(args), kwargs))
        return original(*args, **kwargs)

    setattr(rotation, name, override)
    OVERRIDES[name](rotation)
    arity = len(inspect.signature(getattr(base.VirtualizationBase, name)).parameters) - 1
    assert calls == [(arity, {})]


@pytest.mark.parametrize("name", OVERRIDES)
def test_override_replaced_on_the_class_later_is_used_at_once(base, name):
    rotation = rotation_with_a_day(base)
    calls = []
    original = getattr(type(rotation), name)

    def override(self, *args):
        calls.append(len(args))
        return original(self, *args)

    setattr(base.VirtualizationBase, name, override)
    if name == "_refresh_active_structures":
        delattr(type(rotation), name)
    OVERRIDES[name](rotation)
    assert len(calls) == 1
