"""Virtual structures over day-by-instrument data, and the rotations that transform them.

``import quorvane as qv``: baskets of named instruments in, a signal for each instrument out.

    signal = qv.Baskets({"KO/PEP": {"KO": 1, "PEP": -1}}, "ewma(20);zscore").run(returns)

`Baskets` is what to begin with, over tables of pandas, polars, pyarrow or NumPy; `run` takes a
rotation of one's own over them; a store such as `SqliteStore` keeps a state between days. The rest
are the parts that they are built of. Everything is imported when it is first used.
"""

from __future__ import annotations

from importlib import import_module
from typing import TYPE_CHECKING, Any

__version__ = "0.1.0"

if TYPE_CHECKING:
    from quorvane.baskets import Baskets, SlotUsage, StateMismatch
    from quorvane.evaluation import Evaluation, evaluate
    from quorvane.expressions import catalogue, register
    from quorvane.functions.rotations.own_state import OwnState
    from quorvane.functions.rotations.virtualization.base import (
        VirtualizationBase,
        VirtualStructure,
    )
    from quorvane.functions.rotations.virtualization.baskets import FixedBaskets
    from quorvane.functions.rotations.virtualization.columns import StructureColumns
    from quorvane.functions.rotations.virtualization.history import replay_history
    from quorvane.functions.rotations.virtualization.planned_baskets import PlannedBaskets
    from quorvane.running import run
    from quorvane.stores import DirectoryStore, MemoryStore, PostgresStore, SqliteStore
    from quorvane.sweeping import sweep

__all__ = [
    "Baskets",
    "DirectoryStore",
    "Evaluation",
    "FixedBaskets",
    "MemoryStore",
    "OwnState",
    "PlannedBaskets",
    "PostgresStore",
    "SlotUsage",
    "SqliteStore",
    "StateMismatch",
    "StructureColumns",
    "VirtualStructure",
    "VirtualizationBase",
    "__version__",
    "catalogue",
    "evaluate",
    "register",
    "replay_history",
    "run",
    "sweep",
]

_ROTATIONS = "quorvane.functions.rotations.virtualization"
_MODULE_OF = {
    "Baskets": "quorvane.baskets",
    "DirectoryStore": "quorvane.stores",
    "Evaluation": "quorvane.evaluation",
    "FixedBaskets": f"{_ROTATIONS}.baskets",
    "MemoryStore": "quorvane.stores",
    "OwnState": "quorvane.functions.rotations.own_state",
    "PlannedBaskets": f"{_ROTATIONS}.planned_baskets",
    "PostgresStore": "quorvane.stores",
    "SlotUsage": "quorvane.baskets",
    "SqliteStore": "quorvane.stores",
    "StateMismatch": "quorvane.baskets",
    "StructureColumns": f"{_ROTATIONS}.columns",
    "VirtualStructure": f"{_ROTATIONS}.base",
    "VirtualizationBase": f"{_ROTATIONS}.base",
    "catalogue": "quorvane.expressions",
    "evaluate": "quorvane.evaluation",
    "register": "quorvane.expressions",
    "replay_history": f"{_ROTATIONS}.history",
    "run": "quorvane.running",
    "sweep": "quorvane.sweeping",
}


def __getattr__(name: str) -> Any:
    """Import a public name from its module when it is first asked for."""
    if name not in _MODULE_OF:
        raise AttributeError(f"module {__name__!r} has no attribute {name!r}")
    value = getattr(import_module(_MODULE_OF[name]), name)
    globals()[name] = value
    return value


def __dir__() -> list[str]:
    """List the public names, imported or not, and no others."""
    return sorted(__all__)
