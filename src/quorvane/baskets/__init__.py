"""Baskets over labelled tables: the layer that people use."""

from quorvane.baskets.front import Baskets
from quorvane.baskets.saved import StateMismatch
from quorvane.baskets.slots import SlotUsage

__all__ = ["Baskets", "SlotUsage", "StateMismatch"]
