"""Days of every style, with any of an item's steps overridden, are those of plain Python."""

import collections
import copy
import datetime
import gc
import itertools

import numpy as np
import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

from support import frozen
from support.tampering import TABLES, WAYS, N, TamperedRotation, play

STEPS = ("_normalize_structure", "_slot_for_key", "_structure_is_valid")
SLOTS = 4
DAY = datetime.date(2026, 1, 2)


class Custom:
    """An object that is nobody's own kind, and counts as true."""


# How items say what they say


def in_tuples(index):
    return {"key": ("pair", index), "legs": ((index, 1.0), (index + 1, -0.5)), "value": 1.5 + index}


def in_lists(index):
    return {"key": ["pair", index], "legs": [[index, 1.0], [index + 1, -0.5]], "value": index}


def in_scalars(index):
    legs = ((np.int64(index), np.float64(1.0)), (np.int64(index + 1), -0.5))
    return {"key": ("pair", index), "legs": legs, "value": np.float64(0.25 * index)}


def without_value(index):
    return {"key": ("pair", index), "legs": ((index, 1.0),)}


def without_legs(index):
    return {"key": ("pair", index), "legs": (), "value": 2.0}


def on_odd_legs(index):
    return {"key": ("pair", index), "legs": ((-1 - index, 1.0), (2**40, 2.0)), "value": 1.0}


def with_words(index):
    return {**in_tuples(index), "metadata": {"note": f"on {index}", "weight": 0.5 * index}}


def with_the_words_of_a_slot(index):
    metadata = {"slot": "own", "key": "own", "active": "own", "legs": "own"}
    return {**in_tuples(index), "metadata": metadata}


def with_many_words(index):
    return {**in_tuples(index), "metadata": {f"word {i}": (i, DAY.year) for i in range(12)}}


def with_words_made_anew(index):
    """Equal words that are other objects every day, not the ones that the slot's dict has."""
    words = {str(b"note", "ascii"): index, str(b"key", "ascii"): 1}
    return {**in_tuples(index), "metadata": words}


def with_scalars_in_words(index):
    metadata = {"a": np.float64(0.5 * index), "b": np.int64(index), "c": np.bool_(index % 2 == 0)}
    return {**in_tuples(index), "metadata": metadata}


def with_an_odd_scalar_in_a_word(index):
    return {**in_tuples(index), "metadata": {"a": np.float32(index)}}


def with_deep_tuples_in_a_word(index):
    return {**in_tuples(index), "metadata": {"deep": (((((index,),),),),)}}


def with_a_leg_of_three(index):
    return {**in_lists(index), "legs": [[index, 1.0], [index + 1, -0.5, 9.0]]}


def with_a_number_as_a_leg(index):
    return {**in_lists(index), "legs": [[index, 1.0], index]}


def with_a_list_in_a_word(index):
    return {**in_tuples(index), "metadata": {"list": [index]}}


def with_an_odd_word(index):
    return {**in_tuples(index), "metadata": {index: "a number as a word"}}


def with_a_date_in_the_key(index):
    return {**in_tuples(index), "key": ("dated", index, DAY)}


def with_an_odd_value(index):
    return {**in_tuples(index), "value": np.float32(0.5)}


STYLES = [
    in_tuples, in_lists, in_scalars, without_value, without_legs, on_odd_legs, with_words,
    with_the_words_of_a_slot, with_many_words, with_a_list_in_a_word, with_an_odd_word,
    with_a_date_in_the_key, with_an_odd_value, with_words_made_anew, with_scalars_in_words,
    with_an_odd_scalar_in_a_word, with_deep_tuples_in_a_word, with_a_leg_of_three,
    with_a_number_as_a_leg,
]  # fmt: skip


def as_record(module, item):
    fields = {"value": 0.5, "metadata": None, **item}
    return module.VirtualStructure(**fields)


# How the hook reports them

REPORTS = {
    "list": lambda items: items,
    "tuple": tuple,
    "generator": lambda items: lambda: (item for item in items),
    "iterator": lambda items: lambda: iter(items),
    "dict view": lambda items: dict(enumerate(items)).values(),
}

