"""Tables, items and states with entries that are hardly entries: days and restores go by them.

Each scenario runs on the native module, there also with overrides that only call super(), which
make it take every step on its own, and on the twin.
"""

import builtins
import copy
import types
from unittest import mock

import numpy as np
import pytest

from support import frozen
from support.fakes import make_rotation, structure, through_super
from support.siblings import Siblings, installed_base

N = 6
SLOTS = 4
ROW = np.arange(1.0, N + 1)
ITEMS = [
    structure(("a",), ((0, 1.0), (1, -0.5)), 2.0),
    structure(("b", 1), ((2, 1.0),), -1.5),
]
OWN = ["slot_by_key", "key_by_slot", "_legs_by_slot", "_metadata_by_slot", "_structure_N_limit"]


STEPS = {name: through_super(name) for name in ("_normalize_structure", "_validate_child_states")}


def everywhere(modules, scenario, **attributes):
    """Return what the scenario sees of a rotation, the same on every side."""
    native, twin = modules
    sides = [(twin, {}), (native, {}), (native, STEPS)]
    seen = [
        scenario(make_rotation(base, [ITEMS] * 9, attributes={**steps, **attributes}))
        for base, steps in sides
    ]
    assert seen[1] == seen[0]
    assert seen[2] == seen[0]
    return seen[0]


def outcome(call, *arguments, **keywords):
    """Return what the call gives, or its error without the overrides that it came through."""
    try:
        return frozen.freeze(call(*arguments, **keywords))
    except Exception as error:
        return type(error), str(error)


def all_of(rotation):
    attributes = {name: value for name, value in vars(rotation).items() if name in OWN}
    return frozen.freeze(attributes), rotation._txi_input.tobytes()


def a_day(rotation, report=None):
    """Compute a day on live instruments; return its output and all that it left."""
    buffer = np.full(N, 77.0)
    clear = np.zeros(N, dtype=np.uint8)
    if report is not None:
        rotation._refresh_active_structures = lambda *day: report
    result = outcome(rotation.compute, (ROW,), (clear,), clear, buffer, N)
    return result, buffer.tobytes(), all_of(rotation)


# --- tables -------------------------------------------------------------------------------------


def changed(name, change):
    def tamper(rotation):
        setattr(rotation, name, change(getattr(rotation, name)))

    return tamper


LEGS = ((1, 3.0),)
TABLES = {
    "float slots": changed("key_by_slot", lambda t: {float(slot): key for slot, key in t.items()}),
    "true slots": changed("key_by_slot", lambda t: {**t, True: t[1]}),
    "numpy slots": changed("key_by_slot", lambda t: {np.int64(s): key for s, key in t.items()}),
    "float slots of keys": changed("slot_by_key", lambda t: {k: float(s) for k, s in t.items()}),
    "huge slots of keys": changed("slot_by_key", lambda t: {k: 2**70 + s for k, s in t.items()}),
    "negative slots of keys": changed("slot_by_key", lambda t: {k: s - 4 for k, s in t.items()}),
    "legs of a negative slot": changed("_legs_by_slot", lambda t: {**t, -1: LEGS}),
    "legs of a slot beyond": changed("_legs_by_slot", lambda t: {**t, SLOTS: LEGS, 2**70: LEGS}),
    "legs of a text": changed("_legs_by_slot", lambda t: {**t, "1": LEGS}),
    "legs that are a list": changed("_legs_by_slot", lambda t: {**t, 0: [[1, 3]]}),
    "legs with a negative id": changed("_legs_by_slot", lambda t: {**t, 2: ((-1, 3.0),)}),
    "legs with a huge id": changed("_legs_by_slot", lambda t: {**t, 2: ((2**70, 3.0),)}),
    "legs with a true id": changed("_legs_by_slot", lambda t: {**t, 1: ((True, 3.0),)}),
    "legs with an int weight": changed("_legs_by_slot", lambda t: {**t, 1: ((2, 3),)}),
    "no legs": changed("_legs_by_slot", lambda t: dict.fromkeys(t)),
    "a subclass of dict": changed("_legs_by_slot", lambda t: type("Table", (dict,), {})(t)),
    "no table": changed("_legs_by_slot", lambda t: None),
    "metadata too short": changed("_metadata_by_slot", lambda t: t[:-1]),
    "metadata as a tuple": changed("_metadata_by_slot", tuple),
    "metadata of another kind": changed("_metadata_by_slot", lambda t: [*t[:-1], mock.Mock()][:1]),
    "metadata with own words": changed("_metadata_by_slot", lambda t: [*t[:-1], {5: 6}]),
    "entry that is no dict": changed("_metadata_by_slot", lambda t: [*t[:-1], [5]]),
    "one more slot in place": lambda rotation: rotation.key_by_slot.update({3: ("x",)}),
    "own dictionary": lambda rotation: setattr(
        rotation, "__dict__", type("Own", (dict,), {})(vars(rotation))
    ),
    "limit none": changed("_structure_N_limit", lambda limit: None),
    "name that is no text": lambda rotation: vars(rotation).update({5: 6}),
}


