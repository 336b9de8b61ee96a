"""Rotations: functions called once per day on that day's row of values."""
