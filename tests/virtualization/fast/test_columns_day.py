"""Reporting structure columns is reporting the list of their items, whatever is done meanwhile."""

import warnings

import numpy as np
import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

from adversary.actions.tampering import SLOTS, WAYS, N, way
from adversary.tampered import TamperedRotation
from adversary.values.answers import ByHash
from quorvane.functions.rotations.virtualization.columns import StructureColumns
from support import frozen
from support.days import day_rotation_class, visible_attributes

NAN = float("nan")
INFINITY = float("inf")


# ---- layouts -------------------------------------------------------------------------------------


class Text(str):
    """String of a class of its own, with nothing of its own."""


A, B, C, D = [((letter,), ((place, 1.0 + place),)) for place, letter in enumerate("abcd")]
PAIR = ((0, 1.0), (3, -0.5))

LAYOUTS = {
    "plain": [(("a",), PAIR), (("b", 2), ((1, 2.0),)), (("c",), ((5, 1.0), (4, 1.0), (5, 0.5)))],
    "plain again": [A, B, C],
    "other legs": [(("a",), ((2, 7.0),)), (("b",), PAIR), (("c",), ())],
    "one more": [A, B, C, D],
    "fewer": [B],
    "other order": [C, A, B],
    "a key twice": [A, B, (("a",), PAIR)],
    "all the same key": [A, A, A],
    "equal keys": [((1,), PAIR), ((1.0,), ((1, 1.0),)), ((True,), ()), B],
    "keys of many types": [((1, 2.5, None, b"x", "y"), PAIR), ((), ()), ((NAN,), ())],
    "key of a subclass": [A, ((Text("a"),), PAIR), ((Text("z"),), ())],
    "nested key": [((("a",),), PAIR), A],
    "unhashable key": [A, (([],), PAIR), B],
    "refusing key": [A, B, ((ByHash(LookupError("not hashable")),), ())],
    "more keys than slots": [A, B, C, D, (("e",), PAIR), A],
    "nothing": [],
    "no legs": [(("a",), ()), (("b",), ())],
    "negative leg": [A, (("b",), ((-1, 1.0),)), C],
    "leg outside": [A, (("b",), ((N, 1.0),)), (("c",), ((2**31 - 1, 1.0),))],
    "last leg": [A, (("b",), ((N - 1, 1.0),))],
    "odd weights": [(("a",), ((0, NAN), (1, INFINITY))), (("b",), ((0, -0.0), (2, 0.0)))],
    "huge weights": [(("a",), ((0, 1e308), (1, -1e308))), (("b",), ((0, 1e308),))],
}


def columns_of(layout, values=None):
    legs = [legs for _, legs in layout]
    flat = [leg for each in legs for leg in each]
    return StructureColumns(
        [key for key, _ in layout],
        np.cumsum([0, *map(len, legs)]),
        [leg_id for leg_id, _ in flat],
        [weight for _, weight in flat],
        np.zeros(len(layout)) if values is None else values,
    )


# ---- one module's rotation -----------------------------------------------------------------------


class Later:
    """Place in the middle of a day where the next thing to do is done, once."""

    def __init__(self, side):
        self.side = side
        self.todo = None

    def come(self):
        todo, self.todo = self.todo, None
        if todo is not None:
            self.side.tamper(*todo)


class Child(Later):
    def __call__(self, values, *, context):
        self.come()
        return np.array(values)


class Sink(Later):
    def append(self, record):
        self.come()
        self.side.log.append(frozen.freeze(record))


COLUMN_WAYS = {}


class ColumnSide(TamperedRotation):
    """Reports columns, or with `as_items` what iterating them gives."""

    def __init__(self, module, override, policy, as_items):
        self.places = {"hook": Later(self), "child": Child(self), "sink": Sink(self)}
        super().__init__(
            module,
            override,
            policy,
            child_rotations=[self.places["child"]],
            trace_sink=self.places["sink"],
        )
        self.as_items = as_items
        self.columns = {}
        self.values = np.zeros(0)

    def day(self, layout, values, as_items=False):
        self.rotation.report = lambda: self.report(layout, values, as_items)
        self.record_day()

    def report(self, layout, values, as_items):
        """Make the day's columns inside the hook, where the rotation's own arrays are today's."""
        if layout not in self.columns:
            self.columns[layout] = columns_of(LAYOUTS[layout])
        columns = self.columns[layout]
        lazily = isinstance(values, str)
        made = VALUES[values](self, len(columns)) if lazily else np.array(values[: len(columns)])
        self.values = made
        columns = columns.with_values(made)
        if lazily and values in CHANGES:
            CHANGES[values](made)
        self.places["hook"].come()
        if not (self.as_items or as_items):
            return columns
        # Values that change with the day's own writing are read as the items are asked for.
        return map(dict, columns) if lazily else list(columns)

    def later(self, place, way, index):
        self.places[place].todo = (way, index)


