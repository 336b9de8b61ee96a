"""Random states through the native module and its plain twin, with every way to fail half-way."""

import copy

import numpy as np
import pytest
from hypothesis import given
from hypothesis import strategies as st
from hypothesis.stateful import RuleBasedStateMachine, invariant, precondition, rule

from adversary.values.children import build_child
from adversary.values.items import build_item
from adversary.values.odd_containers import Key
from adversary.values.odd_numbers import NAN, Int
from support import frozen
from support.days import day_rotation_class
from support.siblings import both_modules
from virtualization.differential.strategies import (
    FAST,
    KEPT_LEGS,
    effort,
    odd_ids,
    odd_weights,
    plain_ids,
    plain_item_specs,
    plain_legs,
    plain_weights,
)

# States


state_keys = st.sampled_from([("a",), ("b",), (1,), (1.0,), (), Key("a"), "a", None, (NAN,)])
state_slots = st.one_of(
    st.integers(0, 3), st.sampled_from([-1, 4, True, "0", 1.0, Int(1), np.int64(1), 2**70])
)
state_legs = st.one_of(
    plain_legs,
    plain_legs.map(tuple),
    st.lists(st.tuples(st.one_of(plain_ids, odd_ids), st.one_of(plain_weights, odd_weights))),
    st.sampled_from([None, "ab", [5], [(1,)], [[1, 2.0, 3]], ["12"], {}, [{1: 0, 2: 0}]]),
)


@st.composite
def states(draw):
    """Draw a state: a valid one, with some of its entries damaged, replaced or missing."""
    slots = draw(st.lists(st.integers(0, 3), unique=True, max_size=4))
    names = draw(st.permutations([("a",), ("b",), (1,), ()]))
    state = {
        "slot_by_key": {names[slot]: slot for slot in slots},
        "key_by_slot": {slot: names[slot] for slot in slots},
        "legs_by_slot": {slot: draw(plain_legs) for slot in slots},
        "structure_metadata_by_slot": [{"slot": slot} for slot in range(4)],
        "structure_N_limit": draw(st.sampled_from([6, 6, 6, 3, 0, None])),
        "child_states": [],
    }
    damage = {
        "slot_by_key": st.dictionaries(state_keys, state_slots, max_size=5) | st.just([]),
        "key_by_slot": st.dictionaries(state_slots, state_keys, max_size=5) | st.none(),
        "legs_by_slot": st.dictionaries(state_slots, state_legs, max_size=5) | st.just(5),
        "structure_metadata_by_slot": st.sampled_from(
            [None, (), [{}] * 4, ({},) * 4, [{}] * 3, [{}, {}, {}, None], "abcd", [[]] * 4]
        ),
        "structure_N_limit": st.sampled_from([7, -1, True, 2.0, "6", Int(4), np.int64(3)]),
        "child_states": st.sampled_from([None, (), [1], {}]),
    }
    for name in draw(st.lists(st.sampled_from(sorted(damage)), max_size=2)):
        state[name] = draw(damage[name])
    for name in draw(st.lists(st.sampled_from(sorted(state)), max_size=1)):
        del state[name]
    return state


@FAST
@given(states())
def test_validated_states_are_the_same(state):
    results = []
    for base in both_modules():
        rotation = day_rotation_class(base)(
            max_structures=4, N_alloc=6, transformation_expression="none"
        )
        given_state = copy.deepcopy(state)
        results.append(
            (
                frozen.outcome(rotation._validate_state_components, given_state),
                frozen.outcome(rotation.set_state, given_state),
                frozen.freeze([given_state, vars(rotation)]),
            )
        )
    assert results[0] == results[1]


class Faults:
    """Which of the children's operations fail, and when: armed by the machine, used up once."""

    def __init__(self):
        self.armed = {}

    def arm(self, child, operation, skip, error):
        self.armed[child, operation] = [skip, error]

    def hit(self, child, operation):
        fault = self.armed.get((child, operation))
        if fault is None:
            return
        fault[0] -= 1
        if fault[0] < 0:
            del self.armed[child, operation]
            raise ERRORS[fault[1]](f"{operation} of {child}")


