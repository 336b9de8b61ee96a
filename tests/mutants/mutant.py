"""One change of a source, and how it is named."""

import hashlib
from dataclasses import dataclass, field
from functools import cached_property
from pathlib import Path


def language_of(path):
    return "python" if path.endswith(".py") else "cpp"


@dataclass(frozen=True)
class Source:
    """A file of the checkout: its path relative to the root, and its bytes."""

    path: str
    text: bytes

    @classmethod
    def read(cls, root, path):
        return cls(Path(path).as_posix(), (Path(root) / path).read_bytes())

    @cached_property
    def digest(self):
        """What changes when the text does."""
        return hashlib.sha256(self.text).hexdigest()

    @property
    def language(self):
        return language_of(self.path)


@dataclass(frozen=True)
class Mutant:
    """`after` instead of the bytes `start` to `end` of a source.

    `ranges` are the first and last lines of what holds the place, from the place itself outwards to
    its function: the innermost with a line that runs says which tests reach the mutant.
    """

    source: Source = field(repr=False)
    start: int
    end: int
    after: bytes
    operator: str
    ranges: tuple = field(repr=False, compare=False)

    @property
    def file(self):
        return self.source.path

    @property
    def line(self):
        """The number of the line in which the place begins."""
        return self.source.text.count(b"\n", 0, self.start) + 1

    @cached_property
    def text(self):
        """The whole source with the change in it."""
        before = self.source.text
        return before[: self.start] + self.after + before[self.end :]

    @cached_property
    def was(self):
        """The line in which the place begins, without what surrounds it."""
        return self._line(self.source.text)

    @cached_property
    def now(self):
        """What becomes of the line, or of the lines where there are more than one."""
        if b"\n" in self.source.text[self.start : self.end]:
            return f"{self.operator} over several lines"
        return self._line(self.text) or f"{self.operator}, and nothing is left"

    @property
    def key(self):
        """What a mutant is called in lists: edits of other lines do not change it."""
        return self.file, self.was, self.now

    def __str__(self):
        return f"{self.file}:{self.line}: {self.operator}\n    - {self.was}\n    + {self.now}"

    def _line(self, text):
        first = text.rfind(b"\n", 0, self.start) + 1
        last = text.find(b"\n", self.start)
        return text[first : last if last >= 0 else len(text)].decode().strip()