@pytest.mark.parametrize("table", TABLES)
def test_days_go_by_tables_that_were_changed(modules, table):
    def scenario(rotation):
        seen = [a_day(rotation), a_day(rotation)]
        TABLES[table](rotation)
        return [*seen, a_day(rotation), a_day(rotation), a_day(rotation, [])]

    everywhere(modules, scenario)


@pytest.mark.parametrize("table", TABLES)
@pytest.mark.parametrize("before", ["nothing", "a day", "a restore"])
def test_restores_go_by_tables_that_were_changed(modules, table, before):
    def scenario(rotation):
        a_day(rotation)
        state = copy.deepcopy(rotation.get_state())
        if before == "a day":
            a_day(rotation)
        elif before == "a restore":
            rotation.set_state(copy.deepcopy(state))
        TABLES[table](rotation)
        seen = [outcome(rotation.set_state, state), all_of(rotation)]
        return [*seen, a_day(rotation), all_of(rotation)]

    everywhere(modules, scenario)


@pytest.mark.parametrize("name", [*OWN, "max_structures", "_n_alloc", "child_rotations"])
@pytest.mark.parametrize("says_metadata", [False, True])
def test_restore_of_a_rotation_that_lacks_an_attribute(modules, name, says_metadata):
    def scenario(rotation):
        a_day(rotation)
        state = copy.deepcopy(rotation.get_state())
        if not says_metadata:
            del state["structure_metadata_by_slot"]
        delattr(rotation, name)
        return outcome(rotation.set_state, state), all_of(rotation)

    everywhere(modules, scenario)


@pytest.mark.parametrize(
    "capacity", [-1, 0, 1, 2, 3.0, True, "4", None, 2**24 + 1, 2**70], ids=repr
)
def test_restore_goes_by_the_capacity(modules, capacity):
    def scenario(rotation):
        a_day(rotation)
        state = copy.deepcopy(rotation.get_state())
        rotation.max_structures = capacity
        seen = [outcome(rotation.set_state, state)]
        del state["structure_metadata_by_slot"]
        return [*seen, outcome(rotation.set_state, state), all_of(rotation)]

    everywhere(modules, scenario)


def test_restore_of_a_rotation_whose_attributes_are_watched(modules):
    def read(self, name):
        seen.append(name)
        return object.__getattribute__(self, name)

    def scenario(rotation):
        a_day(rotation)
        state = copy.deepcopy(rotation.get_state())
        seen.clear()
        rotation.set_state(state)
        return [name for name in seen if name not in STEPS], all_of(rotation)

    seen = []
    everywhere(modules, scenario, __getattribute__=read)


def test_restore_and_day_of_an_object_that_is_no_rotation(modules):
    def scenario(rotation):
        a_day(rotation)
        state = copy.deepcopy(rotation.get_state())
        other = types.SimpleNamespace(**vars(rotation))
        other._refresh_active_structures = lambda *day: ITEMS
        cls = type(rotation).__mro__[1]
        clear = np.zeros(N, dtype=np.uint8)
        arguments = ((ROW,), (clear,), clear, np.empty(N), N)
        return (
            outcome(cls.set_state, other, state),
            outcome(cls.compute, other, *arguments),
            all_of(other),
        )

    everywhere(modules, scenario)


def test_restore_without_a_dictionary(modules):
    def scenario(rotation):
        a_day(rotation)
        state = copy.deepcopy(rotation.get_state())
        del rotation.__dict__
        return outcome(rotation.set_state, state), frozen.freeze(vars(rotation))

    everywhere(modules, scenario)


# --- states -------------------------------------------------------------------------------------


def own_word():
    """Make a string of its own that says what metadata says."""
    return "".join(["act", "ive"])


