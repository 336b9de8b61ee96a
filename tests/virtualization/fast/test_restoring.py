"""A restore that runs no Python code in between cannot be told from one taken step by step."""

import pickle

import pytest

from virtualization.fast.restores import (
    OWN,
    SLOTS,
    STEPS,
    N,
    compare,
    contents,
    day,
    from_a_store,
    item,
    outcome,
    rotation_of,
)

# What is put in place


def test_states_from_a_store_one_after_another(modules):
    def scenario(make):
        rotation, seen = make(), []
        day(rotation, item(0), item(1))
        first = from_a_store(rotation)
        day(rotation, item(1), item(2), item(3))
        second = from_a_store(rotation)
        for state in [first, second, second, first, second]:
            rotation.set_state(pickle.loads(pickle.dumps(state)))
            seen.append(contents(rotation))
        day(rotation, item(3), item(0))
        return [*seen, contents(rotation), rotation._txi_input.tobytes()]

    compare(modules, scenario)


def test_values_are_the_states_own_objects_in_containers_of_the_rotations(modules):
    def scenario(make):
        rotation = make()
        day(rotation, item(0), item(1))
        for _ in range(2):
            state = from_a_store(rotation)
            rotation.set_state(state)
            given = state["structure_metadata_by_slot"]
            for ours, theirs in zip(rotation._metadata_by_slot, given, strict=True):
                assert ours is not theirs
                assert all(ours[word] is theirs[word] for word in theirs)
            for name, key in [("slot_by_key", "slot_by_key"), ("_legs_by_slot", "legs_by_slot")]:
                assert getattr(rotation, name) is not state[key]
            assert rotation._metadata_by_slot is not given
            assert all(
                ours is theirs
                for ours, theirs in zip(rotation.slot_by_key, state["slot_by_key"], strict=True)
            )
        given.clear()
        state["slot_by_key"].clear()
        return contents(rotation)

    compare(modules, scenario)


METADATA = {
    "as it is": lambda given: given,
    "all inactive": lambda given: [{"active": False} for _ in given],
    "empty": lambda given: [{} for _ in given],
    "other order": lambda given: [dict(reversed(entry.items())) for entry in given],
    "other word": lambda given: [{**entry, "note": slot} for slot, entry in enumerate(given)],
    "word instead": lambda given: [{"key": 1, "legs": 2, "slot": 3, "note": 4} for _ in given],
    "equal numbers": lambda given: [{"active": 0} for _ in given],
    "many words": lambda given: [{str(i): i for i in range(9)} for _ in given],
    "one dict for all": lambda given: [given[0]] * len(given),
    "odd words": lambda given: [{Word("active"): False} for _ in given],
    "number for word": lambda given: [{0: False} for _ in given],
    "dict subclass": lambda given: [type("Dict", (dict,), {})(entry) for entry in given],
    "no dict first": lambda given: [5, *given[1:]],
    "no dict last": lambda given: [*given[:-1], None],
    "too short": lambda given: given[:-1],
    "tuple": tuple,
    "none": lambda given: None,
    "a list within": lambda given: [{"active": [slot]} for slot, _ in enumerate(given)],
}


class Word(str):
    """A word whose comparisons are its own."""

    __slots__ = ()
    compared = 0

    def __eq__(self, other):
        Word.compared += 1
        return str.__eq__(self, other)

    __hash__ = str.__hash__


@pytest.mark.parametrize("before", METADATA)
@pytest.mark.parametrize("after", METADATA)
def test_metadata_of_any_shape_over_any_other(modules, before, after):
    def scenario(make):
        rotation, seen = make(), []
        day(rotation, item(0), item(1))
        for shape in (before, after, before, after):
            state = from_a_store(rotation)
            given = state["structure_metadata_by_slot"]
            given = METADATA[shape](given)
            state["structure_metadata_by_slot"] = given
            seen += [outcome(rotation.set_state, state), contents(rotation)]
            if given is not None:
                assert not any(
                    ours is theirs
                    for ours, theirs in zip(rotation._metadata_by_slot, given, strict=False)
                )
        day(rotation, item(1), item(4))
        return [str(seen), str(contents(rotation))]

    compare(modules, scenario)


DAMAGE = {
    "slots": lambda state: state["slot_by_key"].update({("pair", 0): 1}),
    "keys": lambda state: state["key_by_slot"].update({0: ("pair", 1)}),
    "slot outside": lambda state: state["slot_by_key"].update({("z",): SLOTS}),
    "legs of nobody": lambda state: state["legs_by_slot"].update({4: ()}),
    "leg outside": lambda state: state["legs_by_slot"].update({0: ((N, 1.0),)}),
    "weight": lambda state: state["legs_by_slot"].update({1: ((0, float("nan")),)}),
    "limit": lambda state: state.update(structure_N_limit=N + 1),
    "true limit": lambda state: state.update(structure_N_limit=True),
    "small limit": lambda state: state.update(structure_N_limit=1),
    "no limit": lambda state: state.pop("structure_N_limit"),
    "limit none": lambda state: state.update(structure_N_limit=None),
    "no slots": lambda state: state.pop("slot_by_key"),
    "no maps": lambda state: (
        [state.pop(name) for name in list(state) if "by_slot" in name] and state.pop("slot_by_key")
    ),
    "no legs": lambda state: state.pop("legs_by_slot"),
    "loose legs": lambda state: state["legs_by_slot"].update({0: [[1, 2]]}),
    "odd key": lambda state: state.update(
        slot_by_key={(Word("a"),): 0}, key_by_slot={0: (Word("a"),)}, legs_by_slot={}
    ),
    "child states": lambda state: state.update(child_states=[1]),
    "child states no list": lambda state: state.update(child_states={}),
    "no child states": lambda state: state.pop("child_states"),
    "tuple of child states": lambda state: state.update(child_states=()),
    "odd name": lambda state: state.update({Word("structure_N_limit"): 3}),
    "reversed": lambda state: state.update(
        slot_by_key=dict(reversed(state["slot_by_key"].items())),
        key_by_slot=dict(reversed(state["key_by_slot"].items())),
    ),
}


