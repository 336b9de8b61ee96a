"""Constructor validation, the sources of children, and the attributes a construction leaves."""

import enum

import numpy as np
import pytest

from support.fakes import RecordingChild, make_rotation, rotation_class, shown
from support.siblings import Siblings, load_base, plain_rotation_base

GOOD = {"max_structures": 4, "transformation_expression": "none", "N_alloc": 6}
ATTRIBUTES = [
    "max_structures",
    "transformation_expression",
    "unmap_policy",
    "child_factories",
    "child_rotations",
    "slot_by_key",
    "key_by_slot",
    "_legs_by_slot",
    "_metadata_by_slot",
    "_txi_input",
    "_txi_output",
    "_txi_universe_row",
    "_current_parent_context",
    "_structure_N_limit",
    "trace_sink",
]
BASE_ATTRIBUTES = ["_n_alloc", "_output_buf", "_combined_nan_buf", "parameters"]


class Number(enum.IntEnum):
    THREE = 3


class PlainInt(int):
    pass


class IntConvertedOtherwise(int):
    def __int__(self):
        return 7


class NeverPositive(int):
    def __le__(self, other):
        return True


class NeverAbove(int):
    def __gt__(self, other):
        return False


class Text(str):
    pass


class BlankText(str):
    def strip(self, *characters):
        return ""


def construct(base, **arguments):
    return base.VirtualizationBase(**{**GOOD, **arguments})


def unfinished(base, attributes=None, **arguments):
    """Return an instance whose initialiser has failed, and the error."""
    cls = rotation_class(base, **(attributes or {}))
    rotation = cls.__new__(cls)
    with pytest.raises(Exception) as caught:  # noqa: PT011
        rotation.__init__(**{**GOOD, **arguments})
    return rotation, caught.value


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


# --- the initialiser of the rotation base -----------------------------------------------------


def test_base_initialiser_is_called_once_with_n_alloc_and_further_keywords(base, siblings):
    note = object()
    construct(base, note=note, window=3, trace_sink=[], child_factories=[], child_rotations=[])
    assert siblings.RotationBase.init_calls == [{"N_alloc": 6, "note": note, "window": 3}]


def test_n_alloc_reaches_the_base_initialiser_as_given(base, siblings):
    width = PlainInt(6)
    construct(base, N_alloc=width)
    assert siblings.RotationBase.init_calls[0]["N_alloc"] is width


def test_base_initialiser_runs_before_any_attribute_is_set(kind):
    seen = []

    class RotationBase(plain_rotation_base()):
        def __init__(self, **kwargs):
            seen.append(dict(vars(self)))
            super().__init__(**kwargs)

    construct(load_base(kind, Siblings(RotationBase=RotationBase)))
    assert seen == [{}]


def test_error_of_the_base_initialiser_propagates_and_nothing_is_set(kind):
    error = LookupError("no room")

    class RotationBase(plain_rotation_base()):
        def __init__(self, **kwargs):
            raise error

    base = load_base(kind, Siblings(RotationBase=RotationBase))
    rotation, caught = unfinished(base)
    assert caught is error
    assert vars(rotation) == {}


def test_structure_limit_is_the_width_that_the_base_has_set(kind):
    class RotationBase(plain_rotation_base()):
        def __init__(self, *, N_alloc):
            self._n_alloc = width

    base = load_base(kind, Siblings(RotationBase=RotationBase))
    for width in (10**20, None, "any"):
        assert construct(base)._structure_N_limit is width


def test_base_that_sets_no_width_is_an_attribute_error_at_the_structure_limit(kind):
    class RotationBase:
        def __init__(self, *, N_alloc):
            pass

    base = load_base(kind, Siblings(RotationBase=RotationBase))
    rotation, error = unfinished(base)
    assert type(error) is AttributeError
    assert list(vars(rotation)) == ATTRIBUTES[:-2]


@pytest.mark.parametrize("count", [1, 3])
def test_positional_arguments_are_a_type_error(base, count):
    with pytest.raises(TypeError):
        base.VirtualizationBase(*[4, "none", 6][:count])


def test_keyword_that_the_base_does_not_take_is_its_type_error(kind):
    class RotationBase:
        def __init__(self, *, N_alloc):
            self._n_alloc = N_alloc

    base = load_base(kind, Siblings(RotationBase=RotationBase))
    with pytest.raises(TypeError, match="surplus"):
        construct(base, surplus=1)