STATES = {
    "negative id": {"legs_by_slot": {0: ((-1, 1.0),)}},
    "id at the limit": {"legs_by_slot": {0: ((N, 1.0),)}},
    "true id": {"legs_by_slot": {0: ((True, 1.0),)}},
    "infinite weight": {"legs_by_slot": {0: ((1, float("inf")),)}},
    "int weight": {"legs_by_slot": {0: ((1, 2),)}},
    "leg of three": {"legs_by_slot": {0: ((1, 2.0, 3.0),)}},
    "leg as a list": {"legs_by_slot": {0: ([1, 2.0],)}},
    "unknown slot": {"legs_by_slot": {3: ()}},
    "negative slot": {"legs_by_slot": {-1: ()}},
    "huge slot": {"legs_by_slot": {2**70: ()}},
    "slots in another order": {"slot_by_key": {("b",): 1, ("a",): 0}},
    "slot beyond": {"slot_by_key": {("a",): 9}, "key_by_slot": {9: ("a",)}},
    "huge slot of a key": {"slot_by_key": {("a",): 2**70}, "key_by_slot": {2**70: ("a",)}},
    "maps of other sizes": {"slot_by_key": {("a",): 0}, "key_by_slot": {}},
    "other key": {"slot_by_key": {("a",): 0}, "key_by_slot": {0: ("x",)}},
    "odd key": {"slot_by_key": {(1j,): 0}, "key_by_slot": {0: (1j,)}},
    "huge limit": {"structure_N_limit": 2**70},
    "no limit": {"structure_N_limit": None},
    "children": {"child_states": [{}]},
    "no children": {"child_states": ()},
    "odd children": {"child_states": 5},
    "metadata as a tuple": {"structure_metadata_by_slot": tuple({} for _ in range(SLOTS))},
    "metadata of another kind": {"structure_metadata_by_slot": [{}, {}, {}, []]},
    "text for a word": {5: 6},
    "a word for each": {"structure_metadata_by_slot": [{own_word(): True} for _ in range(SLOTS)]},
}


@pytest.mark.parametrize("odd", STATES)
def test_state_with_odd_entries_is_taken_or_refused_alike(modules, odd):
    def scenario(rotation):
        a_day(rotation)
        state = {
            **copy.deepcopy(rotation.get_state()),
            "slot_by_key": {("a",): 0, ("b",): 1},
            "key_by_slot": {0: ("a",), 1: ("b",)},
            "legs_by_slot": {0: ((1, 1.0),), 1: ()},
        }
        rotation.set_state(state)
        seen = [outcome(rotation.set_state, {**state, **STATES[odd]}), all_of(rotation)]
        return [*seen, a_day(rotation)]

    everywhere(modules, scenario)


# --- items --------------------------------------------------------------------------------------

REPORTS = {
    "leg of three": [structure(("a",), [[0, 1.0, 2.0]])],
    "leg of one": [structure(("a",), [[0]])],
    "leg of none": [structure(("a",), [[]])],
    "legs of minus one": [structure(("a",), [[0, -1], [1, -1.0]], -1)],
    "value of minus one": [structure(("a",), ((0, 1.0),), -1)],
    "value too large for a float": [structure(("a",), ((0, 1.0),), 10**400)],
    "weight too large for a float": [structure(("a",), ((0, 10**400),), 1.0)],
    "without a key": [{"legs": (), "value": 1.0}],
    "without legs": [{"key": ("a",), "value": 1.0}],
    "without a value": [{"key": ("a",), "legs": ()}],
    "without anything": [{}],
    "other words too": [{"key": ("a",), "legs": (), "value": 1.0, "note": 5}],
    "huge id": [structure(("a",), ((2**70, 1.0),))],
    "id beyond 32 bits": [structure(("a",), ((2**33, 1.0),))],
    "one slot more than there are": [structure((each,), (), 1.0) for each in range(SLOTS + 1)],
    "a text": "ab",
    "none": None,
}


@pytest.mark.parametrize("report", REPORTS)
@pytest.mark.parametrize("before", [False, True])
def test_report_of_odd_items(modules, report, before):
    def scenario(rotation):
        seen = [a_day(rotation, [*ITEMS, *(REPORTS[report] or ())])] if before else []
        return [*seen, a_day(rotation, REPORTS[report]), a_day(rotation, ITEMS)]

    everywhere(modules, scenario)


# --- surroundings -------------------------------------------------------------------------------


def test_name_that_the_module_has_lost_is_looked_for_among_the_builtins(modules):
    seen = []
    for base in modules:
        with mock.patch.dict(vars(base)), mock.patch.dict(vars(builtins)):
            make = make_rotation(base).__class__
            del base.MAX_VIRTUAL_STRUCTURES
            seen.append(outcome(make_rotation, base))
            builtins.MAX_VIRTUAL_STRUCTURES = 3
            arguments = {"transformation_expression": "none", "N_alloc": 3}
            seen.append(outcome(make, max_structures=4, **arguments))
            seen.append(make(max_structures=3, **arguments).max_structures)
    assert seen[:3] == seen[3:]


def test_record_class_that_another_took_the_place_of(modules):
    seen = []
    for base in modules:
        rotation = make_rotation(base, [ITEMS] * 9)
        log = [a_day(rotation)]

        class Other(base.VirtualStructure):
            def __init__(self, key, legs, value, metadata=None):
                super().__init__(key, legs, 2.0 * value, metadata)

        with mock.patch.object(base, "VirtualStructure", Other):
            log += [a_day(rotation), a_day(rotation)]
        seen.append([*log, a_day(rotation)])
    assert seen[0] == seen[1]
    assert seen[0][0] != seen[0][1]


