"""What importing the module binds, and what its classes look like from outside."""

import abc
import contextlib
import copy
import dataclasses
import gc
import importlib
import inspect
import pickle
import pydoc
import re
import sys
import weakref

import numpy as np
import pytest

from support.fakes import Context, MemoryStore, StatefulChild, make_rotation, structure
from support.siblings import (
    BASE_NAME,
    BOILERPLATE_NAME,
    HOOKS_NAME,
    REGISTRY_NAME,
    Siblings,
    installed_base,
    load_base,
    plain_rotation_base,
)

MODULE_NAMES = [
    "copy",
    "dataclass",
    "re",
    "np",
    "abstract_method_required",
    "RotationBase",
    "MAX_VIRTUAL_STRUCTURES",
    "MAX_TRANSFORMATION_EXPRESSION_BYTES",
    "MAX_TRANSFORMATION_CHILDREN",
    "MAX_TRANSFORMATION_CHILD_ALLOCATION_CELLS",
    "_IDENTITY_EXPRESSIONS",
    "_CHILD_ROTATION_ALIASES",
    "_EXPRESSION_TOKEN_RE",
    "VirtualStructure",
    "_VirtualContext",
    "_AllOnesVirtualMask",
    "VirtualizationBase",
]

METHOD_SIGNATURES = {
    "__init__": (
        "(self, *, max_structures=None, transformation_expression=None, N_alloc=None, "
        "unmap_policy='proportional', child_factories=None, child_rotations=None, "
        "trace_sink=None, **kwargs)"
    ),
    "_validate_constructor": "(max_structures, transformation_expression, N_alloc, unmap_policy)",
    "_parse_transformation_expression": "(self, expression)",
    "stateful": "(self)",
    "_refresh_active_structures": (
        "(self, space_input, structure_inputs, nan_masks, combined_nan_mask, N)"
    ),
    "_normalize_structure": "(self, item)",
    "_slot_for_key": "(self, key)",
    "_structure_is_valid": "(self, structure, nan_masks, combined_nan_mask, N)",
    "_make_child_context": "(self, parent_context, day_index)",
    "_run_child_chain": "(self, txi_values, child_context)",
    "_unmap": "(self, txi_output, output_buf, N)",
    "_record_trace": "(self, output_buf, N)",
    "compute": "(self, args, nan_masks, combined_nan_mask, output_buf, N)",
    "__call__": "(self, *args, context=None)",
    "batch_reference": "(self, *matrices, context=None)",
    "get_state": "(self)",
    "_validate_state_components": "(self, state)",
    "_validate_child_states": "(self, state)",
    "_snapshot_child_states": "(self)",
    "_restore_child_snapshots": "(self, snapshots)",
    "set_state": "(self, state)",
    "checkpoint": "(self, utility)",
    "recover": "(self, utility)",
    "resize": "(self, new_N_alloc)",
}
PLAIN_METHODS = [
    name for name in METHOD_SIGNATURES if name not in ("_validate_constructor", "stateful")
]
BODY_NAMES = ["_name", "arity", *METHOD_SIGNATURES]

# What the interpreter itself adds to a class body or a class, by version.
INTERPRETER_NAMES = {
    "__module__",
    "__qualname__",
    "__doc__",
    "__classcell__",
    "__classdictcell__",
    "__firstlineno__",
    "__static_attributes__",
    "__dict__",
    "__weakref__",
    "__abstractmethods__",
    "_abc_impl",
    "__annotate__",
    "__annotate_func__",
    "__annotations_cache__",
}


def own_names(mapping):
    return [name for name in mapping if name not in INTERPRETER_NAMES]


def without_self(signature):
    return signature.replace("(self, ", "(").replace("(self)", "()")


# --- module globals ---------------------------------------------------------------------------


def test_module_binds_exactly_its_names_in_order(base):
    assert [name for name in vars(base) if not name.startswith("__")] == MODULE_NAMES


def test_module_docstring(base):
    assert base.__doc__ == "Common TxN/TxI adapter for virtualization rotations."


def test_module_knows_its_own_name(base):
    assert base.__name__ == BASE_NAME


def test_imports_are_the_very_objects_of_their_modules(base, siblings):
    assert base.copy is copy
    assert base.dataclass is dataclasses.dataclass
    assert base.re is re
    assert base.np is np
    assert base.abstract_method_required == siblings.abstract_method_required
    assert base.RotationBase is siblings.RotationBase


