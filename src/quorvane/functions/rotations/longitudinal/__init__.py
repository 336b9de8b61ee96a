"""Rotations along time: each column is transformed by its own past."""