class Silent(Exception):
    """Exception that says it takes no notes."""

    def __getattribute__(self, name):
        if name == "add_note":
            raise AttributeError(name)
        return super().__getattribute__(name)


ERRORS = {error.__name__: error for error in [LookupError, KeyboardInterrupt, MemoryError, Silent]}


class Fragile:
    """Part of a child's state whose deep copy can fail."""

    def __init__(self, faults, child, days_seen=0):
        self.faults = faults
        self.child = child
        self.days_seen = days_seen

    def __deepcopy__(self, memo):
        self.faults.hit(self.child, "deepcopy")
        return Fragile(self.faults, self.child, self.days_seen)


class FaultyChild:
    """Stateful child each of whose operations fails when the faults say so.

    A failing set_state has changed half of the state by then, so that a missing rollback shows.
    """

    def __init__(self, faults, number):
        self.faults = faults
        self.number = number
        self.total = 0.0
        self.part = Fragile(faults, number)

    def __call__(self, values, *, context):
        self.faults.hit(self.number, "call")
        self.total = self.total + np.nan_to_num(values)
        self.part.days_seen += 1
        return self.total

    def get_state(self):
        self.faults.hit(self.number, "get_state")
        return {"total": self.total, "part": self.part}

    def set_state(self, state):
        self.total = state["total"]
        self.faults.hit(self.number, "set_state")
        self.part = state["part"]


class World:
    """One module's rotation with its faulty children, its store and its saved states."""

    def __init__(self, base, children):
        self.faults = Faults()
        self.rotation = day_rotation_class(base)(
            max_structures=4,
            N_alloc=6,
            transformation_expression="none",
            child_rotations=[
                FaultyChild(self.faults, number) if stateful else build_child("double", 4)
                for number, stateful in enumerate(children)
            ],
        )
        self.base = base
        self.stored = {}
        self.saved = []

    def write(self, name, state):
        self.stored[name] = copy.deepcopy(state)

    def read(self, name):
        return copy.deepcopy(self.stored.get(name))

    def day(self, specs, missing):
        self.rotation.items = [build_item(self.base, spec) for spec in specs]
        row = np.ones(self.rotation._n_alloc)
        if missing < len(row):
            row[missing] = NAN
        return self.rotation(row)

    def save(self, copied):
        state = self.rotation.get_state()
        self.saved.append(copy.deepcopy(state) if copied else state)

    def restore(self, which, damage):
        state = damaged(self.saved[which % len(self.saved)], damage)
        return self.rotation.set_state(state)

    def damage_store(self, damage):
        for name, state in self.stored.items():
            self.stored[name] = damaged(state, damage)

    def resize(self, width):
        self.rotation.resize(width)
        # The new buffer's contents are undefined, so two runs agree only once they are set.
        self.rotation._output_buf.fill(77.0)


def damaged(state, damage):
    """Return a state with one entry replaced; a damage of None leaves it as it is."""
    if damage is None:
        return state
    name, value = damage
    return value if name is None else {**state, name: copy.deepcopy(value)}


DAMAGES = [
    None,
    (None, []),
    (None, None),
    (None, {}),
    ("slot_by_key", {("z",): 0, ("y",): 0}),
    ("slot_by_key", {}),
    ("key_by_slot", {3: ("nobody",)}),
    ("legs_by_slot", {0: [(99, 1.0)]}),
    ("legs_by_slot", {}),
    ("structure_metadata_by_slot", None),
    ("structure_metadata_by_slot", [{}, {}, {}]),
    ("structure_N_limit", 0),
    ("structure_N_limit", True),
    ("structure_N_limit", None),
    ("child_states", None),
    ("child_states", []),
    ("child_states", [{}, {}, {}]),
    ("child_states", [{"total": 5.0, "part": 1}] * 3),
]


