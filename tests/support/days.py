"""Random days, to be played on the native module and on its twin alike.

A scenario is plain data. `run_days` plays it on one module and returns a log of everything that
can be observed; the logs of two modules must be equal.
"""

import collections
import copy
import types

import numpy as np

from support.fakes import RecordingSink
from support.frozen import freeze, outcome

STEPS = [
    "_refresh_active_structures",
    "_normalize_structure",
    "_slot_for_key",
    "_structure_is_valid",
    "_make_child_context",
    "_run_child_chain",
    "_unmap",
    "_record_trace",
    "compute",
]

# Rotations, with steps overridden by methods that only call super()


def day_rotation_class(base, *, overridden=(), log=None, **attributes):
    """Make a concrete subclass whose hook returns `self.items`, called when it is callable."""

    def _refresh_active_structures(self, *args):
        return self.items(*args) if callable(self.items) else self.items

    body = {"_refresh_active_structures": _refresh_active_structures, "items": (), **attributes}
    hooked = type(base.VirtualizationBase)("Days", (base.VirtualizationBase,), body)
    if not overridden:
        return hooked
    passing = type(hooked)("Overridden", (hooked,), {})
    for name in overridden:
        setattr(passing, name, passing_method(name, passing, log))
    return passing


def passing_method(name, owner, log=None):
    """Make a method of the class `owner` that does nothing but note its call and call super()."""

    def method(self, *args, **kwargs):
        if log is not None:
            log.append((name, freeze(args), freeze(kwargs)))
        return getattr(super(owner, self), name)(*args, **kwargs)

    return method


def override_on_instance(rotation, names, log=None):
    """Set instance attributes that note their call and return what the class's method returns."""
    for name in names:

        def passing(*args, _name=name, **kwargs):
            if log is not None:
                log.append((_name, freeze(args), freeze(kwargs)))
            return getattr(type(rotation), _name)(rotation, *args, **kwargs)

        setattr(rotation, name, passing)


# Items in all the forms that the hook may report


class Thing:
    """Plain object as an item: it has just the attributes that it is given."""

    def __init__(self, **attributes):
        self.__dict__.update(attributes)


class SubDict(dict):
    """Dict with nothing of its own."""


class OwnGet(dict):
    """Dict that answers `get` in its own way, and subscription in the plain one."""

    def get(self, key, default=None):
        if key == "value":
            return 0.5
        return super().get(key, default)


class Pairing:
    """Mapping that is no dict, as metadata."""

    def __init__(self, entries):
        self.entries = entries

    def keys(self):
        return list(self.entries)

    def __getitem__(self, key):
        return self.entries[key]


def build_item(base, spec):
    """Build one raw item from its plain description (form, fields)."""
    form, fields = spec
    return form_item(
        base, form, {name: build_value(value) for name, value in copy.deepcopy(fields).items()}
    )


def form_item(base, form, fields):
    """Put the fields of an item into one of the forms that an item may have."""
    if form == "record":
        fields = {"key": (), "legs": (), "value": 0.0, "metadata": None, **fields}
        return base.VirtualStructure(**fields)
    makers = {
        "dict": dict,
        "ordered": collections.OrderedDict,
        "subclass": SubDict,
        "own get": OwnGet,
        "object": lambda entries: Thing(**entries),
        "namespace": lambda entries: types.SimpleNamespace(**entries),
        "raw": lambda entries: entries["key"],
    }
    return makers[form](fields)


def build_value(value):
    """Turn the marks ("iter", parts), ("generator", parts) and ("pairing", dict) into objects."""
    if type(value) is not tuple or not value or not isinstance(value[0], str):
        return value
    mark, *parts = value
    if mark == "iter":
        return iter(parts[0])
    if mark == "generator":
        return (part for part in parts[0])
    if mark == "pairing":
        return Pairing(parts[0])
    if mark == "array":
        return np.array(parts[0])
    return value


def deliver(items, way):
    """Hand the list of items over in one of the ways in which a hook may report them."""
    ways = {
        "list": list,
        "tuple": tuple,
        "iterator": iter,
        "deque": collections.deque,
        "values": lambda parts: dict(enumerate(parts)).values(),
        "generator": lambda parts: (part for part in parts),
    }
    return ways[way](items)


