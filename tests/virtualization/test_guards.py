"""Whatever others change between two days, by whatever way, the second day uses it."""

import copy
import subprocess
import sys
import textwrap

import numpy as np
import pytest

from support import frozen
from support.fakes import make_rotation, rotation_class, structure

ITEMS = [structure(("a",), ((0, 1.0), (1, -1.0)), 2.0), structure(("b",), ((2, 1.0),), 3.0)]
TABLES = ["slot_by_key", "key_by_slot", "_legs_by_slot", "_metadata_by_slot", "_txi_input"]


def outcome_of_a_day(rotation):
    called = frozen.outcome(rotation, np.ones(6))
    return called, frozen.freeze([getattr(rotation, name, None) for name in TABLES])


def days_around(module, change, others=0):
    """Three days, the change, and three more; other rotations live on the same days."""
    rotations = [make_rotation(module, [ITEMS] * 6) for _ in range(1 + others)]
    log = []
    for day in range(6):
        if day == 3:
            change(rotations[0])
        log.extend(outcome_of_a_day(rotation) for rotation in rotations)
    return log


# Every way to change a dict

OTHER = {
    "slot_by_key": (("c",), 2),
    "key_by_slot": (2, ("c",)),
    "_legs_by_slot": (0, ((3, 4.0),)),
    "metadata": ("note", "changed"),
}


def set_item(table, key, value):
    table[key] = value


def update(table, key, value):
    table.update({key: value})


def update_by_operator(table, key, value):
    table |= {key: value}


def set_default(table, key, value):
    table.pop(key, None)
    table.setdefault(key, value)


def initialise(table, key, value):
    table.__init__([(key, value)])


def delete_first(table, key, value):
    del table[next(iter(table))]


def pop_first(table, key, value):
    table.pop(next(iter(table)))


def pop_last(table, key, value):
    table.popitem()


def clear(table, key, value):
    table.clear()


def clear_and_refill(table, key, value):
    content = dict(table)
    table.clear()
    table.update(content)


def merge_into_emptied(table, key, value):
    content = {**table, key: value}
    table.clear()
    table.update(content)


CHANGES = [
    set_item, update, update_by_operator, set_default, initialise, delete_first, pop_first,
    pop_last, clear, clear_and_refill, merge_into_emptied,
]  # fmt: skip


@pytest.mark.parametrize("change", CHANGES)
@pytest.mark.parametrize("name", OTHER)
def test_every_way_to_change_a_table_counts(modules, name, change):
    def act(rotation):
        table = rotation._metadata_by_slot[0] if name == "metadata" else getattr(rotation, name)
        change(table, *OTHER[name])

    native, twin = modules
    assert days_around(native, act) == days_around(twin, act)


# Every way to change what an instance and a module hold


def own_step(structure, *masks):
    return structure.value < 3.0


def set_attribute(rotation):
    rotation._structure_is_valid = own_step


def set_by_object(rotation):
    object.__setattr__(rotation, "_structure_is_valid", own_step)


def set_in_dictionary(rotation):
    vars(rotation)["_structure_is_valid"] = own_step


def update_dictionary(rotation):
    vars(rotation).update(_structure_is_valid=own_step)


def replace_dictionary(rotation):
    rotation.__dict__ = {**vars(rotation), "_structure_is_valid": own_step}


def swap_in_a_table(rotation):
    rotation._legs_by_slot = {0: ((4, 1.0),)}
    rotation.slot_by_key = {("b",): 0}
    rotation.key_by_slot = {0: ("b",)}


def set_of_the_class(rotation):
    type(rotation)._structure_is_valid = staticmethod(own_step)


def change_class(rotation):
    own = type("Own", (type(rotation),), {"_structure_is_valid": staticmethod(own_step)})
    rotation.__class__ = own


def delete_a_table(rotation):
    del rotation._legs_by_slot


@pytest.mark.parametrize(
    "change",
    [
        set_attribute, set_by_object, set_in_dictionary, update_dictionary, replace_dictionary,
        swap_in_a_table, set_of_the_class, change_class, delete_a_table,
    ],
)  # fmt: skip
@pytest.mark.parametrize("others", [0, 2])
def test_every_way_to_change_a_rotation_counts(modules, change, others):
    native, twin = modules
    assert days_around(native, change, others) == days_around(twin, change, others)


def test_attribute_set_again_and_again_by_compiled_code_counts(modules):
    """The interpreter's quick paths for attributes tell of changes too."""

    def scenario(module):
        rotation = make_rotation(module, [ITEMS] * 40)
        log = []
        for day in range(40):
            rotation._txi_input = np.zeros(4)
            rotation.max_structures = 4 if day % 3 else 2
            log.append(outcome_of_a_day(rotation))
        return log

    native, twin = modules
    assert scenario(native) == scenario(twin)


# The end of a dict


