"""Where the children come from: objects, factories, the expression."""

import pytest

from support.fakes import RecordingChild, make_rotation
from virtualization.construction.helpers import (
    ATTRIBUTES,
    BASE_ATTRIBUTES,
    RecordingFactory,
    construct,
    unfinished,
)


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
