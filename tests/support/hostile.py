"""Places in the middle of a day where the user's code can run, and what it can do there."""

import gc

import numpy as np

from support import days

LEGS = ((1, 0.5), (2, -1.0))


class Trigger:
    """One-shot: `fire()` runs the action the first time after it was armed."""

    def __init__(self):
        self.action = None
        self.fired = 0

    def fire(self):
        action, self.action = self.action, None
        if action is not None:
            self.fired += 1
            action()


class Number:
    """Converts by int() and float(), firing first."""

    def __init__(self, trigger, number):
        self.trigger = trigger
        self.number = number

    def __int__(self):
        self.trigger.fire()
        return int(self.number)

    def __float__(self):
        self.trigger.fire()
        return float(self.number)


class Parts:
    """Iterable that fires before and between its parts, and as a mapping when asked for keys."""

    def __init__(self, trigger, parts, *, late=False):
        self.trigger = trigger
        self.parts = parts
        self.late = late

    def __iter__(self):
        for position, part in enumerate(self.parts):
            if not self.late or position:
                self.trigger.fire()
            yield part


class Mapping:
    def __init__(self, trigger):
        self.trigger = trigger

    def keys(self):
        self.trigger.fire()
        return ["note"]

    def __getitem__(self, key):
        return 1


class TruthOf:
    """Something true or false that fires when asked."""

    def __init__(self, trigger, truth):
        self.trigger = trigger
        self.truth = truth

    def __bool__(self):
        self.trigger.fire()
        return self.truth


class Hashed:
    """Part of a key: fires when hashed or compared, and is equal to its like or to nothing."""

    def __init__(self, trigger, place, *, equal=True):
        self.trigger = trigger
        self.place = place
        self.equal = equal

    def __hash__(self):
        if self.place == "hash":
            self.trigger.fire()
        return hash("a")

    def __eq__(self, other):
        if self.place == "eq":
            self.trigger.fire()
        return self.equal and isinstance(other, Hashed)


class Deleted:
    """Fires when it is thrown away."""

    def __init__(self, trigger):
        self.trigger = trigger

    def __del__(self):
        self.trigger.fire()


class Weight:
    """Weight that fires when it is compared or multiplied."""

    __array_ufunc__ = None

    def __init__(self, trigger):
        self.trigger = trigger

    def __ge__(self, other):
        self.trigger.fire()
        return False

    def __rmul__(self, value):
        self.trigger.fire()
        return value * 2.0


class Policy(str):
    __slots__ = ("trigger",)

    def __eq__(self, other):
        self.trigger.fire()
        return str.__eq__(self, other)

    __hash__ = str.__hash__


class WatchedArray(np.ndarray):
    """Array that fires when it is filled, written or read at an integer index."""

    trigger = None

    def fill(self, value):
        super().fill(value)
        self.trigger.fire()

    def __setitem__(self, item, value):
        super().__setitem__(item, value)
        self.trigger.fire()


class WatchedMask(list):
    """Mask that fires when it is read."""

    trigger = None

    def __getitem__(self, item):
        self.trigger.fire()
        return super().__getitem__(item)


class WatchedTable(dict):
    """Legs table that fires when it is written, or read with get."""

    trigger = None
    place = None

    def __setitem__(self, slot, legs):
        super().__setitem__(slot, legs)
        if self.place == "set":
            self.trigger.fire()

    def get(self, slot, default=None):
        if self.place == "get":
            self.trigger.fire()
        return super().get(slot, default)


class WatchedList(list):
    """Metadata list that fires when an entry is replaced."""

    trigger = None

    def __setitem__(self, slot, entry):
        super().__setitem__(slot, entry)
        self.trigger.fire()


class WatchedEntry(dict):
    trigger = None

    def clear(self):
        self.trigger.fire()
        super().clear()


def watched(kind, trigger, *args, **attributes):
    """Make an instance of a watching container."""
    container = np.array(*args).view(kind) if issubclass(kind, np.ndarray) else kind(*args)
    container.trigger = trigger
    for name, value in attributes.items():
        setattr(container, name, value)
    return container


# Places: each puts the trigger somewhere into the rotation or its second item


def item_with(trigger, **fields):
    return {"key": ("b",), "legs": LEGS, "value": 2.0, **fields}


def item_with_property(trigger, name):
    """Make an item that is an object, one attribute of which fires."""
    fields = {"key": ("b",), "legs": LEGS, "value": 2.0, "metadata": {"note": 1}}
    result = fields.pop(name)

    def read(self):
        trigger.fire()
        return result

    return type("Item", (), {**fields, name: property(read)})()


