"""The list of survivors is held to the results both ways."""

import pytest

from mutants import survivor_list
from mutants.judging import CAUGHT, SURVIVED, UNREACHED, UNVIABLE

KEY = ("a.cpp", "a < b", "a <= b")
ENTRY = '["a.cpp"."a < b"]\n"a <= b" = "{}"\n'


@pytest.fixture
def listed(tmp_path):
    def read_list(entries, reasons='same = "It does the same."\n'):
        path = tmp_path / "survivors.toml"
        path.write_text(f"[reasons]\n{reasons}{entries}")
        return survivor_list.read(path)

    return read_list


def entry(status):
    return {"key": list(KEY), "status": status, "by": "test_a"}


def complaints(listed, *statuses, mutants=frozenset({KEY})):
    return list(survivor_list.complaints([entry(status) for status in statuses], listed, mutants))


@pytest.mark.parametrize("statuses", [[SURVIVED], [UNREACHED], [], [CAUGHT, SURVIVED]])
def test_a_list_that_fits_is_silent(listed, statuses):
    assert complaints(listed(ENTRY.format("same")), *statuses) == []


@pytest.mark.parametrize("status", [CAUGHT, UNVIABLE])
def test_what_does_not_survive_needs_no_entry(listed, status):
    assert complaints(listed("", reasons=""), status) == []


@pytest.mark.parametrize(
    ("reason", "statuses", "mutants", "part"),
    [
        (None, [SURVIVED], {KEY}, "survived, and no reason"),
        (None, [CAUGHT, UNREACHED], {KEY}, "unreached, and no reason"),
        ("same", [CAUGHT], {KEY}, "as a survivor, but test_a catches it"),
        ("same", [], set(), "there is no such mutant"),
        ("whim", [SURVIVED], {KEY}, "unknown reason 'whim'"),
        (None, [], set(), "no mutant is listed with the reason 'same'"),
    ],
)
def test_every_difference_is_told(listed, reason, statuses, mutants, part):
    read = listed(ENTRY.format(reason) if reason else "")
    told = complaints(read, *statuses, mutants=mutants)
    assert any(part in text for text in told), told


def test_those_that_do_the_same_are_told_from_those_that_nobody_tests(listed):
    reasons = 'same = "It does the same."\nspeed = "Slower."\nlooks = "Only how it looks."\n'
    assert listed(ENTRY.format("same"), reasons).is_same(list(KEY))
    assert listed(ENTRY.format("speed"), reasons).is_same(list(KEY))
    assert not listed(ENTRY.format("looks"), reasons).is_same(list(KEY))
    assert not listed("", reasons).is_same(list(KEY))


def test_reasons_are_counted(listed):
    counts = listed(ENTRY.format("same")).by_reason([KEY, KEY, ("b.cpp", "", "")])
    assert counts == {"same": 2, None: 1}


def test_the_list_itself_can_be_read():
    read = survivor_list.read()
    assert set(read.reason_of.values()) == set(read.reasons)
