"""``python -m quorvane`` is the command ``quorvane``."""

from quorvane.cli import main

if __name__ == "__main__":
    raise SystemExit(main())
