"""What a power cut may leave: only what was flushed is sure to be there."""

import os

import pytest

from powercut.calls import Call, Kind
from powercut.disk import SECTOR, Disk, Write

pytestmark = pytest.mark.plain_python


class Player:
    """Plays calls on a disk, one method for each."""

    def __init__(self, image=None):
        self.disk = Disk(image)
        self._opened = 10

    def open(self, path, flags=os.O_CREAT):
        self._opened += 1
        self._play(Kind.OPEN, path=path, descriptor=self._opened, number=flags)
        return self._opened

    def write(self, descriptor, place, data):
        self._play(Kind.WRITE, descriptor=descriptor, number=place, data=data)

    def truncate(self, descriptor, size):
        self._play(Kind.TRUNCATE, descriptor=descriptor, number=size)

    def flush(self, path):
        self._play(Kind.SYNC, descriptor=self.open(path, os.O_RDONLY))

    def rename(self, path, target):
        self._play(Kind.RENAME, path=path, data=target.encode())

    def unlink(self, path):
        self._play(Kind.UNLINK, path=path)

    def mkdir(self, path):
        self._play(Kind.MKDIR, path=path)

    def rmdir(self, path):
        self._play(Kind.RMDIR, path=path)

    def make(self, path, data):
        """Make a file that is on the disk, but perhaps for its name."""
        self.write(self.open(path), 0, data)
        self.flush(path)

    def _play(self, kind, *, descriptor=-1, number=0, path="", data=b""):
        self.disk.play(Call(kind, descriptor, number, path, data))

    @property
    def sure(self):
        """What is on the disk when nothing that is pending came to it."""
        return self.disk.image([])

    @property
    def full(self):
        """What is on the disk when everything came to it."""
        return self.disk.image(self.disk.pending)


@pytest.fixture
def player():
    """A disk that holds one file."""
    return Player({"old": b"before"})


def test_a_disk_holds_the_image_it_was_made_of():
    image = {"a": None, "a/b": b"1", "c": b""}
    assert Player(image).sure == Player(image).full == image


def test_what_is_written_is_there_for_sure_once_the_file_is_flushed(player):
    player.write(player.open("old"), 2, b"XY")
    assert player.sure == {"old": b"before"}
    assert player.full == {"old": b"beXYre"}
    player.flush("old")
    assert player.sure == {"old": b"beXYre"}


def test_a_flushed_file_may_be_missing_until_its_folder_is_flushed(player):
    player.make("new", b"data")
    assert player.sure == {"old": b"before"}
    player.flush(".")
    assert player.sure == {"old": b"before", "new": b"data"}


def test_a_flushed_folder_says_nothing_of_what_its_files_hold(player):
    player.write(player.open("new"), 0, b"data")
    player.flush(".")
    assert player.sure["new"] == b""


def test_a_flush_is_of_one_file_alone(player):
    player.write(player.open("old"), 0, b"X")
    player.make("new", b"data")
    player.flush(".")
    assert player.sure == {"old": b"before", "new": b"data"}


def test_a_renamed_file_has_its_old_name_or_its_new_one(player):
    player.make("new", b"data")
    player.flush(".")
    player.rename("new", "old")
    assert player.sure == {"old": b"before", "new": b"data"}
    assert player.full == {"old": b"data"}


def test_of_a_move_between_folders_a_half_may_be_there():
    player = Player({"a": None, "a/file": b"1"})
    player.rename("a/file", "file")
    link, unlink = player.disk.pending
    assert player.disk.image([link]) == {"a": None, "a/file": b"1", "file": b"1"}
    assert player.disk.image([unlink]) == {"a": None}
    player.flush(".")
    assert player.sure == {"a": None, "a/file": b"1", "file": b"1"}


def test_a_removed_name_may_come_back_until_its_folder_is_flushed(player):
    player.unlink("old")
    assert (player.sure, player.full) == ({"old": b"before"}, {})
    player.make("old", b"another")
    player.flush(".")
    assert player.sure == {"old": b"another"}


def test_a_new_file_under_a_removed_name_is_another_file(player):
    player.unlink("old")
    player.make("old", b"another")
    _, link = player.disk.pending
    assert player.sure == {"old": b"before"}
    assert player.disk.image([link]) == {"old": b"another"}


def test_folders_come_and_go_as_names_do(player):
    player.mkdir("a")
    player.make("a/file", b"1")
    player.flush("a")
    assert player.sure == {"old": b"before"}
    player.flush(".")
    assert player.sure == {"old": b"before", "a": None, "a/file": b"1"}
    player.unlink("a/file")
    player.rmdir("a")
    assert player.full == {"old": b"before"}


@pytest.mark.parametrize(("size", "content"), [(2, b"be"), (8, b"before\0\0")])
def test_a_truncation_waits_for_a_flush(player, size, content):
    player.truncate(player.open("old"), size)
    assert (player.sure["old"], player.full["old"]) == (b"before", content)


def test_opening_may_truncate(player):
    player.open("old", os.O_TRUNC)
    assert (player.sure["old"], player.full["old"]) == (b"before", b"")


def test_changes_may_come_in_another_order(player):
    descriptor = player.open("old")
    player.write(descriptor, 0, b"first")
    player.write(descriptor, 0, b"again")
    first, again = player.disk.pending
    assert player.disk.image([again, first])["old"] == b"firste"


def test_what_lies_before_a_write_that_came_alone_is_zeros(player):
    player.write(player.open("new"), 3, b"data")
    player.flush(".")
    assert player.full["new"] == b"\0\0\0data"


def test_what_no_name_leads_to_any_more_is_forgotten(player):
    player.write(player.open("old"), 0, b"X")
    player.unlink("old")
    assert len(player.disk.pending) == 2
    player.flush(".")
    assert player.disk.pending == []


def test_a_call_tells_whether_a_power_cut_may_leave_something_else_now(player):
    opened = Call(Kind.OPEN, 3, os.O_RDONLY, "old", b"")
    assert not player.disk.play(opened)
    assert player.disk.play(Call(Kind.WRITE, 3, 0, "", b"x"))
    assert player.disk.play(Call(Kind.SYNC, 3, 0, "", b""))
    assert not player.disk.play(Call(Kind.SYNC, 3, 0, "", b""))
    assert not player.disk.play(Call(Kind.SAY, 4, 0, "", b"done"))


def test_a_write_is_cut_between_sectors_of_the_disk():
    sectors = Write(None, SECTOR - 2, bytes(range(8)) * 65).sectors()
    assert [(part.place, len(part.data)) for part in sectors] == [(510, 2), (512, 512), (1024, 6)]
    assert b"".join(part.data for part in sectors) == bytes(range(8)) * 65