# What an overridden step does, besides asking super()


def passes(step, answer, structure):
    return answer


def changes_the_record(step, answer, structure):
    record = structure if step == "_structure_is_valid" else answer
    if step != "_slot_for_key":
        record.value = record.value * 2.0
        record.metadata = {**record.metadata, "seen": step}
    return answer


def changes_the_metadata_in_place(step, answer, structure):
    if step == "_structure_is_valid":
        structure.metadata["seen"] = [len(structure.legs)]
    return answer


def leaves_small_ones_no_metadata(step, answer, structure):
    record = structure if step == "_structure_is_valid" else answer
    if step != "_slot_for_key" and record.value < 2.0:
        record.metadata = None
    return answer


def says_another_key(step, answer, structure):
    record = structure if step == "_structure_is_valid" else answer
    if step != "_slot_for_key":
        record.metadata = {"key": ("another",), "legs": record.legs}
    return answer


def says_key_and_legs_the_other_way_round(step, answer, structure):
    record = structure if step == "_structure_is_valid" else answer
    if step != "_slot_for_key":
        record.metadata = {"legs": record.legs, "key": record.key}
    return answer


def takes_the_value_of_small_ones(step, answer, structure):
    record = structure if step == "_structure_is_valid" else answer
    if step != "_slot_for_key" and record.value < 2.0:
        del record.value
    return answer


def takes_the_key_of_small_ones(step, answer, structure):
    if step == "_structure_is_valid" and structure.value < 2.0:
        del structure.key
    return answer


def gives_other_legs(step, answer, structure):
    if step == "_normalize_structure":
        answer.legs = [list(leg) for leg in answer.legs]
    return answer


def answers_in_another_type(step, answer, structure):
    if step == "_slot_for_key":
        return np.int64(answer)
    if step == "_structure_is_valid":
        return Custom() if answer else 0
    return answer


def answers_in_new_objects(step, answer, structure):
    if step == "_slot_for_key":
        return int(str(answer))
    if step == "_structure_is_valid":
        return bool(answer)
    return answer


HABITS = [
    passes, changes_the_record, changes_the_metadata_in_place, leaves_small_ones_no_metadata,
    says_another_key, says_key_and_legs_the_other_way_round, takes_the_value_of_small_ones,
    takes_the_key_of_small_ones, gives_other_legs,
    answers_in_another_type, answers_in_new_objects,
]  # fmt: skip


def override(rotation_class, step, habit):
    def method(self, argument, *masks):
        answer = getattr(super(rotation_class, self), step)(argument, *masks)
        return habit(step, answer, argument)

    setattr(rotation_class, step, method)


class Recorded(TamperedRotation):
    """Reports items in the styles of the day; the steps named are overridden."""

    def __init__(self, module, steps, habit, through_all=False):
        super().__init__(module, through_all, "proportional")
        self.module = module
        for step in steps:
            override(type(self.rotation), step, habit)
        # The same objects every day, as a program's own tables are.
        self.items = {
            (style, i): STYLES[style](i) for style in range(len(STYLES)) for i in range(5)
        }

    def day(self, picks, report, records=False):
        items = [self.items[pick] for pick in picks]
        if records:
            items = [as_record(self.module, item) for item in items]
        self.rotation.report = REPORTS[report](items)
        self.record_day()

    def fresh(self, picks, report):
        self.items.update({pick: STYLES[pick[0]](pick[1]) for pick in picks})
        self.day(picks, report)


PICKS = st.lists(st.tuples(st.integers(0, len(STYLES) - 1), st.integers(0, 4)), max_size=6)
REPORT = st.sampled_from(list(REPORTS))
PLAN = st.lists(
    st.one_of(
        st.tuples(st.just("day"), PICKS, REPORT, st.booleans()),
        st.tuples(st.just("fresh"), PICKS, REPORT),
        st.tuples(st.just("tamper"), st.sampled_from(list(WAYS)), st.integers(0, 11)),
    ),
    max_size=8,
)


