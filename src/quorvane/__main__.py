"""``python -m quorvane`` is the command ``quorvane``."""

from quorvane.cli import program

if __name__ == "__main__":
    raise SystemExit(program())