@pytest.mark.parametrize(
    ("name", "value"),
    [
        ("MAX_VIRTUAL_STRUCTURES", 1000000),
        ("MAX_TRANSFORMATION_EXPRESSION_BYTES", 512),
        ("MAX_TRANSFORMATION_CHILDREN", 4),
        ("MAX_TRANSFORMATION_CHILD_ALLOCATION_CELLS", 1000000),
    ],
)
def test_limit_is_an_int_of_its_value(base, name, value):
    limit = getattr(base, name)
    assert type(limit) is int
    assert limit == value


def test_cell_limit_is_the_structure_limit_of_import_time(base):
    assert base.MAX_TRANSFORMATION_CHILD_ALLOCATION_CELLS is base.MAX_VIRTUAL_STRUCTURES
    base.MAX_VIRTUAL_STRUCTURES = 5
    assert base.MAX_TRANSFORMATION_CHILD_ALLOCATION_CELLS == 1000000


def test_identity_expressions_are_a_mutable_set_of_eight(base):
    assert type(base._IDENTITY_EXPRESSIONS) is set
    assert base._IDENTITY_EXPRESSIONS == {
        "",
        "identity",
        "identity()",
        "noop",
        "noop()",
        "none",
        "recording_identity",
        "recording_identity()",
    }


def test_alias_table_in_insertion_order(base):
    assert type(base._CHILD_ROTATION_ALIASES) is dict
    assert list(base._CHILD_ROTATION_ALIASES.items()) == [
        ("ewma", ("longitudinal_ewma_67301c", "window")),
        ("longitudinal_ewma_67301c", ("longitudinal_ewma_67301c", "window")),
        ("zscore", ("latitudinal_normalize_092871", None)),
        ("latitudinal_normalize_092871", ("latitudinal_normalize_092871", None)),
        ("rank", ("latitudinal_rank_688068", None)),
        ("latitudinal_rank_688068", ("latitudinal_rank_688068", None)),
        ("sigmoid", ("numerical_transcendental_2f4f61", None)),
        ("numerical_transcendental_2f4f61", ("numerical_transcendental_2f4f61", None)),
    ]


@pytest.mark.parametrize("alias", ["ewma", "zscore", "rank", "sigmoid"])
def test_alias_and_full_name_share_one_exact_tuple(base, alias):
    entry = base._CHILD_ROTATION_ALIASES[alias]
    assert type(entry) is tuple
    assert base._CHILD_ROTATION_ALIASES[entry[0]] is entry


def test_token_pattern_is_compiled_without_flags(base):
    assert isinstance(base._EXPRESSION_TOKEN_RE, re.Pattern)
    assert base._EXPRESSION_TOKEN_RE.pattern == r"^([A-Za-z_][A-Za-z0-9_]*)(?:\(([^()]*)\))?$"
    assert base._EXPRESSION_TOKEN_RE.flags == re.UNICODE


@pytest.mark.parametrize(
    ("token", "groups"),
    [
        ("ewma(20)", ("ewma", "20")),
        ("rank", ("rank", None)),
        ("rank()", ("rank", "")),
        ("_x1( a )", ("_x1", " a ")),
    ],
)
def test_token_pattern_splits_name_and_argument(base, token, groups):
    assert base._EXPRESSION_TOKEN_RE.match(token).groups() == groups


@pytest.mark.parametrize("token", ["1rank", "rank(2)(3)", "ewma (20)", "rank(a(b))", ""])
def test_token_pattern_rejects(base, token):
    assert base._EXPRESSION_TOKEN_RE.match(token) is None


def test_every_import_makes_its_own_mutable_tables(kind, siblings):
    first, second = load_base(kind, siblings), load_base(kind, siblings)
    first._IDENTITY_EXPRESSIONS.add("mine")
    first._CHILD_ROTATION_ALIASES["mine"] = ("mine", None)
    assert "mine" not in second._IDENTITY_EXPRESSIONS
    assert "mine" not in second._CHILD_ROTATION_ALIASES


def test_import_registers_and_creates_nothing(base, siblings):
    assert siblings.registry_log == []
    assert siblings.hook_calls == []
    assert siblings.RotationBase.init_calls == []