@settings(max_examples=250, deadline=None, suppress_health_check=list(HealthCheck))
@given(plan=PLAN, steps=st.sets(st.sampled_from(STEPS)), habit=st.sampled_from(HABITS))
def test_days_of_every_style_are_those_of_the_twin(modules, plan, steps, habit):
    native, twin = modules
    expected = play(Recorded(twin, steps, habit), plan)
    assert play(Recorded(native, steps, habit), plan) == expected
    if "_normalize_structure" not in steps:
        assert play(Recorded(native, steps, habit, through_all=True), plan) == expected


@pytest.mark.parametrize("habit", HABITS)
@pytest.mark.parametrize("steps", [s for n in range(4) for s in itertools.combinations(STEPS, n)])
def test_each_style_among_plain_items_is_that_of_the_twin(modules, steps, habit):
    native, twin = modules
    for style in range(len(STYLES)):
        plain = [(0, i) for i in range(3)]
        picks = [plain[0], (style, 1), plain[2], (style, 3), plain[2], plain[1], (style, 1)]
        plan = [
            (kind, chosen, report)
            for report in REPORTS
            for kind, chosen in [("day", plain), ("day", picks), ("fresh", picks), ("day", plain)]
        ]
        expected = play(Recorded(twin, steps, habit), plan)
        assert play(Recorded(native, steps, habit), plan) == expected, STYLES[style].__name__


# Code that runs between the items


def swap_the_tables(rotation):
    for name in ("slot_by_key", "key_by_slot", "_legs_by_slot"):
        setattr(rotation, name, dict(getattr(rotation, name)))


def forget_a_slot(rotation):
    rotation.slot_by_key.pop(("pair", 1), None)


def edit_an_entry(rotation):
    rotation._metadata_by_slot[1]["note"] = "between"


def replace_an_entry(rotation):
    rotation._metadata_by_slot[0] = {"by": "somebody"}


def replace_the_entries(rotation):
    rotation._metadata_by_slot = [{} for _ in rotation._metadata_by_slot]


def shorten_the_entries(rotation):
    del rotation._metadata_by_slot[2:]


def edit_the_legs(rotation):
    rotation._legs_by_slot[1] = ((3, 9.0),)


def replace_the_row(rotation):
    rotation._txi_input = np.zeros(SLOTS)


def shorten_the_row(rotation):
    rotation._txi_input = np.zeros(1)


def override_a_step(rotation):
    rotation._structure_is_valid = lambda structure, *masks: structure.value > 2.0


def take_another_slot(rotation):
    rotation._slot_for_key = lambda key: 3


def live_another_day(rotation):
    report, rotation.report = rotation.report, [in_tuples(2), in_lists(0)]
    rotation(np.ones(N))
    rotation.report = report


def set_an_attribute(rotation):
    rotation.note = object()


def take_a_snapshot(rotation):
    rotation.kept = rotation.get_state()


def fewer_slots(rotation):
    rotation.max_structures = 1


BETWEEN = [
    swap_the_tables, forget_a_slot, edit_an_entry, replace_an_entry, replace_the_entries,
    shorten_the_entries, edit_the_legs, replace_the_row, shorten_the_row, override_a_step,
    take_another_slot, live_another_day, set_an_attribute, take_a_snapshot, fewer_slots,
]  # fmt: skip


def generated_days(module, act, style, steps):
    """Days whose hook is a generator that acts before the second and before the last item."""
    side = Recorded(module, steps, passes)
    rotation = side.rotation
    log = []
    for day in range(4):

        def report(day=day):
            yield in_tuples(0)
            if day == 2:
                act(rotation)
            yield STYLES[style](1)
            yield STYLES[style](2)
            if day == 2:
                act(rotation)
            yield in_tuples(1)

        rotation.report = report
        ending = frozen.outcome(
            rotation.compute, (np.ones(N),), side.masks, side.combined, np.ones(N), N
        )
        kept = {name: value for name, value in vars(rotation).items() if name in TABLES}
        log.append((ending[:2], frozen.freeze(kept)))
    return log


