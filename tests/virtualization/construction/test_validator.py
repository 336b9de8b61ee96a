"""The validator of the constructor's arguments: sizes, expression, policy, in this order."""

import numpy as np
import pytest

from support.fakes import make_rotation, rotation_class, shown
from virtualization.construction.helpers import GOOD, Number, PlainInt, Text, construct, unfinished


class NeverPositive(int):
    def __le__(self, other):
        return True


class NeverAbove(int):
    def __gt__(self, other):
        return False


class BlankText(str):
    def strip(self, *characters):
        return ""


# --- the validator: integers ------------------------------------------------------------------


@pytest.mark.parametrize("name", ["max_structures", "N_alloc"])
@pytest.mark.parametrize(
    "value",
    [None, True, False, 5.0, "5", b"5", np.int64(5), np.float64(5), np.array(5), 5j, [5], object()],
    ids=shown,
)
def test_size_that_is_no_int_or_a_bool_is_a_type_error(base, name, value):
    with pytest.raises(TypeError) as caught:
        construct(base, **{name: value})
    assert str(caught.value) == f"{name} must be a positive integer"


@pytest.mark.parametrize("name", ["max_structures", "N_alloc"])
@pytest.mark.parametrize("value", [0, -1, -(10**30), PlainInt(0)])
def test_size_zero_or_negative_is_a_value_error(base, name, value):
    with pytest.raises(ValueError) as caught:  # noqa: PT011
        construct(base, **{name: value})
    assert str(caught.value) == f"{name} must be a positive integer"


@pytest.mark.parametrize("name", ["max_structures", "N_alloc"])
@pytest.mark.parametrize("value", [1000001, 2**31, 2**63, 2**64, 10**30])
def test_size_above_the_limit_is_a_value_error(base, name, value):
    with pytest.raises(ValueError) as caught:  # noqa: PT011
        construct(base, **{name: value})
    assert str(caught.value) == f"{name} must be <= 1000000"


@pytest.mark.parametrize("name", ["max_structures", "N_alloc"])
def test_size_at_the_limit_is_accepted(base, name):
    rotation = construct(base, **{name: 1000000})
    assert rotation.max_structures == (1000000 if name == "max_structures" else 4)
    assert rotation._n_alloc == (1000000 if name == "N_alloc" else 6)
    assert len(rotation._metadata_by_slot) == rotation.max_structures


@pytest.mark.parametrize("name", ["max_structures", "N_alloc", "transformation_expression"])
def test_argument_with_default_none_is_required_all_the_same(base, name):
    arguments = {key: value for key, value in GOOD.items() if key != name}
    error = ValueError if name == "transformation_expression" else TypeError
    with pytest.raises(error, match=f"^{name} must be a "):
        base.VirtualizationBase(**arguments)


@pytest.mark.parametrize("name", ["max_structures", "N_alloc"])
def test_limit_is_read_when_called(base, name):
    base.MAX_VIRTUAL_STRUCTURES = 5
    with pytest.raises(ValueError, match=f"^{name} must be <= 5$"):
        construct(base, **{"N_alloc": 5, name: 6})
    assert construct(base, **{"N_alloc": 5, name: 5}).max_structures in (4, 5)


def test_limit_may_be_raised(base):
    base.MAX_VIRTUAL_STRUCTURES = 10**40
    assert construct(base, N_alloc=1000001)._n_alloc == 1000001


def test_limit_may_be_any_number_that_compares_and_prints(base):
    base.MAX_VIRTUAL_STRUCTURES = 6.5
    with pytest.raises(ValueError, match=r"^max_structures must be <= 6\.5$"):
        construct(base, max_structures=7)


def test_deleted_limit_is_a_name_error(base):
    del base.MAX_VIRTUAL_STRUCTURES
    with pytest.raises(NameError, match="MAX_VIRTUAL_STRUCTURES"):
        construct(base)


@pytest.mark.parametrize("name", ["max_structures", "N_alloc"])
@pytest.mark.parametrize("value", [PlainInt(3), Number.THREE])
def test_size_may_be_an_int_subclass(base, name, value):
    assert construct(base, **{name: value}).max_structures in (3, 4)


@pytest.mark.parametrize("name", ["max_structures", "N_alloc"])
def test_size_is_compared_by_its_own_operators(base, name):
    with pytest.raises(ValueError, match=f"^{name} must be a positive integer$"):
        construct(base, **{name: NeverPositive(3)})
    with pytest.raises(ValueError, match=r"^unmap_policy"):
        construct(base, **{name: NeverAbove(1000001)}, unmap_policy="none")


# --- the validator: expression and policy -----------------------------------------------------


@pytest.mark.parametrize(
    "value", [None, 5, b"rank", ["rank"], "", " ", "   ", "\t\r\n", "\u2003", BlankText("rank")]
)
def test_expression_that_is_no_text_or_blank_is_a_value_error(base, value):
    with pytest.raises(ValueError) as caught:  # noqa: PT011
        construct(base, transformation_expression=value)
    assert str(caught.value) == "transformation_expression must be a non-empty string"


@pytest.mark.parametrize(
    "value",
    [None, "", "Proportional", "EQUAL_SPLIT", " equal_split", "equal", b"equal_split", 1, []],
)
def test_any_other_policy_is_a_value_error(base, value):
    with pytest.raises(ValueError) as caught:  # noqa: PT011
        construct(base, unmap_policy=value)
    assert str(caught.value) == "unmap_policy must be one of: proportional, equal_split"


