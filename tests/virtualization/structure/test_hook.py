"""The hook that every rotation overrides: missing, failing, or handing over the day's items."""

import types

import numpy as np
import pytest

from support.fakes import make_rotation, rotation_class, structure
from support.siblings import Siblings, load_base
from virtualization.structure.helpers import Logged

# --- stateful and the hook --------------------------------------------------------------------


def test_rotation_is_stateful_from_the_start(base, rotation):
    assert rotation.stateful is True
    assert base.VirtualizationBase.stateful.__get__(rotation) is True


def test_stateful_is_true_whatever_the_children_say(base):
    child = types.SimpleNamespace(stateful=False)
    assert make_rotation(base, child_rotations=[child]).stateful is True


def test_stateful_cannot_be_set_or_deleted(rotation):
    with pytest.raises(AttributeError):
        rotation.stateful = False
    with pytest.raises(AttributeError):
        del rotation.stateful


def test_subclass_may_override_stateful(base):
    assert make_rotation(base, attributes={"stateful": False}).stateful is False


DAY = (np.ones(2), (), ((0, 0),), (0, 0), 2)


def test_missing_override_calls_the_abstract_hook_with_the_qualified_name(base, siblings):
    rotation = base.VirtualizationBase(
        max_structures=1, N_alloc=2, transformation_expression="none"
    )
    with pytest.raises(NotImplementedError):
        rotation._refresh_active_structures(*DAY)
    assert siblings.hook_calls == ["VirtualizationBase._refresh_active_structures"]


def test_error_of_the_abstract_hook_propagates(kind):
    error = LookupError("override me")

    def abstract_method_required(name):
        raise error

    base = load_base(kind, Siblings(abstract_method_required=abstract_method_required))
    with pytest.raises(LookupError) as caught:
        base.VirtualizationBase._refresh_active_structures(None, *DAY)
    assert caught.value is error


def test_result_of_the_abstract_hook_is_returned(base):
    answer = object()
    calls = []

    def hook(*args, **kwargs):
        calls.append((args, kwargs))
        return answer

    base.abstract_method_required = hook
    rotation = make_rotation(base)
    assert base.VirtualizationBase._refresh_active_structures(rotation, *DAY) is answer
    assert calls == [(("VirtualizationBase._refresh_active_structures",), {})]


# --- the three steps inside a day -------------------------------------------------------------


def test_dict_item_without_value_is_invalid_on_its_day(base):
    rotation = make_rotation(base, [[{"key": "a", "legs": [(0, 1.0)]}]])
    rotation(np.ones(3))
    assert rotation._metadata_by_slot[0]["active"] is False
    assert rotation.slot_by_key == {("a",): 0}


def test_hook_may_yield_its_items_lazily(base):
    log = []

    def items(*arguments):
        for key in "ab":
            log.append(f"yield {key}")
            yield structure(key, Logged(log, f"legs {key}"))

    rotation = make_rotation(base, [items])
    rotation(np.ones(3))
    assert log == ["yield a", "iter legs a", "yield b", "iter legs b"]


def test_hook_receives_the_day(base):
    cls = rotation_class(base)
    rotation = cls(max_structures=1, N_alloc=3, transformation_expression="none")
    args = (np.ones(3), np.zeros(3), np.zeros(2))
    masks, combined = ([0, 0, 0],), [0, 0, 0]
    rotation.compute(args, masks, combined, np.zeros(3), 3)
    ((space_input, structure_inputs, nan_masks, combined_nan_mask, N),) = cls.hook_calls
    assert space_input is args[0]
    assert [one is other for one, other in zip(structure_inputs, args[1:], strict=True)] == [
        True,
        True,
    ]
    assert nan_masks is masks
    assert combined_nan_mask is combined
    assert N == 3