def as_many(values, count):
    return values if len(values) == count else np.resize(values, count)


def around_the_row(side, count):
    """From the number before the row on, when the row is part of a larger array."""
    whole = side.rotation._txi_input.base
    if whole is None or whole.ndim != 1 or len(whole) < 3 * SLOTS:
        whole = np.arange(3.0 * SLOTS)
    return as_many(whole[SLOTS - 1 :][:count], count)


# What values may be but a list of numbers, by name: made for a side and a count.
VALUES = {
    "the row": lambda side, count: as_many(side.rotation._txi_input[:count], count),
    "the row, moved": lambda side, count: as_many(side.rotation._txi_input[1:][:count], count),
    "around the row": around_the_row,
    "yesterday's output": lambda side, count: as_many(side.rotation._txi_output[:count], count),
    "the same array": lambda side, count: as_many(side.values, count),
    "too short": lambda side, count: np.arange(1.0, count + 1.0),
    "too long": lambda side, count: np.arange(1.0, count + 1.0),
    "integers": lambda side, count: np.arange(1.0, count + 1.0),
    "swapped": lambda side, count: np.arange(1.0, count + 1.0),
    "in two axes": lambda side, count: np.arange(1.0, count + 1.0),
    "standing still": lambda side, count: np.arange(1.0, count + 1.0),
}


def set_in_place(values, name, setting):
    with warnings.catch_warnings():
        warnings.simplefilter("ignore", DeprecationWarning)
        setattr(values, name, setting)


# What becomes of an array after the columns were given it.
CHANGES = {
    "too short": lambda values: values.resize(max(len(values) - 1, 0), refcheck=False),
    "too long": lambda values: values.resize(len(values) + 50, refcheck=False),
    "integers": lambda values: set_in_place(values, "dtype", np.int64),
    "swapped": lambda values: set_in_place(values, "dtype", ">f8"),
    "in two axes": lambda values: set_in_place(values, "shape", (-1, 1)),
    "standing still": lambda values: set_in_place(values, "strides", (0,)),
}


# Masks, and the number of instruments


@way(COLUMN_WAYS)
def short_mask(side, index):
    side.masks = (np.zeros(index % N, dtype=np.uint8),)


@way(COLUMN_WAYS)
def short_combined_mask(side, index):
    side.combined = np.zeros(index % N, dtype=np.uint8)


@way(COLUMN_WAYS)
def strided_mask(side, index):
    side.masks = (np.zeros(2 * N, dtype=np.uint8)[::2],)
    side.masks[0][index % N] = 1


@way(COLUMN_WAYS)
def backward_mask(side, index):
    side.combined = np.array([1, 0, 0, 0, 0, 0, 0], dtype=bool)[::-1][:N]


