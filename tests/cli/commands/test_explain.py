"""`quorvane explain` gives the parts of a number, and says what is not there."""

import json
import zipfile

import numpy as np
import pytest

from quorvane.cli.table_io import read_table

DATED = """\
date,key,instrument,weight
2020-01-02,KO/PEP,KO,1
2020-01-02,KO/PEP,PEP,-1
2020-01-02,oil,XOM,1
2020-01-02,oil,CVX,-1
2020-01-07,oil,XOM,-2
2020-01-07,oil,KO,0.5
2020-01-07,one,KO,3
"""


@pytest.fixture(params=["t.npz", "t.jsonl"])
def traced(request, replay, tmp_path, write):
    """Replay levels with a trace; its path and the output."""

    def traced(**options):
        path = tmp_path / request.param
        outcome = replay(trace=path, **{"input": "levels", **options})
        assert outcome.status == 0, outcome.err
        return path, read_table(tmp_path / "output.csv")

    return traced


def said_by(command, *arguments):
    """The number of the head, and the rows as lists of words."""
    outcome = command("explain", *arguments)
    assert (outcome.status, outcome.err) == (0, "")
    head, *rows = outcome.out.splitlines()
    return head, [row.split() for row in rows]


@pytest.mark.parametrize("policy", ["proportional", "equal_split"])
@pytest.mark.parametrize("is_dated", [False, True])
@pytest.mark.parametrize("expression", ["none", "ewma(3);zscore"])
def test_the_parts_add_up_to_every_number(
    command, traced, structures, write, policy, is_dated, expression
):
    options = {"policy": policy, "expression": expression, "hold": "1"}
    path, output = traced(
        structures=write("dated.csv", DATED) if is_dated else structures, **options
    )
    explained = 0
    for column, name in enumerate(output.instruments):
        for day, date in enumerate(output.dates.text):
            number = output.values[day, column]
            head, rows = said_by(command, path, name, date)
            if np.isnan(number):
                assert head == f"{name} on {date}: missing, no structure reaches it"
                continue
            count = len(rows) - 2
            plural = "structure" if count == 1 else "structures"
            assert head == f"{name} on {date}: {float(number)!r}, from {count} {plural}"
            parts = [float(row[-1]) for row in rows[1:-1]]
            assert sum(parts) == pytest.approx(number, rel=1e-12, abs=1e-14)
            assert rows[-1] == ["sum", repr(float(number))]
            explained += count
    assert explained > 20


def test_a_part_has_its_weight_and_what_entered_and_left(command, traced):
    path, _ = traced(expression="rank")
    head, rows = said_by(command, path, "KO", "20200102")
    # -82 is the lowest of three values, 25 the highest.
    assert head == "KO on 2020-01-02: 0.8333333333333333, from 2 structures"
    assert rows == [
        ["structure", "weight", "entered", "left", "contribution"],
        ["drinks/oil", "0.5", "25.0", "1.0", "0.5"],
        ["KO/PEP", "1.0", "-82.0", "0.3333333333333333", "0.3333333333333333"],
        ["sum", "0.8333333333333333"],
    ]


def test_legs_are_those_of_the_day(command, traced, write):
    path, _ = traced(structures=write("dated.csv", DATED), expression="none")
    _, before = said_by(command, path, "XOM", "2020-01-06")
    _, after = said_by(command, path, "XOM", "2020-01-07")
    assert [row[1] for row in (before[1], after[1])] == ["1.0", "-2.0"]
    head, _ = said_by(command, path, "CVX", "2020-01-07")
    assert head == "CVX on 2020-01-07: missing, no structure reaches it"


def test_days_without_dates_are_numbers(command, write, tmp_path):
    np.save(tmp_path / "t.npy", np.ones((3, 1)))
    for name in ("t.npz", "t.jsonl"):
        replayed = command(
            "replay", tmp_path / "t.npy", "--structures", write("s.toml", "[a]\n0 = 2.0\n"),
            "--input", "levels", "--output", tmp_path / "o.npy", "--trace", tmp_path / name,
        )  # fmt: skip
        assert replayed.status == 0
        assert said_by(command, tmp_path / name, "0", "2")[0] == "0 on 2: 4.0, from 1 structure"


