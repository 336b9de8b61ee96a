"""Programs in which allocations fail, one after another; `python failing_allocations.py <name>`.

Each program repeats something with the k-th allocation failing, for every k until none fails any
more: once with only that allocation failing, as in a shortage that passes, and once with all from
there on. They are programs and not tests because a crash is one of the things looked for.
"""

import _testcapi
import copy
import sys

import numpy as np

from safety.subjects.operations import OPERATIONS
from safety.subjects.rotations import (
    Baskets,
    Store,
    columns_of,
    make_ewma,
    plain_columns,
    row,
    used,
    usual_items,
)

# So many successes in a row mean that there are no more allocations to fail.
QUIET = 20
ENDLESS = 5000


def outcome(operation, first, last):
    """Run the operation while the allocations after the first `first` fail, and none after `last`.

    Returns its error, if there is one.
    """
    fail, work_again = _testcapi.set_nomemory, _testcapi.remove_mem_hooks
    fail(first, last)
    try:
        result = operation()
    except BaseException as error:
        work_again()
        return error
    finally:
        work_again()
    return result


def fail_one_by_one(name, operation, *, once, after=lambda result: None):
    """Fail every allocation of the operation; `after` looks at what each time has left behind.

    Returns how many times the operation failed.
    """
    operation()
    after(None)
    failures = quiet = first = 0
    while quiet < QUIET:
        result = outcome(operation, first, first + 1 if once else 0)
        failed = isinstance(result, BaseException) or result is False
        if isinstance(result, BaseException) and not isinstance(result, MemoryError):
            raise AssertionError(f"{name}: with the allocation after {first} failing") from result
        after(result)
        quiet = 0 if failed else quiet + 1
        failures += failed
        first += 1
        if first == ENDLESS:
            raise AssertionError(f"{name}: fails after {first} allocations that worked")
    return failures


# Some recoveries answer False whatever happens. When memory runs out, NumPy's indexing with a mask,
# its broadcasting and its text of an array fail without setting an error, which the interpreter
# reports as SystemError; and pickle says that a class cannot be imported.
OUT_OF_REACH = (
    "recover_",
    "unmap_step_by_step",
    "mask_indexing",
    "columns_pickled",
    "represent of within groups",
)
# Interpreters that crash by themselves: one in the frames of copy.deepcopy, one in its warnings.
if sys.version_info >= (3, 12):
    OUT_OF_REACH += ("columns_copied", "columns_made_of_no_legs")


def every_operation():
    """Only MemoryError comes out of anything."""
    failures = 0
    for name, setup in OPERATIONS.items():
        if not name.startswith(OUT_OF_REACH):
            for once in (True, False):
                failures += fail_one_by_one(name, setup(), once=once)
    assert failures > 1000, failures


def frozen(value):
    """Make what compares by contents, arrays and their NaN included."""
    if isinstance(value, dict):
        return [(frozen(key), frozen(entry)) for key, entry in value.items()]
    if isinstance(value, (list, tuple)):
        return [type(value), *map(frozen, value)]
    if isinstance(value, np.ndarray):
        return value.dtype.str, value.shape, value.tobytes()
    return type(value), copy.deepcopy(value)


def restoring(make, change, *, once, recover=False):
    """A state is installed wholly or not at all.

    In a lasting shortage the children cannot be put back; the rotation's own part is as it was.
    """
    rotation = used(make)
    old = copy.deepcopy(rotation.get_state())
    change(rotation)
    new = copy.deepcopy(rotation.get_state())
    assert frozen(old) != frozen(new)
    store = Store(new)

    def operation():
        return rotation.recover(store) if recover else rotation.set_state(new)

    def after(result):
        state = rotation.get_state()
        if isinstance(result, MemoryError) or result is False:
            if not once and "child_states" in state:
                state["child_states"] = old["child_states"]
            assert frozen(state) == frozen(old), (make, once, state, old)
        else:
            assert frozen(state) == frozen(new), (make, once, state, new)
        rotation.set_state(copy.deepcopy(old))

    rotation.set_state(copy.deepcopy(old))
    failures = fail_one_by_one("restoring", operation, once=once, after=after)
    assert failures > 2, failures


def other_structures(rotation):
    rotation.items = [*usual_items()[2:], {"key": ("z",), "legs": (), "value": 1.0}]
    rotation(row())
    rotation(row())