def test_module_and_its_classes_are_freed_when_dropped(kind, siblings):
    base = load_base(kind, siblings)
    references = [weakref.ref(base.VirtualizationBase), weakref.ref(base._VirtualContext)]
    del base
    gc.collect()
    assert [reference() for reference in references] == [None, None]


# --- failing imports --------------------------------------------------------------------------

IMPORT_ORDER = ["copy", "dataclasses", "re", "numpy", HOOKS_NAME, BOILERPLATE_NAME]


@contextlib.contextmanager
def unavailable(names):
    """Make the modules unimportable: None in sys.modules halts an import."""
    saved = {name: sys.modules[name] for name in names if name in sys.modules}
    sys.modules.update(dict.fromkeys(names))
    try:
        yield
    finally:
        for name in names:
            del sys.modules[name]
        sys.modules.update(saved)


def import_upon(kind, siblings, prepare=None, missing=()):
    """Import the module on siblings that `prepare(modules)` spoiled, some modules missing."""
    spoiled = siblings

    class Spoiled:
        @contextlib.contextmanager
        def installed(self):
            with spoiled.installed() as modules:
                if prepare is not None:
                    prepare(modules)
                with unavailable(missing):
                    yield modules

    return load_base(kind, Spoiled())


@pytest.mark.parametrize("name", IMPORT_ORDER)
def test_missing_import_fails_as_python_says(kind, siblings, name):
    with pytest.raises(ModuleNotFoundError) as caught:
        import_upon(kind, siblings, missing=[name])
    assert caught.value.name == name


@pytest.mark.parametrize("position", range(len(IMPORT_ORDER) - 1))
def test_imports_run_in_their_order(kind, siblings, position):
    with pytest.raises(ModuleNotFoundError) as caught:
        import_upon(kind, siblings, missing=IMPORT_ORDER[position:])
    assert caught.value.name == IMPORT_ORDER[position]


@pytest.mark.parametrize(
    ("module", "member"),
    [(HOOKS_NAME, "abstract_method_required"), (BOILERPLATE_NAME, "RotationBase")],
)
def test_sibling_without_its_member_is_an_import_error(kind, siblings, module, member):
    with pytest.raises(ImportError, match=f"cannot import name '{member}'") as caught:
        import_upon(kind, siblings, lambda modules: delattr(modules[module], member))
    assert type(caught.value) is ImportError
    assert caught.value.name == module


@pytest.mark.parametrize("module", [HOOKS_NAME, BOILERPLATE_NAME])
def test_error_of_a_sibling_propagates_unchanged(kind, siblings, module):
    error = LookupError("sibling is broken")

    def spoil(modules):
        def __getattr__(name):
            if name in ("abstract_method_required", "RotationBase"):
                raise error
            raise AttributeError(name)

        vars(modules[module]).pop("abstract_method_required", None)
        vars(modules[module]).pop("RotationBase", None)
        modules[module].__getattr__ = __getattr__

    with pytest.raises(LookupError) as caught:
        import_upon(kind, siblings, spoil)
    assert caught.value is error


def test_import_needs_no_registry(kind, siblings):
    base = import_upon(kind, siblings, missing=[REGISTRY_NAME])
    assert base.VirtualizationBase._name == "virtualization_base"


def test_sibling_may_answer_through_module_getattr(kind, siblings):
    def move(modules):
        member = vars(modules[HOOKS_NAME]).pop("abstract_method_required")

        def __getattr__(name):
            if name == "abstract_method_required":
                return member
            raise AttributeError(name)

        modules[HOOKS_NAME].__getattr__ = __getattr__

    base = import_upon(kind, siblings, move)
    assert base.abstract_method_required == siblings.abstract_method_required


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


# --- the metaclass and the class hooks --------------------------------------------------------


def recording_metaclass(events, namespace_type=dict):
    """A metaclass that writes what each of its hooks receives into the list `events`."""

    class Meta(type):
        @classmethod
        def __prepare__(mcs, name, bases, **keywords):
            namespace = namespace_type()
            events.append(("prepare", name, bases, keywords, namespace))
            return namespace

        def __new__(mcs, name, bases, namespace, **keywords):
            events.append(("new", name, bases, keywords, namespace))
            return super().__new__(mcs, name, bases, dict(namespace))

        def __init__(cls, name, bases, namespace, **keywords):
            events.append(("init", name, bases, keywords, namespace))
            super().__init__(name, bases, namespace)

    return Meta


