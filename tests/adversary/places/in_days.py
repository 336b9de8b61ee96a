"""Places in the middle of a day where the user's code can run.

Each takes the rotation and a trigger, which it puts somewhere into the rotation or its items.
"""

import numpy as np

from adversary.places.in_items import ITEM_PLACES, LEGS
from adversary.places.in_records import RECORD_PLACES
from adversary.places.names import names_of
from adversary.values.arrays import WatchedArray, WatchedView
from adversary.values.containers import (
    MeasuredItems,
    Parts,
    WatchedEntry,
    WatchedItems,
    WatchedList,
    WatchedMap,
    WatchedMask,
    WatchedTable,
)
from adversary.values.ends import Deleted
from adversary.values.items import Thing
from adversary.values.keys import Policy
from adversary.values.numbers import Comparing, Number, TruthOf, Weight
from adversary.values.triggers import firing, watched


def place_iterator(rotation, trigger):
    items = rotation.items

    def drawn(*args):
        for position, item in enumerate(items):
            if position == 1:
                trigger.fire()
            yield item

    rotation.items = drawn


def place_hook(rotation, trigger):
    items = rotation.items

    def hook(*args):
        trigger.fire()
        return items

    rotation.items = hook


def place_child(rotation, trigger):
    def child(values, context):
        trigger.fire()
        return values

    rotation.child_rotations.insert(0, child)


def place_child_result(rotation, trigger):
    class Result:
        def __init__(self, values):
            self.values = values

        def __array__(self, dtype=None, copy=None):
            trigger.fire()
            return np.array(self.values)

    rotation.child_rotations.append(lambda values, context: Result(values))


def place_sink(rotation, trigger):
    class Sink(list):
        def append(self, record):
            super().append(record)
            trigger.fire()

    rotation.trace_sink = Sink()


def place_reset(rotation, trigger):
    rotation._metadata_by_slot[1] = watched(WatchedEntry, trigger)
    rotation._metadata_by_slot[3] = watched(WatchedEntry, trigger)


def place_reset_deletion(rotation, trigger):
    rotation._metadata_by_slot[3]["old"] = Deleted(trigger)


def place_replaced_metadata_deletion(rotation, trigger):
    class Entry(dict):
        def clear(self):
            pass

    rotation._metadata_by_slot[1] = Entry(old=Deleted(trigger))


def place_replaced_legs_deletion(rotation, trigger):
    rotation._legs_by_slot[1] = [Deleted(trigger)]


def place_replaced_key_deletion(rotation, trigger):
    rotation.key_by_slot[3] = Deleted(trigger)
    rotation.items.insert(0, {"key": ("new",), "legs": ((5, 1.0),), "value": 4.0})


def place_replaced_key_deletion_at_the_end(rotation, trigger):
    rotation.key_by_slot[3] = Deleted(trigger)
    rotation.items.append({"key": ("new",), "legs": ((5, 1.0),), "value": 4.0})


def place_fill(rotation, trigger):
    rotation._txi_input = watched(WatchedArray, trigger, rotation._txi_input)


def place_legs_table_write(rotation, trigger):
    table = rotation._legs_by_slot
    rotation._legs_by_slot = watched(WatchedTable, trigger, table, place="set")


def place_legs_table_read(rotation, trigger):
    table = rotation._legs_by_slot
    rotation._legs_by_slot = watched(WatchedTable, trigger, table, place="get")


def place_metadata_write(rotation, trigger):
    rotation._metadata_by_slot = watched(WatchedList, trigger, rotation._metadata_by_slot)


def place_policy(rotation, trigger):
    rotation.unmap_policy = watched(Policy, trigger, "equal_split")


def place_weight_multiplication(rotation, trigger):
    rotation._legs_by_slot[3] = ((0, 1.0), (1, Weight(trigger)), (2, 1.0))


def place_weight_comparison(rotation, trigger):
    rotation.unmap_policy = "equal_split"
    rotation._legs_by_slot[3] = ((0, 1.0), (1, Weight(trigger)), (2, 1.0))


def place_stale_leg_unpacking(rotation, trigger):
    rotation._legs_by_slot[3] = [(0, 1.0), Parts(trigger, (1, 0.5)), (2, 1.0)]