# --- the attributes ---------------------------------------------------------------------------


def test_attributes_are_assigned_once_each_in_order(base):
    assigned = []

    def __setattr__(self, name, value):
        assigned.append(name)
        object.__setattr__(self, name, value)

    make_rotation(
        base, attributes={"__setattr__": __setattr__}, child_factories=[RecordingFactory()]
    )
    assert assigned == BASE_ATTRIBUTES + ATTRIBUTES


def test_instance_holds_its_attributes_in_order(base):
    assert list(vars(construct(base))) == BASE_ATTRIBUTES + ATTRIBUTES


def test_initialiser_returns_none(base):
    rotation = construct(base)
    assert rotation.__init__(**GOOD) is None


def test_initialising_again_starts_afresh(base):
    rotation = construct(base, child_rotations=[RecordingChild()])
    rotation._slot_for_key("a")
    rotation.__init__(**{**GOOD, "max_structures": 2})
    assert rotation.slot_by_key == {}
    assert rotation.child_rotations == []
    assert rotation._txi_input.shape == (2,)


def test_max_structures_of_an_exact_int_is_kept(base):
    size = 1234
    assert construct(base, max_structures=size).max_structures is size


@pytest.mark.parametrize(
    ("value", "size"), [(PlainInt(3), 3), (Number.THREE, 3), (IntConvertedOtherwise(2), 7)]
)
def test_max_structures_of_an_int_subclass_is_converted_by_int(base, value, size):
    rotation = construct(base, max_structures=value)
    assert type(rotation.max_structures) is int
    assert rotation.max_structures == size
    assert len(rotation._metadata_by_slot) == size


@pytest.mark.parametrize("expression", ["  none\t", Text("none")])
def test_expression_is_kept_as_given(base, expression):
    rotation = construct(base, transformation_expression=expression)
    assert rotation.transformation_expression is expression


@pytest.mark.parametrize("sink", [None, [], 5])
def test_trace_sink_is_kept_as_given(base, sink):
    assert construct(base, trace_sink=sink).trace_sink is sink


def test_slot_maps_are_distinct_empty_dicts(base):
    rotation = construct(base)
    maps = [rotation.slot_by_key, rotation.key_by_slot, rotation._legs_by_slot]
    assert [type(table) for table in maps] == [dict] * 3
    assert maps == [{}, {}, {}]
    assert len({id(table) for table in maps}) == 3


def test_metadata_is_one_inactive_dict_per_slot(base):
    rotation = construct(base, max_structures=3)
    assert type(rotation._metadata_by_slot) is list
    assert rotation._metadata_by_slot == [{"active": False}] * 3
    assert all(entry["active"] is False for entry in rotation._metadata_by_slot)


def test_metadata_dicts_are_distinct(base):
    rotation = construct(base, max_structures=3)
    rotation._metadata_by_slot[0]["note"] = 1
    assert rotation._metadata_by_slot[1:] == [{"active": False}] * 2
    assert all(type(entry) is dict for entry in rotation._metadata_by_slot)


@pytest.mark.parametrize("name", ["_txi_input", "_txi_output"])
def test_txi_buffer_is_a_writable_nan_vector(base, name):
    buffer = getattr(construct(base, max_structures=3), name)
    assert type(buffer) is np.ndarray
    assert buffer.dtype == np.float64
    assert buffer.shape == (3,)
    assert np.isnan(buffer).all()
    assert buffer.flags.writeable
    assert buffer.flags.c_contiguous


def test_txi_buffers_share_no_memory(base):
    rotation = construct(base)
    assert not np.shares_memory(rotation._txi_input, rotation._txi_output)


def test_txi_universe_row_is_a_vector_of_ones(base):
    row = construct(base, max_structures=3)._txi_universe_row
    assert row.dtype == np.uint8
    assert row.tolist() == [1, 1, 1]
    assert row.shape == (3,)


def test_parent_context_starts_as_none(base):
    assert construct(base)._current_parent_context is None


def test_structure_limit_starts_at_the_width(base):
    rotation = construct(base, N_alloc=9)
    assert rotation._structure_N_limit is rotation._n_alloc


