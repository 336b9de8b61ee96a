"""Imports that fail half-way, or make the class in an unusual way, as a Python module would.

What a failed import leaves behind, and a base class with a mind of its own, may have any effect
that it would have on Python code, and no other.
"""

import builtins
import contextlib
import sys
import types
import typing
from unittest import mock

import pytest

from support.isolated import run_isolated
from support.siblings import (
    BOILERPLATE_NAME,
    HOOKS_NAME,
    Siblings,
    installed_base,
    load_base,
    plain_rotation_base,
)

pytestmark = pytest.mark.filterwarnings("error")

FAILED_IN_INIT_SUBCLASS = """
    left = []

    class Base(plain_rotation_base()):
        def __init_subclass__(cls, **further):
            module = sys.modules[BASE_NAME]
            left.extend([cls, module._VirtualContext, module._AllOnesVirtualMask])
            raise RuntimeError("refused")

    try:
        load_base(kind, Siblings(RotationBase=Base))
    except RuntimeError as error:
        print(error)
    gc.collect()
    fill = [bytearray(1000) for _ in range(5000)]
    made, context, mask = left
"""


@pytest.mark.parametrize("kind", ["native", "twin"])
def test_classes_of_a_failed_import_live_on(kind):
    printed = run_isolated(
        kind,
        FAILED_IN_INIT_SUBCLASS
        + """
    print(vars(context(1, 2)), mask(3, np.ones(2)).shape)
    try:
        made._validate_constructor(1, "none", 3, "x")
    except ValueError as error:
        print(error)
    rotation = made(max_structures=2, N_alloc=3, transformation_expression="none")
    rotation._refresh_active_structures = lambda *day: [
        {"key": (1,), "legs": ((0, 1.0),), "value": 2.0}
    ]
    print(rotation(np.ones(3)), rotation.get_state()["slot_by_key"])
    """,
    )
    assert printed.splitlines() == [
        "refused",
        "{'universe_mask': 1, 'current_day_index': 2} (3, 2)",
        "unmap_policy must be one of: proportional, equal_split",
        "[ 2. nan nan] {(1,): 0}",
    ]


@pytest.mark.parametrize("kind", ["native", "twin"])
def test_functions_of_a_failed_import_outlive_their_class(kind):
    printed = run_isolated(
        kind,
        FAILED_IN_INIT_SUBCLASS
        + """
    compute, getitem = made.compute, mask.__getitem__
    del made, context, mask
    left.clear()
    gc.collect()
    fill = [bytearray(1000) for _ in range(5000)]
    for call in [compute, lambda: getitem(object(), 0)]:
        try:
            call()
        except (TypeError, AttributeError) as error:
            print(error)
    """,
    )
    assert "VirtualizationBase.compute() missing 6 required positional arguments" in printed
    assert "'object' object has no attribute 'shape'" in printed


@pytest.mark.parametrize("kind", ["native", "twin"])
def test_namespace_of_a_class_that_was_never_made_stays_callable(kind):
    printed = run_isolated(
        kind,
        """
        left = {}

        class Refusing(type):
            def __new__(metaclass, name, bases, namespace):
                if name == "VirtualizationBase":
                    left.update(namespace)
                    raise LookupError("no class")
                return super().__new__(metaclass, name, bases, namespace)

        Base = Refusing("Base", (plain_rotation_base(),), {})
        try:
            load_base(kind, Siblings(RotationBase=Base))
        except LookupError as error:
            print(error)
        gc.collect()
        fill = [bytearray(1000) for _ in range(5000)]

        class StandIn:
            _n_alloc = 3

            def _validate_constructor(self, *arguments):
                print(arguments)

        for name in ["__init__", "__call__"]:
            try:
                left[name](StandIn())
            except (RuntimeError, NameError):
                # Interpreters differ in how they word it.
                print(name, "misses its class")
        print(left["stateful"].fget(None))
        """,
    )
    assert printed.splitlines() == [
        "no class",
        "(None, None, None, 'proportional')",
        "__init__ misses its class",
        "__call__ misses its class",
        "True",
    ]


@pytest.mark.parametrize("kind", ["native", "twin"])
def test_day_may_run_while_the_class_is_being_made(kind):
    printed = run_isolated(
        kind,
        """
        class Base(plain_rotation_base()):
            def __init_subclass__(cls, **further):
                rotation = cls(max_structures=2, N_alloc=3, transformation_expression="none")
                rotation._refresh_active_structures = lambda *day: [
                    {"key": (1,), "legs": ((0, 1.0),), "value": 2.0}
                ]
                for _ in range(3):
                    print(rotation(np.ones(3)))
                print(rotation.batch_reference(np.ones((2, 3))).tolist())

        base = load_base(kind, Siblings(RotationBase=Base))
        """,
    )
    assert printed.splitlines() == ["[ 2. nan nan]"] * 3 + ["[[2.0, nan, nan], [2.0, nan, nan]]"]


# --- the class statement ----------------------------------------------------------------------