def test_new_dict_at_the_address_of_one_that_ended_counts(modules):
    def scenario(module):
        rotation = make_rotation(module, [ITEMS, ITEMS[:1]] * 20)
        log = []
        for _ in range(40):
            for slot in range(4):
                rotation._metadata_by_slot[slot] = None
                rotation._metadata_by_slot[slot] = {"active": True, "key": "mine"}
            log.append(outcome_of_a_day(rotation))
        return log

    native, twin = modules
    assert scenario(native) == scenario(twin)


@pytest.mark.parametrize("name", ["slot_by_key", "key_by_slot", "_legs_by_slot"])
def test_new_table_at_the_address_of_one_that_ended_counts(modules, name):
    def scenario(module):
        rotation = make_rotation(module, [ITEMS] * 20)
        log = []
        for _ in range(20):
            content = list(getattr(rotation, name).items())
            setattr(rotation, name, None)
            setattr(rotation, name, dict(reversed(content)))
            log.append(outcome_of_a_day(rotation))
        return log

    native, twin = modules
    assert scenario(native) == scenario(twin)


# Dicts that several hold


@pytest.mark.parametrize("make_copy", [copy.copy, copy.deepcopy])
def test_copy_of_a_rotation_lives_its_own_days(modules, make_copy):
    def scenario(module):
        reporting = rotation_class(module)
        reporting._refresh_active_structures = lambda self, *args: self.report
        first = reporting(max_structures=4, N_alloc=6, transformation_expression="none")
        first.report = ITEMS
        log = [outcome_of_a_day(first)]
        second = make_copy(first)
        for day in range(8):
            first.report = [structure(("a",), ((day % 6, 1.0),)), *ITEMS[1:]]
            second.report = [structure((f"c{day % 2}",), ((1, 2.0),)), ITEMS[day % 2]]
            log.extend(outcome_of_a_day(rotation) for rotation in (first, second))
        return log

    native, twin = modules
    assert scenario(native) == scenario(twin)


def test_metadata_of_one_rotation_in_the_list_of_another(modules):
    def scenario(module):
        first, second = (make_rotation(module, [ITEMS, ITEMS[:1]] * 5) for _ in range(2))
        log = []
        for day in range(10):
            if day == 3:
                second._metadata_by_slot[1] = first._metadata_by_slot[1]
            if day == 6:
                second._metadata_by_slot = first._metadata_by_slot
            log.extend(outcome_of_a_day(rotation) for rotation in (first, second))
        return log

    native, twin = modules
    assert scenario(native) == scenario(twin)


@pytest.mark.parametrize("name", ["slot_by_key", "key_by_slot", "_legs_by_slot"])
@pytest.mark.parametrize("entry", [0, 3])
def test_table_that_is_also_the_metadata_of_a_slot(modules, name, entry):
    def scenario(module):
        rotation = make_rotation(module, [ITEMS, ITEMS[:1], ITEMS] * 3)
        log = [outcome_of_a_day(rotation)]
        rotation._metadata_by_slot[entry] = getattr(rotation, name)
        return log + [outcome_of_a_day(rotation) for _ in range(8)]

    native, twin = modules
    assert scenario(native) == scenario(twin)


# Where the interpreter has no watcher left

WITHOUT_WATCHERS = """
    import ctypes, sys
    import numpy as np

    callback = ctypes.CFUNCTYPE(
        ctypes.c_int, ctypes.c_int, ctypes.c_void_p, ctypes.c_void_p, ctypes.c_void_p
    )(lambda *args: 0)
    add = getattr(ctypes.pythonapi, "PyDict_AddWatcher", None)
    taken = 0
    while add is not None:
        try:
            add(callback)
        except RuntimeError:
            break
        taken += 1
    assert add is None or taken > 0

    from quorvane.functions.rotations.virtualization.base import VirtualizationBase

    class Reporting(VirtualizationBase):
        def _refresh_active_structures(self, *args):
            return self.report

    rotation = Reporting(max_structures=3, N_alloc=4, transformation_expression="none")
    rotation.report = [{"key": ("a",), "legs": ((0, 1.0), (1, -1.0)), "value": 2.0}]
    out = [rotation(np.ones(4)).tolist() for _ in range(3)]
    rotation._legs_by_slot[0] = ((3, 5.0),)
    rotation._metadata_by_slot[0]["note"] = 1
    rotation._metadata_by_slot[2] = {"note": 2}
    rotation.report = ({"key": ("a",), "legs": ((2, 1.0),), "value": 4.0} for _ in range(2))
    out.append(rotation(np.ones(4)).tolist())
    print(out, rotation._metadata_by_slot)
"""


def test_days_are_right_where_no_watcher_is_left():
    found = subprocess.run(
        [sys.executable, "-c", textwrap.dedent(WITHOUT_WATCHERS)],
        check=True, capture_output=True, text=True,
    )  # fmt: skip
    nan = float("nan")
    expected = [[2.0, -2.0, nan, nan]] * 3 + [[nan, nan, 4.0, nan]]
    entry = {"key": ("a",), "legs": ((2, 1.0),), "slot": 0, "active": True}
    idle = {"active": False}
    assert found.stdout == f"{expected} {[entry, idle, idle]}\n"