@pytest.mark.parametrize("steps", [(), ("_structure_is_valid",), ("_slot_for_key",), STEPS])
@pytest.mark.parametrize("act", BETWEEN)
def test_what_runs_between_the_items_counts_for_the_next(modules, act, steps):
    native, twin = modules
    for style in range(len(STYLES)):
        expected = generated_days(twin, act, style, steps)
        assert generated_days(native, act, style, steps) == expected, STYLES[style].__name__


def an_odd_table(rotation):
    rotation._legs_by_slot = collections.OrderedDict(rotation._legs_by_slot)


def an_odd_row(rotation):
    rotation._txi_input = rotation._txi_input.tolist()


def record_four_days(side, log):
    """The end and the tables of each of four days, as they come, into the log."""
    rotation = side.rotation
    for _ in range(4):
        rotation.report = [in_tuples(i) for i in range(4)]
        ending = frozen.outcome(
            rotation.compute, (np.ones(N),), side.masks, side.combined, np.ones(N), N
        )
        kept = {name: value for name, value in vars(rotation).items() if name in TABLES}
        log.append((ending[:2], frozen.freeze(kept)))


@pytest.mark.parametrize("step", STEPS)
@pytest.mark.parametrize("act", [*BETWEEN, an_odd_table, an_odd_row])
def test_what_a_step_does_besides_counts_for_the_steps_after_it(modules, act, step):
    def scenario(module):
        side = Recorded(module, (), passes)
        rotation = side.rotation
        log = []

        def method(self, argument, *masks):
            if len(log) == 2:
                act(rotation)
            return getattr(super(type(rotation), self), step)(argument, *masks)

        setattr(type(rotation), step, method)
        record_four_days(side, log)
        return log

    native, twin = modules
    assert scenario(native) == scenario(twin)


@pytest.mark.parametrize("word", ["another", "note"])
@pytest.mark.parametrize("report", REPORTS)
def test_a_word_that_is_made_anew_takes_the_place_of_another(modules, report, word):
    def scenario(module):
        side = Recorded(module, (), passes)
        log = []
        for metadata in [{"note": 1}, {"".join(list(word)): 2}, {"note": 3}]:
            side.rotation.report = REPORTS[report]([{**in_tuples(0), "metadata": metadata}])
            side.record_day()
            log.append(frozen.freeze(side.rotation._metadata_by_slot))
        return log

    native, twin = modules
    assert scenario(native) == scenario(twin)


class Parting:
    """Acts when it goes."""

    def __init__(self, act):
        self.act = act

    def __del__(self):
        self.act()


@pytest.mark.parametrize("act", BETWEEN)
def test_what_goes_with_the_item_before_counts_for_the_next(modules, act):
    """A record goes when the next item's has been made."""

    def scenario(module):
        side = Recorded(module, (), passes)
        rotation = side.rotation
        log = []

        def judge(self, structure, *masks):
            if structure.key == ("pair", 1) and len(log) == 2:
                structure.parting = Parting(lambda: act(rotation))
            return super(type(rotation), self)._structure_is_valid(structure, *masks)

        type(rotation)._structure_is_valid = judge
        record_four_days(side, log)
        return log

    native, twin = modules
    assert scenario(native) == scenario(twin)


def test_masks_that_change_between_the_items_count(modules):
    def scenario(module):
        side = Recorded(module, (), passes)

        def report():
            for index in range(4):
                yield in_tuples(index)
                side.combined[index + 2] = 1

        log = []
        for _ in range(3):
            side.combined[:] = 0
            side.rotation.report = report
            side.record_day()
            log.append(side.log[-1])
        return log

    native, twin = modules
    assert scenario(native) == scenario(twin)


@pytest.mark.parametrize("as_masks", [list, tuple, np.array, iter])
def test_masks_may_be_in_any_sequence(modules, as_masks):
    def scenario(module):
        side = Recorded(module, (), passes)
        rows = [np.array([0, 0, 1, 0, 0, 0], dtype=np.uint8), np.zeros(N, dtype=np.uint8)]
        for report in ("list", "generator"):
            side.masks = as_masks(rows)
            side.day([(0, i) for i in range(4)], report)
        return side.log

    native, twin = modules
    assert scenario(native) == scenario(twin)


