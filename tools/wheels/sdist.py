"""Compare an sdist with what git tracks: every file in it, to the byte, but for those named here.

python tools/wheels/sdist.py SDIST             in the checkout that it was built from
python tools/wheels/sdist.py --list            without one: what would have to be in it
"""

import argparse
import subprocess
import sys
import tarfile
from collections.abc import Iterator
from pathlib import Path

ROOT = Path(__file__).parents[2]

# What is tracked and stays out, and why. pyproject.toml has the same folders.
LEFT_OUT = {
    ".ci": "what continuous integration runs: it installs packages of the system",
    ".github": "the pipeline, which begins with a checkout and a tag",
}
# What is in an sdist and not tracked, and why.
ADDED = {"PKG-INFO": "the metadata, as the standard of sdists wants it"}


def tracked(root: Path) -> set[str]:
    """What git tracks, without what is left out on purpose."""
    listed = subprocess.run(
        ["git", "ls-files", "-z"], cwd=root, check=True, capture_output=True, text=True
    ).stdout.split("\0")
    return {name for name in listed if name and name.partition("/")[0] not in LEFT_OUT}


def contents(sdist: Path) -> dict[str, tuple[bytes, bool]]:
    """What each file of an sdist holds, and whether it is a program."""
    files = {}
    with tarfile.open(sdist) as archive:
        for member in archive:
            read = archive.extractfile(member)
            name = member.name.partition("/")[2]
            files[name] = (read.read() if read else b"", bool(member.mode & 0o100))
    return files


def faults(sdist: Path, root: Path) -> Iterator[str]:
    """All in which an sdist is not what git tracks."""
    expected, found = tracked(root), contents(sdist)
    yield from (f"{name} is tracked and not in it" for name in sorted(expected - found.keys()))
    yield from (
        f"{name} is in it and not tracked"
        for name in sorted(found.keys() - expected - ADDED.keys())
    )
    yield from (f"{name} is not in it" for name in sorted(ADDED.keys() - found.keys()))
    for name in sorted(expected & found.keys()):
        content, program = found[name]
        if content != (root / name).read_bytes():
            yield f"{name} is not what the checkout has"
        if program != bool((root / name).stat().st_mode & 0o100):
            yield f"{name} has lost or got the right to be run"


def main() -> int:
    """Print how the two differ; the status is 1 where they do."""
    parser = argparse.ArgumentParser()
    parser.add_argument("sdist", type=Path, nargs="?")
    parser.add_argument("--list", action="store_true")
    options = parser.parse_args()
    if options.list:
        print(*sorted(tracked(ROOT) | ADDED.keys()), sep="\n")
        return 0
    found = list(faults(options.sdist, ROOT))
    print(
        *(f"{options.sdist.name}: {fault}" for fault in found), sep="\n", end="\n" if found else ""
    )
    if not found:
        for name, why in LEFT_OUT.items():
            print(f"left out: {name}, {why}")
        print(
            f"{len(contents(options.sdist))} files, all that git tracks but for these, to the byte"
        )
    return int(bool(found))


if __name__ == "__main__":
    sys.exit(main())
