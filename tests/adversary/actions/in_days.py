"""What code that runs in the middle of a day can do to the rotation."""

import gc

import numpy as np

from adversary.actions.between_days import CHANGES
from support import frozen
from support.days import STEPS, override_on_instance, passing_method


def clear_items(rotation):
    rotation.items.clear()


def drop_item(rotation):
    rotation.items.pop()


def append_item(rotation):
    rotation.items.append({"key": ("d",), "legs": ((4, 1.0),), "value": 4.0})


def edit_next_item(rotation):
    rotation.items[2] = {"key": ("e",), "legs": [(4, 1.0)], "value": 5.0}


def call_again(rotation):
    rotation.nested = frozen.outcome(rotation, np.ones(6))


def compute_again(rotation):
    clear = np.zeros(6, dtype=np.uint8)
    buffer = np.zeros(6)
    rotation.nested = frozen.outcome(rotation.compute, (buffer,), (clear,), clear, buffer, 6)


def take_state(rotation):
    rotation.state_taken = rotation.get_state()


def set_empty_state(rotation):
    rotation.set_state({"child_states": [{}] * len(rotation.child_rotations)})


def override_the_steps(rotation):
    override_on_instance(rotation, STEPS, rotation.log)


def override_the_class(rotation):
    for name in STEPS:
        setattr(type(rotation), name, passing_method(name, type(rotation), rotation.log))


def change_the_class(rotation):
    subclass = type("Sub", (type(rotation),), {})
    for name in STEPS:
        setattr(subclass, name, passing_method(name, subclass, rotation.log))
    rotation.__class__ = subclass


def make_everything_valid(rotation):
    rotation._structure_is_valid = lambda *args: True


def make_nothing_valid(rotation):
    type(rotation)._structure_is_valid = lambda *args: False


def give_one_slot(rotation):
    rotation._slot_for_key = lambda key: 3


def drop_the_metadata(rotation):
    del rotation._metadata_by_slot[:]


def other_metadata(rotation):
    rotation._metadata_by_slot = [{"active": "?"} for _ in range(2)]


def grow_the_metadata(rotation):
    rotation._metadata_by_slot.append({"grown": 1})


def other_input(rotation):
    rotation._txi_input = np.full(6, 0.125)


def read_only_input(rotation):
    rotation._txi_input.flags.writeable = False


def integer_input(rotation):
    rotation._txi_input = np.zeros(4, dtype=np.int64)


def list_input(rotation):
    rotation._txi_input = [0.0] * 4


def shrink_input_in_place(rotation):
    rotation._txi_input.resize(1, refcheck=False)


def shrink_outputs_in_place(rotation):
    rotation._txi_output.resize(1, refcheck=False)
    rotation._output_buf.resize(1, refcheck=False)
    rotation._output_buf.fill(77.0)


def flag_all_in_place(rotation):
    # Filled, not resized: the day's mask is a view of this array.
    rotation._combined_nan_buf.fill(1)


def other_legs_table(rotation):
    rotation._legs_by_slot = {0: ((5, 1.0),), 1: [(5, 2)]}


def other_slot_map(rotation):
    rotation.slot_by_key = {("c",): 1}


def clear_slot_map(rotation):
    rotation.slot_by_key.clear()


def odd_slots(rotation):
    rotation.slot_by_key = {("b",): np.int64(2), ("c",): True}


def lose_an_attribute(rotation):
    del rotation._txi_input


def lose_the_maps(rotation):
    del rotation.slot_by_key


def lose_all_attributes(rotation):
    rotation.__dict__.clear()


def move_the_attributes(rotation):
    rotation.__dict__ = {**vars(rotation), "unmap_policy": "equal_split"}


def no_children(rotation):
    rotation.child_rotations.clear()


def other_sink(rotation):
    rotation.trace_sink = ["other"]


def collect_garbage(rotation):
    gc.collect()


def raise_an_error(rotation):
    raise LookupError("action")


def raise_attribute_error(rotation):
    raise AttributeError("action")


def raise_stop_iteration(rotation):
    raise StopIteration("action")


def raise_key_error(rotation):
    raise KeyError("action")


def raise_what_is_no_exception(rotation):
    raise KeyboardInterrupt("action")


def raise_generator_exit(rotation):
    raise GeneratorExit("action")


def raise_a_chained_error(rotation):
    try:
        raise OSError("first")
    except OSError as error:
        raise LookupError("second") from error


# By the harm that they mean
HARMS = {
    "empties": [
        clear_items,
        drop_item,
        drop_the_metadata,
        clear_slot_map,
        no_children,
        lose_an_attribute,
        lose_the_maps,
        lose_all_attributes,
    ],
    "replaces": [
        edit_next_item,
        other_metadata,
        other_input,
        integer_input,
        list_input,
        other_legs_table,
        other_slot_map,
        odd_slots,
        move_the_attributes,
        other_sink,
    ],
    "resizes": [
        append_item,
        grow_the_metadata,
        read_only_input,
        shrink_input_in_place,
        shrink_outputs_in_place,
        flag_all_in_place,
    ],
    "enters again": [call_again, compute_again, take_state, set_empty_state, collect_garbage],
    "overrides": [
        override_the_steps,
        override_the_class,
        change_the_class,
        make_everything_valid,
        make_nothing_valid,
        give_one_slot,
    ],
    "raises": [
        raise_an_error,
        raise_attribute_error,
        raise_stop_iteration,
        raise_key_error,
        raise_a_chained_error,
    ],
    "raises what is no exception": [raise_what_is_no_exception, raise_generator_exit],
    "changes as between days": CHANGES,
}
ACTIONS = {action.__name__: action for actions in HARMS.values() for action in actions}