def loaded(kind, RotationBase):
    """Load the module; return it, or the type and text of the error."""
    try:
        return load_base(kind, Siblings(RotationBase=RotationBase))
    except Exception as error:
        return (type(error), str(error))


def metaclass(make):
    """Make a base class whose metaclass makes VirtualizationBase by `make(name, bases, body)`."""

    class Meta(type):
        def __new__(cls, name, bases, body):
            if name == "VirtualizationBase":
                return make(lambda content: type.__new__(cls, name, bases, content), dict(body))
            return super().__new__(cls, name, bases, body)

    return Meta("Base", (plain_rotation_base(),), {})


def without_cell(body):
    return {name: value for name, value in body.items() if name != "__classcell__"}


def test_metaclass_that_drops_the_class_cell_fails_the_import(kind):
    error, text = loaded(kind, metaclass(lambda make, body: make(without_cell(body))))
    assert error is RuntimeError
    assert text == (
        "__class__ not set defining 'VirtualizationBase' as <class 'quorvane.functions.rotations"
        ".virtualization.base.VirtualizationBase'>. Was __classcell__ propagated to type.__new__?"
    )


def test_metaclass_that_sets_the_cell_to_another_class_fails_the_import(kind):
    def make_two(make, body):
        first = make(without_cell(body))
        make(body)
        return first

    error, text = loaded(kind, metaclass(make_two))
    assert error is TypeError
    assert text.startswith("__class__ set to <class 'quorvane")
    assert "defining 'VirtualizationBase' as <class 'quorvane" in text


def test_metaclass_may_return_anything_but_a_class_without_its_cell(kind):
    base = loaded(kind, metaclass(lambda make, body: 42))
    assert base.VirtualizationBase == 42


def test_metaclass_that_replaces_the_cell_value_by_rubbish_is_pythons_error(kind):
    error, text = loaded(kind, metaclass(lambda make, body: make({**body, "__classcell__": 5})))
    assert error is TypeError
    assert text.removeprefix("type.__new__: ") == (
        "__classcell__ must be a nonlocal cell, not <class 'int'>"
    )


def test_generic_alias_as_base_gives_the_origin_as_base(kind):
    class Base(plain_rotation_base(), typing.Generic[typing.TypeVar("T")]):
        pass

    base = loaded(kind, Base[int])
    assert base.VirtualizationBase.__bases__ == (Base,)
    assert base.VirtualizationBase.__orig_bases__ == (Base[int],)
    assert base.RotationBase == Base[int]


class Entries:
    def __init__(self, answer):
        self.answer = answer
        self.asked = []

    def __mro_entries__(self, bases):
        self.asked.append(bases)
        return self.answer


def test_base_may_name_its_entries(kind):
    Base = plain_rotation_base()
    given = Entries((Base,))
    base = loaded(kind, given)
    assert given.asked == [(given,)]
    assert base.VirtualizationBase.__bases__ == (Base,)
    assert base.VirtualizationBase.__orig_bases__ == (given,)


def test_base_may_name_no_entries(kind):
    base = loaded(kind, Entries(()))
    assert base.VirtualizationBase.__bases__ == (object,)
    assert base.VirtualizationBase._name == "virtualization_base"


def test_entries_must_be_a_tuple(kind):
    assert loaded(kind, Entries([object])) == (TypeError, "__mro_entries__ must return a tuple")


def test_bases_of_conflicting_metaclasses_fail_the_import(kind):
    class First(type):
        pass

    class Second(type):
        pass

    error, text = loaded(kind, Entries((First("A", (), {}), Second("B", (), {}))))
    assert error is TypeError
    assert text.startswith("metaclass conflict: the metaclass of a derived class must be")


def test_base_that_is_no_class_has_its_type_make_the_class(kind):
    class Maker:
        def __init__(self, *arguments):
            self.arguments = arguments

    given = Maker()
    made = loaded(kind, given).VirtualizationBase
    name, bases, body = made.arguments
    assert (type(made), name, bases) == (Maker, "VirtualizationBase", (given,))
    assert body["arity"] == 2


@pytest.mark.parametrize("body", [5, None, {1}], ids=repr)
def test_prepared_body_that_is_no_mapping_fails_the_import(kind, body):
    class Meta(type):
        @classmethod
        def __prepare__(cls, name, bases):
            return body

    Base = type.__new__(Meta, "Base", (plain_rotation_base(),), {})
    assert loaded(kind, Base) == (
        TypeError,
        f"Meta.__prepare__() must return a mapping, not {type(body).__name__}",
    )


def test_prepared_body_is_filled_in_the_order_of_a_class_statement():
    def names_set(kind):
        class Body(dict):
            def __setitem__(self, name, value):
                names.append(name)
                super().__setitem__(name, value)

        class Meta(type):
            @classmethod
            def __prepare__(cls, name, bases, **further):
                prepared.append((name, bases, further))
                return Body()

        names, prepared = [], []
        Base = type.__new__(Meta, "Base", (plain_rotation_base(),), {})
        load_base(kind, Siblings(RotationBase=Base))
        interpreters = {"__classdictcell__", "__firstlineno__", "__static_attributes__"}
        assert prepared == [("VirtualizationBase", (Base,), {})]
        return [name for name in names if name not in interpreters]

    assert names_set("native") == names_set("twin")


