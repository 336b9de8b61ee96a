"""The record, the two context classes and the base class, as one looks at them."""

import dataclasses
import inspect
import pickle
import weakref

import numpy as np
import pytest

from support.siblings import BASE_NAME
from virtualization.surface.names import BODY_NAMES, own_names

# --- VirtualStructure -------------------------------------------------------------------------


def test_structure_fields_in_order_with_string_annotations(base):
    fields = dataclasses.fields(base.VirtualStructure)
    assert [(field.name, field.type) for field in fields] == [
        ("key", "tuple"),
        ("legs", "tuple"),
        ("value", "float"),
        ("metadata", "dict | None"),
    ]
    assert base.VirtualStructure.__annotations__ == {
        "key": "tuple",
        "legs": "tuple",
        "value": "float",
        "metadata": "dict | None",
    }


def test_structure_only_metadata_has_a_default(base):
    defaults = [field.default for field in dataclasses.fields(base.VirtualStructure)]
    assert defaults == [dataclasses.MISSING] * 3 + [None]
    assert base.VirtualStructure((1,), (), 2.0).metadata is None


def test_structure_is_the_plain_dataclass_decorator_at_work(base):
    @dataclasses.dataclass
    class VirtualStructure:
        key: "tuple"
        legs: "tuple"
        value: "float"
        metadata: "dict | None" = None

    made = base.VirtualStructure
    assert repr(made.__dataclass_params__) == repr(VirtualStructure.__dataclass_params__)
    assert made.__match_args__ == VirtualStructure.__match_args__
    assert made.__doc__ == VirtualStructure.__doc__
    assert inspect.signature(made) == inspect.signature(VirtualStructure)
    assert made.__hash__ is None
    assert made.__bases__ == (object,)
    assert type(made) is type


def test_structure_names(base):
    assert base.VirtualStructure.__module__ == BASE_NAME
    assert base.VirtualStructure.__qualname__ == "VirtualStructure"


def test_structure_is_mutable_comparable_and_printable(base):
    record = base.VirtualStructure((1,), ((0, 1.0),), 2.0)
    assert record == base.VirtualStructure(key=(1,), legs=((0, 1.0),), value=2.0, metadata=None)
    assert repr(record) == (
        "VirtualStructure(key=(1,), legs=((0, 1.0),), value=2.0, metadata=None)"
    )
    record.value = 3.0
    record.note = "further attributes are allowed"
    assert record != base.VirtualStructure((1,), ((0, 1.0),), 2.0)
    with pytest.raises(TypeError):
        record < record  # noqa: B015


def test_structure_can_be_pickled_and_replaced(base):
    record = base.VirtualStructure((1,), ((0, 1.0),), 2.0, {"a": 1})
    assert pickle.loads(pickle.dumps(record)) == record
    assert dataclasses.replace(record, value=4.0).value == 4.0


# --- the two context classes ------------------------------------------------------------------


@pytest.mark.parametrize("name", ["_VirtualContext", "_AllOnesVirtualMask"])
def test_context_class_is_a_plain_class(base, name):
    made = getattr(base, name)
    assert type(made) is type
    assert made.__bases__ == (object,)
    assert made.__name__ == made.__qualname__ == name
    assert made.__module__ == BASE_NAME


def test_context_class_bodies(base):
    assert own_names(vars(base._VirtualContext)) == ["__init__"]
    assert own_names(vars(base._AllOnesVirtualMask)) == ["ndim", "__init__", "__getitem__"]


def test_context_class_docstrings(base):
    assert base._VirtualContext.__doc__ is None
    assert base._AllOnesVirtualMask.__doc__ == (
        "Shape-compatible all-in-universe mask without dense TxI row history."
    )


def test_mask_has_two_dimensions_by_class(base):
    assert vars(base._AllOnesVirtualMask)["ndim"] == 2
    assert type(base._AllOnesVirtualMask.ndim) is int


@pytest.mark.parametrize(
    ("path", "signature"),
    [
        ("_VirtualContext", "(universe_mask, current_day_index=0)"),
        ("_VirtualContext.__init__", "(self, universe_mask, current_day_index=0)"),
        ("_AllOnesVirtualMask", "(rows, row)"),
        ("_AllOnesVirtualMask.__init__", "(self, rows, row)"),
        ("_AllOnesVirtualMask.__getitem__", "(self, item)"),
    ],
)
def test_context_class_signatures(base, path, signature):
    target = base
    for name in path.split("."):
        target = getattr(target, name)
    assert str(inspect.signature(target)) == signature


@pytest.mark.parametrize("path", ["_VirtualContext", "_AllOnesVirtualMask"])
def test_context_objects_take_attributes_subclasses_and_weak_references(base, path):
    class Special(getattr(base, path)):
        pass

    special = Special(1, np.ones(2))
    special.note = "kept"
    assert vars(special)["note"] == "kept"
    assert weakref.ref(special)() is special


# --- VirtualizationBase -----------------------------------------------------------------------


def test_class_derives_from_the_rotation_base_alone(base, siblings):
    assert base.VirtualizationBase.__bases__ == (siblings.RotationBase,)


def test_class_names_and_docstring(base):
    made = base.VirtualizationBase
    assert made.__name__ == made.__qualname__ == "VirtualizationBase"
    assert made.__module__ == BASE_NAME
    assert made.__doc__ == (
        "Base class for rotations that map TxN inputs through a TxI child space."
    )


def test_class_attributes(base):
    own = vars(base.VirtualizationBase)
    assert own["_name"] == "virtualization_base"
    assert own["arity"] == 2
    assert type(own["_name"]) is str
    assert type(own["arity"]) is int


def test_class_body_in_definition_order(base):
    assert own_names(vars(base.VirtualizationBase)) == BODY_NAMES


def test_class_defines_no_subclass_hook(base):
    assert "__init_subclass__" not in vars(base.VirtualizationBase)


def test_decorated_members_keep_their_decorators(base):
    own = vars(base.VirtualizationBase)
    assert type(own["stateful"]) is property
    assert own["stateful"].fset is None
    assert own["stateful"].fdel is None
    assert type(own["_validate_constructor"]) is staticmethod
