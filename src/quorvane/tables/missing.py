"""What counts as a missing value, whichever library marks it."""

from __future__ import annotations

from typing import Any

import numpy as np

# pandas' own marks are known by their names, so that pandas need not be there.
_MARKS = frozenset({"NoneType", "NAType", "NaTType"})


def is_missing(value: Any) -> bool:
    """Whether ``value`` is None, NaN, NaT or NA."""
    if type(value).__name__ in _MARKS:
        return True
    return isinstance(value, float | np.generic) and bool(value != value)
