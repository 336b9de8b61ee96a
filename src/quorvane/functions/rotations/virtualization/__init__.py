"""Rotations that map instruments through a space of virtual structures and back."""