@way(COLUMN_WAYS)
def mask_of_integers(side, index):
    side.masks = (np.arange(N) // 2 * (index % 2),)


@way(COLUMN_WAYS)
def mask_of_floats(side, index):
    side.combined = np.array([0.0, 0.0, 0.5, 0.0, NAN, 0.0])


@way(COLUMN_WAYS)
def mask_of_several_axes(side, index):
    side.masks = (np.zeros((N, 1), dtype=bool),)


@way(COLUMN_WAYS)
def mask_list(side, index):
    side.combined = [0] * (N - 1) + [1]


@way(COLUMN_WAYS)
def mask_in_the_row(side, index):
    """What is written for one structure flags the instruments of those after it."""
    side.masks = (side.rotation._txi_input.view(np.uint8)[8 * (index % SLOTS) :][: max(N, 8)],)


@way(COLUMN_WAYS)
def combined_mask_in_the_row(side, index):
    side.combined = side.rotation._txi_input.view(np.bool_)[2 + 8 * (index % 3) :][:N]


@way(COLUMN_WAYS)
def clear_masks(side, index):
    side.masks = (np.zeros(N, dtype=np.uint8),)
    side.combined = np.zeros(N, dtype=np.uint8)


@way(COLUMN_WAYS)
def fewer_instruments(side, index):
    side.N = N - 1 - index % N


@way(COLUMN_WAYS)
def all_instruments(side, index):
    side.N = N


ColumnSide.ways = {**WAYS, **COLUMN_WAYS}


# ---- comparing -----------------------------------------------------------------------------------


def assert_same(modules, policy, steps):
    """Columns and their items, on both modules, with and without the fast path."""
    native, twin = modules
    expected = ColumnSide(twin, False, policy, as_items=False).play(steps)
    for module, override, as_items in [
        (native, False, False),
        (native, True, False),
        (native, False, True),
        (twin, False, True),
    ]:
        got = ColumnSide(module, override, policy, as_items).play(steps)
        assert got == expected, (module is native, override, as_items)


NUMBERS = st.sampled_from([1.5, -2.0, 0.1, -0.0, NAN, INFINITY, -INFINITY, 1e308, 5e-324])
DAY_VALUES = st.one_of(
    st.lists(NUMBERS, min_size=6, max_size=6),
    st.lists(NUMBERS, min_size=6, max_size=6),
    st.sampled_from(list(VALUES)),
)
# Days of one layout follow each other more often than not.
DAY_LAYOUTS = st.one_of(st.sampled_from(["plain", "plain again"]), st.sampled_from(list(LAYOUTS)))
DAY = st.tuples(
    st.just("day"), DAY_LAYOUTS, DAY_VALUES, st.sampled_from([False, False, False, True])
)
ALL_WAYS = [*WAYS, *COLUMN_WAYS]
TAMPER = st.tuples(st.just("tamper"), st.sampled_from(ALL_WAYS), st.integers(0, 11))
LATER = st.tuples(
    st.just("later"),
    st.sampled_from(["hook", "child", "sink"]),
    st.sampled_from(ALL_WAYS),
    st.integers(0, 11),
)
POLICIES = st.sampled_from(["proportional", "equal_split"])


@settings(max_examples=150, deadline=None)
@given(steps=st.lists(st.one_of(DAY, DAY, DAY, TAMPER, LATER), max_size=14), policy=POLICIES)
def test_columns_are_their_items_whatever_comes_between(modules, steps, policy):
    assert_same(modules, policy, steps)


ONES = [1.5, 0.1, -2.0, 1e10, 3.0, 4.0]
OTHERS = [0.1, NAN, 7.0, 8.0, -1.0, INFINITY]
LAST_MISSING = [1.5, 0.1, NAN, NAN, NAN, NAN]


def day(layout="plain", values=ONES, as_items=False):
    return ("day", layout, values, as_items)


@pytest.mark.parametrize("name", ALL_WAYS)
def test_each_way_of_tampering_between_like_days_is_noticed(modules, name):
    for index in (0, 1, 3):
        steps = [
            day(),
            day(values=OTHERS),
            ("tamper", name, index),
            day(values=OTHERS),
            day(),
            day(values=OTHERS),
            day("fewer"),
            ("tamper", name, index + 1),
            day("fewer", OTHERS),
            day(values=OTHERS),
        ]
        assert_same(modules, "proportional", steps)


@pytest.mark.parametrize("place", ["hook", "child", "sink"])
@pytest.mark.parametrize("name", ALL_WAYS)
def test_each_way_of_tampering_in_the_middle_of_a_day_is_noticed(modules, place, name):
    for index in (0, 2):
        steps = [day(), day(), ("later", place, name, index), day(values=OTHERS), day(), day()]
        assert_same(modules, "equal_split", steps)


@pytest.mark.parametrize("name", ALL_WAYS)
def test_each_way_of_tampering_between_days_with_held_metadata_is_noticed(modules, name):
    for index in (1, 2):
        steps = [
            day(),
            ("tamper", "hold", index),
            ("later", "child", "hold", index + 1),
            day(),
            ("tamper", name, index + 1),
            day(values=OTHERS),
            day(),
            ("tamper", "let go", 0),
            day(),
            day(values=OTHERS),
        ]
        assert_same(modules, "proportional", steps)


@pytest.mark.parametrize("other", LAYOUTS)
@pytest.mark.parametrize("policy", ["proportional", "equal_split"])
def test_each_layout_may_come_again_change_and_come_back(modules, policy, other):
    one = "plain"
    for as_items in (False, True):
        steps = [
            day(one),
            day(other),
            day(other, OTHERS),
            day(other, ONES, as_items),
            day(other, OTHERS),
            day(one, OTHERS),
            day(one),
            day(other),
        ]
        assert_same(modules, policy, steps)


@pytest.mark.parametrize("values", VALUES)
@pytest.mark.parametrize("layout", ["plain", "a key twice", "one more"])
@pytest.mark.parametrize(
    "rows", ["row", "row in a larger array", "backward row", "row of one number", "collect"]
)
def test_values_may_be_of_any_kind_every_day(modules, values, layout, rows):
    steps = [
        ("tamper", rows, 0),
        day(layout),
        day(layout),
        day(layout, values),
        day(layout, OTHERS),
        day(layout, LAST_MISSING),
        day(layout, values),
        day(layout, values),
    ]
    assert_same(modules, "proportional", steps)


@pytest.mark.parametrize("mask", COLUMN_WAYS)
@pytest.mark.parametrize("layout", ["plain", "one more", "no legs", "leg outside", "last leg"])
def test_masks_may_be_of_any_kind_every_day(modules, mask, layout):
    for index in range(5):
        steps = [
            day(layout),
            day(layout),
            ("tamper", mask, index),
            day(layout),
            ("tamper", "flag", index),
            day(layout, OTHERS),
            day(layout, "the row"),
            ("tamper", "clear masks", 0),
            ("tamper", "all instruments", 0),
            day(layout),
        ]
        assert_same(modules, "proportional", steps)


def test_values_written_to_after_a_day_count_the_next_day(modules):
    for module in modules:
        side = ColumnSide(module, False, "proportional", as_items=False)
        values = np.array([1.0, 2.0, 3.0])
        side.rotation.report = columns_of(LAYOUTS["plain"], values)
        for first in (1.0, 7.0, NAN, INFINITY, 2.0):
            values[0] = first
            side.record_day()
            np.testing.assert_array_equal(
                side.rotation._txi_input[:2], [first if np.isfinite(first) else NAN, 2.0]
            )
            assert side.rotation._metadata_by_slot[0]["active"] is bool(np.isfinite(first))


def test_what_a_day_reported_may_go_with_the_day(modules):
    """Nothing is compared with the address of something that is gone."""
    native, twin = modules

    def logs(module):
        side = ColumnSide(module, False, "proportional", as_items=False)
        for number in range(200):
            side.columns["plain"] = columns_of([(("a",), ((number % N, 1.0 + number),)), B])
            side.day("plain", ONES)
        return side.log

    assert logs(native) == logs(twin)


def test_thousands_of_structures_on_and_off(modules):
    """Enough of them that tables grow, are laid out anew and are fetched ahead."""
    native, twin = modules
    count = 800

    def logs(module, overridden):
        rotation = day_rotation_class(module, overridden=overridden)(
            max_structures=count, transformation_expression="none", N_alloc=N
        )
        made = {}
        rng = np.random.default_rng(5)
        for kind in range(3):
            legs = rng.integers(0, 4, size=count)
            total = int(legs.sum())
            made[kind] = StructureColumns(
                [(int(number),) for number in rng.permutation(count)],
                np.concatenate([[0], np.cumsum(legs)]),
                rng.integers(0, N, size=total),
                rng.normal(size=total),
                np.zeros(count),
            )
        log = []
        for kind in (0, 0, 0, 1, 1, 2, 0, 0):
            values = rng.normal(size=count)
            values[rng.random(count) < 0.2] = NAN
            inputs = rng.normal(size=N)
            inputs[rng.integers(0, N)] = NAN
            rotation.items = made[kind].with_values(values)
            log.append(rotation(inputs).tobytes())
            log.append(frozen.freeze(visible_attributes(rotation, ["items"])))
        return log

    expected = logs(twin, ())
    assert logs(native, ()) == expected
    assert logs(native, ("_slot_for_key",)) == expected
