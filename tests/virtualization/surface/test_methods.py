"""What a method says of itself, and how it may be called."""

import copy
import inspect
import pickle
import pydoc

import numpy as np
import pytest

from support.fakes import Context, make_rotation, structure
from support.siblings import BASE_NAME
from virtualization.surface.names import METHOD_SIGNATURES

PLAIN_METHODS = [
    name for name in METHOD_SIGNATURES if name not in ("_validate_constructor", "stateful")
]


def without_self(signature):
    return signature.replace("(self, ", "(").replace("(self)", "()")


@pytest.mark.parametrize("name", PLAIN_METHODS)
def test_method_signature_seen_from_the_class(base, name):
    method = getattr(base.VirtualizationBase, name)
    assert str(inspect.signature(method)) == METHOD_SIGNATURES[name]


@pytest.mark.parametrize("name", PLAIN_METHODS)
def test_method_signature_seen_from_an_instance(base, name):
    method = getattr(make_rotation(base, attributes={"_n_alloc": None}), name)
    if name == "_refresh_active_structures":
        method = base.VirtualizationBase._refresh_active_structures.__get__(object())
    assert str(inspect.signature(method)) == without_self(METHOD_SIGNATURES[name])


def test_static_method_signature_from_class_instance_and_descriptor(base):
    expected = METHOD_SIGNATURES["_validate_constructor"]
    owner = base.VirtualizationBase
    for found in [
        owner._validate_constructor,
        make_rotation(base)._validate_constructor,
        vars(owner)["_validate_constructor"].__func__,
    ]:
        assert str(inspect.signature(found)) == expected


def test_property_getter_signature(base):
    getter = vars(base.VirtualizationBase)["stateful"].fget
    assert str(inspect.signature(getter)) == METHOD_SIGNATURES["stateful"]


def test_signature_of_the_class_is_that_of_its_initialiser(base):
    signature = inspect.signature(base.VirtualizationBase)
    assert str(signature) == without_self(METHOD_SIGNATURES["__init__"])
    kinds = [parameter.kind for parameter in signature.parameters.values()]
    assert kinds == [inspect.Parameter.KEYWORD_ONLY] * 7 + [inspect.Parameter.VAR_KEYWORD]


def test_signature_of_an_instance_is_that_of_its_call(base):
    assert str(inspect.signature(make_rotation(base))) == "(*args, context=None)"


def callables_of(base):
    own = vars(base.VirtualizationBase)
    members = {name: own[name] for name in PLAIN_METHODS}
    members["stateful"] = own["stateful"].fget
    members["_validate_constructor"] = own["_validate_constructor"].__func__
    return members


@pytest.mark.parametrize("name", METHOD_SIGNATURES)
def test_method_tells_its_names(base, name):
    method = callables_of(base)[name]
    assert method.__name__ == name
    assert method.__qualname__ == f"VirtualizationBase.{name}"
    assert method.__module__ == BASE_NAME


@pytest.mark.parametrize("name", METHOD_SIGNATURES)
def test_method_docstring_is_free_of_signature_text(base, name):
    doc = callables_of(base)[name].__doc__
    assert doc is None or (doc.strip() and ")\n--\n" not in doc and not doc.startswith(name + "("))


@pytest.mark.parametrize("name", PLAIN_METHODS)
def test_method_counts_as_a_routine_for_tools(base, name):
    assert inspect.isroutine(vars(base.VirtualizationBase)[name])


def test_help_text_shows_signatures_and_docstring(base):
    text = pydoc.plain(pydoc.render_doc(base.VirtualizationBase))
    assert "Base class for rotations that map TxN inputs through a TxI child space." in text
    assert "batch_reference(self, *matrices, context=None)" in text


def test_bound_method_knows_its_instance(base):
    rotation = make_rotation(base)
    assert rotation.compute.__self__ is rotation
    assert rotation.compute == rotation.compute
    assert rotation.compute.__func__ is vars(base.VirtualizationBase)["compute"]


def test_method_prints_its_qualified_name(base):
    assert "VirtualizationBase.compute" in repr(vars(base.VirtualizationBase)["compute"])


