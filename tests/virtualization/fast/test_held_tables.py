"""What others hold stays as it was after a restore, and what goes may run code."""

import copy
import pickle

import pytest

from virtualization.fast.restores import (
    OWN,
    SLOTS,
    compare,
    contents,
    day,
    from_a_store,
    item,
    outcome,
)

# What others hold stays as it was


@pytest.mark.parametrize("name", OWN[:4])
def test_tables_that_others_hold_stay_as_they_were(modules, name):
    def scenario(make):
        rotation = make()
        day(rotation, item(0), item(1))
        state = from_a_store(rotation)
        state["structure_metadata_by_slot"][0]["active"] = "new"
        day(rotation, item(2), item(1))
        held = getattr(rotation, name)
        before = copy.deepcopy(held)
        rotation.set_state(state)
        assert getattr(rotation, name) is not held
        assert held == before
        return contents(rotation)

    compare(modules, scenario)


@pytest.mark.parametrize("slot", range(SLOTS))
def test_metadata_dict_that_another_holds_stays_as_it_was(modules, slot):
    def scenario(make):
        rotation = make()
        day(rotation, item(0), item(1))
        state = from_a_store(rotation)
        for entry in state["structure_metadata_by_slot"]:
            entry["active"] = "new"
        held = rotation._metadata_by_slot[slot]
        before = dict(held)
        rotation.set_state(state)
        assert rotation._metadata_by_slot[slot] is not held
        assert held == before
        return contents(rotation)

    compare(modules, scenario)


def test_snapshot_taken_before_stays_as_it_was(modules):
    def scenario(make):
        rotation = make()
        day(rotation, item(0), item(1))
        state = from_a_store(rotation)
        day(rotation, item(2), item(3))
        snapshot = rotation.get_state()
        before = copy.deepcopy(snapshot)
        rotation.set_state(state)
        assert snapshot == before
        rotation.set_state(snapshot)
        return contents(rotation)

    compare(modules, scenario)


def test_own_state_and_own_tables_as_the_state(modules):
    def scenario(make):
        rotation, seen = make(), []
        day(rotation, item(0), item(1))
        rotation.set_state(rotation.get_state())
        seen.append(contents(rotation))
        tables = {
            "slot_by_key": rotation.slot_by_key,
            "key_by_slot": rotation.key_by_slot,
            "legs_by_slot": rotation._legs_by_slot,
            "structure_metadata_by_slot": rotation._metadata_by_slot,
        }
        rotation.set_state(tables)
        assert rotation._metadata_by_slot is not tables["structure_metadata_by_slot"]
        seen.append(contents(rotation))
        del tables
        rotation.set_state(vars(rotation))
        seen.append(contents(rotation))
        return seen

    compare(modules, scenario)


def test_entry_that_holds_the_old_list_shows_the_old_list(modules):
    def scenario(make):
        rotation = make()
        day(rotation, item(0))
        state = from_a_store(rotation)
        state["structure_metadata_by_slot"][0] = vars(rotation)
        before = [dict(entry) for entry in rotation._metadata_by_slot]
        rotation.set_state(state)
        held = rotation._metadata_by_slot[0]["_metadata_by_slot"]
        assert held is not rotation._metadata_by_slot
        assert held == before
        return [contents(rotation)[:3], held]

    compare(modules, scenario)


# What the old tables held may run code when it goes


class Watcher:
    """Writes down what the rotation looks like at the moment when it goes."""

    def __init__(self, name, rotation, log, then=lambda: None):
        self.name, self.rotation, self.log, self.then = name, rotation, log, then

    def __del__(self):
        rotation = self.rotation
        entries = [sorted(map(str, entry)) for entry in rotation._metadata_by_slot]
        tables = [len(getattr(rotation, name)) for name in OWN[:3]]
        self.log.append((self.name, tables, entries, rotation._structure_N_limit))
        self.then()


@pytest.mark.parametrize("shared", [False, True])
def test_what_goes_sees_the_rotation_half_restored_in_the_same_order(modules, shared):
    def scenario(make):
        rotation, log = make(), []
        day(rotation, item(0), item(1), item(2))
        state = from_a_store(rotation)
        state["structure_N_limit"] = 4
        state["slot_by_key"].pop(("pair", 2))
        state["key_by_slot"].pop(2)
        state["legs_by_slot"].pop(2)
        metadata = rotation._metadata_by_slot
        metadata[0]["active"] = Watcher("value", rotation, log)
        metadata[1]["note"] = Watcher("word too many", rotation, log)
        metadata[2]["key"] = metadata[3]["active"] = Watcher("twice", rotation, log)
        metadata[4] = {
            "active": (Watcher("first", rotation, log), Watcher("second", rotation, log))
        }
        if shared:
            metadata[0]["legs"] = metadata[4]["active"]
        del metadata
        rotation.set_state(state)
        return [*log, contents(rotation)]

    compare(modules, scenario)


@pytest.mark.parametrize("table", ["slot_by_key", "key_by_slot", "_legs_by_slot"])
def test_what_goes_with_a_map_sees_the_old_metadata(modules, table):
    def scenario(make):
        rotation, log = make(), []
        day(rotation, item(0), item(1))
        state = from_a_store(rotation)
        state["structure_metadata_by_slot"][0]["active"] = "new"
        if table == "slot_by_key":
            rotation.slot_by_key[(Watcher("key", rotation, log),)] = 7
        else:
            getattr(rotation, table)[7] = Watcher("value", rotation, log)
        rotation.set_state(state)
        return [*log, contents(rotation)]

    assert compare(modules, scenario)[0][1] != [0, 0, 0]


def test_one_dict_as_two_tables(modules):
    def scenario(make):
        rotation, log = make(), []
        day(rotation, item(0))
        state = from_a_store(rotation)
        rotation.slot_by_key = rotation.key_by_slot = {0: Watcher("value", rotation, log)}
        rotation.set_state(state)
        return [*log, contents(rotation)]

    compare(modules, scenario)


def test_what_goes_may_change_the_rotation(modules):
    def scenario(make):
        rotation, log = make(), []
        day(rotation, item(0), item(1))
        state, other = from_a_store(rotation), from_a_store(rotation)
        other["structure_N_limit"] = 5
        actions = [
            lambda: rotation.set_state(other),
            lambda: rotation._metadata_by_slot.append({}),
            lambda: rotation._metadata_by_slot.clear(),
            lambda: rotation.slot_by_key.clear(),
            lambda: setattr(rotation, "_metadata_by_slot", [{} for _ in range(SLOTS)]),
            lambda: vars(rotation).pop("_structure_N_limit"),
            lambda: log.append(rotation._structure_N_limit),
        ]
        for action in actions:
            rotation._metadata_by_slot = [
                {"active": Watcher("value", rotation, log, action)},
                *({"active": False} for _ in range(SLOTS - 1)),
            ]
            log.append(outcome(rotation.set_state, pickle.loads(pickle.dumps(state))))
            log.append(contents(rotation))
        return log

    compare(modules, scenario)
