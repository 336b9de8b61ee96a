"""A copy of the checkout, in which a source can be changed without anybody else seeing it."""

import os
import shutil
import subprocess
from contextlib import contextmanager
from pathlib import Path

# What a copy makes for itself, and what its tests leave behind.
OWN = ("build", ".hypothesis")

# Python takes a source whose time and size are those in the bytecode for the source that it
# compiled. So each changed source has a time of its own, long before those of real ones.
FIRST_TIME = 100_000_000


class Checkout:
    """The files of `root` that are not ignored, with their times, in `folder`."""

    def __init__(self, root, folder):
        self.root = Path(root).resolve()
        self.folder = Path(folder).resolve()
        self._changes = 0
        self._marker = self.folder / "build" / "changed-source"

    def update(self):
        """Bring the copy up to date: files that are the same keep their time, so builds do too."""
        wanted = set(tracked(self.root))
        for path in wanted:
            source, copy = self.root / path, self.folder / path
            if copy.is_file() and stamp(copy) == stamp(source):
                continue
            copy.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy2(source, copy)
        for path in files_below(self.folder, OWN):
            if path not in wanted and "__pycache__" not in path.parts:
                (self.folder / path).unlink()
        if self._marker.exists():
            # What was built last is of the changed source, which nobody has put back in time.
            (self.folder / self._marker.read_text()).touch()
            self._marker.unlink()
        self.forget_examples()

    @contextmanager
    def changed(self, path, text):
        """Have `text` (bytes) in a source while the block runs."""
        source = self.folder / path
        self._marker.parent.mkdir(exist_ok=True)
        self._marker.write_text(str(path))
        before, times = source.read_bytes(), source.stat()
        try:
            source.write_bytes(text)
            if source.suffix == ".py":
                self._changes += 1
                os.utime(source, (FIRST_TIME + self._changes,) * 2)
            yield
        finally:
            source.write_bytes(before)
            os.utime(source, ns=(times.st_atime_ns, times.st_mtime_ns))
            self.forget_examples()
            self._marker.unlink()

    def forget_examples(self):
        """Drop the examples that tests found: they belong to the change that is gone."""
        shutil.rmtree(self.folder / ".hypothesis", ignore_errors=True)


class Snapshot:
    """A build folder as it was, to the modification times by which the build tool goes."""

    def __init__(self, folder, store):
        self.folder = Path(folder)
        self.store = Path(store)
        shutil.rmtree(self.store, ignore_errors=True)
        shutil.copytree(self.folder, self.store, symlinks=True)
        self._stamps = self._now()

    def restore(self):
        """Bring back what has changed since, and drop what is new."""
        now = self._now()
        for path in now.keys() - self._stamps.keys():
            (self.folder / path).unlink()
        for path, was in self._stamps.items():
            if now.get(path) != was:
                (self.folder / path).unlink(missing_ok=True)
                shutil.copy2(self.store / path, self.folder / path, follow_symlinks=False)

    def _now(self):
        # Links go to sources, which have a life of their own; bytecode knows which it is of.
        return {
            path: stamp(self.folder / path)
            for path in files_below(self.folder)
            if "__pycache__" not in path.parts and not (self.folder / path).is_symlink()
        }


def stamp(path):
    """By what a file is taken for unchanged."""
    status = os.lstat(path)
    return status.st_size, status.st_mtime_ns


def files_below(folder, without=()):
    """The paths of all files below a folder, relative to it, but for some of its own folders."""
    for parent, folders, names in os.walk(folder):
        place = Path(parent).relative_to(folder)
        if place == Path():
            folders[:] = [name for name in folders if name not in without]
        yield from (place / name for name in names)


def tracked(root):
    """The paths of all files that are tracked, or new and not ignored, and are there."""
    command = ["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"]
    listed = subprocess.run(command, cwd=root, capture_output=True, check=True).stdout
    paths = (Path(os.fsdecode(path)) for path in listed.split(b"\0") if path)
    return [path for path in paths if (root / path).is_file()]
