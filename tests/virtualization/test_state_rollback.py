"""set_state: a child that fails, and the rollback of all of them."""

import copy
import traceback

import pytest

from support.fakes import RecordingChild, StatefulChild, make_rotation
from virtualization.state_restore import (
    after_one_day,
    assert_own_attributes_untouched,
    own_attributes,
    state_for,
)


@pytest.mark.parametrize("position", [0, 1, 2])
def test_failing_child_puts_every_child_back(base, position):
    error = LookupError("set")
    children = [StatefulChild(float(number)) for number in range(3)]
    children[position].set_errors = [error]
    rotation = make_rotation(base, child_rotations=children)
    with pytest.raises(LookupError) as caught:
        rotation.set_state(state_for("a", "b", "c"))
    assert caught.value is error
    assert [child.state["total"] for child in children] == [0.0, 1.0, 2.0]


def test_children_after_the_failing_one_receive_only_their_snapshot(base):
    children = [StatefulChild(set_errors=[LookupError()]), StatefulChild(4.0)]
    with pytest.raises(LookupError):
        make_rotation(base, child_rotations=children).set_state(state_for("a", "b"))
    assert children[1].log == [("get",), ("set", {"total": 4.0, "history": []})]


def test_failing_child_leaves_the_own_attributes_untouched(base):
    rotation = after_one_day(base, StatefulChild(), StatefulChild(set_errors=[LookupError()]))
    before = own_attributes(rotation)
    contents = copy.deepcopy(before)
    with pytest.raises(LookupError):
        rotation.set_state(state_for({}, {}))
    assert_own_attributes_untouched(rotation, before)
    assert own_attributes(rotation) == contents


def test_child_put_back_does_not_share_its_snapshot_with_the_old_state(base):
    child = StatefulChild(1.0)
    old = child.state
    children = [child, StatefulChild(set_errors=[LookupError()])]
    with pytest.raises(LookupError):
        make_rotation(base, child_rotations=children).set_state(state_for({}, {}))
    assert child.state == old
    assert child.state is not old


def test_change_a_failing_child_makes_to_its_live_state_is_undone(base):
    class Child(StatefulChild):
        def set_state(self, state):
            super().set_state(state)
            self.state["history"].append("half done")
            if state == {"total": 5.0, "history": ["half done"]}:
                raise LookupError("half way")

    child = Child(1.0)
    with pytest.raises(LookupError):
        make_rotation(base, child_rotations=[child]).set_state(
            state_for({"total": 5.0, "history": []})
        )
    assert child.state == {"total": 1.0, "history": ["half done"]}


def test_child_without_a_snapshot_is_left_as_it_is(base):
    plain = RecordingChild()
    plain.mark = 1
    children = [plain, StatefulChild(set_errors=[LookupError()])]
    with pytest.raises(LookupError):
        make_rotation(base, child_rotations=children).set_state(state_for({}, {}))
    assert vars(plain) == {"answer": None, "calls": [], "mark": 1}


def test_presence_test_that_raises_counts_as_a_failing_child(base):
    class Child:
        asked = 0

        @property
        def set_state(self):
            self.asked += 1
            if self.asked == 2:
                raise LookupError("property")
            raise AttributeError("hidden")

    first = StatefulChild(1.0)
    with pytest.raises(LookupError, match="property"):
        make_rotation(base, child_rotations=[first, Child()]).set_state(state_for({}, {}))
    assert first.state == {"total": 1.0, "history": []}


def test_failing_childs_frames_stay_in_the_traceback(base):
    def failing_setter():
        raise LookupError("inside")

    class Child(StatefulChild):
        def set_state(self, state):
            if self.log[-1] == ("get",):
                self.log.append("tried")
                failing_setter()

    with pytest.raises(LookupError) as caught:
        make_rotation(base, child_rotations=[Child()]).set_state(state_for({}))
    names = [frame.name for frame in traceback.extract_tb(caught.tb)]
    assert names[-2:] == ["set_state", "failing_setter"]


def test_failing_child_without_failing_restore_gets_no_note(base):
    error = LookupError("set")
    rotation = make_rotation(base, child_rotations=[StatefulChild(set_errors=[error])])
    with pytest.raises(LookupError):
        rotation.set_state(state_for({}))
    assert not hasattr(error, "__notes__")
    assert error.__cause__ is None
    assert error.__context__ is None


