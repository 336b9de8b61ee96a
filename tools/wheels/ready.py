"""Check that a tag may become a release: with it the pipeline begins.

    python tools/wheels/ready.py v0.1.0

The tag is the version, CHANGELOG.md says since when there is that version, and no address in
pyproject.toml is of the domain .example any more.
"""

import re
import sys
import tomllib
from collections.abc import Iterator
from pathlib import Path
from typing import Any

ROOT = Path(__file__).parents[2]
VERSION_FILE = "src/quorvane/__init__.py"


def version(root: Path) -> str:
    """The version, from the one place that has it."""
    found = re.findall(r'^__version__ = "(.+)"$', (root / VERSION_FILE).read_text(), re.MULTILINE)
    if len(found) != 1:
        raise ValueError(f"{VERSION_FILE} has {len(found)} versions, not one")
    return str(found[0])


def dated_versions(changelog: str) -> dict[str, str]:
    """The versions that have a section, and what stands behind each: a date, once there is one."""
    return dict(re.findall(r"^## (\S+) \((.+)\)$", changelog, re.MULTILINE))


def addresses(project: dict[str, Any]) -> list[str]:
    """Every address that users of the package are shown."""
    people = [*project["authors"], *project.get("maintainers", [])]
    return [*project["urls"].values(), *(one["email"] for one in people if "email" in one)]


def faults(root: Path, tag: str) -> Iterator[str]:
    """All that keeps the tag from becoming a release."""
    current = version(root)
    if tag != f"v{current}":
        yield f"the tag is {tag!r}, and the version of {VERSION_FILE} would be tagged 'v{current}'"
    dated = dated_versions((root / "CHANGELOG.md").read_text(encoding="utf-8"))
    if current not in dated:
        yield f"CHANGELOG.md has no section '## {current} (date)'"
    elif not re.fullmatch(r"\d{4}-\d{2}-\d{2}", dated[current]):
        yield f"CHANGELOG.md has {dated[current]!r} where the date of {current} should be"
    with (root / "pyproject.toml").open("rb") as file:
        project = tomllib.load(file)["project"]
    for address in addresses(project):
        if re.search(r"\.example\b", address):
            yield f"pyproject.toml has {address!r}, which is no real address"


def main() -> int:
    """Print what is missing; the status is 1 where anything is."""
    [tag] = sys.argv[1:]
    found = list(faults(ROOT, tag))
    print(*(found or [f"{tag} may be released"]), sep="\n")
    return int(bool(found))


if __name__ == "__main__":
    sys.exit(main())