# --- the modules it imports -------------------------------------------------------------------


@contextlib.contextmanager
def patched_import(hook):
    """Put `hook(real, name, *arguments)` in place of the builtin that imports."""
    real = builtins.__import__

    def patched(name, *arguments, **further):
        return hook(real, name, *arguments, **further)

    with mock.patch.object(builtins, "__import__", patched):
        yield


def test_importing_goes_through_the_patched_builtin_in_order(kind):
    wanted = {"copy", "dataclasses", "re", "numpy", HOOKS_NAME, BOILERPLATE_NAME}
    log = []

    def hook(real, name, globals=None, locals=None, fromlist=(), level=0):  # noqa: A002
        if name in wanted:
            log.append((name, fromlist or None, level))
        return real(name, globals, locals, fromlist, level)

    with patched_import(hook):
        load_base(kind, Siblings())
    assert log == [
        ("copy", None, 0),
        ("dataclasses", ("dataclass",), 0),
        ("re", None, 0),
        ("numpy", None, 0),
        (HOOKS_NAME, ("abstract_method_required",), 0),
        (BOILERPLATE_NAME, ("RotationBase",), 0),
    ]


class Nameless(types.ModuleType):
    """Module without a file, as one is that was made in memory."""


@pytest.mark.parametrize("file", [None, "/somewhere/else.py"])
def test_missing_name_of_an_import_is_told_with_the_modules_place(kind, file):
    bare = Nameless("dataclasses")
    if file is not None:
        bare.__file__ = file
    with mock.patch.dict(sys.modules, dataclasses=bare), pytest.raises(ImportError) as caught:
        load_base(kind, Siblings())
    assert str(caught.value) == (
        f"cannot import name 'dataclass' from 'dataclasses' ({file or 'unknown location'})"
    )
    assert (caught.value.name, caught.value.path) == ("dataclasses", file)


def test_missing_name_of_an_import_may_be_a_module_that_is_still_loading(kind):
    found = types.ModuleType("dataclasses.dataclass")
    loading = {"dataclasses": Nameless("dataclasses"), "dataclasses.dataclass": found}
    with mock.patch.dict(sys.modules, loading), pytest.raises(TypeError) as caught:
        load_base(kind, Siblings())
    assert "'module' object is not callable" in str(caught.value)


def test_numpy_without_its_c_interface_fails_the_import():
    hidden = dict.fromkeys(["numpy._core._multiarray_umath", "numpy.core._multiarray_umath"])
    with mock.patch.dict(sys.modules, hidden), pytest.raises(ImportError):
        load_base("native", Siblings())


@pytest.mark.parametrize("refused", ["copy", "re", "numpy", HOOKS_NAME, BOILERPLATE_NAME])
def test_import_that_the_patched_builtin_refuses_fails_the_module(kind, refused):
    error = ImportError("refused")

    def hook(real, name, *arguments, **further):
        if name == refused and sys.modules.get(refused) is not None:
            raise error
        return real(name, *arguments, **further)

    with patched_import(hook), pytest.raises(ImportError) as caught:
        load_base(kind, Siblings())
    assert caught.value is error


def test_registry_is_imported_through_the_patched_builtin(kind):
    error = ImportError("refused")
    log = []

    def hook(real, name, globals=None, locals=None, fromlist=(), level=0):  # noqa: A002
        if "quorvane" not in name:
            return real(name, globals, locals, fromlist, level)
        log.append((name, fromlist, level))
        raise error

    with installed_base(kind, Siblings()) as base:
        rotation = mock.Mock(_name="x", max_structures=2)
        with patched_import(hook), pytest.raises(ImportError) as caught:
            base.VirtualizationBase._parse_transformation_expression(rotation, "rank")
    assert caught.value is error
    assert log == [("quorvane.functions._registry", ("StaticFunctionRegistry",), 0)]


STAND_IN_NUMPY = """
    class StandIn:
        def __getattr__(self, name):
            return getattr(np, name)

    sys.modules["numpy"] = stand_in = StandIn()
    try:
        base = load_base(kind, Siblings())
    finally:
        sys.modules["numpy"] = np
    rotation = make_rotation(base, [[structure("a", [(0, 1.0)], 2.0)]] * 3)
    print(base.np is stand_in)
    for _ in range(3):
        print(rotation(np.ones(3)))
"""


@pytest.mark.parametrize("kind", ["native", "twin"])
def test_stand_in_for_numpy_at_import_time_serves_the_days(kind):
    printed = run_isolated(kind, STAND_IN_NUMPY)
    assert printed.splitlines() == ["True"] + ["[ 2. nan nan]"] * 3
