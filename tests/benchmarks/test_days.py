"""The days that are timed: they are what they are said to be, and one that differs is noticed."""

import gc
import random

import numpy as np
import pytest
from daybench import garbage, snapshots, sparse_days, styles, tables, variations
from daybench.peers import PeerAbsent
from daybench.structures import Shape

from quorvane.tables import read_table

SMALL = Shape(60, 2, 80, 30)


@pytest.mark.parametrize("style", styles.CASES.values(), ids=styles.CASES.keys())
def test_every_style_returns_what_the_plain_one_returns(style):
    market = styles.Market(structures=60, instruments=30)
    rotation = styles.check(style, market)
    assert np.isfinite(rotation(market.today.inputs)).any()


@pytest.mark.parametrize("wrong", ["value", "legs"])
def test_a_style_with_other_numbers_is_refused(wrong):
    def reporting(market):
        def report():
            items = styles.dicts(market)()
            items[7][wrong] = {"value": 0.5, "legs": ((0, 0.25),)}[wrong]
            return items

        return report

    market = styles.Market(structures=60, instruments=30)
    with pytest.raises(AssertionError):
        styles.check(styles.Style("wrong", 1.0, reporting), market)


def test_a_generator_is_exhausted_where_the_hook_is_timed_alone():
    made = []

    def report():
        for i in range(5):
            made.append(i)
            yield i

    styles._make_and_free(report)
    assert made == [0, 1, 2, 3, 4]


@pytest.mark.parametrize("variation", variations.CASES.values(), ids=variations.CASES.keys())
def test_every_variation_returns_what_the_plain_twin_returns(variation):
    today = variations.check(variation, SMALL)
    assert np.isfinite(today.output).any()


def test_a_variation_that_the_twin_does_not_share_is_refused():
    def derived(reporting):
        class Own(reporting):
            def _unmap(self, txi_output, output_buf, N):
                output_buf[:N] = random.random()

        return Own

    with pytest.raises(AssertionError):
        variations.check(variations.Variation("random", derived=derived), SMALL)


def test_notes_are_put_into_slots_that_the_day_does_not_report(monkeypatch):
    monkeypatch.setattr(sparse_days, "NOTED_SLOTS", 50)
    noting = variations.Variation("notes", before=sparse_days.note_in_some_slots)
    today = variations.check(noting, SMALL, transformation_expression="none")
    sparse_days.note_in_some_slots(today)
    noted = [slot for slot, found in enumerate(today.rotation._metadata_by_slot) if "note" in found]
    assert len(noted) == 50
    assert noted[-1] >= SMALL.structures


def test_snapshots_and_records_are_restored_after_every_day():
    pytest.importorskip("msgpack")
    for make_side in (snapshots.from_snapshots, snapshots.from_records):
        side = make_side(SMALL)
        for _ in range(3):
            side.prepare()
            side.call()


@pytest.mark.parametrize("name", garbage.CASES)
def test_garbage_is_collected_on_one_side_only(name):
    was_enabled = gc.isenabled()
    try:
        collecting, quiet = garbage.sides(garbage.CASES[name](), SMALL)
        for side, expected in ((collecting, True), (quiet, False)):
            side.prepare()
            side.call()
            assert gc.isenabled() is expected
    finally:
        (gc.enable if was_enabled else gc.disable)()


@pytest.mark.parametrize("kind", tables.TABLES)
def test_every_table_that_is_timed_gives_the_numbers_of_the_array_in_one_call(kind):
    baskets, inputs, labels = tables._made((40, 5, 7, 2))
    try:
        table = tables.TABLES[kind](inputs, labels)
    except PeerAbsent:
        pytest.skip(f"{kind} cannot be had here")
    found = read_table(baskets.run(table)).matrix(labels)
    np.testing.assert_array_equal(found, tables._in_one_call(baskets, inputs))
