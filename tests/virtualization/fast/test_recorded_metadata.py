"""What a day records of legs, masks and metadata that others hold or that come and go."""

import copy
import gc

import numpy as np
import pytest

from adversary.actions.tampering import N
from support import frozen
from virtualization.fast.styles import (
    BETWEEN,
    REPORTS,
    STEPS,
    STYLES,
    Recorded,
    in_lists,
    in_tuples,
    passes,
    record_four_days,
)


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

        for _ in range(3):
            side.combined[:] = 0
            side.rotation.report = report
            side.record_day()
        return side.log

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