def test_method_is_atomic_for_copies(base):
    method = vars(base.VirtualizationBase)["compute"]
    assert copy.copy(method) is method
    assert copy.deepcopy(method) is method


def test_classes_and_methods_are_pickled_by_reference(base):
    for found in [base.VirtualizationBase, base._VirtualContext, base.VirtualizationBase.compute]:
        assert pickle.loads(pickle.dumps(found)) is found


def test_rotation_can_be_copied(base):
    rotation = make_rotation(base, [[structure("a", [(0, 1.0)], 2.0)]])
    rotation(np.ones(3))
    twin = copy.deepcopy(rotation)
    assert type(twin) is type(rotation)
    assert twin.slot_by_key == {("a",): 0}
    assert twin.slot_by_key is not rotation.slot_by_key
    assert twin._slot_for_key("b") == 1
    assert rotation.slot_by_key == {("a",): 0}


# --- calling conventions ----------------------------------------------------------------------


CALLABLE_WITH_REQUIRED = [
    name
    for name in PLAIN_METHODS
    if name not in ("__init__", "__call__", "batch_reference", "get_state")
    and METHOD_SIGNATURES[name] != "(self)"
]


@pytest.mark.parametrize("name", CALLABLE_WITH_REQUIRED)
def test_missing_argument_is_a_type_error(base, name):
    method = getattr(base.VirtualizationBase, name)
    rotation = make_rotation(base)
    with pytest.raises(TypeError):
        method(rotation)


@pytest.mark.parametrize("name", [*CALLABLE_WITH_REQUIRED, "get_state"])
def test_surplus_argument_is_a_type_error(base, name):
    method = getattr(base.VirtualizationBase, name)
    count = len(inspect.signature(method).parameters)
    rotation = make_rotation(base)
    with pytest.raises(TypeError):
        method(rotation, *[None] * count)


@pytest.mark.parametrize("name", [*CALLABLE_WITH_REQUIRED, "get_state", "__call__"])
def test_unknown_keyword_is_a_type_error(base, name):
    method = getattr(base.VirtualizationBase, name)
    rotation = make_rotation(base)
    arguments = dict.fromkeys(without_self(METHOD_SIGNATURES[name]).strip("()").split(", "))
    arguments = {key: None for key in arguments if key.isidentifier()}
    with pytest.raises(TypeError, match="surplus"):
        method(rotation, **arguments, surplus=1)


def test_argument_given_twice_is_a_type_error(base):
    with pytest.raises(TypeError, match="key"):
        make_rotation(base)._slot_for_key((1,), key=(1,))


def test_arguments_may_be_given_by_keyword(base):
    rotation = make_rotation(base)
    record = rotation._normalize_structure(item=structure((1,), [(0, 1.0)]))
    assert rotation._slot_for_key(key=record.key) == 0
    assert rotation._structure_is_valid(
        N=2, combined_nan_mask=[0, 0], nan_masks=(), structure=record
    )
    assert rotation._parse_transformation_expression(expression="none") == []
    context = rotation._make_child_context(day_index=2, parent_context=None)
    assert rotation._run_child_chain(child_context=context, txi_values=[1.0]).tolist() == [1.0]
    output = np.zeros(2)
    assert rotation._unmap(N=2, output_buf=output, txi_output=np.full(4, np.nan)) is None
    assert rotation._record_trace(N=2, output_buf=output) is None


def test_method_called_without_an_instance_is_a_type_error(base):
    with pytest.raises(TypeError):
        base.VirtualizationBase.compute()


def test_method_called_through_the_class_takes_any_object_as_self(base):
    stand_in = Context(slot_by_key={}, key_by_slot={}, max_structures=1, _name="x")
    assert base.VirtualizationBase._slot_for_key(stand_in, "a") == 0
    assert stand_in.slot_by_key == {("a",): 0}


def test_context_is_keyword_only_in_call_and_batch(base):
    rotation = make_rotation(base)
    context = Context(current_day_index=1)
    assert rotation(np.ones(3), np.ones(3), context=context).shape == (3,)
    assert rotation.batch_reference(np.ones((2, 3)), context=context).shape == (2, 3)
    with pytest.raises((TypeError, ValueError)):
        rotation(np.ones(3), context)
