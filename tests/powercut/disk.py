"""A disk that keeps for sure only what was flushed.

Files and folders have what is on the disk for sure, and every change since is pending until its own
file or folder is flushed: a flush of a file says nothing of its name, and one of a folder nothing
of what its files hold. After a power cut any of the pending changes may be there, in any order.
"""

import os
from dataclasses import dataclass, field, replace
from itertools import pairwise
from typing import Any

SECTOR = 512


@dataclass(eq=False)
class File:
    """A file, whatever its names."""

    flushed: bytes = b""


@dataclass(eq=False)
class Folder:
    """A folder; `names` is what the running system sees, `flushed` what the disk has for sure."""

    flushed: dict[str, Any] = field(default_factory=dict)
    names: dict[str, Any] = field(default_factory=dict)


@dataclass(frozen=True, eq=False)
class Write:
    """Bytes put into a file."""

    node: File
    place: int
    data: bytes

    def apply(self, content):
        """Make the change in a bytearray."""
        if len(content) < self.place:
            content.extend(bytes(self.place - len(content)))
        content[self.place : self.place + len(self.data)] = self.data

    def sectors(self):
        """The same as writes of a sector each: a sector is there as a whole or not at all."""
        end = self.place + len(self.data)
        cuts = [self.place, *range(self.place - self.place % SECTOR + SECTOR, end, SECTOR), end]
        return [self.part(first, last) for first, last in pairwise(cuts)]

    def part(self, first, last):
        """The same write, of the bytes from one place in the file to another."""
        data = self.data[first - self.place : last - self.place]
        return replace(self, place=first, data=data)


@dataclass(frozen=True, eq=False)
class Grow:
    """A file's new length without the bytes of the write that made it so."""

    node: File
    size: int

    def apply(self, content):
        """Make the change in a bytearray."""
        content.extend(bytes(max(self.size - len(content), 0)))


@dataclass(frozen=True, eq=False)
class Truncate:
    """A file cut, or filled up with zeros, to a size."""

    node: File
    size: int

    def apply(self, content):
        """Make the change in a bytearray."""
        del content[self.size :]
        content.extend(bytes(self.size - len(content)))


@dataclass(frozen=True, eq=False)
class Link:
    """A name for a file or folder."""

    node: Folder
    name: str
    target: Any

    def apply(self, names):
        """Make the change in a dict of names."""
        names[self.name] = self.target


@dataclass(frozen=True, eq=False)
class Unlink:
    """A name that is gone."""

    node: Folder
    name: str

    def apply(self, names):
        """Make the change in a dict of names."""
        names.pop(self.name, None)


@dataclass(frozen=True, eq=False)
class Rename:
    """A new name in the same folder: in one step, as every file system that we know has it."""

    node: Folder
    old: str
    name: str
    target: Any

    def apply(self, names):
        """Make the change in a dict of names."""
        names.pop(self.old, None)
        names[self.name] = self.target


class Disk:
    """What calls have made of an empty disk, or of one that held an image."""

    def __init__(self, image=None):
        self.pending = []
        self._root = Folder()
        self._opened = {}
        # Folders sort before what is in them.
        for path, content in sorted((image or {}).items()):
            parent, name = self._parent(path)
            node = Folder() if content is None else File(content)
            parent.flushed[name] = parent.names[name] = node

    @classmethod
    def after(cls, calls, image=None):
        """A disk on which all of the calls have been played."""
        disk = cls(image)
        for call in calls:
            disk.play(call)
        return disk

    def play(self, call):
        """Make the change of one call; tell whether what a power cut may leave is another now."""
        before = len(self.pending)
        getattr(self, f"_{call.kind.name.lower()}")(call)
        return len(self.pending) != before

    def image(self, changes):
        """What is on the disk when just these changes came to it, in this order.

        Returns
        -------
        dict of str to bytes or None
            What each file holds by its path, None for a folder.
        """
        of_node = {}
        for change in changes:
            of_node.setdefault(change.node, []).append(change)
        found = {}
        self._gather(self._root, "", of_node, found)
        return found

    def _gather(self, folder, prefix, of_node, found):
        names = dict(folder.flushed)
        for change in of_node.get(folder, ()):
            change.apply(names)
        for name, node in names.items():
            path = prefix + name
            if isinstance(node, Folder):
                found[path] = None
                self._gather(node, f"{path}/", of_node, found)
            else:
                found[path] = _changed(node.flushed, of_node.get(node, ()))

    def _open(self, call):
        node = self._find(call.path)
        if node is None:
            parent, name = self._parent(call.path)
            node = File()
            self._change_names(Link(parent, name, node))
        elif call.number & os.O_TRUNC:
            self.pending.append(Truncate(node, 0))
        self._opened[call.descriptor] = node

    def _close(self, call):
        del self._opened[call.descriptor]

    def _say(self, call):
        """What the writer says changes nothing."""

    def _write(self, call):
        self.pending.append(Write(self._opened[call.descriptor], call.number, call.data))

    def _truncate(self, call):
        self.pending.append(Truncate(self._opened[call.descriptor], call.number))

    def _sync(self, call):
        node = self._opened[call.descriptor]
        changes = [change for change in self.pending if change.node is node]
        self.pending = [change for change in self.pending if change.node is not node]
        if isinstance(node, File):
            node.flushed = _changed(node.flushed, changes)
        else:
            for change in changes:
                change.apply(node.flushed)
            self._forget_what_is_gone()

    def _forget_what_is_gone(self):
        """Drop the changes of what no power cut can bring back."""
        found = set()
        waiting = [self._root, *(change.target for change in self.pending if _is_naming(change))]
        while waiting:
            node = waiting.pop()
            if node not in found:
                found.add(node)
                if isinstance(node, Folder):
                    waiting += [*node.flushed.values(), *node.names.values()]
        self.pending = [change for change in self.pending if change.node in found]

    def _rename(self, call):
        node = self._find(call.path)
        (old_parent, old), (parent, name) = map(self._parent, (call.path, call.data.decode()))
        if parent is old_parent:
            self._change_names(Rename(parent, old, name, node))
        else:
            # Two folders are flushed each by itself, so for a while both or neither may have it.
            self._change_names(Link(parent, name, node))
            self._change_names(Unlink(old_parent, old))

    def _unlink(self, call):
        self._change_names(Unlink(*self._parent(call.path)))

    def _mkdir(self, call):
        self._change_names(Link(*self._parent(call.path), Folder()))

    def _rmdir(self, call):
        self._unlink(call)

    def _change_names(self, change):
        change.apply(change.node.names)
        self.pending.append(change)

    def _parent(self, path):
        """The folder of a path, and the name in it."""
        folder, name = os.path.split(path)
        return self._find(folder), name

    def _find(self, path):
        node = self._root
        for name in path.split("/"):
            if name not in ("", "."):
                node = node.names.get(name)
        return node


def _is_naming(change):
    return isinstance(change, (Link, Rename))


def _changed(content, changes):
    if not changes:
        return content
    changed = bytearray(content)
    for change in changes:
        change.apply(changed)
    return bytes(changed)
