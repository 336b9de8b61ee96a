import numpy as np
import pytest

import quorvane as qv
from quorvane.functions.rotations.longitudinal.ewma import Ewma


class Counting(qv.OwnState, qv.FixedBaskets):
    """Counts its days, and refuses a count that is negative."""

    def __init__(self, expression="ewma(3);rank"):
        super().__init__(
            {"a": {"KO": 1.0}, "b": {"KO": 1.0, "PEP": -1.0}},
            ["KO", "PEP"],
            transformation_expression=expression,
        )
        self.seen = np.zeros(1)

    def __call__(self, *inputs, context=None):
        self.seen += 1
        return super().__call__(*inputs, context=context)

    def get_own_state(self):
        return {"seen": self.seen}

    def set_own_state(self, state):
        self.seen = state["seen"]
        if self.seen[0] < 0:
            raise ValueError("seen must not be negative")


def after(days):
    made = Counting()
    for day in range(days):
        made(np.array([1.0 + day, 2.0]))
    return made


def test_a_state_holds_what_is_one_s_own():
    old, new = after(3), Counting()
    new.set_state(old.get_state())
    assert new.seen == 3
    assert new.slot_by_key == old.slot_by_key
    row = np.array([0.5, 0.25])
    np.testing.assert_array_equal(new(row), old(row))


def test_what_is_restored_is_a_copy():
    old, new = after(2), Counting()
    state = old.get_state()
    new.set_state(state)
    new(np.ones(2))
    assert (old.seen, new.seen) == (2, 3)
    assert state["own"]["seen"] == 2


@pytest.mark.parametrize("store", [qv.MemoryStore, None])
def test_stores_keep_both(store, tmp_path):
    kept = qv.DirectoryStore(tmp_path) if store is None else store()
    after(4).checkpoint(kept)
    new = Counting()
    assert new.recover(kept)
    assert new.seen == 4


def test_a_state_without_what_is_one_s_own_is_refused():
    plain = qv.FixedBaskets.get_state(after(1))
    made = after(2)
    with pytest.raises(ValueError, match="must be a dict with the key 'own'"):
        made.set_state(plain)
    assert made.seen == 2


def test_where_one_s_own_fails_nothing_changes():
    made, other = after(2), after(5)
    state = {**other.get_state(), "own": {"seen": np.array([-1.0])}}
    before = made.get_state()
    with pytest.raises(ValueError, match="must not be negative"):
        made.set_state(state)
    assert made.seen == 2
    now = made.get_state()
    np.testing.assert_array_equal(now["child_states"][0]["mean"], before["child_states"][0]["mean"])


def test_where_the_rotation_refuses_one_s_own_stays():
    made = after(2)
    with pytest.raises(ValueError, match="child_states"):
        made.set_state({**Counting("none").get_state(), "own": {"seen": np.ones(1)}})
    assert made.seen == 2


def test_a_child_rotation_can_have_it_too():
    class Noting(qv.OwnState, Ewma):
        note = ""

        def get_own_state(self):
            return self.note

        def set_own_state(self, state):
            self.note = state

    old, new = Noting(3, N_alloc=2), Noting(3, N_alloc=2)
    old.note = "here"
    new.set_state(old.get_state())
    assert new.note == "here"


def test_standing_behind_the_rotation_s_class_is_refused():
    with pytest.raises(TypeError, match="Late: OwnState must stand before"):

        class Late(qv.FixedBaskets, qv.OwnState):
            pass


def test_hooks_that_are_missing_are_named():
    class Bare(qv.OwnState, Ewma):
        pass

    made = Bare(3, N_alloc=2)
    with pytest.raises(NotImplementedError, match=r"Bare must define get_own_state"):
        made.get_state()
    with pytest.raises(NotImplementedError, match=r"Bare must define set_own_state"):
        made.set_own_state(None)
