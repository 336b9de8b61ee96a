"""Items in every style, and steps that do more than they are asked."""

import datetime

import numpy as np

from adversary.actions.tampering import N
from adversary.tampered import TABLES, TamperedRotation
from support import frozen

STEPS = ("_normalize_structure", "_slot_for_key", "_structure_is_valid")
SLOTS = 4
DAY = datetime.date(2026, 1, 2)


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