class StateMachine(RuleBasedStateMachine):
    """Both modules in lockstep through days, snapshots, restores, checkpoints and faults."""

    CHILDREN = (True, False, True)

    def __init__(self):
        super().__init__()
        self.worlds = [World(base, self.CHILDREN) for base in both_modules()]

    def in_both(self, operation, *args):
        native, twin = (frozen.outcome(getattr(world, operation), *args) for world in self.worlds)
        assert native == twin
        return native

    @rule(specs=st.lists(plain_item_specs(), max_size=3), missing=st.integers(0, 8))
    def day(self, specs, missing):
        self.in_both("day", specs, missing)

    @rule(copied=st.booleans())
    def save(self, copied):
        self.in_both("save", copied)

    @precondition(lambda self: self.worlds[0].saved)
    @rule(which=st.integers(0, 9), damage=st.sampled_from([None] * 8 + DAMAGES))
    def restore(self, which, damage):
        before = [dict(vars(world.rotation)) for world in self.worlds]
        if self.in_both("restore", which, damage)[0] == "raised":
            for world, attributes in zip(self.worlds, before, strict=False):
                after = vars(world.rotation)
                assert all(after[name] is value for name, value in attributes.items())

    @rule()
    def checkpoint(self):
        self.through_store("checkpoint")

    @rule()
    def recover(self):
        self.through_store("recover")

    def through_store(self, operation):
        native, twin = (
            frozen.outcome(getattr(world.rotation, operation), world) for world in self.worlds
        )
        assert native == twin

    @rule(damage=st.sampled_from(DAMAGES))
    def damage_store(self, damage):
        self.in_both("damage_store", damage)

    @rule(width=st.one_of(st.integers(1, 9), st.sampled_from([0, -1, True, 2.0])))
    def resize(self, width):
        self.in_both("resize", width)

    @rule(
        child=st.sampled_from([0, 2]),
        operation=st.sampled_from(["call", "get_state", "deepcopy", "set_state"]),
        skip=st.integers(0, 2),
        error=st.sampled_from(sorted(ERRORS)),
    )
    def arm(self, child, operation, skip, error):
        for world in self.worlds:
            world.faults.arm(child, operation, skip, error)

    @rule()
    def disarm(self):
        for world in self.worlds:
            world.faults.armed.clear()

    @invariant()
    def attributes_are_the_same(self):
        native, twin = (frozen.freeze(vars(world.rotation)) for world in self.worlds)
        assert native == twin

    @invariant()
    def slot_maps_are_inverse(self):
        for world in self.worlds:
            rotation = world.rotation
            assert rotation.key_by_slot == {slot: key for key, slot in rotation.slot_by_key.items()}


class ChildlessStateMachine(StateMachine):
    """The same without children, where damaged states get further."""

    CHILDREN = ()


TestStates = StateMachine.TestCase
TestStates.settings = effort(60, stateful_step_count=25)
TestChildlessStates = ChildlessStateMachine.TestCase
TestChildlessStates.settings = effort(30, stateful_step_count=25)


# Every position at which one restore can fail


@pytest.mark.parametrize("error", sorted(ERRORS))
@pytest.mark.parametrize("second", [None, (0, 1), (2, 1), (0, 2), (2, 2)])
@pytest.mark.parametrize("operation", ["get_state", "deepcopy", "set_state"])
@pytest.mark.parametrize("child", [0, 2])
def test_restore_that_fails_at_one_position_and_again_in_the_rollback(
    child, operation, second, error
):
    """`second` names the child and the number of set_state calls it lets pass before it fails."""
    logs = []
    for base in both_modules():
        world = World(base, StateMachine.CHILDREN)
        world.day([("dict", {"key": ("a",), "legs": KEPT_LEGS[1], "value": 1.0})], 9)
        world.save(True)
        world.day([("dict", {"key": ("b",), "legs": KEPT_LEGS[2], "value": 2.0})], 9)
        world.faults.arm(child, operation, 0, error)
        if second is not None:
            world.faults.arm(second[0], "set_state", second[1], "LookupError")
            if second[0] == child and operation == "set_state":
                world.faults.arm(child, "set_state", 0, error)
                world.faults.arm(child, "deepcopy", 1, "MemoryError")
        logs.append(
            (
                frozen.outcome(world.restore, 0, None),
                frozen.freeze(vars(world.rotation)),
                frozen.freeze(world.faults.armed),
            )
        )
    assert logs[0] == logs[1]
