"""A folder of results: computed once, whole or not there, and never silently wrong."""

import json
import math
import os
import subprocess
import sys
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest

import quorvane as qv
from quorvane.stores.errors import StoreFormatError, StoreWriteError
from quorvane.sweeping import bench
from quorvane.sweeping.outcome import Outcome
from quorvane.sweeping.results import Results
from support import sweeping
from support.sweeping import PAIRS, SINGLES, grid, returns

pandas = pytest.importorskip("pandas")
NAME = "0123456789abcdef"


@pytest.fixture
def computed(monkeypatch):
    """The jobs that were computed, in order."""
    jobs = []
    real = bench.Bench.outcome

    def outcome(self, job):
        jobs.append(job)
        return real(self, job)

    monkeypatch.setattr(bench.Bench, "outcome", outcome)
    return jobs


def swept(out, data=None, chosen=None, **keywords):
    with ThreadPoolExecutor(1) as executor:
        return qv.sweep(
            returns() if data is None else data,
            chosen or grid(),
            executor=executor,
            out=out,
            **keywords,
        )


def test_a_second_run_computes_what_failed_and_nothing_else(tmp_path, computed, same):
    first = swept(tmp_path / "a" / "folder")
    assert len(computed) == 18
    second = swept(tmp_path / "a" / "folder")
    assert len(computed) == 18 + 6
    same(first, second)
    assert first["seconds"][first["error"] == ""].equals(second["seconds"][second["error"] == ""])
    assert len(list((tmp_path / "a" / "folder").iterdir())) == 12


def test_a_larger_grid_computes_what_is_new(tmp_path, computed):
    small = {"weights": {"p": PAIRS}, "expression": ["rank"]}
    swept(tmp_path, chosen=small)
    # Labels and defaults that are written out are the same configuration.
    swept(tmp_path, chosen={**small, "weights": {"other name": PAIRS}, "hold": [0, 1]})
    assert len(computed) == 2


@pytest.mark.parametrize("what", ["data", "a day", "a column", "score", "weights", "order"])
def test_whatever_is_computed_otherwise_is_computed_anew(tmp_path, computed, what, monkeypatch):
    small = {"weights": {"p": PAIRS}, "expression": ["rank"]}
    data = returns()
    swept(tmp_path, data, small)
    score = None
    if what == "data":
        data.iloc[5, 5] += 1e-15
    elif what == "a day":
        data.index = [*data.index[:-1], data.index[-1] + pandas.Timedelta(days=1)]
    elif what == "a column":
        data = data.rename(columns={data.columns[-1]: "other"})
    elif what == "score":
        score = {"cost": 0.001}
    elif what == "weights":
        small = {**small, "weights": {"p": SINGLES}}
    else:
        small = {**small, "weights": {"p": dict(reversed(PAIRS.items()))}}
    swept(tmp_path, data, small, score=score)
    assert len(computed) == 2


def test_another_version_or_another_file_of_a_function_computes_anew(
    tmp_path, computed, monkeypatch, register
):
    from quorvane.sweeping import shared

    small = {"weights": {"p": PAIRS}, "expression": ["rank", "halved_in_a_test"]}
    register("halved_in_a_test", sweeping.halved)
    swept(tmp_path, chosen=small)
    register("halved_in_a_test", sweeping.Doubled)
    swept(tmp_path, chosen=small)
    assert computed[2:] == [(0, 1)]
    monkeypatch.setattr(shared.Shared, "__init__", _of_version("9.9", shared.Shared.__init__))
    found = swept(tmp_path, chosen=small)
    assert len(computed) == 5
    assert found["error"].str.contains("the sweep is of 9.9").all()


def _of_version(version, real):
    def made(self, *arguments, **keywords):
        real(self, *arguments, **{**keywords, "version": version})

    return made


