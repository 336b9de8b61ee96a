"""The children that an expression makes: the registry and the tables of names."""

import sys

import pytest

from support.siblings import REGISTRY_NAME
from virtualization.expression.children import EWMA, RANK, ZSCORE, failure, requests

# --- the registry -----------------------------------------------------------------------------


def test_one_registry_is_made_per_parse_for_the_child_space(rotation, siblings):
    rotation._parse_transformation_expression("rank;zscore")
    rotation.max_structures = 11
    rotation._parse_transformation_expression("rank")
    made = [event for event in siblings.registry_log if event[0] == "registry"]
    assert made == [("registry", 4), ("registry", 11)]


def test_registry_is_imported_at_every_parse(base, rotation):
    class Other:
        def __init__(self, **arguments):
            assert arguments == {"N_alloc": 4}

        def create_instance(self, *args, **params):
            return args, params

    sys.modules[REGISTRY_NAME].StaticFunctionRegistry = Other
    assert rotation._parse_transformation_expression("rank;ewma(2)") == [
        ((RANK,), {}),
        ((EWMA,), {"window": 2}),
    ]


def test_registry_is_not_imported_for_an_identity_or_a_bad_expression(rotation, monkeypatch):
    monkeypatch.setitem(sys.modules, REGISTRY_NAME, None)
    assert rotation._parse_transformation_expression("none") == []
    assert "unsupported" in str(failure(rotation, "foo"))


def test_missing_registry_is_the_import_error(rotation, monkeypatch):
    monkeypatch.setitem(sys.modules, REGISTRY_NAME, None)
    with pytest.raises(ModuleNotFoundError) as caught:
        rotation._parse_transformation_expression("rank")
    assert caught.value.name == REGISTRY_NAME


def test_registry_module_without_the_class_is_an_import_error(rotation):
    del sys.modules[REGISTRY_NAME].StaticFunctionRegistry
    with pytest.raises(ImportError, match="cannot import name 'StaticFunctionRegistry'"):
        rotation._parse_transformation_expression("rank")


def test_error_of_the_registry_propagates(rotation):
    error = LookupError("closed")

    def closed(**arguments):
        raise error

    sys.modules[REGISTRY_NAME].StaticFunctionRegistry = closed
    with pytest.raises(LookupError) as caught:
        rotation._parse_transformation_expression("rank")
    assert caught.value is error


def test_error_of_one_creation_propagates_and_stops(rotation):
    error = KeyError("unknown")
    asked = []

    class Registry:
        def __init__(self, N_alloc):
            pass

        def create_instance(self, name):
            asked.append(name)
            if name == ZSCORE:
                raise error
            return name

    sys.modules[REGISTRY_NAME].StaticFunctionRegistry = Registry
    with pytest.raises(KeyError) as caught:
        rotation._parse_transformation_expression("rank;zscore;sigmoid")
    assert caught.value is error
    assert asked == [RANK, ZSCORE]


def test_whatever_the_registry_creates_is_returned(rotation):
    class Registry:
        def __init__(self, N_alloc):
            pass

        def create_instance(self, name):
            return None

    sys.modules[REGISTRY_NAME].StaticFunctionRegistry = Registry
    assert rotation._parse_transformation_expression("rank;rank") == [None, None]


# --- the tables -------------------------------------------------------------------------------


def test_alias_added_to_the_table_is_supported(base, rotation, siblings):
    base._CHILD_ROTATION_ALIASES["double"] = ("my_double", None)
    base._CHILD_ROTATION_ALIASES["scale"] = ["my_scale", "factor"]
    rotation._parse_transformation_expression("Double;scale(3)")
    assert requests(siblings) == [("my_double", {}), ("my_scale", {"factor": 3})]


def test_alias_table_is_read_when_called(base, rotation):
    base._CHILD_ROTATION_ALIASES = {"only": ("only", None)}
    assert "unsupported" in str(failure(rotation, "rank"))
    assert len(rotation._parse_transformation_expression("only")) == 1


def test_alias_table_may_answer_for_itself(base, rotation, siblings):
    class Everything(dict):
        def __contains__(self, name):
            return True

        def __missing__(self, name):
            return ("made_" + name, None)

    base._CHILD_ROTATION_ALIASES = Everything()
    rotation._parse_transformation_expression("Anything")
    assert requests(siblings) == [("made_anything", {})]


def test_registry_name_may_be_any_object(base, rotation, siblings):
    marker = object()
    base._CHILD_ROTATION_ALIASES["rank"] = (marker, None)
    rotation._parse_transformation_expression("rank")
    assert requests(siblings)[0][0] is marker


def test_only_none_means_that_no_argument_is_taken(base, rotation):
    base._CHILD_ROTATION_ALIASES["rank"] = ("rank", "")
    assert "requires an integer argument" in str(failure(rotation, "rank"))


def test_alias_entry_that_is_no_pair_is_an_unpacking_error(base, rotation):
    base._CHILD_ROTATION_ALIASES["rank"] = ("rank", None, None)
    assert "unpack" in str(failure(rotation, "rank"))


def test_token_pattern_is_read_when_called(base, rotation, siblings):
    base._EXPRESSION_TOKEN_RE = base.re.compile(r"(\w+)(?:\[(\d+)\])?$")
    rotation._parse_transformation_expression("ewma[5]")
    assert requests(siblings) == [(EWMA, {"window": 5})]
    assert "malformed" in str(failure(rotation, "ewma(5)"))


def test_expression_that_is_no_text_fails_at_its_first_use(rotation):
    with pytest.raises(AttributeError):
        rotation._parse_transformation_expression(None)