def place_attribute_assignment(rotation, trigger):
    def __setattr__(self, name, value):
        object.__setattr__(self, name, value)
        if name == "_txi_output":
            trigger.fire()

    type(rotation).__setattr__ = __setattr__


def place_validity(rotation, trigger):
    def _structure_is_valid(structure, *args):
        valid = type(rotation)._structure_is_valid(rotation, structure, *args)
        return TruthOf(trigger, bool(valid)) if structure.key == ("b",) else valid

    rotation._structure_is_valid = _structure_is_valid


def place_output_row(rotation, trigger):
    class Row(list):
        def __getitem__(self, item):
            trigger.fire()
            return super().__getitem__(item)

    def _run_child_chain(values, context):
        return Row(type(rotation)._run_child_chain(rotation, values, context))

    rotation._run_child_chain = _run_child_chain


def place_combined_mask(rotation, trigger):
    rotation.masks = ((), watched(WatchedMask, trigger, [0] * 6))


def place_single_mask(rotation, trigger):
    rotation.masks = ([[0] * 6, watched(WatchedMask, trigger, [0] * 6), [0] * 6], [0] * 6)


def place_mask_truth(rotation, trigger):
    flags = [np.uint8(0), TruthOf(trigger, False), TruthOf(trigger, False)] + [0] * 3
    rotation.masks = ((flags,), np.zeros(6, dtype=np.uint8))


def place_output_buffer(rotation, trigger):
    rotation.masks = ((), np.zeros(6, dtype=np.uint8))
    rotation.buffer = watched(WatchedArray, trigger, np.zeros(6))


def place_day_index(rotation, trigger):
    class Day:
        @property
        def current_day_index(self):
            trigger.fire()
            return 2

    rotation.context = Day()


def place_day_conversion(rotation, trigger):
    rotation.context = Thing(current_day_index=Number(trigger, 2))


def place_drawn_item_deletion(rotation, trigger):
    class Drawn(list):
        def __iter__(self):
            for item in list(super().__iter__()):
                yield {**item, "extra": Deleted(trigger)}

    rotation.items = Drawn(rotation.items)


def place_items_truth(rotation, trigger):
    rotation.items = watched(WatchedItems, trigger, rotation.items)


def place_items_length(rotation, trigger):
    rotation.items = watched(MeasuredItems, trigger, rotation.items)


def place_call_on_empty_truth(rotation, trigger):
    rotation.items = []
    rotation._call_child_on_empty = TruthOf(trigger, False)


def place_slot_map_membership(rotation, trigger):
    rotation.slot_by_key = watched(WatchedMap, trigger, rotation.slot_by_key, place="contains")


def place_slot_map_read(rotation, trigger):
    rotation.slot_by_key = watched(WatchedMap, trigger, rotation.slot_by_key, place="getitem")


def place_slot_map_length(rotation, trigger):
    report_a_new_key(rotation)
    rotation.slot_by_key = watched(WatchedMap, trigger, rotation.slot_by_key, place="len")


def place_slot_map_write(rotation, trigger):
    report_a_new_key(rotation)
    rotation.slot_by_key = watched(WatchedMap, trigger, rotation.slot_by_key, place="setitem")


def place_key_map_write(rotation, trigger):
    report_a_new_key(rotation)
    rotation.key_by_slot = watched(WatchedMap, trigger, rotation.key_by_slot, place="setitem")


def place_slot_map_copied_for_the_trace(rotation, trigger):
    rotation.slot_by_key = watched(WatchedMap, trigger, rotation.slot_by_key, place="keys")


def place_metadata_copied_for_the_trace(rotation, trigger):
    rotation._metadata_by_slot[3] = watched(WatchedMap, trigger, {"a": 1}, place="keys")


def place_capacity_comparison(rotation, trigger):
    report_a_new_key(rotation)
    rotation.max_structures = watched(Comparing, trigger, 4)


def place_capacity_equality(rotation, trigger):
    rotation.max_structures = firing(trigger, __eq__=lambda other: other == 4)