@pytest.mark.parametrize(
    "damage",
    [
        lambda text: text[: len(text) // 2],
        lambda text: "",
        lambda text: "{}",
        lambda text: "[1, 2]",
        lambda text: "[" * 100_000,
        lambda text: text.replace('"mean": ', '"mean": 1'),
        lambda text: text.replace('"error": ""', '"error": "x"'),
        lambda text: text.replace("format 1", "format 2"),
        lambda text: text.replace('"figures": {', '"figures": {"more": 1.0,'),
        lambda text: "\udcff",
    ],
)
def test_a_file_that_is_damaged_is_computed_anew(tmp_path, computed, damage, same):
    small = {"weights": {"p": PAIRS}, "expression": ["rank"]}
    first = swept(tmp_path, chosen=small, score=sweeping.mean_of_signal)
    [file] = tmp_path.iterdir()
    whole = file.read_text()
    changed = damage(whole)
    assert changed != whole
    file.write_bytes(changed.encode(errors="surrogateescape"))
    same(swept(tmp_path, chosen=small, score=sweeping.mean_of_signal), first)
    assert len(computed) == 2
    swept(tmp_path, chosen=small, score=sweeping.mean_of_signal)
    assert len(computed) == 2


def test_a_result_under_another_name_is_computed_anew(tmp_path, computed):
    small = {"weights": {"p": PAIRS}, "expression": ["rank", "zscore"]}
    swept(tmp_path, chosen=small)
    first, second = sorted(tmp_path.iterdir())
    second.write_bytes(first.read_bytes())
    swept(tmp_path, chosen=small)
    assert len(computed) == 3


def test_numbers_come_back_to_the_bit(tmp_path, same):
    small = {"weights": {"p": PAIRS}, "expression": ["rank"]}
    first = swept(tmp_path, chosen=small, score=sweeping.odd_numbers)
    same(swept(tmp_path, chosen=small, score=sweeping.odd_numbers), first)
    assert first.iloc[0, 2:7].tolist()[1:] == [math.inf, 5e-324, 1 / 3, 7]
    [file] = tmp_path.iterdir()
    found = json.loads(file.read_text(), parse_constant=pytest.fail)
    assert found["figures"] == {"nan": "nan", "inf": "inf", "tiny": 5e-324, "third": 1 / 3, "n": 7}
    assert found["arguments"] == {"weights": "p", "expression": "rank"}


def test_foreign_files_stay_as_they_are(tmp_path):
    (tmp_path / "notes.txt").write_text("mine")
    (tmp_path / "old.json").write_text("{}")
    swept(tmp_path)
    assert (tmp_path / "notes.txt").read_text() == "mine"
    assert (tmp_path / "old.json").read_text() == "{}"


def test_what_is_no_file_is_refused(tmp_path):
    (tmp_path / "file").write_text("")
    with pytest.raises(StoreFormatError, match="is not a folder"):
        Results(tmp_path / "file")
    results = Results(tmp_path)
    (tmp_path / f"{NAME}.json").mkdir()
    with pytest.raises(StoreFormatError, match="is no regular file"):
        results.get(NAME)
    (tmp_path / f"{NAME}.json").rmdir()
    os.mkfifo(tmp_path / f"{NAME}.json")
    with pytest.raises(StoreFormatError, match="is no regular file"):
        results.get(NAME)


def test_what_cannot_be_written_says_so_and_keeps_the_rest(tmp_path, monkeypatch):
    from quorvane.stores import _files

    results = Results(tmp_path)
    results.put(NAME, Outcome({"a": 1.0}, 0.5), {})

    def full(*arguments):
        raise OSError(28, "No space left on device")

    monkeypatch.setattr(_files.os, "write", full)
    with pytest.raises(StoreWriteError, match=r"cannot write .*No space left"):
        results.put("f" * 16, Outcome({"a": 1.0}, 0.5), {})
    monkeypatch.undo()
    assert results.get(NAME) == Outcome({"a": 1.0}, 0.5)
    assert [path.name for path in tmp_path.iterdir()] == [f"{NAME}.json"]


def test_leftovers_of_a_killed_writer_go_after_an_hour(tmp_path):
    old, new = tmp_path / ".a.json.1.tmp", tmp_path / ".b.json.2.tmp"
    for path in (old, new):
        path.write_text("")
    os.utime(old, (time.time() - 4000,) * 2)
    Results(tmp_path)
    assert not old.exists()
    assert new.exists()


PROGRAM = """
import sys
import quorvane as qv
from support import sweeping
grid = {"weights": {"pairs": sweeping.PAIRS}, "expression": ["rank"], "hold": list(range(60))}
qv.sweep(sweeping.returns(60), grid, score=sweeping.sleeps_a_little, out=sys.argv[1])
"""


def test_a_run_that_is_killed_goes_on_where_it_was(tmp_path, computed, same):
    root = qv.__file__.rpartition("/quorvane/")[0]
    tests = str(Path(__file__).parents[1])
    program = subprocess.Popen(
        [sys.executable, "-c", PROGRAM, str(tmp_path / "out")],
        env={**os.environ, "PYTHONPATH": f"{root}:{tests}", "TMPDIR": str(tmp_path)},
    )
    end = time.monotonic() + 30.0
    while len(list((tmp_path / "out").glob("*.json"))) < 5 and time.monotonic() < end:
        time.sleep(0.02)
    program.kill()
    program.wait()
    kept = len(list((tmp_path / "out").glob("*.json")))
    assert 5 <= kept < 60
    chosen = {"weights": {"pairs": PAIRS}, "expression": ["rank"], "hold": list(range(60))}
    found = swept(tmp_path / "out", returns(60), chosen, score=sweeping.sleeps_a_little)
    assert len(computed) == 60 - kept
    fresh = {**chosen, "hold": list(range(60))}
    with ThreadPoolExecutor(4) as executor:
        same(
            found,
            qv.sweep(returns(60), fresh, score=sweeping.sleeps_a_little, executor=executor),
        )


def test_two_runs_at_once_do_each_other_no_harm(tmp_path, same):
    with ThreadPoolExecutor(2) as outer:
        chosen = {"weights": {"pairs": PAIRS}, "expression": ["rank"], "hold": list(range(20))}
        both = [outer.submit(swept, tmp_path, returns(60), chosen) for _ in range(2)]
        first, second = (each.result() for each in both)
    same(first, second)
    assert len(list(tmp_path.iterdir())) == 20
    assert swept(tmp_path, returns(60), chosen)["error"].eq("").all()
