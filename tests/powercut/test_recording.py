"""What is recorded of a writer is all that it did."""

import pytest

from powercut.calls import Kind
from powercut.recording import image_of, record

pytestmark = pytest.mark.plain_python


def test_every_kind_of_call_is_noted(preloaded, work):
    recording = record(preloaded, work, "every_call")
    assert image_of(work / "disk") == {
        "a": None,
        "a/inside": None,
        "a/inside/four": b"",
        "a/renamed": b"x" * 700 + bytes(200) + b"y" * 10 + b"at the end",
        "moved": bytes(3000),
    }
    assert {call.kind for call in recording.calls} == set(Kind)


def test_what_a_writer_says_stands_among_its_calls(preloaded, work):
    calls = record(preloaded, work, "file_in_place").calls
    told = [call for call in calls if call.kind in (Kind.SAY, Kind.WRITE)]
    assert [call.data for call in told if call.kind is Kind.SAY] == [b"1\n", b"2\n", b"3\n"]
    assert [call.kind for call in told] == [Kind.WRITE, Kind.SAY] * 3


def test_a_change_that_no_call_shows_is_noticed(preloaded, work):
    with pytest.raises(AssertionError, match="some call was not noted: \\['file'\\]"):
        record(preloaded, work, "through_mapped_memory")


def test_a_writer_may_find_an_image(preloaded, work):
    before = {"file": b"before"}
    recording = record(preloaded, work, "file_in_place", before=before)
    assert recording.disk().image([]) == before
    assert image_of(work / "disk") == {"file": b"\3" * 2000}
