"""Which changes are taken to have come to the disk."""

import os
from random import Random

import pytest

from powercut.calls import Call, Kind
from powercut.disk import SECTOR, Disk
from powercut.images import choices

pytestmark = pytest.mark.plain_python


@pytest.fixture
def disk():
    """A disk with three writes of two sectors, and a name, pending."""
    disk = Disk({"file": b""})
    disk.play(Call(Kind.OPEN, 3, os.O_RDWR, "file", b""))
    for place in range(3):
        data = bytes([place + 1]) * 2 * SECTOR
        disk.play(Call(Kind.WRITE, 3, place * 2 * SECTOR, "", data))
    disk.play(Call(Kind.MKDIR, -1, 0, "folder", b""))
    return disk


def shown(disk, changes):
    """One character for each sector of the file that is on the disk, and F for the folder."""
    image = disk.image(changes)
    sectors = "".join(str(number) for number in image["file"][::SECTOR])
    return sectors + ("F" if "folder" in image else "")


def tried(disk, most=100, seed=1):
    return [shown(disk, changes) for changes in choices(disk.pending, Random(seed), most)]


def test_nothing_and_everything_come_first(disk):
    assert tried(disk)[:2] == ["", "112233F"]


def test_every_change_is_missing_once_and_there_alone_once(disk):
    missing = {"002233F", "110033F", "1122F", "112233"}
    alone = {"11", "0022", "000033", "F"}
    assert missing | alone <= set(tried(disk))


def test_writes_are_torn_between_sectors_with_and_without_those_after_them(disk):
    found = {outcome for seed in range(20) for outcome in tried(disk, seed=seed)}
    assert {"012233F", "102233F", "112033F", "110233F", "112", "1102"} <= found


def test_a_file_may_be_longer_without_the_bytes(disk):
    assert "112200F" in tried(disk)


def test_sectors_are_chosen_at_random(disk):
    found = {outcome for seed in range(20) for outcome in tried(disk, seed=seed)}
    assert len(found) > 60


def test_a_sample_has_nothing_everything_and_some(disk):
    sample = tried(disk, most=2)
    assert sample[:2] == ["", "112233F"]
    assert len(sample) == 6


def test_nothing_pending_leaves_one_image(disk):
    assert list(choices([], Random(1), 5)) == [[]]
