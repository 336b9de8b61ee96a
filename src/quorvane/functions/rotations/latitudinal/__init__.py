"""Rotations across instruments: each value is set against the others of its day."""
