"""The trace in both formats against the rotation's own records."""

import json
import math

import numpy as np
import pytest

from quorvane.cli.structures import read_structures
from quorvane.cli.table_io import read_table
from quorvane.functions.rotations.virtualization.baskets import FixedBaskets


@pytest.fixture
def records(prices, structures):
    """The rotation's trace of the small files, levels, rank, five slots for three structures."""
    table = read_table(prices)
    sink = []
    rotation = FixedBaskets(
        read_structures(structures, table.instruments).latest,
        table.instruments,
        transformation_expression="rank",
        max_structures=5,
        trace_sink=sink,
    )
    rotation.batch_reference(table.values)
    return sink


@pytest.fixture
def traced(replay, tmp_path):
    """Run the command for a trace of the given name and return its path."""

    def traced(name):
        path = tmp_path / name
        outcome = replay(input="levels", expression="rank", max_structures=5, trace=path)
        assert outcome.status == 0, outcome.err
        return path

    return traced


def test_the_archive_holds_every_slot_of_every_day(traced, records):
    with np.load(traced("t.npz"), allow_pickle=False) as archive:
        for name in ("txi_input", "txi_output", "txn_output"):
            expected = np.stack([record[name] for record in records])
            assert np.array_equal(archive[name], expected, equal_nan=True)
        active = [[slot["active"] for slot in record["metadata_by_slot"]] for record in records]
        assert archive["active"].tolist() == active
        assert not archive["active"][3, 0]
        assert archive["active"].shape == (7, 5)
        assert archive["keys"].tolist() == ["KO/PEP", "XOM/CVX", "drinks/oil"]
        assert archive["instruments"].tolist() == ["KO", "PEP", "XOM", "CVX"]
        assert archive["dates"].tolist()[::6] == ["2020-01-02", "2020-01-10"]
        assert archive["leg_slot"].tolist() == [0, 0, 1, 1, 2, 2, 2]
        assert archive["leg_instrument"].tolist() == [0, 1, 2, 3, 0, 1, 2]
        assert archive["leg_weight"].tolist() == [1.0, -1.0, 1.0, -1.0, 0.5, 0.5, -1.0]


def test_the_lines_hold_one_object_per_day(traced, records):
    lines = traced("t.jsonl").read_text(encoding="utf-8").splitlines()
    days = [json.loads(line) for line in lines]
    assert [day["day_index"] for day in days] == list(range(7))
    assert days[0]["date"] == "2020-01-02"
    for day, record in zip(days, records, strict=True):
        for key, slot in record["slot_by_key"].items():
            shown = day["structures"][key[0]]
            assert shown["slot"] == slot
            assert shown["active"] == record["metadata_by_slot"][slot]["active"]
            for name, array in (("input", "txi_input"), ("output", "txi_output")):
                expected = float(record[array][slot])
                assert shown[name] == (None if math.isnan(expected) else expected)
        assert list(day["output"]) == ["KO", "PEP", "XOM", "CVX"]


def test_a_trace_beyond_the_limits_is_refused(replay, tmp_path, monkeypatch):
    monkeypatch.setattr("quorvane.cli.prepared_run.MAX_CELLS", 20)
    outcome = replay(trace=tmp_path / "t.npz")
    assert outcome.status == 1
    assert "t.npz: a trace of 7 days of 3 slots is 21 cells, at most 20 are allowed" in outcome.err


def test_a_table_without_dates_has_none_in_its_trace(command, write, tmp_path):
    np.save(tmp_path / "t.npy", np.ones((2, 2)))
    structures = write("s.toml", "[a]\n0 = 1.0\n")
    for name in ("t.npz", "t.jsonl"):
        outcome = command(
            "replay", tmp_path / "t.npy", "--structures", structures, "--input", "levels",
            "--output", tmp_path / "o.npy", "--trace", tmp_path / name,
        )  # fmt: skip
        assert outcome.status == 0, outcome.err
    with np.load(tmp_path / "t.npz") as archive:
        assert "dates" not in archive
    assert json.loads((tmp_path / "t.jsonl").read_text().splitlines()[0])["date"] is None
