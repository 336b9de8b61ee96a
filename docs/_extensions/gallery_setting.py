"""How the examples of the gallery are run, and in which order they are shown."""

from typing import Any

import matplotlib as mpl

from quorvane.expressions import registered

# From the first signal to what one meets later.
ORDER = (
    "plot_first_signal.py",
    "plot_ic_and_quantiles.py",
    "plot_turnover.py",
    "plot_sweep.py",
    "plot_groups.py",
    "plot_outliers.py",
    "plot_dated_baskets.py",
    "plot_slots.py",
    "plot_own_function.py",
)

_LOOK = {
    "figure.figsize": (8.0, 4.0),
    "figure.constrained_layout.use": True,
    "axes.spines.top": False,
    "axes.spines.right": False,
    "axes.titlelocation": "left",
    "axes.grid": True,
    "grid.alpha": 0.3,
    "legend.frameon": False,
    "lines.linewidth": 1.2,
}


def in_reading_order(file: str) -> int:
    """The place of an example; ValueError for one that has none."""
    return ORDER.index(file)


def as_at_the_start(_gallery: dict[str, Any], _file: str) -> None:
    """Give each example matplotlib's own settings with our look, and no functions of another."""
    mpl.rcdefaults()
    mpl.rcParams.update(_LOOK)
    registered.FUNCTIONS.clear()