def test_instances_share_nothing(base):
    first, second = construct(base), construct(base)
    for name in [*ATTRIBUTES[5:12], "child_factories", "child_rotations"]:
        assert getattr(first, name) is not getattr(second, name)


def test_buffers_take_their_size_from_the_attribute(base):
    def __setattr__(self, name, value):
        object.__setattr__(self, name, value * 2 if name == "max_structures" else value)

    factory = RecordingFactory()
    rotation = make_rotation(
        base, attributes={"__setattr__": __setattr__}, max_structures=3, child_factories=[factory]
    )
    assert rotation.max_structures == 6
    assert factory.calls == [((), {"N_alloc": 6})]
    assert len(rotation._metadata_by_slot) == 6
    assert rotation._txi_input.shape == rotation._txi_output.shape == (6,)
    assert rotation._txi_universe_row.shape == (6,)


def test_attribute_that_refuses_assignment_stops_the_construction(base):
    error = PermissionError("read only")

    def refuse(self, value):
        raise error

    policy = property(lambda self: "proportional", refuse)
    rotation, caught = unfinished(base, {"unmap_policy": policy})
    assert caught is error
    assert list(vars(rotation)) == BASE_ATTRIBUTES + ATTRIBUTES[:2]


# --- children ---------------------------------------------------------------------------------


class RecordingFactory:
    """Factory that records its calls and returns what it was given to return."""

    def __init__(self, child=None, error=None):
        self.child = child
        self.error = error
        self.calls = []

    def __call__(self, *args, **kwargs):
        self.calls.append((args, kwargs))
        if self.error is not None:
            raise self.error
        return self.child


def test_children_come_from_objects_then_factories_then_expression(base):
    given, made = [RecordingChild(), RecordingChild()], [RecordingChild(), RecordingChild()]
    rotation = construct(
        base,
        child_rotations=given,
        child_factories=[RecordingFactory(child) for child in made],
        transformation_expression="rank;ewma(2)",
    )
    assert rotation.child_rotations[:4] == given + made
    assert [child.registry_name for child in rotation.child_rotations[4:]] == [
        "latitudinal_rank_688068",
        "longitudinal_ewma_67301c",
    ]


@pytest.mark.parametrize("name", ["child_factories", "child_rotations"])
@pytest.mark.parametrize("value", [None, [], (), 0, "", {}, False])
def test_false_children_argument_gives_a_new_empty_list(base, name, value):
    made = getattr(construct(base, **{name: value}), name)
    assert type(made) is list
    assert made == []
    assert made is not value


@pytest.mark.parametrize("name", ["child_factories", "child_rotations"])
@pytest.mark.parametrize("make", [list, tuple, iter, lambda items: (item for item in items)])
def test_children_argument_may_be_any_iterable(base, name, make):
    items = [RecordingFactory(1), RecordingFactory(2)]
    made = getattr(construct(base, **{name: make(items)}), name)
    assert type(made) is list
    assert made[:2] == items


@pytest.mark.parametrize("name", ["child_factories", "child_rotations"])
def test_children_argument_is_copied_and_left_alone(base, name):
    given = [RecordingFactory("made")]
    made = getattr(construct(base, **{name: given}, transformation_expression="rank"), name)
    assert made is not given
    assert len(given) == 1


@pytest.mark.parametrize(("name", "position"), [("child_factories", 3), ("child_rotations", 4)])
def test_children_argument_that_cannot_be_iterated_is_a_type_error(base, name, position):
    rotation, error = unfinished(base, **{name: 5})
    assert isinstance(error, TypeError)
    assert list(vars(rotation)) == BASE_ATTRIBUTES + ATTRIBUTES[:position]


@pytest.mark.parametrize("name", ["child_factories", "child_rotations"])
def test_children_argument_is_asked_for_its_truth(base, name):
    class Doubtful(list):
        def __bool__(self):
            return False

    assert getattr(construct(base, **{name: Doubtful([1, 2])}), name) == []


@pytest.mark.parametrize("name", ["child_factories", "child_rotations"])
def test_error_of_the_truth_of_a_children_argument_propagates(base, name):
    class Undecided:
        def __bool__(self):
            raise LookupError("undecided")

    with pytest.raises(LookupError, match="undecided"):
        construct(base, **{name: Undecided()})


