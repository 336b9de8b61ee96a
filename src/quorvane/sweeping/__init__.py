"""Many configurations of baskets over one table: on the cores of a machine, or on many machines."""

from quorvane.sweeping.front import sweep

__all__ = ["sweep"]
