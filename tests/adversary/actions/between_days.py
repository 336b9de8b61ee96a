"""What somebody may do to a rotation's attributes between two days."""

import collections
import copy

import numpy as np

from adversary.values.children import Sum
from adversary.values.items import SubDict
from support.fakes import RecordingSink


def replace_legs_table(rotation):
    rotation._legs_by_slot = collections.OrderedDict(reversed(rotation._legs_by_slot.items()))


def edit_legs(rotation):
    rotation._legs_by_slot[0] = [[0, 2], [1, -3.5]]


def numpy_legs(rotation):
    rotation._legs_by_slot[0] = [(np.int64(1), np.float32(0.1)), (-1, True)]


def bad_legs(rotation):
    rotation._legs_by_slot[0] = ((0, 1.0), (99, 1.0))


def drop_legs(rotation):
    rotation._legs_by_slot.clear()


def replace_metadata(rotation):
    rotation._metadata_by_slot = [SubDict(entry) for entry in rotation._metadata_by_slot]


def tuple_metadata(rotation):
    rotation._metadata_by_slot = tuple(rotation._metadata_by_slot)


def share_metadata(rotation):
    entry = rotation._metadata_by_slot[0]
    rotation._metadata_by_slot = [entry for _ in rotation._metadata_by_slot]


def hold_metadata(rotation):
    rotation.held = list(rotation._metadata_by_slot)


def edit_metadata(rotation):
    for entry in rotation._metadata_by_slot:
        entry["edited"] = True


def edit_held_metadata(rotation):
    for entry in getattr(rotation, "held", []):
        entry["active"] = "held"


def release_metadata(rotation):
    rotation.held = None


def swap_metadata(rotation):
    rotation._metadata_by_slot.reverse()


def repeat_metadata(rotation):
    rotation._metadata_by_slot[-1] = rotation._metadata_by_slot[0]


def equal_metadata(rotation):
    rotation._metadata_by_slot[:] = [dict(entry) for entry in rotation._metadata_by_slot]


def inactive_metadata(rotation):
    for entry in rotation._metadata_by_slot:
        entry.clear()
        entry["active"] = False


def swap_slots(rotation):
    swapped = list(rotation.slot_by_key.values())[::-1]
    rotation.slot_by_key.update(zip(rotation.slot_by_key, swapped, strict=True))


def swap_legs(rotation):
    table = rotation._legs_by_slot
    table.update(zip(table, list(table.values())[::-1], strict=True))


def run_a_copy(rotation):
    """Run a day of a shallow copy, which works on the very same tables."""
    copied = copy.copy(rotation)
    copied.items = [{"key": ("b",), "legs": ((4, 1.0), (0, 2.0)), "value": 8.0}]
    copied.compute((None,), (), np.zeros(6), np.zeros(6), 6)


def run_a_deep_copy(rotation):
    copied = copy.deepcopy(rotation)
    copied.items = [{"key": ("b",), "legs": ((4, 1.0),), "value": 8.0}]
    copied.compute((None,), (), np.zeros(6), np.zeros(6), 6)


def short_metadata(rotation):
    del rotation._metadata_by_slot[-1:]


def replace_input(rotation):
    rotation._txi_input = np.zeros(2 * rotation.max_structures)[::2]


def int_input(rotation):
    rotation._txi_input = np.zeros(rotation.max_structures, dtype=np.float32)


def short_input(rotation):
    rotation._txi_input = np.zeros(1)


def replace_output(rotation):
    rotation._txi_output = np.zeros(rotation.max_structures + 1)


def replace_maps(rotation):
    rotation.slot_by_key = SubDict(rotation.slot_by_key)
    rotation.key_by_slot = collections.OrderedDict(rotation.key_by_slot)


def forget_a_key(rotation):
    if rotation.slot_by_key:
        del rotation.slot_by_key[next(iter(rotation.slot_by_key))]


def switch_policy(rotation):
    switched = {"proportional": "equal_split", "equal_split": "?", "?": "proportional"}
    rotation.unmap_policy = switched[rotation.unmap_policy]


def switch_trace(rotation):
    rotation.trace_sink = None if rotation.trace_sink is not None else RecordingSink()


def grow_capacity(rotation):
    rotation.max_structures += 1


def shrink_capacity(rotation):
    rotation.max_structures -= 1


def rename(rotation):
    rotation._name = 7


def tuple_children(rotation):
    rotation.child_rotations = tuple(rotation.child_rotations)


def add_child(rotation):
    rotation.child_rotations = [*rotation.child_rotations, Sum()]


def skip_on_empty(rotation):
    rotation._call_child_on_empty = 0


def restore_own_state(rotation):
    rotation.set_state(rotation.get_state())


def restore_copied_state(rotation):
    rotation.set_state(copy.deepcopy(rotation.get_state()))


def resize_wider(rotation):
    rotation.resize(rotation._n_alloc + 2)
    # The new buffer's contents are undefined, so two runs agree only once they are set.
    rotation._output_buf.fill(77.0)


CHANGES = [
    replace_legs_table,
    edit_legs,
    numpy_legs,
    bad_legs,
    drop_legs,
    replace_metadata,
    tuple_metadata,
    share_metadata,
    hold_metadata,
    edit_metadata,
    edit_held_metadata,
    release_metadata,
    swap_metadata,
    repeat_metadata,
    equal_metadata,
    inactive_metadata,
    swap_slots,
    swap_legs,
    run_a_copy,
    run_a_deep_copy,
    short_metadata,
    replace_input,
    int_input,
    short_input,
    replace_output,
    replace_maps,
    forget_a_key,
    switch_policy,
    switch_trace,
    grow_capacity,
    shrink_capacity,
    rename,
    tuple_children,
    add_child,
    skip_on_empty,
    restore_own_state,
    restore_copied_state,
    resize_wider,
]
CHANGES_BY_NAME = {change.__name__: change for change in CHANGES}
