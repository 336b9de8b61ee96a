"""Element-wise rotations."""
