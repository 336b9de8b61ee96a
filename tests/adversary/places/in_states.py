"""Places in a state where the user's code can run.

Each takes the state and a trigger, and changes the state in place.
"""

import sys

from adversary.places.names import names_of
from adversary.values.containers import Entry, FiringList, Items, WatchedMap
from adversary.values.ends import Deleted
from adversary.values.keys import FiringKey, Hashed
from adversary.values.numbers import Comparing, FiringInt, Number
from adversary.values.triggers import firing, watched

CAPACITY = 4


def spot_weight(state, trigger):
    every_legs(state, lambda: [(0, 1.0), (1, Number(trigger, 0.5)), (2, 1.0)])


def spot_weight_index(state, trigger):
    every_legs(state, lambda: [(0, 1.0), (1, firing(trigger, __index__=2)), (2, 1.0)])


def spot_leg_iteration(state, trigger):
    every_legs(
        state, lambda: [[0, 1.0], watched(FiringList, trigger, [1, 2.0], place="iter"), [2, 1.0]]
    )


def spot_leg_length(state, trigger):
    every_legs(
        state, lambda: [[0, 1.0], watched(FiringList, trigger, [1, 2.0], place="len"), [2, 1.0]]
    )


def spot_legs_iteration(state, trigger):
    every_legs(state, lambda: watched(FiringList, trigger, [(0, 1.0), (1, 2.0)], place="iter"))


def spot_leg_id_conversion(state, trigger):
    every_legs(state, lambda: [(0, 1.0), (watched(FiringInt, trigger, 1), 2.0), (2, 1.0)])


def every_legs(state, make):
    for slot in state["legs_by_slot"]:
        state["legs_by_slot"][slot] = make()


if sys.version_info < (3, 14):  # later tuples remember their hash

    def spot_key_hash(state, trigger):
        other_keys(state, lambda: (Hashed(trigger, "hash"),))


def spot_key_comparison(state, trigger):
    other_keys(state, lambda: (Hashed(trigger, "eq"),))


def spot_key_comparison_with_another(state, trigger):
    other_keys(state, lambda: (Hashed(trigger, "eq", equal=False),))


def spot_key_iteration(state, trigger):
    other_keys(state, lambda: watched(FiringKey, trigger, ("b",)))


def other_keys(state, make):
    """Give a slot another key in each of the two maps, made twice."""
    names = state["key_by_slot"]
    for slot in list(names)[:1]:
        state["slot_by_key"] = {
            make() if other == slot else key: other for key, other in state["slot_by_key"].items()
        }
        names[slot] = make()


def spot_slot_conversion(state, trigger):
    for key, slot in list(state["slot_by_key"].items()):
        state["slot_by_key"][key] = watched(FiringInt, trigger, slot)


def spot_key_map_slot_conversion(state, trigger):
    entries = state["key_by_slot"].items()
    state["key_by_slot"] = {watched(FiringInt, trigger, slot): key for slot, key in entries}


def spot_legs_slot_conversion(state, trigger):
    entries = state["legs_by_slot"].items()
    state["legs_by_slot"] = {watched(FiringInt, trigger, slot): legs for slot, legs in entries}


def spot_metadata_keys(state, trigger):
    state["structure_metadata_by_slot"] = [{}, watched(Entry, trigger, {"a": 1}), {"b": 2}, {}]


def spot_metadata_length(state, trigger):
    state["structure_metadata_by_slot"] = watched(
        FiringList, trigger, [{} for _ in range(CAPACITY)], place="len"
    )


def spot_metadata_iteration(state, trigger):
    state["structure_metadata_by_slot"] = watched(
        FiringList, trigger, [{} for _ in range(CAPACITY)], place="iter"
    )


def spot_cleared_metadata_deletion(state, trigger):
    # The state is the only holder of what it clears here.
    state["structure_metadata_by_slot"] = [
        watched(Entry, Silent(), {"old": Deleted(trigger)}) for _ in range(CAPACITY)
    ]
    state["structure_metadata_by_slot"][0].trigger = Clearing(state["structure_metadata_by_slot"])


class Silent:
    def fire(self):
        pass


class Clearing:
    """Drops the entries of a list when it fires."""

    def __init__(self, entries):
        self.entries = entries

    def fire(self):
        del self.entries[1:]


def spot_slot_map_items(state, trigger):
    state["slot_by_key"] = watched(Items, trigger, state["slot_by_key"])


def spot_key_map_items(state, trigger):
    state["key_by_slot"] = watched(Items, trigger, state["key_by_slot"])


def spot_legs_items(state, trigger):
    state["legs_by_slot"] = watched(Items, trigger, state["legs_by_slot"])


def spot_slot_map_length(state, trigger):
    state["slot_by_key"] = watched(WatchedMap, trigger, state["slot_by_key"], place="len")


def spot_key_map_length(state, trigger):
    state["key_by_slot"] = watched(WatchedMap, trigger, state["key_by_slot"], place="len")


def spot_legs_length(state, trigger):
    state["legs_by_slot"] = watched(WatchedMap, trigger, state["legs_by_slot"], place="len")


def spot_limit_comparison(state, trigger):
    state["structure_N_limit"] = watched(Comparing, trigger, 6)


def spot_limit_conversion(state, trigger):
    state["structure_N_limit"] = watched(FiringInt, trigger, 6)


def spot_child_states_length(state, trigger):
    state["child_states"] = watched(FiringList, trigger, state["child_states"], place="len")


def spot_child_states_iteration(state, trigger):
    state["child_states"] = watched(FiringList, trigger, state["child_states"], place="iter")


SPOTS = names_of("spot_", globals())
