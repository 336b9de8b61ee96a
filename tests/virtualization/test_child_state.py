"""The states of the children during a restore: checked, copied, and put back."""

import copy

import pytest

from support.fakes import (
    ReadOnlyChild,
    RecordingChild,
    StatefulChild,
    WriteOnlyChild,
    make_rotation,
)


def with_children(base, *children, **attributes):
    return make_rotation(base, child_rotations=list(children), attributes=attributes)


def message_for(rotation, state):
    with pytest.raises(ValueError, match="R: ") as caught:
        rotation._validate_child_states(state)
    (message,) = caught.value.args
    return message


# _validate_child_states


def test_no_children_and_no_entry_give_a_new_empty_list(base):
    rotation = with_children(base)
    first, second = (rotation._validate_child_states({}) for _ in range(2))
    assert first == second == []
    assert first is not second


@pytest.mark.parametrize("count", [1, 2])
def test_children_without_an_entry_fail(base, count):
    rotation = with_children(base, *[RecordingChild()] * count, _name="R")
    assert message_for(rotation, {}) == "R: child_states length must equal child_rotations"


@pytest.mark.parametrize("children", [0, 2])
@pytest.mark.parametrize("entry", [None, {}, "ab", 2, {1, 2}, iter([1, 2])])
def test_entry_that_is_no_list_or_tuple_fails(base, children, entry):
    rotation = with_children(base, *[RecordingChild()] * children, _name="R")
    message = message_for(rotation, {"child_states": entry})
    assert message == "R: child_states must be a list or tuple"


@pytest.mark.parametrize("entry", [[], [1], [1, 2, 3], ()])
def test_entry_of_another_length_fails(base, entry):
    rotation = with_children(base, RecordingChild(), RecordingChild(), _name="R")
    message = message_for(rotation, {"child_states": entry})
    assert message == "R: child_states length must equal child_rotations"


def test_states_without_children_fail(base):
    message = message_for(with_children(base, _name="R"), {"child_states": [{}]})
    assert message == "R: child_states length must equal child_rotations"


@pytest.mark.parametrize("kind_of_sequence", [list, tuple])
def test_list_or_tuple_comes_back_as_a_new_list_of_the_same_entries(base, kind_of_sequence):
    rotation = with_children(base, RecordingChild(), RecordingChild())
    entries = [object(), None]
    given = kind_of_sequence(entries)
    result = rotation._validate_child_states({"child_states": given})
    assert type(result) is list
    assert result is not given
    assert result[0] is entries[0]
    assert result[1] is None


def test_presence_is_asked_of_the_state_before_the_entry_is_read(base):
    asked = []

    class State(dict):
        def __contains__(self, key):
            asked.append(("in", key))
            return True

        def get(self, key, default=None):
            asked.append(("get", key))
            return []

    assert with_children(base)._validate_child_states(State()) == []
    assert asked == [("in", "child_states"), ("get", "child_states")]


def test_state_that_denies_its_entry_counts_as_without(base):
    class State(dict):
        def __contains__(self, key):
            return False

    rotation = with_children(base, RecordingChild(), _name="R")
    message = message_for(rotation, State(child_states=[{}]))
    assert message == "R: child_states length must equal child_rotations"


def test_entry_is_read_with_the_states_own_get(base):
    class State(dict):
        def get(self, key, default=None):
            return ["from get"]

    rotation = with_children(base, RecordingChild())
    assert rotation._validate_child_states(State(child_states=["stored"])) == ["from get"]


def test_validation_touches_no_child(base):
    child = StatefulChild()
    with_children(base, child)._validate_child_states({"child_states": [{}]})
    assert child.log == []


# _snapshot_child_states


def test_without_children_there_are_no_snapshots(base):
    assert with_children(base)._snapshot_child_states() == []


def test_snapshots_come_in_child_order_with_none_for_what_cannot_be_restored(base):
    children = [StatefulChild(1.0), RecordingChild(), ReadOnlyChild("x"), StatefulChild(2.0)]
    assert with_children(base, *children)._snapshot_child_states() == [
        {"total": 1.0, "history": []},
        None,
        None,
        {"total": 2.0, "history": []},
    ]


def test_snapshot_is_deep(base):
    child = StatefulChild(1.0)
    (snapshot,) = with_children(base, child)._snapshot_child_states()
    child.state["history"].append(9.0)
    child.state["total"] = 9.0
    assert snapshot == {"total": 1.0, "history": []}


def test_child_that_can_be_set_but_not_read_fails(base):
    with pytest.raises(ValueError, match="get_state") as caught:
        with_children(base, WriteOnlyChild(), _name="R")._snapshot_child_states()
    assert caught.value.args == ("R: child rotations with set_state must also expose get_state",)


def test_child_that_can_be_set_but_not_read_fails_after_the_children_before(base):
    first, last = StatefulChild(), StatefulChild()
    with pytest.raises(ValueError, match="get_state"):
        with_children(base, first, WriteOnlyChild(), last)._snapshot_child_states()
    assert first.log == [("get",)]
    assert last.log == []


def test_child_without_set_state_is_not_read(base):
    class Child:
        def get_state(self):
            raise AssertionError("read")

    assert with_children(base, Child())._snapshot_child_states() == [None]


def test_presence_of_set_state_is_asked_before_get_state(base):
    asked = []

    class Child:
        def __getattr__(self, name):
            asked.append(name)
            if name == "get_state":
                return lambda: "state"
            return None

    rotation = with_children(base)
    rotation.child_rotations = [Child()]
    assert rotation._snapshot_child_states() == ["state"]
    assert list(dict.fromkeys(asked)) == ["set_state", "get_state"]


