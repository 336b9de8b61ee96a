"""Virtual structures over day-by-instrument data, and the rotations that transform them."""

__version__ = "0.1.0"