# Children of several kinds


class Sum:
    """Stateful child: a running sum per slot, NaN counting as nothing."""

    def __init__(self):
        self.total = 0.0
        self.days = []

    def __call__(self, values, *, context):
        self.days.append((context.current_day_index, context.universe_mask.shape))
        self.total = self.total + np.nan_to_num(values)
        return self.total

    def get_state(self):
        return {"total": self.total, "days": self.days}

    def set_state(self, state):
        self.total, self.days = state["total"], state["days"]


def build_child(kind, capacity):
    """Build one child by its kind's name."""
    makers = {
        "sum": Sum,
        "double": lambda: lambda values, context: values * 2.0,
        "same": lambda: lambda values, context: values,
        "list": lambda: lambda values, context: [0.5] * capacity,
        "float32": lambda: lambda values, context: values.astype(np.float32),
        "strided": lambda: lambda values, context: np.repeat(values, 2)[::2],
        "fill": lambda: lambda values, context: np.nan_to_num(values, nan=0.25, posinf=3.0),
        "infinite": lambda: lambda values, context: np.full(capacity, np.inf),
        "overwrite": lambda: _overwrite,
        "scalar": lambda: lambda values, context: 1.0,
        "matrix": lambda: lambda values, context: values[None],
        "raise": lambda: _raise,
    }
    return makers[kind]()


def _overwrite(values, context):
    values[:] = np.arange(len(values))
    return values


def _raise(values, context):
    raise LookupError("child", len(values))


CHILD_KINDS = ["sum", "double", "same", "list", "float32", "strided", "fill", "infinite"]
ODD_CHILD_KINDS = ["overwrite", "scalar", "matrix", "raise"]


# Changes of the attributes between two days


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


# Playing a scenario


def build_rotation(base, scenario, *, on_class=(), log=None):
    """Build the rotation that the scenario describes, with steps overridden on its class."""
    capacity = scenario["max_structures"]
    cls = day_rotation_class(base, overridden=on_class, log=log)
    rotation = cls(
        max_structures=capacity,
        N_alloc=scenario.get("N_alloc", 6),
        transformation_expression=scenario.get("expression", "none"),
        unmap_policy=scenario["policy"],
        child_rotations=[build_child(kind, capacity) for kind in scenario["children"]],
        trace_sink=[] if scenario["trace"] else None,
    )
    if scenario["skip_on_empty"]:
        rotation._call_child_on_empty = False
    return rotation


def run_days(base, scenario, *, on_class=(), on_instance=(), with_calls=True):
    """Play the scenario and return the log: every day's outcome and all attributes after it."""
    calls = [] if with_calls else None
    rotation = build_rotation(base, scenario, on_class=on_class, log=calls)
    override_on_instance(rotation, on_instance, calls)
    log = []
    for day in scenario["days"]:
        if day["change"] is not None:
            log.append(outcome(CHANGES_BY_NAME[day["change"]], rotation))
        items = [build_item(base, spec) for spec in day["items"]]
        rotation.items = deliver(items, day["delivery"])
        log.append(outcome(run_day, rotation, day))
        log.append(freeze(visible_attributes(rotation, on_instance)))
        log.append(freeze(items))
    return log + (calls or [])


def run_day(rotation, day):
    """Run one day: through the call, or compute directly on masks of one's own."""
    if day["masks"] is None:
        context = day["context"]
        context = None if context is None else Thing(**context)
        return rotation(*[np.array(values) for values in day["inputs"]], context=context)
    masks, combined, N, size = day["masks"]
    buffer = np.full(size, 77.0)
    try:
        return rotation.compute((None,), copy.deepcopy(masks), copy.deepcopy(combined), buffer, N)
    finally:
        rotation.buffer_after = buffer


def visible_attributes(rotation, overridden=()):
    """Return the instance's attributes, in order, without the overrides that a test has set."""
    return {name: value for name, value in vars(rotation).items() if name not in overridden}