def place_capacity_index(rotation, trigger):
    class Capacity:
        def __index__(self):
            trigger.fire()
            return 4

        def __eq__(self, other):
            return other == 4

        def __repr__(self):
            return "Capacity"

    rotation.max_structures = Capacity()


def place_name_formatting(rotation, trigger):
    report_a_new_key(rotation)
    rotation.max_structures = 3
    rotation._name = firing(trigger, __format__="name")


def place_children_iteration(rotation, trigger):
    children = rotation.child_rotations
    rotation.child_rotations = firing(trigger, __iter__=lambda: iter(children))


def place_child_result_sequence(rotation, trigger):
    rotation.child_rotations.append(
        lambda values, context: firing(
            trigger, __len__=4, __getitem__=[0.5, 1.0, 2.0, 3.0].__getitem__
        )
    )


def place_child_result_number(rotation, trigger):
    rotation.child_rotations.append(lambda values, context: [0.5, Number(trigger, 1.0), 2.0, 3.0])


def place_child_result_deletion(rotation, trigger):
    class Result(list):
        def __del__(self):
            trigger.fire()

    rotation.child_rotations.append(lambda values, context: Result([0.5] * 4))


def place_universe_row_shape(rotation, trigger):
    class Row:
        @property
        def shape(self):
            trigger.fire()
            return (4,)

    rotation._txi_universe_row = Row()


def place_sink_lookup(rotation, trigger):
    rotation.trace_sink = firing(trigger, __getattr__=lambda name: [].append)


def place_context_lookup(rotation, trigger):
    rotation.context = firing(trigger, __getattr__=lambda name: 2)


def place_day_index_index(rotation, trigger):
    rotation.context = Thing(current_day_index=firing(trigger, __index__=2))


def place_live_count_comparison(rotation, trigger):
    clear = np.zeros(6, dtype=np.uint8)
    rotation.masks = ((clear,), clear)
    rotation.live_count = watched(Comparing, trigger, 6)


def place_arguments(rotation, trigger):
    clear = np.zeros(6, dtype=np.uint8)
    rotation.masks = ((clear,), clear)
    rotation.arguments = firing(trigger, __getitem__=(np.zeros(6), np.ones(6)).__getitem__)


def place_masks_iteration(rotation, trigger):
    masks = [np.zeros(6, dtype=np.uint8), [0] * 6]
    rotation.masks = (firing(trigger, __iter__=lambda: iter(masks)), np.zeros(6, dtype=np.uint8))


def place_output_buffer_slice(rotation, trigger):
    rotation.masks = ((), np.zeros(6, dtype=np.uint8))
    rotation.buffer = watched(WatchedView, trigger, np.zeros(6))


def place_stale_legs_truth(rotation, trigger):
    rotation._legs_by_slot[3] = firing(trigger, __bool__=False)


def place_stale_legs_length(rotation, trigger):
    rotation.unmap_policy = "equal_split"
    rotation._legs_by_slot[3] = watched(MeasuredItems, trigger, LEGS)


def place_stale_legs_iteration(rotation, trigger):
    rotation._legs_by_slot[3] = firing(trigger, __iter__=lambda: iter(LEGS))


def place_stale_leg_id(rotation, trigger):
    rotation._legs_by_slot[3] = ((0, 1.0), (firing(trigger, __index__=1), 1.0), (2, 1.0))


def place_slot_index(rotation, trigger):
    give_slot(rotation, firing(trigger, __index__=1))


def place_slot_hash(rotation, trigger):
    class Slot(int):
        def __hash__(self):
            trigger.fire()
            return 1

    give_slot(rotation, Slot(1))


def give_slot(rotation, given):
    def _slot_for_key(key):
        slot = type(rotation)._slot_for_key(rotation, key)
        return given if key == ("b",) else slot

    rotation._slot_for_key = _slot_for_key


def report_a_new_key(rotation):
    rotation.items.append({"key": ("new",), "legs": ((5, 1.0),), "value": 4.0})


PLACES = {**names_of("place_", globals()), **RECORD_PLACES}
DELETIONS = [name for name in [*PLACES, *ITEM_PLACES] if "deletion" in name]