def test_record_class_without_an_initialiser_of_its_own():
    seen = []
    for kind in ("native", "twin"):
        with (
            mock.patch("dataclasses.dataclass", lambda cls: cls),
            installed_base(kind, Siblings()) as base,
        ):
            rotation = make_rotation(base, [ITEMS] * 9)
            seen.append((outcome(a_day, rotation), all_of(rotation)))
    assert seen[0] == seen[1]
    assert "takes no arguments" in repr(seen[0])


class Row(np.ndarray):
    """Array of another class."""


@pytest.mark.parametrize("shape", [(SLOTS,), (SLOTS + 1,), (1, SLOTS), ()])
def test_child_whose_array_stays_of_another_class(modules, shape):
    seen = []
    for base in modules:
        child = lambda values, context: np.zeros(shape).view(Row)  # noqa: E731
        rotation = make_rotation(base, [ITEMS] * 9, child_rotations=[child])
        with mock.patch.object(np, "asarray", np.asanyarray):
            seen.append(a_day(rotation)[:2])
    assert seen[0] == seen[1]


def batch_of_other_arrays(modules, function):
    """Replay with a replaced np.asarray; assert the same outcome on both modules."""
    seen = []
    for base in modules:
        rotation = make_rotation(base, [ITEMS] * 9)
        with mock.patch.object(np, "asarray", function):
            seen.append(outcome(rotation.batch_reference, np.ones((2, N))))
    assert seen[0] == seen[1]


def test_matrices_that_stay_of_another_class(modules):
    batch_of_other_arrays(modules, lambda array, dtype: np.ones((2, N)).view(Row))


def test_matrices_that_become_none(modules):
    batch_of_other_arrays(modules, lambda array, dtype: [[1.0] * N] * 2)


@pytest.mark.parametrize("attribute", ["_txi_input", "_txi_output"])
@pytest.mark.parametrize("replaced", ["array", "zeros", "isfinite"])
def test_copy_for_a_record_goes_by_numpy_before_its_source_is_read(modules, attribute, replaced):
    seen = []
    for base in modules:
        records, patches = [], []

        def read(self, patches=patches):
            if self.trace_sink is not None and len(patches) < 3:
                patches.append(mock.patch.object(np, replaced, np.asarray))
                patches[-1].start()
            return self.__dict__[attribute]

        def write(self, value):
            self.__dict__[attribute] = value

        rotation = make_rotation(base, [ITEMS] * 9, attributes={attribute: property(read, write)})
        original = getattr(np, replaced)
        a_day(rotation)
        rotation.trace_sink = records
        try:
            done = outcome(rotation._record_trace, np.full(N, 7.0), N)
            again = outcome(rotation._record_trace, np.full(N, 7.0), N)
        finally:
            for patch in reversed(patches):
                patch.stop()
        assert getattr(np, replaced) is original
        seen.append((done, again, frozen.freeze(records), len(patches)))
    assert seen[0] == seen[1]


@pytest.mark.parametrize(
    ("owner", "name"),
    [
        ("_VirtualContext", "universe_mask"),
        ("_VirtualContext", "current_day_index"),
        ("_AllOnesVirtualMask", "shape"),
        ("_AllOnesVirtualMask", "_row"),
    ],
)
@pytest.mark.parametrize("member", [5, property(lambda self: 7)], ids=["value", "property"])
def test_attribute_of_the_contexts_class(modules, owner, name, member):
    seen = []
    for base in modules:
        contexts = []

        def child(values, context, contexts=contexts):
            mask = context.universe_mask
            contexts.append([vars(context).get("current_day_index"), context.current_day_index])
            contexts.append(outcome(lambda: (vars(mask).get("shape"), mask.shape, mask[0])))
            return values

        rotation = make_rotation(base, [ITEMS] * 9, child_rotations=[child])
        log = [a_day(rotation)]
        with mock.patch.object(getattr(base, owner), name, member, create=True):
            log.append(a_day(rotation))
        seen.append([*log, a_day(rotation), contexts])
    assert seen[0] == seen[1]


@pytest.mark.parametrize("owner", ["_VirtualContext", "_AllOnesVirtualMask"])
def test_setting_of_a_contexts_attributes_is_seen_by_its_class(modules, owner):
    seen = []
    for base in modules:
        log = []

        def watch(self, name, value, log=log):
            log.append(name)
            object.__setattr__(self, name, value)

        rotation = make_rotation(base, [ITEMS] * 9)
        days_before = [a_day(rotation), a_day(rotation)]
        with mock.patch.object(getattr(base, owner), "__setattr__", watch, create=True):
            days_before.append(a_day(rotation))
        seen.append([*days_before, a_day(rotation), log])
    assert seen[0] == seen[1]
    assert len(seen[0][-1]) == 2
