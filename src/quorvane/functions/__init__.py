"""Numeric functions on day-by-instrument data."""
