"""What importing the module binds."""

import copy
import dataclasses
import gc
import importlib
import re
import weakref

import numpy as np
import pytest

from support.fakes import make_rotation, structure
from support.siblings import BASE_NAME, load_base
from virtualization.surface.names import MODULE_NAMES

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