@pytest.mark.parametrize("value", ["proportional", "equal_split", Text("equal_split")])
def test_both_policies_are_accepted_and_kept_as_given(base, value):
    assert construct(base, unmap_policy=value).unmap_policy is value


def test_policy_is_proportional_by_default(base):
    assert construct(base).unmap_policy == "proportional"


@pytest.mark.parametrize(
    ("accepted", "compared"),
    [
        ("proportional", ["proportional"]),
        ("equal_split", ["proportional", "equal_split"]),
        (None, ["proportional", "equal_split"]),
    ],
)
def test_policy_is_compared_by_its_own_inequality_in_order(base, accepted, compared):
    seen = []

    class Policy:
        __hash__ = None

        def __eq__(self, other):
            raise AssertionError("compared for equality")

        def __ne__(self, other):
            seen.append(other)
            return other != accepted

    if accepted is None:
        with pytest.raises(ValueError, match=r"^unmap_policy must be one of"):
            construct(base, unmap_policy=Policy())
    else:
        construct(base, unmap_policy=Policy())
    assert seen == compared


def test_error_of_a_policy_comparison_propagates(base):
    class Policy:
        __hash__ = None

        def __eq__(self, other):
            return NotImplemented

        def __ne__(self, other):
            raise LookupError("cannot compare")

    with pytest.raises(LookupError, match="cannot compare"):
        construct(base, unmap_policy=Policy())


# --- the validator: order and calling ---------------------------------------------------------


BAD_IN_ORDER = [
    ("max_structures", 0),
    ("N_alloc", 0),
    ("transformation_expression", ""),
    ("unmap_policy", ""),
]


@pytest.mark.parametrize("first", range(len(BAD_IN_ORDER)))
def test_first_bad_argument_in_order_is_reported(base, first):
    with pytest.raises(ValueError, match=f"^{BAD_IN_ORDER[first][0]} "):
        construct(base, **dict(BAD_IN_ORDER[first:]))


def test_type_and_range_of_one_size_come_before_the_next_size(base):
    with pytest.raises(ValueError, match=r"^max_structures must be <= 1000000$"):
        construct(base, max_structures=1000001, N_alloc="6")


def test_validator_returns_none_and_needs_no_instance(base):
    validate = base.VirtualizationBase._validate_constructor
    assert validate(4, "none", 6, "proportional") is None
    assert (
        validate(
            unmap_policy="equal_split",
            N_alloc=1,
            transformation_expression="not parsed here",
            max_structures=1,
        )
        is None
    )


def test_validator_checks_the_same_for_direct_calls(base):
    validate = base.VirtualizationBase._validate_constructor
    with pytest.raises(TypeError, match=r"^N_alloc must be a positive integer$"):
        validate(4, "none", None, "proportional")


def test_validator_of_a_subclass_is_called_with_the_raw_arguments(base):
    calls = []

    def validate(*args, **kwargs):
        calls.append((args, kwargs))

    make_rotation(
        base,
        attributes={"_validate_constructor": staticmethod(validate)},
        max_structures=PlainInt(2),
        transformation_expression=" none ",
    )
    ((args, kwargs),) = calls
    assert args == (2, " none ", 6, "proportional")
    assert type(args[0]) is PlainInt
    assert kwargs == {}


def test_validator_receives_the_defaults_unreplaced(base):
    calls = []

    def validate(*args):
        calls.append(args)
        raise LookupError("stop")

    cls = rotation_class(base, _validate_constructor=staticmethod(validate))
    with pytest.raises(LookupError, match="stop"):
        cls()
    assert calls == [(None, None, None, "proportional")]


def test_validator_may_be_an_ordinary_method_of_a_subclass(base):
    calls = []

    def validate(self, *args):
        calls.append((self, len(args)))

    rotation = make_rotation(base, attributes={"_validate_constructor": validate})
    assert calls == [(rotation, 4)]


@pytest.mark.parametrize("name", ["_validate_constructor", "_parse_transformation_expression"])
def test_constructor_step_set_on_the_instance_is_used(base, name):
    calls = []

    def __new__(cls, **kwargs):
        made = object.__new__(cls)
        setattr(made, name, lambda *args, **kwargs: calls.append((args, kwargs)) or [])
        return made

    make_rotation(base, attributes={"__new__": __new__})
    expected = (4, "none", 6, "proportional") if name == "_validate_constructor" else ("none",)
    assert calls == [(expected, {})]


@pytest.mark.parametrize(
    ("value", "size"), [("3", 3), (3.9, 3), (b"2", 2), (np.int64(5), 5), (True, 1)]
)
def test_size_that_an_own_validator_lets_through_is_converted_by_int(base, value, size):
    rotation = make_rotation(
        base,
        attributes={"_validate_constructor": staticmethod(lambda *arguments: None)},
        max_structures=value,
    )
    assert type(rotation.max_structures) is int
    assert rotation.max_structures == size
    assert rotation._txi_input.shape == (size,)


def test_failed_validation_leaves_the_instance_bare(base, siblings):
    rotation, error = unfinished(base, max_structures=0)
    assert isinstance(error, ValueError)
    assert vars(rotation) == {}
    assert siblings.RotationBase.init_calls == []