@pytest.mark.parametrize("damage", DAMAGE)
def test_changed_states_are_taken_or_refused_alike(modules, damage):
    def scenario(make):
        rotation = make()
        day(rotation, item(0), item(1))
        state = from_a_store(rotation)
        state["structure_metadata_by_slot"][0]["active"] = "new"
        DAMAGE[damage](state)
        before = [getattr(rotation, name) for name in OWN]
        result = outcome(rotation.set_state, state)
        if result is not None:
            assert all(getattr(rotation, n) is old for n, old in zip(OWN, before, strict=True))
        return [result, contents(rotation)]

    compare(modules, scenario)


def test_refusal_after_many_entries_leaves_every_dict_as_it_was(modules):
    def scenario(make):
        rotation = make()
        day(rotation, item(0, metadata={"note": [1]}), item(1), item(2))
        first, second = from_a_store(rotation), from_a_store(rotation)
        rotation.set_state(first)
        # Visiting the list from either end meets dicts to rewrite, to replace and to keep.
        second["structure_metadata_by_slot"][1:] = [{"x": 1}, {"active": 5}, {"active": True}, {}]
        second["structure_metadata_by_slot"][0] = 5
        dicts = [id(entry) for entry in rotation._metadata_by_slot]
        values = [id(value) for entry in rotation._metadata_by_slot for value in entry.values()]
        before, result = contents(rotation), outcome(rotation.set_state, second)
        assert dicts == [id(entry) for entry in rotation._metadata_by_slot]
        assert values == [id(v) for entry in rotation._metadata_by_slot for v in entry.values()]
        assert contents(rotation) == before
        return result

    assert compare(modules, scenario)[0] is ValueError


# What switches it off


def test_attributes_of_the_class_and_hooks_of_assignment_are_used(modules):
    def scenario(make):
        written = []

        def __setattr__(self, name, value):
            written.append(name)
            object.__setattr__(self, name, value)

        rotation = make(__setattr__=__setattr__)
        day(rotation, item(0))
        state = from_a_store(rotation)
        written.clear()
        rotation.set_state(state)
        return written

    assert compare(modules, scenario) == OWN


@pytest.mark.parametrize("name", STEPS)
def test_step_of_the_instance_is_used(modules, name):
    def scenario(make):
        rotation, called = make(), []
        day(rotation, item(0))
        state = from_a_store(rotation)
        step = getattr(rotation, name)
        setattr(rotation, name, lambda *args: (called.append(name), step(*args))[1])
        rotation.set_state(state)
        return [*called, contents(rotation)]

    assert compare(modules, scenario)[0] == name


@pytest.mark.parametrize("name", [*OWN, "max_structures", "_n_alloc", "child_rotations"])
def test_property_of_the_class_is_used(modules, name):
    def scenario(make):
        used = []

        def read(self):
            used.append("read")
            return vars(self)[name]

        def write(self, value):
            used.append("written")
            vars(self)[name] = value

        rotation = make(**{name: property(read, write)})
        day(rotation, item(0))
        state = from_a_store(rotation)
        used.clear()
        rotation.set_state(state)
        return [used, contents(rotation)]

    assert compare(modules, scenario)[0]


def test_replaced_isfinite_is_used(modules):
    native, twin = modules

    def scenario(module):
        rotation, asked = rotation_of(module), []
        day(rotation, item(0))
        state = from_a_store(rotation)
        numpy = module.np
        module.np = type("Numpy", (), {"isfinite": staticmethod(lambda x: asked.append(x) or True)})
        try:
            rotation.set_state(state)
        finally:
            module.np = numpy
        return [asked, contents(rotation)]

    expected = scenario(twin)
    assert expected[0] == [1.0, -0.5]
    assert scenario(native) == expected


def test_child_that_changes_the_state_does_not_change_what_was_checked(modules):
    def scenario(make):
        rotation = make()
        day(rotation, item(0), item(1))
        state = from_a_store(rotation)

        class Child:
            def get_state(self):
                return {}

            def set_state(self, entry):
                state["structure_metadata_by_slot"][0]["active"] = "late"
                rotation._metadata_by_slot[1]["active"] = "late"

        state["structure_metadata_by_slot"][0]["active"] = "new"
        state["child_states"] = [{}]
        rotation.child_rotations.append(Child())
        rotation.set_state(state)
        return contents(rotation)

    compare(modules, scenario)