def metaclass_base(Meta):
    plain = plain_rotation_base()
    return Meta("RotationBase", (plain,), {"__module__": __name__})


def test_metaclass_hooks_run_once_each_with_name_and_bases(kind):
    events = []
    RotationBase = metaclass_base(recording_metaclass(events))
    events.clear()
    base = load_base(kind, Siblings(RotationBase=RotationBase))
    assert [event[:4] for event in events] == [
        (hook, "VirtualizationBase", (RotationBase,), {}) for hook in ("prepare", "new", "init")
    ]
    assert type(base.VirtualizationBase) is type(RotationBase)


def test_metaclass_receives_the_very_namespace_it_prepared(kind):
    events = []
    RotationBase = metaclass_base(recording_metaclass(events))
    events.clear()
    load_base(kind, Siblings(RotationBase=RotationBase))
    prepared, new, init = (event[4] for event in events)
    assert new is prepared
    assert init is prepared


def test_metaclass_sees_the_complete_body_in_order(kind):
    events = []
    RotationBase = metaclass_base(recording_metaclass(events))
    events.clear()
    base = load_base(kind, Siblings(RotationBase=RotationBase))
    namespace = events[1][4]
    assert own_names(namespace) == BODY_NAMES
    leading = [name for name in namespace if name in ("__module__", "__qualname__", "__doc__")]
    assert leading == ["__module__", "__qualname__", "__doc__"]
    assert namespace["__module__"] == BASE_NAME
    assert namespace["__qualname__"] == "VirtualizationBase"
    assert namespace["__doc__"] == base.VirtualizationBase.__doc__


def test_prepared_namespace_may_be_any_mapping_and_sees_every_assignment(kind):
    events = []
    assigned = []

    class Namespace:
        def __init__(self):
            self.entries = {}

        def __getitem__(self, name):
            return self.entries[name]

        def __setitem__(self, name, value):
            assigned.append(name)
            self.entries[name] = value

        def keys(self):
            return self.entries.keys()

    RotationBase = metaclass_base(recording_metaclass(events, Namespace))
    assigned.clear()
    base = load_base(kind, Siblings(RotationBase=RotationBase))
    assert own_names(assigned) == BODY_NAMES
    assert own_names(vars(base.VirtualizationBase)) == BODY_NAMES


def test_metaclass_may_wrap_every_method(kind):
    calls = []

    def wrapped(name, function):
        def wrapper(*args, **kwargs):
            calls.append(name)
            return function(*args, **kwargs)

        return wrapper

    class Meta(type):
        def __new__(mcs, name, bases, namespace):
            if name == "VirtualizationBase":
                for key, value in list(namespace.items()):
                    if callable(value) and not isinstance(value, (staticmethod, property)):
                        namespace[key] = wrapped(key, value)
            return super().__new__(mcs, name, bases, namespace)

    siblings = Siblings(RotationBase=metaclass_base(Meta))
    with installed_base(kind, siblings) as base:
        rotation = make_rotation(base, [[structure("a", [(0, 2.0)], 3.0)]])
        assert rotation(np.ones(2))[0] == 6.0
    assert calls == [
        "__init__",
        "_parse_transformation_expression",
        "__call__",
        "compute",
        "_normalize_structure",
        "_slot_for_key",
        "_structure_is_valid",
        "_make_child_context",
        "_run_child_chain",
        "_unmap",
        "_record_trace",
    ]


def test_metaclass_error_fails_the_import_unchanged(kind):
    error = RuntimeError("no such class here")

    class Meta(type):
        def __new__(mcs, name, bases, namespace):
            if name == "VirtualizationBase":
                raise error
            return super().__new__(mcs, name, bases, namespace)

    with pytest.raises(RuntimeError) as caught:
        load_base(kind, Siblings(RotationBase=metaclass_base(Meta)))
    assert caught.value is error


def test_metaclass_call_makes_the_instances(kind):
    made = []

    class Meta(type):
        def __call__(cls, **kwargs):
            instance = super().__call__(**kwargs)
            made.append(instance)
            return instance

    base = load_base(kind, Siblings(RotationBase=metaclass_base(Meta)))
    rotation = make_rotation(base)
    assert made == [rotation]


