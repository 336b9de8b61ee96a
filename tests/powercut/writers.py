"""What is recorded: programs that write to a disk and say what they were told is there.

`python -m powercut.writers FUNCTION DISK NOTES [ARGUMENT...]` runs one of the functions.
"""

import contextlib
import mmap
import os
import sqlite3
import sys
from pathlib import Path

import numpy as np

KEEP = 3
# States have one array each: on a page of SQLite's, on some, and on more pages (1000) than its log
# holds before all is moved into the file.
SIZES = [10, 10, 3000, 10, 600, 20_000, 10, 10, 1200, 10]
LARGE_SIZES = [10, 560_000, 10]
FEW_SIZES = [10, 1200]


def state(number, size):
    """Return a state that belongs to `number` alone."""
    numbers = np.random.default_rng(number).random(size)
    return {"number": number, "numbers": numbers}


def name_of(number):
    """Two names take turns, unevenly."""
    return "other" if number % 3 == 0 else "rotation"


def directory_store(disk, say, sizes="SIZES", first=1):
    """Write states into a folder two folders deep, which is not there yet when `first` is 1."""
    from quorvane.stores import DirectoryStore

    _write_all(lambda: DirectoryStore(disk / "deep" / "records"), say, sizes, int(first))


def sqlite_store(disk, say, sizes="SIZES", first=1):
    """Write states into a file, which is not there yet when `first` is 1."""
    from quorvane.stores import SqliteStore

    _write_all(lambda: SqliteStore(disk / "states.db", keep=KEEP), say, sizes, int(first))


def sqlite_store_beside_a_reader(disk, say, sizes="SIZES"):
    """As `sqlite_store`, with the file open elsewhere: SQLite then keeps its log and reuses it."""
    from quorvane.stores import SqliteStore

    SqliteStore(disk / "states.db")
    with contextlib.closing(sqlite3.connect(disk / "states.db")) as reader:
        reader.execute("SELECT count(*) FROM records").fetchone()
        sqlite_store(disk, say, sizes)


def directory_store_without_flushed_files(disk, say):
    """As `directory_store`, with files renamed before they are flushed."""
    _flush_only(os.path.isdir)
    directory_store(disk, say)


def directory_store_without_flushed_folders(disk, say):
    """As `directory_store`, with folders never flushed."""
    _flush_only(os.path.isfile)
    directory_store(disk, say)


def sqlite_store_without_flushes(disk, say):
    """As `sqlite_store`, with SQLite's synchronous=OFF."""
    _set_synchronous("OFF")
    sqlite_store(disk, say)


def sqlite_store_without_flushed_commits(disk, say):
    """As `sqlite_store_beside_a_reader`, with SQLite's synchronous=NORMAL."""
    _set_synchronous("NORMAL")
    sqlite_store_beside_a_reader(disk, say)


def replay(disk, say, table, structures, *flags):
    """Replay a table with a checkpoint every other day, and say how many days are saved."""
    from quorvane.cli import main
    from quorvane.cli.checkpoint import Checkpoint

    save = Checkpoint.save

    def save_and_say(self, day):
        save(self, day)
        if day:
            say(day)

    Checkpoint.save = save_and_say
    assert main([*replay_arguments(disk, table, structures), *flags]) == 0
    say("outputs")


def replay_with_unflushed_outputs(disk, say, table, structures):
    """As `replay`, with outputs renamed before they are flushed."""
    from quorvane.cli import files

    files._flush = lambda path: None
    replay(disk, say, table, structures)


def replay_arguments(disk, table, structures):
    """The command's arguments, with all that it writes on the disk."""
    options = {
        "structures": structures,
        "expression": "ewma(3);rank",
        "checkpoint": disk / "checkpoint.db",
        "checkpoint-every": 2,
        "output": disk / "output.csv",
        "trace": disk / "trace.npz",
    }
    named = [str(text) for name, value in options.items() for text in (f"--{name}", value)]
    return ["replay", str(table), *named]


def file_in_place(disk, say):
    """Overwrite a file again and again, and flush it each time."""
    for number in range(1, 4):
        with (disk / "file").open("wb") as file:
            file.write(bytes([number]) * 2000)
            file.flush()
            os.fsync(file.fileno())
        _flush_folder(disk)
        say(number)


def through_mapped_memory(disk, say):
    """Change a file where no call shows it."""
    (disk / "file").write_bytes(bytes(100))
    with (disk / "file").open("r+b") as file, mmap.mmap(file.fileno(), 100) as memory:
        memory[:5] = b"other"


def every_call(disk, say):
    """Change files and folders in all the ways there are."""
    (disk / "a" / "b").mkdir(parents=True)
    (disk / "a" / "b" / "one").write_bytes(bytes(3000))
    with (disk / "a" / "two").open("wb") as file:
        file.write(b"x" * 700)
        os.fsync(file.fileno())
        os.pwrite(file.fileno(), b"y" * 20, 900)
        file.truncate(910)
    with (disk / "a" / "two").open("ab") as file:
        file.write(b"at the end")
    (disk / "a" / "three").write_bytes(b"3")
    (disk / "a" / "three").write_bytes(b"")
    os.replace(disk / "a" / "b" / "one", disk / "moved")
    os.replace(disk / "a" / "two", disk / "a" / "renamed")
    (disk / "gone").mkdir()
    (disk / "gone" / "file").touch()
    _flush_folder(disk / "gone")
    os.unlink(disk / "gone" / "file")
    os.rmdir(disk / "gone")
    opened = os.open(disk / "a", os.O_RDONLY)
    os.mkdir("inside", dir_fd=opened)
    os.rename("three", "inside/four", src_dir_fd=opened, dst_dir_fd=opened)
    os.rmdir("b", dir_fd=opened)
    os.close(os.open("made", os.O_CREAT | os.O_WRONLY, dir_fd=opened))
    os.unlink("made", dir_fd=opened)
    os.close(opened)
    say("done")


def _write_all(open_store, say, sizes, first):
    """Write a state of each size, opening the store anew now and then."""
    store = open_store()
    for number, size in enumerate(globals()[sizes], start=first):
        if number % 4 == 0:
            store = open_store()
        store.write(name_of(number), state(number, size))
        say(number)


def _set_synchronous(mode):
    from quorvane.stores import _sqlite_file

    _sqlite_file._CONNECTION_SETTINGS = (f"PRAGMA synchronous = {mode}",)


def _flush_only(wanted):
    """Leave out the flushes of all descriptors but those of a kind."""
    flush = os.fsync
    os.fsync = lambda descriptor: wanted(f"/proc/self/fd/{descriptor}") and flush(descriptor)


def _flush_folder(folder):
    opened = os.open(folder, os.O_RDONLY)
    os.fsync(opened)
    os.close(opened)


def _main():
    function, disk, notes, *arguments = sys.argv[1:]
    opened = os.open(notes, os.O_WRONLY | os.O_CREAT | os.O_APPEND, 0o666)

    def say(what):
        os.write(opened, f"{what}\n".encode())

    globals()[function](Path(disk), say, *arguments)


if __name__ == "__main__":
    _main()