@pytest.mark.parametrize("report", ["list", "generator"])
@pytest.mark.parametrize("style", [in_tuples, in_lists])
def test_legs_that_somebody_holds_are_made_anew_and_others_stay(modules, style, report):
    """Normalisation makes a new tuple each day; one of the day before is seen by who holds it."""
    native, _ = modules
    side = Recorded(native, (), passes)
    picks = [(STYLES.index(style), i) for i in range(2)]
    for _ in range(3):
        side.fresh(picks, report)
    held = side.rotation._legs_by_slot[0]
    for _ in range(2):
        side.fresh(picks, report)
        assert side.rotation._legs_by_slot[0] == held
        assert side.rotation._legs_by_slot[0] is not held


@pytest.mark.parametrize("report", REPORTS)
@pytest.mark.parametrize("style", [in_tuples, in_lists])
@pytest.mark.parametrize("entries", range(4))
def test_legs_of_slots_that_have_no_metadata_yet_do_no_harm(modules, entries, style, report):
    """A copy of a rotation has its tables, and nothing is known of its entries."""

    def scenario(module):
        side = Recorded(module, (), passes)
        picks = [(STYLES.index(style), i) for i in range(4)]
        for _ in range(3):
            side.fresh(picks, "list")
        side.rotation = copy.copy(side.rotation)
        side.rotation._metadata_by_slot = [{} for _ in range(entries)]
        for _ in range(2):
            side.fresh(picks, report)
        return side.log

    native, twin = modules
    assert scenario(native) == scenario(twin)


LIVES = {
    "every other day": [[0, 1, 2, 3], [1, 3]] * 4,
    "one day in three": [[0, 1, 2], [1, 2, 3], [0, 2, 3]] * 3,
    "with other legs": [[0, 1], [1], [(9, 0), 1], [1], [0, 1], [1], [0]],
    "with other words": [[0, 1], [1], [(6, 0), 1], [1], [0, 1], [1], [0]],
}


@pytest.mark.parametrize("steps", [(), ("_structure_is_valid",), STEPS])
@pytest.mark.parametrize("report", REPORTS)
@pytest.mark.parametrize("life", LIVES)
def test_structures_that_come_and_go_are_those_of_the_twin(modules, life, report, steps):
    def scenario(module):
        side = Recorded(module, steps, passes)
        for index, day in enumerate(LIVES[life]):
            side.combined[:] = [0, index % 3 == 2, 0, 0, 0, 0]
            side.day([pick if isinstance(pick, tuple) else (0, pick) for pick in day], report)
        return side.log

    native, twin = modules
    assert scenario(native) == scenario(twin)


@pytest.mark.parametrize("holds", [False, True])
@pytest.mark.parametrize("report", ["list", "generator"])
def test_a_dict_of_yesterday_that_somebody_has_found_says_nothing_today(modules, report, holds):
    """While a slot is not active the collector may show a dict with what it has said before."""

    def scenario(module, seeks):
        side = Recorded(module, (), passes)
        found = []
        for day in [[0, 1], [1], [0, 1], [1], [0, 1]]:
            side.day([(0, i) for i in day], report)
            if day == [1] and seeks:
                dicts = [each for each in gc.get_objects() if type(each) is dict]
                for each in dicts:
                    key = each.get("key")
                    # Another's key may be anything, an array for example.
                    if type(key) is tuple and key == ("pair", 0) and "slot" in each:
                        each["note"] = "found"
                        found.append(each if holds else "let go")
                del dicts, each
        return side.log, found

    native, twin = modules
    log, found = scenario(native, seeks=True)
    assert found
    assert log == scenario(twin, seeks=False)[0]


@pytest.mark.parametrize("report", REPORTS)
def test_metadata_that_somebody_holds_is_reset_and_made_anew(modules, report):
    def scenario(module):
        side = Recorded(module, (), passes)
        log = []
        for _ in range(3):
            held = list(side.rotation._metadata_by_slot)
            side.day([(6, 0), (0, 1)], report)
            now = side.rotation._metadata_by_slot
            log.append([frozen.freeze(held), [a is b for a, b in zip(held, now, strict=True)]])
        return log

    native, twin = modules
    assert scenario(native) == scenario(twin)
