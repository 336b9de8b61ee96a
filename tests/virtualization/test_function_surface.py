"""The module's functions as tools see them: names, dictionaries, hints, descriptors."""

import copy
import functools
import inspect
import pickle
import typing

import numpy as np
import pytest

from support.fakes import make_rotation, structure


@pytest.fixture
def compute(base):
    return vars(base.VirtualizationBase)["compute"]


NOT_STRINGS = [5, None, b"name", ["name"]]
NAMES = ["__name__", "__qualname__"]


@pytest.mark.parametrize("attribute", NAMES)
@pytest.mark.parametrize("value", NOT_STRINGS)
def test_name_must_be_a_string(compute, attribute, value):
    before = getattr(compute, attribute)
    with pytest.raises(TypeError, match=f"^{attribute} must be set to a string object$"):
        setattr(compute, attribute, value)
    assert getattr(compute, attribute) == before


@pytest.mark.parametrize("attribute", NAMES)
def test_name_cannot_be_deleted(compute, attribute):
    with pytest.raises(TypeError, match=f"^{attribute} must be set to a string object$"):
        delattr(compute, attribute)
    assert "VirtualizationBase.compute" in repr(compute)
    with pytest.raises(TypeError, match=r"^VirtualizationBase\.compute\(\) missing 6"):
        compute()
    assert copy.copy(compute) is compute


@pytest.mark.parametrize("attribute", NAMES)
@pytest.mark.parametrize("value", ["other", "", "näme", "\udc80", type("Text", (str,), {})("x")])
def test_name_may_be_any_string(compute, attribute, value):
    setattr(compute, attribute, value)
    assert getattr(compute, attribute) is value


def test_printing_follows_the_qualified_name(compute):
    compute.__qualname__ = "Other.day"
    compute.__name__ = "ignored"
    assert repr(compute).startswith("<function Other.day at 0x")


def test_pickling_follows_the_qualified_name(base, compute):
    compute.__qualname__ = "VirtualizationBase.resize"
    with pytest.raises(pickle.PicklingError):
        pickle.dumps(compute)
    compute.__qualname__ = "VirtualizationBase.compute"
    assert pickle.loads(pickle.dumps(compute)) is compute


@pytest.mark.parametrize("attribute", ["__doc__", "__module__"])
@pytest.mark.parametrize("value", [5, None, "text"])
def test_docstring_and_module_may_be_anything(compute, attribute, value):
    setattr(compute, attribute, value)
    assert getattr(compute, attribute) == value


def test_docstring_may_be_deleted(compute):
    del compute.__doc__
    assert compute.__doc__ is None


def test_function_takes_attributes(compute):
    compute.note = "kept"
    assert vars(compute) == {"note": "kept"}
    del compute.note
    assert vars(compute) == {}


def test_dictionary_may_be_replaced_by_a_dictionary_only(compute):
    attributes = {"note": 1}
    compute.__dict__ = attributes
    assert vars(compute) is attributes
    assert compute.note == 1
    with pytest.raises(TypeError):
        compute.__dict__ = 5


def test_function_has_no_hints(base):
    for member in vars(base.VirtualizationBase).values():
        if inspect.isroutine(member) and not isinstance(member, staticmethod):
            assert typing.get_type_hints(member) == {}
    assert typing.get_type_hints(base.VirtualizationBase._validate_constructor) == {}
    assert base.VirtualizationBase.compute.__annotations__ == {}


def test_hints_may_be_given_later(compute):
    compute.__annotations__ = {"return": "int"}
    assert typing.get_type_hints(compute) == {"return": int}


def test_wrapper_takes_over_the_names_and_nothing_else(compute):
    @functools.wraps(compute)
    def wrapper(*args):
        return None

    assert vars(wrapper) == {"__wrapped__": compute}
    assert wrapper.__name__ == "compute"
    assert wrapper.__qualname__ == "VirtualizationBase.compute"
    assert wrapper.__module__ == compute.__module__
    assert wrapper.__doc__ == compute.__doc__
    assert str(inspect.signature(wrapper)) == str(inspect.signature(compute))


def test_type_of_the_functions_is_immutable(compute):
    for change in [
        lambda: setattr(type(compute), "note", 5),
        lambda: setattr(type(compute), "__call__", len),
        lambda: delattr(type(compute), "__get__"),
    ]:
        with pytest.raises(TypeError, match=r"of immutable type '.*function'"):
            change()


def test_type_of_the_functions_makes_none_without_content(compute):
    with pytest.raises(TypeError):
        type(compute)()


def test_type_of_the_functions_is_no_base_class(compute):
    with pytest.raises(TypeError, match="is not an acceptable base type"):
        type("Derived", (type(compute),), {})


def test_descriptor_binds_as_a_function_does(compute):
    assert compute.__get__(None, int) is compute
    thing = object()
    assert compute.__get__(thing).__self__ is thing
    assert compute.__get__(thing, object).__func__ is compute
    with pytest.raises(TypeError, match=r"__get__\(None, None\) is invalid"):
        compute.__get__(None, None)


def test_functions_are_equal_to_themselves_alone(base, compute):
    assert compute == base.VirtualizationBase.compute
    assert compute != base.VirtualizationBase.resize
    assert len({compute, base.VirtualizationBase.compute}) == 1


def test_renamed_functions_still_compute_the_day(base):
    for member in vars(base.VirtualizationBase).values():
        if inspect.isroutine(member) and not isinstance(member, staticmethod):
            member.__name__ = member.__qualname__ = "renamed"
            member.note = "changed"
    rotation = make_rotation(base, [[structure("a", [(0, 1.0)], 2.0)]] * 2)
    for _ in range(2):
        assert rotation(np.ones(2)).tolist()[0] == 2.0


# --- names that the module misses -------------------------------------------------------------

NEEDED = {
    "np": lambda rotation: rotation._unmap(np.ones(4), np.zeros(2), 2),
    "VirtualStructure": lambda rotation: rotation._normalize_structure(structure("a", [])),
    "_VirtualContext": lambda rotation: rotation._make_child_context(None, 0),
    "_AllOnesVirtualMask": lambda rotation: rotation._make_child_context(None, 0),
    "abstract_method_required": lambda rotation: type(rotation).__base__._refresh_active_structures(
        rotation, 1, 2, 3, 4, 5
    ),
    "_IDENTITY_EXPRESSIONS": lambda rotation: rotation._parse_transformation_expression("x"),
    "_EXPRESSION_TOKEN_RE": lambda rotation: rotation._parse_transformation_expression("x"),
    "_CHILD_ROTATION_ALIASES": lambda rotation: rotation._parse_transformation_expression("x"),
    "MAX_TRANSFORMATION_CHILDREN": lambda rotation: rotation._parse_transformation_expression(
        "rank"
    ),
    "MAX_VIRTUAL_STRUCTURES": lambda rotation: rotation._validate_constructor(
        1, "none", 1, "equal_split"
    ),
    "copy": lambda rotation: rotation._restore_child_snapshots([{}]),
}


class Restoring:
    def set_state(self, state):
        raise AssertionError("not to be reached")


@pytest.mark.parametrize("name", NEEDED)
def test_missing_global_is_a_name_error_with_its_name(base, name):
    rotation = make_rotation(base, child_rotations=[Restoring()])
    delattr(base, name)
    if name == "copy":
        # An error of a child is collected, not raised.
        (error,) = NEEDED[name](rotation)
    else:
        with pytest.raises(NameError) as caught:
            NEEDED[name](rotation)
        error = caught.value
    assert type(error) is NameError
    assert error.args == (f"name '{name}' is not defined",)
    assert error.name == name
