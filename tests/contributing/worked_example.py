"""The worked example of CONTRIBUTING.md, as the edits that it says."""

import re
import shutil
from dataclasses import dataclass
from pathlib import Path

ROOT = Path(__file__).parents[2]
# All that the example builds with or adds to.
FOLDERS = ["cpp", "cmake", "src", "tests"]
FILES = ["CMakeLists.txt", "CMakePresets.json", "pyproject.toml"]

_EDIT = re.compile(
    r"^`(?P<path>[^`]+)`, "
    r"(?:a new file|below `(?P<anchor>[^`]+)`(?P<apart>, two blank lines apart)?):\n\n"
    r"```\w+\n(?P<text>.*?)^```$",
    re.M | re.S,
)


@dataclass(frozen=True)
class Edit:
    """A new file, or lines below one that is there."""

    path: str
    anchor: str | None
    text: str

    def apply(self, folder):
        """Make the edit in a copy of the repository, where nothing of it may be yet."""
        path = folder / self.path
        if self.anchor is None:
            assert not path.exists(), f"{self.path} is there already"
            path.parent.mkdir(exist_ok=True)
            path.write_text(self.text, encoding="utf-8")
            return
        lines = path.read_text(encoding="utf-8").splitlines(keepends=True)
        places = [i for i, line in enumerate(lines) if line.rstrip("\n") == self.anchor]
        assert len(places) == 1, f"{self.path} has {len(places)} lines {self.anchor!r}"
        lines.insert(places[0] + 1, self.text)
        path.write_text("".join(lines), encoding="utf-8")


def edits():
    """The edits of the page in order."""
    text = (ROOT / "CONTRIBUTING.md").read_text(encoding="utf-8")
    return [
        Edit(found["path"], found["anchor"], ("\n\n" if found["apart"] else "") + found["text"])
        for found in _EDIT.finditer(text)
    ]


def follow(folder):
    """Copy the repository's sources there and make all edits; the edits."""
    ignore = shutil.ignore_patterns("__pycache__")
    for name in FOLDERS:
        shutil.copytree(ROOT / name, folder / name, ignore=ignore)
    for name in FILES:
        shutil.copy(ROOT / name, folder / name)
    made = edits()
    for edit in made:
        edit.apply(folder)
    return made