def test_factory_that_cannot_be_called_is_a_type_error_when_its_turn_comes(base):
    rotation, error = unfinished(base, child_factories=[RecordingFactory("made"), "not callable"])
    assert isinstance(error, TypeError)
    assert rotation.child_rotations == ["made"]


def test_factory_is_called_with_the_one_keyword(base):
    factory = RecordingFactory()
    construct(base, child_factories=[factory], max_structures=3)
    assert factory.calls == [((), {"N_alloc": 3})]


@pytest.mark.parametrize("child", [None, 0, RecordingChild()])
def test_whatever_a_factory_returns_is_a_child(base, child):
    rotation = construct(base, child_factories=[RecordingFactory(child)])
    assert rotation.child_rotations == [child]


def test_one_factory_may_be_used_twice(base):
    factory = RecordingFactory("made")
    assert construct(base, child_factories=[factory, factory]).child_rotations == ["made"] * 2
    assert len(factory.calls) == 2


def test_factory_added_while_factories_run_is_called_too(base):
    instances = []
    late = RecordingFactory("late")

    def __new__(cls, **kwargs):
        instances.append(object.__new__(cls))
        return instances[0]

    def early(*, N_alloc):
        instances[0].child_factories.append(late)
        return "early"

    rotation = make_rotation(base, attributes={"__new__": __new__}, child_factories=[early])
    assert rotation.child_rotations == ["early", "late"]


def test_failing_factory_keeps_the_children_before_it(base, siblings):
    error = LookupError("cannot make a child")
    last = RecordingFactory()
    rotation, caught = unfinished(
        base,
        child_rotations=["given"],
        child_factories=[RecordingFactory("made"), RecordingFactory(error=error), last],
        transformation_expression="rank",
    )
    assert caught is error
    assert rotation.child_rotations == ["given", "made"]
    assert list(vars(rotation)) == BASE_ATTRIBUTES + ATTRIBUTES[:5]
    assert last.calls == []
    assert siblings.registry_log == []


def test_failing_expression_keeps_the_children_before_it(base):
    rotation, error = unfinished(
        base,
        child_rotations=["given"],
        child_factories=[RecordingFactory("made")],
        transformation_expression="unknown",
    )
    assert "unsupported" in str(error)
    assert rotation.child_rotations == ["given", "made"]
    assert list(vars(rotation)) == BASE_ATTRIBUTES + ATTRIBUTES[:5]


def test_expression_is_parsed_once_with_the_raw_text(base):
    calls = []

    def parse(self, *args, **kwargs):
        calls.append((args, kwargs, list(vars(self))))
        return []

    make_rotation(
        base,
        attributes={"_parse_transformation_expression": parse},
        transformation_expression=" rank ",
    )
    assert calls == [((" rank ",), {}, BASE_ATTRIBUTES + ATTRIBUTES[:5])]


@pytest.mark.parametrize("make", [list, tuple, iter])
def test_children_of_an_own_parser_are_taken_from_any_iterable(base, make):
    parse = {"_parse_transformation_expression": lambda self, expression: make(["a", "b"])}
    rotation = make_rotation(base, attributes=parse, child_rotations=["given"])
    assert rotation.child_rotations == ["given", "a", "b"]


def test_own_parser_that_returns_no_iterable_is_a_type_error(base):
    rotation, error = unfinished(
        base, {"_parse_transformation_expression": lambda self, expression: None}
    )
    assert isinstance(error, TypeError)
    assert list(vars(rotation)) == BASE_ATTRIBUTES + ATTRIBUTES[:5]


def test_children_are_added_to_the_list_that_the_attribute_holds(base):
    class Children(list):
        pass

    def __setattr__(self, name, value):
        if name == "child_rotations":
            value = Children(value)
        object.__setattr__(self, name, value)

    rotation = make_rotation(
        base,
        attributes={"__setattr__": __setattr__},
        child_rotations=["given"],
        child_factories=[RecordingFactory("made")],
        transformation_expression="rank",
    )
    assert type(rotation.child_rotations) is Children
    assert rotation.child_rotations[:2] == ["given", "made"]
    assert len(rotation.child_rotations) == 3


def test_identity_expression_adds_no_child(base):
    assert construct(base, transformation_expression="none").child_rotations == []