@pytest.mark.parametrize("error", [LookupError("get"), KeyboardInterrupt()])
def test_error_of_get_state_propagates_as_the_same_object(base, error):
    class Child(StatefulChild):
        def get_state(self):
            raise error

    with pytest.raises(type(error)) as caught:
        with_children(base, Child())._snapshot_child_states()
    assert caught.value is error


def test_error_of_deepcopy_propagates_as_the_same_object(base):
    error = LookupError("copy")

    class Uncopyable:
        def __deepcopy__(self, memo):
            raise error

    child = StatefulChild()
    child.state = Uncopyable()
    with pytest.raises(LookupError) as caught:
        with_children(base, child)._snapshot_child_states()
    assert caught.value is error


def test_error_of_the_presence_test_other_than_attribute_error_propagates(base):
    class Child:
        @property
        def set_state(self):
            raise LookupError("property")

    with pytest.raises(LookupError, match="property"):
        with_children(base, Child())._snapshot_child_states()


def test_each_snapshot_is_copied_on_its_own(base):
    shared = {"total": 0.0, "history": []}
    children = [StatefulChild(), StatefulChild()]
    for child in children:
        child.state = shared
    first, second = with_children(base, *children)._snapshot_child_states()
    assert first is not second


# _restore_child_snapshots


def test_restore_hands_each_child_a_copy_of_its_snapshot(base):
    children = [StatefulChild(), StatefulChild()]
    snapshots = [{"total": 1.0, "history": [1.0]}, {"total": 2.0, "history": []}]
    given = copy.deepcopy(snapshots)
    assert with_children(base, *children)._restore_child_snapshots(snapshots) == []
    assert [child.state for child in children] == snapshots
    children[0].state["history"].append(5.0)
    assert snapshots == given


def test_restoring_twice_from_the_same_snapshots_gives_the_same_states(base):
    child = StatefulChild(3.0)
    rotation = with_children(base, child)
    snapshots = rotation._snapshot_child_states()
    for _ in range(2):
        child.state["total"] = 9.0
        rotation._restore_child_snapshots(snapshots)
        assert child.state == {"total": 3.0, "history": []}


def test_restore_returns_a_new_list(base):
    rotation = with_children(base)
    first, second = (rotation._restore_child_snapshots([]) for _ in range(2))
    assert type(first) is list
    assert first is not second


def test_restore_skips_a_child_whose_snapshot_is_none(base):
    child = StatefulChild()
    assert with_children(base, child)._restore_child_snapshots([None]) == []
    assert child.log == []


@pytest.mark.parametrize("snapshot", [{}, 0, "", False, []])
def test_restore_applies_a_false_snapshot(base, snapshot):
    child = StatefulChild()
    with_children(base, child)._restore_child_snapshots([snapshot])
    assert child.log == [("set", snapshot)]


def test_restore_skips_a_child_without_set_state(base):
    children = [ReadOnlyChild("x"), StatefulChild()]
    assert with_children(base, *children)._restore_child_snapshots(["a", "b"]) == []
    assert children[1].state == "b"


def test_restore_goes_on_after_a_failure_and_reports_it(base):
    error = LookupError("first")
    children = [StatefulChild(set_errors=[error]), StatefulChild(), StatefulChild()]
    rotation = with_children(base, *children)
    errors = rotation._restore_child_snapshots(["a", "b", "c"])
    assert len(errors) == 1
    assert errors[0] is error
    assert [child.state for child in children[1:]] == ["b", "c"]


def test_restore_reports_every_failure_in_order(base):
    raised = [LookupError("first"), OSError("second")]
    children = [StatefulChild(set_errors=[error]) for error in raised]
    assert with_children(base, *children)._restore_child_snapshots(["a", "b"]) == raised


def test_restore_reports_a_snapshot_that_cannot_be_copied(base):
    error = LookupError("copy")

    class Uncopyable:
        def __deepcopy__(self, memo):
            raise error

    children = [StatefulChild(), StatefulChild()]
    errors = with_children(base, *children)._restore_child_snapshots([Uncopyable(), "b"])
    assert errors == [error]
    assert children[0].log == []
    assert children[1].state == "b"


def test_restore_lets_what_is_no_exception_through_at_once(base):
    error = KeyboardInterrupt()
    children = [StatefulChild(set_errors=[error]), StatefulChild()]
    with pytest.raises(KeyboardInterrupt) as caught:
        with_children(base, *children)._restore_child_snapshots(["a", "b"])
    assert caught.value is error
    assert children[1].log == []


@pytest.mark.parametrize("snapshots", [[], ["a"], ["a", "b", "c"]])
def test_restore_ignores_what_is_beyond_the_shorter_sequence(base, snapshots):
    children = [StatefulChild(), StatefulChild()]
    assert with_children(base, *children)._restore_child_snapshots(snapshots) == []
    set_states = [child.log[0][1] for child in children if child.log]
    assert set_states == snapshots[:2]


def test_restore_keeps_an_errors_traceback(base):
    def failing_setter():
        raise LookupError("inside")

    class Child(StatefulChild):
        def set_state(self, state):
            failing_setter()

    (error,) = with_children(base, Child())._restore_child_snapshots(["a"])
    names = []
    frame = error.__traceback__
    while frame is not None:
        names.append(frame.tb_frame.f_code.co_name)
        frame = frame.tb_next
    assert names[-2:] == ["set_state", "failing_setter"]
