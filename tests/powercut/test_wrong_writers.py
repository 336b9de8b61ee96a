"""Writers that a power cut harms are found out: a test of what tests the others."""

import pytest

from powercut.exploring import explore
from powercut.recording import record
from powercut.subjects import is_acknowledged_or_in_flight, recover_directory, recover_sqlite

pytestmark = pytest.mark.plain_python


def faults_of(preloaded, work, writer, recover, allowed=is_acknowledged_or_in_flight):
    recording = record(preloaded, work, writer)
    return explore(recording, work, recover, allowed, points=20, images=2).faults


def test_a_file_renamed_before_it_is_flushed_is_seen_damaged(preloaded, work):
    writer = "directory_store_without_flushed_files"
    faults = faults_of(preloaded, work, writer, recover_directory)
    assert any("is damaged" in fault for fault in faults)


def test_a_name_that_is_not_flushed_is_seen_missing(preloaded, work):
    writer = "directory_store_without_flushed_folders"
    faults = faults_of(preloaded, work, writer, recover_directory)
    assert any(fault.endswith(": (0, 0)") for fault in faults)


def test_a_database_that_is_never_flushed_is_seen_to_lose_writes(preloaded, work):
    assert faults_of(preloaded, work, "sqlite_store_without_flushes", recover_sqlite)


def test_a_commit_that_is_not_flushed_is_seen_to_lose_writes(preloaded, work):
    faults = faults_of(preloaded, work, "sqlite_store_without_flushed_commits", recover_sqlite)
    assert any(fault.endswith("said 1: (0, 0)") for fault in faults)


def test_a_file_overwritten_in_place_is_seen_torn(preloaded, work):
    def recover(folder):
        return (folder / "file").read_bytes() if (folder / "file").exists() else b""

    def allowed(said, outcome):
        return outcome in [bytes([number]) * 2000 for number in (said, said + 1)] or said == 0

    assert faults_of(preloaded, work, "file_in_place", recover, allowed)
