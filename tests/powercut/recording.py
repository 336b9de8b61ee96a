"""Running a writer with every change that it makes to a folder noted."""

import os
import subprocess
import sys
from dataclasses import dataclass
from pathlib import Path
from shutil import which

import quorvane
from powercut.calls import Call, read_calls
from powercut.disk import Disk

_TESTS = Path(__file__).parents[1]
_SOURCE = Path(__file__).with_name("calls.c")


@dataclass
class Recording:
    """What a writer did to a disk that held `before`."""

    before: dict[str, bytes | None]
    calls: list[Call]

    def disk(self):
        """The disk as the writer found it."""
        return Disk(self.before)

    def require_whole(self, folder):
        """Raise AssertionError if the calls do not lead to what the folder holds now."""
        disk = Disk.after(self.calls, self.before)
        played, real = disk.image(disk.pending), image_of(folder)
        wrong = {path for path, _ in played.items() ^ real.items()}
        assert not wrong, f"some call was not noted: {sorted(wrong)}"


def build_preloaded(folder):
    """Compile what is preloaded into writers, with a compiler that can build the package."""
    compilers = [os.environ.get("CXX"), "c++", "g++", "clang++"]
    compiler = next(filter(None, map(which, filter(None, compilers))))
    library = folder / "calls.so"
    # A sanitizer that watches the tests must not look for leaks in the compiler.
    environment = {name: value for name, value in os.environ.items() if name != "LD_PRELOAD"}
    subprocess.run(
        [compiler, "-x", "c", "-shared", "-fPIC", "-o", library, _SOURCE],
        env=environment,
        check=True,
    )
    return library


def record(preloaded, work, writer, *arguments, before=None):
    """Run a function of `powercut.writers` on a disk and return what it did.

    Its arguments are the disk's folder, a function that says a text, and the given ones.
    """
    disk, notes, log = (Path(os.path.realpath(work)) / name for name in ("disk", "notes", "log"))
    lay_out(before or {}, disk)
    places = [str(Path(quorvane.__file__).absolute().parents[1]), str(_TESTS)]
    # A sanitizer that is preloaded already must stay the first.
    others = [os.environ["LD_PRELOAD"]] if "LD_PRELOAD" in os.environ else []
    done = subprocess.run(
        [sys.executable, "-m", "powercut.writers", writer, disk, notes, *map(str, arguments)],
        env={
            **os.environ,
            "PYTHONPATH": os.pathsep.join(places),
            "OPENBLAS_NUM_THREADS": "1",
            "LD_PRELOAD": ":".join([*others, str(preloaded)]),
            "POWERCUT_FOLDER": str(disk.parent),
            "POWERCUT_LOG": str(log),
        },
        capture_output=True,
        text=True,
        timeout=120,
    )
    assert done.returncode == 0, done.stderr[-3000:]
    recording = Recording(before or {}, read_calls(log, disk, notes))
    recording.require_whole(disk)
    return recording


def lay_out(image, folder):
    """Make a folder that holds an image."""
    folder.mkdir(parents=True)
    for path, content in sorted(image.items()):
        if content is None:
            (folder / path).mkdir()
        else:
            (folder / path).write_bytes(content)


def image_of(folder):
    """The image of what a folder holds."""
    return {
        str(path.relative_to(folder)): None if path.is_dir() else path.read_bytes()
        for path in folder.rglob("*")
    }