def test_first_failing_restore_is_told_in_a_note(base):
    error = LookupError("set")
    children = [
        StatefulChild(set_errors=[None, OSError("restore one")]),
        StatefulChild(set_errors=[error, KeyError("restore two")]),
    ]
    rotation = make_rotation(base, child_rotations=children, attributes={"_name": "R"})
    with pytest.raises(LookupError) as caught:
        rotation.set_state(state_for({}, {}))
    assert caught.value is error
    assert error.__notes__ == [
        "R: failed to restore child rotation state: OSError('restore one')",
    ]


def test_note_is_added_to_earlier_notes(base):
    error = LookupError("set")
    error.add_note("earlier")
    child = StatefulChild(set_errors=[error, OSError("restore")])
    with pytest.raises(LookupError):
        make_rotation(base, child_rotations=[child]).set_state(state_for({}))
    assert error.__notes__ == [
        "earlier",
        "virtualization_base: failed to restore child rotation state: OSError('restore')",
    ]


def test_note_is_added_through_the_errors_own_method(base):
    class Noted(Exception):
        def add_note(self, note):
            self.noted = note

    error = Noted()
    child = StatefulChild(set_errors=[error, OSError("restore")])
    with pytest.raises(Noted):
        make_rotation(base, child_rotations=[child]).set_state(state_for({}))
    assert error.noted.endswith("OSError('restore')")


def test_error_that_takes_no_note_is_raised_without_one(base):
    class Silent(Exception):
        def __getattribute__(self, name):
            if name == "add_note":
                raise AttributeError(name)
            return super().__getattribute__(name)

    error = Silent()
    child = StatefulChild(set_errors=[error, OSError("restore")])
    with pytest.raises(Silent) as caught:
        make_rotation(base, child_rotations=[child]).set_state(state_for({}))
    assert caught.value is error


def test_failing_restore_has_the_childs_error_as_its_context(base):
    error, restore_error = LookupError("set"), OSError("restore")
    child = StatefulChild(set_errors=[error, restore_error])
    with pytest.raises(LookupError):
        make_rotation(base, child_rotations=[child]).set_state(state_for({}))
    assert restore_error.__context__ is error


def test_children_after_a_failing_restore_are_still_put_back(base):
    children = [
        StatefulChild(1.0, set_errors=[None, OSError("restore")]),
        StatefulChild(2.0),
        StatefulChild(3.0, set_errors=[LookupError("set")]),
    ]
    with pytest.raises(LookupError):
        make_rotation(base, child_rotations=children).set_state(state_for("a", "b", "c"))
    assert [child.state for child in children] == [
        "a",
        {"total": 2.0, "history": []},
        {"total": 3.0, "history": []},
    ]


@pytest.mark.parametrize("error", [KeyboardInterrupt(), SystemExit(), GeneratorExit()])
def test_what_is_no_exception_skips_the_restore(base, error):
    children = [StatefulChild(1.0), StatefulChild(2.0, set_errors=[error])]
    rotation = after_one_day(base, *children)
    before = own_attributes(rotation)
    with pytest.raises(type(error)) as caught:
        rotation.set_state(state_for("a", "b"))
    assert caught.value is error
    assert children[0].state == "a"
    assert_own_attributes_untouched(rotation, before)


def test_restore_step_is_found_on_the_instance_and_receives_the_snapshots(base):
    received = []

    def _restore_child_snapshots(self, snapshots):
        received.append(snapshots)
        return []

    attributes = {"_restore_child_snapshots": _restore_child_snapshots}
    child = StatefulChild(1.0, set_errors=[LookupError()])
    rotation = make_rotation(base, child_rotations=[child], attributes=attributes)
    with pytest.raises(LookupError):
        rotation.set_state(state_for({}))
    assert received == [[{"total": 1.0, "history": []}]]


def test_failing_restore_step_replaces_the_childs_error_and_keeps_it_as_context(base):
    error = LookupError("set")

    def _restore_child_snapshots(self, snapshots):
        raise OSError("step")

    attributes = {"_restore_child_snapshots": _restore_child_snapshots}
    child = StatefulChild(set_errors=[error])
    rotation = make_rotation(base, child_rotations=[child], attributes=attributes)
    with pytest.raises(OSError, match="step") as caught:
        rotation.set_state(state_for({}))
    assert caught.value.__context__ is error