def error_of(command, *arguments):
    outcome = command("explain", *arguments)
    assert (outcome.status, outcome.out, outcome.err.count("\n")) == (1, "", 1)
    assert outcome.err.startswith("quorvane explain: error: ")
    return outcome.err.strip().removeprefix("quorvane explain: error: ")


def test_what_is_not_in_the_trace_is_named(command, traced):
    path, _ = traced()
    assert error_of(command, path, "KOO", "2020-01-02") == (
        f"{path}: there is no instrument 'KOO'; did you mean 'KO'?"
    )
    assert error_of(command, path, "KO", "2020-01-04") == (
        f"{path}: there is no day '2020-01-04' in the trace, which has 2020-01-02 to 2020-01-10"
    )


def test_a_missing_file_and_another_ending_are_refused(command, tmp_path):
    assert error_of(command, tmp_path / "t.npz", "A", "0").endswith(
        "no such file, expected a trace"
    )
    outcome = command("explain", tmp_path / "t.csv", "A", "0")
    assert outcome.status == 2
    assert "unsupported ending for a trace" in outcome.err


@pytest.mark.parametrize("name", ["t.npz", "t.jsonl"])
@pytest.mark.parametrize("data", [b"", b"PK\x05\x06" + bytes(18), b"[1]\n", b"\xff\xfe", b"{}\n"])
def test_what_is_no_trace_is_refused(command, tmp_path, name, data):
    (tmp_path / name).write_bytes(data)
    error_of(command, tmp_path / name, "A", "0")


def test_a_trace_that_does_not_say_how_values_come_back_is_refused(command, traced):
    path, _ = traced()
    if path.suffix == ".npz":
        with np.load(path) as archive:
            kept = {name: archive[name] for name in archive if name not in ("policy", "leg_day")}
        np.savez(path, **kept)
    else:
        first, *rest = path.read_text().splitlines()
        day = json.loads(first)
        del day["policy"]
        path.write_text("\n".join([json.dumps(day), *rest]))
    assert error_of(command, path, "KO", "2020-01-03").endswith("replay again to have it explained")


def test_a_trace_that_does_not_add_up_is_refused(command, replay, tmp_path):
    path = tmp_path / "t.npz"
    assert replay(trace=path, input="levels").status == 0
    with np.load(path) as archive:
        changed = {name: archive[name] for name in archive}
    changed["txn_output"][0, 0] += 1.0
    np.savez(path, **changed)
    assert error_of(command, path, "KO", "2020-01-02").endswith("the trace was changed since")


def test_objects_in_a_trace_are_not_made(command, replay, tmp_path):
    path = tmp_path / "t.npz"
    assert replay(trace=path).status == 0
    with zipfile.ZipFile(path) as archive:
        members = {name: archive.read(name) for name in archive.namelist()}
    forged = tmp_path / "forged.npy"
    np.save(forged, np.array([{}], dtype=object), allow_pickle=True)
    with zipfile.ZipFile(path, "w") as archive:
        for name, data in {**members, "keys.npy": forged.read_bytes()}.items():
            archive.writestr(name, data)
    assert "not a readable trace: Object arrays cannot be loaded" in error_of(
        command, path, "KO", "2020-01-03"
    )


def test_parts_beyond_the_largest_number_are_told(command, traced, write, prices):
    prices.write_text("Date,A,B\n2024-01-01,1e308,0\n2024-01-02,-1e308,1\n")
    structures = write("s.toml", "[P]\nA = 1.0\n[Q]\nB = 1.0\nA = 1.0\n")
    with np.errstate(over="ignore"):
        path, output = traced(structures=structures)
    for day, date in enumerate(output.dates.text):
        head, rows = said_by(command, path, "A", date)
        assert head.startswith(f"A on {date}: {float(output.values[day, 0])!r}")
        assert len(rows) == 4
