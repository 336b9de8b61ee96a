"""How the tests are laid out."""

from pathlib import Path

TESTS = Path(__file__).parent
MOST_LINES = 500
# The whole module in plain Python is one file, as the compiled one is one to import.
LONGER = {"support/twin.py"}


def test_no_file_is_too_long_to_be_read_at_once():
    lengths = {
        path.relative_to(TESTS).as_posix(): len(path.read_text("utf-8").splitlines())
        for path in TESTS.rglob("*.py")
    }
    assert {name for name, lines in lengths.items() if lines > MOST_LINES} == LONGER