def another_day(rotation):
    rotation(row())


def make_childless():
    return Baskets(transformation_expression="none")


def every_restore():
    for recover in (False, True):
        for once in (True, False):
            restoring(Baskets, other_structures, once=once, recover=recover)
            restoring(make_childless, other_structures, once=once, recover=recover)
            restoring(make_ewma, another_day, once=once, recover=recover)


def check_bookkeeping(rotation):
    """The attributes say what the day's items say, whatever the days before have left."""
    reported = {}
    for item in rotation.items:
        structure = rotation._normalize_structure(item)
        reported[rotation.slot_by_key[structure.key]] = structure
    for slot, structure in reported.items():
        entry = rotation._metadata_by_slot[slot]
        # A shortage between the two maps leaves the second one behind for good.
        assert rotation.key_by_slot.get(slot, structure.key) == structure.key
        assert rotation._legs_by_slot[slot] == structure.legs, (slot, rotation._legs_by_slot)
        valid = np.isfinite(structure.value)
        assert (entry["slot"], entry["active"]) == (slot, valid), entry
        assert (entry["key"], entry["legs"]) == (structure.key, structure.legs), entry
        value = structure.value if valid else np.nan
        assert np.array_equal(rotation._txi_input[slot], value, equal_nan=True)
    for slot in set(range(4)) - set(reported):
        assert rotation._metadata_by_slot[slot] == {"active": False}, (slot, reported)


def plain_reports():
    """Items that change from day to day."""
    plain = [
        {"key": (letter,), "legs": ((place, 1.0),), "value": 1.0 + place}
        for place, letter in enumerate("abcd")
    ]
    return [plain, plain[:2], plain[1:], plain[3:], plain[:1] + usual_items()[2:]]


def column_reports():
    """Columns that come again with other values, and others between them."""
    one = plain_columns()
    other = columns_of(list(one)[1:])
    return [one, one.with_values([1.0, np.nan, 3.0, 4.0]), one, other, list(other), one]


def days_after(reports, *, once):
    """A day that was cut short does not show in the days after it."""
    rotation, values = used(Baskets), row()
    days = iter(range(10**9))

    def forget_slots():
        for table in (rotation.slot_by_key, rotation.key_by_slot, rotation._legs_by_slot):
            table.clear()

    def operation():
        rotation(values)

    def after(result):
        rotation(values)  # the same report once more, with all the memory that it wants
        check_bookkeeping(rotation)
        day = next(days)
        rotation.items = reports[day % len(reports)]
        if day % 3 == 0:
            forget_slots()

    forget_slots()
    rotation.items = reports[0]
    failures = fail_one_by_one("day", operation, once=once, after=after)
    assert failures > 5, failures


def days_after_a_failure():
    for reports in (plain_reports(), column_reports()):
        for once in (True, False):
            days_after(reports, once=once)


def first_day(*, once):
    """A rotation whose first day was cut short has a first day like any other's."""

    def make():
        return Baskets(plain_reports()[0], transformation_expression="none")

    values = row()
    expected = make()(values)
    rotations = [make()]

    def operation():
        rotations[-1](values)

    def after(result):
        rotation = rotations.pop()
        assert frozen(rotation(values)) == frozen(expected), rotation._txi_output
        check_bookkeeping(rotation)
        rotations.append(make())

    failures = fail_one_by_one("first day", operation, once=once, after=after)
    assert failures > 2, failures


def first_days():
    for once in (True, False):
        first_day(once=once)


def same_child_day(*, once):
    """A rotation that remembers has not taken in a day that it could not give the result of."""
    ewma, plain, values = make_ewma(), make_ewma(), row()

    def after(result):
        if not isinstance(result, MemoryError):
            plain(values)
        assert frozen(ewma.get_state()) == frozen(plain.get_state())

    ewma(values)
    plain(values)
    failures = fail_one_by_one("child day", lambda: ewma(values), once=once, after=after)
    assert failures > 0, failures


def child_days():
    for once in (True, False):
        same_child_day(once=once)


PROGRAMS = {
    program.__name__: program
    for program in (every_operation, every_restore, days_after_a_failure, first_days, child_days)
}

if __name__ == "__main__":
    PROGRAMS[sys.argv[1]]()
    print("done")
