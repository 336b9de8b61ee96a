"""The configurations of a sweep, from a TOML file."""

from __future__ import annotations

import tomllib
from pathlib import Path
from typing import Any

from quorvane.cli.errors import DataError, reason, shown
from quorvane.cli.files import check_readable
from quorvane.cli.hold import hold_of

GRID_ENDINGS = (".toml",)

COLUMNS = "columns"
"""What stands for ``weights=None``, for which TOML has no word."""

_EVALUATE = "evaluate"
_MOST_BYTES = 1 << 26


def read_grid(path: Path) -> tuple[dict[str, Any], dict[str, Any] | None]:
    """Lists by argument, and the arguments of the evaluation, None where the file has none.

    What the arguments are is checked by the sweep; raises DataError for what is no grid at all.
    """
    grid = _parsed(path, "a grid")
    score = grid.pop(_EVALUATE, None)
    if score is not None and not isinstance(score, dict):
        raise DataError(f"{path}: [{_EVALUATE}] must be a table, got {shown(score)}")
    hold = grid.get("hold")
    if isinstance(hold, list):
        grid["hold"] = [hold_of(days) for days in hold]
    elif isinstance(hold, dict):
        grid["hold"] = {label: hold_of(days) for label, days in hold.items()}
    if "weights" in grid:
        grid["weights"] = _weights(path, grid["weights"])
    return grid, score


def _weights(path: Path, weights: Any) -> dict[str, Any]:
    if not isinstance(weights, dict):
        raise DataError(f"{path}: [weights] must be a table of labels, got {shown(weights)}")
    found: dict[str, Any] = {}
    for label, given in weights.items():
        if given == COLUMNS:
            found[label] = None
        elif isinstance(given, str):
            found[label] = _structures(path, label, given)
        else:
            found[label] = given
    return found


def _structures(path: Path, label: str, name: str) -> dict[str, Any]:
    if not name.lower().endswith(GRID_ENDINGS):
        raise DataError(
            f'{path}: weights: {shown(label)} must be "{COLUMNS}", a .toml file of structures, or '
            f"a table of them, got {shown(name)}"
        )
    return _parsed(path.parent / name, "structures")


def _parsed(path: Path, what: str) -> dict[str, Any]:
    check_readable(path, what)
    with path.open("rb") as stream:
        data = stream.read(_MOST_BYTES + 1)
    if len(data) > _MOST_BYTES:
        raise DataError(f"{path}: the file is larger than {_MOST_BYTES} bytes")
    try:
        return tomllib.loads(data.decode("utf-8-sig"))
    except (ValueError, RecursionError) as error:
        raise DataError(f"{path}: not readable as TOML: {reason(error)}") from error
