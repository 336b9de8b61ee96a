"""Compare two wheels file by file, by hash.

python tools/wheels/same.py WHEEL OTHER_WHEEL
"""

import hashlib
import sys
import zipfile
from pathlib import Path

# A list of the other files' hashes, so it differs where they do and says nothing of its own.
LISTS = ("RECORD",)


def hashes(path: Path) -> dict[str, str]:
    """The hash of each file in a wheel."""
    with zipfile.ZipFile(path) as wheel:
        return {
            name: hashlib.sha256(wheel.read(name)).hexdigest()
            for name in wheel.namelist()
            if not name.endswith(("/", *LISTS))
        }


def main() -> int:
    """Print what differs; the status is 1 where anything does."""
    one, other = (hashes(Path(name)) for name in sys.argv[1:])
    differing = sorted(
        name for name in one.keys() | other.keys() if one.get(name) != other.get(name)
    )
    print(*(f"differs: {name}" for name in differing), sep="\n", end="\n" if differing else "")
    print(f"{len(one.keys() | other.keys()) - len(differing)} files of {len(one)} are the same")
    return int(bool(differing))


if __name__ == "__main__":
    sys.exit(main())