def test_abstract_methods_are_settled_by_the_class_body(kind):
    class RotationBase(plain_rotation_base(), metaclass=abc.ABCMeta):
        @abc.abstractmethod
        def compute(self, args, nan_masks, combined_nan_mask, output_buf, N): ...

        @abc.abstractmethod
        def describe(self): ...

    base = load_base(kind, Siblings(RotationBase=RotationBase))
    assert base.VirtualizationBase.__abstractmethods__ == frozenset({"describe"})
    with pytest.raises(TypeError, match="describe"):
        make_rotation(base)
    assert make_rotation(base, attributes={"describe": lambda self: "x"}).describe() == "x"


def test_subclass_hook_sees_the_finished_class_once(kind):
    seen = []

    class RotationBase(plain_rotation_base()):
        def __init_subclass__(cls, **keywords):
            super().__init_subclass__()
            seen.append((cls, cls._name, keywords, own_names(vars(cls))))

    base = load_base(kind, Siblings(RotationBase=RotationBase))
    assert seen == [(base.VirtualizationBase, "virtualization_base", {}, BODY_NAMES)]


def test_subclass_hook_error_fails_the_import_unchanged(kind):
    error = LookupError("not welcome")

    class RotationBase(plain_rotation_base()):
        def __init_subclass__(cls):
            raise error

    with pytest.raises(LookupError) as caught:
        load_base(kind, Siblings(RotationBase=RotationBase))
    assert caught.value is error


def test_subclass_hook_runs_before_the_class_is_bound(kind):
    bound = []

    class RotationBase(plain_rotation_base()):
        def __init_subclass__(cls):
            module = vars(sys.modules[BASE_NAME])
            bound.append([name for name in module if not name.startswith("__")])

    load_base(kind, Siblings(RotationBase=RotationBase))
    assert bound == [MODULE_NAMES[:-1]]


def test_subclass_hook_may_replace_methods(kind):
    class RotationBase(plain_rotation_base()):
        def __init_subclass__(cls):
            if cls.__name__ == "VirtualizationBase":
                cls._slot_for_key = lambda self, key: 3

    base = load_base(kind, Siblings(RotationBase=RotationBase))
    assert make_rotation(base)._slot_for_key("any") == 3


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


# --- globals are looked up by name when they are needed ----------------------------------------


@pytest.mark.parametrize(
    ("name", "use"),
    [
        ("MAX_VIRTUAL_STRUCTURES", lambda base, rotation: make_rotation(base)),
        (
            "MAX_TRANSFORMATION_EXPRESSION_BYTES",
            lambda base, rotation: rotation._parse_transformation_expression("rank"),
        ),
        (
            "_IDENTITY_EXPRESSIONS",
            lambda base, rotation: rotation._parse_transformation_expression("rank"),
        ),
        (
            "_EXPRESSION_TOKEN_RE",
            lambda base, rotation: rotation._parse_transformation_expression("rank"),
        ),
        (
            "_CHILD_ROTATION_ALIASES",
            lambda base, rotation: rotation._parse_transformation_expression("rank"),
        ),
        (
            "MAX_TRANSFORMATION_CHILDREN",
            lambda base, rotation: rotation._parse_transformation_expression("rank"),
        ),
        (
            "MAX_TRANSFORMATION_CHILD_ALLOCATION_CELLS",
            lambda base, rotation: rotation._parse_transformation_expression("rank"),
        ),
        (
            "VirtualStructure",
            lambda base, rotation: rotation._normalize_structure(structure("a", [])),
        ),
        ("_AllOnesVirtualMask", lambda base, rotation: rotation._make_child_context(None, 0)),
        ("_VirtualContext", lambda base, rotation: rotation._make_child_context(None, 0)),
        (
            "abstract_method_required",
            lambda base, rotation: base.VirtualizationBase._refresh_active_structures(
                rotation, None, None, None, None, None
            ),
        ),
    ],
)
def test_deleted_global_is_a_name_error_where_it_is_needed(base, name, use):
    rotation = make_rotation(base)
    delattr(base, name)
    with pytest.raises(NameError, match=f"name '{name}' is not defined"):
        use(base, rotation)


def test_the_ordinary_import_gives_the_native_module():
    base = importlib.import_module(BASE_NAME)
    assert type(base.__loader__).__name__ == "ExtensionFileLoader"
    assert base.__doc__ == "Common TxN/TxI adapter for virtualization rotations."