class WatchedItem(dict):
    """Dict item that fires when it is read."""

    trigger = None

    def __getitem__(self, name):
        self.trigger.fire()
        return super().__getitem__(name)

    def get(self, name, default=None):
        self.trigger.fire()
        return super().get(name, default)


ITEM_PLACES = {
    "key attribute": lambda trigger: item_with_property(trigger, "key"),
    "legs attribute": lambda trigger: item_with_property(trigger, "legs"),
    "value attribute": lambda trigger: item_with_property(trigger, "value"),
    "metadata attribute": lambda trigger: item_with_property(trigger, "metadata"),
    "dict access": lambda trigger: watched(WatchedItem, trigger, item_with(trigger)),
    "key iteration": lambda trigger: item_with(trigger, key=Parts(trigger, ["b"])),
    "key hash": lambda trigger: item_with(trigger, key=(Hashed(trigger, "hash"),)),
    "key comparison": lambda trigger: item_with(trigger, key=(Hashed(trigger, "eq"),)),
    "key comparison with another": lambda trigger: item_with(
        trigger, key=(Hashed(trigger, "eq", equal=False),)
    ),
    "legs iteration": lambda trigger: item_with(trigger, legs=Parts(trigger, LEGS, late=True)),
    "leg unpacking": lambda trigger: item_with(trigger, legs=[(0, 1.0), Parts(trigger, (1, 0.5))]),
    "leg id": lambda trigger: item_with(trigger, legs=[(0, 1.0), (Number(trigger, 1), 0.5)]),
    "weight": lambda trigger: item_with(trigger, legs=((1, Number(trigger, 0.5)), (2, 1.0))),
    "metadata truth": lambda trigger: item_with(trigger, metadata=TruthOf(trigger, False)),
    "metadata keys": lambda trigger: item_with(trigger, metadata=Mapping(trigger)),
    "value": lambda trigger: item_with(trigger, value=Number(trigger, 2.0)),
}


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
    rotation.context = days.Thing(current_day_index=Number(trigger, 2))


PLACES = {
    name.removeprefix("place_").replace("_", " "): place
    for name, place in list(globals().items())
    if name.startswith("place_")
}


# Actions: the changes between days, and these


def clear_items(rotation):
    rotation.items.clear()


def drop_item(rotation):
    rotation.items.pop()


def append_item(rotation):
    rotation.items.append({"key": ("d",), "legs": ((4, 1.0),), "value": 4.0})


def edit_next_item(rotation):
    rotation.items[2] = {"key": ("e",), "legs": [(4, 1.0)], "value": 5.0}


def call_again(rotation):
    rotation.nested = days.outcome(rotation, np.ones(6))


def compute_again(rotation):
    clear = np.zeros(6, dtype=np.uint8)
    buffer = np.zeros(6)
    rotation.nested = days.outcome(rotation.compute, (buffer,), (clear,), clear, buffer, 6)


def take_state(rotation):
    rotation.state_taken = rotation.get_state()


def set_empty_state(rotation):
    rotation.set_state({"child_states": [{}] * len(rotation.child_rotations)})


def override_the_steps(rotation):
    days.override_on_instance(rotation, days.STEPS, rotation.log)


def override_the_class(rotation):
    for name in days.STEPS:
        setattr(type(rotation), name, days.passing_method(name, type(rotation), rotation.log))


def change_the_class(rotation):
    subclass = type("Sub", (type(rotation),), {})
    for name in days.STEPS:
        setattr(subclass, name, days.passing_method(name, subclass, rotation.log))
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


def raise_a_chained_error(rotation):
    try:
        raise OSError("first")
    except OSError as error:
        raise LookupError("second") from error


OWN_ACTIONS = [
    clear_items,
    drop_item,
    append_item,
    edit_next_item,
    call_again,
    compute_again,
    take_state,
    set_empty_state,
    override_the_steps,
    override_the_class,
    change_the_class,
    make_everything_valid,
    make_nothing_valid,
    give_one_slot,
    drop_the_metadata,
    other_metadata,
    grow_the_metadata,
    other_input,
    read_only_input,
    integer_input,
    list_input,
    shrink_input_in_place,
    shrink_outputs_in_place,
    flag_all_in_place,
    other_legs_table,
    other_slot_map,
    clear_slot_map,
    odd_slots,
    lose_an_attribute,
    lose_the_maps,
    lose_all_attributes,
    move_the_attributes,
    no_children,
    other_sink,
    collect_garbage,
    raise_an_error,
    raise_attribute_error,
    raise_stop_iteration,
    raise_key_error,
    raise_what_is_no_exception,
    raise_a_chained_error,
]
ACTIONS = {action.__name__: action for action in [*OWN_ACTIONS, *days.CHANGES]}
DELETIONS = [name for name in PLACES if "deletion" in name]
